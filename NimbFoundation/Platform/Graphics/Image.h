// Image: a raster picture with a size in points, a scale and an
// orientation, the counterpart of the platform's image object.
//
// Pixels are 8-bit RGBA, straight (not premultiplied) alpha, rows packed
// top to bottom. An Image never changes once made, so it is shared freely
// (std::shared_ptr<const Image>) and read from any thread.
//
// Like the platform's own images, one made from encoded bytes (PNG, JPEG,
// GIF, WebP) never stalls its maker: only the header is read at once, which
// settles whether there is a picture at all and its size. The pixels are
// decoded on a background pool straight away, and bitmap() waits for them
// only if they are not there yet. A body that proves corrupt after a good
// header leaves the image its size with fully transparent pixels.
//
// Pixel buffers go back to a small process-wide free list when an image is
// destroyed, and decoding takes them from there: mapping a fresh buffer
// page by page costs more than decoding into it.
//
// Callers: the disk cache stores images as PNG and reads them back from
// files; the image loader decodes downloaded bytes; drawing and the views
// read the bitmap, size, scale and orientation.
//
// Thread rule: every member may be called from any thread at once.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Geometry.h>
#include <NimbFoundation/Platform/Core/Value.h>

namespace NIMB_EXPORT nimb {

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

// A size in pixels a picture is to be shown at.
struct PixelSize {
  int width = 0;
  int height = 0;
  friend bool operator==(const PixelSize&, const PixelSize&) = default;
};

// A block of RGBA pixels.
struct Bitmap {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgba;  // width * height * 4 bytes
};

class Image {
  struct Pixels;
  struct Passkey {};

 public:
  // Pictures larger than this many pixels are refused by the decoders.
  static constexpr std::uint64_t kMaxPixels = 100'000'000;

  // Wraps a bitmap; the pixels are there at once. Fails (nullptr) when the
  // bitmap is empty or its buffer does not hold width * height * 4 bytes.
  // Scale <= 0 is taken as 1.
  static std::shared_ptr<const Image> withBitmap(
      Bitmap bitmap, double scale = 1.0, ImageOrientation orientation = ImageOrientation::Up);

  // A picture from PNG, JPEG, GIF or WebP bytes (the format is sniffed, not
  // trusted from a name; of an animation, the first frame). The header is
  // read before returning: nullptr for bytes that are no picture, or one
  // with no pixels or more than kMaxPixels. The bytes are copied (or taken
  // over) and decoded in the background.
  static std::shared_ptr<const Image> withData(std::span<const std::uint8_t> bytes,
                                               double scale = 1.0);
  static std::shared_ptr<const Image> withData(Data&& bytes, double scale = 1.0);
  // The same, decoded for showing at `decodeFor` pixels (as shown, that is
  // after the orientation: width and height are exchanged for the sideways
  // ones). The picture is decoded at the smallest size that still covers
  // decodeFor in both dimensions, keeping its aspect ratio, and never larger
  // than the full picture; JPEG, which scales in steps of 1/8 while
  // decoding, may come out somewhat larger than that. A decodeFor with a
  // side <= 0 decodes the full picture, exactly as above. Refusals are made
  // on the full size, as above. The decoded size is known at once. JPEG and
  // still WebP pictures are scaled as they decode and never take a
  // full-size buffer; PNG, GIF and animated WebP are decoded whole, then
  // averaged down (colours weighted by alpha), and the full-size buffer goes
  // back to the free list.
  //
  // Note for callers: size() is the decoded pixels divided by scale, so a
  // picture decoded for a smaller size is smaller in points too. Scale it
  // to the frame it is drawn in, or pass a scale that makes up for it.
  static std::shared_ptr<const Image> withData(std::span<const std::uint8_t> bytes, double scale,
                                               PixelSize decodeFor);
  static std::shared_ptr<const Image> withData(Data&& bytes, double scale, PixelSize decodeFor);
  // The same for the file at `path`; nullptr when missing or not a picture.
  static std::shared_ptr<const Image> withContentsOfFile(const std::string& path);

  // Size in points: pixels divided by scale, width and height exchanged for
  // the four left/right orientations, as the platform reports it. Known at
  // once, decoded or not.
  Size size() const;
  // The pixels the bitmap has (or will have, once decoded), before the
  // orientation is applied. Known at once.
  PixelSize pixelSize() const { return {width_, height_}; }
  double scale() const { return scale_; }
  ImageOrientation orientation() const { return orientation_; }
  // The pixels, waiting for the decode if it is still running (or doing it
  // here if it has not started). Should memory run out while decoding, the
  // bitmap is empty (0 x 0) while size() stays what the header said.
  const Bitmap& bitmap() const;
  // Whether bitmap() would return without waiting. Never blocks.
  bool isDecoded() const;
  void waitUntilDecoded() const;

  // Encodings of the pixels (orientation is not applied); nullopt only if
  // encoding fails or the format cannot hold the picture.
  std::optional<Data> pngRepresentation() const;
  // Quality 1 to 100. JPEG has no alpha: colours are weighted by it, so
  // transparent parts come out black.
  std::optional<Data> jpegRepresentation(int quality) const;
  // One frame with a fixed 6x7x6 colour cube, no dithering; pixels under
  // half opacity become the transparent index.
  std::optional<Data> gifRepresentation() const;
  // Lossy at quality 0 to 99; lossless, every byte kept, at 100 or more.
  std::optional<Data> webpRepresentation(float quality) const;

  // Pixel buffers waiting in the free list, for diagnostics and tests.
  static std::size_t recycledBufferCount();

  Image(Bitmap bitmap, double scale, ImageOrientation orientation);
  Image(Passkey, std::shared_ptr<Pixels> pixels, int width, int height, double scale,
        ImageOrientation orientation);

 private:
  // Wraps pixels whose header and bytes are set and queues their decoding.
  static std::shared_ptr<const Image> decoding(std::shared_ptr<Pixels> pixels, double scale,
                                               PixelSize decodeFor);
  static void decode(std::shared_ptr<Pixels> pixels) noexcept;

  std::shared_ptr<Pixels> pixels_;
  int width_ = 0;  // in pixels, from the bitmap, or the header and decodeFor
  int height_ = 0;
  double scale_ = 1.0;
  ImageOrientation orientation_ = ImageOrientation::Up;
};

// PNG encoding of an image, nullopt for a null image (UIImagePNGRepresentation).
std::optional<Data> ImagePNGRepresentation(const std::shared_ptr<const Image>& image);

}  // namespace nimb
