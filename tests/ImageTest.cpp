// Image: decoding PNG and JPEG bytes, EXIF orientation, sizes in points, PNG
// encoding, and refusal of everything that is not a whole picture.
#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/Image.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <turbojpeg.h>

#include <array>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "TestSupport.h"

namespace {

using nimb::Bitmap;
using nimb::Data;
using nimb::Image;
using nimb::ImageOrientation;
using nimb::Size;
using O = ImageOrientation;

void put(Data& out, std::uint32_t v, int bytes, bool little = false) {
  for (int i = 0; i < bytes; ++i) {
    int shift = 8 * (little ? i : bytes - 1 - i);
    out.push_back(static_cast<std::uint8_t>(v >> shift));
  }
}

void appendChunk(Data& png, const char* type, const Data& payload) {
  put(png, static_cast<std::uint32_t>(payload.size()), 4);
  std::size_t start = png.size();
  png.insert(png.end(), type, type + 4);
  png.insert(png.end(), payload.begin(), payload.end());
  std::uint32_t crc = 0xFFFFFFFFu;
  for (std::size_t i = start; i < png.size(); ++i) {
    crc ^= png[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  put(png, ~crc, 4);
}

// A PNG whose IDAT holds `raw` (per row: filter byte, samples) in one stored
// deflate block, so any bit depth and colour type can be made without zlib.
Data makePng(std::uint32_t width, std::uint32_t height, int depth, int colorType, const Data& raw,
             const std::vector<std::pair<const char*, Data>>& extra = {}) {
  Data png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}, ihdr, z = {0x78, 0x01, 0x01};
  put(ihdr, width, 4);
  put(ihdr, height, 4);
  ihdr.insert(ihdr.end(),
              {static_cast<std::uint8_t>(depth), static_cast<std::uint8_t>(colorType), 0, 0, 0});
  appendChunk(png, "IHDR", ihdr);
  for (auto& [type, payload] : extra) appendChunk(png, type, payload);
  put(z, static_cast<std::uint32_t>(raw.size()), 2, true);
  put(z, static_cast<std::uint32_t>(~raw.size()), 2, true);
  z.insert(z.end(), raw.begin(), raw.end());
  std::uint32_t a = 1, b = 0;
  for (auto byte : raw) a = (a + byte) % 65521, b = (b + a) % 65521;
  put(z, b << 16 | a, 4);
  appendChunk(png, "IDAT", z);
  appendChunk(png, "IEND", {});
  return png;
}

std::array<int, 4> pixel(const Image& image, int x, int y) {
  const std::uint8_t* p = &image.bitmap().rgba[(std::size_t(y) * image.bitmap().width + x) * 4];
  return {p[0], p[1], p[2], p[3]};
}

bool near(std::array<int, 4> a, std::array<int, 4> b, int tolerance) {
  for (int i = 0; i < 4; ++i) {
    if (std::abs(a[i] - b[i]) > tolerance) return false;
  }
  return true;
}

Bitmap pattern(int width, int height) {
  Bitmap bm{width, height, {}};
  for (int i = 0; i < width * height; ++i) {  // alpha runs through 0 and 255
    bm.rgba.insert(bm.rgba.end(), {std::uint8_t(i * 37), std::uint8_t(i * 53 + 7),
                                   std::uint8_t(i * 29 + 1), std::uint8_t(i * 17)});
  }
  return bm;
}

// 32x16 made of two halves, compressed by libjpeg-turbo.
Data twoHalvesJpeg(std::array<std::uint8_t, 4> left, std::array<std::uint8_t, 4> right,
                   int format = TJPF_RGBA) {
  Data px;
  for (int i = 0; i < 32 * 16; ++i) {
    auto& c = i % 32 < 16 ? left : right;
    px.insert(px.end(), c.begin(), c.end());
  }
  tjhandle tj = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(tj, px.data(), 32, 0, 16, format, &out, &size, TJSAMP_444, 95, 0), 0);
  Data jpeg(out, out + size);
  tjFree(out);
  tjDestroy(tj);
  return jpeg;
}

Data redBlue() {
  return twoHalvesJpeg({255, 0, 0, 255}, {0, 0, 255, 255});
}

// "Exif\0\0" and a TIFF structure whose IFD0 holds one entry.
Data exif(bool little, std::uint32_t value, int type = 3, int tag = 0x0112) {
  Data t = {
      'E', 'x', 'i', 'f', 0, 0, std::uint8_t(little ? 'I' : 'M'), std::uint8_t(little ? 'I' : 'M')};
  for (auto [v, n] : {std::pair{42, 2}, {8, 4}, {1, 2}, {tag, 2}, {type, 2}, {1, 4}}) {
    put(t, static_cast<std::uint32_t>(v), n, little);
  }
  put(t, value, type == 3 ? 2 : 4, little);
  if (type == 3) put(t, 0, 2);  // the value field is four bytes either way
  put(t, 0, 4);                 // no next IFD
  return t;
}

// Inserts an APP1 segment right after SOI.
Data withApp1(Data jpeg, const Data& payload) {
  Data seg = {0xFF, 0xE1};
  put(seg, static_cast<std::uint32_t>(payload.size() + 2), 2);
  seg.insert(seg.end(), payload.begin(), payload.end());
  jpeg.insert(jpeg.begin() + 2, seg.begin(), seg.end());
  return jpeg;
}

std::shared_ptr<const Image> decode(const Data& d) {
  return Image::withData(d);
}

// The orientation of a JPEG that must decode; nullopt if it did not.
std::optional<O> orientationOf(const Data& jpeg) {
  auto image = decode(jpeg);
  return image ? std::optional(image->orientation()) : std::nullopt;
}

TEST(ImagePng, RoundTripKeepsEveryPixelAndAlpha) {
  auto image = Image::withBitmap(pattern(13, 7), 2.0, O::Right);
  auto png = nimb::ImagePNGRepresentation(image);
  ASSERT_TRUE(png);
  auto back = Image::withData(*png, 3.0);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->bitmap().width, 13);
  EXPECT_EQ(back->bitmap().height, 7);
  EXPECT_EQ(back->bitmap().rgba, image->bitmap().rgba);
  EXPECT_EQ(back->orientation(), O::Up);  // PNG carries none
  EXPECT_EQ(back->scale(), 3.0);
  EXPECT_EQ(nimb::ImagePNGRepresentation(nullptr), std::nullopt);
}

