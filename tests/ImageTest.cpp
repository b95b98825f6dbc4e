// Image: PNG, JPEG, GIF and WebP decoding and encoding, EXIF orientation, points, refusal of
// broken pictures, background decoding and the reuse of pixel buffers.
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <turbojpeg.h>
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <thread>

#include "HttpTestServer.h"
#include "TestSupport.h"

namespace nimb {
namespace {

using O = ImageOrientation;
using test::filled, test::pixel, test::Pixel;

// Writes `v` as `n` bytes at `at`, growing `d` as needed.
void put(Data& d, std::size_t at, std::uint32_t v, int n, bool little = false) {
  if (d.size() < at + n) d.resize(at + n);
  for (int i = 0; i < n; ++i) d[at + i] = std::uint8_t(v >> 8 * (little ? i : n - 1 - i));
}

// Colours vary per pixel; alpha runs through 0 (under a non-black colour) and 255.
Bitmap pattern(int width, int height) {
  Bitmap bm{width, height, Data(std::size_t(width) * height * 4)};
  for (std::size_t i = 0; i < bm.rgba.size(); ++i)
    bm.rgba[i] = std::uint8_t(i % 4 == 3 ? i / 4 * 17 : i * 37 + 7);
  return bm;
}

Data pngOf(const Bitmap& bm) {
  return *Image::withBitmap(bm)->pngRepresentation();
}

// Smooth and opaque, kind to the lossy codecs.
Bitmap gradient(int w, int h) {
  return filled(w, h, [&](int x, int y) {
    return Pixel{x * 255 / (w - 1), y * 255 / (h - 1), (x + y) * 255 / (w + h - 2), 255};
  });
}

int maxDifference(const Data& a, const Data& b) {
  if (a.size() != b.size()) return 256;
  int most = 0;
  for (std::size_t i = 0; i < a.size(); ++i) most = std::max(most, std::abs(a[i] - b[i]));
  return most;
}

bool allZero(const Data& d) {
  return !d.empty() && std::all_of(d.begin(), d.end(), [](auto b) { return b == 0; });
}

// The GIF encoder's colour levels: 6 for red and blue, 7 for green.
const std::vector<int> kRedBlueLevels = {0, 51, 102, 153, 204, 255};
const std::vector<int> kGreenLevels = {0, 43, 85, 128, 170, 213, 255};

// A RIFF chunk: tag, little-endian size, payload, padded to an even length.
Data chunk(const char* tag, const Data& payload) {
  Data d;
  d.reserve(8 + payload.size() + 1);  // one buffer for the whole chunk
  d.assign(tag, tag + 4);
  put(d, 4, std::uint32_t(payload.size()), 4, true);
  d.insert(d.end(), payload.begin(), payload.end());
  if (d.size() % 2) d.push_back(0);
  return d;
}

// An animated WebP on a `width` x `height` canvas: one lossless frame per
// {bitmap, x, y} (even offsets), built chunk by chunk as the container lays it out.
Data animatedWebP(std::uint32_t width, std::uint32_t height,
                  const std::vector<std::tuple<Bitmap, int, int>>& frames) {
  Data vp8x(10), anim(6);
  vp8x[0] = 0x12;  // animation, alpha
  put(vp8x, 4, width - 1, 3, true);
  put(vp8x, 7, height - 1, 3, true);
  Data body = {'W', 'E', 'B', 'P'};
  for (const Data& c : {chunk("VP8X", vp8x), chunk("ANIM", anim)})
    body.insert(body.end(), c.begin(), c.end());
  for (const auto& [bm, x, y] : frames) {
    Data still = *Image::withBitmap(bm)->webpRepresentation(100), header(16);
    put(header, 0, x / 2, 3, true);
    put(header, 3, y / 2, 3, true);
    put(header, 6, bm.width - 1, 3, true);
    put(header, 9, bm.height - 1, 3, true);
    put(header, 12, 100, 3, true);                                 // duration, ms
    header.insert(header.end(), still.begin() + 12, still.end());  // its VP8L chunk
    Data c = chunk("ANMF", header);
    body.insert(body.end(), c.begin(), c.end());
  }
  return chunk("RIFF", body);
}

// A GIF whose logical screen claims `width` x `height`.
Data gifClaiming(std::uint32_t width, std::uint32_t height) {
  Data gif = *Image::withBitmap(pattern(2, 2))->gifRepresentation();
  put(gif, 6, height << 16 | width, 4, true);  // two little-endian 16-bit fields
  return gif;
}

// An encoded PNG whose IHDR claims `width` x `height`, its CRC made to match.
Data pngClaiming(std::uint32_t width, std::uint32_t height) {
  Data png = pngOf(pattern(2, 2));
  put(png, 16, width, 4);
  put(png, 20, height, 4);
  put(png, 29, std::uint32_t(crc32(0, &png[12], 17)), 4);  // over the chunk type and data
  return png;
}

// `bm` compressed by libjpeg-turbo.
Data turboJpeg(const Bitmap& bm, int subsampling, int quality, int flags = 0) {
  tjhandle tj = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(tj, bm.rgba.data(), bm.width, 0, bm.height, TJPF_RGBA, &out, &size,
                        subsampling, quality, flags),
            0);
  Data jpeg(out, out + size);
  tjFree(out);
  tjDestroy(tj);
  return jpeg;
}

// 32x16, left half red and right half blue.
Data redBlue() {
  return turboJpeg(filled(32, 16, [](int x, int) { return x < 16 ? test::kRed : test::kBlue; }),
                   TJSAMP_444, 95);
}

// The red-blue JPEG with its SOF0 frame header claiming `width` x `height`.
Data jpegClaiming(std::uint32_t width, std::uint32_t height) {
  Data jpeg = redBlue(), sof0 = {0xFF, 0xC0};
  auto at = std::search(jpeg.begin(), jpeg.end(), sof0.begin(), sof0.end()) - jpeg.begin();
  EXPECT_LT(std::size_t(at) + 9, jpeg.size());
  put(jpeg, std::size_t(at) + 5, height << 16 | width, 4);
  return jpeg;
}

// "Exif\0\0" and a TIFF structure whose IFD0 holds one SHORT orientation entry.
Data exif(bool little, std::uint32_t value) {
  std::uint8_t order = little ? 'I' : 'M';
  Data t = {'E', 'x', 'i', 'f', 0, 0, order, order};
  const std::uint32_t fields[][2] = {{42, 2}, {8, 4},     {1, 2}, {0x0112, 2}, {3, 2},
                                     {1, 4},  {value, 2}, {0, 2}, {0, 4}};
  for (auto [v, n] : fields) put(t, t.size(), v, int(n), little);
  return t;
}

// Inserts an APP1 segment holding `payload` right after SOI.
Data withApp1(Data jpeg, const Data& payload) {
  jpeg.insert(jpeg.begin() + 2, payload.begin(), payload.end());
  auto n = payload.size() + 2;
  jpeg.insert(jpeg.begin() + 2, {0xFF, 0xE1, std::uint8_t(n >> 8), std::uint8_t(n)});
  return jpeg;
}

TEST(ImageJpeg, ExifOrientationInBothByteOrdersAndMalformedExifMeansUp) {
  for (auto [little, value, want] : {std::tuple{true, 6u, O::Right}, {false, 8u, O::Left}}) {
    auto image = Image::withData(withApp1(redBlue(), exif(little, value)));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->orientation(), want);
    // Stored as decoded, not rotated.
    EXPECT_EQ(std::tuple(image->bitmap().width, image->bitmap().height), std::tuple(32, 16));
    EXPECT_LE(test::farthest(pixel(image->bitmap(), 4, 8), test::kRed), 10);
    EXPECT_LE(test::farthest(pixel(image->bitmap(), 27, 8), test::kBlue), 10);
  }
  // Malformed EXIF means Up, and the picture still decodes. {byte, new value, bytes kept}: IFD0
  // offset, entry count (entry cut), byte order, magic, value, tag, type, cuts, a count of
  // 0xFF000001 values, an IFD0 offset near 2 GiB. The comment after would read as 6 past the
  // segment's end.
  const std::size_t cases[][3] = {{10, 0xF0, 32}, {15, 0xFF, 22}, {6, 'X', 32},   {8, 43, 32},
                                  {24, 9, 32},    {24, 0, 32},    {16, 0x13, 32}, {18, 2, 32},
                                  {6, 'I', 7},    {6, 'I', 20},   {23, 0xFF, 32}, {13, 0x7F, 32}};
  for (auto [at, byte, keep] : cases) {
    Data e = exif(true, 6);
    e[at] = std::uint8_t(byte);
    e.resize(keep);
    Data jpeg = withApp1(redBlue(), e);
    jpeg.insert(jpeg.begin() + 6 + long(keep), {0xFF, 0xFE, 0, 4, 6, 0});
    auto image = Image::withData(jpeg);
    EXPECT_TRUE(image && image->orientation() == O::Up) << at << " " << keep;
  }
}

