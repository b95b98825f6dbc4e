// The gpsd location source against a real gpsd, played by gpsfake from a
// walk that scripts/nmea-walk.py writes, driven through LocationManager and
// NimbLocationManager (through nimbkit locate) on the main run loop.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Location/LocationManager.h>

namespace nimb {
namespace {

using test::pumpFor;
using test::pumpUntil;

constexpr const char* kPython = "/usr/bin/python3";
// Seconds between two sentences gpsfake writes; a fix is four sentences.
constexpr double kSentenceCycle = 0.025;
// gpsd's error model for a fix without its own estimates: 2-sigma from a
// user range error of 9.5 m horizontally and 23 m vertically times the
// walk's dilutions of precision (HDOP 0.9, VDOP 1.3).
constexpr double kHorizontalAccuracy = 2 * 9.5 * 0.9;
constexpr double kVerticalAccuracy = 23 * 1.3;

using Clock = std::chrono::steady_clock;

int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

// One fix of the log: its position as gpsd reports it (degrees, rounded as
// gpsd's JSON carries them, to 1e-9).
struct LogFix {
  LocationCoordinate2D coordinate;
};

double degreesOf(const std::string& field, const std::string& hemisphere, int degreeDigits) {
  const double degrees = std::stod(field.substr(0, degreeDigits));
  const double minutes = std::stod(field.substr(degreeDigits));
  const double value = std::round((degrees + minutes / 60) * 1e9) / 1e9;
  return hemisphere == "S" || hemisphere == "W" ? -value : value;
}

// Equal within the log's precision (1e-9 degrees).
bool same(LocationCoordinate2D a, LocationCoordinate2D b) {
  return std::abs(a.latitude - b.latitude) < 1e-8 && std::abs(a.longitude - b.longitude) < 1e-8;
}

std::vector<std::string> fieldsOf(const std::string& sentence) {
  std::vector<std::string> fields;
  std::stringstream in(sentence.substr(0, sentence.find('*')));
  for (std::string field; std::getline(in, field, ',');) fields.push_back(field);
  return fields;
}

struct Delegate {
  std::vector<Location> fixes;
  std::vector<Error> errors;
  bool offMainThread = false;
  std::shared_ptr<LocationManagerDelegate> make() {
    auto delegate = std::make_shared<LocationManagerDelegate>();
    delegate->locationManagerDidUpdateLocations = [this](LocationManager&,
                                                         const std::vector<Location>& locations) {
      offMainThread |= !RunLoop::isMainThread();
      fixes.insert(fixes.end(), locations.begin(), locations.end());
    };
    delegate->locationManagerDidFailWithError = [this](LocationManager&, const Error& error) {
      offMainThread |= !RunLoop::isMainThread();
      errors.push_back(error);
    };
    return delegate;
  }
  long count(long code) const {
    return std::count_if(errors.begin(), errors.end(), [&](const Error& e) {
      return e.domain == kLocationErrorDomain && e.code == code;
    });
  }
};

class GpsdLocationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists("/usr/bin/gpsfake") ||
        !std::filesystem::exists("/usr/sbin/gpsd")) {
      GTEST_SKIP() << "gpsfake (gpsd-clients) or gpsd is not installed";
    }
    if (test::runProgram({kPython, "-c", "import gps.fake"}).exitCode != 0) {
      GTEST_SKIP() << "python3-gps is not installed for " << kPython;
    }
    dir_ = test::makeTemporaryDirectory("nimb-gpsd");
    machine_->realMonotonic = true;
    port_ = freePort();
  }

  void TearDown() override {
    stopGpsfake();
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

  // Writes the walk's log; `arguments` as nmea-walk.py takes them.
  std::string writeWalk(const std::string& name, const std::vector<std::string>& arguments) {
    std::vector<std::string> command{kPython, NIMB_EXAMPLES_DIR "/../scripts/nmea-walk.py"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    auto walk = test::runProgram(command);
    EXPECT_EQ(walk.exitCode, 0) << walk.err;
    const std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << walk.out;
    return path;
  }

  // The fixes of a log, in order, without those reported with no fix.
  std::vector<LogFix> fixesOf(const std::string& log) {
    std::vector<LogFix> fixes;
    std::ifstream in(log);
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("$GPGGA,", 0) != 0) continue;
      auto f = fieldsOf(line);
      if (f.size() < 7 || f[6] == "0") continue;
      fixes.push_back({{degreesOf(f[2], f[3], 2), degreesOf(f[4], f[5], 3)}});
    }
    return fixes;
  }

  // Plays `log` in a loop on the test's port (gpsfake runs gpsd from
  // /usr/sbin) and waits until gpsd answers.
  void startGpsfake(const std::string& log) {
    const std::string script = "exec env PATH=/usr/sbin:/usr/bin:/bin gpsfake -c " +
                               std::to_string(kSentenceCycle) + " -P " + std::to_string(port_) +
                               " '" + log + "' >/dev/null 2>&1";
    gpsfake_ = test::startProgram({"bash", "-c", script});
    ASSERT_GT(gpsfake_.pid, 0);
    auto probe = LocationSource::gpsd("127.0.0.1", port_);
    ASSERT_TRUE(pumpUntil([&] { return probe->isAvailable(); }, 10)) << "gpsd did not start";
  }

  // Ends gpsfake with SIGINT, on which it takes its gpsd down too.
  void stopGpsfake() {
    if (gpsfake_.pid <= 0) return;
    ::kill(gpsfake_.pid, SIGINT);
    gpsfake_.finish();
  }

  test::FakeMachine machine_;
  test::ScopedHome home_;
  std::string dir_;
  int port_ = 0;
  test::RunningProgram gpsfake_;
};

