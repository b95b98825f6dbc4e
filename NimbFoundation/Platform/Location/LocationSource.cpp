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

std::shared_ptr<LocationSource> LocationSource::systemDefault() {
  if (auto chosen = Env::current()->environmentVariable("NIMB_LOCATION_SOURCE")) {
    return named(*chosen);
  }
  auto geoclue = geoClue();
  if (geoclue->isAvailable()) return geoclue;
  return gpsd();
}

}  // namespace nimb