TEST(ImageSize, PointsDivideByScaleAndSwapForSidewaysOrientations) {
  for (int code = 0; code < 8; ++code) {  // Left, Right (2, 3) and their mirrors (6, 7)
    auto image = Image::withBitmap(pattern(40, 20), 2.0, O(code));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->size(), code % 4 > 1 ? (Size{10, 20}) : (Size{20, 10})) << code;
  }
  for (double bad : {0.0, -2.0, std::nan(""), static_cast<double>(INFINITY)}) {
    EXPECT_EQ(Image::withBitmap(pattern(4, 6), bad)->size(), (Size{4, 6}));
    EXPECT_EQ(Image::withData(pngOf(pattern(4, 6)), bad)->scale(), 1.0);
  }
  // Buffers that do not match their dimensions (without overflowing) are refused.
  for (const Bitmap& bm : {Bitmap{0, 5, {}}, Bitmap{-2, 2, Data(16)}, Bitmap{2, 2, Data(15)},
                           Bitmap{2, 2, Data(17)}, Bitmap{INT_MAX, INT_MAX, Data(16)}})
    EXPECT_FALSE(Image::withBitmap(bm)) << bm.width << "x" << bm.height << " " << bm.rgba.size();
  EXPECT_EQ(Image(Bitmap{3, 3, Data(4)}, 1.0, O::Up).pngRepresentation(), std::nullopt);
}

