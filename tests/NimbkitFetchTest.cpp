#include <NimbFoundation/Platform/Graphics/Image.h>

#include <gtest/gtest.h>

#include "HttpTestServer.h"
#include "TestSupport.h"

using namespace nimb;
using namespace nimb::test;

TEST(NimbkitFetch, LoadsIntoViewsFromTheNetworkThenFromTheCache) {
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
  for (const char* bad : {"12Q", "-1", "", "99999999999G"}) {
    EXPECT_EQ(runNimbkit({"download", server.url("/endless"), "--max-size", bad}).exitCode, 2)
        << bad;
  }
  EXPECT_EQ(runNimbkit({"download", server.url("/endless"), "--max-time", "0"}).exitCode, 2);
}
