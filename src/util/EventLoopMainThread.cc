#include "util/EventLoopMainThread.h"

#include "util/InThreadActor.h"

namespace {
// Joins and deletes one thread, then itself: nobody waits for it.
class JoinActor : public InThreadActor {
 public:
  explicit JoinActor(Thread* t) : _t(t) {}
  void run() override {
    Thread::JoinHelper helper(_t);
    helper.run();
    delete this;
  }

 private:
  Thread* _t;
};
}  // namespace

void EventLoopMainThread::joinAndDeleteMe(Thread* t) {
  auto* a = new JoinActor(t);
  if (_loop.runInThreadOrFail(a, false) == 0) {
    // The loop is not running: keep it on the list for reapFinished().
    delete a;
    MainThread::joinAndDeleteMe(t);
  }
}