TEST(ImageCodecs, EachFormatRoundTrips) {
  // PNG, from bytes or a file, and lossless WebP keep every byte, the colours under transparent
  // pixels too, but not the orientation.
  auto noisy = Image::withBitmap(pattern(37, 23), 2.0, O::Right);
  auto png = ImagePNGRepresentation(noisy), webp = noisy->webpRepresentation(100);
  ASSERT_TRUE(png && webp);
  std::string dir = test::makeTemporaryDirectory("nimb-image");
  ASSERT_TRUE(FileManager::writeAtomically(dir + "/a.png", *png));
  for (auto back : {Image::withData(*png, 3.0), Image::withContentsOfFile(dir + "/a.png"),
                    Image::withData(*webp)}) {
    ASSERT_TRUE(back);
    EXPECT_EQ(back->bitmap().width, 37);  // and so height 23, as the buffers match
    EXPECT_EQ(back->bitmap().rgba, noisy->bitmap().rgba);
    EXPECT_EQ(back->orientation(), O::Up);
  }
  EXPECT_EQ(Image::withData(*png, 3.0)->scale(), 3.0);
  EXPECT_EQ(ImagePNGRepresentation(nullptr), std::nullopt);
  for (const char* bad : {"/missing.png", ""})
    EXPECT_FALSE(Image::withContentsOfFile(dir + bad)) << bad;
  std::filesystem::remove_all(dir);
  auto smooth = Image::withBitmap(gradient(64, 48));
  auto jpeg = smooth->jpegRepresentation(95), lossy = smooth->webpRepresentation(90);
  ASSERT_TRUE(jpeg && lossy);
  EXPECT_EQ(Data(lossy->begin() + 12, lossy->begin() + 16), (Data{'V', 'P', '8', ' '}));
  for (const auto& [encoded, tolerance] : {std::pair{*jpeg, 6}, {*lossy, 12}}) {
    auto back = Image::withData(encoded);
    ASSERT_TRUE(back);
    EXPECT_LE(maxDifference(back->bitmap().rgba, smooth->bitmap().rgba), tolerance);
  }
  // JPEG drops alpha by weighting colours with it: white under alpha 0 comes out black.
  const Bitmap veiled = filled(16, 16, [](int, int) { return Pixel{255, 255, 255, 0}; });
  auto dark = Image::withData(*Image::withBitmap(veiled)->jpegRepresentation(90));
  ASSERT_TRUE(dark);
  for (std::size_t i = 0; i < dark->bitmap().rgba.size(); ++i)
    ASSERT_EQ(dark->bitmap().rgba[i], i % 4 == 3 ? 255 : 0) << i;
}

