#include <NimbFoundation/Platform/Concurrency/OperationQueue.h>

#include <NimbFoundation/Internal/GuardedCall.h>

#include <algorithm>
#include <chrono>
#include <system_error>

namespace nimb {

namespace {
// How long an idle worker waits for more work before it leaves.
constexpr auto kIdleLinger = std::chrono::seconds(5);
}  // namespace

OperationQueue::OperationQueue()
    : maxWorkers_(std::max<std::size_t>(4, 2 * std::thread::hardware_concurrency())) {}

OperationQueue::~OperationQueue() {
  std::list<std::thread> all;
  {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [&] { return queue_.empty() && running_ == 0; });
    stopping_ = true;
    all.splice(all.end(), workers_);
  }
  work_.notify_all();
  for (auto& t : all) t.join();
}

void OperationQueue::addOperation(Operation op) {
  if (!op) return;
  bool noWorker = false;
  {
    std::unique_lock lock(mutex_);
    queue_.push_back(std::move(op));
    if (waitingWorkers_ < queue_.size() && workers_.size() < maxWorkers_) {
      try {
        workers_.emplace_back([this] { workerLoop(); });
      } catch (const std::system_error&) {
        // No thread to be had now: the workers already running drain the
        // queue; with none at all, the caller does the work below rather
        // than leave it stranded.
        noWorker = workers_.empty();
      }
    }
  }
  work_.notify_one();
  if (noWorker) drainOnCaller();
}

void OperationQueue::drainOnCaller() {
  std::unique_lock lock(mutex_);
  while (!queue_.empty() && workers_.empty()) {
    Operation op = std::move(queue_.front());
    queue_.pop_front();
    ++running_;
    lock.unlock();
    detail::callReportingExceptions("OperationQueue: an operation", op);
    op = nullptr;
    lock.lock();
    --running_;
  }
  if (queue_.empty() && running_ == 0) idle_.notify_all();
}

void OperationQueue::workerLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++waitingWorkers_;
    bool gotWork = work_.wait_for(lock, kIdleLinger, [&] { return stopping_ || !queue_.empty(); });
    --waitingWorkers_;
    if (!queue_.empty()) {
      Operation op = std::move(queue_.front());
      queue_.pop_front();
      ++running_;
      lock.unlock();
      detail::callReportingExceptions("OperationQueue: an operation", op);
      op = nullptr;  // release captures before reporting idle
      lock.lock();
      --running_;
      if (queue_.empty() && running_ == 0) idle_.notify_all();
      continue;
    }
    if (stopping_) return;
    if (!gotWork) {
      // Idle too long: leave, detached, so that nothing is left to join. A
      // queue that lives until the process ends (the shared cache's) would
      // otherwise end with finished threads nobody joined. After this the
      // thread touches nothing of the queue but the lock it lets go of.
      auto self = std::find_if(workers_.begin(), workers_.end(), [](const std::thread& t) {
        return t.get_id() == std::this_thread::get_id();
      });
      if (self != workers_.end()) {
        self->detach();
        workers_.erase(self);
      }
      return;
    }
  }
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [&] { return queue_.empty() && running_ == 0; });
}

std::size_t OperationQueue::operationCount() const {
  std::lock_guard lock(mutex_);
  return queue_.size() + running_;
}

}  // namespace nimb
