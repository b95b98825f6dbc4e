// OperationQueue: runs operations concurrently on a pool of worker threads,
// the counterpart of the platform's operation queue with default settings.
//
// The caller sets no limit: the queue starts workers as work arrives, up to
// a ceiling fitted to the machine (maxConcurrentOperationCount), and lets
// them go after a few idle seconds. Operations may run in parallel and in
// any order; addOperation never blocks. The disk cache queues its file
// writes and deletes here.
//
// Thread rule: every member may be called from any thread. The destructor
// waits for queued operations to finish and joins its workers; it must not
// run on one of its own workers.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class OperationQueue {
 public:
  using Operation = std::function<void()>;

  OperationQueue();
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  // Queues `op`; returns at once. An operation that throws is reported on
  // standard error and dropped. (Should the system refuse every worker
  // thread, the caller runs the queue itself rather than strand it.)
  void addOperation(Operation op);
  // Blocks until every operation queued so far, and any they queue, has run.
  void waitUntilAllOperationsAreFinished();
  // Operations queued or running.
  std::size_t operationCount() const;
  // The most workers that run at once: twice the cores, at least 4.
  std::size_t maxConcurrentOperationCount() const { return maxWorkers_; }

 private:
  void workerLoop();
  // Runs queued operations on the calling thread; used only when no worker
  // thread can be started at all.
  void drainOnCaller();

  const std::size_t maxWorkers_;
  mutable std::mutex mutex_;
  std::condition_variable work_;
  std::condition_variable idle_;
  std::deque<Operation> queue_;
  std::size_t running_ = 0;
  std::size_t waitingWorkers_ = 0;
  std::list<std::thread> workers_;  // idle ones leave detached
  bool stopping_ = false;
};

}  // namespace nimb
