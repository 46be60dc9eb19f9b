// PipeToLogger: whole lines go out at once with the prefix, a partial line
// waits for its end, for the flush timer, or for end of file.
#include "util/PipeToLogger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "util/EventLoop.h"

namespace {

Logger gChildLog("childlog");

class FakeClock : public EventLoopClock {
 public:
  Timeval now() override { return t; }
  Timeval t{5000, 0};
};

// Sends standard error to a file for the life of the object (the logger
// writes there before its configuration is read).
class StderrCapture {
 public:
  StderrCapture() {
    std::fflush(stderr);
    _saved = dup(2);
    _f = std::tmpfile();
    dup2(fileno(_f), 2);
  }
  ~StderrCapture() {
    std::fflush(stderr);
    dup2(_saved, 2);
    close(_saved);
    std::fclose(_f);
  }
  std::string text() {
    std::fflush(stderr);
    std::string out;
    std::rewind(_f);
    char buf[512];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, _f)) > 0;) out.append(buf, n);
    return out;
  }

 private:
  int _saved;
  FILE* _f;
};

TEST(PipeToLogger, LinesPartialsTimerAndEof) {
  if (Logger::isInitialized()) GTEST_SKIP() << "needs the logger's pre-configuration output";
  FakeClock clock;
  EventLoop loop(&clock);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  StderrCapture cap;
  PipeToLogger ptl(gChildLog, "child:", &Logger::warn);
  ptl.start(&loop, PollableDescriptor(p[0]));
  PollableDescriptor fd(p[0]);

  ASSERT_EQ(write(p[1], "one\ntwo\nthr", 11), 11);
  EXPECT_FALSE(ptl.when_events(fd));
  EXPECT_EQ(cap.text(), "WARN - child: one\nWARN - child: two\n");

  ASSERT_EQ(write(p[1], "ee\npart", 7), 7);  // completes the held line
  EXPECT_FALSE(ptl.when_events(fd));
  EXPECT_EQ(cap.text(), "WARN - child: one\nWARN - child: two\nWARN - child: three\n");

  // "part" waits for the 10 s timer (run up to the batching window early).
  Timeval t = clock.t;
  t.addMsec(9000);
  loop.runExpiredTimeouts(t);
  EXPECT_EQ(cap.text().find("part"), std::string::npos);
  t.addMsec(1000);
  loop.runExpiredTimeouts(t);
  EXPECT_NE(cap.text().find("WARN - child: part\n"), std::string::npos);

  ASSERT_EQ(write(p[1], "tail", 4), 4);
  EXPECT_FALSE(ptl.when_events(fd));
  close(p[1]);
  EXPECT_TRUE(ptl.when_events(fd));  // end of file
  loop.removeActivePolledFd(&ptl);
  ptl.after_eof();
  EXPECT_TRUE(ptl.isFinished());
  EXPECT_EQ(loop.timeoutCount(), 0u);
  std::string all = cap.text();
  EXPECT_EQ(all.substr(all.size() - 19), "WARN - child: tail\n");
}

}  // namespace
