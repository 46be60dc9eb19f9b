// Checks the shipped configuration under etc/: that the property files read
// the way their authors meant under the property-file syntax (no line cut at
// the reader's buffer, no key shadowed by an earlier one in its stanza, no
// head or comment that a leading blank turns into something else), that the
// message catalogue's texts take the arguments their keys promise, that the
// limits are numbers, that every index has its required settings, and that
// the log configurations parse.
//
// The checker is tried on small texts first, so a check that could never
// fail does not pass unnoticed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

const fs::path kEtc = fs::path(VELMOR_SOURCE_DIR) / "etc";
const fs::path kDefault = kEtc / "bundles" / "default";

// The reader takes lines with fgets into a buffer of this size.
constexpr size_t kReadBuffer = 65534;

struct Stanza {
  std::vector<std::pair<std::string, std::string>> keys;  // in file order, repeats included
};

struct Conf {
  std::map<std::string, Stanza> stanzas;
  std::vector<std::string> order;  // stanza names in order of first appearance
  std::vector<std::string> problems;
};

std::string trim(const std::string& s) {
  const size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return {};
  return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

// Reads a property file as the system's reader does, noting whatever the
// reader would take differently from how it looks.
Conf parseConf(const std::string& text) {
  Conf c;
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  std::string current = "default";
  c.stanzas[current];
  c.order.push_back(current);
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string& l = lines[i];
    const std::string where = "line " + std::to_string(i + 1) + ": ";
    if (l.size() + 1 >= kReadBuffer) c.problems.push_back(where + "longer than the reader's buffer");
    if (l.empty() || l[0] == '#' || l[0] == ';') continue;
    if (l[0] == '[') {
      const size_t close = l.rfind(']');
      if (close == std::string::npos) {
        c.problems.push_back(where + "stanza head without ']'");
        continue;
      }
      std::string name = l.substr(1, close - 1);
      if (name.rfind("sourcetype::", 0) == 0) name = name.substr(12);
      if (name.empty()) {
        c.problems.push_back(where + "empty stanza name");
        continue;
      }
      current = name;
      if (!c.stanzas.count(name)) c.order.push_back(name);
      c.stanzas[name];
      continue;
    }
    const std::string t = trim(l);
    const size_t eq = l.find('=');
    if (eq == std::string::npos) {
      if (!t.empty()) c.problems.push_back(where + "no '=': the reader drops it");
      continue;
    }
    if (t[0] == '[' || t[0] == '#' || t[0] == ';')
      c.problems.push_back(where + "leading blank: read as a key line, not as '" + t.substr(0, 1) + "'");
    const std::string key = trim(l.substr(0, eq));
    std::string value = l.substr(eq + 1);
    // Backslash-newline continues the value on the next line.
    while (value.size() > 1 && value.back() == '\\' && i + 1 < lines.size()) {
      value.back() = '\n';
      value += lines[++i];
    }
    if (key.empty()) {
      c.problems.push_back(where + "empty key");
      continue;
    }
    Stanza& s = c.stanzas[current];
    for (const auto& kv : s.keys)
      if (kv.first == key) c.problems.push_back(where + "key '" + key + "' repeats in [" + current + "]: ignored");
    s.keys.emplace_back(key, trim(value));
  }
  return c;
}

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The printf conversions a catalogue text must hold for its key, in order:
// the argument types after "__", separated by "_".
bool expectedConversions(const std::string& key, std::vector<std::string>& out, std::string& why) {
  static const std::map<std::string, std::string> kTypes = {
      {"S", "s"},   {"C", "c"},   {"D", "d"},   {"F", "f"},   {"LD", "ld"}, {"LLD", "lld"}, {"LLU", "llu"},
      {"LLX", "llx"}, {"LU", "lu"}, {"LX", "lx"}, {"M", "m"}, {"P", "p"},   {"U", "u"},     {"UL", "u"}};
  out.clear();
  const size_t dd = key.find("__");
  if (dd == std::string::npos) return true;  // a key without arguments
  if (dd == 0) {
    why = "no name before '__'";
    return false;
  }
  std::string args = key.substr(dd + 2);
  std::istringstream in(args);
  for (std::string tok; std::getline(in, tok, '_');) {
    if (tok.empty()) continue;
    auto it = kTypes.find(tok);
    if (it == kTypes.end()) {
      why = "unknown argument type '" + tok + "'";
      return false;
    }
    out.push_back(it->second);
  }
  if (out.empty()) {
    why = "'__' with no argument types";
    return false;
  }
  return true;
}

