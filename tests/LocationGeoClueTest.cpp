// The GeoClue 2 location source against a private bus (dbus-daemon, taken
// for the system bus through $DBUS_SYSTEM_BUS_ADDRESS) with a fake GeoClue
// (tests/fake_geoclue.py, run by python3-dbusmock) that records how its
// clients are configured, started and stopped, and announces the fixes it
// is given.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TestSupport.h"

#include <NimbFoundation/NimbLocationManager.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Location/LocationManager.h>
#include <NimbFoundation/Platform/Location/LocationSource.h>

namespace nimb {
namespace {

using test::pumpFor;
using test::pumpUntil;

constexpr const char* kPython = "/usr/bin/python3";

// Two fixes: the first without altitude, speed or heading, the second with.
constexpr const char* kTwoFixes =
    "[{\"latitude\": 52.52, \"longitude\": 13.405, \"accuracy\": 25.5, "
    "\"timestamp\": [1763800000, 250000]}, "
    "{\"latitude\": 48.8566, \"longitude\": 2.3522, \"accuracy\": 8, \"altitude\": 35, "
    "\"speed\": 3.5, \"heading\": 270, \"timestamp\": [1763800060, 0]}]";

// What a source reported, from the thread it reports on.
struct Events {
  std::mutex lock;
  std::vector<Location> fixes;
  std::vector<Error> failures;
  LocationSourceEvents sink() {
    return {[this](const Location& fix) {
              std::lock_guard guard(lock);
              fixes.push_back(fix);
            },
            [this](const Error& error) {
              std::lock_guard guard(lock);
              failures.push_back(error);
            }};
  }
  size_t fixCount() {
    std::lock_guard guard(lock);
    return fixes.size();
  }
  size_t failureCount() {
    std::lock_guard guard(lock);
    return failures.size();
  }
};

class GeoClueLocationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto reason = test::privateBusUnavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    dir_ = test::makeTemporaryDirectory("nimb-geoclue");
    machine_->realMonotonic = true;
    address_ = test::startPrivateBus(bus_);
    ASSERT_FALSE(address_.empty()) << "the bus did not start";
    machine_->variables["DBUS_SYSTEM_BUS_ADDRESS"] = address_;
  }

