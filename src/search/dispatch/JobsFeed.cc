#include "search/dispatch/JobsFeed.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "framework/http/AtomFeed.h"
#include "search/dispatch/JobDocuments.h"

namespace {

// "<secs>.<n>" into its two numbers; false for any other name.
bool splitSid(const Str& sid, unsigned long long& secs, unsigned long long& n) {
  size_t dot = sid.find('.');
  if (dot == Str::npos || dot == 0 || dot + 1 == sid.size()) return false;
  for (size_t i = 0; i < sid.size(); ++i)
    if (i != dot && (sid[i] < '0' || sid[i] > '9')) return false;
  return std::sscanf(sid.c_str(), "%llu.%llu", &secs, &n) == 2;
}

}  // namespace

bool JobsFeed::newerFirst(const Str& a, const Str& b) {
  unsigned long long as = 0, an = 0, bs = 0, bn = 0;
  bool aj = splitSid(a, as, an), bj = splitSid(b, bs, bn);
  if (aj != bj) return aj;
  if (!aj) return a < b;
  if (as != bs) return as > bs;
  return an > bn;
}

void JobsFeed::build(const Pathname& root, const Str& caller, bool seeAll, const Str& urlBase, time_t now,
                     AtomFeed& out) {
  out = AtomFeed();
  out.title = "Search jobs";
  out.id = urlBase + "/services/search/jobs";
  out.updated = JobDocuments::rfc3339(now);
  out.links.push_back(AtomLink{"/services/search/jobs", "self", ""});
  std::vector<Str> names;
  root.readDirectory(names);
  std::sort(names.begin(), names.end(), newerFirst);
  for (const Str& name : names) {
    if (name.startswith('.')) continue;
    Pathname dir = root / name;
    if (!dir.isDir()) continue;
    JobStatus st;
    if (!JobDocuments::readStatus(dir, name, st)) continue;
    if (!seeAll && st.user != caller) continue;
    out.entries.emplace_back();
    JobDocuments::statusEntry(st, urlBase, now, out.entries.back());
  }
}
