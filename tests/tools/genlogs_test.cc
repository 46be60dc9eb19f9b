// Runs the sample-log generator and checks what it wrote: reproducibility,
// the shape of each format, time order and span, the CSV of access events,
// the manifest, and the refusal of bad options.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

const std::string kTool = VELMOR_BINARY_DIR "/bin/velmor-genlogs";

struct ToolRun {
  int status = -1;
  std::string out;  // standard output (and standard error when merged)
};

ToolRun runTool(const std::string& args, bool mergeStderr = false) {
  ToolRun r;
  const std::string cmd = kTool + " " + args + (mergeStderr ? " 2>&1" : " 2>/dev/null");
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return lines;
}

int64_t daysFromCivil(int y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * ((m + 9) % 12) + 2) / 5 + d - 1;
  return era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
}

int monthIndex(const std::string& mon) {
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int i = 0; i < 12; ++i)
    if (mon == kMonths[i]) return i + 1;
  return 0;
}

// A strict JSON syntax check (RFC 8259), enough to tell a well-formed line.
class JsonCheck {
 public:
  static bool valid(const std::string& text) {
    JsonCheck c(text);
    c.ws();
    if (!c.value()) return false;
    c.ws();
    return c.i == text.size();
  }

 private:
  explicit JsonCheck(const std::string& text) : s(text), i(0) {}
  const std::string& s;
  size_t i;
  bool eof() const { return i >= s.size(); }
  void ws() {
    while (!eof() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  }
  bool lit(const char* w) {
    const size_t n = std::char_traits<char>::length(w);
    if (s.compare(i, n, w) != 0) return false;
    i += n;
    return true;
  }
  bool value() {
    if (eof()) return false;
    switch (s[i]) {
      case '{': return object();
      case '[': return array();
      case '"': return string();
      case 't': return lit("true");
      case 'f': return lit("false");
      case 'n': return lit("null");
      default: return number();
    }
  }
  bool object() {
    ++i;
    ws();
    if (!eof() && s[i] == '}') return ++i, true;
    for (;;) {
      ws();
      if (eof() || s[i] != '"' || !string()) return false;
      ws();
      if (eof() || s[i++] != ':') return false;
      ws();
      if (!value()) return false;
      ws();
      if (eof()) return false;
      if (s[i] == '}') return ++i, true;
      if (s[i++] != ',') return false;
    }
  }
  bool array() {
    ++i;
    ws();
    if (!eof() && s[i] == ']') return ++i, true;
    for (;;) {
      ws();
      if (!value()) return false;
      ws();
      if (eof()) return false;
      if (s[i] == ']') return ++i, true;
      if (s[i++] != ',') return false;
    }
  }
  bool string() {
    ++i;
    while (!eof()) {
      const unsigned char c = static_cast<unsigned char>(s[i++]);
      if (c == '"') return true;
      if (c < 0x20) return false;
      if (c == '\\') {
        if (eof()) return false;
        const char e = s[i++];
        if (e == 'u') {
          for (int k = 0; k < 4; ++k)
            if (eof() || !std::isxdigit(static_cast<unsigned char>(s[i++]))) return false;
        } else if (!strchr("\"\\/bfnrt", e)) {
          return false;
        }
      }
    }
    return false;
  }
  bool digits() {
    const size_t b = i;
    while (!eof() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i;
    return i > b;
  }
  bool number() {
    if (!eof() && s[i] == '-') ++i;
    if (eof()) return false;
    if (s[i] == '0') {
      ++i;
    } else if (!digits()) {
      return false;
    }
    if (!eof() && s[i] == '.') {
      ++i;
      if (!digits()) return false;
    }
    if (!eof() && (s[i] == 'e' || s[i] == 'E')) {
      ++i;
      if (!eof() && (s[i] == '+' || s[i] == '-')) ++i;
      if (!digits()) return false;
    }
    return true;
  }
};

// One file of the manifest.
struct FileEntry {
  std::string path, sourcetype;
  uint64_t lines, bytes, events = 0;
};

std::vector<FileEntry> parseManifest(const std::string& out) {
  std::vector<FileEntry> files;
  for (const std::string& line : splitLines(out)) {
    std::istringstream in(line);
    FileEntry e;
    std::getline(in, e.path, '\t');
    in >> e.lines >> e.bytes >> e.sourcetype >> e.events;
    files.push_back(e);
  }
  return files;
}

class GenlogsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/genlogs_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    ASSERT_TRUE(fs::exists(kTool)) << kTool << " has not been built";
  }
  void TearDown() override { fs::remove_all(dir); }