  void TearDown() override {
    for (auto* program : {&geoclue_, &bus_}) test::stopProgram(*program);
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

  // Starts the fake GeoClue with `options` (JSON members) and waits until
  // the source finds it available.
  void startGeoClue(const std::string& options) {
    const std::string parameters = "{\"record\": \"" + dir_ + "/calls\", " + options + "}";
    geoclue_ =
        test::startProgram({"env", "DBUS_SYSTEM_BUS_ADDRESS=" + address_, kPython, "-m", "dbusmock",
                            "--system", "--template", FAKE_GEOCLUE_PATH, "-p", parameters});
    auto source = LocationSource::geoClue();
    ASSERT_TRUE(pumpUntil([&] { return source->isAvailable(); }, 10))
        << "the fake GeoClue did not start";
  }

  std::vector<std::string> recordedCalls() {
    std::vector<std::string> lines;
    std::ifstream in(dir_ + "/calls");
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  test::FakeMachine machine_;
  std::string dir_;
  std::string address_;
  test::RunningProgram bus_;
  test::RunningProgram geoclue_;
};

std::string startRecord(const std::string& desktopId, int level, int threshold) {
  return "{\"call\": \"Start\", \"DesktopId\": \"" + desktopId +
         "\", \"RequestedAccuracyLevel\": " + std::to_string(level) +
         ", \"DistanceThreshold\": " + std::to_string(threshold) + "}";
}

TEST_F(GeoClueLocationTest, ClientIsConfiguredFromTheRequest) {
  startGeoClue("\"locations\": []");
  auto source = LocationSource::geoClue();
  EXPECT_EQ(source->name(), "geoclue");
  Events events;
  // Desired accuracy -> GeoClue level; the filter in whole meters, 0 when off.
  const struct {
    double accuracy, filter;
    int level, threshold;
  } cases[] = {{kLocationAccuracyBest, 50.9, 8, 50},
               {kLocationAccuracyBestForNavigation, kDistanceFilterNone, 8, 0},
               {kLocationAccuracyNearestTenMeters, 0, 8, 0},
               {kLocationAccuracyHundredMeters, 100, 6, 100},
               {kLocationAccuracyKilometer, 1, 5, 1},
               {kLocationAccuracyThreeKilometers, 2.5, 4, 2}};
  std::vector<std::string> expected;
  for (const auto& c : cases) {
    // Each restart stops the running client before the next starts.
    if (!expected.empty()) expected.push_back("{\"call\": \"Stop\"}");
    source->start({c.accuracy, c.filter, "org.example.Nimb"}, events.sink());
    expected.push_back(startRecord("org.example.Nimb", c.level, c.threshold));
    ASSERT_TRUE(pumpUntil([&] { return recordedCalls().size() == expected.size(); }))
        << "accuracy " << c.accuracy;
  }
  source->stop();
  expected.push_back("{\"call\": \"Stop\"}");
  ASSERT_TRUE(pumpUntil([&] { return recordedCalls().size() == expected.size(); }));
  EXPECT_EQ(recordedCalls(), expected);
  EXPECT_EQ(events.failureCount(), 0u);
}

TEST_F(GeoClueLocationTest, ManagerDeliversFixesOnTheMainThread) {
  startGeoClue(std::string("\"locations\": ") + kTwoFixes);
  auto manager = LocationManager::create(LocationSource::geoClue());
  auto delegate = std::make_shared<LocationManagerDelegate>();
  std::vector<Location> fixes;
  int offMainThread = 0, failures = 0;
  delegate->locationManagerDidUpdateLocations = [&](LocationManager&,
                                                    const std::vector<Location>& locations) {
    if (!RunLoop::isMainThread()) ++offMainThread;
    fixes.insert(fixes.end(), locations.begin(), locations.end());
  };
  delegate->locationManagerDidFailWithError = [&](LocationManager&, const Error&) { ++failures; };
  manager->setDelegate(delegate);
  manager->startUpdatingLocation();
  ASSERT_TRUE(pumpUntil([&] { return fixes.size() == 2; }));
  manager->stopUpdatingLocation();
  EXPECT_EQ(offMainThread, 0);
  EXPECT_EQ(failures, 0);
  // An unknown altitude is 0 with no vertical accuracy; unknown speed and
  // heading stay -1.
  EXPECT_EQ(fixes[0], Location({52.52, 13.405}, 0, 25.5, -1, -1, -1,
                               Date::fromTimeIntervalSince1970(1763800000.25)));
  EXPECT_EQ(fixes[1], Location({48.8566, 2.3522}, 35, 8, 8, 270, 3.5,
                               Date::fromTimeIntervalSince1970(1763800060)));
  EXPECT_EQ(manager->location(), fixes[1]);
  // The manager asked for its application's id and best accuracy.
  auto calls = recordedCalls();
  ASSERT_FALSE(calls.empty());
  EXPECT_NE(calls[0].find("\"RequestedAccuracyLevel\": 8, \"DistanceThreshold\": 0"),
            std::string::npos)
      << calls[0];
  EXPECT_EQ(calls[0].find("\"DesktopId\": \"\""), std::string::npos) << calls[0];
}

TEST_F(GeoClueLocationTest, StopStopsTheClientAndEndsDelivery) {
  // A long stream of fixes, 50 ms apart.
  std::string fixes = "[";
  for (int i = 0; i < 40; ++i) {
    fixes += std::string(i ? ", " : "") + "{\"latitude\": " + std::to_string(10 + i) +
             ", \"longitude\": 20, \"accuracy\": 5}";
  }
  startGeoClue("\"locations\": " + fixes + "]");
  auto source = LocationSource::geoClue();
  Events events;
  source->start({kLocationAccuracyBest, kDistanceFilterNone, "org.example.Nimb"}, events.sink());
  ASSERT_TRUE(pumpUntil([&] { return events.fixCount() >= 2; }));
  source->stop();
  const size_t atStop = events.fixCount();
  ASSERT_TRUE(pumpUntil([&] { return recordedCalls().size() == 2; }));
  EXPECT_EQ(recordedCalls()[1], "{\"call\": \"Stop\"}");
  pumpFor(0.3);
  EXPECT_EQ(events.fixCount(), atStop) << "nothing is delivered once stop() has returned";
  std::lock_guard guard(events.lock);
  for (size_t i = 0; i < events.fixes.size(); ++i) {
    EXPECT_EQ(events.fixes[i].coordinate().latitude, 10.0 + static_cast<double>(i)) << "in order";
  }
}

TEST_F(GeoClueLocationTest, RefusalFailsOnceWithDenied) {
  startGeoClue(std::string("\"deny\": true, \"locations\": ") + kTwoFixes);
  auto manager = LocationManager::create(LocationSource::geoClue());
  auto delegate = std::make_shared<LocationManagerDelegate>();
  std::vector<Error> errors;
  int updates = 0;
  delegate->locationManagerDidUpdateLocations = [&](LocationManager&,
                                                    const std::vector<Location>&) { ++updates; };
  delegate->locationManagerDidFailWithError = [&](LocationManager&, const Error& error) {
    errors.push_back(error);
  };
  manager->setDelegate(delegate);
  manager->startUpdatingLocation();
  ASSERT_TRUE(pumpUntil([&] { return !errors.empty(); }));
  pumpFor(0.3);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].domain, kLocationErrorDomain);
  EXPECT_EQ(errors[0].code, kCLErrorDenied);
  EXPECT_NE(errors[0].localizedDescription().find("Geolocation disabled for UID 1000"),
            std::string::npos)
      << errors[0].localizedDescription();
  EXPECT_EQ(updates, 0);
}