// The printf conversions of a text, as length modifier plus letter.
std::vector<std::string> conversions(const std::string& text) {
  static const std::regex kConv(R"(%(%|[-+ #0]*\d*(?:\.\d+)?(hh|h|ll|l|z)?([diouxXcspfeEgGm])))");
  std::vector<std::string> out;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), kConv); it != std::sregex_iterator(); ++it) {
    if ((*it)[1] == "%") continue;
    std::string c = (*it)[2].str() + (*it)[3].str();
    if (c == "i") c = "d";
    out.push_back(c);
  }
  return out;
}

// Catalogue faults: keys outside stanzas, bad argument lists, texts whose
// conversions differ from the key's, and two stanzas giving one full key.
std::vector<std::string> checkCatalogue(const Conf& c) {
  std::vector<std::string> problems;
  std::set<std::string> fullKeys;
  for (const std::string& name : c.order) {
    for (const auto& [key, value] : c.stanzas.at(name).keys) {
      const std::string full = name + "_" + key;
      if (name == "default") problems.push_back(key + ": outside any stanza");
      if (!fullKeys.insert(full).second) problems.push_back(full + ": defined twice");
      std::vector<std::string> want;
      std::string why;
      if (!expectedConversions(key, want, why)) {
        problems.push_back(full + ": " + why);
        continue;
      }
      if (conversions(value) != want) problems.push_back(full + ": conversions of the text do not match the key");
      if (value.empty()) problems.push_back(full + ": empty text");
    }
  }
  return problems;
}

std::string joined(const std::vector<std::string>& v) {
  std::string s;
  for (const auto& x : v) s += x + "\n";
  return s;
}

TEST(ConfCheckerTest, FindsWhatTheReaderWouldMisread) {
  struct Case {
    std::string text;
    std::string problem;  // fragment of the one expected problem; empty: none
  } cases[] = {
      {"[a]\nx = 1\ny = 2\n", ""},
      {"[a]\nx = 1\n[b]\nx = 2\n", ""},
      {"[a]\nx = 1\nx = 2\n", "key 'x' repeats in [a]"},
      {"[a]\nx = 1\n[b]\n[a]\nx = 3\n", "key 'x' repeats in [a]"},
      {"[sourcetype::a]\nx = 1\n[a]\nx = 2\n", "key 'x' repeats in [a]"},
      {"[a]\n  [b]\n", "no '='"},
      {"[a]\n  [b]=1\n", "leading blank"},
      {"[a]\n # note = 1\n", "leading blank"},
      {"[a]\nx = 1 \\\n  [b]\n", ""},  // continuation, not a stanza
      {"[a]\njust words\n", "no '='"},
      {"[a]\n = 5\n", "empty key"},
      {"[a\nx = 1\n", "without ']'"},
      {"[a]\nx = " + std::string(kReadBuffer, 'v') + "\n", "longer than the reader's buffer"},
  };
  for (const Case& c : cases) {
    const Conf conf = parseConf(c.text);
    if (c.problem.empty()) {
      EXPECT_TRUE(conf.problems.empty()) << c.text.substr(0, 60) << "\n" << joined(conf.problems);
    } else {
      ASSERT_EQ(conf.problems.size(), 1u) << c.text.substr(0, 60) << "\n" << joined(conf.problems);
      EXPECT_NE(conf.problems[0].find(c.problem), std::string::npos) << conf.problems[0];
    }
  }
  // A continued value keeps its lines.
  const Conf conf = parseConf("[a]\nx = b\\\n  c\n");
  EXPECT_EQ(conf.stanzas.at("a").keys.at(0).second, "b\n  c");
}

