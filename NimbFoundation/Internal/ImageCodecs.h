// ImageCodecs: the picture formats Image reads and writes, as plain functions
// over bytes and RGBA buffers. PNG, JPEG (with its EXIF orientation), GIF
// (the first frame) and WebP (still, or the first frame of an animation) are
// read; the same four are written.
//
// Reading comes in two steps, as Image uses it: the header, at once on the
// caller's thread, then the pixels, on the decode pool. Every refusal that
// can be made from the header (not a picture, no pixels, over the pixel
// budget, a size the file is far too small to hold) is made in the first
// step, before any pixel buffer exists.
//
// Callers: Image only. Thread rule: no shared state; every function may run
// on any number of threads at once.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include <NimbFoundation/Platform/Graphics/Image.h>

namespace nimb::detail {

enum class ImageFormat { Png, Jpeg, Gif, WebP };

// What the header says about a picture.
struct ImageHeader {
  ImageFormat format = ImageFormat::Png;
  int width = 0;  // in pixels, as decoded (before orientation)
  int height = 0;
  ImageOrientation orientation = ImageOrientation::Up;
};

// Dimensions the decoders are willing to produce: positive, within
// Image::kMaxPixels, and with a row length that fits the libraries' int
// strides.
bool acceptableImageSize(std::uint64_t width, std::uint64_t height);

// Sniffs the format from the bytes (never from a name) and reads the header;
// nullopt when the bytes are no picture we read or one we refuse to decode.
std::optional<ImageHeader> readImageHeader(std::span<const std::uint8_t> bytes);

// The pixel size `header`'s picture is decoded at to be shown at `target`
// (pixels, as shown: after the orientation). A target with a side <= 0, or
// one the picture does not exceed, gives the full size. Otherwise the
// smallest size covering the target in both dimensions, keeping the aspect
// ratio: exactly that for PNG, GIF and WebP; for JPEG the smallest of the
// DCT scaling steps (1/8 up to 1) that covers it, as those cost no resampling.
PixelSize decodeSizeFor(const ImageHeader& header, PixelSize target);

// Decodes the picture `header` describes into `rgba`, which holds
// size.width * size.height * 4 bytes; `size` is the header's own or one
// decodeSizeFor gave. False when the body is corrupt or memory ran out,
// leaving `rgba` holding anything.
bool decodeImage(std::span<const std::uint8_t> bytes, const ImageHeader& header, PixelSize size,
                 std::uint8_t* rgba) noexcept;

// Area-averaging downscale of a straight-alpha RGBA picture: every output
// pixel is the mean of the source area it covers, colours weighted by alpha
// so that transparent pixels lend none of their colour. `to` must not be
// larger than `from` in either dimension.
void downscaleRgba(const std::uint8_t* from, int fromWidth, int fromHeight, std::uint8_t* to,
                   int toWidth, int toHeight);

// Encoders. The bitmap must be consistent (width * height * 4 bytes, within
// the budget); nullopt when the format cannot hold it or encoding fails.
std::optional<Data> encodePng(const Bitmap& bitmap) noexcept;
std::optional<Data> encodeJpeg(const Bitmap& bitmap, int quality) noexcept;
std::optional<Data> encodeGif(const Bitmap& bitmap) noexcept;
std::optional<Data> encodeWebP(const Bitmap& bitmap, float quality) noexcept;

}  // namespace nimb::detail
