// NimbLocationManager: the kit's process-wide wrapper around the location
// service. The host calls startLocateWithEvent() with a callback and
// receives the device's position through it; stopLocationUpdate() ends the
// updates. The wrapper fixes the settings (best accuracy, a 50 m distance
// filter) and turns the service's two delegate messages into calls of the
// one callback:
//   - an update calls it with (true, the manager's current location());
//   - a failure calls it with (false, nothing); the error is not passed on
//     and updates go on.
// The callback is called on every update until the host stops the updates
// and is never cleared; a second startLocateWithEvent() replaces it, and
// the earlier caller hears nothing more. With location services disabled,
// startLocateWithEvent() keeps the callback and never calls it, reporting
// no failure: the caller cannot tell this from a slow first fix.
//
// Who calls it: host code, through sharedInstance(); nimbkit locate.
//
// Thread rule: the thread that starts the updates receives the callbacks
// on its run loop (the main thread in practice); use one instance from one
// thread. sharedInstance() may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Location/LocationManager.h>

namespace NIMB_EXPORT nimb {

class NimbLocationManager {
 public:
  // The callback: a success flag and the location (nothing on failure).
  using LocationBlock = std::function<void(bool success, std::optional<Location> location)>;

  // The one shared instance, made on first use under a once-only guard and
  // never destroyed.
  static NimbLocationManager& sharedInstance();

  // init: asks whether location services are enabled (the answer is not
  // used), makes a LocationManager with this object as its delegate, best
  // accuracy and a 50 m distance filter. Asking chooses the manager's source
  // (LocationSource::systemDefault()), which it keeps.
  NimbLocationManager();
  // The same, with the manager reading from `source` (null: as above).
  explicit NimbLocationManager(std::shared_ptr<LocationSource> source);
  ~NimbLocationManager();
  NimbLocationManager(const NimbLocationManager&) = delete;
  NimbLocationManager& operator=(const NimbLocationManager&) = delete;

  // Stores `event` (replacing any earlier callback) and starts updates when
  // the manager's services are enabled.
  void startLocateWithEvent(LocationBlock event);
  // Stops updates; the callback stays stored.
  void stopLocationUpdate();

  // The delegate messages, as the manager sends them.
  void locationManager(LocationManager& manager, const std::vector<Location>& locations);
  void locationManager(LocationManager& manager, const Error& error);

  std::shared_ptr<LocationManager> locationManager() const { return locationManager_; }
  // Makes this object the delegate of `manager` too.
  void setLocationManager(std::shared_ptr<LocationManager> manager);
  const LocationBlock& locationBlock() const { return locationBlock_; }
  void setLocationBlock(LocationBlock block) { locationBlock_ = std::move(block); }

 private:
  std::shared_ptr<LocationManager> locationManager_;
  LocationBlock locationBlock_;
  // The delegate this object gives its manager; it forwards to the two
  // locationManager() overloads.
  std::shared_ptr<LocationManagerDelegate> delegate_;
};

}  // namespace nimb
