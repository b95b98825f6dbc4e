#include <NimbFoundation/Platform/Graphics/Image.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "HttpTestServer.h"
#include "TestSupport.h"

using namespace nimb;
using namespace nimb::test;

namespace {

// nimbkit `args` with standard output and error on a new terminal of
// `rows` rows: what the terminal showed, and the exit status.
ToolResult runOnTerminal(const std::vector<std::string>& args, unsigned short rows) {
  std::vector<std::string> words{NIMBKIT_PATH};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int terminal = -1, side = -1;
  winsize size{rows, 100, 0, 0};
  if (::openpty(&terminal, &side, nullptr, nullptr, &size) != 0) return {-1, "", "no pty"};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setsid();
    const int null = ::open("/dev/null", O_RDONLY);
    ::dup2(null, 0);
    ::dup2(side, 1);
    ::dup2(side, 2);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(side);
  std::string shown;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(terminal, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
    if (n > 0) shown.append(buffer, static_cast<std::size_t>(n));
  ::close(terminal);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, shown, ""};
}

}  // namespace

TEST(NimbkitFetch, LoadsIntoViewsThenFromTheCacheAndKeepsToTheTerminal) {
  const ScopedHome home;  // a cache of its own
  HttpTestServer server;
  server.servePictures(pngBody(Image::withBitmap({64, 48, Data(64 * 48 * 4, 0xC0)})));
  server.start();
  const std::string out = makeTemporaryDirectory("fetch-out");

  auto cold = runNimbkit({"fetch", server.url("/pic.png"), "--view", "40x30", "--out", out});
  EXPECT_EQ(cold.exitCode, 0) << cold.err;
  EXPECT_NE(cold.out.find("network"), std::string::npos) << cold.out;
  EXPECT_NE(cold.out.find("64x48"), std::string::npos) << cold.out;
  auto shown = Image::withContentsOfFile(out + "/01-pic.png");
  ASSERT_TRUE(shown);
  EXPECT_EQ(shown->size(), (Size{40, 30}));  // the view as drawn
  auto sheet = Image::withContentsOfFile(out + "/contact-sheet.png");
  ASSERT_TRUE(sheet);
  EXPECT_GT(sheet->size().width, 40);

  auto warm = runNimbkit({"fetch", server.url("/pic.png"), "--out", out});
  EXPECT_EQ(warm.exitCode, 0) << warm.err;
  EXPECT_NE(warm.out.find("cache"), std::string::npos) << warm.out;
  EXPECT_EQ(server.requests.load(), 1);

  // A page that is no picture fails the batch, and says why.
  auto failed = runNimbkit(
      {"fetch", server.url("/page.html"), server.url("/pic.png"), "--crop", "--out", out});
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_NE(failed.out.find("not a picture (406 from 127.0.0.1)"), std::string::npos) << failed.out;
  EXPECT_EQ(runNimbkit({"fetch", server.url("/pic.png"), "--view", "0x9"}).exitCode, 2);

  // The board of bars is drawn only when the terminal holds it; a taller batch falls back to one
  // line per event rather than drawing above the top.
  std::vector<std::string> args{"fetch", "--out", out};
  for (int i = 0; i < 3; ++i) args.push_back(server.url("/p" + std::to_string(i) + ".png"));
  auto fits = runOnTerminal(args, 8);
  EXPECT_EQ(fits.exitCode, 0) << fits.out;
  EXPECT_NE(fits.out.find("\x1b[3A"), std::string::npos) << fits.out;  // back up to the first bar
  EXPECT_NE(fits.out.find("] 100%  p0.png"), std::string::npos) << fits.out;

  for (int i = 3; i < 7; ++i) args.push_back(server.url("/p" + std::to_string(i) + ".png"));
  auto tall = runOnTerminal(args, 8);
  EXPECT_EQ(tall.exitCode, 0) << tall.out;
  EXPECT_EQ(tall.out.find("\x1b["), std::string::npos) << tall.out;
  EXPECT_NE(tall.out.find("p6.png: network\r\n"), std::string::npos) << tall.out;

  // download keeps a picture off the terminal, and a refused connection names where it went.
  auto onTerminal = runOnTerminal({"download", server.url("/a.png")}, 24);
  EXPECT_EQ(onTerminal.exitCode, 1);
  EXPECT_NE(onTerminal.out.find("use -o FILE or redirect standard output"), std::string::npos)
      << onTerminal.out;
  EXPECT_EQ(onTerminal.out.find("PNG"), std::string::npos) << onTerminal.out;
  auto piped = runNimbkit({"download", server.url("/a.png")});
  EXPECT_EQ(piped.exitCode, 0) << piped.err;
  EXPECT_TRUE(piped.out.starts_with("\x89PNG")) << piped.out.substr(0, 8);

  auto refused = runNimbkit({"download", "http://127.0.0.1:1/x.png"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.err.find("nimbkit: cannot connect to 127.0.0.1:1: "), std::string::npos)
      << refused.err;
}

// download stops a server that keeps sending: at --max-size (decoded bytes),
// or at --max-time however steadily the bytes come.
TEST(NimbkitDownload, SizeAndTimeLimitsEndEndlessBodies) {
  const ScopedHome home;  // a cache of its own
  HttpTestServer server;
  server.serveEndless("/endless");
  server.start();
  auto sized = runNimbkit({"download", server.url("/endless"), "--max-size", "1M"});
  EXPECT_EQ(sized.exitCode, 1);
  EXPECT_NE(sized.err.find("maximum of 1048576 bytes. (NSURLErrorDomain -1103)"), std::string::npos)
      << sized.err;
  EXPECT_TRUE(sized.out.empty());
  auto timed =
      runNimbkit({"download", server.url("/endless"), "--max-size", "0", "--max-time", "0.5"});
  EXPECT_EQ(timed.exitCode, 1);
  EXPECT_NE(timed.err.find("(NSURLErrorDomain -1001)"), std::string::npos) << timed.err;
  for (const char* bad : {"12Q", "-1", "", "99999999999G"})
    EXPECT_EQ(runNimbkit({"download", server.url("/endless"), "--max-size", bad}).exitCode, 2)
        << bad;
  EXPECT_EQ(runNimbkit({"download", server.url("/endless"), "--max-time", "0"}).exitCode, 2);
}
