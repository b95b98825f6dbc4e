#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Location/LocationManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include <atomic>
#include <cmath>

namespace nimb {

// One run of updates, from a start to its stop. The source's events carry
// it to the starting thread's run loop; a stopped session delivers nothing,
// whatever was already queued.
struct LocationManager::Session {
  std::weak_ptr<LocationManager> owner;
  std::shared_ptr<RunLoop> loop;
  std::atomic<bool> live{true};

  template <class Deliver>
  static void post(const std::shared_ptr<Session>& session, Deliver deliver) {
    session->loop->perform([session, deliver = std::move(deliver)] {
      if (!session->live.load(std::memory_order_acquire)) return;
      if (auto manager = session->owner.lock()) deliver(*manager);
    });
  }
};

namespace {

// The id the desktop knows this application by: the bundle identifier,
// else the program's name.
std::string desktopId() {
  if (auto bundle = Bundle::mainBundle(); bundle && !bundle->bundleIdentifier().empty()) {
    return bundle->bundleIdentifier();
  }
  return FileManager::processName();
}

}  // namespace

std::shared_ptr<LocationManager> LocationManager::create() {
  return create(nullptr);
}

std::shared_ptr<LocationManager> LocationManager::create(std::shared_ptr<LocationSource> source) {
  return std::shared_ptr<LocationManager>(new LocationManager(std::move(source)));
}

LocationManager::LocationManager(std::shared_ptr<LocationSource> source)
    : source_(std::move(source)) {}

LocationManager::~LocationManager() {
  stopUpdatingLocation();
}

bool LocationManager::userSwitchAllowsLocation() {
  auto settings = PropertyList::dictionaryWithContentsOfFile(FileManager::configDirectory() +
                                                             "/NimbFoundation/Location.plist");
  if (!settings) return true;
  auto enabled = settings.value().find("Enabled");
  if (enabled == settings.value().end()) return true;
  const bool* flag = enabled->second.asBool();
  return !flag || *flag;
}

bool LocationManager::locationServicesEnabled() {
  if (!userSwitchAllowsLocation()) return false;
  bool answers = false;
  LocationSource::systemDefault(&answers);
  return answers;
}

bool LocationManager::servicesEnabled() {
  if (!userSwitchAllowsLocation()) return false;
  if (source_) return source_->isAvailable();
  // The source is chosen here, once, and kept for the updates.
  bool answers = false;
  source_ = LocationSource::systemDefault(&answers);
  return answers;
}

void LocationManager::startUpdatingLocation() {
  stopUpdatingLocation();
  auto session = std::make_shared<Session>();
  session->owner = weak_from_this();
  session->loop = RunLoop::currentShared();
  updating_ = session;
  lastDelivered_.reset();
  if (!source_) source_ = LocationSource::systemDefault();
  if (!source_) {
    // $NIMB_LOCATION_SOURCE names no source this kit has.
    const std::string name =
        Env::current()->environmentVariable("NIMB_LOCATION_SOURCE").value_or("");
    Session::post(session, [error = locationError(kCLErrorNetwork,
                                                  "no location source is called \"" + name + "\"")](
                               LocationManager& m) { m.receiveFailure(error); });
    return;
  }
  LocationRequest request;
  request.desiredAccuracy = desiredAccuracy_;
  request.distanceFilter = distanceFilter_;
  request.desktopId = desktopId();
  LocationSourceEvents events;
  events.fix = [session](const Location& fix) {
    Session::post(session, [fix](LocationManager& m) { m.receiveFix(fix); });
  };
  events.failure = [session](const Error& error) {
    Session::post(session, [error](LocationManager& m) { m.receiveFailure(error); });
  };
  source_->start(request, std::move(events));
}

void LocationManager::stopUpdatingLocation() {
  if (!updating_) return;
  updating_->live.store(false, std::memory_order_release);
  updating_.reset();
  if (source_) source_->stop();
}

void LocationManager::receiveFix(const Location& fix) {
  location_ = fix;
  const double filter = distanceFilter_;
  if (filter > 0 && lastDelivered_ && fix.distanceFromLocation(*lastDelivered_) < filter) return;
  lastDelivered_ = fix;
  if (auto delegate = delegate_.lock(); delegate && delegate->locationManagerDidUpdateLocations) {
    delegate->locationManagerDidUpdateLocations(*this, {fix});
  }
}

void LocationManager::receiveFailure(const Error& error) {
  if (auto delegate = delegate_.lock(); delegate && delegate->locationManagerDidFailWithError) {
    delegate->locationManagerDidFailWithError(*this, error);
  }
}

}  // namespace nimb
