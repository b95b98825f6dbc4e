// LocationManager and NimbLocationManager over a source the test drives:
// delivery on the starting thread's run loop, the distance filter, stops,
// failures, the user's switch, and the callback rules of the wrapper. The
// real sources are tested against their daemons in LocationGpsdTest and
// LocationGeoClueTest.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "TestSupport.h"

#include <NimbFoundation/NimbLocationManager.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Location/LocationManager.h>

namespace nimb {
namespace {

// A source whose events the test sends, from any thread.
class ScriptedSource : public LocationSource {
 public:
  std::atomic<bool> available{true};
  std::atomic<int> starts{0}, stops{0};
  LocationRequest lastRequest;

  std::string name() const override { return "scripted"; }
  bool isAvailable() override { return available; }
  void start(const LocationRequest& request, LocationSourceEvents events) override {
    std::lock_guard lock(mutex_);
    lastRequest = request;
    events_ = std::move(events);
    ++starts;
  }
  void stop() override {
    std::lock_guard lock(mutex_);
    events_ = {};
    ++stops;
  }
  void sendFix(const Location& fix) {
    std::lock_guard lock(mutex_);
    if (events_.fix) events_.fix(fix);
  }
  void sendFailure(long code) {
    std::lock_guard lock(mutex_);
    if (events_.failure) events_.failure(Error{kLocationErrorDomain, code, {}});
  }

 private:
  std::mutex mutex_;
  LocationSourceEvents events_;
};

// A fix `meters` north of a fixed point.
Location northOfStart(double meters) {
  constexpr double kMetersPerDegree = 6371008.8 * 3.14159265358979323846 / 180;
  return Location({52.5 + meters / kMetersPerDegree, 13.4}, 34, 5, 8, 0, 10,
                  Date::fromTimeIntervalSince1970(1.8e9 + meters));
}

struct Recorder {
  std::vector<Location> fixes;
  std::vector<Error> failures;
  bool allOnMainThread = true;
  std::shared_ptr<LocationManagerDelegate> delegate = std::make_shared<LocationManagerDelegate>();
  Recorder() {
    delegate->locationManagerDidUpdateLocations = [this](LocationManager&,
                                                         const std::vector<Location>& list) {
      allOnMainThread = allOnMainThread && RunLoop::isMainThread();
      fixes.insert(fixes.end(), list.begin(), list.end());
    };
    delegate->locationManagerDidFailWithError = [this](LocationManager&, const Error& error) {
      allOnMainThread = allOnMainThread && RunLoop::isMainThread();
      failures.push_back(error);
    };
  }
};

class LocationManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    machine_->realMonotonic = true;
    config_ = test::makeTemporaryDirectory("nimb-location");
    machine_->variables["XDG_CONFIG_HOME"] = config_;
    manager_ = LocationManager::create(source_);
    manager_->setDelegate(recorder_.delegate);
  }
  void TearDown() override {
    manager_.reset();
    std::filesystem::remove_all(config_);
  }
  // Sends `fixes` from a thread of its own, as a real source does.
  void sendFromAnotherThread(const std::vector<double>& metersNorth) {
    std::thread([&] {
      for (double m : metersNorth) source_->sendFix(northOfStart(m));
    }).join();
  }
  void writeSwitch(const std::string& body) {
    std::filesystem::create_directories(config_ + "/NimbFoundation");
    std::ofstream(config_ + "/NimbFoundation/Location.plist") << body;
  }
  void writeSwitch(bool enabled) {
    writeSwitch(std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>Enabled</key><)") +
                (enabled ? "true" : "false") + "/></dict></plist>");
  }

  test::FakeMachine machine_;
  std::string config_;
  std::shared_ptr<ScriptedSource> source_ = std::make_shared<ScriptedSource>();
  Recorder recorder_;
  std::shared_ptr<LocationManager> manager_;
};

TEST_F(LocationManagerTest, FiltersByDistanceFromTheLastDeliveredFixOnTheStartingLoop) {
  manager_->setDistanceFilter(50);
  manager_->setDesiredAccuracy(kLocationAccuracyHundredMeters);
  manager_->startUpdatingLocation();
  ASSERT_EQ(source_->starts, 1);
  EXPECT_EQ(source_->lastRequest.distanceFilter, 50);
  EXPECT_EQ(source_->lastRequest.desiredAccuracy, kLocationAccuracyHundredMeters);
  EXPECT_FALSE(source_->lastRequest.desktopId.empty());

  // 30 m from 0 stays back; 60 m is 60 from the last delivered; 100 is only
  // 40 from 60, though 70 from the undelivered 30.
  sendFromAnotherThread({0, 30, 60, 100, 110});
  EXPECT_TRUE(recorder_.fixes.empty()) << "nothing arrives before the loop turns";
  test::pumpFor(0.05);
  ASSERT_EQ(recorder_.fixes.size(), 3u);
  EXPECT_EQ(recorder_.fixes[0], northOfStart(0));
  EXPECT_EQ(recorder_.fixes[1], northOfStart(60));
  EXPECT_EQ(recorder_.fixes[2], northOfStart(110));
  EXPECT_TRUE(recorder_.allOnMainThread);

  sendFromAnotherThread({130});
  test::pumpFor(0.05);
  EXPECT_EQ(recorder_.fixes.size(), 3u);
  EXPECT_EQ(manager_->location(), northOfStart(130))
      << "location() is the latest, delivered or not";

  // No filter: every fix. A failure arrives on the same loop as it was sent.
  manager_->setDistanceFilter(kDistanceFilterNone);
  sendFromAnotherThread({131, 132});
  std::thread([&] { source_->sendFailure(kCLErrorNetwork); }).join();
  test::pumpFor(0.05);
  EXPECT_EQ(recorder_.fixes.size(), 5u);
  ASSERT_EQ(recorder_.failures.size(), 1u);
  EXPECT_EQ(recorder_.failures[0].code, kCLErrorNetwork);
  EXPECT_TRUE(recorder_.allOnMainThread);
  EXPECT_TRUE(manager_->isUpdating());
}