// Each output pixel the area-weighted mean of the source area it covers (colours weighted by
// alpha), computed directly in two dimensions.
Bitmap areaAverage(const Bitmap& from, int w, int h) {
  Bitmap out{w, h, Data(std::size_t(w) * h * 4)};
  const double sx = double(from.width) / w, sy = double(from.height) / h;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      double sum[4] = {};
      for (int j = int(y * sy); j < std::min(from.height, int(std::ceil((y + 1) * sy))); ++j)
        for (int i = int(x * sx); i < std::min(from.width, int(std::ceil((x + 1) * sx))); ++i) {
          const double area = (std::min((x + 1) * sx, i + 1.0) - std::max(x * sx, double(i))) *
                              (std::min((y + 1) * sy, j + 1.0) - std::max(y * sy, double(j)));
          const std::uint8_t* p = &from.rgba[(std::size_t(j) * from.width + i) * 4];
          for (int c = 0; c < 4; ++c) sum[c] += area * p[3] * (c == 3 ? 1 : p[c]);
        }
      std::uint8_t* q = &out.rgba[(std::size_t(y) * w + x) * 4];
      for (int c = 0; c < 3; ++c) q[c] = std::uint8_t(sum[3] > 0 ? sum[c] / sum[3] + 0.5 : 0);
      q[3] = std::uint8_t(sum[3] / (sx * sy) + 0.5);
    }
  return out;
}

