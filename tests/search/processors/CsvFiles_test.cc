// inputcsv and outputcsv: round trips through files, the options, the
// refusals of the secure directory, and spilled sets against in-memory ones.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "FileTestUtil.h"

namespace {

using filetest::Home;
using searchtest::Row;

std::vector<Row> tricky() {
  return {
      {{"a", "plain"}, {"b", ""}, {"c", "say \"hi\", twice"}},
      {{"a", "two\nlines"}, {"c", "trailing "}},
      {{"b", "only b"}, {"d", "x,y"}},
  };
}

TEST(CsvFilesTest, RoundTripKeepsEmptyVersusAbsentQuotesAndNewlines) {
  Home home;
  SearchResults rs;
  searchtest::addRows(rs, tricky());
  SearchResultsInfo info;
  ASSERT_EQ(filetest::run("outputcsv trip", rs, info), "");
  // The rows pass on and the file is plain CSV: "" for empty, nothing for absent.
  EXPECT_EQ(searchtest::rowsOf(rs), tricky());
  EXPECT_EQ(home.read("trip.csv"),
            "a,b,c,d\n"
            "plain,\"\",\"say \"\"hi\"\", twice\",\n"
            "\"two\nlines\",,\"trailing \",\n"
            ",\"only b\",,\"x,y\"\n");
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_INFO].size(), 1u);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_INFO][0],
            Str::fromFormat("%zu bytes written to %s", home.read("trip.csv").size(), (home / "trip.csv").c_str()));

  SearchResults back;
  ASSERT_EQ(filetest::run("inputcsv trip", back), "");  // ".csv" found by lookup
  EXPECT_EQ(searchtest::rowsOf(back), tricky());
}

TEST(CsvFilesTest, InputOptions) {
  Home home;
  home.write("five.csv", "z,a,__hid\n1,x,h1\n2,y,h2\n3,z,h3\n4,w,h4\n5,v,h5\n");
  home.write("plain", "k\nv\n");
  struct Case {
    const char* search;
    std::vector<std::string> z;  // the z of each row, or {error}
  } cases[] = {
      {"inputcsv five.csv", {"1", "2", "3", "4", "5"}},
      {"inputcsv start=1 max=2 five", {"2", "3"}},
      {"inputcsv start=4 five", {"5"}},
      {"inputcsv start=9 five", {}},
      {"inputcsv chunk=true start=1 max=3 five", {"2", "3", "4"}},
  };
  for (auto& c : cases) {
    SearchResults rs;
    ASSERT_EQ(filetest::run(c.search, rs), "") << c.search;
    std::vector<std::string> got;
    for (const Row& r : filetest::allRows(rs)) got.push_back(r.count("z") ? r.at("z") : "-");
    EXPECT_EQ(got, c.z) << c.search;
  }
  // A name without ".csv" is read as it is when that file exists.
  SearchResults plain;
  ASSERT_EQ(filetest::run("inputcsv plain", plain), "");
  EXPECT_EQ(searchtest::rowsOf(plain), (std::vector<Row>{{{"k", "v"}}}));

  // Internal columns only for internalinputcsv; the file's column order on request.
  SearchResults pub, internal;
  SearchResultsInfo info;
  ASSERT_EQ(filetest::run("inputcsv usefilecolumnorder=true max=1 five", pub, info), "");
  EXPECT_EQ(pub.internalKeyIndex("__hid"), SearchResults::nkeyindex);
  EXPECT_EQ(info.columnOrder, (std::vector<Str>{"z", "a"}));
  ASSERT_EQ(filetest::run("internalinputcsv max=1 five", internal), "");
  sr_index_t hid = internal.internalKeyIndex("__hid");
  ASSERT_NE(hid, SearchResults::nkeyindex);
  EXPECT_EQ(internal.front()->getValue(hid), "h1");
  EXPECT_THROW(delete SearchParser::parse("internalinputcsv five", false), SearchProcessorException);
}

TEST(CsvFilesTest, RaggedLinesCostOnlyThemselves) {
  Home home;
  home.write("ragged.csv", "a,b\n1,2\nshort\n3,4\n5,6,7\n\"open,8\n9,10\n");
  SearchResults rs;
  SearchResultsInfo info;
  ASSERT_EQ(filetest::run("inputcsv ragged", rs, info), "");
  // The open quote swallows the rest of the file; the two ragged lines are counted.
  EXPECT_EQ(searchtest::rowsOf(rs), (std::vector<Row>{{{"a", "1"}, {"b", "2"}}, {{"a", "3"}, {"b", "4"}}}));
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN],
            (std::vector<Str>{"While reading input, encountered 2 inconsistent number of column errors."}));
}

