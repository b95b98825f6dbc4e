// NimbKit's image helpers: photos turned upright for each orientation (from
// bitmaps and from a JPEG's EXIF tag), one-pixel colour images, and
// `nimbkit orient`.
#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Env/FileManager.h>

#include <gtest/gtest.h>
#include <libexif/exif-data.h>

#include <tuple>

#include "HttpTestServer.h"
#include "TestSupport.h"

namespace nimb {
namespace {

using O = ImageOrientation;
using namespace test;

constexpr Pixel kWhite{255, 255, 255, 255};

// The kit's APP1 payload for an EXIF Orientation tag of `value`, made by libexif.
Data exifWithOrientation(ExifShort value) {
  ExifData* exif = exif_data_new();
  exif_data_set_byte_order(exif, EXIF_BYTE_ORDER_MOTOROLA);
  ExifEntry* entry = exif_entry_new();
  exif_content_add_entry(exif->ifd[EXIF_IFD_0], entry);
  exif_entry_initialize(entry, EXIF_TAG_ORIENTATION);
  exif_set_short(entry->data, EXIF_BYTE_ORDER_MOTOROLA, value);
  exif_entry_unref(entry);
  unsigned char* bytes = nullptr;
  unsigned int size = 0;
  exif_data_save_data(exif, &bytes, &size);
  Data payload(bytes, bytes + size);
  free(bytes);
  exif_data_unref(exif);
  return payload;
}

// `jpeg` with an APP1 segment holding `payload` right after SOI.
Data withApp1(Data jpeg, const Data& payload) {
  const auto n = payload.size() + 2;
  Data segment = {0xFF, 0xE1, std::uint8_t(n >> 8), std::uint8_t(n)};
  segment.insert(segment.end(), payload.begin(), payload.end());
  jpeg.insert(jpeg.begin() + 2, segment.begin(), segment.end());
  return jpeg;
}

TEST(NimbKitImage, EveryOrientationComesOutUprightAtItsSize) {
  // Stored 6x4: red top-left, green top-right, white bottom-left, blue elsewhere.
  const Bitmap stored = filled(6, 4, [](int x, int y) {
    return x == 0 && y == 0 ? kRed : x == 5 && y == 0 ? kGreen : x == 0 && y == 3 ? kWhite : kBlue;
  });
  // Where the three markers must land in the upright picture.
  const struct {
    O orientation;
    int redX, redY, greenX, greenY, whiteX, whiteY;
  } cases[] = {{O::Down, 5, 3, 0, 3, 5, 0},         {O::Left, 0, 5, 0, 0, 3, 5},
               {O::Right, 3, 0, 3, 5, 0, 0},        {O::UpMirrored, 5, 0, 0, 0, 5, 3},
               {O::DownMirrored, 0, 3, 5, 3, 0, 0}, {O::LeftMirrored, 0, 0, 0, 5, 3, 0},
               {O::RightMirrored, 3, 5, 3, 0, 0, 5}};
  for (const auto& c : cases) {
    const int code = int(c.orientation);
    auto image = Image::withBitmap(stored, 1.0, c.orientation);
    auto upright = NimbKit::fixOrientation(image);
    ASSERT_TRUE(upright) << code;
    EXPECT_EQ(upright->orientation(), O::Up) << code;
    EXPECT_EQ(upright->size(), image->size()) << code;
    const Bitmap& out = upright->bitmap();
    ASSERT_EQ(std::tuple(out.width, out.height), code % 4 > 1 ? std::tuple(4, 6) : std::tuple(6, 4))
        << code;
    EXPECT_EQ(pixel(out, c.redX, c.redY), kRed) << code;
    EXPECT_EQ(pixel(out, c.greenX, c.greenY), kGreen) << code;
    EXPECT_EQ(pixel(out, c.whiteX, c.whiteY), kWhite) << code;
    EXPECT_EQ(pixel(out, out.width / 2, out.height / 2), kBlue) << code;
  }
  // Up, and a code beyond the eight (taken as Up), are already upright: the same object.
  for (O already : {O::Up, O(9)}) {
    auto image = Image::withBitmap(stored, 1.0, already);
    EXPECT_EQ(NimbKit::fixOrientation(image), image);
  }
  EXPECT_EQ(NimbKit::fixOrientation(nullptr), nullptr);
}

TEST(NimbKitImage, APictureAtScaleTwoIsRedrawnAtItsPointSize) {
  // 8x4 pixels at scale 2, stored left half red, right half blue, to be turned right: 2x4
  // points whose top half is the stored left.
  auto image = Image::withBitmap(filled(8, 4, [](int x, int) { return x < 4 ? kRed : kBlue; }), 2.0,
                                 O::Right);
  auto upright = NimbKit::fixOrientation(image);
  ASSERT_TRUE(upright);
  EXPECT_EQ(upright->scale(), 1.0);
  const Bitmap& out = upright->bitmap();
  ASSERT_EQ(std::tuple(out.width, out.height), std::tuple(2, 4));
  EXPECT_LE(farthest(pixel(out, 1, 0), kRed), 2);
  EXPECT_LE(farthest(pixel(out, 0, 3), kBlue), 2);
}

TEST(NimbKitImage, ImageWithColorIsOnePixelOfTheColour) {
  auto image = NimbKit::imageWithColor(Color::colorWithRed(1, 0.5, 0, 0.5));
  ASSERT_TRUE(image);
  ASSERT_EQ(std::tuple(image->size(), image->scale(), image->bitmap().width),
            std::tuple(Size{1, 1}, 1.0, 1));
  EXPECT_LE(farthest(pixel(image->bitmap(), 0, 0), {255, 128, 0, 128}), 1);
}

TEST(NimbKitImage, AJpegTaggedByLibexifDecodesSidewaysAndTurnsUpright) {
  // Stored 32x16, left half red, right half blue, tagged "rotate 90 degrees clockwise" (6).
  auto plain = Image::withBitmap(filled(32, 16, [](int x, int) {
                 return x < 16 ? kRed : kBlue;
               }))->jpegRepresentation(95);
  ASSERT_TRUE(plain);
  const Data jpeg = withApp1(*plain, exifWithOrientation(6));
  // nimbkit orient decodes it, says what it read (orientation and stored size), and writes the
  // upright PNG; the library's turning of each orientation is checked above on bitmaps.
  ScopedHome home;
  const std::string in = home.root() + "/photo.jpg", out = home.root() + "/up.png";
  ASSERT_TRUE(FileManager::writeAtomically(in, jpeg));
  auto run = runNimbkit({"orient", in, "--out", out});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, "orientation 3 (right), stored 32x16, upright 16x32\n");
  auto written = Image::withContentsOfFile(out);
  ASSERT_TRUE(written);
  EXPECT_EQ(std::tuple(written->orientation(), written->size()), std::tuple(O::Up, Size{16, 32}));
  EXPECT_LE(farthest(pixel(written->bitmap(), 8, 4), kRed), 10);
  EXPECT_LE(farthest(pixel(written->bitmap(), 8, 27), kBlue), 10);

  auto missing = runNimbkit({"orient", home.root() + "/none.jpg"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.err.find("none.jpg: missing, unreadable or not a picture"), std::string::npos)
      << missing.err;
}

}  // namespace
}  // namespace nimb
