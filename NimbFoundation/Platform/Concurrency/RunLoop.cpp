#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

#include <NimbFoundation/Internal/GuardedCall.h>

#include <sys/types.h>
#include <unistd.h>

#include <cmath>

namespace nimb {

namespace {

using Seconds = std::chrono::duration<double>;

RunLoop::TimePoint after(double seconds) {
  auto now = std::chrono::steady_clock::now();
  if (!(seconds > 0)) return now;  // negative and NaN run at once
  if (seconds > 1e9) seconds = 1e9;
  return now + std::chrono::duration_cast<std::chrono::steady_clock::duration>(Seconds(seconds));
}

}  // namespace

// Owns a worker thread's loop and closes it when the thread ends, so that
// late posts from other threads are dropped instead of piling up.
struct RunLoopThreadHolder {
  std::shared_ptr<RunLoop> loop;
  ~RunLoopThreadHolder() {
    if (loop) loop->closeForThreadExit();
  }
};

namespace {
thread_local RunLoopThreadHolder tlsLoop;
}  // namespace

std::shared_ptr<RunLoop>& RunLoop::mainHandle() {
  // Never destroyed: work may still be posted to it while the process exits.
  static auto* handle = new std::shared_ptr<RunLoop>(new RunLoop);
  return *handle;
}

bool RunLoop::isMainThread() {
  return ::gettid() == ::getpid();
}

RunLoop& RunLoop::main() {
  return *mainHandle();
}

std::shared_ptr<RunLoop> RunLoop::currentShared() {
  if (isMainThread()) return mainHandle();
  if (!tlsLoop.loop) tlsLoop.loop = std::shared_ptr<RunLoop>(new RunLoop);
  return tlsLoop.loop;
}

RunLoop& RunLoop::current() {
  return *currentShared();
}

RunLoop::~RunLoop() = default;

void RunLoop::closeForThreadExit() {
  std::deque<Task> dropped;
  std::map<TimerKey, Timer> droppedTimers;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    dropped.swap(queue_);
    droppedTimers.swap(timers_);
    byTarget_.clear();
  }
  // `dropped` and `droppedTimers` release their captures here, outside the lock.
}

void RunLoop::runTask(Task& task) {
  detail::callReportingExceptions("RunLoop: a performed task", task);
}

void RunLoop::performOnMainThread(Task task, bool waitUntilDone) {
  if (!task) return;
  if (!waitUntilDone) {
    main().perform(std::move(task));
    return;
  }
  if (isMainThread()) {
    runTask(task);
    return;
  }
  struct Done {
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
  };
  auto done = std::make_shared<Done>();
  main().perform([task = std::move(task), done]() mutable {
    runTask(task);
    std::lock_guard lock(done->m);
    done->done = true;
    done->cv.notify_all();
  });
  std::unique_lock lock(done->m);
  done->cv.wait(lock, [&] { return done->done; });
}

void RunLoop::perform(Task task) {
  if (!task) return;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    queue_.push_back(std::move(task));
  }
  wake_.notify_all();
}

void RunLoop::performAfterDelay(double seconds, const void* target, std::string action, Task task) {
  if (!task) return;
  auto when = after(seconds);
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    TimerKey key{when, nextSequence_++};
    if (target) byTarget_.emplace(std::make_pair(target, action), key);
    timers_.emplace(key, Timer{target, std::move(action), std::move(task)});
  }
  wake_.notify_all();
}

void RunLoop::cancelPerforms(const void* target, std::string_view action) {
  std::deque<Task> released;  // destroyed outside the lock
  std::lock_guard lock(mutex_);
  auto range = byTarget_.equal_range(std::make_pair(target, std::string(action)));
  for (auto it = range.first; it != range.second; ++it) {
    auto timer = timers_.find(it->second);
    if (timer == timers_.end()) continue;
    released.push_back(std::move(timer->second.task));
    timers_.erase(timer);
  }
  byTarget_.erase(range.first, range.second);
}

void RunLoop::cancelPerforms(const void* target) {
  std::deque<Task> released;
  std::lock_guard lock(mutex_);
  auto it = byTarget_.lower_bound(std::make_pair(target, std::string()));
  while (it != byTarget_.end() && it->first.first == target) {
    auto timer = timers_.find(it->second);
    if (timer != timers_.end()) {
      released.push_back(std::move(timer->second.task));
      timers_.erase(timer);
    }
    it = byTarget_.erase(it);
  }
}

bool RunLoop::collect(std::deque<Task>& out, TimePoint now) {
  out.swap(queue_);
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    auto node = timers_.extract(timers_.begin());
    Timer& timer = node.mapped();
    if (timer.target) {
      auto range = byTarget_.equal_range(std::make_pair(timer.target, timer.action));
      for (auto it = range.first; it != range.second; ++it) {
        if (it->second == node.key()) {
          byTarget_.erase(it);
          break;
        }
      }
    }
    out.push_back(std::move(timer.task));
  }
  return !out.empty();
}

bool RunLoop::runOnce(double maxWaitSeconds) {
  std::deque<Task> work;
  {
    std::unique_lock lock(mutex_);
    auto limit = after(maxWaitSeconds);
    while (!collect(work, std::chrono::steady_clock::now())) {
      auto now = std::chrono::steady_clock::now();
      if (now >= limit || stopRequested_) return false;
      auto wakeAt = limit;
      if (!timers_.empty() && timers_.begin()->first.first < wakeAt) {
        wakeAt = timers_.begin()->first.first;
      }
      wake_.wait_until(lock, wakeAt);
    }
  }
  for (auto& task : work) runTask(task);
  return true;
}

void RunLoop::runUntil(TimePoint deadline) {
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopRequested_) {
        stopRequested_ = false;
        return;
      }
    }
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return;
    runOnce(std::chrono::duration_cast<Seconds>(deadline - now).count());
  }
}

void RunLoop::runFor(double seconds) {
  runUntil(after(seconds));
}

void RunLoop::run() {
  runUntil(TimePoint::max());
}

bool RunLoop::runUntilIdle(double maxSeconds) {
  auto deadline = after(maxSeconds);
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (queue_.empty() && timers_.empty()) return true;
      // A stop ends this run too; left pending, it would cut every wait short.
      if (stopRequested_) {
        stopRequested_ = false;
        return false;
      }
    }
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    runOnce(std::chrono::duration_cast<Seconds>(deadline - now).count());
  }
}

void RunLoop::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  wake_.notify_all();
}

bool RunLoop::hasPendingWork() const {
  std::lock_guard lock(mutex_);
  return !queue_.empty() || !timers_.empty();
}

std::size_t RunLoop::scheduledCount() const {
  std::lock_guard lock(mutex_);
  return timers_.size();
}

}  // namespace nimb
