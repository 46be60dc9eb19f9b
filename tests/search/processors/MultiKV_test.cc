// Tables in events: `multikv` over captured ps- and netstat-like text, its
// options and their refusals, configured stanzas, and `kv` on a source type
// whose KV_MODE is "multi".
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/processors/KVTransformer.h"
#include "search/processors/MultiKVTransformer.h"

namespace {

using rowtest::Row;

std::string dataFile(const char* name) {
  std::ifstream in(std::string(VELMOR_SOURCE_DIR) + "/tests/search/processors/data/" + name);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Runs `search` over one event and lists, per output row, the fields named.
std::vector<std::string> pick(const std::string& search, const std::vector<Row>& in,
                              const std::vector<std::string>& names) {
  rowtest::CatalogueHome::ensure();
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, in);
  std::string err = rowtest::runFresh(search, rs, info);
  if (!err.empty()) return {err};
  std::vector<std::string> out;
  for (const SearchResult* r : rs) {
    std::string line;
    for (const std::string& n : names) {
      Str v;
      if (!r->getValue(Str(n), v)) continue;
      if (!line.empty()) line += ' ';
      line += n + "=" + v;
    }
    out.push_back(line);
  }
  return out;
}

TEST(MultiKVTest, PsOutputByHeaderColumns) {
  std::vector<Row> event = {{{"_raw", dataFile("ps_aux.txt")}, {"host", "h1"}}};
  EXPECT_EQ(pick("multikv", event, {"USER", "PID", "CPU", "VSZ", "TTY", "STAT", "COMMAND", "host"}),
            (std::vector<std::string>{
                "USER=root PID=1 CPU=0.0 VSZ=169104 TTY=? STAT=Ss COMMAND=/sbin/init splash host=h1",
                "USER=root PID=412 CPU=0.1 VSZ=48212 TTY=? STAT=S<s COMMAND=/lib/systemd/systemd-journald host=h1",
                "USER=velmor PID=2207 CPU=12.5 VSZ=2231540 TTY=? STAT=Sl COMMAND=/opt/velmor/bin/velmord --nodaemon "
                "host=h1",
                "USER=www-data PID=3120 CPU=0.0 VSZ=55280 TTY=? STAT=S COMMAND=nginx: worker process host=h1",
                "USER=ann PID=18811 CPU=0.0 VSZ=10068 TTY=pts/0 STAT=R+ COMMAND=ps aux host=h1"}));
  // Ids tie each row to its event; fields keeps only the listed columns;
  // copyattrs=false drops the event's fields.
  EXPECT_EQ(pick("multikv fields PID copyattrs=false | head 2", event,
                 {"PID", "USER", "host", "_mkv_parent", "_mkv_child", "_mkv_id", "_raw"}),
            (std::vector<std::string>{
                "PID=1 _mkv_parent=1 _mkv_child=1 _mkv_id=1.1 _raw=root           1  0.0  0.1 169104 13160 ?        "
                "Ss   Nov24   0:05 /sbin/init splash",
                "PID=412 _mkv_parent=1 _mkv_child=2 _mkv_id=1.2 _raw=root         412  0.1  0.3  48212 26100 ?        "
                "S<s  Nov24   1:12 /lib/systemd/systemd-journald"}));
  EXPECT_EQ(pick("multikv filter nginx velmord", event, {"PID"}), (std::vector<std::string>{"PID=2207", "PID=3120"}));
  // rmorig=false keeps the event after its rows.
  EXPECT_EQ(pick("multikv rmorig=f fields PID | tail 1", event, {"PID", "host", "_mkv_id"}),
            (std::vector<std::string>{"host=h1"}));
}

TEST(MultiKVTest, NetstatOutputJoinsTwoWordHeaders) {
  std::vector<Row> event = {{{"_raw", dataFile("netstat_tn.txt")}}};
  EXPECT_EQ(pick("multikv", event, {"Proto", "Recv_Q", "Send_Q", "Local_Address", "Foreign_Address", "State"}),
            (std::vector<std::string>{
                "Proto=tcp Recv_Q=0 Send_Q=0 Local_Address=192.168.1.5:22 Foreign_Address=10.0.0.7:51514 "
                "State=ESTABLISHED",
                "Proto=tcp Recv_Q=0 Send_Q=36 Local_Address=192.168.1.5:22 Foreign_Address=10.0.0.9:40022 "
                "State=ESTABLISHED",
                "Proto=tcp6 Recv_Q=0 Send_Q=0 Local_Address=::1:8089 Foreign_Address=::1:48812 State=TIME_WAIT",
                "Proto=tcp Recv_Q=1 Send_Q=0 Local_Address=192.168.1.5:443 Foreign_Address=203.0.113.4:61000 "
                "State=CLOSE_WAIT"}));
}

TEST(MultiKVTest, HeaderChoiceTablesAndContinuations) {
  const char* twoTables =
      "NAME  SIZE\n"
      "a     1\n"
      "b     2\n"
      "\n"
      "DISK  FREE\n"
      "sda   40G\n";
  std::vector<Row> ev = {{{"_raw", twoTables}}};
  EXPECT_EQ(pick("multikv", ev, {"NAME", "SIZE", "DISK", "FREE", "_mkv_id"}),
            (std::vector<std::string>{"NAME=a SIZE=1 _mkv_id=1.1", "NAME=b SIZE=2 _mkv_id=1.2",
                                      "DISK=sda FREE=40G _mkv_id=1.3"}));
  EXPECT_EQ(pick("multikv multitable=false", ev, {"NAME", "SIZE", "DISK"}),
            (std::vector<std::string>{"NAME=a SIZE=1", "NAME=b SIZE=2", "NAME=DISK SIZE=FREE", "NAME=sda SIZE=40G"}));
  EXPECT_EQ(pick("multikv noheader=true fields Column_1 Column_2", ev, {"Column_1", "Column_2", "NAME"}),
            (std::vector<std::string>{"Column_1=NAME Column_2=SIZE", "Column_1=a Column_2=1", "Column_1=b Column_2=2",
                                      "Column_1=DISK Column_2=FREE", "Column_1=sda Column_2=40G"}));
  // Line 2 as the header of the first table; the second is found as usual.
  EXPECT_EQ(pick("multikv forceheader=2", ev, {"a", "Column_2", "DISK"}),
            (std::vector<std::string>{"a=b Column_2=2", "DISK=sda"}));
  EXPECT_EQ(pick("multikv start_line=5", ev, {"NAME", "DISK"}), (std::vector<std::string>{"DISK=sda"}));
  EXPECT_EQ(pick("multikv last_line=2", ev, {"NAME"}), (std::vector<std::string>{"NAME=a"}));
  EXPECT_EQ(pick("multikv maxnewresults=1", ev, {"NAME"}), (std::vector<std::string>{"NAME=a"}));
  // A line under the last column only continues the row above.
  std::vector<Row> wrapped = {{{"_raw", "ID  NAME  MESSAGE\n1   a     first part\n          second part\n2   b     x\n"}}};
  EXPECT_EQ(pick("multikv", wrapped, {"ID", "MESSAGE"}),
            (std::vector<std::string>{"ID=1 MESSAGE=first part\nsecond part", "ID=2 MESSAGE=x"}));
  // No table: dropped, or kept with passthru.
  std::vector<Row> plain = {{{"_raw", "just one line"}}};
  EXPECT_EQ(pick("multikv", plain, {"_raw"}), (std::vector<std::string>{}));
  EXPECT_EQ(pick("multikv passthru=t", plain, {"_raw"}), (std::vector<std::string>{"_raw=just one line"}));
}

TEST(MultiKVTest, HeaderScores) {
  std::vector<StrSegment> lines = {"2026-11-25 12:00:01 report", "PID USER TIME", "12 ann 0:01", "13 bob 0:02"};
  EXPECT_LT(MultiKVTransformer::scoreHeader(lines, 0), MultiKVTransformer::scoreHeader(lines, 1));
  EXPECT_LE(MultiKVTransformer::scoreHeader(lines, 2), 0);
  EXPECT_EQ(MultiKVTransformer::findHeader(lines, 0, 4), 1);
  EXPECT_EQ(MultiKVTransformer::findHeader(lines, 2, 4), -1);
  std::vector<StrSegment> kv = {"a=1 b=2 c=3"};
  EXPECT_EQ(MultiKVTransformer::findHeader(kv, 0, 1), -1);
}

TEST(MultiKVTest, OptionsRefused) {
  std::vector<Row> in = {{{"_raw", "A B\n1 2"}}};
  const char* p = "Error in 'multikv' command: ";
  struct {
    const char* search;
    std::string want;
  } cases[] = {
      {"multikv maxnewresults=0", std::string(p) + "Invalid maxnewresults, must be >= 1"},
      {"multikv max_header_lookahead=0", std::string(p) + "Invalid max_header_lookahead, must be >= 1"},
      {"multikv forceheader=-1", std::string(p) + "Invalid forceheader, must be >= 1"},
      {"multikv start_line=0", std::string(p) + "Invalid start_line, must be >= 1"},
      {"multikv start_line=3 last_line=3", std::string(p) + "Invalid last_line, must be >= 1 and > start_line"},
      {"multikv conf=a conf=b", std::string(p) + "conf keyword must be specified only once"},
      {"multikv fields a fields b", std::string(p) + "fields keyword must be specified only once"},
      {"multikv bogus=1", std::string(p) + "Invalid option 'bogus'"},
      {"multikv stray", std::string(p) + "Invalid argument 'stray'"},
      {"multikv noheader=maybe", std::string(p) + "Invalid boolean value for option 'noheader'"},
  };
  for (const auto& c : cases) EXPECT_EQ(pick(c.search, in, {"A"}), std::vector<std::string>{c.want}) << c.search;
}

class MultiKVConfTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    auto& home = rowtest::CatalogueHome::ensure();
    home.writeConf("multikv",
                   "[ps_like]\nheader.start = ^\\s*USER\\s+PID\nbody.member = ^(root|ann)\\s\n"
                   "body.replace = \"\\?\" = \"none\"\n"
                   "[named]\nheader.tokens = _token_list_, when, what\nbody.tokens = _tokenize_, 2, \" \"\n"
                   "body.end = ^--\n"
                   "[chopped]\nheader.tokens = _token_list_, code, rest\nbody.tokens = _chop_, 3\n"
                   "[bad]\nbody.start = (\n");
    home.writeConf("props", "[st_table]\nKV_MODE = multikv\n");
    KVTransformer::reload();
  }
};

