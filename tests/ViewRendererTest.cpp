// ViewRenderer: a view tree drawn into pixels, and the ImageContext state
// (origin, clip, layers) it nests per view.
#include <NimbFoundation/Platform/Graphics/ViewRenderer.h>

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "HttpTestServer.h"

namespace nimb {
namespace {

using namespace test;

constexpr Pixel kClear{0, 0, 0, 0};

std::shared_ptr<View> box(Rect frame, std::optional<Color> color) {
  auto view = std::make_shared<View>(frame);
  view->setBackgroundColor(color);
  return view;
}

TEST(ViewRenderer, DrawsBackToFrontAtNestedOffsetsSkippingHiddenAndBlendingAlpha) {
  auto root = box({100, 100, 40, 40}, Color::redColor());  // its own origin is not applied
  auto child = box({10, 10, 20, 20}, Color::blueColor());
  child->addSubview(box({5, 5, 5, 5}, Color::greenColor()));  // at (15, 15) in the picture
  root->addSubview(child);
  auto hidden = box({0, 30, 10, 10}, Color::blueColor());
  hidden->addSubview(box({0, 0, 5, 5}, Color::greenColor()));  // skipped with its superview
  hidden->setHidden(true);
  root->addSubview(hidden);
  auto half = box({30, 0, 10, 10}, Color::whiteColor());
  half->setAlpha(0.5);
  root->addSubview(half);
  auto notANumber = box({30, 30, 10, 10}, Color::blueColor());
  notANumber->setAlpha(NAN);
  root->addSubview(notANumber);
  auto overOne = box({30, 15, 10, 10}, Color::greenColor());
  overOne->setAlpha(7);
  root->addSubview(overOne);
  // An image view's picture is stretched over its bounds: left half green,
  // right half blue, over 10 x 10 points from 2 x 1 pixels.
  auto picture = std::make_shared<ImageView>(
      Image::withBitmap(filled(2, 1, [](int x, int) { return x == 0 ? kGreen : kBlue; })));
  picture->setFrame({0, 0, 10, 10});
  root->addSubview(picture);

  auto image = ViewRenderer::imageOfView(*root, 1);
  ASSERT_TRUE(image);
  const Bitmap& bm = image->bitmap();
  ASSERT_EQ(std::tuple(bm.width, bm.height), std::tuple(40, 40));
  // (2, 32): hidden, and its subview too; (35, 35): NaN alpha draws nothing.
  const std::tuple<int, int, Pixel> exact[] = {{5, 25, kRed}, {12, 12, kBlue}, {17, 17, kGreen},
                                               {2, 32, kRed}, {35, 35, kRed},  {35, 20, kGreen}};
  for (auto [x, y, want] : exact) EXPECT_EQ(pixel(bm, x, y), want) << x << "," << y;
  EXPECT_LE(farthest(pixel(bm, 35, 5), {255, 128, 128, 255}), 1);
  EXPECT_LE(farthest(pixel(bm, 1, 5), kGreen), 2);
  EXPECT_LE(farthest(pixel(bm, 8, 5), kBlue), 2);

  auto doubled = ViewRenderer::imageOfView(*root, 2);
  EXPECT_EQ(std::tuple(doubled->bitmap().width, doubled->size().width), std::tuple(80, 40.0));
  EXPECT_EQ(ViewRenderer::imageOfView(View({0, 0, 0, 10}), 1), nullptr);
}

TEST(ViewRenderer, ClipsOnlyViewsThatAskAndAppliesAlphaToTheGroup) {
  auto root = box({0, 0, 40, 20}, std::nullopt);
  auto parent = box({0, 0, 10, 10}, Color::redColor());
  parent->addSubview(box({5, 5, 10, 10}, Color::greenColor()));  // sticks out to (15, 15)
  root->addSubview(parent);
  // Two opaque overlapping squares at half opacity as one group: the overlap
  // looks like the rest, not darker.
  auto group = box({20, 0, 20, 20}, std::nullopt);
  group->setAlpha(0.5);
  group->addSubview(box({0, 0, 10, 10}, Color::blueColor()));
  group->addSubview(box({5, 0, 10, 10}, Color::blueColor()));
  root->addSubview(group);

  const Bitmap drawn = ViewRenderer::imageOfView(*root, 1)->bitmap();
  EXPECT_EQ(std::tuple(pixel(drawn, 12, 12), pixel(drawn, 18, 18)), std::tuple(kGreen, kClear));
  EXPECT_LE(farthest(pixel(drawn, 22, 5), {0, 0, 255, 128}), 1);
  EXPECT_EQ(pixel(drawn, 27, 5), pixel(drawn, 22, 5));

  parent->setClipsToBounds(true);
  auto clipped = ViewRenderer::imageOfView(*root, 1);
  EXPECT_EQ(pixel(clipped->bitmap(), 12, 12), kClear);
  EXPECT_EQ(pixel(clipped->bitmap(), 7, 7), kGreen);

  // The context's state is as it was before drawing: a later fill lands at
  // the translated origin, outside the clip the views used.
  ImageContext context({40, 20}, false, 1);
  context.translate(20, 0);
  ViewRenderer::drawView(*root, context);
  context.fillRect({0, 15, 5, 5}, Color::redColor());
  auto after = context.image();
  EXPECT_EQ(pixel(after->bitmap(), 22, 17), kRed);
  EXPECT_EQ(pixel(after->bitmap(), 27, 7), kGreen);
  EXPECT_EQ(pixel(after->bitmap(), 2, 2), kClear);
}

}  // namespace
}  // namespace nimb
