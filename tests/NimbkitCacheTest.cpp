// The `nimbkit cache` commands, run as separate processes: every call is a
// restart of the cache, so these also prove that nothing set is lost when
// the tool exits.
#include <gtest/gtest.h>

#include <NimbFoundation/Platform/Env/FileManager.h>

#include <unistd.h>

#include <algorithm>
#include <regex>
#include <vector>

#include "TestSupport.h"

using nimb::test::runNimbkit;
using nimb::test::startNimbkit;

TEST(NimbkitCache, StoreCopyReadListRemoveAndUsageErrors) {
  const nimb::test::ScopedHome home;  // a cache of its own
  auto path = runNimbkit({"cache", "path"});
  EXPECT_EQ(path.exitCode, 0);
  EXPECT_EQ(path.out, std::string(std::getenv("XDG_CACHE_HOME")) + "/nimbkit/VQCache\n");
  auto set = runNimbkit({"cache", "set", "greeting"}, "hello\n");
  ASSERT_EQ(set.exitCode, 0) << set.err;
  EXPECT_EQ(runNimbkit({"cache", "get", "greeting"}).out, "hello\n");
  EXPECT_EQ(runNimbkit({"cache", "has", "greeting"}).exitCode, 0);

  // From a file: copied, or read by set --file; a copy never replaces a file.
  std::string source = std::string(std::getenv("HOME")) + "/photo.bin";
  ASSERT_TRUE(nimb::FileManager::writeAtomically(source, std::string_view("pixels")));
  ASSERT_EQ(runNimbkit({"cache", "copy", source, "photo", "--ttl", "60"}).exitCode, 0);
  ASSERT_EQ(runNimbkit({"cache", "set", "fromfile", "--file", source}).exitCode, 0);
  for (const char* key : {"photo", "fromfile"}) {
    EXPECT_EQ(runNimbkit({"cache", "get", key}).out, "pixels") << key;
  }
  EXPECT_EQ(runNimbkit({"cache", "copy", source, "photo"}).exitCode, 2);

  // Each call is a restart, and start-up deletes the files of expired entries.
  ASSERT_EQ(runNimbkit({"cache", "set", "old", "--ttl", "-1"}, "x").exitCode, 0);
  // One line per entry whatever the key holds: control characters and the
  // backslash itself are escaped.
  const std::pair<std::string, std::string> keys[] = {
      {"two\nlines", "two\\nlines\t"},
      {"tab\there\\\x7f", "tab\\there\\\\\\x7F\t"},
      {"csi\xc2\x9b"
       "2J-rlo\xe2\x80\xae"
       "gpj.exe-caf\xc3\xa9",
       "csi\\u009B2J-rlo\\u202Egpj.exe-caf\xc3\xa9\t"}};
  for (const auto& [key, listed] : keys) {
    ASSERT_EQ(runNimbkit({"cache", "set", key}, "x").exitCode, 0) << listed;
  }
  auto list = runNimbkit({"cache", "list"});
  EXPECT_EQ(list.exitCode, 0);
  EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 7) << list.out;
  for (const char* line :
       {"greeting\t[^\t]+Z\tfresh\tpresent\n", "old\t[^\t]+Z\texpired\tabsent\n"}) {
    EXPECT_TRUE(std::regex_search(list.out, std::regex(std::string("(^|\n)") + line))) << list.out;
  }
  for (const auto& [key, listed] : keys)
    EXPECT_NE(list.out.find(listed), std::string::npos) << list.out;
  EXPECT_EQ(runNimbkit({"cache", "get", "old"}).exitCode, 1);
  EXPECT_EQ(runNimbkit({"cache", "remove", "greeting"}).exitCode, 0);
  EXPECT_EQ(runNimbkit({"cache", "has", "greeting"}).exitCode, 1);
  EXPECT_EQ(runNimbkit({"cache", "clear"}).exitCode, 0);

  // Usage errors exit 2 with one line on standard error that names the fault
  // (a whole line: exactly that), and store nothing.
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"cache", "set", "VQCache.plist"}, "index file"},
      {{"cache", "get", ".."}, "cannot be a cache key"},
      {{"cache", "set", "not-utf8-\x9b"}, "\"not-utf8-\\x9B\" cannot be a cache key"},
      {{"cache", "set", "k", "--ttl", "soon"}, "--ttl"},
      {{"cache", "set", "k", "--ttl", "inf"}, "--ttl must be a finite number"},
      {{"cache"}, "subcommand"},
      {{"serve", ".", "--port", "99999"}, "not in range 0 to 65535"},
  };
  for (const auto& [args, says] : cases) {
    SCOPED_TRACE(args.back());
    auto r = runNimbkit(args, "data");
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;  // exactly one line
    EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
  }
  EXPECT_EQ(runNimbkit({"cache", "list"}).out, "");  // cleared, and nothing stored since
}

