// RunLoop: a per-thread queue of work, the kit's counterpart of the
// platform's run loops and delayed performs.
//
// Every thread can have one (RunLoop::current() makes it on first use); the
// main loop belongs to the process's initial thread, which is "the main
// thread" throughout the kit. Work reaches a loop three ways:
//   - perform(task): run on the loop's next turn;
//   - performAfterDelay(seconds, target, action, task): run once the delay
//     has passed, unless withdrawn first by cancelPerforms(target, action);
//   - RunLoop::performOnMainThread(task, wait): hop to the main loop, and
//     with `wait` block until the task has run (at once when already on the
//     main thread).
// Nothing runs until the owning thread turns the loop: run(), runUntil(),
// runFor(), runOnce() or runUntilIdle().
//
// A host event loop (GLib, Qt, SDL, epoll) turns a kit loop without polling:
//   1. fd = loop.fileDescriptor(), from any thread, once: the host watches
//      it for reading (POLLIN). It stays the same for the loop's life and
//      the loop owns it (do not read, write or close it).
//   2. It is readable while tasks are queued and once the earliest delayed
//      request has fallen due. It may also turn readable with nothing due;
//      runOnce(0) then does nothing.
//   3. When it is readable, the loop's own thread calls runOnce(0), which
//      runs what is due and clears the descriptor; work posted while that
//      turn runs makes it readable again.
//   4. A host that also takes a timeout can use nextTimeout() for it.
// Examples: examples/GLibRunLoopSource.h attaches the main loop to a GLib
// main context.
//
// The timer behind the descriptor counts real time: when a request is
// scheduled, cancelled or the loop turns, it is set to fire after the time
// the Env's clock says is left. A test that moves a manual clock forward
// sees nextTimeout() follow at once, while the descriptor catches up at the
// next runOnce(), so such a test turns the loop itself.
//
// Time: a delayed request falls due on Env::current()->monotonicSeconds(),
// so a test whose Env has a manual monotonic clock advances it and calls
// runOnce(0) to fire what is due, without sleeping. How long a run function
// may block its caller (maxWaitSeconds, runFor, runUntil, runUntilIdle's
// limit) is real time.
//
// Thread rule: perform, performAfterDelay, cancelPerforms, stop and
// hasPendingWork may be called from any thread; the run functions only from
// the loop's own thread. A task never runs while the loop's lock is held, so
// tasks may schedule or cancel freely. A task that throws is reported
// through the log sink (Log.h; standard error by default) and dropped.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class RunLoop {
 public:
  using Task = std::function<void()>;
  using TimePoint = std::chrono::steady_clock::time_point;

  // The calling thread's loop, made on first use. On the main thread this is main().
  static RunLoop& current();
  // The same loop as a shared handle, for code that must post back to this
  // thread later (a loop whose thread has ended drops what it is sent).
  static std::shared_ptr<RunLoop> currentShared();
  // The main thread's loop.
  static RunLoop& main();
  // Whether the caller runs on the main thread (the process's initial thread).
  static bool isMainThread();

  // Runs `task` on the main thread. With `waitUntilDone`, blocks until it has
  // run; from the main thread itself that means running it right now.
  static void performOnMainThread(Task task, bool waitUntilDone);

  void perform(Task task);
  // Schedules `task` after `seconds` (negative counts as 0). `target` and
  // `action` name the request for cancelPerforms; a null target makes it
  // anonymous (never cancelled).
  void performAfterDelay(double seconds, const void* target, std::string action, Task task);
  // Withdraws every pending delayed request with this target and action.
  void cancelPerforms(const void* target, std::string_view action);
  // Withdraws every pending delayed request with this target.
  void cancelPerforms(const void* target);

  // One turn: runs the tasks already queued and the delayed requests that
  // are due; when there are none, waits up to `maxWaitSeconds` for some (a
  // pending stop() ends the wait early). Returns whether anything ran.
  bool runOnce(double maxWaitSeconds = 0);
  // Turns the loop until `deadline` (or stop()).
  void runUntil(TimePoint deadline);
  void runFor(double seconds);
  // Turns the loop until nothing is queued or scheduled, waiting for delayed
  // requests to fall due; gives up after `maxSeconds` or at stop(). True
  // when idle.
  bool runUntilIdle(double maxSeconds = 3600);
  // Turns the loop until stop() is called.
  void run();
  // Makes the current or next run(), runUntil() or runUntilIdle() return
  // after its turn.
  void stop();

  // The descriptor a host event loop watches (see the header comment),
  // made on first call; -1 when the system gives none or the thread that
  // owned the loop has ended. Any thread.
  int fileDescriptor();
  // Seconds on the Env's clock until the loop has work: 0 when tasks are
  // queued or a request is due, -1 when nothing is scheduled. Any thread.
  double nextTimeout() const;

  // Whether tasks are queued or delayed requests scheduled.
  bool hasPendingWork() const;
  std::size_t scheduledCount() const;

  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

 private:
  RunLoop();
  struct Impl;
  friend struct RunLoopThreadHolder;

  static std::shared_ptr<RunLoop>& mainHandle();
  static void runTask(Task& task);
  void closeForThreadExit();

  std::unique_ptr<Impl> impl_;
};

}  // namespace nimb
