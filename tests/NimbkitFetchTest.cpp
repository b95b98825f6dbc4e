#include <NimbFoundation/Platform/Image.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "HttpTestServer.h"
#include "TestSupport.h"

using nimb::test::runNimbkit;

TEST(NimbkitFetch, LoadsIntoViewsFromTheNetworkThenFromTheCache) {
  nimb::test::HttpTestServer server;
  std::atomic<int> requests{0};
  const std::string png = nimb::test::pngBody(
      nimb::Image::withBitmap({64, 48, std::vector<std::uint8_t>(64 * 48 * 4, 0xC0)}));
  server.server().Get("/pic.png", [&](const httplib::Request&, httplib::Response& res) {
    ++requests;
    res.set_content(png, "image/png");
  });
  server.serve("/page.html", "<html></html>", 200, {}, "text/html");
  server.start();
  const std::string out = nimb::test::makeTemporaryDirectory("fetch-out");

  auto cold = runNimbkit({"fetch", server.url("/pic.png"), "--view", "40x30", "--out", out});
  EXPECT_EQ(cold.exitCode, 0) << cold.err;
  EXPECT_NE(cold.out.find("network"), std::string::npos) << cold.out;
  EXPECT_NE(cold.out.find("64x48"), std::string::npos) << cold.out;
  auto shown = nimb::Image::withContentsOfFile(out + "/01-pic.png");
  ASSERT_TRUE(shown);
  EXPECT_EQ(shown->size(), (nimb::Size{40, 30}));  // the view as drawn
  auto sheet = nimb::Image::withContentsOfFile(out + "/contact-sheet.png");
  ASSERT_TRUE(sheet);
  EXPECT_GT(sheet->size().width, 40);

  auto warm = runNimbkit({"fetch", server.url("/pic.png"), "--out", out});
  EXPECT_EQ(warm.exitCode, 0) << warm.err;
  EXPECT_NE(warm.out.find("cache"), std::string::npos) << warm.out;
  EXPECT_EQ(requests.load(), 1);

  // A page that is no picture fails the batch, and says why.
  auto failed = runNimbkit(
      {"fetch", server.url("/page.html"), server.url("/pic.png"), "--crop", "--out", out});
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_NE(failed.out.find("not a picture (406 from 127.0.0.1)"), std::string::npos) << failed.out;
  EXPECT_EQ(runNimbkit({"fetch", server.url("/pic.png"), "--view", "0x9"}).exitCode, 2);
}
