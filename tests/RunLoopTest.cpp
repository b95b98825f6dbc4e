#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using nimb::RunLoop;
using nimb::test::FakeMachine;

namespace {
int target;  // an identity for delayed requests
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

// Delayed requests fall due on the Env's monotonic clock, to the instant.
TEST(RunLoop, LaterRequestWithdrawsThePendingOne) {
  FakeMachine machine;
  auto& loop = RunLoop::current();
  int runs = 0;
  for (int i = 0; i < 3; ++i) {
    loop.cancelPerforms(&target, "save");
    loop.performAfterDelay(0.05, &target, "save", [&] { ++runs; });
    machine->advance(0.02);
    EXPECT_FALSE(loop.runOnce(0)) << i;
  }
  EXPECT_EQ(loop.scheduledCount(), 1u);
  machine->advance(0.0299);  // just short of 0.05 s after the last request
  EXPECT_FALSE(loop.runOnce(0));
  // Past it by more than the rounding of clock sums, which depends on where
  // the monotonic clock started.
  machine->advance(0.001);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(loop.hasPendingWork());
}

// Earlier due times run first, equal ones in the order asked; a cancel
// matches target and action only.
TEST(RunLoop, DelayedRequestsRunInTimeOrderAndCancelMatchesTargetAndAction) {
  FakeMachine machine;
  auto& loop = RunLoop::current();
  int other = 0;
  std::vector<std::string> ran;
  auto log = [&ran](const char* name) { return [&ran, name] { ran.push_back(name); }; };
  loop.performAfterDelay(0.03, nullptr, "", log("last"));
  loop.performAfterDelay(0.02, &target, "a", log("a"));
  loop.performAfterDelay(0.02, &target, "b", log("b"));
  loop.performAfterDelay(0.02, &other, "a", log("other a"));
  loop.performAfterDelay(0.01, nullptr, "a", log("anonymous"));
  loop.performAfterDelay(-1, nullptr, "", log("negative"));  // runs at once
  loop.cancelPerforms(&target, "a");
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(ran, (std::vector<std::string>{"negative"}));
  machine->advance(0.02);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(ran, (std::vector<std::string>{"negative", "anonymous", "b", "other a"}));
  machine->advance(0.01);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(ran.back(), "last");

  loop.performAfterDelay(0, &target, "a", log("a"));
  loop.performAfterDelay(0, &target, "b", log("b"));
  loop.cancelPerforms(&target);
  EXPECT_FALSE(loop.hasPendingWork());
}

// From a worker the task runs on the main thread while the worker waits:
// RunLoopHostTest shows it with the main loop inside a GLib loop.
TEST(RunLoop, PerformOnMainThreadAndWaitFromTheMainThreadRunsAtOnce) {
  EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
  bool ran = false;
  RunLoop::performOnMainThread([&] { ran = true; }, true);
  EXPECT_TRUE(ran);
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
  FakeMachine machine;
  auto& loop = RunLoop::current();
  bool ran = false;
  loop.perform([&] { ran = true; });
  loop.runUntil(std::chrono::steady_clock::now());  // a deadline already passed runs nothing
  EXPECT_FALSE(ran);
  loop.runFor(0.001);
  EXPECT_TRUE(ran);
  loop.perform([&] { loop.stop(); });
  loop.run();  // returns once the task stops it

  // A stop nobody was running for ends the next run, and only that one.
  loop.stop();
  loop.performAfterDelay(0.05, nullptr, "", [] {});
  EXPECT_FALSE(loop.runUntilIdle(5));
  machine->advance(0.05);
  EXPECT_TRUE(loop.runUntilIdle(5));
}

// The loop of an ended thread drops late posts, closes its descriptor and
// gives no new one.
TEST(RunLoop, LoopOfAnEndedThreadDropsLatePosts) {
  std::shared_ptr<RunLoop> loop;
  std::thread([&] {
    loop = RunLoop::currentShared();
    EXPECT_GE(loop->fileDescriptor(), 0);
  }).join();
  EXPECT_EQ(loop->fileDescriptor(), -1);
  auto witness = std::make_shared<int>(0);
  loop->perform([witness] {});
  EXPECT_EQ(witness.use_count(), 1);  // nothing holds on to the dropped task
  EXPECT_FALSE(loop->hasPendingWork());
}