TEST(ImageDecodeForSize, ScaledDecodesMatchAFullDecodeAveragedDown) {
  // Smooth gradients crossed by hard-edged bars.
  auto photo = Image::withBitmap(filled(512, 384, [](int x, int y) {
    if (x % 128 < 16) return Pixel{250, 250, 240, 255};
    return Pixel{x / 2, y * 2 / 3, 128 + (x - y) / 8, 255};
  }));
  const Data encoded[] = {*photo->jpegRepresentation(90), *photo->pngRepresentation(),
                          *photo->gifRepresentation(), *photo->webpRepresentation(90),
                          *photo->webpRepresentation(100)};
  // JPEG takes 1/8, 1/4 and 1/2 of the picture; the others the covering size exactly.
  for (PixelSize target : {PixelSize{64, 40}, PixelSize{100, 96}, PixelSize{150, 150}})
    for (std::size_t f = 0; f < std::size(encoded); ++f) {
      SCOPED_TRACE(testing::Message() << "format " << f << " for " << target.width);
      auto scaled = Image::withData(encoded[f], 1.0, target);
      ASSERT_TRUE(scaled);
      const Bitmap& got = scaled->bitmap();
      ASSERT_EQ(got.width, scaled->pixelSize().width);
      ASSERT_EQ(got.height, scaled->pixelSize().height);
      EXPECT_TRUE(got.width >= target.width && got.height >= target.height);
      EXPECT_NEAR(double(got.width) / got.height, 4.0 / 3, 0.05);
      if (f > 0) {
        EXPECT_TRUE(got.width == target.width || got.height == target.height);
      }
      const Bitmap want = areaAverage(Image::withData(encoded[f])->bitmap(), got.width, got.height);
      double total = 0;
      int most = 0;
      for (std::size_t i = 0; i < got.rgba.size(); ++i) {
        total += std::abs(got.rgba[i] - want.rgba[i]);
        most = std::max(most, std::abs(got.rgba[i] - want.rgba[i]));
      }
      EXPECT_LT(total / got.rgba.size(), 1.0);
      EXPECT_LE(most, f == 0 ? 4 : f == 3 ? 16 : 1);
    }
}

TEST(ImageDecodeForSize, SmallestCoveringSizeAsShownFullForNoTarget) {
  Data jpeg = *Image::withBitmap(filled(4000, 3000, [](int, int) {
                 return test::kRed;
               }))->jpegRepresentation(50);
  const Data png = pngOf(pattern(100, 70));
  const std::tuple<const Data*, int, PixelSize, PixelSize> cases[] = {
      {&jpeg, 1, {200, 200}, {500, 375}},  {&jpeg, 1, {600, 600}, {1000, 750}},
      {&jpeg, 1, {375, 500}, {1000, 750}}, {&jpeg, 6, {375, 500}, {500, 375}},
      {&jpeg, 8, {376, 500}, {1000, 750}}, {&jpeg, 1, {5000, 10}, {4000, 3000}},
      {&jpeg, 1, {0, 200}, {4000, 3000}},  {&jpeg, 1, {-1, -1}, {4000, 3000}},
      {&png, 1, {30, 30}, {43, 30}},       {&png, 1, {30, 10}, {30, 21}},
      {&png, 1, {99, 70}, {100, 70}},      {&png, 1, {100, 69}, {100, 70}},
  };
  for (const auto& [bytes, exifValue, target, want] : cases) {
    SCOPED_TRACE(testing::Message() << target.width << "x" << target.height << " " << exifValue);
    auto image = Image::withData(exifValue == 1 ? *bytes : withApp1(*bytes, exif(true, exifValue)),
                                 2.0, target);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->pixelSize(), want);  // known at once
    const Size points = exifValue == 1 ? Size{want.width / 2.0, want.height / 2.0}
                                       : Size{want.height / 2.0, want.width / 2.0};
    EXPECT_EQ(image->size(), points);
    EXPECT_EQ(image->bitmap().width, want.width);
    EXPECT_EQ(image->bitmap().rgba.size(), std::size_t(want.width) * want.height * 4);
  }
  EXPECT_LE(maxDifference(Image::withData(png, 1.0, {30, 30})->bitmap().rgba,
                          areaAverage(pattern(100, 70), 43, 30).rgba),
            1);
}

TEST(ImageDecodeForSize, TransparentAreasLendNoColourWhenScaledDown) {
  // Opaque red beside transparent black, the edge falling inside output pixels.
  auto image = Image::withBitmap(filled(90, 60, [](int x, int y) {
    return x * 3 + y < 130 ? test::kRed : Pixel{0, 0, 0, 0};
  }));
  for (const Data& encoded : {*image->pngRepresentation(), *image->webpRepresentation(100)}) {
    auto scaled = Image::withData(encoded, 1.0, {16, 16});
    const Bitmap& bm = scaled->bitmap();
    ASSERT_EQ(bm.width, 24);
    int partial = 0;
    for (std::size_t i = 0; i < bm.rgba.size(); i += 4) {
      if (bm.rgba[i + 3] == 0) continue;
      partial += bm.rgba[i + 3] < 255;
      ASSERT_GE(bm.rgba[i], 250) << i / 4 << " alpha " << int(bm.rgba[i + 3]);
      ASSERT_LE(bm.rgba[i + 1] + bm.rgba[i + 2], 5) << i / 4;
    }
    EXPECT_GT(partial, 10);
  }
}