TEST_F(MultiKVConfTest, StanzasDescribeTheTable) {
  std::vector<Row> ps = {{{"_raw", "ps at 12:00\n" + dataFile("ps_aux.txt")}}};
  EXPECT_EQ(pick("multikv conf=ps_like", ps, {"USER", "PID", "TTY"}),
            (std::vector<std::string>{"USER=root PID=1 TTY=none", "USER=root PID=412 TTY=none",
                                      "USER=ann PID=18811 TTY=pts/0"}));
  std::vector<Row> log = {{{"_raw", "12:00 started the job\n12:05 finished it\n-- end\n12:09 ignored"}}};
  EXPECT_EQ(pick("multikv conf=named", log, {"when", "what"}),
            (std::vector<std::string>{"when=12:00 what=started the job", "when=12:05 what=finished it"}));
  std::vector<Row> codes = {{{"_raw", "E01disk full\nW07slow"}}};
  EXPECT_EQ(pick("multikv conf=chopped", codes, {"code", "rest"}),
            (std::vector<std::string>{"code=E01 rest=disk full", "code=W07 rest=slow"}));
  EXPECT_EQ(pick("multikv conf=nosuch", codes, {"code"}),
            (std::vector<std::string>{"Error in 'multikv' command: FAILED to find valid config for multikv stanza = "
                                      "'nosuch'"}));
  auto bad = pick("multikv conf=bad", codes, {"code"});
  ASSERT_EQ(bad.size(), 1u);
  EXPECT_EQ(bad[0].rfind("Error in 'multikv' command: FAILED to find valid config for multikv stanza = 'bad'", 0), 0u);
}

