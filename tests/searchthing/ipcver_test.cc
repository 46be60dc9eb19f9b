#include "searchthing/ipcver.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cstring>
#include <string>
#include <vector>

#include "st_model.h"
#include "st_test_util.h"

namespace {

class Forked : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<ModelEvent> events = makeEvents(3, 200);
    events_ = events;
    st_handle* w = st_open_wflags(dir_.c_str(), 3);
    ASSERT_NE(w, nullptr);
    ASSERT_TRUE(putEvents(w, events_, 50));
    ASSERT_EQ(st_close(w), 0);
  }
  std::vector<st_tsval> query(st_handle* h, const ModelQuery& q, int* rc) {
    SpecHolder spec(q);
    std::vector<st_tsval> ans(1000);
    *rc = st_query(h, spec.get(), ans.data(), 1000, 0);
    ans.resize(*rc > 0 ? *rc : 0);
    return ans;
  }
  static bool same(const std::vector<st_tsval>& a, const std::vector<st_tsval>& b) {
    return a.size() == b.size() && (a.empty() || memcmp(a.data(), b.data(), a.size() * sizeof(st_tsval)) == 0);
  }

  EnvGuard always_{"VELMOR_ST_ALWAYS_FORK", nullptr};
  EnvGuard never_{"VELMOR_ST_NEVER_FORK", nullptr};
  ScratchDir scratch_;
  std::string dir_ = scratch_.sub("idx");
  std::vector<ModelEvent> events_;
};

TEST_F(Forked, ChoiceOfDirectOrForked) {
  struct Row {
    const char* always;
    const char* never;
    int flags;
    bool forked;
  } rows[] = {
      {nullptr, nullptr, 5, true},  {nullptr, nullptr, 3, false}, {"1", nullptr, 3, true},
      {nullptr, "1", 5, false},     {"1", "1", 5, true},  // both set: forked wins
  };
  for (const Row& r : rows) {
    EnvGuard a("VELMOR_ST_ALWAYS_FORK", r.always);
    EnvGuard n("VELMOR_ST_NEVER_FORK", r.never);
    st_handle* h = st_open_wflags(dir_.c_str(), r.flags);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->direct == nullptr, r.forked) << "flags " << r.flags << " always " << (r.always != nullptr)
                                               << " never " << (r.never != nullptr);
    EXPECT_EQ(st_close(h), 0);
  }
}

