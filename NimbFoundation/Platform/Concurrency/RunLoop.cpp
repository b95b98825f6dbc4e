#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

#include <NimbFoundation/Internal/GuardedCall.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>

#include <NimbFoundation/Platform/Env/Env.h>

namespace nimb {

namespace {

using Seconds = std::chrono::duration<double>;

// `seconds` from now on the real clock; negative and NaN mean now.
RunLoop::TimePoint realAfter(double seconds) {
  auto now = std::chrono::steady_clock::now();
  if (!(seconds > 0)) return now;
  if (seconds > 1e9) seconds = 1e9;
  return now + std::chrono::duration_cast<std::chrono::steady_clock::duration>(Seconds(seconds));
}

}  // namespace

struct RunLoop::Impl {
  struct Timer {
    const void* target;
    std::string action;
    Task task;
  };
  // When it falls due on the Env's monotonic clock, and the order it came in.
  using TimerKey = std::pair<double, std::uint64_t>;

  mutable std::mutex mutex;
  std::condition_variable wake;
  std::deque<Task> queue;
  std::map<TimerKey, Timer> timers;
  std::multimap<std::pair<const void*, std::string>, TimerKey> byTarget;
  std::uint64_t nextSequence = 0;
  bool stopRequested = false;
  bool closed = false;

  // The host's descriptor, made by the first fileDescriptor() call: an
  // epoll set over an eventfd (raised while tasks are queued) and a timerfd
  // (armed for the earliest delayed request). -1 until then.
  int pollFd = -1;
  int eventFd = -1;
  int timerFd = -1;
  bool eventRaised = false;
  double armedDue = -1;  // the Env time the timerfd is armed for; -1 disarmed

  ~Impl() { closeDescriptors(); }

  void closeDescriptors() {
    for (int* fd : {&pollFd, &eventFd, &timerFd}) {
      if (*fd >= 0) ::close(*fd);
      *fd = -1;
    }
  }

  bool openDescriptors() {
    pollFd = ::epoll_create1(EPOLL_CLOEXEC);
    eventFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    timerFd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    bool ok = pollFd >= 0 && eventFd >= 0 && timerFd >= 0;
    for (int fd : {eventFd, timerFd}) {
      if (!ok) break;
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.fd = fd;
      ok = ::epoll_ctl(pollFd, EPOLL_CTL_ADD, fd, &ev) == 0;
    }
    if (!ok) closeDescriptors();
    eventRaised = false;
    armedDue = -1;
    return ok;
  }

  // Clears both members after the loop has taken what was due.
  void drainDescriptors() {
    if (pollFd < 0) return;
    std::uint64_t count;
    if (eventRaised) {
      [[maybe_unused]] auto n = ::read(eventFd, &count, sizeof count);
      eventRaised = false;
    }
    [[maybe_unused]] auto n = ::read(timerFd, &count, sizeof count);
    armedDue = -1;
  }

  // Makes the descriptor match the queue and the timers: raised while tasks
  // wait, the timer armed for the earliest request. `now` is the Env's clock.
  void syncDescriptors(double now) {
    raiseIfQueued();
    armTimer(now);
  }

  void raiseIfQueued() {
    if (pollFd < 0 || queue.empty() || eventRaised) return;
    const std::uint64_t one = 1;
    eventRaised = ::write(eventFd, &one, sizeof one) == sizeof one;
  }

  void armTimer(double now) {
    if (pollFd < 0) return;
    const double due = timers.empty() ? -1 : timers.begin()->first.first;
    if (due == armedDue) return;
    itimerspec when{};
    if (due >= 0) {
      // The time left on the Env's clock, counted down on the real one; a
      // request already due fires at once (a zero value would disarm).
      double left = std::max(due - now, 1e-9);
      when.it_value.tv_sec = static_cast<time_t>(left);
      when.it_value.tv_nsec = static_cast<long>((left - std::floor(left)) * 1e9);
      if (when.it_value.tv_sec == 0 && when.it_value.tv_nsec == 0) when.it_value.tv_nsec = 1;
    }
    if (::timerfd_settime(timerFd, 0, &when, nullptr) == 0) armedDue = due;
  }

  // Moves due work out under the lock; runs nothing.
  bool collect(std::deque<Task>& out, double now) {
    out.swap(queue);
    while (!timers.empty() && timers.begin()->first.first <= now) {
      auto node = timers.extract(timers.begin());
      Timer& timer = node.mapped();
      if (timer.target) {
        auto range = byTarget.equal_range(std::make_pair(timer.target, timer.action));
        for (auto it = range.first; it != range.second; ++it) {
          if (it->second == node.key()) {
            byTarget.erase(it);
            break;
          }
        }
      }
      out.push_back(std::move(timer.task));
    }
    return !out.empty();
  }
};

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

RunLoop::RunLoop() : impl_(std::make_unique<Impl>()) {}

RunLoop::~RunLoop() = default;

void RunLoop::closeForThreadExit() {
  std::deque<Task> dropped;
  std::map<Impl::TimerKey, Impl::Timer> droppedTimers;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->closed = true;
    dropped.swap(impl_->queue);
    droppedTimers.swap(impl_->timers);
    impl_->byTarget.clear();
    impl_->closeDescriptors();
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
    std::lock_guard lock(impl_->mutex);
    if (impl_->closed) return;
    impl_->queue.push_back(std::move(task));
    impl_->raiseIfQueued();
  }
  impl_->wake.notify_all();
}

