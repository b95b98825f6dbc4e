#include <NimbFoundation/Platform/Env/FileManager.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
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

TEST_F(FileManagerTest, CachesDirectoryFollowsXdgThenHome) {
  const std::string saved = std::getenv("XDG_CACHE_HOME");
  const std::string home = std::string(std::getenv("HOME")) + "/.cache";
  EXPECT_EQ(FileManager::cachesDirectory(), saved);
  setenv("XDG_CACHE_HOME", "relative/ignored", 1);
  EXPECT_EQ(FileManager::cachesDirectory(), home);
  unsetenv("XDG_CACHE_HOME");
  EXPECT_EQ(FileManager::cachesDirectory(), home);
  setenv("XDG_CACHE_HOME", saved.c_str(), 1);
  EXPECT_EQ(FileManager::processName(), "NimbFoundationTests");
  EXPECT_EQ(FileManager::appendingPathComponent("/a/b//", "c"), "/a/b/c");
}

TEST_F(FileManagerTest, AtomicWritesReplaceWholeAndCopiesNeverOverwrite) {
  const std::string path = dir + "/file", copy = dir + "/copy";
  ASSERT_TRUE(FileManager::writeAtomically(path, "first version"sv));
  ASSERT_TRUE(FileManager::writeAtomically(path, "second"sv));
  EXPECT_EQ(FileManager::contentsAtPath(path), dataOf("second"));
  EXPECT_EQ(modeOf(path), 0600u);
  EXPECT_EQ(entries(), 1u);  // no temporary left behind

  EXPECT_TRUE(FileManager::copyItem(path, copy));
  ASSERT_TRUE(FileManager::writeAtomically(path, "changed"sv));
  EXPECT_FALSE(FileManager::copyItem(path, copy));
  EXPECT_EQ(FileManager::contentsAtPath(copy), dataOf("second"));
  EXPECT_FALSE(FileManager::copyItem(dir + "/absent", dir + "/other"));

  // A symbolic link at the target is replaced, never written through.
  const std::string victim = dir + "/victim", link = dir + "/link";
  ASSERT_TRUE(FileManager::writeAtomically(victim, "keep"sv));
  ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
  ASSERT_TRUE(FileManager::writeAtomically(link, "new"sv));
  EXPECT_EQ(FileManager::contentsAtPath(victim), dataOf("keep"));

  // Into a directory that does not exist: fails, and leaves nothing.
  EXPECT_FALSE(FileManager::writeAtomically(dir + "/missing/file", "x"sv));
  EXPECT_EQ(entries(), 4u);  // file, copy, victim and link
}

TEST_F(FileManagerTest, DirectoriesReadsAndRemoval) {
  std::string deep = dir + "/a/b/c";
  ASSERT_TRUE(FileManager::createDirectory(deep, true));
  EXPECT_TRUE(FileManager::createDirectory(deep, true));  // already there is fine
  EXPECT_FALSE(FileManager::createDirectory(dir + "/x/y", false));
  EXPECT_EQ(modeOf(dir + "/a"), 0700u);

  EXPECT_FALSE(FileManager::contentsAtPath(deep));  // a directory has no contents
  EXPECT_FALSE(FileManager::contentsAtPath(dir + "/absent"));
  std::string big = dir + "/big";
  Data large(300000);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 7);
  ASSERT_TRUE(FileManager::writeAtomically(big, large));
  EXPECT_EQ(FileManager::contentsAtPath(big), large);

  EXPECT_TRUE(FileManager::removeItem(big));
  EXPECT_FALSE(FileManager::removeItem(big));
  EXPECT_TRUE(FileManager::removeItem(deep));
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
  EXPECT_FALSE(FileManager::contentsAtPath(link, nimb::FollowLinks::No));
  EXPECT_TRUE(FileManager::isRegularFile(link));
  EXPECT_FALSE(FileManager::isRegularFile(link, nimb::FollowLinks::No));
  for (const std::string& special : {fifo, std::string("/dev/zero"), dir}) {
    EXPECT_FALSE(FileManager::contentsAtPath(special)) << special;
    EXPECT_FALSE(FileManager::isRegularFile(special)) << special;
    EXPECT_FALSE(FileManager::copyItem(special, dir + "/copy")) << special;
  }
  ::alarm(0);

  EXPECT_TRUE(FileManager::isTemporaryFileName(".entry.tmp-aZ09xY"));
  for (const char* name :
       {"entry.tmp-aZ09xY", ".entry.tmp-aZ09x", ".entry.tmp-aZ09x-", ".tmp-aZ09xY"}) {
    EXPECT_FALSE(FileManager::isTemporaryFileName(name)) << name;
  }
}