TEST(ConfCheckerTest, CatalogueKeysAndTextsMustAgree) {
  struct Case {
    const char* text;
    const char* problem;  // fragment of the one expected problem; null: none
  } cases[] = {
      {"[P]\nBAD__U_U = from %u to %u\n", nullptr},
      {"[P]\nUSAGE = usage: page <start> <end>\n", nullptr},
      {"[P]\nPCT__S = 100%% of '%s'\n", nullptr},
      {"[T]\nFIELD__S__S = field %s in %s\n", nullptr},
      {"[A]\nRANGE__S_LD_D = %s %ld %d\n", nullptr},
      {"[P]\nBAD__U_U = from %u\n", "do not match"},
      {"[P]\nBAD__U_U = from %d to %u\n", "do not match"},
      {"[P]\nBAD__S = %s and %s\n", "do not match"},
      {"[P]\nUSAGE = 50%d\n", "do not match"},
      {"[P]\nBAD__Q = %s\n", "unknown argument type 'Q'"},
      {"[P]\nBAD__ = x\n", "no argument types"},
      {"LOOSE__S = %s\n", "outside any stanza"},
      {"[A_B]\nC__S = %s\n[A]\nB_C__S = %s\n", "defined twice"},
  };
  for (const Case& c : cases) {
    const auto problems = checkCatalogue(parseConf(c.text));
    if (!c.problem) {
      EXPECT_TRUE(problems.empty()) << c.text << joined(problems);
    } else {
      ASSERT_EQ(problems.size(), 1u) << c.text << joined(problems);
      EXPECT_NE(problems[0].find(c.problem), std::string::npos) << problems[0];
    }
  }
}

TEST(ShippedConfTest, EveryDefaultFileReadsAsWritten) {
  size_t files = 0;
  for (const auto& e : fs::directory_iterator(kDefault)) {
    if (e.path().extension() != ".conf") continue;
    ++files;
    const Conf c = parseConf(slurp(e.path()));
    EXPECT_TRUE(c.problems.empty()) << e.path() << "\n" << joined(c.problems);
  }
  EXPECT_GE(files, 7u);
}

TEST(ShippedConfTest, CatalogueTextsTakeTheirKeysArguments) {
  const Conf c = parseConf(slurp(kDefault / "strings.conf"));
  EXPECT_TRUE(checkCatalogue(c).empty()) << joined(checkCatalogue(c));
  // Keys without "__" have no default text to fall back on: they must be
  // here. These are the ones the commands and the REST layer look up.
  std::set<std::string> present;
  for (const auto& [name, stanza] : c.stanzas)
    for (const auto& kv : stanza.keys) present.insert(name + "_" + kv.first);
  for (const char* k : {"MAP_USAGE", "PAGE_USAGE", "PAGE_BAD_BOUNDS", "SET_USAGE_3", "SET_USAGE_OPERATOR",
                        "SCRIPT_USAGE_ARG_COUNT", "SCRIPT_USAGE_LANG", "TRANSAM_WILDCARDS_ONLY_AT_END_OF_NAMES",
                        "REST_SEARCH_UNKNOWN_SID", "REST_SEARCH_ONLY_ONE_ACTION", "REST_SEARCH_JOB_CANCELLED"})
    EXPECT_TRUE(present.count(k)) << k;
}

TEST(ShippedConfTest, LimitsAreNonNegativeNumbers) {
  const Conf c = parseConf(slurp(kDefault / "limits.conf"));
  const std::regex kNumber(R"(\d+(\.\d+)?)");
  size_t n = 0;
  for (const auto& [name, stanza] : c.stanzas)
    for (const auto& [key, value] : stanza.keys) {
      ++n;
      EXPECT_TRUE(std::regex_match(value, kNumber)) << "[" << name << "] " << key << " = " << value;
    }
  EXPECT_GT(n, 20u);
  EXPECT_TRUE(c.stanzas.at("default").keys.empty());
}