TEST_F(LocationManagerTest, StopDropsWhatIsQueuedAndARestartDeliversTheFirstFixAgain) {
  manager_->setDistanceFilter(50);
  manager_->startUpdatingLocation();
  sendFromAnotherThread({0});
  test::pumpFor(0.05);
  ASSERT_EQ(recorder_.fixes.size(), 1u);

  sendFromAnotherThread({200});  // queued on the main loop, not yet run
  manager_->stopUpdatingLocation();
  EXPECT_FALSE(manager_->isUpdating());
  EXPECT_EQ(source_->stops, 1);
  test::pumpFor(0.05);
  EXPECT_EQ(recorder_.fixes.size(), 1u);

  // After a restart the first fix is delivered even next to the last one.
  manager_->startUpdatingLocation();
  sendFromAnotherThread({1});
  test::pumpFor(0.05);
  ASSERT_EQ(recorder_.fixes.size(), 2u);
  EXPECT_EQ(recorder_.fixes[1], northOfStart(1));

  // A manager that goes away stops its source and is not called after.
  sendFromAnotherThread({400});
  manager_.reset();
  EXPECT_EQ(source_->stops, 2);
  test::pumpFor(0.05);
  EXPECT_EQ(recorder_.fixes.size(), 2u);
}

TEST_F(LocationManagerTest, TheUserSwitchAndTheSourceDecideWhetherServicesAreEnabled) {
  EXPECT_TRUE(manager_->servicesEnabled()) << "no switch file";
  writeSwitch("garbage");
  EXPECT_TRUE(manager_->servicesEnabled()) << "an unreadable switch leaves them on";
  writeSwitch(false);
  EXPECT_FALSE(manager_->servicesEnabled());
  EXPECT_FALSE(LocationManager::locationServicesEnabled());
  writeSwitch(true);
  EXPECT_TRUE(manager_->servicesEnabled());
  source_->available = false;
  EXPECT_FALSE(manager_->servicesEnabled());

  // An unknown source name is a failure, not a crash.
  machine_->variables["NIMB_LOCATION_SOURCE"] = "carrier-pigeon";
  EXPECT_EQ(LocationSource::systemDefault(), nullptr);
  EXPECT_FALSE(LocationManager::locationServicesEnabled());
  auto chosen = LocationManager::create();
  chosen->setDelegate(recorder_.delegate);
  chosen->startUpdatingLocation();
  test::pumpFor(0.05);
  ASSERT_EQ(recorder_.failures.size(), 1u);
  EXPECT_EQ(recorder_.failures[0].code, kCLErrorNetwork);
  EXPECT_NE(recorder_.failures[0].localizedDescription().find("carrier-pigeon"), std::string::npos);
  machine_->variables["NIMB_LOCATION_SOURCE"] = "gpsd";
  EXPECT_EQ(LocationSource::systemDefault()->name(), "gpsd");
}

TEST(LocationTest, GreatCircleDistanceAndTextForm) {
  const Location berlin({52.52, 13.405}, 34, 5, -1, 90, 10, Date::fromTimeIntervalSince1970(0));
  const Location paris({48.8566, 2.3522}, 35, 5, -1, 90, 10, Date::fromTimeIntervalSince1970(0));
  EXPECT_NEAR(berlin.distanceFromLocation(paris), 877'500, 1'000);
  EXPECT_NEAR(paris.distanceFromLocation(berlin), berlin.distanceFromLocation(paris), 1e-6);
  EXPECT_EQ(berlin.distanceFromLocation(berlin), 0);
  const Location north({90, 0}, 0, 1, 1, 0, 0, {}), south({-90, 0}, 0, 1, 1, 0, 0, {});
  EXPECT_NEAR(north.distanceFromLocation(south), 6371008.8 * 3.14159265358979323846, 1e-3);
  EXPECT_TRUE(std::isnan(Location({NAN, 0}, 0, 1, 1, 0, 0, {}).distanceFromLocation(berlin)));

  const std::string text = berlin.description();
  EXPECT_EQ(
      text.rfind("<+52.52000000,+13.40500000> +/- 5.00m (speed 10.00 mps / course 90.00) @ ", 0),
      0u)
      << text;
  EXPECT_GT(text.size(), 80u) << "the time follows";
}