// The walk: 40 fixes at 10 m/s due east with no fix for fixes 15..19, one
// fix per 0.1 s, through a 50 m distance filter.
TEST_F(GpsdLocationTest, WalkThroughFilterGapAndErrorEstimates) {
  const std::string log =
      writeWalk("walk.nmea", {"--speed", "10", "--count", "40", "--gap", "15:20", "--lead", "120"});
  const auto logFixes = fixesOf(log);
  ASSERT_EQ(logFixes.size(), 35u);
  // What the filter lets through: the first fix, then each one at least
  // 50 m from the last let through.
  auto at = [](LocationCoordinate2D c) { return Location(c, 0, 1, 1, -1, -1, Date()); };
  std::vector<LogFix> expected;
  for (const auto& fix : logFixes) {
    if (expected.empty() ||
        at(fix.coordinate).distanceFromLocation(at(expected.back().coordinate)) >= 50) {
      expected.push_back(fix);
    }
  }
  startGpsfake(log);
  auto manager = LocationManager::create(LocationSource::gpsd("127.0.0.1", port_));
  manager->setDistanceFilter(50);
  Delegate record;
  auto delegate = record.make();
  manager->setDelegate(delegate);
  manager->startUpdatingLocation();
  // location() is every fix, delivered or not: the walk has been played
  // once it holds the last.
  pumpUntil(
      [&] {
        auto last = manager->location();
        return last && same(last->coordinate(), logFixes.back().coordinate);
      },
      20);
  manager->stopUpdatingLocation();

  ASSERT_EQ(record.fixes.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const Location& got = record.fixes[i];
    EXPECT_NEAR(got.coordinate().latitude, expected[i].coordinate.latitude, 1e-6) << i;
    EXPECT_NEAR(got.coordinate().longitude, expected[i].coordinate.longitude, 1e-6) << i;
    EXPECT_NEAR(got.horizontalAccuracy(), kHorizontalAccuracy, 1e-3) << i;
    EXPECT_NEAR(got.verticalAccuracy(), kVerticalAccuracy, 1e-3) << i;
    EXPECT_NEAR(got.altitude(), 34.5, 1e-3) << i;
  }
  EXPECT_EQ(record.count(kCLErrorLocationUnknown), 1);
  EXPECT_EQ(record.errors.size(), 1u) << "no other failure while gpsd runs";
  EXPECT_FALSE(record.offMainThread);
  ASSERT_TRUE(manager->location());
  EXPECT_TRUE(same(manager->location()->coordinate(), logFixes.back().coordinate));
}

