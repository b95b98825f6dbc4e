// nimbkit locate: the device's position as NimbLocationManager reports it,
// one line per callback, from gpsd or GeoClue.
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>
#include <string>

#include <NimbFoundation/NimbLocationManager.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Core/DateFormatter.h>
#include <NimbFoundation/Platform/Env/FileManager.h>

#include "Command.h"
#include "Output.h"

namespace nimbkit {

namespace {

using nimb::Location;
using nimb::LocationManager;
using nimb::LocationSource;
using nimb::NimbLocationManager;
using nimb::RunLoop;

struct LocateOptions {
  std::string source;  // "" lets the kit choose
  long count = 0;      // 0: no limit
  double seconds = 0;  // 0: no limit
};

int locate(const LocateOptions& options) {
  // The wrapper asks the services itself, when it is made and when it
  // starts; a start that did not happen says why.
  NimbLocationManager manager(options.source.empty() ? nullptr
                                                     : LocationSource::named(options.source));
  const nimb::DateFormatter stamp("yyyy-MM-dd'T'HH:mm:ss.SSS'Z'", "UTC");
  std::optional<Location> previous;
  long fixes = 0;
  manager.startLocateWithEvent([&](bool success, std::optional<Location> location) {
    if (!success || !location) {
      std::printf("%s  no position (the source reported a failure)\n",
                  stamp.stringFromDate(nimb::Date::now()).c_str());
    } else {
      const auto c = location->coordinate();
      std::string moved = "first fix";
      if (previous) {
        char text[48];
        std::snprintf(text, sizeof text, "moved %.1f m", location->distanceFromLocation(*previous));
        moved = text;
      }
      std::printf(
          "%s  lat %.8f  lon %.8f  accuracy %s  %s\n",
          stamp.stringFromDate(location->timestamp()).c_str(), c.latitude, c.longitude,
          location->horizontalAccuracy() < 0
              ? "unknown"
              : (std::to_string(std::lround(location->horizontalAccuracy())) + " m").c_str(),
          moved.c_str());
      previous = location;
      if (++fixes == options.count) RunLoop::main().stop();
    }
    std::fflush(stdout);
  });
  auto updates = manager.locationManager();
  if (!updates->isUpdating()) {
    if (!LocationManager::userSwitchAllowsLocation()) {
      diagnose("nimbkit locate: location services are turned off in %s\n",
               (nimb::FileManager::configDirectory() + "/NimbFoundation/Location.plist").c_str());
    } else {
      diagnose("nimbkit locate: no location source answers (%s)\n",
               options.source.empty() ? "tried geoclue and gpsd" : options.source.c_str());
    }
    return kNotFound;
  }
  std::fprintf(stderr, "nimbkit locate: following %s (50 m filter)\n",
               updates->source()->name().c_str());
  // The callback stops the loop once --count positions have come.
  options.seconds > 0 ? RunLoop::main().runFor(options.seconds) : RunLoop::main().run();
  manager.stopLocationUpdate();
  if (fixes == 0) {
    diagnose("nimbkit locate: no position within %g s\n", options.seconds);
    return kNotFound;
  }
  return kOk;
}

}  // namespace

void addLocateCommand(CLI::App& app, Action& selected) {
  auto options = std::make_shared<LocateOptions>();
  auto* sub = app.add_subcommand(
      "locate",
      "Print the device's position as it changes (50 m filter), from GeoClue or gpsd "
      "($GPSD_HOST, $GPSD_PORT; $NIMB_LOCATION_SOURCE chooses)");
  sub->add_option("--source", options->source, "gpsd or geoclue (default: GeoClue if it answers)")
      ->check(CLI::IsMember({"gpsd", "geoclue"}));
  sub->add_option("--count", options->count, "Stop after N positions")->check(CLI::PositiveNumber);
  sub->add_option("--for", options->seconds, "Stop after SECONDS")->check(CLI::PositiveNumber);
  onSelected(sub, selected, [options] { return locate(*options); });
}

}  // namespace nimbkit
