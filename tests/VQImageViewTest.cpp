#include <NimbFoundation/Images/VQImageView.h>

#include <NimbFoundation/Images/VQCache.h>

#include <gtest/gtest.h>

#include <atomic>

#include "HttpTestServer.h"
#include "TestSupport.h"

using nimb::Bitmap;
using nimb::Image;
using nimb::Notification;
using nimb::NotificationCenter;
using nimb::Rect;
using nimb::Size;
using nimb::URL;
using nimb::VQCache;
using nimb::VQImageLoader;
using nimb::VQImageView;
using nimb::VQImageViewDelegate;
using nimb::test::pumpFor;
using nimb::test::pumpUntil;

namespace {

// Three vertical bands: red, green, blue; the outer bands each a quarter
// of the width when the picture is 300 wide (50 + 200 + 50).
std::shared_ptr<const Image> bands(int width, int height) {
  Bitmap bitmap{width, height, std::vector<std::uint8_t>(width * height * 4)};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = &bitmap.rgba[(y * width + x) * 4];
      const int band = x < width / 6 ? 0 : x >= width - width / 6 ? 2 : 1;
      p[0] = band == 0 ? 255 : 0, p[1] = band == 1 ? 255 : 0, p[2] = band == 2 ? 255 : 0;
      p[3] = 255;
    }
  }
  return Image::withBitmap(std::move(bitmap));
}

struct Told {
  int loaded = 0, failed = 0;
  std::vector<float> percents;
  std::shared_ptr<VQImageViewDelegate> delegate() {
    auto d = std::make_shared<VQImageViewDelegate>();
    d->imageViewLoadedImage = [this](VQImageView&) { ++loaded; };
    d->imageViewFailedToLoadImage = [this](VQImageView&, const nimb::Error&) { ++failed; };
    d->imageViewLoadedImageSizePercent = [this](float p, VQImageView&) { percents.push_back(p); };
    return d;
  }
};

class VQImageViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.server().Get(R"(/(.*))", [this](const httplib::Request& req, httplib::Response& res) {
      // "flaky" paths answer with a page that is no picture the first time.
      if (++requests == 1 && req.path.find("flaky") != std::string::npos) {
        res.set_content("<html>try again</html>", "text/html");
        return;
      }
      res.set_content(picture, "image/png");
    });
    server.start();
  }
  URL url(const std::string& path) { return *URL::withString(server.url("/" + path)); }
  void settle() {
    VQCache::currentCache()->diskOperationQueue().waitUntilAllOperationsAreFinished();
  }

  const std::shared_ptr<const Image> placeholder =
      Image::withBitmap(Bitmap{2, 2, std::vector<std::uint8_t>(16, 9)});
  std::string picture = nimb::test::pngBody(bands(300, 200));
  nimb::test::HttpTestServer server;
  std::atomic<int> requests{0};
  Told told;
  std::shared_ptr<VQImageViewDelegate> delegate = told.delegate();
};

}  // namespace

TEST_F(VQImageViewTest, NilURLShowsThePlaceholderAndCachedPicturesShowAtOnce) {
  auto view = VQImageView::createWithPlaceholderImage(placeholder, delegate);
  EXPECT_EQ(view->image(), placeholder);
  EXPECT_TRUE(view->isAutoStart());
  EXPECT_TRUE(view->isOpaque());
  view->setImageURL(std::nullopt);
  EXPECT_FALSE(view->imageURL());
  EXPECT_EQ(view->image(), placeholder);
  EXPECT_EQ(told.loaded, 0);

  VQCache::currentCache()->setData(nimb::Data(picture.begin(), picture.end()),
                                   VQImageLoader::keyForURL(url("cached.png")));
  settle();
  view->setImageURL(url("cached.png"));
  EXPECT_EQ(told.loaded, 1);  // before setImageURL returned
  ASSERT_TRUE(view->image());
  EXPECT_EQ(view->image()->size(), (Size{300, 200}));
  EXPECT_EQ(view->status(), VQImageView::kNotLoaded);
  EXPECT_TRUE(view->isCacheImage());
  pumpFor(0.1);
  EXPECT_EQ(requests.load(), 0);
}

TEST_F(VQImageViewTest, DownloadShowsThePictureAndTellsTheDelegate) {
  auto view = VQImageView::createWithPlaceholderImage(placeholder, delegate);
  view->setImageURL(url("a.png"));
  EXPECT_EQ(view->image(), placeholder);
  EXPECT_FALSE(view->isCacheImage());
  ASSERT_TRUE(pumpUntil([&] { return told.loaded > 0; }, 10));
  EXPECT_EQ(view->status(), VQImageView::kLoaded);
  EXPECT_EQ(view->image()->size(), (Size{300, 200}));
  ASSERT_FALSE(told.percents.empty());
  EXPECT_FLOAT_EQ(told.percents.back(), 1.0f);
  settle();  // the cache writes the bytes on its disk queue
  EXPECT_TRUE(view->isCacheImage());
  EXPECT_EQ(requests.load(), 1);

  // Teardown leaves the loader's notifications.
  view.reset();
  EXPECT_EQ(NotificationCenter::defaultCenter().observerCount(), 0u);
}

