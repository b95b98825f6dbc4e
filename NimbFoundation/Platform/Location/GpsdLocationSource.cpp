#include <NimbFoundation/Platform/Location/GpsdLocationSource.h>

namespace nimb {

struct GpsdLocationSource::Impl {};

GpsdLocationSource::~GpsdLocationSource() = default;

GpsdLocationSource::GpsdLocationSource(std::string, unsigned) : impl_(std::make_unique<Impl>()) {}

bool GpsdLocationSource::isAvailable() {
  return false;
}

void GpsdLocationSource::start(const LocationRequest&, LocationSourceEvents) {}

void GpsdLocationSource::stop() {}

}  // namespace nimb