// nimbkit locate follows the walk through NimbLocationManager: one line per
// callback, each at least 50 m on from the one before; with gpsd gone it
// says that no source answers and exits 1. gpsd going away fails once with
// kCLErrorNetwork naming host:port; a gpsd back on the same port brings
// fixes back. Once stop() has returned, the source delivers nothing more.
TEST_F(GpsdLocationTest, LostGpsdFailsOnceThenFixesResumeAndNimbkitLocateFollows) {
  // Played in a loop: a tool that starts late (a loaded machine, a
  // sanitizer) still hears the walk, from wherever it has got to.
  const std::string log = writeWalk("loop.nmea", {"--count", "20", "--lead", "20"});
  startGpsfake(log);
  const std::vector<std::string> locate{
      "env", "GPSD_PORT=" + std::to_string(port_), NIMBKIT_PATH, "locate", "--source", "gpsd"};
  auto command = locate;
  // Three fixes come within seconds; the long bound only keeps a machine
  // busy with other work (gpsfake paces itself by the clock) from failing it.
  command.insert(command.end(), {"--count", "3", "--for", "60"});
  const auto run = test::runProgram(command);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  std::vector<std::string> lines;
  std::istringstream out(run.out);
  for (std::string line; std::getline(out, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 3u) << run.out;
  // The tool may connect a few fixes into the walk: every line is a fix of
  // the walk, due east of its start.
  for (size_t i = 0; i < lines.size(); ++i) {
    const auto lat = lines[i].find("lat "), lon = lines[i].find("lon ");
    const auto moved = lines[i].find(i ? "moved " : "first fix");
    ASSERT_TRUE(lat != std::string::npos && lon != std::string::npos && moved != std::string::npos)
        << lines[i];
    EXPECT_NEAR(std::stod(lines[i].substr(lat + 4)), 52.52, 1e-4) << lines[i];
    EXPECT_GE(std::stod(lines[i].substr(lon + 4)), 13.405) << lines[i];
    EXPECT_LT(std::stod(lines[i].substr(lon + 4)), 13.41) << lines[i];
    if (i) {
      EXPECT_GE(std::stod(lines[i].substr(moved + 6)), 50.0) << lines[i];
    }
  }

  auto source = LocationSource::gpsd("127.0.0.1", port_);
  auto manager = LocationManager::create(source);
  Delegate record;
  auto delegate = record.make();
  manager->setDelegate(delegate);
  manager->startUpdatingLocation();
  ASSERT_TRUE(pumpUntil([&] { return !record.fixes.empty(); }, 10));

  stopGpsfake();
  ASSERT_TRUE(pumpUntil([&] { return record.count(kCLErrorNetwork) > 0; }, 5));
  const size_t fixesBefore = record.fixes.size();
  // Reconnects keep failing through the outage (0.25 + 0.5 + 1 s of them).
  pumpUntil([] { return false; }, 2);
  EXPECT_EQ(record.count(kCLErrorNetwork), 1);
  const std::string text = record.errors.back().localizedDescription();
  EXPECT_NE(text.find("127.0.0.1:" + std::to_string(port_)), std::string::npos) << text;
  const auto gone = test::runProgram(locate);
  EXPECT_EQ(gone.exitCode, 1);
  EXPECT_NE(gone.err.find("no location source answers"), std::string::npos) << gone.err;

  startGpsfake(log);
  EXPECT_TRUE(pumpUntil([&] { return record.fixes.size() > fixesBefore; }, 12))
      << "no fix after gpsd came back";
  manager->stopUpdatingLocation();

  // The source on its own: events from its thread, none after stop().
  std::atomic<int> events{0};
  LocationSourceEvents counting;
  counting.fix = [&](const Location&) { events.fetch_add(1); };
  counting.failure = [&](const Error&) { events.fetch_add(1); };
  source->start(LocationRequest{}, counting);
  ASSERT_TRUE(pumpUntil([&] { return events.load() > 0; }, 10));
  const auto before = Clock::now();
  source->stop();
  const double stopSeconds = std::chrono::duration<double>(Clock::now() - before).count();
  EXPECT_LT(stopSeconds, 0.5);
  const int atStop = events.load();
  pumpUntil([] { return false; }, 0.5);
  EXPECT_EQ(events.load(), atStop) << "an event after stop() returned";
}

}  // namespace
}  // namespace nimb
