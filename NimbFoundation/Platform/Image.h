// Image: a decoded raster picture with a size in points, a scale and an
// orientation, the counterpart of the platform's image object.
//
// Pixels are 8-bit RGBA, straight (not premultiplied) alpha, rows packed
// top to bottom. An Image never changes once made, so it is shared freely
// (std::shared_ptr<const Image>) and read from any thread.
//
// Callers: the disk cache stores images as PNG and reads them back from
// files; the image loader decodes downloaded bytes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <NimbFoundation/Platform/Geometry.h>
#include <NimbFoundation/Platform/Value.h>

namespace nimb {

// The platform's orientation codes, in its order.
enum class ImageOrientation : int {
  Up = 0,
  Down = 1,
  Left = 2,
  Right = 3,
  UpMirrored = 4,
  DownMirrored = 5,
  LeftMirrored = 6,
  RightMirrored = 7,
};

// A block of RGBA pixels.
struct Bitmap {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgba;  // width * height * 4 bytes
};

class Image {
 public:
  // Pictures larger than this many pixels are refused by the decoders.
  static constexpr std::uint64_t kMaxPixels = 100'000'000;

  // Wraps a bitmap. Fails (nullptr) when the bitmap is empty or its buffer
  // does not hold width * height * 4 bytes. Scale <= 0 is taken as 1.
  static std::shared_ptr<const Image> withBitmap(
      Bitmap bitmap, double scale = 1.0, ImageOrientation orientation = ImageOrientation::Up);

  // Decodes PNG or JPEG bytes (the format is sniffed, not trusted from a
  // name). nullptr for anything that is not a whole, decodable picture.
  static std::shared_ptr<const Image> withData(std::span<const std::uint8_t> bytes,
                                               double scale = 1.0);
  // Decodes the file at `path`; nullptr when missing or not a picture.
  static std::shared_ptr<const Image> withContentsOfFile(const std::string& path);

  // Size in points: pixels divided by scale, width and height exchanged for
  // the four left/right orientations, as the platform reports it.
  Size size() const;
  double scale() const { return scale_; }
  ImageOrientation orientation() const { return orientation_; }
  const Bitmap& bitmap() const { return bitmap_; }

  // The PNG encoding of the pixels (orientation is not applied); nullopt
  // only if encoding fails.
  std::optional<Data> pngRepresentation() const;

  Image(Bitmap bitmap, double scale, ImageOrientation orientation)
      : bitmap_(std::move(bitmap)), scale_(scale), orientation_(orientation) {}

 private:
  Bitmap bitmap_;
  double scale_ = 1.0;
  ImageOrientation orientation_ = ImageOrientation::Up;
};

// PNG encoding of an image, nullopt for a null image (UIImagePNGRepresentation).
std::optional<Data> ImagePNGRepresentation(const std::shared_ptr<const Image>& image);

}  // namespace nimb