// Many processes setting at once: each saves its own entry onto the index
// as it is on disk, so every one of them is listed afterwards.
TEST(NimbkitCache, ParallelProcessesLoseNoEntries) {
  const nimb::test::ScopedHome home;  // a cache of its own
  constexpr int kProcesses = 20;
  std::vector<nimb::test::RunningProgram> running;
  for (int i = 0; i < kProcesses; ++i) {
    running.push_back(startNimbkit({"cache", "set", "key-" + std::to_string(i)}, "v"));
  }
  for (auto& program : running) {
    auto r = program.finish();
    EXPECT_EQ(r.exitCode, 0) << r.err;
  }
  auto list = runNimbkit({"cache", "list"});
  EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), kProcesses) << list.out;
  for (int i = 0; i < kProcesses; ++i) {
    EXPECT_NE(list.out.find("key-" + std::to_string(i) + "\t"), std::string::npos) << i;
  }
}

// set and copy confirm the entry landed (file and index) and fail with the
// reason when it did not: a directory that cannot be made, a file size limit
// standing in for a full disk, a source that is no regular file.
TEST(NimbkitCache, NothingStoredIsAFailure) {
  const nimb::test::ScopedHome home;  // a cache of its own
  const std::string cacheHome = std::getenv("XDG_CACHE_HOME");
  const std::string big(256 * 1024, 'b');
  auto limited = nimb::test::runProgram(
      {"sh", "-c", "trap '' XFSZ; ulimit -f 64; exec \"$0\" cache set big", NIMBKIT_PATH}, big);
  EXPECT_EQ(limited.exitCode, 1);
  EXPECT_NE(limited.err.find("\"big\" was not stored: cannot write 262144 bytes in"),
            std::string::npos)
      << limited.err;
  EXPECT_EQ(runNimbkit({"cache", "has", "big"}).exitCode, 1);

  for (const char* source : {"/dev/zero", "/nonexistent/file"}) {
    auto copy = runNimbkit({"cache", "copy", source, "zero"});
    EXPECT_EQ(copy.exitCode, 1) << source;
    EXPECT_NE(copy.err.find("nothing stored"), std::string::npos) << copy.err;
    auto set = runNimbkit({"cache", "set", "k", "--file", source});
    EXPECT_EQ(set.exitCode, 1) << source;
    EXPECT_NE(set.err.find("cannot read " + std::string(source) + ": "), std::string::npos)
        << set.err;
  }
  // A pipe is a fine source for set (a shell's <(command)), never for copy.
  auto piped = nimb::test::runProgram(
      {"bash", "-c", "\"$0\" cache set piped --file <(printf pipe) && \"$0\" cache get piped",
       NIMBKIT_PATH});
  EXPECT_EQ(piped.exitCode, 0) << piped.err;
  EXPECT_EQ(piped.out, "pipe");

  // The entry file lands but the index (longer than the limit) does not:
  // the old, expired date is still there, and that is no success.
  for (const std::string& key : {std::string(150, 'a'), std::string(150, 'b')}) {
    ASSERT_EQ(runNimbkit({"cache", "set", key}, "v").exitCode, 0);
  }
  ASSERT_EQ(runNimbkit({"cache", "set", "stale", "--ttl", "-1"}, "v").exitCode, 0);
  auto unsaved = nimb::test::runProgram(
      {"sh", "-c", "trap '' XFSZ; ulimit -f 1; exec \"$0\" cache set stale --ttl 86400",
       NIMBKIT_PATH},
      "new");
  EXPECT_EQ(unsaved.exitCode, 1) << unsaved.err;
  EXPECT_EQ(runNimbkit({"cache", "has", "stale"}).exitCode, 1);
  // A link in the way of a copy is refused up front, and leaves no entry.
  ASSERT_EQ(::symlink("/nonexistent/target", (cacheHome + "/nimbkit/VQCache/linked").c_str()), 0);
  std::string source = std::string(std::getenv("HOME")) + "/source.bin";
  ASSERT_TRUE(nimb::FileManager::writeAtomically(source, std::string_view("bytes")));
  EXPECT_EQ(runNimbkit({"cache", "copy", source, "linked"}).exitCode, 2);
  EXPECT_EQ(runNimbkit({"cache", "list"}).out.find("linked"), std::string::npos);

  std::filesystem::remove_all(cacheHome);
  ASSERT_TRUE(nimb::FileManager::writeAtomically(cacheHome, std::string_view("in the way")));
  auto blocked = runNimbkit({"cache", "set", "k"}, "v");
  EXPECT_EQ(blocked.exitCode, 1);
  EXPECT_NE(blocked.err.find("\"k\" was not stored: cannot create the directory"),
            std::string::npos)
      << blocked.err;
}
