#include <NimbFoundation/Platform/Concurrency/OperationQueue.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

using namespace std::chrono_literals;
using nimb::OperationQueue;

TEST(OperationQueue, AddNeverBlocksWaitSeesEverythingFinishAndThrowingOnesAreDropped) {
  OperationQueue queue;
  std::atomic<bool> release{false};
  std::atomic<int> done{0};
  auto start = std::chrono::steady_clock::now();
  // More blocked operations than workers: adding must still return at once.
  for (int i = 0; i < 50; ++i) {
    queue.addOperation([&] {
      while (!release) std::this_thread::sleep_for(1ms);
      ++done;
    });
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(queue.operationCount(), 50u);
  // A throwing operation is dropped; one may queue more, which wait also sees.
  queue.addOperation([] { throw std::runtime_error("boom"); });
  queue.addOperation([&] {
    queue.addOperation([&] { ++done; });
    ++done;
  });
  release = true;
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(done.load(), 52);
  EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueue, RunsOperationsConcurrently) {
  OperationQueue queue;
  ASSERT_GE(queue.maxConcurrentOperationCount(), 2u);
  std::atomic<int> inside{0};
  std::atomic<int> peak{0};
  for (int i = 0; i < 8; ++i) {
    queue.addOperation([&] {
      int now = ++inside;
      int seen = peak.load();
      while (now > seen && !peak.compare_exchange_weak(seen, now)) {
      }
      std::this_thread::sleep_for(50ms);
      --inside;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_GE(peak.load(), 2);
}

TEST(OperationQueue, DestructorLetsQueuedWorkFinish) {
  std::atomic<int> done{0};
  {
    OperationQueue queue;
    for (int i = 0; i < 20; ++i) {
      queue.addOperation([&] {
        std::this_thread::sleep_for(2ms);
        ++done;
      });
    }
  }
  EXPECT_EQ(done.load(), 20);
}
