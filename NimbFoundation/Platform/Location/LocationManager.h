// LocationManager: the platform's location service. It starts and stops a
// LocationSource, keeps the most recent fix, filters fixes by distance and
// tells its delegate about fixes and failures.
//
// Delivery: updates run on the run loop of the thread that called
// startUpdatingLocation() (the main thread in practice), never on a library
// thread; nothing is delivered until that loop turns. A fix is delivered
// when the distance filter is off or, by great-circle distance, it lies at
// least distanceFilter meters from the last delivered fix; the first fix
// after a start always is. location() is the most recent fix either way.
// Every failure the source reports is delivered; updates go on after it.
//
// Services are enabled when the user's switch allows them and the source
// answers. The switch is the file
// $XDG_CONFIG_HOME/NimbFoundation/Location.plist (~/.config when the
// variable is unset): a dictionary whose "Enabled" is false turns location
// services off for every application of the user; no file, an unreadable
// one, or any other value leaves them on.
//
// Who calls it: NimbLocationManager; any host may use it directly.
//
// Thread rule: one thread at a time per manager (the thread that starts
// updates is where they arrive). locationServicesEnabled() may be called
// from any thread. The delegate is not owned: one that went away is not
// called.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Location/Location.h>
#include <NimbFoundation/Platform/Location/LocationSource.h>

namespace NIMB_EXPORT nimb {

class LocationManager;

// The two delegate messages; an empty member does not answer.
struct LocationManagerDelegate {
  // "locationManager:didUpdateLocations:": the fixes delivered by this turn,
  // oldest first (one, as this manager delivers them).
  std::function<void(LocationManager& manager, const std::vector<Location>& locations)>
      locationManagerDidUpdateLocations;
  // "locationManager:didFailWithError:": an Error in kLocationErrorDomain.
  std::function<void(LocationManager& manager, const Error& error)> locationManagerDidFailWithError;
};

class LocationManager : public std::enable_shared_from_this<LocationManager> {
 public:
  // A manager whose source is chosen by the first servicesEnabled() or
  // startUpdatingLocation() (LocationSource::systemDefault()).
  static std::shared_ptr<LocationManager> create();
  // A manager on `source`; null means as create().
  static std::shared_ptr<LocationManager> create(std::shared_ptr<LocationSource> source);
  ~LocationManager();
  LocationManager(const LocationManager&) = delete;
  LocationManager& operator=(const LocationManager&) = delete;

  // Whether the user's switch is on and the source the kit would choose
  // (LocationSource::systemDefault()) answers.
  static bool locationServicesEnabled();
  // The same question about this manager's own source. A manager without
  // one chooses it here (LocationSource::systemDefault()) and keeps it.
  bool servicesEnabled();
  // Whether the user's switch (above) allows location services.
  static bool userSwitchAllowsLocation();

  std::weak_ptr<LocationManagerDelegate> delegate() const { return delegate_; }
  void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
    delegate_ = std::move(delegate);
  }
  // Meters, or kLocationAccuracyBest and the other markers. Default
  // kLocationAccuracyBest. Takes effect at the next start.
  double desiredAccuracy() const { return desiredAccuracy_; }
  void setDesiredAccuracy(double accuracy) { desiredAccuracy_ = accuracy; }
  // Meters; default kDistanceFilterNone. A value <= 0 or NaN lets every fix
  // through. Takes effect for the next fix.
  double distanceFilter() const { return distanceFilter_; }
  void setDistanceFilter(double meters) { distanceFilter_ = meters; }

  // Starts the source (restarts it when already updating, with the
  // current settings); the calling thread's run loop receives the updates.
  void startUpdatingLocation();
  // Stops the source; nothing more is delivered, not even what was already
  // on its way.
  void stopUpdatingLocation();
  bool isUpdating() const { return updating_ != nullptr; }

  // The most recent fix, delivered or not; nullopt before the first.
  std::optional<Location> location() const { return location_; }
  // The source in use: the one given or chosen (null before that).
  std::shared_ptr<LocationSource> source() const { return source_; }

 private:
  explicit LocationManager(std::shared_ptr<LocationSource> source);
  struct Session;
  void receiveFix(const Location& fix);
  void receiveFailure(const Error& error);

  std::shared_ptr<LocationSource> source_;
  std::weak_ptr<LocationManagerDelegate> delegate_;
  double desiredAccuracy_ = kLocationAccuracyBest;
  double distanceFilter_ = kDistanceFilterNone;
  std::optional<Location> location_;
  std::optional<Location> lastDelivered_;
  std::shared_ptr<Session> updating_;
};

}  // namespace nimb