TEST_F(Forked, FailedOpenInTheChildReportsItsErrno) {
  errno = 0;
  EXPECT_EQ(st_open_wflags((dir_ + "/missing").c_str(), 5), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

// kill -9 of the engine child costs the request in flight only; the next
// request starts a new child, and other handles never notice.
TEST_F(Forked, KilledChildCostsOnlyOneQuery) {
  st_handle* h = st_open_wflags(dir_.c_str(), 5);
  st_handle* other = st_open_wflags(dir_.c_str(), 5);
  ASSERT_NE(h, nullptr);
  ASSERT_NE(other, nullptr);
  ModelQuery q;
  q.and_kw = {"alpha"};
  std::vector<st_tsval> want = modelAnswers(events_, q);
  int rc;
  ASSERT_TRUE(same(query(h, q, &rc), want));

  pid_t first = static_cast<pid_t>(h->wait_token);
  ASSERT_EQ(kill(first, SIGKILL), 0);
  query(h, q, &rc);
  EXPECT_EQ(rc, -1) << "the query in flight is lost";
  EXPECT_TRUE(same(query(h, q, &rc), want)) << "the next one works";
  EXPECT_NE(static_cast<pid_t>(h->wait_token), first);
  EXPECT_TRUE(same(query(other, q, &rc), want));

  // A child reaped behind the handle's back still closes cleanly.
  pid_t second = static_cast<pid_t>(h->wait_token);
  ASSERT_EQ(kill(second, SIGKILL), 0);
  int status;
  ASSERT_EQ(waitpid(second, &status, 0), second);
  EXPECT_EQ(st_close(h), 0);
  EXPECT_EQ(st_close(other), 0);
}

// Every command answers the same through the protocol as directly.
TEST_F(Forked, EveryCommandMatchesTheDirectHandle) {
  st_handle* d = st_open_wflags(dir_.c_str(), 3);
  st_handle* f = st_open_wflags(dir_.c_str(), 7);
  ASSERT_NE(d, nullptr);
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(d->direct != nullptr, true);
  ASSERT_EQ(f->direct, nullptr);

  std::vector<st_tsval> a(500), b(500);
  int na = st_get(d, "beta", 0, INT32_MAX, a.data(), 500, 0);
  int nb = st_get(f, "beta", 0, INT32_MAX, b.data(), 500, 0);
  ASSERT_GT(na, 0);
  ASSERT_EQ(na, nb);
  EXPECT_EQ(memcmp(a.data(), b.data(), na * sizeof(st_tsval)), 0);
  EXPECT_EQ(st_get(f, nullptr, 0, INT32_MAX, b.data(), 500, 0), st_get(d, nullptr, 0, INT32_MAX, a.data(), 500, 0));

  ModelQuery q;
  q.or_pre = {"gam"};
  q.not_suf = {"ror"};
  q.and_kw = {"*a*"};
  SpecHolder spec(q);
  EXPECT_EQ(st_query(f, spec.get(), nullptr, 0, 0), st_query(d, spec.get(), nullptr, 0, 0)) << "count form";

  for (const char* term : {"alpha", static_cast<const char*>(nullptr), "nosuchterm"}) {
    st_meta_answer ma{}, mb{};
    EXPECT_EQ(st_meta(d, term, &ma), st_meta(f, term, &mb));
    EXPECT_EQ(memcmp(&ma, &mb, sizeof ma), 0);
  }
  std::vector<st_enum_answer> ea(40), eb(40);
  for (int which : {1, 2}) {
    int n1 = st_enum(d, nullptr, which, ea.data(), 40);
    int n2 = st_enum(f, nullptr, which, eb.data(), 40);
    ASSERT_EQ(n1, n2);
    for (int i = 0; i < n1; ++i) {
      EXPECT_STREQ(ea[i].term, eb[i].term);
      EXPECT_EQ(ea[i].value, eb[i].value);
    }
  }
  EXPECT_EQ(st_enum(f, "", 3, eb.data(), 40), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(st_is_optimized(f), 0);

  // Writes through the child: options, autotune, put, tokenize, both syncs.
  EXPECT_EQ(st_options(f, 0, 301, 0, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(st_options(f, 65536, 1024, 4096, 4096), 0);
  EXPECT_EQ(st_autotune(f, 0), 0);
  EXPECT_EQ(st_put(f, "fresh", 5, 99999, 1, 2, 3, 4), 0);
  EXPECT_EQ(st_sync(f), 0);
  EXPECT_EQ(st_tokenize(f, "newer.word", 6, 99998, 1, 2, 3, 4), 0);
  EXPECT_EQ(st_sync_fd(f), -3);
  st_tsval one[2];
  ASSERT_EQ(st_get(d, "fresh", 0, 10, one, 2, 0), 1);
  EXPECT_EQ(one[0].host, 4u);
  EXPECT_EQ(st_get(d, "word", 0, 10, one, 2, 0), 1);

  // Delete streams every marked value back to the caller's callback.
  std::vector<uint32_t> seen;
  auto cb = [](void* ctx, st_tsval v) { static_cast<std::vector<uint32_t>*>(ctx)->push_back(v.address); };
  EXPECT_EQ(st_delete(f, "fresh", 0, 10, &seen, cb, nullptr), 1);
  EXPECT_EQ(seen, std::vector<uint32_t>{99999});
  EXPECT_EQ(st_get(d, "fresh", 0, 10, one, 2, 0), 0);

  EXPECT_EQ(st_optimize_ex(f, 1), 0);
  EXPECT_EQ(st_close(f), 0);
  EXPECT_EQ(st_close(d), 0);
}

// The child's loop driven in this process over a socket pair: an unknown
// command gets -1 with errno 8 and ends the loop; a query whose counts don't
// match its strings is refused.
TEST_F(Forked, ServeLoopRefusesBadRequests) {
  struct Case {
    std::vector<uint32_t> words;
    int32_t result;
    uint32_t err;
  } cases[] = {
      {{99}, -1, 8},
      // query: start, end, capacity, skip, 9 counts (1 AND), reserved, total 0
      {{5, 0, 100, 10, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, -1, EINVAL},
  };
  for (const Case& c : cases) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    std::vector<char> block(4 + dir_.size() + 1);
    uint32_t flags = 1;
    memcpy(block.data(), &flags, 4);
    memcpy(block.data() + 4, dir_.c_str(), dir_.size() + 1);
    ASSERT_EQ(write(sv[0], c.words.data(), c.words.size() * 4), static_cast<ssize_t>(c.words.size() * 4));
    shutdown(sv[0], SHUT_WR);
    st_engine_serve(sv[1], sv[1], block.data(), block.size());
    int32_t reply[4];
    ASSERT_EQ(read(sv[0], reply, 16), 16);
    EXPECT_EQ(reply[0], 0) << "open";
    EXPECT_EQ(reply[2], c.result);
    EXPECT_EQ(static_cast<uint32_t>(reply[3]), c.err);
    close(sv[0]);
    close(sv[1]);
  }
}

long g_forks = 0;
long countingFork(int fd, st_child_main_fn main_fn, const void* block, size_t size) {
  ++g_forks;
  return st_default_fork_helper(fd, main_fn, block, size);
}

TEST_F(Forked, ForkHelpersCanBeReplaced) {
  st_set_forkwait_helpers(countingFork, st_default_wait_helper);
  st_handle* h = st_open_wflags(dir_.c_str(), 5);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(g_forks, 1);
  EXPECT_EQ(st_close(h), 0);
  EMPTY_st_set_forkwait_helpers(nullptr, nullptr);
  st_set_forkwait_helpers(nullptr, nullptr);  // back to the defaults
  h = st_open_wflags(dir_.c_str(), 5);
  EXPECT_EQ(g_forks, 1);
  EXPECT_EQ(st_close(h), 0);
}

// Closing a query handle parks its child for the next query handle, which
// reopens it on its own directory instead of forking: many handles over
// several directories cost one fork and answer as fresh children would. A
// writer's child is never parked; a parked child that died, or that can't
// open the next directory, is replaced by a fresh one.
TEST_F(Forked, QueryChildrenAreReusedAcrossHandles) {
  std::string other = scratch_.sub("other");
  st_handle* w = st_open_wflags(other.c_str(), 3);
  ASSERT_NE(w, nullptr);
  ASSERT_EQ(st_put(w, "zeta", 100, 7, 0, 0, 0, 0), 0);
  ASSERT_EQ(st_close(w), 0);
  ModelQuery q;
  q.and_kw = {"alpha"};
  std::vector<st_tsval> want = modelAnswers(events_, q);

  g_forks = 0;
  st_set_forkwait_helpers(countingFork, st_default_wait_helper);  // drops earlier spares
  for (int i = 0; i < 6; ++i) {
    st_handle* h = st_open_wflags((i % 2 ? other : dir_).c_str(), 5);
    ASSERT_NE(h, nullptr);
    st_tsval ans[4];
    int rc;
    if (i % 2) {
      ASSERT_EQ(st_get(h, "zeta", 0, 1000, ans, 4, 0), 1) << i;
      EXPECT_EQ(ans[0].address, 7u);
      EXPECT_EQ(st_get(h, "alpha", 0, 1000, ans, 4, 0), 0) << "the previous directory is gone";
    } else {
      EXPECT_TRUE(same(query(h, q, &rc), want)) << i;
    }
    EXPECT_EQ(st_close(h), 0);
  }
  EXPECT_EQ(g_forks, 1);

  {
    EnvGuard always("VELMOR_ST_ALWAYS_FORK", "1");
    st_handle* wf = st_open_wflags(other.c_str(), 3);
    ASSERT_NE(wf, nullptr);
    EXPECT_EQ(g_forks, 2) << "a writer forks its own child";
    ASSERT_EQ(st_put(wf, "eta", 101, 8, 0, 0, 0, 0), 0);
    EXPECT_EQ(st_close(wf), 0);
  }
  st_handle* h1 = st_open_wflags(other.c_str(), 5);
  st_handle* h2 = st_open_wflags(other.c_str(), 5);
  ASSERT_TRUE(h1 && h2);
  EXPECT_EQ(g_forks, 3) << "one child was parked, and not the writer's";
  st_tsval ans[4];
  EXPECT_EQ(st_get(h2, "eta", 0, 1000, ans, 4, 0), 1) << "the writer synced before its child ended";
  EXPECT_EQ(st_close(h1), 0);
  EXPECT_EQ(st_close(h2), 0);

  // A parked child that died is reaped, and the next one serves.
  st_handle* h = st_open_wflags(dir_.c_str(), 5);
  ASSERT_NE(h, nullptr);
  pid_t parked = static_cast<pid_t>(h->wait_token);
  EXPECT_EQ(st_close(h), 0);
  ASSERT_EQ(kill(parked, SIGKILL), 0);
  h = st_open_wflags(dir_.c_str(), 5);
  ASSERT_NE(h, nullptr);
  EXPECT_NE(static_cast<pid_t>(h->wait_token), parked);
  int rc;
  EXPECT_TRUE(same(query(h, q, &rc), want));
  EXPECT_EQ(st_close(h), 0);
  EXPECT_EQ(g_forks, 3);

  // A directory the parked child can't open ends it; a fresh child is
  // started and says why.
  errno = 0;
  EXPECT_EQ(st_open_wflags((dir_ + "/missing").c_str(), 5), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(g_forks, 4);
  st_set_forkwait_helpers(nullptr, nullptr);
}

}  // namespace
