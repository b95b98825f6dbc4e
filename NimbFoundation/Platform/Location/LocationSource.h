// LocationSource: where LocationManager's fixes come from. One seam, two
// real services of a Linux machine behind it:
//   - "gpsd": the GPS daemon, through libgps, at $GPSD_HOST:$GPSD_PORT
//     (default localhost:2947). Each TPV report with a 2-D or 3-D fix is a
//     fix; its error estimates become the accuracies. Reports without a
//     fix fail once with kCLErrorLocationUnknown until a fix comes back. A
//     lost or refused connection fails once with kCLErrorNetwork, and the
//     source reconnects with back-off (0.25 s doubling up to 4 s) until it
//     is stopped.
//   - "geoclue": GeoClue 2 on the system D-Bus ($DBUS_SYSTEM_BUS_ADDRESS,
//     else the system bus's standard socket), through GDBus. The source
//     asks the manager for a client with DesktopId the application's id,
//     RequestedAccuracyLevel from the desired accuracy (EXACT for the two
//     best settings and anything under 100 m, STREET under 1 km,
//     NEIGHBORHOOD under 3 km, else CITY) and DistanceThreshold the
//     distance filter in whole meters; each LocationUpdated is a fix. A
//     refusal by the service fails with kCLErrorDenied, a bus or service
//     that cannot be reached or goes away with kCLErrorNetwork; either
//     ends the run until the next start.
// Environment variables are read through Env::current().
//
// Who calls it: LocationManager, which chooses a source with systemDefault()
// unless its creator gives one. Tests and hosts may write their own source.
//
// Thread rule: start(), stop() and isAvailable() may be called from any
// thread, one at a time for one source. Events arrive on a library thread,
// in order, from start() until stop() returns; never after.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Location/Location.h>

namespace NIMB_EXPORT nimb {

// What a LocationManager asks of its source when it starts it.
struct LocationRequest {
  // As LocationManager::desiredAccuracy (kLocationAccuracyBest and so on).
  double desiredAccuracy = kLocationAccuracyBest;
  // Meters; kDistanceFilterNone (or any value <= 0) for every fix. A source
  // may pass it on to its service; LocationManager filters again anyway.
  double distanceFilter = kDistanceFilterNone;
  // The application's id as the desktop knows it (GeoClue's DesktopId).
  std::string desktopId;
};

// What a started source reports. Either member may be empty.
struct LocationSourceEvents {
  std::function<void(const Location&)> fix;
  std::function<void(const Error&)> failure;
};

class LocationSource {
 public:
  virtual ~LocationSource();

  // "gpsd", "geoclue", or the name of a host's own source.
  virtual std::string name() const = 0;
  // Whether the service answers now: a round trip bounded to two seconds.
  virtual bool isAvailable() = 0;
  // Starts reporting to `events`; a started source is restarted with the
  // new request. Failures to reach the service are reported as events, not
  // returned.
  virtual void start(const LocationRequest& request, LocationSourceEvents events) = 0;
  // Stops reporting; no event is delivered once it has returned.
  virtual void stop() = 0;

  // The gpsd client; an empty host or a port of 0 means $GPSD_HOST and
  // $GPSD_PORT, else localhost and 2947.
  static std::shared_ptr<LocationSource> gpsd(std::string host = "", unsigned port = 0);
  // The GeoClue 2 client on the system bus.
  static std::shared_ptr<LocationSource> geoClue();
  // The source called `name` ("gpsd" or "geoclue"); null for any other.
  static std::shared_ptr<LocationSource> named(std::string_view name);
  // The source named by $NIMB_LOCATION_SOURCE when it is set (null when it
  // names none); otherwise GeoClue when its service answers, else gpsd.
  // With `answers`, also whether the chosen source answers, found with at
  // most one round trip to each service.
  static std::shared_ptr<LocationSource> systemDefault(bool* answers = nullptr);
};

}  // namespace nimb
