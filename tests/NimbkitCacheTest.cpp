// The `nimbkit cache` commands, run as separate processes: every call is a
// restart of the cache, so these also prove that nothing set is lost when
// the tool exits.
#include <gtest/gtest.h>

#include <NimbFoundation/Platform/FileManager.h>

#include "TestSupport.h"

using nimb::test::runNimbkit;

TEST(NimbkitCache, StoreReadListAndRemove) {
  auto set = runNimbkit({"cache", "set", "greeting"}, "hello\n");
  ASSERT_EQ(set.exitCode, 0) << set.err;
  auto get = runNimbkit({"cache", "get", "greeting"});
  EXPECT_EQ(get.exitCode, 0);
  EXPECT_EQ(get.out, "hello\n");
  EXPECT_EQ(runNimbkit({"cache", "has", "greeting"}).exitCode, 0);

  ASSERT_EQ(runNimbkit({"cache", "set", "old", "--ttl", "-1"}, "x").exitCode, 0);
  auto list = runNimbkit({"cache", "list"});
  EXPECT_EQ(list.exitCode, 0);
  EXPECT_NE(list.out.find("greeting\t"), std::string::npos);
  EXPECT_NE(list.out.find("Z\tfresh\tpresent\n"), std::string::npos) << list.out;
  EXPECT_NE(list.out.find("old\t"), std::string::npos);
  // Each call is a restart, and start-up deletes the files of expired entries.
  EXPECT_NE(list.out.find("Z\texpired\tabsent\n"), std::string::npos) << list.out;

  EXPECT_EQ(runNimbkit({"cache", "get", "old"}).exitCode, 1);
  EXPECT_EQ(runNimbkit({"cache", "remove", "greeting"}).exitCode, 0);
  auto gone = runNimbkit({"cache", "has", "greeting"});
  EXPECT_EQ(gone.exitCode, 1);
  EXPECT_EQ(runNimbkit({"cache", "clear"}).exitCode, 0);
  EXPECT_EQ(runNimbkit({"cache", "list"}).out, "");
}

TEST(NimbkitCache, CopyAndPath) {
  auto path = runNimbkit({"cache", "path"});
  ASSERT_EQ(path.exitCode, 0);
  EXPECT_EQ(path.out, std::string(std::getenv("XDG_CACHE_HOME")) + "/nimbkit/VQCache\n");

  std::string source = std::string(std::getenv("HOME")) + "/photo.bin";
  ASSERT_TRUE(nimb::FileManager::writeAtomically(source, std::string_view("pixels")));
  ASSERT_EQ(runNimbkit({"cache", "copy", source, "photo", "--ttl", "60"}).exitCode, 0);
  EXPECT_EQ(runNimbkit({"cache", "get", "photo"}).out, "pixels");
  auto again = runNimbkit({"cache", "copy", source, "photo"});
  EXPECT_EQ(again.exitCode, 2);  // the key already has a file
  ASSERT_EQ(runNimbkit({"cache", "set", "fromfile", "--file", source}).exitCode, 0);
  EXPECT_EQ(runNimbkit({"cache", "get", "fromfile"}).out, "pixels");
}

TEST(NimbkitCache, UsageErrorsExitTwoWithOneLine) {
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"cache", "set", "VQCache.plist"},
           {"cache", "set", "a/b"},
           {"cache", "get", ".."},
           {"cache", "set", "k", "--ttl", "soon"},
           {"cache", "set", "k", "--ttl", "inf"},
           {"cache", "set", "k", "--file", "/nonexistent/file"},
           {"cache", "copy", "/nonexistent/file", "k"},
           {"cache", "frobnicate"},
           {"cache"},
       }) {
    auto r = runNimbkit(args, "data");
    EXPECT_EQ(r.exitCode, 2) << args.back();
    ASSERT_FALSE(r.err.empty()) << args.back();
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;  // exactly one line
  }
  EXPECT_EQ(runNimbkit({"cache", "list"}).out, "");  // nothing was stored
}
