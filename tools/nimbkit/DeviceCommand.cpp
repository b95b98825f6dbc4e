// nimbkit device: every field of the device and application report.
// nimbkit udid: the shared device identifier, acting as any application.
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <NimbFoundation/Platform/Env/Env.h>
#include <NimbFoundation/Platform/Storage/UserDefaults.h>
#include <NimbFoundation/Utils/VQProtocolData.h>
#include <NimbFoundation/Utils/VQSharedUDID.h>

#include "Command.h"

namespace nimbkit {

namespace {

using nimb::VQProtocolData;

// A field's text, or nullopt for "no value" (only the hardware address).
using Field = std::pair<const char*, std::function<std::optional<std::string>()>>;

std::string yesNo(bool b) {
  return b ? "YES" : "NO";
}

// The hardware address reports its failures on standard output; here they
// go to standard error so that the report itself stays parseable.
std::optional<std::string> macAddressQuietly() {
  std::fflush(stdout);
  const int saved = ::dup(STDOUT_FILENO);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  auto mac = VQProtocolData::deviceMacString();
  std::fflush(stdout);
  if (saved >= 0) {
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
  }
  return mac;
}

const std::vector<Field>& fields() {
  static const std::vector<Field> all = {
      {"dateString", VQProtocolData::dateString},
      {"timeString", VQProtocolData::timeString},
      {"timeMSString", VQProtocolData::timeMSString},
      {"latString", VQProtocolData::latString},
      {"lngString", VQProtocolData::lngString},
      {"deviceIDVendorString", VQProtocolData::deviceIDVendorString},
      {"deviceMacString", macAddressQuietly},
      {"sharedUDIDString", VQProtocolData::sharedUDIDString},
      {"UUIDString", VQProtocolData::UUIDString},
      {"UUIDMD5String", VQProtocolData::UUIDMD5String},
      {"deviceModelString", VQProtocolData::deviceModelString},
      {"resolutionString", VQProtocolData::resolutionString},
      {"osString", VQProtocolData::osString},
      {"osVersionString", VQProtocolData::osVersionString},
      {"cpuString", VQProtocolData::cpuString},
      {"orientationString", VQProtocolData::orientationString},
      {"deviceJailBreakString", VQProtocolData::deviceJailBreakString},
      {"isPad", [] { return yesNo(VQProtocolData::isPad()); }},
      {"accessString", VQProtocolData::accessString},
      {"carrierString", VQProtocolData::carrierString},
      {"appPackageNameString", VQProtocolData::appPackageNameString},
      {"appDisplayNameString", VQProtocolData::appDisplayNameString},
      {"appBundleVersionString", VQProtocolData::appBundleVersionString},
      {"appShortVersionString", VQProtocolData::appShortVersionString},
      {"countryString", VQProtocolData::countryString},
      {"languageString", VQProtocolData::languageString},
      {"timezoneString", VQProtocolData::timezoneString},
  };
  return all;
}

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        if (c < 0x20) {
          char esc[8];
          std::snprintf(esc, sizeof esc, "\\u%04x", c);
          out += esc;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

int printDevice(bool json) {
  std::vector<std::pair<const char*, std::optional<std::string>>> values;
  for (const auto& [name, read] : fields()) values.emplace_back(name, read());
  if (json) {
    std::printf("{");
    for (std::size_t i = 0; i < values.size(); ++i) {
      const auto& [name, value] = values[i];
      std::printf("%s\n  \"%s\": %s", i ? "," : "", name,
                  value ? jsonString(*value).c_str() : "null");
    }
    std::printf("\n}\n");
  } else {
    for (const auto& [name, value] : values) {
      std::printf("%s: %s\n", name, value ? value->c_str() : "(null)");
    }
  }
  return kOk;
}

// The machine as it is, except that the main bundle is the application
// named by --app-id.
class AppIdEnv final : public nimb::EnvWrapper {
 public:
  explicit AppIdEnv(std::string appId) : appId_(std::move(appId)) {}
  nimb::BundleSettings bundleSettings() override {
    nimb::BundleSettings settings = target().bundleSettings();
    settings.bundleIdentifier = appId_;
    return settings;
  }

 private:
  std::string appId_;
};

struct UdidOptions {
  std::string appId;
  bool optOut = false;
  bool optIn = false;
  bool verbose = false;
};

int printUdid(const UdidOptions& o) {
  if (!o.appId.empty()) {
    nimb::Env::setCurrent(std::make_shared<AppIdEnv>(o.appId));
    nimb::UserDefaults::resetStandardUserDefaults();
  }
  if (o.optOut || o.optIn) nimb::VQSharedUDID::setOptOut(o.optOut);
  nimb::Error error;
  const std::string identifier = nimb::VQSharedUDID::valueWithError(&error);
  std::printf("%s\n", identifier.c_str());
  if (o.verbose) {
    std::printf("code: %ld\n", error.code);
    const nimb::Value* description = nullptr;
    if (auto found = error.userInfo.find("description"); found != error.userInfo.end()) {
      description = &found->second;
    }
    std::printf("description: %s\n",
                description && description->asString() ? description->asString()->c_str() : "");
    std::string slot;
    if (auto record = nimb::UserDefaults::standardUserDefaults().objectForKey("SharedUDID")) {
      if (const nimb::Value* s = record->find("SharedUDID_slot"); s && s->asString()) {
        slot = *s->asString();
      }
    }
    std::printf("slot: %s\n", slot.empty() ? "(none)" : slot.c_str());
  }
  return kOk;
}

}  // namespace

void addDeviceCommands(CLI::App& app, Action& selected) {
  auto* device = app.add_subcommand("device", "Print every field of the device report");
  auto json = std::make_shared<bool>(false);
  device->add_flag("--json", *json, "One JSON object instead of name: value lines");
  onSelected(device, selected, [json] { return printDevice(*json); });

  auto* udid = app.add_subcommand("udid", "Print the device identifier shared by all applications");
  auto o = std::make_shared<UdidOptions>();
  udid->add_option("--app-id", o->appId, "Act as this application (its own user defaults)");
  auto* out = udid->add_flag("--opt-out", o->optOut, "Opt this application out first");
  auto* in = udid->add_flag("--opt-in", o->optIn, "Opt this application back in first");
  out->excludes(in);
  udid->add_flag("--verbose", o->verbose, "Also print the record's code, description and slot");
  onSelected(udid, selected, [o] { return printUdid(*o); });
}

}  // namespace nimbkit
