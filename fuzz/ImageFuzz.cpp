// Decodes arbitrary bytes as a picture. Whatever decodes must be a
// consistent bitmap that survives a PNG round trip unchanged.
#include <NimbFoundation/Platform/Image.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto image = nimb::Image::withData({data, size});
  if (!image) return 0;
  const auto& bm = image->bitmap();
  if (bm.width <= 0 || bm.height <= 0) std::abort();
  const auto pixels = static_cast<std::uint64_t>(bm.width) * static_cast<std::uint64_t>(bm.height);
  if (pixels > nimb::Image::kMaxPixels || bm.rgba.size() != pixels * 4) std::abort();

  auto png = image->pngRepresentation();
  if (!png) std::abort();
  auto again = nimb::Image::withData(*png);
  if (!again) std::abort();
  if (again->bitmap().width != bm.width || again->bitmap().height != bm.height) std::abort();
  if (again->bitmap().rgba != bm.rgba) std::abort();
  return 0;
}
