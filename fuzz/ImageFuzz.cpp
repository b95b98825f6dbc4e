// Decodes arbitrary bytes as a picture: PNG, JPEG, GIF or WebP, the format
// sniffed from the bytes. Whatever passes the header must, once bitmap() has
// waited for (or run) the background decode, have a consistent bitmap of
// the size the header gave, and survive a PNG round trip unchanged. Small
// pictures also go through the other three encoders and back.
#include <NimbFoundation/Platform/Image.h>

#include <cstdint>
#include <cstdlib>

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

void roundTrips(const nimb::Image& image) {
  const auto& bm = image.bitmap();
  auto png = image.pngRepresentation();
  check(png.has_value());
  auto again = nimb::Image::withData(*png);
  check(again && again->bitmap().width == bm.width && again->bitmap().height == bm.height);
  check(again->bitmap().rgba == bm.rgba);
  if (static_cast<std::uint64_t>(bm.width) * bm.height > 64 * 64) return;

  auto webp = image.webpRepresentation(100);  // lossless: every byte comes back
  check(webp.has_value());
  again = nimb::Image::withData(*webp);
  check(again && again->bitmap().rgba == bm.rgba);
  for (const auto& lossy :
       {image.gifRepresentation(), image.jpegRepresentation(75), image.webpRepresentation(50)}) {
    check(lossy.has_value());
    again = nimb::Image::withData(*lossy);
    check(again && again->bitmap().width == bm.width && again->bitmap().height == bm.height);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto image = nimb::Image::withData({data, size});
  if (!image) return 0;
  const nimb::Size points = image->size();  // from the header, before any pixel
  const auto& bm = image->bitmap();
  check(image->isDecoded());
  check(bm.width > 0 && bm.height > 0);
  const auto pixels = static_cast<std::uint64_t>(bm.width) * static_cast<std::uint64_t>(bm.height);
  check(pixels <= nimb::Image::kMaxPixels && bm.rgba.size() == pixels * 4);
  const bool sideways = points.width != bm.width;  // a JPEG turned by its EXIF orientation
  check(points.width == (sideways ? bm.height : bm.width));
  check(points.height == (sideways ? bm.width : bm.height));
  // A GIF's canvas is whatever its header says, within the budget, however
  // small the file; encoding a 100-megapixel canvas would take seconds a run.
  if (pixels <= 1u << 22) roundTrips(*image);
  return 0;
}
