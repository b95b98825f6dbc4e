#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>
#include <NimbFoundation/Platform/Storage/UserDefaults.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "TestSupport.h"

using namespace std::string_view_literals;
using nimb::Array;
using nimb::Data;
using nimb::Date;
using nimb::Dictionary;
using nimb::FileManager;
using nimb::UserDefaults;
using nimb::Value;
using nimb::test::modeOf;

namespace {
class UserDefaultsTest : public ::testing::Test {
 protected:
  std::string dir = nimb::test::makeTemporaryDirectory("nimb-defaults");
  std::string path = dir + "/app/UserDefaults.plist";  // "app" is made on first write
  void TearDown() override { std::filesystem::remove_all(dir); }
};
}  // namespace

TEST_F(UserDefaultsTest, ValuesPersistAcrossInstancesAndProcesses) {
  const Value nested(Dictionary{{"when", Date::fromTimeIntervalSince1970(1700000000)},
                                {"blob", Data{0, 1, 2, 255}},
                                {"numbers", Array{Value(42), Value(-7.5), Value(true)}},
                                {"inner", Dictionary{{"name", "Zoë"}}}});
  UserDefaults first(path);
  ASSERT_TRUE(first.setObject(nested, "settings"));
  ASSERT_TRUE(first.setObject("gone soon", "temporary"));
  ASSERT_TRUE(first.removeObjectForKey("temporary"));

  UserDefaults second(path);
  EXPECT_EQ(second.objectForKey("settings"), nested);
  EXPECT_FALSE(second.objectForKey("temporary"));

  ASSERT_EQ(
      nimb::test::exitStatus(nimb::test::forkChild([&] {
        UserDefaults child(path);
        return child.objectForKey("settings") == nested && child.setObject(7, "fromChild") ? 0 : 1;
      })),
      0);
  EXPECT_FALSE(first.objectForKey("fromChild"));  // until it reads the file again
  EXPECT_TRUE(first.synchronize());
  EXPECT_EQ(first.objectForKey("fromChild"), Value(7));
}

TEST_F(UserDefaultsTest, RefusedChangesLeaveEverythingAsItWas) {
  UserDefaults defaults(path);
  ASSERT_TRUE(defaults.setObject("kept", "key"));
  auto refused = defaults.setObject(Value(), "key");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(), (nimb::SystemError{EINVAL, path}));
  EXPECT_FALSE(defaults.setObject("x", std::string("bad\0key", 7)));
  EXPECT_EQ(defaults.objectForKey("key"), Value("kept"));
  EXPECT_EQ(UserDefaults(path).objectForKey("key"), Value("kept"));

  // A file that cannot be written: nothing changes in memory either.
  ASSERT_TRUE(FileManager::writeAtomically(dir + "/file", std::string_view("x")));
  UserDefaults unwritable(dir + "/file/UserDefaults.plist");
  auto unwritten = unwritable.setObject(1, "key");
  ASSERT_FALSE(unwritten);
  EXPECT_EQ(unwritten.error().path, dir + "/file");  // the folder it could not make
  EXPECT_NE(unwritten.error().code, 0);
  EXPECT_FALSE(unwritable.objectForKey("key"));
}

TEST_F(UserDefaultsTest, StandardStoreLivesUnderTheConfigHome) {
  std::string appDir = std::string(std::getenv("XDG_CONFIG_HOME")) + "/NimbFoundationTests";
  UserDefaults& standard = UserDefaults::standardUserDefaults();
  EXPECT_EQ(&standard, &UserDefaults::standardUserDefaults());
  EXPECT_EQ(standard.path(), appDir + "/UserDefaults.plist");
  ASSERT_TRUE(standard.setObject("on", "feature"));

  EXPECT_EQ(modeOf(appDir), 0700u);
  EXPECT_EQ(modeOf(standard.path()), 0600u);
  EXPECT_TRUE(nimb::test::readFile(standard.path()).starts_with("<?xml"));

  // A fresh shared instance reads the file again; the old reference still works.
  ASSERT_TRUE(FileManager::writeAtomically(standard.path(), std::string_view("")));
  UserDefaults::resetStandardUserDefaults();
  EXPECT_FALSE(UserDefaults::standardUserDefaults().objectForKey("feature"));
  EXPECT_EQ(standard.objectForKey("feature"), Value("on"));
}

// A damaged file reads as empty until the next write replaces it. A FIFO or
// a symbolic link under the store's name is no store: it reads as missing at
// once, the first write replaces it, and a link's target is never read or
// written.
TEST_F(UserDefaultsTest, UnusableFilesReadEmptyUntilTheNextWrite) {
  ASSERT_TRUE(FileManager::createDirectory(dir + "/app"));
  const std::string outside = dir + "/outside.plist";
  ASSERT_TRUE(UserDefaults(outside).setObject("secret", "key"));
  ::alarm(20);  // a read that blocks fails the test instead of hanging it
  for (std::string_view kind : {"damaged", "fifo", "link"}) {
    std::filesystem::remove(path);
    ASSERT_TRUE(kind == "fifo" ? ::mkfifo(path.c_str(), 0600) == 0
                : kind == "link"
                    ? ::symlink(outside.c_str(), path.c_str()) == 0
                    : FileManager::writeAtomically(path, "<?xml version=\"1.0\"?><pl"sv).ok())
        << kind;
    UserDefaults store(path);
    EXPECT_FALSE(store.objectForKey("key")) << kind;
    auto reread = store.synchronize();
    EXPECT_EQ(reread.ok(), kind != "damaged") << kind;
    if (!reread) {
      EXPECT_EQ(reread.error(), (nimb::SystemError{EBADMSG, path})) << kind;
    }
    ASSERT_TRUE(store.setObject("mine", "key")) << kind;
    EXPECT_EQ(
        nimb::PropertyList::dictionaryWithContentsOfFile(path, nimb::FollowLinks::No).optional(),
        (Dictionary{{"key", "mine"}}))
        << kind;
    EXPECT_TRUE(store.synchronize()) << kind;
  }
  ::alarm(0);
  EXPECT_EQ(UserDefaults(outside).objectForKey("key"), Value("secret"));
}
