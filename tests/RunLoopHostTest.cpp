// A host event loop turns a kit RunLoop through its descriptor: readable when
// work is due, cleared by runOnce(0); and a GLib main loop runs the kit's
// main loop through examples/GLibRunLoopSource.h with no timeout of its own.
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "../examples/GLibRunLoopSource.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using nimb::RunLoop;
using nimb::test::FakeMachine;

namespace {

bool readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
}

// Runs `body` with a fresh loop of its own thread.
template <typename Body>
void onOwnLoop(Body body) {
  std::thread([&] { body(RunLoop::current()); }).join();
}

}  // namespace

TEST(RunLoopHost, DescriptorIsReadableExactlyWhileWorkIsDue) {
  FakeMachine machine;
  onOwnLoop([&](RunLoop& loop) {
    const int fd = loop.fileDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(loop.fileDescriptor(), fd);
    EXPECT_FALSE(readable(fd));
    EXPECT_EQ(loop.nextTimeout(), -1);

    // A post from another thread raises it; the turn that runs it clears it.
    int runs = 0;
    std::thread([&] { loop.perform([&] { ++runs; }); }).join();
    EXPECT_TRUE(readable(fd));
    EXPECT_EQ(loop.nextTimeout(), 0);
    EXPECT_TRUE(loop.runOnce(0));
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(readable(fd));

    // A task that posts again leaves it raised for the next turn.
    loop.perform([&] { loop.perform([&] { ++runs; }); });
    loop.runOnce(0);
    EXPECT_TRUE(readable(fd));
    loop.runOnce(0);
    EXPECT_EQ(runs, 2);
    EXPECT_FALSE(readable(fd));

    // nextTimeout() follows the Env's clock; a request already due makes the
    // descriptor readable at once, a cancelled one never does.
    loop.performAfterDelay(30, &runs, "later", [&] { ++runs; });
    EXPECT_NEAR(loop.nextTimeout(), 30, 1e-9);
    machine->advance(10);
    EXPECT_NEAR(loop.nextTimeout(), 20, 1e-9);
    EXPECT_FALSE(readable(fd));
    loop.performAfterDelay(0, nullptr, "", [&] { ++runs; });
    EXPECT_EQ(loop.nextTimeout(), 0);
    std::this_thread::sleep_for(1ms);  // the timer's nanosecond on the real clock
    EXPECT_TRUE(readable(fd));
    EXPECT_TRUE(loop.runOnce(0));
    EXPECT_EQ(runs, 3);
    EXPECT_FALSE(readable(fd));
    loop.cancelPerforms(&runs);
    EXPECT_EQ(loop.nextTimeout(), -1);
    machine->advance(30);
    EXPECT_FALSE(loop.runOnce(0));
    EXPECT_FALSE(readable(fd));
  });
}

// Inside g_main_loop_run, with only the kit's source attached: a delayed
// request, a post from a worker, and a worker waiting on the main thread all
// complete. A watchdog thread ends a hang instead of a timeout source.
TEST(RunLoopHost, GLibMainLoopTurnsTheMainRunLoopWithoutPolling) {
  auto& main = RunLoop::main();
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  GMainLoop* glibLoop = g_main_loop_new(context, FALSE);
  GSource* source = nimb::example::attachRunLoop(main, context);
  ASSERT_NE(source, nullptr);

  std::atomic<bool> delayedRan{false}, postedRan{false}, waitedOnMain{false};
  std::atomic<bool> workerReturned{false};
  std::thread worker;
  // The delay runs on the real clock; the request starts the worker, whose
  // wait can end only if the main loop turns inside g_main_loop_run.
  main.performAfterDelay(0.02, nullptr, "", [&] {
    delayedRan = true;
    worker = std::thread([&] {
      main.perform([&] { postedRan = RunLoop::isMainThread(); });
      RunLoop::performOnMainThread([&] { waitedOnMain = RunLoop::isMainThread(); }, true);
      workerReturned = true;
      main.perform([&] { g_main_loop_quit(glibLoop); });
    });
  });
  std::atomic<bool> finished{false};
  std::thread watchdog([&] {
    for (int i = 0; i < 1000 && !finished; ++i) std::this_thread::sleep_for(10ms);
    if (!finished) g_main_loop_quit(glibLoop);
  });
  g_main_loop_run(glibLoop);
  finished = true;
  watchdog.join();
  if (worker.joinable()) worker.join();

  EXPECT_TRUE(delayedRan);
  EXPECT_TRUE(postedRan);
  EXPECT_TRUE(waitedOnMain);
  EXPECT_TRUE(workerReturned);
  g_source_destroy(source);
  g_source_unref(source);
  g_main_loop_unref(glibLoop);
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
}
