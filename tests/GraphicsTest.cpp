// Graphics: cropping in pixels, offscreen contexts, alpha and compositing (drawing with an
// orientation is checked through NimbKit::fixOrientation in NimbKitImageTest).
#include <NimbFoundation/Platform/Env/Device.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "HttpTestServer.h"
#include "TestSupport.h"

namespace nimb {
namespace {

using O = ImageOrientation;
using namespace test;

// Every pixel tells where it came from.
Pixel where(int x, int y) {
  return {x & 255, x >> 8, y, 255};
}

TEST(Graphics, CropIsInPixelsMadeIntegralThenClipped) {
  const Bitmap source = filled(300, 200, where);
  const struct {
    Rect rect;
    int x, y, width, height;
  } cases[] = {{{50, 0, 200, 200}, 50, 0, 200, 200},  {{10.5, 20.2, 5, 5.5}, 10, 20, 6, 6},
               {{-10, 150, 40, 100}, 0, 150, 30, 50}, {{250, -5, 100, 10}, 250, 0, 50, 5},
               {{60, 10, -20, 5}, 40, 10, 20, 5},     {{0, 0, INFINITY, 1}, 0, 0, 300, 1}};
  for (const auto& c : cases) {
    auto crop = Graphics::cropBitmap(source, c.rect);
    ASSERT_TRUE(crop) << c.rect.origin.x;
    ASSERT_EQ(std::tuple(crop->width, crop->height, crop->rgba.size()),
              std::tuple(c.width, c.height, std::size_t(c.width) * c.height * 4));
    for (int y = 0; y < c.height; ++y)
      for (int x = 0; x < c.width; ++x) ASSERT_EQ(pixel(*crop, x, y), where(c.x + x, c.y + y));
  }
  for (Rect empty : {Rect{0, 0, 0, 10}, Rect{300, 0, 10, 10}, Rect{-50, -50, 20, 20},
                     Rect{NAN, 0, 5, 5}, Rect{0, 0, 5, NAN}, Rect{-INFINITY, 0, INFINITY, 5}})
    EXPECT_FALSE(Graphics::cropBitmap(source, empty)) << empty.origin.x << " " << empty.size.width;
  EXPECT_FALSE(Graphics::cropBitmap(Bitmap{2, 2, Data(15)}, {0, 0, 1, 1}));

  auto image = Image::withBitmap(source, 3.0, O::Down);
  auto cropped = Graphics::imageWithCroppedBitmap(*image, {0, 0, 40, 20}, 2.0, O::Right);
  ASSERT_TRUE(cropped);
  EXPECT_EQ(cropped->size(), (Size{10, 20}));
  EXPECT_EQ(cropped->orientation(), O::Right);
  EXPECT_FALSE(Graphics::imageWithCroppedBitmap(*image, {400, 0, 1, 1}, 1.0, O::Up));
}

TEST(Graphics, ContextsStartClearOrBlackAtTheirOrTheScreensScale) {
  for (bool opaque : {false, true}) {
    const Bitmap out = ImageContext({100, 100}, opaque, 1).image()->bitmap();
    for (int i : {0, 5050, 9999})
      EXPECT_EQ(pixel(out, i % 100, i / 100), (Pixel{0, 0, 0, opaque ? 255 : 0}));
  }
  auto retina = ImageContext({100, 100}, false, 2).image();
  EXPECT_EQ(retina->bitmap().width, 200);
  EXPECT_EQ(retina->size(), (Size{100, 100}));
  EXPECT_EQ(ImageContext({10.4, 3}, false, 1).size(), (Size{10, 3}));  // whole pixels

  for (Size bad : {Size{0, 10}, Size{NAN, 10}, Size{-5, 5}, Size{20000, 20000}, Size{40000, 1}}) {
    ImageContext context(bad, false, 1);
    EXPECT_FALSE(context.isValid()) << bad.width;
    EXPECT_EQ(context.size(), (Size{}));
    context.fillRect({0, 0, 10, 10}, {});
    EXPECT_FALSE(context.image());
  }
  // Without a scale of its own, the main screen's; without a screen, 1.
  nimb::test::FakeMachine machine;
  machine->device = nimb::DeviceFacts{};
  machine->device->mainScreen = ScreenFacts{{320, 480}, 3.0, std::nullopt};
  for (double unset : {0.0, double(NAN)})
    EXPECT_EQ(ImageContext({10, 10}, false, unset).image()->bitmap().width, 30);
  machine->device->mainScreen = std::nullopt;  // no screen
  EXPECT_EQ(ImageContext({10, 10}, false, -1).scale(), 1);
}

TEST(Graphics, DrawnImagesFillTheirRectangleToTheEdges) {
  // 300x200, red on the left half and blue on the right, squeezed into squares.
  auto image =
      Image::withBitmap(filled(300, 200, [](int x, int) { return x < 150 ? kRed : kBlue; }));
  for (double scale : {1.0, 2.0}) {
    ImageContext context({100, 100}, false, scale);
    context.drawImage(*image, {0, 0, 100, 100});
    const Bitmap out = context.image()->bitmap();  // a copy, as the image is a temporary
    const int n = int(100 * scale);
    ASSERT_EQ(out.width, n);
    for (auto [x, y] : {std::pair{0, 0}, {n * 2 / 5, n / 2}, {0, n - 1}})
      EXPECT_LE(farthest(pixel(out, x, y), kRed), 1) << x << "," << y;
    for (auto [x, y] : {std::pair{n - 1, n - 1}, {n * 3 / 5, n / 2}, {n - 1, 0}})
      EXPECT_LE(farthest(pixel(out, x, y), kBlue), 1) << x << "," << y;
  }
  // A part of the context only, and upscaled; the rest stays clear.
  ImageContext context({100, 100}, false, 1);
  context.drawImage(*image, {25, 25, 600, 50});
  const Bitmap out = context.image()->bitmap();
  EXPECT_LE(farthest(pixel(out, 30, 50), kRed), 1) << "inside";
  // No fading at the edge, though the filter reaches out.
  EXPECT_LE(farthest(pixel(out, 25, 50), kRed), 1) << "edge";
  for (int y : {20, 80}) EXPECT_EQ(pixel(out, 30, y), (Pixel{})) << y;
}

TEST(Graphics, StraightAlphaSurvivesARoundTripAndImagesComposite) {
  const Pixel in[] = {{255, 0, 0, 128},     {200, 100, 50, 128}, {17, 250, 3, 255},
                      {201, 201, 201, 100}, {128, 128, 128, 2},  {255, 255, 255, 0}};
  // 201 at alpha 100 premultiplies to 78.8, which must round up to come back near. 128 at alpha 2
  // premultiplies to 1, which comes back as 127.5 and must round up. Colour under zero alpha is
  // not kept.
  const Pixel out[] = {in[0], in[1], in[2], in[3], in[4], {0, 0, 0, 0}};
  auto image = Image::withBitmap(filled(6, 1, [&](int x, int) { return in[x]; }));
  ImageContext context({6, 1}, false, 1);
  context.drawImage(*image, {0, 0, 6, 1});
  const Bitmap back = context.image()->bitmap();
  for (int x = 0; x < 6; ++x) EXPECT_LE(farthest(pixel(back, x, 0), out[x]), x < 4 ? 1 : 0) << x;

  // Images composite over each other, and snapshots stay put: A (60x20: half-transparent red, then
  // green) over B (40x30 blue), each at its own size.
  auto b = Image::withBitmap(filled(40, 30, [](int, int) { return kBlue; }));
  auto a = Image::withBitmap(filled(60, 20, [](int x, int) {
    return x < 30 ? Pixel{255, 0, 0, 128} : kGreen;
  }));
  ImageContext canvas(b->size(), false, 1);
  canvas.drawImage(*b, {{0, 0}, b->size()});
  auto before = canvas.image();
  canvas.drawImage(*a, {{0, 0}, a->size()});
  auto sum = canvas.image();
  ASSERT_EQ(sum->size(), (Size{40, 30}));
  EXPECT_LE(farthest(pixel(sum->bitmap(), 10, 10), {128, 0, 127, 255}), 1) << "blend";
  EXPECT_EQ(pixel(sum->bitmap(), 35, 10), kGreen);
  EXPECT_EQ(pixel(sum->bitmap(), 35, 25), kBlue);
  EXPECT_EQ(pixel(before->bitmap(), 10, 10), kBlue);
}

TEST(Graphics, RectanglesAndTextDrawWhereAsked) {
  ImageContext context({50, 50}, false, 2);
  context.fillRect({10, 10, -5, 5}, {0, 0, 1, 0.5});  // covers x 5..10
  context.fillRect({NAN, 0, 50, 50}, {1, 0, 0, 1});
  context.strokeRect({20, 20, 20, 20}, {0, 1, 0, 1}, 2);  // the band 19..21 around the edges
  context.drawText("\xff\xfe", {0, 40}, 12, {1, 0, 0, 1});
  context.drawText("Hi", {0, 48}, 12, {1, 1, 1, 1});
  const Bitmap out = context.image()->bitmap();
  EXPECT_LE(farthest(pixel(out, 15, 25), {0, 0, 255, 128}), 1) << "fill";
  EXPECT_EQ(pixel(out, 21, 25), (Pixel{}));
  for (auto [x, y] : {std::pair{38, 60}, {41, 41}, {81, 38}, {60, 80}})
    EXPECT_EQ(pixel(out, x, y), kGreen) << x << "," << y;  // edges and the square corner
  for (int x : {36, 43, 60, 84}) EXPECT_EQ(pixel(out, x, 60), (Pixel{})) << x;
  int red = 0, lit = 0;  // red from the NaN fill or the broken text; white from the label
  for (std::size_t i = 0; i < out.rgba.size(); i += 4) {
    red += out.rgba[i] > 0 && out.rgba[i + 1] == 0;
    lit += out.rgba[i] == 255 && out.rgba[i + 2] == 255 && i / 400 >= 70 && i / 400 < 96;
  }
  EXPECT_EQ(red, 0);
  EXPECT_GT(lit, 10);

  ImageContext huge({10, 10}, false, 1);
  huge.fillRect({-1e300, -1e300, 1.5e300, 1.5e300}, {1, 1, 1, 1});
  huge.strokeRect({-1e300, 5, 2e300, 1e300}, {1, 0, 0, 1}, 2);  // only the top edge shows
  for (int y = 0; y < 10; ++y)
    EXPECT_EQ(pixel(huge.image()->bitmap(), 5, y)[1], y == 4 || y == 5 ? 0 : 255) << y;
}

}  // namespace
}  // namespace nimb
