#include <NimbFoundation/NimbLocationManager.h>

namespace nimb {

NimbLocationManager& NimbLocationManager::sharedInstance() {
  // Made once (a function-local static is a once-only guard) and never
  // destroyed, so callbacks at exit find it.
  static NimbLocationManager* const instance = new NimbLocationManager();
  return *instance;
}

NimbLocationManager::NimbLocationManager() : NimbLocationManager(nullptr) {}

NimbLocationManager::NimbLocationManager(std::shared_ptr<LocationSource> source)
    : delegate_(std::make_shared<LocationManagerDelegate>()) {
  delegate_->locationManagerDidUpdateLocations = [this](LocationManager& manager,
                                                        const std::vector<Location>& locations) {
    locationManager(manager, locations);
  };
  delegate_->locationManagerDidFailWithError =
      [this](LocationManager& manager, const Error& error) { locationManager(manager, error); };
  auto manager = LocationManager::create(std::move(source));
  // The answer is not used: whether to start is asked again when a caller
  // starts the updates.
  (void)manager->servicesEnabled();
  manager->setDesiredAccuracy(kLocationAccuracyBest);
  manager->setDistanceFilter(50.0);
  setLocationManager(std::move(manager));
}

NimbLocationManager::~NimbLocationManager() {
  if (locationManager_) locationManager_->stopUpdatingLocation();
}

void NimbLocationManager::setLocationManager(std::shared_ptr<LocationManager> manager) {
  locationManager_ = std::move(manager);
  if (locationManager_) locationManager_->setDelegate(delegate_);
}

void NimbLocationManager::startLocateWithEvent(LocationBlock event) {
  locationBlock_ = std::move(event);
  if (!locationManager_ || !locationManager_->servicesEnabled()) return;
  locationManager_->startUpdatingLocation();
}

void NimbLocationManager::stopLocationUpdate() {
  if (locationManager_) locationManager_->stopUpdatingLocation();
}

void NimbLocationManager::locationManager(LocationManager& manager, const std::vector<Location>&) {
  // The manager's current location, not an element of the list delivered.
  // A copy runs, so the callback may replace itself.
  if (auto block = locationBlock_) block(true, manager.location());
}

void NimbLocationManager::locationManager(LocationManager&, const Error&) {
  if (auto block = locationBlock_) block(false, std::nullopt);
}

}  // namespace nimb
