#include <NimbFoundation/Platform/FileManager.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "TestSupport.h"

using nimb::Data;
using nimb::FileManager;

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
  std::string saved = std::getenv("XDG_CACHE_HOME");
  EXPECT_EQ(FileManager::cachesDirectory(), saved);
  setenv("XDG_CACHE_HOME", "relative/ignored", 1);
  EXPECT_EQ(FileManager::cachesDirectory(), std::string(std::getenv("HOME")) + "/.cache");
  unsetenv("XDG_CACHE_HOME");
  EXPECT_EQ(FileManager::cachesDirectory(), std::string(std::getenv("HOME")) + "/.cache");
  setenv("XDG_CACHE_HOME", saved.c_str(), 1);
  EXPECT_EQ(FileManager::processName(), "NimbFoundationTests");
  EXPECT_EQ(FileManager::appendingPathComponent("/a/b//", "c"), "/a/b/c");
}

TEST_F(FileManagerTest, AtomicWriteReplacesWholeAndPrivately) {
  std::string path = dir + "/file";
  ASSERT_TRUE(FileManager::writeAtomically(path, std::string_view("first version")));
  ASSERT_TRUE(FileManager::writeAtomically(path, std::string_view("second")));
  EXPECT_EQ(FileManager::contentsAtPath(path), Data({'s', 'e', 'c', 'o', 'n', 'd'}));
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(entries(), 1u);  // no temporary left behind

  // A symbolic link at the target is replaced, never written through.
  std::string victim = dir + "/victim";
  ASSERT_TRUE(FileManager::writeAtomically(victim, std::string_view("keep")));
  std::string link = dir + "/link";
  ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
  ASSERT_TRUE(FileManager::writeAtomically(link, std::string_view("new")));
  EXPECT_EQ(FileManager::contentsAtPath(victim), Data({'k', 'e', 'e', 'p'}));

  // Into a directory that does not exist: fails, and leaves nothing.
  EXPECT_FALSE(FileManager::writeAtomically(dir + "/missing/file", std::string_view("x")));
}

TEST_F(FileManagerTest, CopyNeverOverwrites) {
  std::string from = dir + "/from", to = dir + "/to";
  ASSERT_TRUE(FileManager::writeAtomically(from, std::string_view("payload")));
  EXPECT_TRUE(FileManager::copyItem(from, to));
  EXPECT_EQ(FileManager::contentsAtPath(to), FileManager::contentsAtPath(from));
  ASSERT_TRUE(FileManager::writeAtomically(from, std::string_view("changed")));
  EXPECT_FALSE(FileManager::copyItem(from, to));
  EXPECT_EQ(FileManager::contentsAtPath(to), Data({'p', 'a', 'y', 'l', 'o', 'a', 'd'}));
  EXPECT_FALSE(FileManager::copyItem(dir + "/absent", dir + "/other"));
  EXPECT_FALSE(FileManager::copyItem(dir, dir + "/dircopy"));  // directories are not copied
  EXPECT_EQ(entries(), 2u);
}

TEST_F(FileManagerTest, DirectoriesReadsAndRemoval) {
  std::string deep = dir + "/a/b/c";
  ASSERT_TRUE(FileManager::createDirectory(deep, true));
  EXPECT_TRUE(FileManager::createDirectory(deep, true));  // already there is fine
  EXPECT_FALSE(FileManager::createDirectory(dir + "/x/y", false));
  struct stat st {};
  ASSERT_EQ(stat((dir + "/a").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

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
// refuse any source that is no regular file.
TEST_F(FileManagerTest, SpecialFilesAndLinksReadAsMissing) {
  ::alarm(20);  // a read that blocks fails the test instead of hanging it
  const std::string file = dir + "/file", link = dir + "/link", fifo = dir + "/fifo";
  ASSERT_TRUE(FileManager::writeAtomically(file, std::string_view("outside")));
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

  EXPECT_EQ(FileManager::contentsAtPath(link), Data({'o', 'u', 't', 's', 'i', 'd', 'e'}));
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
