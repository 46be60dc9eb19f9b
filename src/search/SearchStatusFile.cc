#include "search/SearchStatusFile.h"

#include <vector>

#include "search/SearchResults.h"

namespace {
const std::vector<Str>& columns() {
  static const std::vector<Str> cols = {"user",  "start",    "count",  "cursor",   "keywords",
                                        "ttl",   "done",     "search", "streaming", "error",
                                        "setStart", "setEnd", "startTime", "endTime"};
  return cols;
}
}  // namespace

void SearchStatusFile::toResults(SearchResults& out) const {
  out.free(false);
  SearchResult* r = out.addNewResult();
  auto set = [&](const char* k, const Str& v) { r->setValue(out.keyIndex(Str(k), true), v); };
  set("user", user);
  set("start", ToString(static_cast<long long>(start)));
  set("count", ToString(static_cast<unsigned long long>(count)));
  set("cursor", ToString(static_cast<long long>(cursor)));
  set("keywords", keywords);
  set("ttl", ToString(static_cast<unsigned long long>(ttl)));
  set("done", Str(done ? "1" : "0"));
  set("search", search);
  set("streaming", Str(streaming ? "1" : "0"));
  set("error", error);
  set("setStart", ToString(static_cast<long long>(setStart)));
  set("setEnd", ToString(static_cast<long long>(setEnd)));
  set("startTime", ToString(static_cast<long long>(startTime)));
  set("endTime", ToString(static_cast<long long>(endTime)));
}

bool SearchStatusFile::fromResults(const SearchResults& in) {
  if (in.empty()) return false;
  const SearchResult* r = in.front();
  auto get = [&](const char* k) -> const Str& { return r->getValue(in.keyIndex(Str(k))); };
  user = get("user");
  start = get("start").toLongLong(0);
  count = get("count").toUnsignedLong(0);
  cursor = get("cursor").toLongLong(0);
  keywords = get("keywords");
  ttl = get("ttl").toUnsignedLong(0);
  done = get("done") == "1";
  search = get("search");
  streaming = get("streaming") == "1";
  error = get("error");
  setStart = get("setStart").toLongLong(0);
  setEnd = get("setEnd").toLongLong(0);
  startTime = get("startTime").toLongLong(0);
  endTime = get("endTime").toLongLong(0);
  return true;
}

size_t SearchStatusFile::write(const Pathname& path) const {
  SearchResults rs;
  toResults(rs);
  return rs.toCSV(path, columns(), true);
}

bool SearchStatusFile::read(const Pathname& path) {
  SearchResults rs;
  rs.fromCSV(path, 0, SearchResults::kAllRows);
  return fromResults(rs);
}
