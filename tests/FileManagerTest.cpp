#include <NimbFoundation/Platform/Env/FileManager.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "TestSupport.h"

using namespace std::string_view_literals;
using nimb::Data;
using nimb::FileManager;
using nimb::test::dataOf;
using nimb::test::modeOf;

namespace {
class FileManagerTest : public ::testing::Test {
 protected:
  std::string dir = nimb::test::makeTemporaryDirectory("nimb-files");
  void TearDown() override { std::filesystem::remove_all(dir); }
  std::size_t entries() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(dir),
                                                  std::filesystem::directory_iterator()));
  }
};
}  // namespace

TEST_F(FileManagerTest, UserFoldersFollowXdgThenHome) {
  nimb::test::FakeMachine machine;
  machine->variables = {{"XDG_CACHE_HOME", dir + "/cache"},
                        {"XDG_DATA_HOME", "relative/ignored"},
                        {"XDG_CONFIG_HOME", std::nullopt},
                        {"HOME", dir + "/home"}};
  EXPECT_EQ(FileManager::cachesDirectory(), dir + "/cache");
  EXPECT_EQ(FileManager::dataDirectory(), dir + "/home/.local/share");
  EXPECT_EQ(FileManager::configDirectory(), dir + "/home/.config");
  machine->home = "/elsewhere";  // the home the Env reports, not only $HOME
  EXPECT_EQ(FileManager::configDirectory(), "/elsewhere/.config");
  EXPECT_EQ(FileManager::processName(), "NimbFoundationTests");
  EXPECT_EQ(FileManager::appendingPathComponent("/a/b//", "c"), "/a/b/c");
}

TEST_F(FileManagerTest, AtomicWritesReplaceWholeAndCopiesNeverOverwrite) {
  const std::string path = dir + "/file", copy = dir + "/copy";
  ASSERT_TRUE(FileManager::writeAtomically(path, "first version"sv));
  ASSERT_TRUE(FileManager::writeAtomically(path, "second"sv));
  EXPECT_EQ(FileManager::contentsAtPath(path), dataOf("second"));
  EXPECT_EQ(modeOf(path), 0600u);

  EXPECT_TRUE(FileManager::copyItem(path, copy));
  ASSERT_TRUE(FileManager::writeAtomically(path, "changed"sv));
  auto refused = FileManager::copyItem(path, copy);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(), (nimb::SystemError{EEXIST, copy}));
  EXPECT_EQ(FileManager::contentsAtPath(copy), dataOf("second"));
  EXPECT_FALSE(FileManager::copyItem(dir + "/absent", dir + "/other"));

  // A symbolic link at the target is replaced, never written through.
  const std::string victim = dir + "/victim", link = dir + "/link";
  ASSERT_TRUE(FileManager::writeAtomically(victim, "keep"sv));
  ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
  ASSERT_TRUE(FileManager::writeAtomically(link, "new"sv));
  EXPECT_EQ(FileManager::contentsAtPath(victim), dataOf("keep"));

  // Into a directory that does not exist: fails, and leaves nothing.
  auto failed = FileManager::writeAtomically(dir + "/missing/file", "x"sv);
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error(), (nimb::SystemError{ENOENT, dir + "/missing/file"}));
  EXPECT_EQ(entries(), 4u);  // file, copy, victim and link: no temporary left behind
}

TEST_F(FileManagerTest, DirectoriesReadsAndRemoval) {
  std::string deep = dir + "/a/b/c";
  ASSERT_TRUE(FileManager::createDirectory(deep, true));
  EXPECT_TRUE(FileManager::createDirectory(deep, true));  // already there is fine
  EXPECT_FALSE(FileManager::createDirectory(dir + "/x/y", false));
  EXPECT_EQ(modeOf(dir + "/a"), 0700u);

  // A directory has no contents; the reason comes with the path.
  EXPECT_EQ(FileManager::contentsAtPath(deep).error(), (nimb::SystemError{EISDIR, deep}));
  EXPECT_EQ(FileManager::contentsAtPath(dir + "/absent").error().code, ENOENT);
  std::string big = dir + "/big";
  Data large(300000);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 7);
  ASSERT_TRUE(FileManager::writeAtomically(big, large));
  EXPECT_EQ(FileManager::contentsAtPath(big), large);

  EXPECT_TRUE(FileManager::removeItem(big));
  EXPECT_EQ(FileManager::removeItem(big).error().code, ENOENT);
  EXPECT_TRUE(FileManager::removeItem(dir + "/a"));  // a directory goes with what it holds
  EXPECT_FALSE(FileManager::fileExists(deep));
}

// Reads never wait on a FIFO and never take a device for a file; the kit's
// state reads (FollowLinks::No) also refuse a symbolic link, and copies
// refuse any source that is no regular file (a directory included).
TEST_F(FileManagerTest, SpecialFilesAndLinksReadAsMissing) {
  ::alarm(20);  // a read that blocks fails the test instead of hanging it
  const std::string file = dir + "/file", link = dir + "/link", fifo = dir + "/fifo";
  ASSERT_TRUE(FileManager::writeAtomically(file, "outside"sv));
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

  EXPECT_EQ(FileManager::contentsAtPath(link), dataOf("outside"));
  EXPECT_EQ(FileManager::contentsAtPath(link, nimb::FollowLinks::No).error().code, ELOOP);
  EXPECT_TRUE(FileManager::isRegularFile(link));
  EXPECT_FALSE(FileManager::isRegularFile(link, nimb::FollowLinks::No));
  for (const std::string& special : {fifo, std::string("/dev/zero"), dir}) {
    const int expected = special == dir ? EISDIR : ENOENT;  // the others read as missing
    EXPECT_EQ(FileManager::contentsAtPath(special).error().code, expected) << special;
    EXPECT_FALSE(FileManager::isRegularFile(special)) << special;
    EXPECT_FALSE(FileManager::copyItem(special, dir + "/copy")) << special;
  }
  ::alarm(0);

  for (const char* name : {".entry.tmp-aZ09xY", "entry.tmp-aZ09xY", ".entry.tmp-aZ09x",
                           ".entry.tmp-aZ09x-", ".tmp-aZ09xY"}) {
    EXPECT_EQ(FileManager::isTemporaryFileName(name), name == ".entry.tmp-aZ09xY"sv) << name;
  }
}