  // Runs the tool into dir/<sub> and returns the manifest.
  std::vector<FileEntry> generate(const std::string& sub, const std::string& args) {
    const ToolRun r = runTool("--out " + (dir / sub).string() + " " + args);
    EXPECT_EQ(r.status, 0) << args;
    return parseManifest(r.out);
  }

  // All files under dir/<sub>, relative path to contents.
  std::map<std::string, std::string> tree(const std::string& sub) {
    std::map<std::string, std::string> t;
    for (const auto& e : fs::recursive_directory_iterator(dir / sub))
      if (e.is_regular_file()) t[fs::relative(e.path(), dir / sub).string()] = slurp(e.path());
    return t;
  }

  fs::path dir;
};

// Seconds since the epoch of an event's first line, by the format of its
// file; -1 when the line does not carry a timestamp of that format (stack
// trace lines). Syslog stamps have no year: `year` supplies it.
int64_t eventTime(const std::string& sourcetype, const std::string& line, int year) {
  static const std::regex kSyslog(R"(^([A-Z][a-z]{2}) ([ 1-3]\d) (\d\d):(\d\d):(\d\d) )");
  static const std::regex kAccess(R"(\[(\d\d)/([A-Z][a-z]{2})/(\d{4}):(\d\d):(\d\d):(\d\d) \+0000\])");
  static const std::regex kIso(R"((\d{4})-(\d\d)-(\d\d)[T ](\d\d):(\d\d):(\d\d)[.,]\d{3})");
  std::smatch m;
  auto at = [](int y, int mo, int d, int h, int mi, int s) {
    return daysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + s;
  };
  if (sourcetype == "syslog" || sourcetype == "auth_log") {
    if (!std::regex_search(line, m, kSyslog)) return -1;
    return at(year, monthIndex(m[1]), std::stoi(m[2]), std::stoi(m[3]), std::stoi(m[4]), std::stoi(m[5]));
  }
  if (sourcetype == "web_access") {
    if (!std::regex_search(line, m, kAccess)) return -1;
    return at(std::stoi(m[3]), monthIndex(m[2]), std::stoi(m[1]), std::stoi(m[4]), std::stoi(m[5]),
              std::stoi(m[6]));
  }
  if (!std::regex_search(line, m, kIso) || (sourcetype != "app_json" && m.position(0) != 0)) return -1;
  return at(std::stoi(m[1]), std::stoi(m[2]), std::stoi(m[3]), std::stoi(m[4]), std::stoi(m[5]),
            std::stoi(m[6]));
}

TEST_F(GenlogsTest, SameSeedSameBytesOtherSeedOtherBytes) {
  const std::string args = "--size 300K --days 2 --hosts 4 --start 2026-03-01";
  generate("a", "--seed 42 " + args + " --csv " + (dir / "a.csv").string());
  generate("b", "--seed 42 " + args + " --csv " + (dir / "b.csv").string());
  generate("c", "--seed 43 " + args);
  generate("d", "--seed 42 " + args);  // no CSV: the logs must not change
  const auto a = tree("a"), b = tree("b"), c = tree("c"), d = tree("d");
  ASSERT_FALSE(a.empty());
  EXPECT_EQ(a, b);
  EXPECT_EQ(a, d);
  EXPECT_EQ(slurp(dir / "a.csv"), slurp(dir / "b.csv"));
  ASSERT_EQ(a.size(), c.size());
  for (const auto& [name, text] : a) EXPECT_NE(text, c.at(name)) << name;
}