TEST(ImageGif, NearestPaletteColoursFaintPixelsTransparentAndInterlacedFrames) {
  Bitmap bm = pattern(37, 23);
  auto back = Image::withData(*Image::withBitmap(bm)->gifRepresentation());
  ASSERT_TRUE(back);
  const Data& got = back->bitmap().rgba;
  ASSERT_EQ(got.size(), bm.rgba.size());
  for (std::size_t i = 0; i < got.size(); i += 4) {
    if (bm.rgba[i + 3] < 128) {
      EXPECT_EQ(Data(&got[i], &got[i + 4]), Data(4, 0)) << i / 4;
      continue;
    }
    EXPECT_EQ(got[i + 3], 255);
    for (std::size_t c = 0; c < 3; ++c) {
      const auto& levels = c == 1 ? kGreenLevels : kRedBlueLevels;
      int nearest = 255;
      for (int level : levels) nearest = std::min(nearest, std::abs(level - bm.rgba[i + c]));
      EXPECT_NE(std::find(levels.begin(), levels.end(), got[i + c]), levels.end());
      EXPECT_EQ(std::abs(got[i + c] - bm.rgba[i + c]), nearest) << i / 4 << " " << c;
    }
  }

  // An interlaced frame at an offset on a transparent canvas: a 6x10 frame, each row one palette
  // colour, its last column transparent.
  const Bitmap frame = filled(6, 10, [](int x, int k) {
    return Pixel{kRedBlueLevels[k % 6], kGreenLevels[k * 3 % 7], kRedBlueLevels[(k + 2) % 6],
                 x == 5 ? 0 : 255};
  });
  Data gif = *Image::withBitmap(frame)->gifRepresentation();
  const std::size_t desc = 13 + 768 + 8;  // past the screen, the palette, the control block
  ASSERT_EQ(gif[desc - 8], 0x21);
  ASSERT_EQ(gif[desc], 0x2C);
  put(gif, 6, 14 << 16 | 16, 4, true);       // a 16x14 canvas
  put(gif, desc + 1, 3 << 16 | 5, 4, true);  // the frame at (5, 3)
  gif[desc + 9] |= 0x40;  // interlaced: the rows as stored land on 0, 8, 4, 2, 6, 1, 3, 5, 7, 9
  const int kLandsOn[] = {0, 8, 4, 2, 6, 1, 3, 5, 7, 9};
  Data want(16 * 14 * 4);
  for (int k = 0; k < 10; ++k)
    for (int x = 0; x < 5; ++x)
      std::copy_n(&frame.rgba[(k * 6 + x) * 4], 4, &want[((3 + kLandsOn[k]) * 16 + 5 + x) * 4]);
  auto image = Image::withData(gif);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->size(), (Size{16, 14}));
  EXPECT_EQ(image->bitmap().rgba, want);
}

TEST(ImageWebP, AnimationShowsItsFirstFrameAtItsOffset) {
  Bitmap first = pattern(8, 6);
  Data webp = animatedWebP(20, 16, {{first, 4, 6}, {gradient(20, 16), 0, 0}});
  Data want(20 * 16 * 4);
  for (int y = 0; y < 6; ++y)
    std::copy_n(&first.rgba[y * 8 * 4], 8 * 4, &want[((6 + y) * 20 + 4) * 4]);
  auto image = Image::withData(webp);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->size(), (Size{20, 16}));
  EXPECT_EQ(image->bitmap().rgba, want);
  // Scaled, the canvas is decoded whole and averaged down.
  EXPECT_LE(maxDifference(Image::withData(webp, 1.0, {10, 8})->bitmap().rgba,
                          areaAverage(Bitmap{20, 16, want}, 10, 8).rgba),
            1);
}