TEST(ShippedConfTest, IndexesHaveTheirRequiredSettings) {
  const Conf c = parseConf(slurp(kDefault / "indexes.conf"));
  auto get = [&](const std::string& stanza, const std::string& key) -> std::string {
    for (const auto& kv : c.stanzas.at(stanza).keys)
      if (kv.first == key) return kv.second;
    return {};
  };
  for (const char* k : {"maxQueryIds", "queryLanguageDefinition", "blockSignatureDatabase", "defaultDatabase"})
    EXPECT_FALSE(get("default", k).empty()) << k;
  EXPECT_TRUE(c.stanzas.count(get("default", "defaultDatabase")));
  EXPECT_TRUE(c.stanzas.count(get("default", "blockSignatureDatabase")));
  std::set<std::string> homes;
  for (const std::string& name : c.order) {
    if (name == "default") continue;
    for (const char* k : {"homePath", "coldPath", "thawedPath", "maxResults", "compressRawdata", "maxDataSize",
                          "maxTotalDataSizeMB"})
      EXPECT_FALSE(get(name, k).empty()) << "[" << name << "] lacks " << k;
    EXPECT_TRUE(homes.insert(get(name, "homePath")).second) << "[" << name << "] shares its homePath";
    EXPECT_EQ(get(name, "homePath").rfind("$VELMOR_DB/", 0), 0u) << name;
  }
  EXPECT_TRUE(c.stanzas.count("_thefileseeks"));
}

TEST(ShippedConfTest, LogConfigurationsParse) {
  const std::regex kRoot(R"(rootCategory=[A-Za-z, \t]+)");
  const std::regex kCategory(R"(category\.[\w.]+=[A-Za-z, \t]+)");
  const std::regex kAppender(
      R"(appender\.(\w+)(\.(fileName|maxFileSize|maxBackupIndex|layout|layout\.ConversionPattern))?=(.*))");
  const std::set<std::string> kLevels = {"DEBUG", "INFO", "NOTICE", "WARN", "ERROR", "CRIT", "ALERT", "FATAL", "EMERG"};
  for (const char* name : {"log-cmdline.cfg", "log.cfg"}) {
    std::istringstream in(slurp(kEtc / name));
    std::set<std::string> appenders, used;
    bool root = false;
    for (std::string l; std::getline(in, l);) {
      // A line ends at '#'.
      const std::string t = trim(l.substr(0, l.find('#')));
      if (t.empty()) continue;
      std::smatch m;
      if (std::regex_match(t, kRoot) || std::regex_match(t, kCategory)) {
        root = root || t.rfind("rootCategory=", 0) == 0;
        std::istringstream words(t.substr(t.find('=') + 1));
        for (std::string w; std::getline(words, w, ',');) {
          w = trim(w);
          if (!kLevels.count(w)) used.insert(w);
        }
      } else if (std::regex_match(t, m, kAppender)) {
        appenders.insert(m[1]);
        const std::string attr = m[3], value = m[4];
        if (attr == "maxFileSize" || attr == "maxBackupIndex") {
          EXPECT_TRUE(std::regex_match(value, std::regex(R"(\d+)"))) << name << ": " << t;
        } else if (attr == "layout") {
          EXPECT_TRUE(value == "BasicLayout" || value == "SimpleLayout" || value == "PatternLayout") << t;
        } else if (attr == "fileName") {
          EXPECT_EQ(value.rfind("${VELMOR_HOME}/var/log/velmor/", 0), 0u) << name << ": " << t;
        }
      } else {
        ADD_FAILURE() << name << ": parse error at \"" << t << "\"";
      }
    }
    EXPECT_TRUE(root) << name;
    for (const std::string& a : used) EXPECT_TRUE(appenders.count(a)) << name << ": unknown appender " << a;
  }
}

}  // namespace
