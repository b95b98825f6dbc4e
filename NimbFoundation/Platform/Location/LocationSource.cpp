#include <NimbFoundation/Platform/Env/Env.h>
#include <NimbFoundation/Platform/Location/GeoClueLocationSource.h>
#include <NimbFoundation/Platform/Location/GpsdLocationSource.h>
#include <NimbFoundation/Platform/Location/LocationSource.h>

namespace nimb {

LocationSource::~LocationSource() = default;

std::shared_ptr<LocationSource> LocationSource::gpsd(std::string host, unsigned port) {
  return std::make_shared<GpsdLocationSource>(std::move(host), port);
}

std::shared_ptr<LocationSource> LocationSource::geoClue() {
  return std::make_shared<GeoClueLocationSource>();
}

std::shared_ptr<LocationSource> LocationSource::named(std::string_view name) {
  if (name == "gpsd") return gpsd();
  if (name == "geoclue") return geoClue();
  return nullptr;
}

std::shared_ptr<LocationSource> LocationSource::systemDefault(bool* answers) {
  std::shared_ptr<LocationSource> chosen;
  bool answered = false;
  if (auto name = Env::current()->environmentVariable("NIMB_LOCATION_SOURCE")) {
    chosen = named(*name);
    answered = chosen && answers && chosen->isAvailable();
  } else if (auto geoclue = geoClue(); geoclue->isAvailable()) {
    chosen = std::move(geoclue);
    answered = true;
  } else {
    chosen = gpsd();
    answered = answers && chosen->isAvailable();
  }
  if (answers) *answers = answered;
  return chosen;
}

}  // namespace nimb
