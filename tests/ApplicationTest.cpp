// URL opening: scheme handlers found in a private freedesktop.org registry,
// and the hand-over to a stand-in xdg-open.
#include <NimbFoundation/Platform/Env/Application.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "TestSupport.h"

using nimb::Application;

namespace {

// Points every XDG search path and PATH into one temporary tree, so the
// machine's own registry and xdg-open stay out of the picture.
class ApplicationTest : public ::testing::Test {
 protected:
  std::string root = nimb::test::makeTemporaryDirectory("nimb-app");
  std::string userApps = root + "/data-home/applications";
  std::string systemApps = root + "/data-dir/applications";
  std::string bin = root + "/bin";

  nimb::test::FakeMachine machine;

  void SetUp() override {
    for (const auto& [name, dir] : {std::pair{"XDG_DATA_HOME", "/data-home"},
                                    {"XDG_DATA_DIRS", "/data-dir"},
                                    {"XDG_CONFIG_HOME", "/config-home"},
                                    {"XDG_CONFIG_DIRS", "/config-dir"},
                                    {"PATH", "/bin"}}) {
      std::filesystem::create_directories(root + dir);
      machine->variables[name] = root + dir;
    }
    for (const auto& apps : {userApps, systemApps}) std::filesystem::create_directories(apps);
  }
  void TearDown() override { std::filesystem::remove_all(root); }

  static void write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
  }
  static std::string entry(const std::string& extra) {
    return "[Desktop Entry]\nType=Application\nName=Handler\nExec=handler %u\n" + extra;
  }
  // An xdg-open that writes its one argument into `received`, whole (renamed
  // into place once written).
  std::string received = root + "/received";
  void installFakeXdgOpen() {
    const std::string script = bin + "/xdg-open";
    write(script, "#!/bin/sh\nprintf '%s' \"$1\" > '" + received + ".part' && mv '" + received +
                      ".part' '" + received + "'\n");
    chmod(script.c_str(), 0755);
  }
  // What the stand-in wrote; nullopt when nothing arrives (the 30 s limit
  // only keeps a broken launch from hanging the test).
  std::optional<std::string> awaitReceived() {
    for (int i = 0; i < 3000 && !std::filesystem::exists(received); ++i) ::usleep(10000);
    if (!std::filesystem::exists(received)) return std::nullopt;
    return nimb::test::readFile(received);
  }
};

}  // namespace

TEST_F(ApplicationTest, DesktopEntriesRegisterSchemesThroughTheirMimeType) {
  write(userApps + "/mail.desktop", entry("MimeType=text/plain;x-scheme-handler/mailto;\n"));
  write(systemApps + "/chat.desktop",
        "# a system entry\n\n" + entry("MimeType = X-Scheme-Handler/Chat ; \n"));
  EXPECT_TRUE(Application::canOpenURL("mailto:someone@example.com"));
  EXPECT_TRUE(Application::canOpenURL("MAILTO:someone@example.com"));  // schemes ignore case
  EXPECT_TRUE(Application::canOpenURL("chat://room"));                 // found in a data dir
  EXPECT_FALSE(Application::canOpenURL("tel://123"));

  // No scheme, or not a valid one.
  for (const char* url : {"", "mailto", "/mailto:x", ":x", "1mailto:x", "mail to:x", "mail_to:x"}) {
    EXPECT_FALSE(Application::canOpenURL(url)) << url;
  }

  // The key only counts in the [Desktop Entry] group.
  write(userApps + "/other.desktop",
        "[Desktop Action extra]\nMimeType=x-scheme-handler/other;\n" + entry(""));
  EXPECT_FALSE(Application::canOpenURL("other:x"));
}

TEST_F(ApplicationTest, HiddenAndRemovedEntriesDoNotCount) {
  write(userApps + "/game.desktop", entry("MimeType=x-scheme-handler/game;\nHidden=true\n"));
  EXPECT_FALSE(Application::canOpenURL("game:start"));

  // The user's hidden copy shadows the system's entry of the same ID.
  write(systemApps + "/web.desktop", entry("MimeType=x-scheme-handler/web;\n"));
  EXPECT_TRUE(Application::canOpenURL("web:page"));
  write(userApps + "/web.desktop", entry("Hidden=true\n"));
  EXPECT_FALSE(Application::canOpenURL("web:page"));

  write(systemApps + "/music.desktop", entry("MimeType=x-scheme-handler/music;\n"));
  write(root + "/config-home/mimeapps.list",
        "[Removed Associations]\nx-scheme-handler/music=music.desktop;\n");
  EXPECT_FALSE(Application::canOpenURL("music:song"));
}

TEST_F(ApplicationTest, MimeappsListsNameHandlers) {
  // Entries without a MimeType key, named only by the lists; junk around
  // the entries must not stop the reading.
  write(systemApps + "/maps.desktop", entry(""));
  write(systemApps + "/notes.desktop", entry(""));
  write(systemApps + "/ghost.desktop", entry("Hidden=true\n"));
  write(root + "/config-home/mimeapps.list",
        "garbage without equals\n[Default Applications]\n# comment\n"
        "x-scheme-handler/maps=missing.desktop;maps.desktop;\n"
        "x-scheme-handler/ghost=ghost.desktop\n=\n[unterminated\nx-scheme-handler/"
        "lost=maps.desktop\n");
  write(systemApps + "/mimeapps.list",
        "[Added Associations]\nx-scheme-handler/notes=notes.desktop;\n");
  EXPECT_TRUE(Application::canOpenURL("maps:here"));
  EXPECT_TRUE(Application::canOpenURL("notes:1"));
  EXPECT_FALSE(Application::canOpenURL("ghost:x"));  // a hidden entry is no handler
  EXPECT_FALSE(Application::canOpenURL("lost:x"));   // outside any known group

  // An unreadable file is passed over.
  write(root + "/config-dir/mimeapps.list",
        "[Default Applications]\nx-scheme-handler/locked=maps.desktop\n");
  chmod((root + "/config-dir/mimeapps.list").c_str(), 0);
  if (geteuid() != 0) {  // root reads it anyway
    EXPECT_FALSE(Application::canOpenURL("locked:x"));
  }
  // A FIFO under a registry name would block a plain open; it is skipped.
  ASSERT_EQ(mkfifo((systemApps + "/fifo.desktop").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((userApps + "/mimeapps.list").c_str(), 0600), 0);
  EXPECT_TRUE(Application::canOpenURL("notes:1"));
  EXPECT_FALSE(Application::canOpenURL("nothing:x"));
}

TEST_F(ApplicationTest, OpenHandsTheExactURLToXdgOpen) {
  write(userApps + "/web.desktop", entry("MimeType=x-scheme-handler/https;\n"));
  EXPECT_FALSE(Application::openURL("https://example.com/"));  // no xdg-open on PATH

  installFakeXdgOpen();
  EXPECT_FALSE(Application::openURL("ftp://example.com/"));  // no handler for the scheme
  const std::string url = "https://example.com/a b?q='x'&r=\"y\";$(touch " + root + "/pwned)`id`\\";
  ASSERT_TRUE(Application::openURL(url));
  EXPECT_EQ(awaitReceived(), url);
  EXPECT_FALSE(std::filesystem::exists(root + "/pwned"));
}
