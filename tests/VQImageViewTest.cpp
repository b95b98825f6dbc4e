#include <NimbFoundation/Images/VQImageView.h>

#include <gtest/gtest.h>

#include <cmath>

#include <NimbFoundation/Platform/Env/Device.h>

#include "FakeTransport.h"
#include "HttpTestServer.h"

using namespace nimb;
using namespace nimb::test;

namespace {

// Three vertical bands: red, green, blue; the outer bands each a sixth of
// the width (50 + 200 + 50 when the picture is 300 wide).
std::shared_ptr<const Image> bands(int width, int height) {
  return Image::withBitmap(filled(width, height, [&](int x, int) {
    return x < width / 6 ? kRed : x >= width - width / 6 ? kBlue : kGreen;
  }));
}

struct Told {
  int loaded = 0, failed = 0;
  std::vector<float> percents;
  std::shared_ptr<VQImageViewDelegate> delegate() {
    auto d = std::make_shared<VQImageViewDelegate>();
    d->imageViewLoadedImage = [this](VQImageView&) { ++loaded; };
    d->imageViewFailedToLoadImage = [this](VQImageView&, const Error&) { ++failed; };
    d->imageViewLoadedImageSizePercent = [this](float p, VQImageView&) { percents.push_back(p); };
    return d;
  }
};

// Views on a loader whose transport answers `picture`, but a page that is no
// picture the first time a path starting "flaky" is asked for.
class VQImageViewTest : public LoaderFixture {
 protected:
  FakeTransport::Reply reply(const std::string& path, int hit) override {
    if (hit == 1 && path.starts_with("/flaky")) return {"<html></html>", "text/html"};
    return {picture};
  }
  void TearDown() override {
    view.reset();
    LoaderFixture::TearDown();
  }

  const std::shared_ptr<const Image> placeholder =
      Image::withBitmap(Bitmap{2, 2, std::vector<std::uint8_t>(16, 9)});
  std::string picture = pngBody(bands(300, 200));
  Told told;
  std::shared_ptr<VQImageViewDelegate> delegate = told.delegate();
  std::shared_ptr<VQImageView> view =
      VQImageView::createWithPlaceholderImage(placeholder, delegate, loader);
};

}  // namespace

// Without a URL the placeholder shows; a download shows the picture when it
// arrives and caches it; another view of that URL shows it before
// setImageURL returns.
TEST_F(VQImageViewTest, PlaceholderThenDownloadThenTheCachedPictureAtOnce) {
  view->setImageURL(std::nullopt);
  EXPECT_EQ(view->image(), placeholder);

  view->setImageURL(url("a.png"));
  EXPECT_EQ(view->image(), placeholder);
  EXPECT_FALSE(view->isCacheImage());
  EXPECT_EQ(told.loaded, 0);
  ASSERT_TRUE(pumpUntil([&] { return told.loaded > 0; }, 10));
  EXPECT_EQ(view->status(), VQImageView::kLoaded);
  EXPECT_EQ(view->image()->size(), (Size{300, 200}));
  ASSERT_FALSE(told.percents.empty());
  EXPECT_FLOAT_EQ(told.percents.back(), 1.0f);
  settle();
  EXPECT_TRUE(view->isCacheImage());

  auto cached = VQImageView::createWithPlaceholderImage(placeholder, delegate, loader);
  cached->setImageURL(url("a.png"));
  EXPECT_EQ(told.loaded, 2);
  ASSERT_TRUE(cached->image());
  EXPECT_EQ(cached->image()->size(), (Size{300, 200}));
  EXPECT_EQ(cached->status(), VQImageView::kNotLoaded);
  EXPECT_TRUE(cached->isCacheImage());
  ASSERT_TRUE(RunLoop::current().runUntilIdle(10));
  EXPECT_EQ(requests.load(), 1);

  // Teardown, or a change of loader, leaves the loader's notifications.
  cached->setImageURL(url("b.png"));
  EXPECT_GT(center.observerCount(), 0u);
  cached->setImageLoader(nullptr);
  EXPECT_EQ(cached->imageLoader(), VQImageLoader::sharedImageLoader());
  EXPECT_EQ(VQImageView::create()->imageLoader(), VQImageLoader::sharedImageLoader());
  cached->cancelImageLoad();
  view.reset(), cached.reset();
  EXPECT_EQ(center.observerCount(), 0u);
}

