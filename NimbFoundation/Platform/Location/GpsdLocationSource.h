// GpsdLocationSource: fixes from the GPS daemon (gpsd) through libgps. See
// LocationSource for what it reports; LocationSource::gpsd() makes one.
//
// A started source owns one library thread that connects, reads gpsd's
// JSON reports (WATCH enabled) and reconnects with back-off after a loss.
//
// Thread rule: as LocationSource.
#pragma once

#include <memory>
#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Location/LocationSource.h>

namespace NIMB_EXPORT nimb {

class GpsdLocationSource : public LocationSource {
 public:
  // An empty host or a port of 0: $GPSD_HOST and $GPSD_PORT, else
  // localhost and 2947 (read when the source starts).
  explicit GpsdLocationSource(std::string host = "", unsigned port = 0);
  ~GpsdLocationSource() override;

  std::string name() const override { return "gpsd"; }
  bool isAvailable() override;
  void start(const LocationRequest& request, LocationSourceEvents events) override;
  void stop() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace nimb
