// The platform's device facts: UUIDs, locale and bundle defaults.
#include <NimbFoundation/Platform/Core/UUID.h>
#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/Device.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Env/Locale.h>

#include <gtest/gtest.h>

#include <set>

#include "TestSupport.h"

using nimb::Locale;
using nimb::UUID;

TEST(DeviceFacts, UUIDsParseAndNameBasedOnesMatchTheStandard) {
  // The DNS namespace of RFC 4122 and a well-known version-5 answer.
  auto dns = UUID::fromString("6ba7b810-9dad-11d1-80b4-00c04fd430c8");
  ASSERT_TRUE(dns);
  EXPECT_EQ(UUID::nameBased(*dns, "python.org").UUIDString(),
            "886313E1-3B8A-5372-9B90-0C9AEE199E5D");
  EXPECT_EQ(UUID::fromString("886313e13b8a53729b900c9aee199e5d"),
            UUID::fromString("886313E1-3B8A-5372-9B90-0C9AEE199E5D"));
  for (const char* bad :
       {"", "886313e1-3b8a-5372-9b90-0c9aee199e5", "886313e1+3b8a-5372-9b90-0c9aee199e5d",
        "g86313e13b8a53729b900c9aee199e5d"}) {
    EXPECT_FALSE(UUID::fromString(bad)) << bad;
  }
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) seen.insert(UUID::create().UUIDString());
  EXPECT_EQ(seen.size(), 100u);
}

TEST(DeviceFacts, LocaleComesFromTheEnvironmentUnlessSet) {
  nimb::test::FakeMachine machine;
  machine->variables = {{"LANG", "fr_CA.UTF-8"},
                        {"LC_ALL", std::nullopt},
                        {"LC_MESSAGES", std::nullopt},
                        {"LANGUAGE", "de_CH:en"}};
  EXPECT_EQ(Locale::currentCountryCode(), "CA");
  EXPECT_EQ(Locale::preferredLanguages(), (std::vector<std::string>{"de-CH", "en", "fr-CA"}));
  // LC_ALL wins over LANG.
  machine->variables["LC_ALL"] = "it_CH.UTF-8@euro";
  EXPECT_EQ(Locale::currentCountryCode(), "CH");
  machine->variables["LC_ALL"] = std::nullopt;
  // The C locale names neither a country nor a language, and LANGUAGE alone
  // does not count.
  machine->variables["LANG"] = "C.UTF-8";
  EXPECT_EQ(Locale::currentCountryCode(), "");
  EXPECT_TRUE(Locale::preferredLanguages().empty());
  machine->locale = "pt_BR";
  machine->languages = std::vector<std::string>{"pt-BR"};
  EXPECT_EQ(Locale::currentCountryCode(), "BR");
  EXPECT_EQ(Locale::preferredLanguages().front(), "pt-BR");
}

// Without an Info file the bundle is named after the process; the vendor
// identifier is name-based on the machine, for the bundle's vendor.
TEST(DeviceFacts, BundleDefaultsAndTheVendorIdentifier) {
  nimb::test::FakeMachine machine;
  machine->bundle = nimb::BundleSettings{"/nonexistent/Info.plist", std::nullopt, std::nullopt};
  const std::string process = nimb::FileManager::processName();
  auto bundle = nimb::Bundle::mainBundle();
  EXPECT_EQ(bundle->bundleIdentifier(), process);
  EXPECT_EQ(*bundle->objectForInfoDictionaryKey("CFBundleIdentifier")->asString(), process);
  EXPECT_EQ(bundle->objectForInfoDictionaryKey("CFBundleVersion"), nullptr);
  machine->bundle->bundleIdentifier = "com.example.chat";
  EXPECT_EQ(nimb::Bundle::mainBundle()->bundleIdentifier(), "com.example.chat");
  EXPECT_EQ(bundle->bundleIdentifier(), process);  // snapshots never change

  machine->device = nimb::DeviceFacts{};
  machine->device->machineId = "0123456789abcdef0123456789abcdef";
  const auto chat = nimb::Device::identifierForVendor();
  ASSERT_TRUE(chat);
  EXPECT_EQ(*chat, UUID::nameBased(*UUID::fromString(*machine->device->machineId), "com.example"));
  machine->device->machineId = "fedcba9876543210fedcba9876543210";
  EXPECT_NE(nimb::Device::identifierForVendor(), chat);
  machine->device->machineId = std::nullopt;
  EXPECT_EQ(nimb::Device::identifierForVendor(), std::nullopt);
}
