#include <NimbFoundation/Platform/Concurrency/NotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using nimb::Notification;
using nimb::NotificationCenter;

namespace {
// Identities for observers and senders.
int observerA, observerB, senderOne, senderTwo;

// A center whose observers each append their one-letter label to `got`.
struct Recorder {
  NotificationCenter center;
  std::string got;
  void add(const void* observer, const char* name, const void* sender, char label) {
    center.addObserver(observer, name, sender,
                       [this, label](const Notification&) { got += label; });
  }
  // Who hears one post, in order.
  std::string post(const char* name, const void* sender) {
    got.clear();
    center.postNotificationName(name, sender);
    return got;
  }
};
}  // namespace

TEST(NotificationCenter, DeliversToMatchingNameAndSenderInRegistrationOrder) {
  // Named and any-name registrations interleaved, to see the global order kept:
  // a: any, x: "x", t: any from two, o: "x" from one, y: "y", X: "x" again.
  Recorder r;
  r.add(&observerA, "", nullptr, 'a');
  r.add(&observerA, "x", nullptr, 'x');
  r.add(&observerA, "", &senderTwo, 't');
  r.add(&observerA, "x", &senderOne, 'o');
  r.add(&observerA, "y", nullptr, 'y');
  r.add(&observerA, "x", nullptr, 'X');
  EXPECT_EQ(r.post("x", &senderOne), "axoX");
  EXPECT_EQ(r.post("x", &senderTwo), "axtX");
  EXPECT_EQ(r.post("z", nullptr), "a");
}

TEST(NotificationCenter, RemovesByObserverNameAndSender) {
  Recorder r;
  r.add(&observerA, "x", &senderOne, '1');
  r.add(&observerA, "x", &senderTwo, '2');
  r.add(&observerA, "y", nullptr, 'y');
  r.add(&observerB, "x", nullptr, 'b');
  r.add(&observerB, "y", nullptr, 'B');
  // Who hears x from one, x from two, then y.
  auto postAll = [&] {
    return r.post("x", &senderOne) + r.post("x", &senderTwo) + r.post("y", nullptr);
  };
  r.center.removeObserver(&observerA, "x", &senderOne);
  EXPECT_EQ(postAll(), "b2byB");
  r.center.removeObserver(&observerA, "", &senderTwo);  // any name, from one sender
  EXPECT_EQ(postAll(), "bbyB");
  r.center.removeObserver(&observerA, "y", nullptr);  // one name, from any sender
  EXPECT_EQ(postAll(), "bbB");
  EXPECT_EQ(r.center.observerCount(), 2u);
  r.center.removeObserver(&observerB);
  EXPECT_EQ(postAll(), "");
  EXPECT_EQ(r.center.observerCount(), 0u);
}

TEST(NotificationCenter, RemovalsAndAdditionsDuringDelivery) {
  NotificationCenter center;
  std::vector<std::string> got;
  int self;
  center.addObserver(&self, "x", nullptr, [&](const Notification&) {
    got.push_back("self");
    center.removeObserver(&self);  // the running handler stays alive
  });
  center.addObserver(&observerA, "x", nullptr, [&](const Notification&) {
    got.push_back("a");
    center.removeObserver(&observerB);
    center.addObserver(&observerA, "", nullptr, [&](const Notification&) { got.push_back("new"); });
  });
  center.addObserver(&observerB, "x", nullptr, [&](const Notification&) { got.push_back("b"); });

  center.postNotificationName("x", nullptr);
  EXPECT_EQ(got, (std::vector<std::string>{"self", "a"}));
  got.clear();
  center.postNotificationName("x", nullptr);
  EXPECT_EQ(got, (std::vector<std::string>{"a", "new"}));
}

// A handler may post (delivered inside it, at once) and read typed details;
// one that throws does not stop those after it, nor the post around it.
TEST(NotificationCenter, HandlersMayPostReadTypedDetailsAndThrow) {
  NotificationCenter center;
  std::vector<std::string> got;
  center.addObserver(&observerA, "outer", nullptr, [&](const Notification& n) {
    got.push_back("outer");
    center.postNotificationName("inner", n.object, {{"count", 3}, {"url", std::string("u")}});
    got.push_back("outer done");
  });
  center.addObserver(&observerA, "inner", &senderOne, [&](const Notification& n) {
    ASSERT_NE(n.get<int>("count"), nullptr);
    EXPECT_EQ(*n.get<int>("count"), 3);
    EXPECT_EQ(n.get<long>("count"), nullptr);  // held as int, not long
    EXPECT_EQ(n.get<int>("missing"), nullptr);
    ASSERT_NE(n.get<std::string>("url"), nullptr);
    got.push_back("inner " + *n.get<std::string>("url"));
    throw std::runtime_error("boom");
  });
  center.addObserver(&observerB, "inner", nullptr, [](const Notification&) { throw 7; });
  center.addObserver(&observerB, "inner", nullptr,
                     [&](const Notification&) { got.push_back("b"); });
  EXPECT_NO_THROW(center.postNotificationName("outer", &senderOne));
  EXPECT_EQ(got, (std::vector<std::string>{"outer", "inner u", "b", "outer done"}));
}

TEST(NotificationCenter, ConcurrentAddRemoveAndPost) {
  NotificationCenter center;
  std::atomic<int> ticks{0};
  center.addObserver(&observerA, "tick", nullptr, [&](const Notification&) { ++ticks; });

  constexpr int kPosters = 3, kPostsEach = 2000, kChurners = 3, kRounds = 300;
  std::atomic<int> wrongDeliveries{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kPosters; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kPostsEach; ++i) center.postNotificationName("tick", nullptr);
    });
  }
  for (int t = 0; t < kChurners; ++t) {
    threads.emplace_back([&, t] {
      int me;
      for (int i = 0; i < kRounds; ++i) {
        // Only this thread posts this name, so its counts are exact.
        std::string name = "churn-" + std::to_string(t) + "-" + std::to_string(i);
        std::atomic<int> calls{0};
        center.addObserver(&me, name, nullptr, [&](const Notification&) { ++calls; });
        center.addObserver(&me, "", nullptr, [](const Notification&) {});
        center.postNotificationName(name, nullptr);
        center.removeObserver(&me, name, nullptr);
        center.postNotificationName(name, nullptr);
        if (calls != 1) ++wrongDeliveries;
        center.removeObserver(&me);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(ticks.load(), kPosters * kPostsEach);
  EXPECT_EQ(wrongDeliveries.load(), 0);
  EXPECT_EQ(center.observerCount(), 1u);
}
