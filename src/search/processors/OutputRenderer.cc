#include "search/processors/OutputRenderer.h"

#include <algorithm>

#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/ResultsXml.h"

void OutputRenderer::processArguments() { refuseLeftovers(); }

void OutputRenderer::execute(SearchResults& results, SearchResultsInfo& info) {
  Str out;
  renderBegin(info, out);
  size_t position = 0, rendered = 0;
  auto renderAll = [&](SearchResults& chunk) {
    renderChunk(chunk, info);
    auto one = [&](const SearchResult* r) {
      size_t pos = position++;
      if (pos < _offset || (_count != 0 && pos >= _offset + _count)) return;
      renderRow(chunk, *r, pos, out);
      ++rendered;
    };
    if (reversed())
      std::for_each(chunk.rbegin(), chunk.rend(), one);
    else
      std::for_each(chunk.begin(), chunk.end(), one);
  };
  if (!results.hasFiles()) {
    renderAll(results);
  } else {
    std::vector<Pathname> files = results.getFiles();
    if (reversed()) std::reverse(files.begin(), files.end());
    for (const Pathname& p : files) {
      SearchResults chunk;
      chunk.addFile(p);
      chunk.firstFile();
      chunk.readFile();
      renderAll(chunk);
      chunk.free(false);  // forgets the file without deleting it
    }
  }
  renderEnd(info, rendered, out);
  ResultsXml::replaceWithXmlRow(results, out);
}
