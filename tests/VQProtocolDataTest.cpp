#include <NimbFoundation/Utils/VQProtocolData.h>

#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/Device.h>
#include <NimbFoundation/Platform/Env/NetworkInterfaces.h>
#include <NimbFoundation/Platform/Env/TimeZone.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include <gtest/gtest.h>

#include <regex>
#include <tuple>

#include "TestSupport.h"

using nimb::InterfaceAddress;
using nimb::NetworkInterfaces;
using nimb::VQProtocolData;

namespace {

constexpr int kIPv4 = 2, kIPv6 = 10, kLoopback = 8;

using List = std::vector<InterfaceAddress>;
using nimb::test::FakeMachine;

nimb::DeviceFacts plainDevice() {
  nimb::DeviceFacts device;
  device.model = "Linux";
  device.machine = "aarch64";
  device.userInterfaceIdiom = nimb::UserInterfaceIdiom::kUnspecified;
  return device;
}

}  // namespace

// 2026-03-04 05:06:07.089 UTC: still southern summer, so Chatham is at +13:45.
TEST(VQProtocolData, DateTimeAndZoneFollowTheClock) {
  FakeMachine machine;
  machine->setNow(nimb::Date::fromTimeIntervalSince1970(1772600767.089));
  nimb::TimeZone::setDefaultTimeZoneName("GMT");
  EXPECT_EQ(VQProtocolData::dateString() + " " + VQProtocolData::timeString() + " " +
                VQProtocolData::timeMSString(),
            "2026-03-04 05:06:07 05:06:07.089");
  nimb::TimeZone::setDefaultTimeZoneName("Pacific/Marquesas");  // -09:30, the day before
  EXPECT_EQ(VQProtocolData::dateString() + " " + VQProtocolData::timeMSString(),
            "2026-03-03 19:36:07.089");
  nimb::TimeZone::setDefaultTimeZoneName("");
  // The machine's zone in whole hours, truncated toward zero.
  const std::pair<const char*, const char*> zones[] = {
      {"Pacific/Marquesas", "-9"}, {"Asia/Kathmandu", "5"},  {"Asia/Kolkata", "5"}, {"GMT", "0"},
      {"Etc/GMT+3", "-3"},         {"Pacific/Chatham", "13"}};
  for (const auto& [zone, expected] : zones) {
    machine->timeZone = zone;
    EXPECT_EQ(VQProtocolData::timezoneString(), expected) << zone;
  }
}

TEST(VQProtocolData, AccessTypeFromTheInterfaceList) {
  FakeMachine machine;
  machine->device = plainDevice();
  // A loopback-flagged en0 does not count; a list that cannot be read counts
  // as empty.
  const std::pair<std::optional<List>, const char*> rows[] = {
      {List{{"lo", kIPv4, kLoopback}, {"en0", kIPv6, 0}}, ""},
      {List{{"lo", kIPv4, kLoopback}, {"en0", kIPv6, 0}, {"pdp_ip0", kIPv4, 0}}, "CellNetwork"},
      {List{{"pdp_ip0", kIPv4, 0}, {"en0", kIPv4, 0}}, "WiFi"},
      {List{{"en0", kIPv4, kLoopback}}, ""},
      {std::nullopt, ""}};
  for (const auto& [list, access] : rows) {
    machine->interfaces = list;
    machine->interfacesUnreadable = !list;
    EXPECT_EQ(VQProtocolData::accessString(), access) << (list ? list->size() : 0);
  }
  // Simulator-like machines answer WiFi without looking.
  for (const auto& [name, model] :
       {std::pair{"x86_64", ""}, {"i386", ""}, {"aarch64", "iPhone Simulator"}}) {
    machine->device->machine = name;
    if (*model) machine->device->model = model;
    EXPECT_EQ(VQProtocolData::accessString(), "WiFi") << name << model;
  }
}

