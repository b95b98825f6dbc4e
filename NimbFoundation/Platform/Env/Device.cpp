#include <NimbFoundation/Platform/Env/Device.h>

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include <NimbFoundation/Platform/Env/Bundle.h>

namespace nimb {

namespace {

std::mutex gMutex;
Device::Overrides gOverrides;

Device::Overrides overrides() {
  std::lock_guard lock(gMutex);
  return gOverrides;
}

std::string firstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::string osReleaseVersion() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind("VERSION_ID=", 0) != 0) continue;
      std::string v = line.substr(11);
      if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) {
        v = v.substr(1, v.size() - 2);
      }
      if (!v.empty()) return v;
    }
  }
  utsname u{};
  return ::uname(&u) == 0 ? u.release : "";
}

std::optional<ScreenFacts> drmScreen() {
  std::error_code ec;
  std::filesystem::directory_iterator it("/sys/class/drm", ec);
  if (ec) return std::nullopt;
  for (const auto& entry : it) {
    const std::string dir = entry.path().string();
    if (firstLine(dir + "/status") != "connected") continue;
    // The first mode listed is the preferred one: "1920x1080".
    const std::string mode = firstLine(dir + "/modes");
    unsigned width = 0, height = 0;
    char x = 0;
    std::istringstream parse(mode);
    if (!(parse >> width >> x >> height) || x != 'x' || width == 0 || height == 0) continue;
    ScreenFacts facts;
    facts.bounds = {static_cast<double>(width), static_cast<double>(height)};
    facts.scale = 1.0;
    facts.modeSize = facts.bounds;
    return facts;
  }
  return std::nullopt;
}

bool traced() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("TracerPid:", 0) == 0) return std::atoi(line.c_str() + 10) != 0;
  }
  return false;
}

}  // namespace

std::string Device::model() {
  return overrides().model.value_or("Linux");
}

std::string Device::systemName() {
  return "Linux";
}

std::string Device::systemVersion() {
  auto o = overrides();
  return o.systemVersion ? *o.systemVersion : osReleaseVersion();
}

std::string Device::machine() {
  auto o = overrides();
  if (o.machine) return *o.machine;
  utsname u{};
  return ::uname(&u) == 0 ? u.machine : "";
}

std::optional<UUID> Device::identifierForVendor() {
  auto o = overrides();
  if (o.identifierForVendor) return *o.identifierForVendor;
  std::optional<UUID> machineId;
  for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
    machineId = UUID::fromString(firstLine(path));
    if (machineId) break;
  }
  if (!machineId) return std::nullopt;
  std::string vendor = Bundle::mainBundle()->bundleIdentifier();
  if (const auto dot = vendor.rfind('.'); dot != std::string::npos && dot > 0) vendor.resize(dot);
  return UUID::nameBased(*machineId, vendor);
}

DeviceOrientation Device::orientation() {
  return overrides().orientation.value_or(DeviceOrientation::kUnknown);
}

std::optional<UserInterfaceIdiom> Device::userInterfaceIdiom() {
  auto o = overrides();
  return o.userInterfaceIdiom ? *o.userInterfaceIdiom
                              : std::optional(UserInterfaceIdiom::kUnspecified);
}

std::optional<ScreenFacts> Device::mainScreen() {
  auto o = overrides();
  return o.mainScreen ? *o.mainScreen : drmScreen();
}

bool Device::isIntegrityCompromised() {
  auto o = overrides();
  if (o.integrityCompromised) return *o.integrityCompromised;
  const char* preload = std::getenv("LD_PRELOAD");
  return ::geteuid() == 0 || (preload && *preload) || traced();
}

void Device::setOverrides(Overrides overrides) {
  std::lock_guard lock(gMutex);
  gOverrides = std::move(overrides);
}

}  // namespace nimb
