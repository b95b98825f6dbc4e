// GeoClueLocationSource: fixes from GeoClue 2 on the system D-Bus, through
// GDBus. See LocationSource for what it reports; LocationSource::geoClue()
// makes one.
//
// The bus is $DBUS_SYSTEM_BUS_ADDRESS, else the system bus's standard
// socket. Signals are received on the kit's GLib thread.
//
// Thread rule: as LocationSource.
#pragma once

#include <memory>
#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Location/LocationSource.h>

namespace NIMB_EXPORT nimb {

class GeoClueLocationSource : public LocationSource {
 public:
  GeoClueLocationSource();
  ~GeoClueLocationSource() override;

  std::string name() const override { return "geoclue"; }
  bool isAvailable() override;
  void start(const LocationRequest& request, LocationSourceEvents events) override;
  void stop() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace nimb
