// Helpers of the row command tests: build rows, run a search text over
// them, spill them into chunk files, and read them back as text.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchCommands.h"
#include "util/FileStar.h"
#include "util/Pathname.h"

namespace rowtest {

using Row = std::vector<std::pair<std::string, std::string>>;

inline void addRows(SearchResults& rs, const std::vector<Row>& rows) {
  for (const Row& r : rows) {
    SearchResult* sr = rs.addNewResult();
    for (auto& kv : r) sr->setValue(kv.first, kv.second);
  }
}

// "k=v k2=v2" in name order, for every row of every spill file.
inline std::vector<std::string> collect(SearchResults& rs) {
  std::vector<std::string> out;
  rs.firstFile();
  while (rs.readFile()) {
    for (SearchResult* r : rs) {
      std::string line;
      for (auto& kv : rs.getKeyMap()) {
        const Str* v = r->getValuePtr(kv.second);
        if (!v) continue;
        if (!line.empty()) line += ' ';
        line += kv.first + "=" + *v;
      }
      out.push_back(line);
    }
    if (!rs.nextFile()) break;
  }
  return out;
}

// Runs `search` over `rs`; gives "" or the failure text.
inline std::string run(const std::string& search, SearchResults& rs, SearchResultsInfo& info) {
  SearchCommands::registerAll();
  try {
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, true));
    info.queryId = "test";
    p->execute(rs, info);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

// A fresh scratch directory, removed with the object.
struct TempDir {
  TempDir() {
    char tmpl[] = "/tmp/rowcmds_testXXXXXX";
    path = mkdtemp(tmpl);
  }
  ~TempDir() { system(("rm -rf '" + path + "'").c_str()); }
  std::string path;
};

// Moves the in-memory rows of `rs` into chunk files of `chunk` rows.
inline void spill(SearchResults& rs, const std::string& dir, size_t chunk) {
  std::vector<Pathname> files;
  SearchResults part;
  size_t n = 0;
  auto flush = [&]() {
    Pathname p(dir + "/chunk" + std::to_string(files.size()) + ".csv");
    FileStar f(fopen(p.c_str(), "w"));
    part.toCSV(f, true, false);
    f.close();
    files.push_back(p);
    part.free(false);
  };
  for (SearchResult* r : rs) {
    SearchResult* c = part.addNewResult();
    part.copyResult(*r, *c);
    if (++n % chunk == 0) flush();
  }
  if (!part.empty()) flush();
  rs.free(false);
  for (auto& p : files) rs.addFile(p);
  rs.firstFile();
  rs.readFile();
}

}  // namespace rowtest
