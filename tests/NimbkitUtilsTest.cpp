// nimbkit's utility commands, and what every command holds to: its name,
// its exit statuses, and the output it writes.
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Utils/VQUtils.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "HttpTestServer.h"
#include "TestSupport.h"

using nimb::test::runNimbkit;

// The library's tokens are checked against the openssl command (VQUtilsAES);
// the tool hands them out unchanged, for secrets of 16 to 32 characters.
TEST(NimbkitUtils, AesDigestsEscapesAndQueryStrings) {
  const std::string text = "user=42&token=é";
  for (const std::string secret : {"0123456789abcdef", "exactly thirty-two characters ok"}) {
    auto ours = runNimbkit({"aes", "--secret", secret, text});
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    EXPECT_EQ(ours.out, nimb::VQUtils::AES256Encrypt(text, secret).value_or("(none)") + "\n");
  }
  auto refused = runNimbkit({"aes", "--secret", "too short", "text"});
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_NE(refused.err.find("secret"), std::string::npos);

  EXPECT_EQ(runNimbkit({"md5", ""}).out, "D41D8CD98F00B204E9800998ECF8427E\n");
  EXPECT_EQ(runNimbkit({"url-encode", "a b/é"}).out, "a%20b%2F%C3%A9\n");
  EXPECT_EQ(runNimbkit({"url-decode", "a%20b+%C3%A9"}).out, "a b+é\n");
  auto bad = runNimbkit({"url-decode", "%C3%28"});
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_EQ(bad.out, "");
  EXPECT_NE(bad.err.find("UTF-8"), std::string::npos);

  auto parsed = runNimbkit({"query-parse", "z=1&a=%20x&c&d=1=2&z=3"});
  EXPECT_EQ(parsed.exitCode, 0);
  EXPECT_EQ(parsed.out, "a= x\nz=3\n");
  EXPECT_EQ(runNimbkit({"query-parse", "a=%FF"}).exitCode, 1);

  EXPECT_EQ(runNimbkit({"query-build", "k=a b&c", "b=2=3"}).out, "b=2%3D3&k=a%20b%26c\n");
  EXPECT_EQ(runNimbkit({"query-build", "novalue"}).exitCode, 2);
}

namespace {

using nimb::test::HttpTestServer;
using nimb::test::ToolResult;

// nimbkit `args` started by a shell that first runs `prefix` ("umask 027",
// a redirection, ...).
ToolResult runNimbkitAfter(const std::string& prefix, const std::vector<std::string>& args) {
  std::vector<std::string> command{"sh", "-c", prefix + "; exec \"$0\" \"$@\"", NIMBKIT_PATH};
  command.insert(command.end(), args.begin(), args.end());
  return nimb::test::runProgram(command);
}

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? st.st_mode & 07777 : 0;
}

}  // namespace