TEST_F(GenlogsTest, ManifestMatchesFilesAndSizeIsHonoured) {
  const uint64_t size = 400000;
  const auto files = generate("m", "--seed 5 --size " + std::to_string(size) + " --hosts 3");
  ASSERT_EQ(files.size(), 10u);  // web: 3 files, app: 4, db: 3
  uint64_t total = 0;
  for (const FileEntry& f : files) {
    const std::string text = slurp(f.path);
    EXPECT_EQ(text.size(), f.bytes) << f.path;
    EXPECT_EQ(static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n')), f.lines) << f.path;
    EXPECT_EQ(text.back(), '\n') << f.path;
    // Events: one per line, but a stack trace belongs to the stamped line
    // above it, so in a Java log only lines starting with a date begin one.
    uint64_t starts = 0;
    for (const std::string& l : splitLines(text)) {
      if (f.sourcetype != "java_log" || (l.size() > 4 && isdigit((unsigned char)l[0]) && l[4] == '-')) ++starts;
    }
    EXPECT_EQ(f.events, starts) << f.path;
    if (f.sourcetype == "java_log") EXPECT_LT(f.events, f.lines) << "no stack trace in " << f.path;
    total += f.bytes;
  }
  // Each file stops at the first event past its share.
  EXPECT_GE(total, size - files.size());
  EXPECT_LE(total, size + files.size() * 4096);
}

TEST_F(GenlogsTest, EventCountsAddUpWithLines) {
  // access, kv and json write exactly one line per event.
  const auto files = generate("l", "--seed 9 --lines 1003 --hosts 5 --formats access,kv,json");
  uint64_t lines = 0;
  for (const FileEntry& f : files) lines += f.lines;
  EXPECT_EQ(lines, 1003u);
}

TEST_F(GenlogsTest, HostsAndFormatSelection) {
  // One host still carries every selected format.
  auto files = generate("one", "--hosts 1 --size 100K");
  std::map<std::string, int> types;
  for (const FileEntry& f : files) {
    ++types[f.sourcetype];
    EXPECT_NE(f.path.find("/web-01/"), std::string::npos) << f.path;
  }
  for (const char* t : {"syslog", "auth_log", "web_access", "app_kv", "java_log", "app_json"})
    EXPECT_EQ(types[t], 1) << t;

  files = generate("java", "--hosts 7 --size 50K --formats java");
  ASSERT_EQ(files.size(), 2u);  // app-01 and app-02
  for (const FileEntry& f : files) EXPECT_EQ(f.sourcetype, "java_log");
}

TEST_F(GenlogsTest, EveryLineHasTheShapeOfItsFormat) {
  const auto files = generate("f", "--seed 11 --size 1500K --hosts 3 --days 2 --start 2026-11-16");
  static const std::regex kSyslog(R"(^[A-Z][a-z]{2} [ 1-3]\d \d\d:\d\d:\d\d ([a-z]+-\d\d) [A-Za-z][\w.-]*(\[\d+\])?: +\S.*$)");
  static const std::regex kAccess(
      R"re(^(\d{1,3}\.){3}\d{1,3} - \S+ \[\d\d/[A-Z][a-z]{2}/\d{4}:\d\d:\d\d:\d\d \+0000\] "(GET|POST|PUT|DELETE|HEAD) /\S* HTTP/\d\.\d" ([1-5]\d\d) \d+ "[^"]*" "[^"]+" \d+$)re");
  static const std::regex kKv(
      R"re(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z level=(DEBUG|INFO|WARN|ERROR)( [a-z_]+=("[^"]*"|[^" ]+))+$)re");
  static const std::regex kJavaHead(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d,\d{3} (DEBUG|INFO |WARN |ERROR) \[[\w-]+\] [\w.]+ - \S.*$)");
  static const std::regex kFrame(R"(^\tat [\w$./]+\([\w ]+(\.java:\d+)?\)$)");
  static const std::regex kMore(R"(^\t\.\.\. \d+ more$)");
  static const std::regex kException(R"(^[a-z][\w.]*\.[A-Z]\w*(Exception|Error)(: .+)?$)");

  size_t traces = 0, causes = 0;
  for (const FileEntry& f : files) {
    const std::string host = fs::path(f.path).parent_path().filename().string();
    const auto lines = splitLines(slurp(f.path));
    ASSERT_GT(lines.size(), 10u) << f.path;
    for (size_t i = 0; i < lines.size(); ++i) {
      const std::string& l = lines[i];
      std::smatch m;
      if (f.sourcetype == "syslog" || f.sourcetype == "auth_log") {
        ASSERT_TRUE(std::regex_match(l, m, kSyslog)) << f.path << ": " << l;
        EXPECT_EQ(m[1], host);
      } else if (f.sourcetype == "web_access") {
        ASSERT_TRUE(std::regex_match(l, kAccess)) << f.path << ": " << l;
      } else if (f.sourcetype == "app_kv") {
        ASSERT_TRUE(std::regex_match(l, kKv)) << f.path << ": " << l;
      } else if (f.sourcetype == "app_json") {
        ASSERT_TRUE(JsonCheck::valid(l)) << f.path << ": " << l;
        EXPECT_NE(l.find("\"host\":\"" + host + "\""), std::string::npos) << l;
      } else if (f.sourcetype == "java_log") {
        if (std::regex_match(l, kJavaHead)) continue;
        // Anything else belongs to a stack trace: an exception line right
        // after an ERROR line, or a frame, cause or elision after frames.
        if (std::regex_match(l, kException)) {
          ASSERT_GT(i, 0u);
          EXPECT_NE(lines[i - 1].find(" ERROR ["), std::string::npos) << lines[i - 1];
          ASSERT_LT(i + 1, lines.size());
          EXPECT_EQ(lines[i + 1].rfind("\tat ", 0), 0u) << "exception without frames: " << l;
          ++traces;
        } else if (l.rfind("Caused by: ", 0) == 0) {
          EXPECT_TRUE(std::regex_match(l.substr(11), kException)) << l;
          EXPECT_EQ(lines[i - 1].rfind("\tat ", 0), 0u) << l;
          ++causes;
        } else {
          ASSERT_TRUE(std::regex_match(l, kFrame) || std::regex_match(l, kMore)) << f.path << ": " << l;
        }
      } else {
        FAIL() << "unexpected source type " << f.sourcetype;
      }
    }
  }
  EXPECT_GT(traces, 0u);
  EXPECT_GT(causes, 0u);
}

TEST_F(GenlogsTest, TimesAreOrderedAndInsideTheSpan) {
  const int days = 3;
  const auto files = generate("t", "--seed 3 --size 2M --hosts 3 --days 3 --start 2026-12-29");
  const int64_t start = daysFromCivil(2026, 12, 29) * 86400;
  const int64_t end = start + days * 86400;
  for (const FileEntry& f : files) {
    int64_t last = start;
    std::vector<int> perDay(days, 0);
    for (const std::string& l : splitLines(slurp(f.path))) {
      // The span crosses a new year; syslog stamps have no year to tell it.
      int64_t t = eventTime(f.sourcetype, l, 2026);
      if (t >= 0 && t < start) t = eventTime(f.sourcetype, l, 2027);
      if (t < 0) {
        EXPECT_EQ(f.sourcetype, "java_log") << "no timestamp: " << l;
        continue;
      }
      ASSERT_GE(t, last) << f.path << ": " << l;
      ASSERT_LT(t, end) << f.path << ": " << l;
      last = t;
      ++perDay[(t - start) / 86400];
    }
    // Events are spread over the whole span, not bunched at one end.
    for (int d = 0; d < days; ++d) EXPECT_GT(perDay[d], 0) << f.path << " day " << d;
  }
}

TEST_F(GenlogsTest, CsvHoldsEveryAccessEventInFileOrder) {
  const fs::path csv = dir / "csv" / "access.csv";
  const auto files = generate("x", "--seed 21 --size 600K --hosts 4 --csv " + csv.string());
  const auto rows = splitLines(slurp(csv));
  ASSERT_FALSE(rows.empty());
  EXPECT_EQ(rows[0], "_time,host,source,sourcetype,status,method,uri,bytes,clientip,useragent,duration");

  // Splits one CSV record, undoing quotes.
  auto fields = [](const std::string& row) {
    std::vector<std::string> out(1);
    bool quoted = false;
    for (size_t i = 0; i < row.size(); ++i) {
      const char c = row[i];
      if (quoted) {
        if (c == '"' && i + 1 < row.size() && row[i + 1] == '"') out.back() += '"', ++i;
        else if (c == '"') quoted = false;
        else out.back() += c;
      } else if (c == '"') {
        quoted = true;
      } else if (c == ',') {
        out.emplace_back();
      } else {
        out.back() += c;
      }
    }
    return out;
  };

  static const std::regex kAccess(R"re(^(\S+) - \S+ \[[^\]]+\] "(\S+) (\S+) [^"]+" (\d+) (\d+) "[^"]*" "([^"]+)" (\d+)$)re");
  size_t row = 1;
  for (const FileEntry& f : files) {
    if (f.sourcetype != "web_access") continue;
    const std::string host = fs::path(f.path).parent_path().filename().string();
    for (const std::string& l : splitLines(slurp(f.path))) {
      std::smatch m;
      ASSERT_TRUE(std::regex_match(l, m, kAccess)) << l;
      ASSERT_LT(row, rows.size());
      const auto v = fields(rows[row++]);
      ASSERT_EQ(v.size(), 11u) << rows[row - 1];
      EXPECT_EQ(std::stoll(v[0]), eventTime("web_access", l, 0)) << l;
      EXPECT_EQ(v[1], host);
      EXPECT_EQ(v[2], "/var/log/nginx/access.log");
      EXPECT_EQ(v[3], "web_access");
      EXPECT_EQ(v[4], m[4]);
      EXPECT_EQ(v[5], m[2]);
      EXPECT_EQ(v[6], m[3]);
      EXPECT_EQ(v[7], m[5]);
      EXPECT_EQ(v[8], m[1]);
      EXPECT_EQ(v[9], m[6]);
      EXPECT_EQ(v[10], m[7]);
    }
  }
  EXPECT_EQ(row, rows.size());
  EXPECT_GT(row, 100u);
}

TEST_F(GenlogsTest, StatusesFollowARealisticSpread) {
  const auto files = generate("s", "--seed 8 --size 1M --hosts 1 --formats access");
  ASSERT_EQ(files.size(), 1u);
  static const std::regex kStatus(R"re(" (\d{3}) \d+ ")re");
  std::map<int, int> byClass;
  int total = 0;
  for (const std::string& l : splitLines(slurp(files[0].path))) {
    std::smatch m;
    ASSERT_TRUE(std::regex_search(l, m, kStatus)) << l;
    ++byClass[std::stoi(m[1]) / 100];
    ++total;
  }
  // Mostly successes, a real share of redirects and client errors, a few
  // server errors.
  EXPECT_GT(byClass[2], total * 6 / 10);
  EXPECT_GT(byClass[3], total / 50);
  EXPECT_GT(byClass[4], total / 50);
  EXPECT_GT(byClass[5], 0);
  EXPECT_LT(byClass[5], total / 10);
}

TEST_F(GenlogsTest, BadOptionsAreRefused) {
  struct Case {
    const char* args;
    int status;
    const char* expect;  // a fragment of the output
  } cases[] = {
      {"--help", 0, "usage: velmor-genlogs"},
      {"--bogus 1", 2, "unknown option '--bogus'"},
      {"--formats syslog,xml", 2, "unknown format 'xml'"},
      {"--formats ''", 2, "unknown format ''"},
      {"--start 2026-02-30", 2, "bad --start '2026-02-30'"},
      {"--start 26-02-03", 2, "bad --start"},
      {"--days 0", 2, "bad --days"},
      {"--hosts x", 2, "bad --hosts"},
      {"--size 10Q", 2, "bad --size '10Q'"},
      {"--size -5", 2, "bad --size"},
      {"--lines 0", 2, "bad --lines"},
      {"--seed", 2, "option --seed needs a value"},
      {"stray", 2, "unexpected argument 'stray'"},
  };
  for (const Case& c : cases) {
    const ToolRun r = runTool("--out " + (dir / "bad").string() + " " + c.args, true);
    EXPECT_EQ(r.status, c.status) << c.args;
    EXPECT_NE(r.out.find(c.expect), std::string::npos) << c.args << " gave: " << r.out;
  }
  EXPECT_FALSE(fs::exists(dir / "bad"));
}

// --size text in, total bytes written out (0: refused as a bad --size). KB,
// MB, GB are powers of ten; KiB, MiB, GiB and a bare K, M, G powers of two.
TEST_F(GenlogsTest, SizeUnitsInTotalBytesOut) {
  struct Row {
    const char* size;
    uint64_t bytes;
  } rows[] = {
      {"1000000", 1000000},  {"1MB", 1000000},       {"1000kB", 1000000},  {"1000KB", 1000000},
      {"1MiB", 1048576},     {"1M", 1048576},        {"1m", 1048576},      {"1024KiB", 1048576},
      {"1024K", 1048576},    {"0MB", 0},             {"1Mb", 0},           {"1mib", 0},
      {"1MBB", 0},           {"1.5M", 0},            {"MB", 0},            {"1B", 0},
      {"99999999999999GB", 0},
  };
  int n = 0;
  for (const Row& r : rows) {
    const std::string sub = "s" + std::to_string(n++);
    const std::string args = std::string("--hosts 1 --formats syslog --size ") + r.size;
    const ToolRun run = runTool("--out " + (dir / sub).string() + " " + args, true);
    if (r.bytes == 0) {
      EXPECT_EQ(run.status, 2) << r.size;
      EXPECT_NE(run.out.find(std::string("bad --size '") + r.size + "'"), std::string::npos) << run.out;
      continue;
    }
    ASSERT_EQ(run.status, 0) << r.size << ": " << run.out;
    uint64_t total = 0;
    size_t files = 0;
    for (const auto& e : fs::recursive_directory_iterator(dir / sub))
      if (e.is_regular_file()) total += fs::file_size(e.path()), ++files;
    ASSERT_GT(files, 0u) << r.size;
    // Each file stops at the first event past its share.
    EXPECT_GE(total, r.bytes - files) << r.size;
    EXPECT_LE(total, r.bytes + files * 4096) << r.size;
  }
  const ToolRun help = runTool("--help");
  EXPECT_NE(help.out.find("KB, MB, GB = 10^3, 10^6, 10^9 bytes; KiB, MiB, GiB = 2^10, 2^20, 2^30"),
            std::string::npos)
      << help.out;
}

TEST_F(GenlogsTest, UnwritableOutputFails) {
  std::ofstream(dir / "file") << "x";
  const ToolRun r = runTool("--size 10K --out " + (dir / "file").string(), true);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("cannot create"), std::string::npos) << r.out;
}

}  // namespace
