#include "search/dispatch/PeerSearch.h"

#include <memory>

#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/SearchProcessor.h"
#include "search/SearchResultsInfo.h"
#include "search/dispatch/PipelineSplit.h"

namespace {

Str trimmed(const Str& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\n' || s[b] == '\r')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\n' || s[e - 1] == '\r')) --e;
  return s.substr(b, e - b);
}

Str joinCommands(const std::vector<Str>& cmds, size_t from, size_t to) {
  Str out;
  for (size_t i = from; i < to; ++i) {
    if (i > from) out += " | ";
    out += cmds[i];
  }
  return out;
}

}  // namespace

std::vector<Str> PeerSearch::splitCommands(const Str& search) {
  std::vector<Str> out;
  Str cur;
  bool inQuote = false;
  int depth = 0;
  for (size_t i = 0; i < search.size(); ++i) {
    char c = search[i];
    if (c == '\\' && i + 1 < search.size()) {
      cur += c;
      cur += search[++i];
      continue;
    }
    if (c == '"') inQuote = !inQuote;
    if (!inQuote) {
      if (c == '[') ++depth;
      if (c == ']' && depth > 0) --depth;
      if (c == '|' && depth == 0) {
        out.push_back(trimmed(cur));
        cur.clear();
        continue;
      }
    }
    cur += c;
  }
  out.push_back(trimmed(cur));
  return out;
}

Str PeerSearch::rewrite(const Str& search, const std::vector<Str>& peers) {
  if (peers.empty()) return search;
  std::vector<Str> cmds = splitCommands(search);
  std::unique_ptr<SearchProcessor> parsed(SearchParser::parse(search, false));
  auto* pipe = dynamic_cast<SearchPipeline*>(parsed.get());
  if (!pipe) return search;
  // The top-level text must line up with the parsed commands one to one.
  size_t skip = !cmds.empty() && cmds.front().empty() ? 1 : 0;
  if (pipe->getProcessors().size() != cmds.size() - skip) return search;
  for (SearchProcessor* p : pipe->getProcessors())
    if (p->getName() == "dispatch") return search;

  SearchResultsInfo scratch;
  PipelineSplit split(parsed.release(), scratch);
  size_t prefix = split.prefix().size();
  if (prefix == 0) return search;
  Str remote = joinCommands(cmds, skip, skip + prefix);
  if (!split.rest().empty()) {
    Str map = split.rest().front()->getStreamingOp();
    if (!map.empty()) remote += " | " + trimmed(map);
  }
  Str out = "dispatch";
  for (const Str& p : peers) out += " " + SearchParser::quoteWord(p);
  out += " [ " + remote + " ]";
  if (skip + prefix < cmds.size()) out += " | " + joinCommands(cmds, skip + prefix, cmds.size());
  return out;
}