TEST(ImageRefusal, GarbageTruncatedAndCorruptBytesCorruptBodiesKeepTheSize) {
  for (const Data& junk : {Data(100, 0xAB), Data{0xFF, 0xD8, 0xFF, 0xD9}, Data{'G', 'I', 'F'},
                           Data{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'E', 'B', 'P'}})
    EXPECT_FALSE(Image::withData(junk));
  // Cuts of a PNG short of its IEND: refused while the header is incomplete, afterwards an image
  // of the full size whose pixels are all transparent.
  Data png = pngOf(pattern(16, 16));
  for (std::size_t n = 0; n < png.size() - 12; ++n) {
    auto image = Image::withData(std::span(png).first(n));
    if (!image) continue;
    EXPECT_EQ(image->size(), (Size{16, 16})) << n;
    EXPECT_TRUE(allZero(image->bitmap().rgba)) << n;
  }
  EXPECT_TRUE(Image::withData(std::span(png).first(png.size() - 13)));
  // libjpeg-turbo decodes a cut-off JPEG with a grey bottom and a mere warning: an opaque picture.
  Data jpeg = redBlue();
  for (std::size_t n = 0; n < jpeg.size(); ++n) {
    auto image = Image::withData(std::span(jpeg).first(n));
    if (!image) continue;
    const Data& px = image->bitmap().rgba;
    EXPECT_EQ(image->size(), (Size{32, 16})) << n;
    for (std::size_t i = 3; i < px.size(); i += 4) ASSERT_EQ(px[i], 255) << n;
  }
  jpeg.insert(jpeg.end() - 2, {0x00, 0x00});  // stray bytes before EOI: also only a warning
  auto stray = Image::withData(jpeg);
  ASSERT_TRUE(stray);
  EXPECT_LE(test::farthest(pixel(stray->bitmap(), 27, 8), test::kBlue), 10);  // still blue

  // A corrupt body keeps the size, with transparent pixels.
  const Bitmap bm = pattern(160, 120);  // 76.8 kB: its buffers are recycled
  png = pngOf(bm);
  png[png.size() - 20] ^= 0x55;  // inside IDAT: the checksum no longer matches
  Data gif = *Image::withBitmap(bm)->gifRepresentation();
  gif.resize(gif.size() * 3 / 4);
  Data webp = *Image::withBitmap(bm)->webpRepresentation(100);
  webp.resize(webp.size() * 3 / 4);
  // A progressive JPEG whose second scan asks for an impossible band: a fatal error.
  jpeg = turboJpeg(bm, TJSAMP_420, 80, TJFLAG_PROGRESSIVE);
  const Data sos = {0xFF, 0xDA};
  auto first = std::search(jpeg.begin(), jpeg.end(), sos.begin(), sos.end());
  auto second = std::search(first + 2, jpeg.end(), sos.begin(), sos.end());
  ASSERT_NE(second, jpeg.end());
  const std::size_t band = std::size_t(second - jpeg.begin()) + 5 + 2 * second[4];
  jpeg[band] = 9;  // Ss past Se
  jpeg[band + 1] = 3;

  for (const auto& [name, bytes] :
       {std::pair{"png", png}, {"gif", gif}, {"webp", webp}, {"jpeg", jpeg}}) {
    // The buffer the decode takes still holds this picture: none of it may show.
    Image::withBitmap(bm);
    auto image = Image::withData(bytes);
    ASSERT_TRUE(image) << name;
    EXPECT_EQ(image->size(), (Size{160, 120})) << name;
    EXPECT_EQ(image->bitmap().width, 160) << name;
    EXPECT_TRUE(allZero(image->bitmap().rgba)) << name;
  }
}

