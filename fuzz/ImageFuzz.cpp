// Decodes arbitrary bytes as a picture: PNG, JPEG, GIF or WebP, the format
// sniffed from the bytes. Whatever passes the header must decode into a
// buffer of the size the header gave; pictures up to 256 x 256 must also
// come out of Image::withData (the loader's and the cache's path, decoded
// on the pool) with the very same pixels and survive a PNG round trip
// unchanged, and small ones go through the other three encoders and back.
//
// The target decodes on its own thread with a budget of one megapixel: the
// library's own budget (Image::kMaxPixels) is tested elsewhere, and filling
// buffers of a hundred megapixels would leave no time to explore the
// parsers.
#include <NimbFoundation/Internal/ImageCodecs.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

constexpr std::uint64_t kPixelBudget = 1 << 20;
constexpr std::uint64_t kPngRoundTripPixels = 256 * 256;
constexpr std::uint64_t kEveryFormatPixels = 64 * 64;

void check(bool ok) {
  if (!ok) std::abort();
}

void roundTrips(const nimb::Image& image, std::uint64_t pixels) {
  const auto& bm = image.bitmap();
  auto png = image.pngRepresentation();
  check(png.has_value());
  auto again = nimb::Image::withData(*png);
  check(again && again->bitmap().width == bm.width && again->bitmap().height == bm.height);
  check(again->bitmap().rgba == bm.rgba);
  if (pixels > kEveryFormatPixels) return;

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
  const std::span<const std::uint8_t> bytes(data, size);
  auto header = nimb::detail::readImageHeader(bytes);
  if (!header) {
    check(!nimb::Image::withData(bytes));  // refused from the header alike
    return 0;
  }
  check(header->width > 0 && header->height > 0);
  const auto pixels =
      static_cast<std::uint64_t>(header->width) * static_cast<std::uint64_t>(header->height);
  check(pixels <= nimb::Image::kMaxPixels);
  if (pixels > kPixelBudget) return 0;

  // One buffer for every run: a fresh one would cost page faults, not parsing.
  static auto* buffer = new std::uint8_t[kPixelBudget * 4];
  // Decoding for a third of the size stays within its smaller buffer, which
  // is as large as decodeSizeFor says and never larger than the picture.
  const nimb::PixelSize third =
      nimb::detail::decodeSizeFor(*header, {header->width / 3, header->height / 3});
  check(third.width > 0 && third.height > 0 && third.width <= header->width &&
        third.height <= header->height);
  nimb::detail::decodeImage(bytes, *header, third, buffer);
  if (!nimb::detail::decodeImage(bytes, *header, {header->width, header->height}, buffer)) return 0;
  if (pixels > kPngRoundTripPixels) return 0;
  // The production path (header at once, pixels on the decode pool, buffers
  // recycled) must give the very same pixels.
  auto image = nimb::Image::withData(bytes);
  check(image != nullptr);
  const auto& bm = image->bitmap();
  check(bm.width == header->width && bm.height == header->height);
  check(std::equal(bm.rgba.begin(), bm.rgba.end(), buffer) && bm.rgba.size() == pixels * 4);
  // Size in points follows the orientation: a sideways JPEG swaps the sides.
  const nimb::Size points = image->size();
  const bool sideways = points.width != bm.width;
  check(points.width == (sideways ? bm.height : bm.width));
  check(points.height == (sideways ? bm.width : bm.height));
  roundTrips(*image, pixels);
  return 0;
}