void RunLoop::performAfterDelay(double seconds, const void* target, std::string action, Task task) {
  if (!task) return;
  if (!(seconds > 0)) seconds = 0;  // negative and NaN run at once
  if (seconds > 1e9) seconds = 1e9;
  const double due = Env::current()->monotonicSeconds() + seconds;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->closed) return;
    Impl::TimerKey key{due, impl_->nextSequence++};
    if (target) impl_->byTarget.emplace(std::make_pair(target, action), key);
    impl_->timers.emplace(key, Impl::Timer{target, std::move(action), std::move(task)});
    impl_->armTimer(due - seconds);
  }
  impl_->wake.notify_all();
}

void RunLoop::cancelPerforms(const void* target, std::string_view action) {
  std::deque<Task> released;  // destroyed outside the lock
  std::lock_guard lock(impl_->mutex);
  auto range = impl_->byTarget.equal_range(std::make_pair(target, std::string(action)));
  for (auto it = range.first; it != range.second; ++it) {
    auto timer = impl_->timers.find(it->second);
    if (timer == impl_->timers.end()) continue;
    released.push_back(std::move(timer->second.task));
    impl_->timers.erase(timer);
  }
  impl_->byTarget.erase(range.first, range.second);
  impl_->armTimer(Env::current()->monotonicSeconds());
}

void RunLoop::cancelPerforms(const void* target) {
  std::deque<Task> released;
  std::lock_guard lock(impl_->mutex);
  auto it = impl_->byTarget.lower_bound(std::make_pair(target, std::string()));
  while (it != impl_->byTarget.end() && it->first.first == target) {
    auto timer = impl_->timers.find(it->second);
    if (timer != impl_->timers.end()) {
      released.push_back(std::move(timer->second.task));
      impl_->timers.erase(timer);
    }
    it = impl_->byTarget.erase(it);
  }
  impl_->armTimer(Env::current()->monotonicSeconds());
}

bool RunLoop::runOnce(double maxWaitSeconds) {
  auto env = Env::current();
  std::deque<Task> work;
  {
    std::unique_lock lock(impl_->mutex);
    const auto limit = realAfter(maxWaitSeconds);
    for (;;) {
      // Taken before the work, so that a post made after it raises anew.
      impl_->drainDescriptors();
      const double now = env->monotonicSeconds();
      const bool found = impl_->collect(work, now);
      impl_->syncDescriptors(now);
      if (found) break;
      if (std::chrono::steady_clock::now() >= limit || impl_->stopRequested) return false;
      auto wakeAt = limit;
      if (!impl_->timers.empty()) {
        // Sleeps as long as the Env's clock says is left; a manual clock
        // that does not move merely ends the wait at `limit`.
        const double left = impl_->timers.begin()->first.first - env->monotonicSeconds();
        wakeAt = std::min(wakeAt, realAfter(left));
      }
      impl_->wake.wait_until(lock, wakeAt);
    }
  }
  for (auto& task : work) runTask(task);
  return true;
}

void RunLoop::runUntil(TimePoint deadline) {
  for (;;) {
    {
      std::lock_guard lock(impl_->mutex);
      if (impl_->stopRequested) {
        impl_->stopRequested = false;
        return;
      }
    }
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return;
    runOnce(std::chrono::duration_cast<Seconds>(deadline - now).count());
  }
}

void RunLoop::runFor(double seconds) {
  runUntil(realAfter(seconds));
}

void RunLoop::run() {
  runUntil(TimePoint::max());
}

bool RunLoop::runUntilIdle(double maxSeconds) {
  auto deadline = realAfter(maxSeconds);
  for (;;) {
    {
      std::lock_guard lock(impl_->mutex);
      if (impl_->queue.empty() && impl_->timers.empty()) return true;
      // A stop ends this run too; left pending, it would cut every wait short.
      if (impl_->stopRequested) {
        impl_->stopRequested = false;
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
    std::lock_guard lock(impl_->mutex);
    impl_->stopRequested = true;
  }
  impl_->wake.notify_all();
}

bool RunLoop::hasPendingWork() const {
  std::lock_guard lock(impl_->mutex);
  return !impl_->queue.empty() || !impl_->timers.empty();
}

int RunLoop::fileDescriptor() {
  std::lock_guard lock(impl_->mutex);
  if (impl_->pollFd < 0 && !impl_->closed && impl_->openDescriptors())
    impl_->syncDescriptors(Env::current()->monotonicSeconds());
  return impl_->pollFd;
}

double RunLoop::nextTimeout() const {
  const double now = Env::current()->monotonicSeconds();
  std::lock_guard lock(impl_->mutex);
  if (!impl_->queue.empty()) return 0;
  if (impl_->timers.empty()) return -1;
  return std::max(0.0, impl_->timers.begin()->first.first - now);
}

std::size_t RunLoop::scheduledCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->timers.size();
}

}  // namespace nimb
