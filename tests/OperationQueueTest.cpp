#include <NimbFoundation/Platform/Concurrency/OperationQueue.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

using namespace std::chrono_literals;
using nimb::OperationQueue;

// Queues `n` operations that each wait for `gate` and then count themselves in `done`.
void addGated(OperationQueue& queue, int n, std::shared_future<void> gate, std::atomic<int>& done) {
  for (int i = 0; i < n; ++i) queue.addOperation([&done, gate] { gate.wait(), ++done; });
}

TEST(OperationQueue, AddNeverBlocksWaitSeesEverythingFinishAndThrowingOnesAreDropped) {
  OperationQueue queue;
  std::promise<void> release;
  std::atomic<int> done{0};
  // More blocked operations than workers: adding must still return (were it
  // to wait for a worker, the test would never get to the release).
  addGated(queue, 50, release.get_future().share(), done);
  EXPECT_EQ(queue.operationCount(), 50u);
  // A throwing operation is dropped; one may queue more, which wait also sees.
  queue.addOperation([] { throw std::runtime_error("boom"); });
  queue.addOperation([&] {
    queue.addOperation([&] { ++done; });
    ++done;
  });
  release.set_value();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(done.load(), 52);
  EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueue, RunsOperationsConcurrently) {
  OperationQueue queue;
  ASSERT_GE(queue.maxConcurrentOperationCount(), 2u);
  // Two operations meet: each waits for the other to have started. The
  // timeout only keeps a serial queue from hanging the test.
  std::mutex mutex;
  std::condition_variable arrived;
  int started = 0;
  std::atomic<int> met{0};
  for (int i = 0; i < 2; ++i) {
    queue.addOperation([&] {
      std::unique_lock lock(mutex);
      ++started;
      arrived.notify_all();
      if (arrived.wait_for(lock, 30s, [&] { return started == 2; })) ++met;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(met.load(), 2);
}

TEST(OperationQueue, DestructorLetsQueuedWorkFinish) {
  std::atomic<int> done{0};
  std::promise<void> release;
  std::thread releaser;
  {
    OperationQueue queue;
    addGated(queue, 20, release.get_future().share(), done);
    // Opens the gate while the queue is being destroyed with all 20 queued.
    releaser = std::thread([&] { release.set_value(); });
  }
  releaser.join();
  EXPECT_EQ(done.load(), 20);
}