TEST_F(VQImageViewTest, CroppingCutsTheCentredSquareAtTwiceTheShorterSide) {
  auto view = VQImageView::createWithPlaceholderImage(placeholder, delegate);
  view->setFrame(Rect(0, 0, 50, 80));
  view->setNeedCutOff(true);
  // 300 x 200: the square (50, 0, 200, 200) is the green band only.
  auto crop = view->cutOffImage(bands(300, 200));
  ASSERT_TRUE(crop);
  EXPECT_EQ(crop->size(), (Size{100, 100}));
  const auto& pixels = crop->bitmap().rgba;
  for (int i : {0, 49, 50 * 100 + 50, 100 * 100 - 1}) {
    EXPECT_EQ(pixels[i * 4 + 0], 0) << i;
    EXPECT_EQ(pixels[i * 4 + 1], 255) << i;
  }
  view->setFrame(Rect(0, 0, 40, 40));
  EXPECT_EQ(view->cutOffImage(bands(200, 300))->size(), (Size{80, 80}));
  view->setNeedCutOff(false);
  auto same = bands(10, 10);
  EXPECT_EQ(view->cutOffImage(same), same);
}

TEST_F(VQImageViewTest, ACroppingViewDownloadsOnlyWhenStartedByHand) {
  auto view = VQImageView::createWithPlaceholderImage(placeholder, delegate);
  view->setFrame(Rect(0, 0, 50, 80));
  view->setNeedCutOff(true);
  view->setImageURL(url("crop.png"));
  view->startImageLoad();  // auto-start is on: nothing
  pumpFor(0.2);
  EXPECT_EQ(requests.load(), 0);
  EXPECT_EQ(view->image(), placeholder);

  view->setIsAutoStart(false);
  view->startImageLoad();
  ASSERT_TRUE(pumpUntil([&] { return told.loaded > 0; }, 10));
  EXPECT_EQ(view->image()->size(), (Size{100, 100}));
  settle();
  EXPECT_TRUE(
      VQCache::currentCache()->hasCacheForKey(VQImageView::cutOffKeyForURL(url("crop.png"))));
  // Clearing drops the loader's entry only; the crop keeps the view cached.
  view->clearCache();
  EXPECT_FALSE(VQImageLoader::sharedImageLoader()->hasLoadedImageURL(url("crop.png")));
  EXPECT_TRUE(view->isCacheImage());

  // A second cropping view finds the crop without a download.
  auto other = VQImageView::createWithPlaceholderImage(placeholder);
  other->setNeedCutOff(true);
  other->setImageURL(url("crop.png"));
  EXPECT_EQ(other->image()->size(), (Size{100, 100}));
  EXPECT_EQ(requests.load(), 1);
}

TEST_F(VQImageViewTest, FailuresForAnyURLMarkTheViewButOnlyItsOwnReachTheDelegate) {
  auto view = VQImageView::createWithPlaceholderImage(placeholder, delegate);
  view->setImageURL(url("mine.png"));
  auto notify = [&](const URL& u) {
    Notification n{"ignored", nullptr, {{"imageURL", u}, {"error", nimb::Error{"x", 1, {}}}}};
    view->imageLoaderDidFailToLoad(n);
  };
  notify(url("someone-else.png"));
  EXPECT_EQ(view->status(), VQImageView::kFailed);
  EXPECT_EQ(told.failed, 0);
  notify(url("mine.png"));
  EXPECT_EQ(told.failed, 1);
  EXPECT_EQ(view->image(), placeholder);

  // Progress and completion for another URL change nothing.
  Notification other{
      "ignored", nullptr, {{"imageURL", url("someone-else.png")}, {"percent", 0.5f}}};
  view->imageLoaderDidLoadPercent(other);
  view->imageLoaderDidLoad(other);
  EXPECT_TRUE(told.percents.empty());
  EXPECT_EQ(told.loaded, 0);
  EXPECT_EQ(view->status(), VQImageView::kFailed);
}

TEST_F(VQImageViewTest, CacheLifetimeRefusesNonPositiveValuesOnThePlatformLog) {
  auto view = VQImageView::create();
  const std::string err = nimb::test::captureOutput(2, [&] {
    view->setCacheSecondes(0);
    view->setCacheSecondes(-2.5);
  });
  EXPECT_NE(err.find("] [0.000000] is error\n"), std::string::npos) << err;
  EXPECT_NE(err.find("] [-2.500000] is error\n"), std::string::npos) << err;
  EXPECT_EQ(VQImageLoader::sharedImageLoader()->cache_seconds(), 604800.0);
  view->setCacheSecondes(60);
  EXPECT_EQ(VQImageLoader::sharedImageLoader()->cache_seconds(), 60.0);
}

// A delegate that sets the same URL again when it hears of a failure gets
// the picture: the retry is a new download, not lost in the old one's end.
TEST_F(VQImageViewTest, ADelegateThatRetriesOnFailureGetsThePicture) {
  auto view = VQImageView::createWithPlaceholderImage(placeholder);
  auto retrying = std::make_shared<VQImageViewDelegate>();
  retrying->imageViewLoadedImage = [&](VQImageView&) { ++told.loaded; };
  retrying->imageViewFailedToLoadImage = [&](VQImageView& v, const nimb::Error& error) {
    EXPECT_EQ(error.code, 406);
    if (++told.failed == 1) v.setImageURL(url("flaky.png"));
  };
  view->setDelegate(retrying);
  view->setImageURL(url("flaky.png"));
  ASSERT_TRUE(pumpUntil([&] { return told.loaded > 0; }, 10));
  EXPECT_EQ(told.failed, 1);
  EXPECT_EQ(requests.load(), 2);
  EXPECT_EQ(view->status(), VQImageView::kLoaded);
  EXPECT_EQ(view->image()->size(), (Size{300, 200}));
}