TEST(ImageRefusal, HugeHeadersAreRefusedWithoutAllocating) {
  // The patching itself is sound (the animated WebP builder is shown sound by ImageWebP).
  for (const Data& sound : {pngClaiming(2, 2), jpegClaiming(32, 16), gifClaiming(2, 2)})
    ASSERT_TRUE(Image::withData(sound));
  // Over the pixel budget, libpng's width limit, empty; then within budget (400 MB RGBA) but with
  // far too little data. The peak resident size may undercount growth, never overcount it.
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  for (const Data& d : {pngClaiming(20000, 20000), pngClaiming(2000000, 1), pngClaiming(0, 2),
                        jpegClaiming(65000, 65000), jpegClaiming(0, 16), pngClaiming(10000, 10000),
                        jpegClaiming(10000, 10000), gifClaiming(20000, 20000), gifClaiming(0, 2),
                        animatedWebP(20000, 20000, {{pattern(2, 2), 0, 0}})})
    EXPECT_FALSE(Image::withData(d));
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT((after.ru_maxrss - before.ru_maxrss) / 1024, 100);
}

// The size is known from the header at once and the pixels follow, decoded
// into the buffer a destroyed image left behind.
TEST(ImageDecoding, SizeAtOnceThePixelsInBuffersOfDestroyedImages) {
  EXPECT_TRUE(Image::withBitmap(pattern(2, 2))->isDecoded());
  Data png = pngOf(pattern(160, 120));
  auto image = Image::withData(png, 2.0);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->size(), (Size{80, 60}));  // decoded or not
  const std::uint8_t* buffer = image->bitmap().rgba.data();
  const std::size_t kept = Image::recycledBufferCount();
  image.reset();
  EXPECT_EQ(Image::recycledBufferCount(), kept + 1);
  image = Image::withData(png);
  image->waitUntilDecoded();
  EXPECT_TRUE(image->isDecoded());
  EXPECT_EQ(Image::recycledBufferCount(), kept);
  EXPECT_EQ(image->bitmap().rgba.data(), buffer);
  EXPECT_EQ(image->bitmap().rgba, pattern(160, 120).rgba);
  image.reset();
  // The free list is bounded: 16 buffers, 64 MB, the oldest dropped first.
  for (int i = 0; i < 20; ++i) Image::withBitmap(pattern(160, 120));
  EXPECT_EQ(Image::recycledBufferCount(), 16u);
  for (int i = 0; i < 5; ++i) Image::withBitmap(Bitmap{2048, 2048, Data(16 << 20)});
  EXPECT_EQ(Image::recycledBufferCount(), 4u);
}

TEST(ImageDecoding, ManyThreadsDecodeShareAndDropImages) {
  auto source = Image::withBitmap(gradient(200, 150));
  const Data encoded[] = {*source->pngRepresentation(), *source->gifRepresentation(),
                          *source->webpRepresentation(100), *source->jpegRepresentation(90)};
  std::vector<Data> want;
  for (const Data& e : encoded) want.push_back(Image::withData(e)->bitmap().rgba);
  auto shared = Image::withData(encoded[3]);  // read by every thread, decoded or not
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      EXPECT_EQ(shared->bitmap().rgba, want[3]);
      for (int i = 0; i < 12; ++i) {
        const int f = (t + i) % 4;
        auto image = Image::withData(encoded[f]);
        ASSERT_TRUE(image);
        if (i % 3 == 0) continue;  // dropped before or while it decodes
        EXPECT_EQ(image->size(), (Size{200, 150}));
        EXPECT_EQ(image->bitmap().rgba, want[f]) << f;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_TRUE(shared->isDecoded());
}

}  // namespace
}  // namespace nimb