// A cropping view shows the centred square of the picture at twice its
// shorter side, downloads only when started by hand and caches the crop.
TEST_F(VQImageViewTest, CroppingCutsTheCentredSquareAndDownloadsOnlyWhenStartedByHand) {
  view->setFrame(Rect(0, 0, 50, 80));
  view->setNeedCutOff(true);
  // 300 x 200: the square (50, 0, 200, 200) is the green band only.
  auto crop = view->cutOffImage(bands(300, 200));
  ASSERT_TRUE(crop);
  EXPECT_EQ(crop->size(), (Size{100, 100}));
  for (auto [x, y] : {std::pair{0, 0}, {49, 0}, {50, 50}, {99, 99}})
    EXPECT_EQ(pixel(crop->bitmap(), x, y), kGreen) << x << "," << y;

  view->setImageURL(url("crop.png"));
  view->startImageLoad();  // auto-start is on: nothing
  ASSERT_TRUE(RunLoop::current().runUntilIdle(10));
  EXPECT_EQ(requests.load(), 0);
  EXPECT_EQ(view->image(), placeholder);
  view->setIsAutoStart(false);
  view->startImageLoad();
  ASSERT_TRUE(pumpUntil([&] { return told.loaded > 0; }, 10));
  EXPECT_EQ(view->image()->size(), (Size{100, 100}));
  settle();
  EXPECT_TRUE(cache->hasCacheForKey(VQImageView::cutOffKeyForURL(url("crop.png"))));
  // Clearing drops the loader's entry only; the crop keeps the view cached.
  view->clearCache();
  EXPECT_FALSE(loader->hasLoadedImageURL(url("crop.png")));
  EXPECT_TRUE(view->isCacheImage());

  // A second cropping view finds the crop without a download.
  auto other = VQImageView::createWithPlaceholderImage(placeholder, {}, loader);
  other->setNeedCutOff(true);
  other->setImageURL(url("crop.png"));
  EXPECT_EQ(other->image()->size(), (Size{100, 100}));
  EXPECT_EQ(requests.load(), 1);

  view->setFrame(Rect(0, 0, 40, 40));
  EXPECT_EQ(view->cutOffImage(bands(200, 300))->size(), (Size{80, 80}));
  view->setNeedCutOff(false);
  auto same = bands(10, 10);
  EXPECT_EQ(view->cutOffImage(same), same);
}

// Off by default; on, a view asks for its own pixels (a cropping view for
// its square) and shows a picture decoded for them, while a view with the
// switch off still gets the whole picture of the same URL.
TEST_F(VQImageViewTest, DecodingForTheViewSizeIsOffByDefaultAndAsksForItsPixels) {
  const double s = Device::mainScreenScale();
  auto pixels = [s](double w, double h) {
    return PixelSize{int(std::ceil(w * s)), int(std::ceil(h * s))};
  };
  view->setFrame(Rect(0, 0, 30, 20));
  EXPECT_EQ(view->decodeSize(), PixelSize{});
  view->setDecodesForViewSize(true);
  EXPECT_EQ(view->decodeSize(), pixels(30, 20));
  view->setImageURL(url("a.png"));
  ASSERT_TRUE(pumpUntil([&] { return told.loaded > 0; }, 10));
  ASSERT_EQ(view->image()->pixelSize(), pixels(30, 20));
  const auto& shown = view->image()->bitmap();
  EXPECT_EQ(pixel(shown, 0, 0), kRed);
  EXPECT_EQ(pixel(shown, shown.width / 2, shown.height / 2), kGreen);
  settle();
  auto whole = VQImageView::createWithPlaceholderImage(placeholder, {}, loader);
  whole->setImageURL(url("a.png"));
  EXPECT_EQ(whole->image()->pixelSize(), (PixelSize{300, 200}));

  view->setNeedCutOff(true);
  EXPECT_EQ(view->decodeSize(), pixels(40, 40));
  view->setFrame(Rect(0, 0, 0, 0));
  EXPECT_EQ(view->decodeSize(), PixelSize{});  // no size yet: the whole picture
}

TEST_F(VQImageViewTest, FailuresForAnyURLMarkTheViewButOnlyItsOwnReachTheDelegate) {
  view->setImageURL(url("mine.png"));
  auto notify = [&](const URL& u) {
    Notification n{"ignored", nullptr, {{"imageURL", u}, {"error", Error{"x", 1, {}}}}};
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
  const std::string err = captureOutput(2, [&] {
    for (double bad : {0.0, -2.5}) view->setCacheSecondes(bad);
  });
  for (const char* logged : {"] [0.000000] is error\n", "] [-2.500000] is error\n"})
    EXPECT_NE(err.find(logged), std::string::npos) << err;
  view->setCacheSecondes(60);
  EXPECT_EQ(loader->cache_seconds(), 60.0);
}

// A delegate that sets the same URL again when it hears of a failure gets
// the picture: the retry is a new download, not lost in the old one's end.
TEST_F(VQImageViewTest, ADelegateThatRetriesOnFailureGetsThePicture) {
  auto retrying = told.delegate();
  retrying->imageViewFailedToLoadImage = [&](VQImageView& v, const Error& error) {
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
