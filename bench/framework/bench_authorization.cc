// Permission checks per second: the cost of checkUserPerms with 20 roles
// that import each other (chains up to 19 deep sharing their tails, capabilities
// enabled and disabled on the way), for a user holding three of them.
//
//   cached     flattened roles kept until the configuration changes (how the
//              service runs)
//   uncached   every check flattens the user's roles again
//
// The user's roles themselves are always cached (they come from the back
// end); a granted and a refused capability are asked in turn. Each case runs
// AUTHZ_BENCH_SECONDS (default 2) on one thread.
//
// DESIGN. main() writes a scratch home with authorize.conf, builds the
// manager over its own PropertyPages, registers the capabilities, and times
// batches of checks until the time is up; the home is removed at the end.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>

#include "framework/auth/AuthorizationManagerVelmor.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

constexpr int kRoles = 20;
constexpr int kCapabilities = 40;

std::string capName(int i) { return "bench_cap_" + std::to_string(i); }

// role_r<i> imports r<i+1> and r<i+3> (when they exist): chains up to 19
// deep that share their tails; each role enables two capabilities of its
// own and disables one.
std::string authorizeConf() {
  std::string out;
  for (int r = 0; r < kRoles; ++r) {
    out += "[role_r" + std::to_string(r) + "]\n";
    std::string imports;
    for (int to : {r + 1, r + 3})
      if (to < kRoles) imports += (imports.empty() ? "" : ";") + std::string("r") + std::to_string(to);
    if (!imports.empty()) out += "importRoles = " + imports + "\n";
    out += capName((2 * r) % kCapabilities) + " = enabled\n";
    out += capName((2 * r + 1) % kCapabilities) + " = enabled\n";
    out += capName((3 * r + 5) % kCapabilities) + " = disabled\n";
    out += "\n";
  }
  return out;
}

double run(AuthorizationManagerVelmor& m, double seconds, long& granted) {
  using Clock = std::chrono::steady_clock;
  const std::string yes = capName(0), no = "search_admin_index";
  long calls = 0;
  granted = 0;
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  while (Clock::now() < end) {
    for (int i = 0; i < 1000; ++i) {
      granted += m.checkUserPerms(i % 2 ? yes : no, "benchuser");
      ++calls;
    }
  }
  double took = std::chrono::duration<double>(Clock::now() - start).count();
  return calls / took;
}

}  // namespace

int main() {
  const char* env = getenv("AUTHZ_BENCH_SECONDS");
  double seconds = env ? atof(env) : 2.0;
  if (seconds <= 0) seconds = 2.0;
  char tmpl[] = "/tmp/velmor-bench-authz-XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  std::string home = tmpl;
  if (system(("mkdir -p " + home + "/etc/bundles/default " + home + "/etc/bundles/local").c_str()) != 0) return 1;
  std::ofstream(home + "/etc/bundles/default/authorize.conf") << authorizeConf();
  LoaderInfo::getInstance().setHomePath(home);

  PropertyPages pages("authorize");
  pages.updateConfigs();
  AuthorizationManagerVelmor m(
      [](const Str&, std::set<Str>& roles) {
        roles = {"r0", "r6", "r13"};
        return true;
      },
      &pages);
  m.initialize();
  m.setRoleCacheSeconds(3600);
  for (int i = 0; i < kCapabilities; ++i) m.registerCapability("bench", capName(i));

  printf("%-10s %14s %10s\n", "case", "checks/s", "granted");
  for (bool cached : {true, false}) {
    m.setFlattenCaching(cached);
    long granted = 0;
    double rate = run(m, seconds, granted);
    printf("%-10s %14.0f %10ld\n", cached ? "cached" : "uncached", rate, granted);
  }
  LoaderInfo::getInstance().setHomePath("");
  if (system(("rm -rf " + home).c_str()) != 0) fprintf(stderr, "could not remove %s\n", home.c_str());
  return 0;
}