// NimbLocationManager's rules, over the scripted source.
class NimbLocationManagerTest : public LocationManagerTest {
 protected:
  void SetUp() override {
    LocationManagerTest::SetUp();
    nimbManager_ = std::make_unique<NimbLocationManager>(source_);
  }
  NimbLocationManager::LocationBlock record(int& calls) {
    return [this, &calls](bool success, std::optional<Location> location) {
      ++calls;
      results_.emplace_back(success, location);
    };
  }
  std::unique_ptr<NimbLocationManager> nimbManager_;
  std::vector<std::pair<bool, std::optional<Location>>> results_;
};

TEST_F(NimbLocationManagerTest, SharedInstanceIsOneObjectAcrossThreads) {
  std::vector<NimbLocationManager*> seen(4);
  std::vector<std::thread> threads;
  machine_->variables["NIMB_LOCATION_SOURCE"] = "gpsd";  // no bus round trip
  for (auto& slot : seen)
    threads.emplace_back([&slot] { slot = &NimbLocationManager::sharedInstance(); });
  for (auto& t : threads) t.join();
  for (auto* p : seen) EXPECT_EQ(p, seen[0]);
  EXPECT_EQ(&NimbLocationManager::sharedInstance(), seen[0]);
}

TEST_F(NimbLocationManagerTest,
       SetsBestAccuracyAndFiftyMetersAndCallsBackOnEveryUpdateUntilStopped) {
  auto manager = nimbManager_->locationManager();
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->desiredAccuracy(), kLocationAccuracyBest);
  EXPECT_EQ(manager->distanceFilter(), 50.0);

  int calls = 0;
  nimbManager_->startLocateWithEvent(record(calls));
  EXPECT_TRUE(manager->isUpdating());
  sendFromAnotherThread({0, 20, 60, 120});  // 20 m is filtered out: three updates
  test::pumpFor(0.05);
  ASSERT_EQ(calls, 3);
  EXPECT_EQ(results_[0], std::make_pair(true, std::optional(northOfStart(0))));
  EXPECT_EQ(results_[1], std::make_pair(true, std::optional(northOfStart(60))));
  EXPECT_EQ(results_[2], std::make_pair(true, std::optional(northOfStart(120))));
  EXPECT_EQ(manager->location(), northOfStart(120));

  // The delegate message carries a list; the callback gets location().
  auto forward = std::make_shared<LocationManagerDelegate>();
  forward->locationManagerDidUpdateLocations = [&](LocationManager& m,
                                                   const std::vector<Location>&) {
    nimbManager_->locationManager(m, std::vector<Location>{northOfStart(999)});
  };
  manager->setDelegate(forward);
  sendFromAnotherThread({200});
  test::pumpFor(0.05);
  ASSERT_EQ(calls, 4);
  EXPECT_EQ(results_[3].second, northOfStart(200));

  nimbManager_->stopLocationUpdate();
  sendFromAnotherThread({500});
  test::pumpFor(0.05);
  EXPECT_EQ(calls, 4);
  EXPECT_TRUE(nimbManager_->locationBlock()) << "the callback is kept after a stop";
}

// With services disabled a start keeps the callback and never calls it. A
// failure calls back with nothing and updating goes on; a second start
// replaces the callback and the first hears nothing more.
TEST_F(NimbLocationManagerTest, FailuresCallBackWithNothingAndASecondStartReplacesTheCallback) {
  int disabled = 0, first = 0, second = 0;
  source_->available = false;
  nimbManager_->startLocateWithEvent(record(disabled));
  EXPECT_TRUE(nimbManager_->locationBlock());
  EXPECT_EQ(source_->starts, 0);
  sendFromAnotherThread({0});
  test::pumpFor(0.05);
  EXPECT_EQ(disabled, 0);

  source_->available = true;
  nimbManager_->startLocateWithEvent(record(first));
  std::thread([&] {
    source_->sendFailure(kCLErrorLocationUnknown);
    source_->sendFix(northOfStart(0));
  }).join();
  test::pumpFor(0.05);
  ASSERT_EQ(first, 2);
  EXPECT_EQ(results_[0], std::make_pair(false, std::optional<Location>()));
  EXPECT_TRUE(results_[1].first);
  EXPECT_TRUE(nimbManager_->locationManager()->isUpdating());

  nimbManager_->startLocateWithEvent(record(second));
  sendFromAnotherThread({100});
  test::pumpFor(0.05);
  EXPECT_EQ(disabled + first, 2);
  EXPECT_EQ(second, 1);
}

}  // namespace
}  // namespace nimb