TEST(ImagePng, DecodesPaletteGreyAndSixteenBitToRgba) {
  // 2-bit palette: red, green, translucent blue.
  auto pal =
      decode(makePng(3, 1, 2, 3, {0, 0b00011000},
                     {{"PLTE", {255, 0, 0, 0, 255, 0, 0, 0, 255}}, {"tRNS", {255, 255, 64}}}));
  ASSERT_TRUE(pal);
  EXPECT_EQ(pixel(*pal, 0, 0), (std::array{255, 0, 0, 255}));
  EXPECT_EQ(pixel(*pal, 2, 0), (std::array{0, 0, 255, 64}));

  auto grey = decode(makePng(2, 2, 8, 0, {0, 10, 200, 0, 99, 255}));
  ASSERT_TRUE(grey);
  EXPECT_EQ(pixel(*grey, 0, 1), (std::array{99, 99, 99, 255}));

  // Untagged 16-bit samples are sRGB like 8-bit ones: 0x8080 reads as 0x80,
  // not as a linear value brightened to ~0xBC.
  auto deep = decode(makePng(2, 1, 16, 6,
                             {0, 0x80, 0x80, 0x40, 0x40, 0xFF, 0xFF, 0xFF, 0xFF,  //
                              0x20, 0x20, 0x00, 0x00, 0xC0, 0xC0, 0x80, 0x80}));
  ASSERT_TRUE(deep);
  EXPECT_TRUE(near(pixel(*deep, 0, 0), {0x80, 0x40, 0xFF, 0xFF}, 1));
  EXPECT_TRUE(near(pixel(*deep, 1, 0), {0x20, 0x00, 0xC0, 0x80}, 1));
}

TEST(ImageJpeg, DecodesRgbAndCmykFiles) {
  auto image = decode(redBlue());
  ASSERT_TRUE(image);
  EXPECT_EQ(image->size(), (Size{32, 16}));
  EXPECT_EQ(image->orientation(), O::Up);
  EXPECT_TRUE(near(pixel(*image, 4, 8), {255, 0, 0, 255}, 10));
  EXPECT_TRUE(near(pixel(*image, 27, 8), {0, 0, 255, 255}, 10));

  // Inverted (Adobe) CMYK: no C/M/Y ink but half black; then red. Opaque.
  auto cmyk = decode(twoHalvesJpeg({255, 255, 255, 128}, {255, 0, 0, 255}, TJPF_CMYK));
  ASSERT_TRUE(cmyk);
  EXPECT_TRUE(near(pixel(*cmyk, 4, 8), {128, 128, 128, 255}, 10));
  EXPECT_TRUE(near(pixel(*cmyk, 27, 8), {255, 0, 0, 255}, 10));
}

