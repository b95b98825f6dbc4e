#include <NimbFoundation/Utils/VQProtocolData.h>

#include <NimbFoundation/Internal/LogRoute.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <NimbFoundation/Platform/Core/DateFormatter.h>
#include <NimbFoundation/Platform/Core/Digest.h>
#include <NimbFoundation/Platform/Core/UUID.h>
#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/Device.h>
#include <NimbFoundation/Platform/Env/Locale.h>
#include <NimbFoundation/Platform/Env/NetworkInterfaces.h>
#include <NimbFoundation/Platform/Env/TimeZone.h>
#include <NimbFoundation/Utils/VQSharedUDID.h>

namespace nimb {

namespace {

std::string nowFormatted(std::string_view pattern) {
  // The log stamps every line with the time: keep one formatter per thread
  // (ICU formatters are not shared) and pattern, rebuilt only when the
  // default zone changes.
  struct Cached {
    std::string zone;
    std::unique_ptr<DateFormatter> formatter;
  };
  thread_local std::map<std::string, Cached, std::less<>> formatters;
  const std::string zone = TimeZone::defaultTimeZoneName();
  auto found = formatters.find(pattern);
  if (found == formatters.end()) found = formatters.emplace(std::string(pattern), Cached{}).first;
  Cached& cached = found->second;
  if (!cached.formatter || cached.zone != zone) {
    cached.formatter = std::make_unique<DateFormatter>(pattern, zone);
    cached.zone = zone;
  }
  return cached.formatter->stringFromDate(Date::now());
}

std::string bundleString(std::string_view key) {
  const Value* v = Bundle::mainBundle()->objectForInfoDictionaryKey(key);
  if (!v) return "";
  if (const std::string* s = v->asString()) return *s;
  if (const std::int64_t* i = v->asInteger()) return std::to_string(*i);
  return "";
}

// The default output of the hardware-address failures: the bare line on
// standard output, with or without its newline.
void writeReport(std::string_view, std::string_view line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

void writeReportLine(std::string_view subsystem, std::string_view line) {
  writeReport(subsystem, std::string(line) + "\n");
}

// One of those failures; `line` is written as is (most end in a newline).
void report(std::string_view line) {
  std::string_view message = line;
  if (!message.empty() && message.back() == '\n') message.remove_suffix(1);
  // The sink gets the message; the default output keeps the line's own ending.
  detail::routeLog(LogLevel::kWarning, "VQProtocolData", message,
                   message.size() == line.size() ? writeReport : writeReportLine);
}

// The shared identifier could not be read: "Exception occurred: <reason>",
// by default followed by ", (null)" on standard error.
void reportException(const char* reason) {
  detail::routeLog(LogLevel::kError, "VQProtocolData", std::string("Exception occurred: ") + reason,
                   [](std::string_view, std::string_view message) {
                     detail::writeWhole(std::string(message) + ", (null)\n");
                   });
}

}  // namespace

std::string VQProtocolData::dateString() {
  return nowFormatted("yyyy-MM-dd");
}

std::string VQProtocolData::timeString() {
  return nowFormatted("HH:mm:ss");
}

std::string VQProtocolData::timeMSString() {
  return nowFormatted("HH:mm:ss.SSS");
}

std::string VQProtocolData::latString() {
  return "";
}

std::string VQProtocolData::lngString() {
  return "";
}

std::string VQProtocolData::cpuString() {
  return "";
}

std::string VQProtocolData::deviceIDVendorString() {
  auto id = Device::identifierForVendor();
  return id ? id->UUIDString() : "";
}

std::optional<std::string> VQProtocolData::deviceMacString() {
  const unsigned index = NetworkInterfaces::indexOf("en0");
  if (index == 0) {
    report("Error: if_nametoindex error\n");
    return std::nullopt;
  }
  const auto answer = NetworkInterfaces::hardwareAddress(index);
  switch (answer.status) {
    case NetworkInterfaces::HardwareQuery::kQueryFailed:
      report("Error: sysctl, take 1\n");
      return std::nullopt;
    case NetworkInterfaces::HardwareQuery::kNoMemory:
      report("Could not allocate memory. error!\n");
      return std::nullopt;
    case NetworkInterfaces::HardwareQuery::kReadFailed:
      report("Error: sysctl, take 2");
      return std::nullopt;
    case NetworkInterfaces::HardwareQuery::kOk:
      break;
  }
  const auto& b = answer.bytes;
  char out[18];
  std::snprintf(out, sizeof out, "%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4],
                b[5]);
  return std::string(out);
}

std::string VQProtocolData::sharedUDIDString() {
  try {
    return VQSharedUDID::value();
  } catch (const std::exception& e) {
    reportException(e.what());
  } catch (...) {
    reportException("unknown exception");
  }
  return "";
}

std::string VQProtocolData::UUIDString() {
  return UUID::create().UUIDString();
}

std::string VQProtocolData::UUIDMD5String() {
  return md5Value(UUIDString());
}

std::string VQProtocolData::deviceModelString() {
  return Device::machine();
}

std::string VQProtocolData::resolutionString() {
  int height = 0, width = 0;
  if (auto screen = Device::mainScreen()) {
    if (screen->modeSize) {
      height = static_cast<int>(screen->modeSize->height);
      width = static_cast<int>(screen->modeSize->width);
    } else if (screen->scale) {
      height = static_cast<int>(screen->bounds.height * *screen->scale);
      width = static_cast<int>(screen->bounds.width * *screen->scale);
    } else {
      height = static_cast<int>(screen->bounds.height);
      width = static_cast<int>(screen->bounds.width);
    }
  }
  char out[32];
  std::snprintf(out, sizeof out, "%d x %d", height, width);
  return out;
}

std::string VQProtocolData::osString() {
  return "iOS";
}

std::string VQProtocolData::osVersionString() {
  return Device::systemVersion();
}

std::string VQProtocolData::orientationString() {
  // Codes 1 and 2 are the two portraits; unknown (0) falls on the "1" side.
  const auto code = static_cast<unsigned>(static_cast<int>(Device::orientation()));
  return code - 1u < 2u ? "0" : "1";
}

bool VQProtocolData::isDeviceJailBreak() {
  return Device::isIntegrityCompromised();
}

std::string VQProtocolData::deviceJailBreakString() {
  return isDeviceJailBreak() ? "YES" : "NO";
}

bool VQProtocolData::isPad() {
  auto idiom = Device::userInterfaceIdiom();
  return idiom && *idiom == UserInterfaceIdiom::kPad;
}

std::string VQProtocolData::accessString() {
  const std::string machine = deviceModelString();
  if (Device::model() == "iPhone Simulator" || machine == "x86_64" || machine == "i386") {
    return "WiFi";
  }
  std::vector<std::string> names;
  if (auto interfaces = NetworkInterfaces::list()) {
    for (const auto& a : *interfaces) {
      if (a.family == AF_INET && (a.flags & 8u) == 0) names.push_back(a.name);
    }
  }
  if (std::find(names.begin(), names.end(), "en0") != names.end()) return "WiFi";
  return names.empty() ? "" : "CellNetwork";
}

std::string VQProtocolData::carrierString() {
  return "";
}

std::string VQProtocolData::appPackageNameString() {
  return bundleString("CFBundleIdentifier");
}

std::string VQProtocolData::appDisplayNameString() {
  return bundleString("CFBundleDisplayName");
}

std::string VQProtocolData::appBundleVersionString() {
  return bundleString("CFBundleVersion");
}

std::string VQProtocolData::appShortVersionString() {
  return bundleString("CFBundleShortVersionString");
}

std::string VQProtocolData::countryString() {
  return Locale::currentCountryCode();
}

std::string VQProtocolData::languageString() {
  auto languages = Locale::preferredLanguages();
  return languages.empty() ? "" : languages.front();
}

std::string VQProtocolData::timezoneString() {
  const long seconds = TimeZone::secondsFromGMT(TimeZone::systemTimeZoneName(), Date::now());
  return std::to_string(seconds / 3600);
}

std::string VQProtocolData::md5Value(std::string_view text) {
  return Digest::md5HexOfText(text, true);
}

}  // namespace nimb