TEST(VQProtocolData, ScreenOrientationAndIdiom) {
  FakeMachine machine;
  machine->device = plainDevice();
  nimb::DeviceFacts& device = *machine->device;
  const std::pair<std::optional<nimb::ScreenFacts>, const char*> screens[] = {
      {nimb::ScreenFacts{{320, 568}, 2.0, nimb::Size{640, 1136}}, "1136 x 640"},
      {nimb::ScreenFacts{{320.7, 568.9}, 2.0, std::nullopt}, "1137 x 641"},
      {nimb::ScreenFacts{{320.7, 568.9}, std::nullopt, std::nullopt}, "568 x 320"},
      {std::nullopt, "0 x 0"}};
  for (const auto& [screen, resolution] : screens) {
    device.mainScreen = screen;
    EXPECT_EQ(VQProtocolData::resolutionString(), resolution);
  }
  const char* expected[] = {"1", "0", "0", "1", "1", "1", "1"};
  for (int code = 0; code <= 6; ++code) {
    device.orientation = static_cast<nimb::DeviceOrientation>(code);
    EXPECT_EQ(VQProtocolData::orientationString(), expected[code]) << code;
  }
  device.userInterfaceIdiom = nimb::UserInterfaceIdiom::kPad;
  EXPECT_TRUE(VQProtocolData::isPad());
  device.userInterfaceIdiom = std::optional<nimb::UserInterfaceIdiom>();
  EXPECT_FALSE(VQProtocolData::isPad());
  device.integrityCompromised = true;
  EXPECT_EQ(VQProtocolData::deviceJailBreakString(), "YES");
}

TEST(VQProtocolData, HardwareAddressAndItsFourFailures) {
  FakeMachine machine;
  using Query = NetworkInterfaces::HardwareQuery;
  // No index for en0 first, then each way the query itself fails.
  const std::tuple<unsigned, Query, const char*> failures[] = {
      {0, Query::kOk, "Error: if_nametoindex error\n"},
      {3, Query::kQueryFailed, "Error: sysctl, take 1\n"},
      {3, Query::kNoMemory, "Could not allocate memory. error!\n"},
      {3, Query::kReadFailed, "Error: sysctl, take 2"}};
  for (const auto& [at, status, line] : failures) {
    machine->indexes = {{"en0", at}};
    machine->hardware = NetworkInterfaces::HardwareAddress{status, {}};
    testing::internal::CaptureStdout();
    EXPECT_EQ(VQProtocolData::deviceMacString(), std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
  }
  machine->indexes = {{"en0", 3}};
  machine->hardware =
      NetworkInterfaces::HardwareAddress{Query::kOk, {0x00, 0x1a, 0x2B, 0xc3, 0x04, 0xff}};
  EXPECT_EQ(VQProtocolData::deviceMacString(), "00:1A:2B:C3:04:FF");
}

// The digest itself is pinned by VQUtilsDigest and the vendor identifier
// by DeviceFacts; these are the fields around them.
TEST(VQProtocolData, IdentifiersBundleFieldsAndConstants) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  EXPECT_TRUE(std::regex_match(VQProtocolData::UUIDString(), uuid));
  const std::string md5a = VQProtocolData::UUIDMD5String();
  EXPECT_TRUE(std::regex_match(md5a, std::regex("[0-9A-F]{32}")));
  EXPECT_NE(md5a, VQProtocolData::UUIDMD5String());

  const std::string dir = nimb::test::makeTemporaryDirectory("bundle");
  nimb::Dictionary info{{"CFBundleIdentifier", "com.example.chat"},
                        {"CFBundleVersion", "4711"},
                        {"CFBundleShortVersionString", "2.3"}};
  ASSERT_TRUE(nimb::PropertyList::writeToFile(info, dir + "/Info.plist"));
  FakeMachine machine;
  machine->device = plainDevice();
  machine->device->machineId = "0123456789abcdef0123456789abcdef";
  machine->bundle = nimb::BundleSettings{dir + "/Info.plist", std::nullopt, std::nullopt};
  EXPECT_EQ(VQProtocolData::appPackageNameString(), "com.example.chat");
  EXPECT_EQ(VQProtocolData::appBundleVersionString(), "4711");
  EXPECT_EQ(VQProtocolData::appShortVersionString(), "2.3");
  EXPECT_EQ(VQProtocolData::appDisplayNameString(), "");
  EXPECT_EQ(VQProtocolData::deviceIDVendorString(),
            nimb::Device::identifierForVendor()->UUIDString());
  machine->device->machineId = std::nullopt;
  EXPECT_EQ(VQProtocolData::deviceIDVendorString(), "");
}