TEST(ImageExif, MapsEveryOrientationValueInBothByteOrders) {
  const O expected[9] = {O::Up,           O::Up,    O::UpMirrored,    O::Down, O::DownMirrored,
                         O::LeftMirrored, O::Right, O::RightMirrored, O::Left};
  Data base = redBlue();
  for (bool little : {true, false}) {
    for (std::uint32_t v = 1; v <= 8; ++v) {
      EXPECT_EQ(orientationOf(withApp1(base, exif(little, v))), expected[v]) << v << little;
    }
  }
  EXPECT_EQ(orientationOf(withApp1(base, exif(false, 8, 4))), O::Left);

  // An XMP segment ahead is skipped; so are fill bytes before a marker.
  Data both = withApp1(withApp1(base, exif(true, 6)), {'h', 't', 't', 'p', ':', 0});
  both.insert(both.begin() + 2, {0xFF, 0xFF});
  auto image = decode(both);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->orientation(), O::Right);
  EXPECT_EQ(image->size(), (Size{16, 32}));
  EXPECT_EQ(image->bitmap().width, 32);  // stored as decoded, not rotated
}

TEST(ImageExif, MalformedExifMeansUpAndStillDecodes) {
  Data badOffset = exif(true, 6), hugeCount = exif(false, 6), badOrder = exif(true, 6),
       badMagic = exif(false, 6);
  badOffset[10] = 0xF0;                                    // IFD0 past the segment
  hugeCount[14] = 0xFF;                                    // 0xFF01 entries claimed...
  hugeCount.erase(hugeCount.end() - 10, hugeCount.end());  // ...the one present cut short
  badOrder[6] = 'X';
  badMagic[9] = 43;
  Data tooShort = {'E', 'x', 'i', 'f', 0, 0, 'I'};
  // ...and bad values, another tag, a wrong type, a TIFF header cut short.
  const Data cases[] = {badOffset,
                        hugeCount,
                        badOrder,
                        badMagic,
                        exif(true, 9),
                        exif(true, 0),
                        exif(true, 6, 3, 0x0113),
                        exif(true, 6, 2),
                        tooShort};
  for (const Data& payload : cases) {
    EXPECT_EQ(orientationOf(withApp1(redBlue(), payload)), O::Up) << &payload - cases;
  }
  // An entry cut off by the end of its segment is not completed from the
  // bytes that follow (here a comment whose payload would read as 6).
  Data cut = exif(true, 6);
  cut.erase(cut.begin() + 20, cut.end());
  Data comment = withApp1(redBlue(), cut);
  comment.insert(comment.begin() + 6 + long(cut.size()), {0xFF, 0xFE, 0, 4, 6, 0});
  EXPECT_EQ(orientationOf(comment), O::Up);
  // Only the first Exif segment counts.
  EXPECT_EQ(orientationOf(withApp1(withApp1(redBlue(), exif(true, 3)), exif(true, 1))), O::Up);
}

TEST(ImageSize, PointsDivideByScaleAndSwapForSidewaysOrientations) {
  for (int code = 0; code < 8; ++code) {
    auto o = static_cast<O>(code);
    bool sideways = o == O::Left || o == O::Right || o == O::LeftMirrored || o == O::RightMirrored;
    auto image = Image::withBitmap(pattern(40, 20), 2.0, o);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->size(), sideways ? (Size{10, 20}) : (Size{20, 10})) << code;
    EXPECT_EQ(image->orientation(), o);
  }
  for (double bad : {0.0, -2.0, std::nan(""), static_cast<double>(INFINITY)}) {
    auto image = Image::withBitmap(pattern(4, 6), bad);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->size(), (Size{4, 6}));
    EXPECT_EQ(Image::withData(*image->pngRepresentation(), bad)->scale(), 1.0);
  }
}

TEST(ImageSize, BitmapMustMatchItsDimensions) {
  EXPECT_FALSE(Image::withBitmap(Bitmap{0, 5, {}}));
  EXPECT_FALSE(Image::withBitmap(Bitmap{-2, 2, Data(16)}));
  EXPECT_FALSE(Image::withBitmap(Bitmap{2, 2, Data(15)}));
  EXPECT_FALSE(Image::withBitmap(Bitmap{2, 2, Data(17)}));
  EXPECT_FALSE(Image::withBitmap(Bitmap{INT_MAX, INT_MAX, Data(16)}));  // no overflow
  EXPECT_FALSE(Image::withBitmap(Bitmap{20000, 20000, {}}));
  EXPECT_TRUE(Image::withBitmap(Bitmap{2, 2, Data(16)}));
  EXPECT_EQ(Image::withBitmap(Bitmap{2, 2, Data(16)}, 1, O(42))->orientation(), O::Up);
  // The constructor is public; an inconsistent bitmap must not be encoded.
  EXPECT_EQ(Image(Bitmap{3, 3, Data(4)}, 1.0, O::Up).pngRepresentation(), std::nullopt);
}

