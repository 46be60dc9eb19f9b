// Terms cut from the eight sample logs of ../shared/data/loghub (runs of
// letters and digits), each with the number of its line counted across all
// files: the shared input of the slice benchmarks. Loaded once, on first use;
// empty when the logs are absent.
#pragma once

#include <ctype.h>
#include <stdint.h>

#include <fstream>
#include <string>
#include <vector>

namespace bench {

struct Tok {
  std::string term;
  uint32_t line;
};

inline const std::vector<Tok>& loghubTokens() {
  static const std::vector<Tok> toks = [] {
    std::vector<Tok> out;
    const char* systems[] = {"Apache", "HDFS", "Linux", "OpenSSH", "Spark", "Thunderbird", "Windows", "Zookeeper"};
    uint32_t line_no = 0;
    for (const char* s : systems) {
      std::ifstream in(std::string(VELMOR_SOURCE_DIR) + "/../shared/data/loghub/" + s + "/" + s + "_2k.log");
      std::string line;
      while (std::getline(in, line)) {
        ++line_no;
        std::string cur;
        for (char c : line) {
          if (isalnum((unsigned char)c)) {
            cur += c;
          } else if (!cur.empty()) {
            out.push_back({cur, line_no});
            cur.clear();
          }
        }
        if (!cur.empty()) out.push_back({cur, line_no});
      }
    }
    return out;
  }();
  return toks;
}

}  // namespace bench
