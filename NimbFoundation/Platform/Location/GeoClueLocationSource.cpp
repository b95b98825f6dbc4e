#include <NimbFoundation/Platform/Location/GeoClueLocationSource.h>

namespace nimb {

struct GeoClueLocationSource::Impl {};

GeoClueLocationSource::~GeoClueLocationSource() = default;

GeoClueLocationSource::GeoClueLocationSource() : impl_(std::make_unique<Impl>()) {}

bool GeoClueLocationSource::isAvailable() {
  return false;
}

void GeoClueLocationSource::start(const LocationRequest&, LocationSourceEvents) {}

void GeoClueLocationSource::stop() {}

}  // namespace nimb
