#include <NimbFoundation/Platform/Env/Device.h>

#include <cmath>

#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/Env.h>

namespace nimb {

namespace {

DeviceFacts facts() {
  return Env::current()->deviceFacts();
}

}  // namespace

std::string Device::model() {
  return facts().model;
}

std::string Device::systemName() {
  return "Linux";
}

std::string Device::systemVersion() {
  return facts().systemVersion;
}

std::string Device::machine() {
  return facts().machine;
}

std::optional<UUID> Device::identifierForVendor() {
  const auto machineId = facts().machineId;
  std::optional<UUID> machine = machineId ? UUID::fromString(*machineId) : std::nullopt;
  if (!machine) return std::nullopt;
  std::string vendor = Bundle::mainBundle()->bundleIdentifier();
  if (const auto dot = vendor.rfind('.'); dot != std::string::npos && dot > 0) vendor.resize(dot);
  return UUID::nameBased(*machine, vendor);
}

DeviceOrientation Device::orientation() {
  return facts().orientation;
}

std::optional<UserInterfaceIdiom> Device::userInterfaceIdiom() {
  return facts().userInterfaceIdiom;
}

std::optional<ScreenFacts> Device::mainScreen() {
  return facts().mainScreen;
}

double Device::mainScreenScale() {
  try {
    auto screen = mainScreen();
    if (screen && screen->scale && *screen->scale > 0 && std::isfinite(*screen->scale))
      return *screen->scale;
  } catch (...) {
    // Without screen facts, drawing and decoding go by scale 1.
  }
  return 1.0;
}

bool Device::isIntegrityCompromised() {
  return facts().integrityCompromised;
}

}  // namespace nimb