TEST(CsvFilesTest, RefusalsAndUsage) {
  Home home;
  home.write("ok.csv", "a\n1\n");
  ASSERT_TRUE((home / "adir").mkdir());
  Pathname outside = home.home.path() / "etc/bundles/default/limits.conf";
  ASSERT_EQ(symlink(outside.c_str(), (home / "escape.csv").c_str()), 0);
  std::string run = home.run();
  struct Case {
    const char* search;
    std::string error;
  } cases[] = {
      {"inputcsv", "Error in 'inputcsv' command: usage: inputcsv [chunk=<bool>] <filename>"},
      {"inputcsv \"\"", "Error in 'inputcsv' command: At least one input file required."},
      {"inputcsv ..", "Error in 'inputcsv' command: '..' is not a valid filename."},
      {"inputcsv ok b", "Error in 'inputcsv' command: Invalid argument: 'b'"},
      {"inputcsv foo=1 ok", "Error in 'inputcsv' command: Invalid option argument: foo=1"},
      {"inputcsv max=0 ok", "Error in 'inputcsv' command: Invalid 'max' option value out of range, must be "
                            "between 1 and 1000000000l"},
      {"inputcsv start=1000000000 ok", "Error in 'inputcsv' command: Invalid 'start' option value, must be < "
                                       "1000000000l"},
      {"inputcsv ../../../etc/hostname",
       "Error in 'inputcsv' command: Reading a file (" + run +
           "/../../../etc/hostname) outside of the secure directory is not allowed."},
      {"inputcsv /etc/hostname",
       "Error in 'inputcsv' command: Reading a file (/etc/hostname) outside of the secure directory is not "
       "allowed."},
      {"inputcsv escape",
       "Error in 'inputcsv' command: Reading a file (" + run +
           "/escape.csv) outside of the secure directory is not allowed."},
      {"inputcsv ../nothere.csv",
       "Error in 'inputcsv' command: Reading a file (" + run +
           "/../nothere.csv) outside of the secure directory is not allowed."},
      {"inputcsv missing",
       "Error in 'inputcsv' command: File (" + run + "/missing) could not be opened for reading."},
      {"inputcsv adir", "Error in 'inputcsv' command: '" + run + "/adir' is not a file."},
      {"outputcsv", "Error in 'outputcsv' command: usage: outputcsv [preserve=<bool>] <filename>"},
      {"outputcsv ../up", "Error in 'outputcsv' command: Filenames may not contain '..'"},
      {"outputcsv sub/file", "Error in 'outputcsv' command: Invalid file name 'sub/file'"},
      {"outputcsv usexml=maybe f", "Error in 'outputcsv' command: Invalid boolean value for option 'usexml'"},
  };
  for (auto& c : cases) {
    SearchResults rs;
    searchtest::addRows(rs, {{{"a", "1"}}});
    EXPECT_EQ(filetest::run(c.search, rs), c.error) << c.search;
  }
  EXPECT_FALSE((home / "up.csv").exists());
}

TEST(CsvFilesTest, WorkingCopyDirectoryGoesWithTheResults) {
  Home home;
  home.write("ok.csv", "a\n1\n");
  auto tempDirs = [&]() {
    std::vector<Str> names, out;
    home.run().readDirectory(names);
    for (const Str& n : names)
      if (n.startswith("inputcsvtmp_")) out.push_back(n);
    return out;
  };
  {
    SearchResults rs;
    ASSERT_EQ(filetest::run("inputcsv ok", rs), "");
    EXPECT_EQ(tempDirs().size(), 1u);
  }
  EXPECT_TRUE(tempDirs().empty());
  {
    SearchResults rs;
    ASSERT_EQ(filetest::run("inputcsv keeptempdir=true ok", rs), "");
  }
  ASSERT_EQ(tempDirs().size(), 1u);
  // The copy was read, not the original: the original is untouched.
  EXPECT_EQ(home.read("ok.csv"), "a\n1\n");
}

TEST(CsvFilesTest, NoRowsWritesNoFile) {
  Home home;
  SearchResults rs;
  SearchResultsInfo info;
  ASSERT_EQ(filetest::run("outputcsv empty", rs, info), "");
  EXPECT_FALSE((home / "empty.csv").exists());
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_INFO],
            (std::vector<Str>{"No results to write to file (" + (home / "empty.csv") + ")."}));
  SearchResults again;
  ASSERT_EQ(filetest::run("outputcsv usexml=true empty", again), "");
  EXPECT_EQ(filetest::xmlOf(again), "<results type='empty'/>\n");
}

TEST(CsvFilesTest, UseXmlWrapsTheEscapedCsv) {
  Home home;
  SearchResults rs;
  searchtest::addRows(rs, {{{"a", "<b> & \"c\""}}, {{"a", "2"}}});
  ASSERT_EQ(filetest::run("outputcsv usexml=true x", rs), "");
  EXPECT_EQ(filetest::xmlOf(rs),
            "<results type='csv'>\n"
            "a\n\"&lt;b&gt; &amp; \"\"c\"\"\"\n2\n"
            "</results>\n");
  // The file itself stays CSV.
  EXPECT_EQ(home.read("x.csv"), "a\n\"<b> & \"\"c\"\"\"\n2\n");
}