TEST_F(MultiKVConfTest, KvOnATableSourceTypeMakesTableRows) {
  std::vector<Row> in = {{{"_raw", "NAME  SIZE\na     1\nb     2"}, {"sourcetype", "st_table"}},
                         {{"_raw", "x=1"}, {"sourcetype", "other"}}};
  EXPECT_EQ(pick("kv", in, {"NAME", "SIZE", "sourcetype", "_kv", "x"}),
            (std::vector<std::string>{"NAME=a SIZE=1 sourcetype=st_table _kv=1", "NAME=b SIZE=2 sourcetype=st_table _kv=1",
                                      "sourcetype=other _kv=1 x=1"}));
}

TEST(MultiKVShippedTest, DfStanzaOfTheDefaultBundle) {
  auto& home = rowtest::CatalogueHome::ensure();
  home.writeConf("multikv", dataFile("../../../../etc/bundles/default/multikv.conf"));
  std::vector<Row> df = {{{"_raw",
                           "Filesystem     1024-blocks      Used Available Capacity Mounted on\n"
                           "/dev/sda1         41152736  18420944  20618360      48% /\n"
                           "tmpfs              8119072         0   8119072       0% /dev/shm\n"}}};
  EXPECT_EQ(pick("multikv conf=df", df, {"Filesystem", "Capacity", "Mounted_on"}),
            (std::vector<std::string>{"Filesystem=/dev/sda1 Capacity=48% Mounted_on=/",
                                      "Filesystem=tmpfs Capacity=0% Mounted_on=/dev/shm"}));
}

}  // namespace
