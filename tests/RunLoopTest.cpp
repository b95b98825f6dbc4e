#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using nimb::RunLoop;

namespace {
int target;  // an identity for delayed requests
}

TEST(RunLoop, MainThreadOwnsTheMainLoop) {
  EXPECT_TRUE(RunLoop::isMainThread());
  EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
  std::thread([] {
    EXPECT_FALSE(RunLoop::isMainThread());
    EXPECT_NE(&RunLoop::current(), &RunLoop::main());
  }).join();
}

TEST(RunLoop, PerformsRunInOrderOnlyWhenTheLoopTurnsAndAThrowingOneIsDropped) {
  std::vector<int> order;
  auto& loop = RunLoop::current();
  loop.perform([&] { order.push_back(1); });
  loop.perform([] { throw std::runtime_error("boom"); });
  loop.perform([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());
  EXPECT_TRUE(loop.runUntilIdle(1));
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(RunLoop, LaterRequestWithdrawsThePendingOne) {
  auto& loop = RunLoop::current();
  int runs = 0;
  auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point ranAt;
  for (int i = 0; i < 3; ++i) {
    loop.cancelPerforms(&target, "save");
    loop.performAfterDelay(0.05, &target, "save", [&] {
      ++runs;
      ranAt = std::chrono::steady_clock::now();
    });
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(loop.scheduledCount(), 1u);
  EXPECT_TRUE(loop.runUntilIdle(2));
  EXPECT_EQ(runs, 1);
  // 0.05 s after the last of three requests 20 ms apart.
  EXPECT_GE(ranAt - start, 90ms);
}

// Earlier due times run first, equal ones in the order asked; a cancel
// matches target and action only.
TEST(RunLoop, DelayedRequestsRunInTimeOrderAndCancelMatchesTargetAndAction) {
  auto& loop = RunLoop::current();
  int other = 0;
  std::vector<std::string> ran;
  auto log = [&ran](const char* name) { return [&ran, name] { ran.push_back(name); }; };
  loop.performAfterDelay(0.03, nullptr, "", log("last"));
  loop.performAfterDelay(0.02, &target, "a", log("a"));
  loop.performAfterDelay(0.02, &target, "b", log("b"));
  loop.performAfterDelay(0.02, &other, "a", log("other a"));
  loop.performAfterDelay(0.01, nullptr, "a", log("anonymous"));
  loop.cancelPerforms(&target, "a");
  loop.runUntilIdle(1);
  EXPECT_EQ(ran, (std::vector<std::string>{"anonymous", "b", "other a", "last"}));

  loop.performAfterDelay(0, &target, "a", log("a"));
  loop.performAfterDelay(0, &target, "b", log("b"));
  loop.cancelPerforms(&target);
  EXPECT_FALSE(loop.hasPendingWork());
}

TEST(RunLoop, PerformOnMainThreadAndWait) {
  // From the main thread it runs at once.
  bool ran = false;
  RunLoop::performOnMainThread([&] { ran = true; }, true);
  EXPECT_TRUE(ran);

  // From a worker it runs on the main thread, and the worker waits for it.
  std::atomic<bool> ranOnMain{false};
  std::atomic<bool> workerReturned{false};
  std::thread worker([&] {
    RunLoop::performOnMainThread([&] { ranOnMain = RunLoop::isMainThread(); }, true);
    workerReturned = true;
  });
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(workerReturned.load());  // blocked until the main loop turns
  auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!workerReturned && std::chrono::steady_clock::now() < deadline)
    RunLoop::main().runOnce(0.05);
  worker.join();
  EXPECT_TRUE(ranOnMain.load());
}

TEST(RunLoop, PostsFromOtherThreadsWakeTheLoop) {
  auto loop = RunLoop::currentShared();
  std::atomic<int> count{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 250; ++i) loop->perform([&] { ++count; });
    });
  }
  for (auto& t : posters) t.join();
  loop->runUntilIdle(5);
  EXPECT_EQ(count.load(), 1000);
}

TEST(RunLoop, RunUntilDeadlineAndStop) {
  auto& loop = RunLoop::current();
  auto start = std::chrono::steady_clock::now();
  loop.runUntil(start + 50ms);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);

  loop.performAfterDelay(0.01, nullptr, "", [&] { loop.stop(); });
  start = std::chrono::steady_clock::now();
  loop.run();  // returns once the request stops it
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);

  // A stop nobody was running for ends the next run, and only that one.
  loop.stop();
  loop.performAfterDelay(0.05, nullptr, "", [] {});
  EXPECT_FALSE(loop.runUntilIdle(5));
  EXPECT_TRUE(loop.runUntilIdle(5));
}

TEST(RunLoop, LoopOfAnEndedThreadDropsLatePosts) {
  std::shared_ptr<RunLoop> loop;
  std::thread([&] { loop = RunLoop::currentShared(); }).join();
  auto witness = std::make_shared<int>(0);
  loop->perform([witness] {});
  EXPECT_EQ(witness.use_count(), 1);  // nothing holds on to the dropped task
  EXPECT_FALSE(loop->hasPendingWork());
}