// Spilled sets: 10,000 rows in chunks of 100 (maxresultrows is 100 too).
class CsvSpillTest : public ::testing::Test {
 protected:
  void spilled(SearchResults& rs) {
    searchtest::addRows(rs, filetest::numbered(10000));
    filetest::spill(rs, scratch.path(), 100);
  }
  Home home{100};
  searchtest::ScratchDir scratch;
};

TEST_F(CsvSpillTest, OutputOfSpilledEqualsInMemory) {
  SearchResults mem, sp;
  searchtest::addRows(mem, filetest::numbered(10000));
  // An internal field in every seventh row, written only with internal=true.
  sr_index_t s = mem.internalKeyIndex("__s", true);
  size_t i = 0;
  for (SearchResult* r : mem)
    if (i++ % 7 == 0) r->setValue(s, "in\r\nternal");
  SearchResults copy(mem);
  sp.usurp(copy);
  filetest::spill(sp, scratch.path(), 100);
  for (std::string opts : {"", "internal=true stripcr=true "}) {
    ASSERT_EQ(filetest::run("outputcsv " + opts + "mem", mem), "");
    ASSERT_EQ(filetest::run("outputcsv " + opts + "sp", sp), "");
    std::string a = home.read("mem.csv"), b = home.read("sp.csv");
    EXPECT_EQ(a.substr(0, 40), b.substr(0, 40));
    EXPECT_TRUE(a == b) << opts;
    EXPECT_EQ(opts.empty(), a.find("in\nternal") == std::string::npos) << opts;
  }
  EXPECT_EQ(filetest::allRows(sp).size(), 10000u);  // the rows pass on

  // Read back in chunks it equals the in-memory read.
  SearchResults whole, chunked;
  ASSERT_EQ(filetest::run("inputcsv sp", whole), "");
  ASSERT_EQ(filetest::run("inputcsv chunk=true sp", chunked), "");
  EXPECT_FALSE(whole.hasFiles());
  EXPECT_EQ(chunked.getFiles().size(), 100u);
  EXPECT_EQ(chunked.size(), 100u);
  EXPECT_TRUE(filetest::allRows(chunked) == searchtest::rowsOf(whole));
  EXPECT_TRUE(searchtest::rowsOf(whole) == filetest::allRows(mem));
}

TEST_F(CsvSpillTest, LostChunkFailsWithoutLeavingAFile) {
  SearchResults sp;
  spilled(sp);
  Pathname lost = sp.getFiles()[5];
  ASSERT_TRUE(lost.unlink());
  EXPECT_EQ(filetest::run("outputcsv broken", sp),
            "Error in 'outputcsv' command: Error reading internal file's header: " + lost);
  EXPECT_FALSE((home / "broken.csv").exists());
  EXPECT_FALSE((home / "broken.csv.tmp").exists());
}

TEST_F(CsvSpillTest, MultiFileOutputAndCollapse) {
  SearchResults sp;
  spilled(sp);
  SearchResultsInfo info;
  ASSERT_EQ(filetest::run("outputcsv singlefile=false parts", sp, info), "");
  Pathname dir = home / "parts";
  std::vector<Str> names;
  ASSERT_TRUE(dir.readDirectory(names));
  EXPECT_EQ(names.size(), 100u);
  size_t rows = 0;
  for (int i = 0; i < 100; ++i) {
    SearchResults part;
    rows += part.fromCSV(dir / ("result_file_" + std::to_string(i) + ".csv"));
  }
  EXPECT_EQ(rows, 10000u);
  EXPECT_TRUE(info.messages[SearchResultsInfo::MSG_INFO][0].endswith(" bytes written to " + dir));

  // collapse with bigger chunks: the same rows in fewer files.
  SearchResults again;
  spilled(again);
  home.home.writeConf("limits", "[searchresults]\nmaxresultrows = 2500\n");
  SearchResults::getMaxResultRows(true);
  ASSERT_EQ(filetest::run("outputcsv singlefile=false collapse=true parts", again), "");
  names.clear();
  ASSERT_TRUE(dir.readDirectory(names));
  EXPECT_EQ(names.size(), 4u);
}

TEST_F(CsvSpillTest, UseXmlOverTooManyRowsWarns) {
  SearchResults sp;
  spilled(sp);
  SearchResultsInfo info;
  ASSERT_EQ(filetest::run("outputcsv usexml=true big", sp, info), "");
  std::string xml = filetest::xmlOf(sp);
  // The file has all 10,000 rows, the XML the first 100.
  SearchResults back;
  EXPECT_EQ(back.fromCSV(home / "big.csv"), 10000u);
  EXPECT_EQ(std::count(xml.begin(), xml.end(), '\n'), 1 + 1 + 100 + 1);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN],
            (std::vector<Str>{"Too many results for memory.  Not all results are included in this output.  This "
                              "may be resolved increasing 'maxresultrows' of the 'search' stanza in limits.conf."}));
}

}  // namespace
