// The platform's device facts: UUIDs, locale and bundle defaults.
#include <NimbFoundation/Platform/Core/UUID.h>
#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Env/Locale.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

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
  setenv("LANG", "fr_CA.UTF-8", 1);
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  setenv("LANGUAGE", "de_CH:en", 1);
  EXPECT_EQ(Locale::currentCountryCode(), "CA");
  EXPECT_EQ(Locale::preferredLanguages(), (std::vector<std::string>{"de-CH", "en", "fr-CA"}));
  // The C locale names neither a country nor a language, and LANGUAGE alone
  // does not count.
  setenv("LANG", "C.UTF-8", 1);
  EXPECT_EQ(Locale::currentCountryCode(), "");
  EXPECT_TRUE(Locale::preferredLanguages().empty());
  Locale::setCurrentLocaleIdentifier("pt_BR");
  Locale::setPreferredLanguages(std::vector<std::string>{"pt-BR"});
  EXPECT_EQ(Locale::currentCountryCode(), "BR");
  EXPECT_EQ(Locale::preferredLanguages().front(), "pt-BR");
}

TEST(DeviceFacts, BundleWithoutInfoFileIsNamedAfterTheProcess) {
  nimb::Bundle::setInfoDictionaryPath("/nonexistent/Info.plist");
  const std::string process = nimb::FileManager::processName();
  auto bundle = nimb::Bundle::mainBundle();
  EXPECT_EQ(bundle->bundleIdentifier(), process);
  EXPECT_EQ(*bundle->objectForInfoDictionaryKey("CFBundleIdentifier")->asString(), process);
  EXPECT_EQ(bundle->objectForInfoDictionaryKey("CFBundleVersion"), nullptr);
  nimb::Bundle::setBundleIdentifier("com.example.acting");
  EXPECT_EQ(nimb::Bundle::mainBundle()->bundleIdentifier(), "com.example.acting");
  EXPECT_EQ(bundle->bundleIdentifier(), process);  // snapshots never change
  nimb::Bundle::setBundleIdentifier("");           // the tests that follow run as themselves
  nimb::Bundle::setInfoDictionaryPath("");
}