// The program calls itself nimbkit whatever path started it; help is
// --help; a word that names no command is named back with where to look.
TEST(NimbkitCommandLine, UsageVersionAndUnknownCommands) {
  auto version = runNimbkit({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out, "nimbkit " + nimb::VQUtils::utilsVersion() + "\n");
  auto help = runNimbkit({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("Usage: nimbkit [OPTIONS] SUBCOMMAND"), std::string::npos) << help.out;
  EXPECT_EQ(help.out.find(NIMBKIT_PATH), std::string::npos) << help.out;
  EXPECT_EQ(runNimbkit({"help"}).out, help.out);
  auto cacheHelp = runNimbkit({"help", "cache"});
  EXPECT_EQ(cacheHelp.exitCode, 0);
  EXPECT_NE(cacheHelp.out.find("Usage: nimbkit cache [OPTIONS] SUBCOMMAND"), std::string::npos)
      << cacheHelp.out;

  const std::pair<std::vector<std::string>, std::string> unknown[] = {
      {{"bogus"}, "'bogus'\nTry 'nimbkit --help'"},
      {{"cache", "frob"}, "'cache frob'\nTry 'nimbkit cache --help'"},
      {{"\x1b[2Jwipe"}, "'\\x1B[2Jwipe'\nTry 'nimbkit --help'"},
  };
  for (const auto& [args, names] : unknown) {
    auto r = runNimbkit(args);
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err, "nimbkit: unknown command " + names + " for more information.\n");
  }
  auto none = runNimbkit({});
  EXPECT_EQ(none.exitCode, 2);
  EXPECT_NE(none.err.find("subcommand is required"), std::string::npos) << none.err;
}

// Output that cannot be written is a failure, as coreutils have it: exit 1
// and the reason, whether the bytes went to standard output or to a file.
TEST(NimbkitCommandLine, WriteErrorsExitOneAndOutputFilesHonourTheUmask) {
  const nimb::test::ScopedHome home;  // a cache of its own
  HttpTestServer server;
  server.servePictures(nimb::test::pngBody(nimb::Image::withBitmap({8, 8, nimb::Data(256, 0x80)})));
  server.start();
  ASSERT_EQ(runNimbkit({"cache", "set", "k"}, "value").exitCode, 0);
  const std::vector<std::string> commands[] = {
      {"md5", "abc"}, {"cache", "get", "k"}, {"download", server.url("/a.png")}, {"--help"}};
  for (const auto& args : commands) {
    auto r = runNimbkitAfter("exec >/dev/full", args);
    EXPECT_EQ(r.exitCode, 1) << args[0];
    EXPECT_NE(r.err.find("nimbkit: write error: No space left on device\n"), std::string::npos)
        << r.err;
  }
  EXPECT_EQ(runNimbkitAfter("exec >/dev/null", {"md5", "abc"}).exitCode, 0);

  auto sheet = runNimbkit({"fetch", server.url("/b.png"), "--out", "/proc/nope"});
  EXPECT_EQ(sheet.exitCode, 1);
  EXPECT_NE(sheet.err.find("cannot write the contact sheet to /proc/nope/contact-sheet.png: "),
            std::string::npos)
      << sheet.err;
  auto swatchFailed = runNimbkit({"color", "20C040", "--out", "/proc/nope/s.png"});
  EXPECT_EQ(swatchFailed.exitCode, 1);
  EXPECT_EQ(swatchFailed.out, "");
  EXPECT_NE(swatchFailed.err.find("cannot write"), std::string::npos) << swatchFailed.err;

  // Files written for the user get 0666 less the umask, as a shell's
  // redirection does, and replace a link at their path instead of writing
  // through it.
  const std::string dir = home.root();
  const std::vector<std::string> writers[] = {
      {"color", "20C040", "--out", dir + "/swatch.png"},
      {"orient", dir + "/swatch.png", "--out", dir + "/upright.png"},
      {"download", server.url("/d.png"), "-o", dir + "/download.png"},
      {"fetch", server.url("/f.png"), "--out", dir + "/fetch"},
      {"layout", NIMB_EXAMPLES_DIR "/layout/profile-card.json", "--out", dir + "/layout"},
  };
  for (const auto& args : writers) {
    auto r = runNimbkitAfter("umask 027", args);
    EXPECT_EQ(r.exitCode, 0) << args[0] << ": " << r.err;
  }
  for (const char* file : {"swatch.png", "upright.png", "download.png", "fetch/01-f.png",
                           "fetch/contact-sheet.png", "layout/layout.png"}) {
    EXPECT_EQ(modeOf(dir + "/" + file), 0640u) << file;
  }
  auto swatch = nimb::Image::withContentsOfFile(dir + "/swatch.png");
  ASSERT_TRUE(swatch);
  EXPECT_EQ(swatch->bitmap().width, 64);
  EXPECT_EQ(nimb::test::pixel(swatch->bitmap(), 63, 63),
            (nimb::test::Pixel{0x20, 0xC0, 0x40, 255}));
  auto plain = runNimbkitAfter("umask 022", {"color", "20C040", "--out", dir + "/plain.png"});
  EXPECT_EQ(plain.exitCode, 0) << plain.err;
  EXPECT_EQ(modeOf(dir + "/plain.png"), 0644u);

  ASSERT_TRUE(nimb::FileManager::writeAtomically(dir + "/victim", std::string_view("keep")));
  ASSERT_EQ(::symlink((dir + "/victim").c_str(), (dir + "/link.png").c_str()), 0);
  EXPECT_EQ(runNimbkit({"color", "20C040", "--out", dir + "/link.png"}).exitCode, 0);
  EXPECT_NE(modeOf(dir + "/link.png"), 0u);  // a regular file now
  EXPECT_EQ(nimb::test::readFile(dir + "/victim"), "keep");
  // No temporary is left behind.
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    EXPECT_FALSE(entry.path().filename().string().ends_with(".tmp")) << entry.path();
  }
}