TEST(ImageRefusal, GarbageTruncatedAndCorruptBytes) {
  for (const Data& junk : {Data{}, Data{0x89}, Data(100, 0xAB), Data{'G', 'I', 'F', '8', '9', 'a'},
                           Data{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'},
                           Data{0xFF, 0xD8, 0xFF}, Data{0xFF, 0xD8, 0xFF, 0xD9}}) {
    EXPECT_FALSE(decode(junk));
  }
  // Every cut of a PNG short of its IEND chunk loses pixels.
  auto png = *Image::withBitmap(pattern(16, 16))->pngRepresentation();
  for (std::size_t n = 0; n < png.size() - 12; ++n) {
    EXPECT_FALSE(decode(Data(png.begin(), png.begin() + long(n)))) << n;
  }
  png[png.size() - 20] ^= 0x55;  // inside IDAT: the checksum no longer matches
  EXPECT_FALSE(decode(png));

  // libjpeg-turbo decodes a cut-off JPEG with a grey bottom and a warning.
  Data jpeg = redBlue();
  for (std::size_t n = 0; n < jpeg.size(); ++n) {
    EXPECT_FALSE(decode(Data(jpeg.begin(), jpeg.begin() + long(n)))) << n;
  }
  // Stray bytes before EOI are only a warning too; refused all the same.
  jpeg.insert(jpeg.end() - 2, {0x00, 0x00});
  EXPECT_FALSE(decode(jpeg));
}

// Growth of the peak resident size in MiB while `f` runs; may undercount
// (the peak can already be higher) but never overcounts.
template <typename F>
long peakGrowthMiB(F f) {
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  f();
  getrusage(RUSAGE_SELF, &after);
  return (after.ru_maxrss - before.ru_maxrss) / 1024;
}

TEST(ImageRefusal, HugeHeadersAreRefusedWithoutAllocating) {
  EXPECT_FALSE(decode(makePng(20000, 20000, 8, 6, {0, 1, 2, 3, 4})));  // over the budget
  EXPECT_FALSE(decode(makePng(2000000, 1, 8, 0, {0, 0})));             // over libpng's limit
  EXPECT_FALSE(decode(makePng(0, 1, 8, 0, {0})));
  // Within the budget (400 MB of RGBA) but far too little data to be real.
  EXPECT_LT(peakGrowthMiB([] { EXPECT_FALSE(decode(makePng(10000, 10000, 1, 0, {0, 0}))); }), 100);

  Data jpeg = redBlue();
  std::size_t sof = 2;
  while (sof + 9 < jpeg.size() && !(jpeg[sof] == 0xFF && jpeg[sof + 1] == 0xC0)) ++sof;
  ASSERT_LT(sof + 9, jpeg.size());
  auto resized = [&](std::uint32_t w, std::uint32_t h) {
    Data d = jpeg, dims;
    put(dims, h, 2);
    put(dims, w, 2);
    std::copy(dims.begin(), dims.end(), d.begin() + long(sof) + 5);
    return d;
  };
  EXPECT_FALSE(decode(resized(65000, 65000)));
  EXPECT_FALSE(decode(resized(0, 16)));
  EXPECT_LT(peakGrowthMiB([&] { EXPECT_FALSE(decode(resized(10000, 10000))); }), 100);
  EXPECT_TRUE(decode(resized(32, 16)));
}

TEST(ImageFile, DecodesFilesAndRefusesMissingOrBadOnes) {
  std::string dir = nimb::test::makeTemporaryDirectory("nimb-image");
  auto original = Image::withBitmap(pattern(5, 3), 2.0);
  ASSERT_TRUE(nimb::FileManager::writeAtomically(dir + "/a.png", *original->pngRepresentation()));
  ASSERT_TRUE(nimb::FileManager::writeAtomically(dir + "/b.jpg", redBlue()));
  ASSERT_TRUE(
      nimb::FileManager::writeAtomically(dir + "/c.png", std::string_view("not a picture")));

  auto image = Image::withContentsOfFile(dir + "/a.png");
  ASSERT_TRUE(image);
  EXPECT_EQ(image->bitmap().rgba, original->bitmap().rgba);
  EXPECT_EQ(image->scale(), 1.0);
  auto photo = Image::withContentsOfFile(dir + "/b.jpg");
  ASSERT_TRUE(photo);
  EXPECT_EQ(photo->size(), (Size{32, 16}));
  EXPECT_FALSE(Image::withContentsOfFile(dir + "/c.png"));
  EXPECT_FALSE(Image::withContentsOfFile(dir + "/missing.png"));
  EXPECT_FALSE(Image::withContentsOfFile(dir));
  std::filesystem::remove_all(dir);
}

}  // namespace
