// VQProtocolData: the device and application fields of the report the host
// SDK sends to its server, one class operation per field.
//
// Every field is computed afresh on each call; nothing is cached here. A
// field whose information is unavailable is the empty string, so that it
// can go straight into a report; the exceptions are deviceMacString()
// (nullopt, with a line on standard output saying why) and
// deviceModelString(). Facts come from the platform layer (Device, Bundle,
// Locale, TimeZone, NetworkInterfaces), which tests and hosts can set.
//
// On Linux: the carrier is always "" (there is no telephony service to
// ask); the hardware address is that of an interface literally named "en0",
// which Linux machines rarely have; and since the hardware model is uname's
// machine name, accessString() answers "WiFi" at once on x86_64: a
// simulator-class model is always taken to be on Wi-Fi.
//
// Called by host code and by VQUtils (the log's time stamp). Thread rule:
// any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class VQProtocolData {
 public:
  // Now in the default time zone: "yyyy-MM-dd", "HH:mm:ss", "HH:mm:ss.SSS".
  static std::string dateString();
  static std::string timeString();
  static std::string timeMSString();
  // Placeholders, always "".
  static std::string latString();
  static std::string lngString();
  static std::string cpuString();

  // The per-vendor identifier as 36 upper-case characters, or "".
  static std::string deviceIDVendorString();
  // "XX:XX:XX:XX:XX:XX" of interface "en0", or nullopt.
  static std::optional<std::string> deviceMacString();
  // VQSharedUDID::value(), or "" if that fails.
  static std::string sharedUDIDString();
  // A new random UUID on each call, and the MD5 of one.
  static std::string UUIDString();
  static std::string UUIDMD5String();

  // The hardware model ("x86_64").
  static std::string deviceModelString();
  // "<height> x <width>" in pixels where the screen says how, else points;
  // "0 x 0" without a screen.
  static std::string resolutionString();
  // "iOS": the operating-system family the report protocol names.
  static std::string osString();
  static std::string osVersionString();
  // "0" for portrait (either way up), "1" for anything else, unknown included.
  static std::string orientationString();
  static bool isDeviceJailBreak();
  // "YES" or "NO".
  static std::string deviceJailBreakString();
  // True only for the tablet idiom.
  static bool isPad();
  // "WiFi", "CellNetwork" or "".
  static std::string accessString();
  static std::string carrierString();

  // Main-bundle fields: CFBundleIdentifier, CFBundleDisplayName,
  // CFBundleVersion, CFBundleShortVersionString; "" when absent.
  static std::string appPackageNameString();
  static std::string appDisplayNameString();
  static std::string appBundleVersionString();
  static std::string appShortVersionString();

  // The current locale's country code, the first preferred language.
  static std::string countryString();
  static std::string languageString();
  // Whole hours east of GMT in the system time zone, truncated toward zero.
  static std::string timezoneString();

  // MD5 of the text up to its first NUL, 32 upper-case hex digits.
  static std::string md5Value(std::string_view text);
};

}  // namespace nimb
