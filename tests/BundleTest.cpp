// Bundle resources: the main bundle's resource folder and the bundles found
// in it, flat or in the desktop layout.
#include <NimbFoundation/Platform/Bundle.h>
#include <NimbFoundation/Platform/PropertyList.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "TestSupport.h"

using nimb::Bundle;

namespace {
class BundleResources : public ::testing::Test {
 protected:
  std::string dir = nimb::test::makeTemporaryDirectory("nimb-bundle");
  void TearDown() override {
    Bundle::setResourcePath("");
    std::filesystem::remove_all(dir);
  }
};
}  // namespace

TEST_F(BundleResources, MainBundleResourcesDefaultToTheBundleFolder) {
  auto before = Bundle::mainBundle();
  EXPECT_EQ(before->resourcePath(), before->bundlePath());
  Bundle::setResourcePath(dir);
  EXPECT_EQ(Bundle::mainBundle()->resourcePath(), dir);
  EXPECT_EQ(Bundle::mainBundle()->bundlePath(), before->bundlePath());
  EXPECT_EQ(before->resourcePath(), before->bundlePath());  // snapshots never change
  Bundle::setResourcePath("");
  EXPECT_EQ(Bundle::mainBundle()->resourcePath(), before->bundlePath());
}

TEST_F(BundleResources, BundlesInTheResourcesAreFlatOrDesktopLayout) {
  Bundle::setResourcePath(dir);
  const std::string resources = Bundle::mainBundle()->resourcePath();
  std::filesystem::create_directories(resources + "/Assets.bundle");
  std::filesystem::create_directories(resources + "/Mac.bundle/Contents/Resources");
  ASSERT_TRUE(nimb::PropertyList::writeDictionaryToFile(
      {{"CFBundleIdentifier", "com.example.mac"}, {"Extra", "yes"}},
      resources + "/Mac.bundle/Contents/Info.plist"));

  auto flat = Bundle::bundleWithPath(resources + "/Assets.bundle/");
  ASSERT_NE(flat, nullptr);
  EXPECT_EQ(flat->bundlePath(), resources + "/Assets.bundle");
  EXPECT_EQ(flat->resourcePath(), resources + "/Assets.bundle");
  EXPECT_EQ(flat->bundleIdentifier(), "Assets");
  EXPECT_TRUE(flat->infoDictionary().empty());

  auto mac = Bundle::bundleWithPath(resources + "/Mac.bundle");
  ASSERT_NE(mac, nullptr);
  EXPECT_EQ(mac->resourcePath(), resources + "/Mac.bundle/Contents/Resources");
  EXPECT_EQ(mac->bundleIdentifier(), "com.example.mac");
  ASSERT_NE(mac->objectForInfoDictionaryKey("Extra"), nullptr);
  EXPECT_EQ(*mac->objectForInfoDictionaryKey("Extra")->asString(), "yes");

  // A flat Info.plist names the bundle too.
  ASSERT_TRUE(nimb::PropertyList::writeDictionaryToFile({{"CFBundleIdentifier", "com.example.a"}},
                                                        resources + "/Assets.bundle/Info.plist"));
  EXPECT_EQ(Bundle::bundleWithPath(resources + "/Assets.bundle")->bundleIdentifier(),
            "com.example.a");

  EXPECT_EQ(Bundle::bundleWithPath(resources + "/Missing.bundle"), nullptr);
  EXPECT_EQ(Bundle::bundleWithPath(resources + "/Assets.bundle/Info.plist"), nullptr);  // a file
  EXPECT_EQ(Bundle::bundleWithPath(""), nullptr);
}
