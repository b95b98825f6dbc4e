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
  size_t fixCount() { return std::lock_guard(lock), fixes.size(); }
  size_t failureCount() { return std::lock_guard(lock), failures.size(); }
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

// Each start configures a new client from the request (and stops the one
// running); stop() stops the client, and nothing is delivered after it.
TEST_F(GeoClueLocationTest, ClientIsConfiguredFromTheRequestAndStopEndsDelivery) {
  // A long stream of fixes, 50 ms apart.
  std::string fixes = "[";
  for (int i = 0; i < 40; ++i) {
    fixes += std::string(i ? ", " : "") + "{\"latitude\": " + std::to_string(10 + i) +
             ", \"longitude\": 20, \"accuracy\": 5}";
  }
  startGeoClue("\"locations\": " + fixes + "]");
  auto source = LocationSource::geoClue();
  EXPECT_EQ(source->name(), "geoclue");
  Events events, streamed;
  // Desired accuracy -> GeoClue level; the filter in whole meters, 0 when off.
  const struct {
    double accuracy, filter;
    int level, threshold;
  } cases[] = {{kLocationAccuracyBest, 50.9, 8, 50},
               {kLocationAccuracyBestForNavigation, kDistanceFilterNone, 8, 0},
               {kLocationAccuracyNearestTenMeters, 0, 8, 0},
               {kLocationAccuracyHundredMeters, 100, 6, 100},
               {kLocationAccuracyKilometer, 1, 5, 1},
               {kLocationAccuracyThreeKilometers, 2.5, 4, 2},
               {kLocationAccuracyBest, kDistanceFilterNone, 8, 0}};
  std::vector<std::string> expected;
  for (const auto& c : cases) {
    if (!expected.empty()) expected.push_back("{\"call\": \"Stop\"}");
    source->start({c.accuracy, c.filter, "org.example.Nimb"},
                  &c == std::end(cases) - 1 ? streamed.sink() : events.sink());
    expected.push_back(startRecord("org.example.Nimb", c.level, c.threshold));
    ASSERT_TRUE(pumpUntil([&] { return recordedCalls().size() == expected.size(); }))
        << "accuracy " << c.accuracy;
  }
  ASSERT_TRUE(pumpUntil([&] { return streamed.fixCount() >= 2; }));
  source->stop();
  const size_t atStop = streamed.fixCount();
  expected.push_back("{\"call\": \"Stop\"}");
  ASSERT_TRUE(pumpUntil([&] { return recordedCalls().size() == expected.size(); }));
  EXPECT_EQ(recordedCalls(), expected);
  pumpFor(0.3);
  EXPECT_EQ(streamed.fixCount(), atStop) << "nothing is delivered once stop() has returned";
  EXPECT_EQ(events.failureCount() + streamed.failureCount(), 0u);
  std::lock_guard guard(streamed.lock);
  for (size_t i = 0; i < streamed.fixes.size(); ++i) {
    EXPECT_EQ(streamed.fixes[i].coordinate().latitude, 10.0 + static_cast<double>(i)) << "in order";
  }
}

// LocationManager delivers each fix on the main thread; NimbLocationManager
// calls back with each. The service only knows CreateClient, the newer name.
TEST_F(GeoClueLocationTest, ManagerAndNimbLocationManagerDeliverFixesOnTheMainThread) {
  startGeoClue(std::string("\"no_get_client\": true, \"locations\": ") + kTwoFixes);
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
  ASSERT_TRUE(pumpUntil([&] { return recordedCalls().size() == 2; }));

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

  // The manager asked for its application's id and best accuracy; the
  // wrapper for 50 m on top.
  ASSERT_TRUE(pumpUntil([&] { return recordedCalls().size() == 4; }));
  auto recorded = recordedCalls();
  EXPECT_NE(recorded[0].find("\"RequestedAccuracyLevel\": 8, \"DistanceThreshold\": 0"),
            std::string::npos)
      << recorded[0];
  EXPECT_EQ(recorded[0].find("\"DesktopId\": \"\""), std::string::npos) << recorded[0];
  EXPECT_NE(recorded[2].find("\"RequestedAccuracyLevel\": 8, \"DistanceThreshold\": 50"),
            std::string::npos)
      << recorded[2];
  EXPECT_EQ(recorded[1], "{\"call\": \"Stop\"}");
  EXPECT_EQ(recorded[3], "{\"call\": \"Stop\"}");
}

// A missing bus or service, a service that leaves, and a bus that never
// answers each fail once with kCLErrorNetwork; a service that refuses fails
// once with kCLErrorDenied and delivers nothing.
TEST_F(GeoClueLocationTest, MissingBusOrServiceIsANetworkFailureAndRefusalIsDenied) {
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

  startGeoClue(std::string("\"deny\": true, \"locations\": ") + kTwoFixes);
  Events refused;
  source->start({}, refused.sink());
  ASSERT_TRUE(pumpUntil([&] { return refused.failureCount() == 1; }));
  pumpFor(0.3);
  source->stop();
  test::stopProgram(geoclue_);

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

  for (Events* each : {&events, &started, &refused, &unreachable, &silentBus}) {
    std::lock_guard guard(each->lock);
    ASSERT_EQ(each->failures.size(), 1u);
    EXPECT_EQ(each->failures[0].domain, kLocationErrorDomain);
    EXPECT_EQ(each->failures[0].code, each == &refused ? kCLErrorDenied : kCLErrorNetwork)
        << each->failures[0].localizedDescription();
  }
  const std::string denial = refused.failures[0].localizedDescription();
  EXPECT_NE(denial.find("Geolocation disabled for UID 1000"), std::string::npos) << denial;
  EXPECT_EQ(events.fixCount() + refused.fixCount() + unreachable.fixCount() + silentBus.fixCount(),
            0u);
}

}  // namespace
}  // namespace nimb
