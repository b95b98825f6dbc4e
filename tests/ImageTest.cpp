// Image: PNG/JPEG decoding, EXIF orientation, points, refusal of broken pictures.
#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/Image.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <turbojpeg.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>

#include "TestSupport.h"

namespace nimb {
namespace {

using O = ImageOrientation;

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

// An encoded PNG whose IHDR claims `width` x `height`, its CRC made to match.
Data pngClaiming(std::uint32_t width, std::uint32_t height) {
  Data png = pngOf(pattern(2, 2));
  put(png, 16, width, 4);
  put(png, 20, height, 4);
  std::uint32_t crc = ~0u;  // over the chunk type and data, bit by bit
  for (std::size_t i = 12; i < 29; ++i)
    for (int k = 0; k < 8; ++k) crc = crc >> 1 ^ (0xEDB88320u & (0u - ((crc ^ png[i] >> k) & 1u)));
  put(png, 29, ~crc, 4);
  return png;
}

// 32x16, left half red and right half blue, compressed by libjpeg-turbo.
Data redBlue() {
  Data px(32 * 16 * 4);
  for (std::size_t i = 0; i < px.size(); ++i)
    px[i] = i % 4 == 3 || (i / 4 % 32 < 16 ? i % 4 == 0 : i % 4 == 2) ? 255 : 0;
  tjhandle tj = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(tj, px.data(), 32, 0, 16, TJPF_RGBA, &out, &size, TJSAMP_444, 95, 0), 0);
  Data jpeg(out, out + size);
  tjFree(out);
  tjDestroy(tj);
  return jpeg;
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

TEST(ImagePng, RoundTripFromBytesAndFilesKeepsEveryPixelAndAlpha) {
  auto image = Image::withBitmap(pattern(13, 7), 2.0, O::Right);
  auto png = ImagePNGRepresentation(image);
  ASSERT_TRUE(png);
  std::string dir = test::makeTemporaryDirectory("nimb-image");
  ASSERT_TRUE(FileManager::writeAtomically(dir + "/a.png", *png));
  for (auto back : {Image::withData(*png, 3.0), Image::withContentsOfFile(dir + "/a.png")}) {
    ASSERT_TRUE(back);
    EXPECT_EQ(back->bitmap().width, 13);  // and so height 7, as the buffers match
    EXPECT_EQ(back->bitmap().rgba, image->bitmap().rgba);
    EXPECT_EQ(back->orientation(), O::Up);  // PNG carries none
  }
  EXPECT_EQ(Image::withData(*png, 3.0)->scale(), 3.0);
  EXPECT_EQ(ImagePNGRepresentation(nullptr), std::nullopt);
  for (const char* bad : {"/missing.png", ""})
    EXPECT_FALSE(Image::withContentsOfFile(dir + bad)) << bad;
  std::filesystem::remove_all(dir);
}

TEST(ImageJpeg, DecodesColoursAndExifOrientationInBothByteOrders) {
  for (auto [little, value, want] : {std::tuple{true, 6u, O::Right}, {false, 8u, O::Left}}) {
    auto image = Image::withData(withApp1(redBlue(), exif(little, value)));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->orientation(), want);
    EXPECT_EQ(image->bitmap().width, 32);  // stored as decoded, not rotated
    EXPECT_EQ(image->bitmap().height, 16);
    for (int c = 0; c < 4; ++c) {  // pixel (4, 8) is red, (27, 8) blue, both opaque
      EXPECT_NEAR(image->bitmap().rgba[(8 * 32 + 4) * 4 + c], c % 3 ? 0 : 255, 10) << c;
      EXPECT_NEAR(image->bitmap().rgba[(8 * 32 + 27) * 4 + c], c < 2 ? 0 : 255, 10) << c;
    }
  }
}

TEST(ImageJpeg, MalformedExifMeansUpAndStillDecodes) {
  // {byte, new value, bytes kept}: IFD0 offset, entry count (entry cut), byte order, magic,
  // value, tag, type, cuts. The comment after would read as 6 past the segment's end.
  const std::size_t cases[][3] = {{10, 0xF0, 32}, {15, 0xFF, 22}, {6, 'X', 32},   {8, 43, 32},
                                  {24, 9, 32},    {24, 0, 32},    {16, 0x13, 32}, {18, 2, 32},
                                  {6, 'I', 7},    {6, 'I', 20}};
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
    EXPECT_EQ(image->orientation(), O(code));
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

TEST(ImageRefusal, GarbageTruncatedAndCorruptBytes) {
  for (const Data& junk : {Data(100, 0xAB), Data{0xFF, 0xD8, 0xFF, 0xD9}})
    EXPECT_FALSE(Image::withData(junk));
  // Every cut of a PNG short of its IEND (empty and bare signature too) loses pixels.
  Data png = pngOf(pattern(16, 16));
  for (std::size_t n = 0; n < png.size() - 12; ++n)
    EXPECT_FALSE(Image::withData(std::span(png).first(n))) << n;
  png[png.size() - 20] ^= 0x55;  // inside IDAT: the checksum no longer matches
  EXPECT_FALSE(Image::withData(png));
  // libjpeg-turbo decodes a cut-off JPEG with a grey bottom and a mere warning.
  Data jpeg = redBlue();
  for (std::size_t n = 0; n < jpeg.size(); ++n)
    EXPECT_FALSE(Image::withData(std::span(jpeg).first(n))) << n;
  jpeg.insert(jpeg.end() - 2, {0x00, 0x00});  // stray bytes before EOI: also only a warning
  EXPECT_FALSE(Image::withData(jpeg));
}

TEST(ImageRefusal, HugeHeadersAreRefusedWithoutAllocating) {
  ASSERT_TRUE(Image::withData(pngClaiming(2, 2)));  // the patching itself is sound
  ASSERT_TRUE(Image::withData(jpegClaiming(32, 16)));
  // Over the pixel budget, libpng's width limit, empty; then within budget (400 MB RGBA) but with
  // far too little data. The peak resident size may undercount growth, never overcount it.
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  for (const Data& d : {pngClaiming(20000, 20000), pngClaiming(2000000, 1), pngClaiming(0, 2),
                        jpegClaiming(65000, 65000), jpegClaiming(0, 16), pngClaiming(10000, 10000),
                        jpegClaiming(10000, 10000)})
    EXPECT_FALSE(Image::withData(d));
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT((after.ru_maxrss - before.ru_maxrss) / 1024, 100);
}

}  // namespace
}  // namespace nimb