TEST_F(GeoClueLocationTest, MissingBusOrServiceIsANetworkFailure) {
  auto source = LocationSource::geoClue();
  EXPECT_FALSE(source->isAvailable()) << "a bus without GeoClue";
  Events events;
  source->start({}, events.sink());
  ASSERT_TRUE(pumpUntil([&] { return events.failureCount() == 1; }));
  source->stop();

  startGeoClue(std::string("\"locations\": ") + kTwoFixes);
  EXPECT_TRUE(source->isAvailable());
  // GeoClue leaving the bus while started.
  Events started;
  source->start({}, started.sink());
  ASSERT_TRUE(pumpUntil([&] { return started.fixCount() == 2; }));
  test::stopProgram(geoclue_);
  ASSERT_TRUE(pumpUntil([&] { return started.failureCount() == 1; }));
  source->stop();

  // No bus at all.
  machine_->variables["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + dir_ + "/no-bus";
  EXPECT_FALSE(source->isAvailable());
  Events unreachable;
  source->start({}, unreachable.sink());
  ASSERT_TRUE(pumpUntil([&] { return unreachable.failureCount() == 1; }));
  source->stop();

  // A bus that accepts the connection and never answers: both the check
  // and a run give up within the time limit.
  const std::string silent = dir_ + "/silent-bus";
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  std::snprintf(where.sun_path, sizeof where.sun_path, "%s", silent.c_str());
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  machine_->variables["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + silent;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(source->isAvailable());
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
  Events silentBus;
  source->start({}, silentBus.sink());
  EXPECT_TRUE(pumpUntil([&] { return silentBus.failureCount() == 1; }, 4));
  source->stop();
  ::close(listener);

  for (Events* each : {&events, &started, &unreachable, &silentBus}) {
    std::lock_guard guard(each->lock);
    ASSERT_EQ(each->failures.size(), 1u);
    EXPECT_EQ(each->failures[0].domain, kLocationErrorDomain);
    EXPECT_EQ(each->failures[0].code, kCLErrorNetwork) << each->failures[0].localizedDescription();
  }
  EXPECT_EQ(events.fixCount() + unreachable.fixCount() + silentBus.fixCount(), 0u);
}

TEST_F(GeoClueLocationTest, NimbLocationManagerCallsBackWithEachFix) {
  // A service that only knows CreateClient, the newer name.
  startGeoClue(std::string("\"no_get_client\": true, \"locations\": ") + kTwoFixes);
  NimbLocationManager wrapper(LocationSource::geoClue());
  std::vector<std::pair<bool, std::optional<Location>>> calls;
  wrapper.startLocateWithEvent([&](bool success, std::optional<Location> location) {
    calls.emplace_back(success, location);
  });
  ASSERT_TRUE(pumpUntil([&] { return calls.size() == 2; }));
  wrapper.stopLocationUpdate();
  pumpFor(0.1);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_TRUE(calls[0].first && calls[1].first);
  ASSERT_TRUE(calls[0].second && calls[1].second);
  EXPECT_EQ(calls[0].second->coordinate(), (LocationCoordinate2D{52.52, 13.405}));
  EXPECT_EQ(calls[1].second->coordinate(), (LocationCoordinate2D{48.8566, 2.3522}));
  auto recorded = recordedCalls();
  ASSERT_EQ(recorded.size(), 2u);
  EXPECT_NE(recorded[0].find("\"RequestedAccuracyLevel\": 8, \"DistanceThreshold\": 50"),
            std::string::npos)
      << recorded[0];
  EXPECT_EQ(recorded[1], "{\"call\": \"Stop\"}");
}

}  // namespace
}  // namespace nimb
