// Bundle resources: the main bundle's resource folder and the bundles found
// in it, flat or in the desktop layout.
#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "TestSupport.h"

using nimb::Bundle;

namespace {
class BundleResources : public ::testing::Test {
 protected:
  std::string dir = nimb::test::makeTemporaryDirectory("nimb-bundle");
  nimb::test::FakeMachine machine;
  void TearDown() override { std::filesystem::remove_all(dir); }
};
}  // namespace

TEST_F(BundleResources, MainBundleResourcesDefaultToTheBundleFolder) {
  auto before = Bundle::mainBundle();
  EXPECT_EQ(before->resourcePath(), before->bundlePath());
  machine->bundle = nimb::BundleSettings{std::nullopt, std::nullopt, dir};
  EXPECT_EQ(Bundle::mainBundle()->resourcePath(), dir);
  EXPECT_EQ(Bundle::mainBundle()->bundlePath(), before->bundlePath());
  machine->bundle = std::nullopt;
  EXPECT_EQ(Bundle::mainBundle()->resourcePath(), before->bundlePath());
}

TEST_F(BundleResources, BundlesInTheResourcesAreFlatOrDesktopLayout) {
  const std::string flatPath = dir + "/Assets.bundle", macPath = dir + "/Mac.bundle";
  std::filesystem::create_directories(flatPath);
  std::filesystem::create_directories(macPath + "/Contents/Resources");
  ASSERT_TRUE(
      nimb::PropertyList::writeToFile({{"CFBundleIdentifier", "com.example.mac"}, {"Extra", "yes"}},
                                      macPath + "/Contents/Info.plist"));

  auto flat = Bundle::bundleWithPath(flatPath + "/");
  ASSERT_NE(flat, nullptr);
  EXPECT_EQ(flat->bundlePath(), flatPath);
  EXPECT_EQ(flat->resourcePath(), flatPath);
  EXPECT_EQ(flat->bundleIdentifier(), "Assets");
  EXPECT_TRUE(flat->infoDictionary().empty());

  auto mac = Bundle::bundleWithPath(macPath);
  ASSERT_NE(mac, nullptr);
  EXPECT_EQ(mac->resourcePath(), macPath + "/Contents/Resources");
  EXPECT_EQ(mac->bundleIdentifier(), "com.example.mac");
  ASSERT_NE(mac->objectForInfoDictionaryKey("Extra"), nullptr);
  EXPECT_EQ(*mac->objectForInfoDictionaryKey("Extra")->asString(), "yes");

  // A flat Info.plist names the bundle too.
  ASSERT_TRUE(nimb::PropertyList::writeToFile({{"CFBundleIdentifier", "com.example.a"}},
                                              flatPath + "/Info.plist"));
  EXPECT_EQ(Bundle::bundleWithPath(flatPath)->bundleIdentifier(), "com.example.a");
  for (const std::string& none :
       {dir + "/Missing.bundle", flatPath + "/Info.plist", std::string()}) {
    EXPECT_EQ(Bundle::bundleWithPath(none), nullptr) << none;
  }
}
