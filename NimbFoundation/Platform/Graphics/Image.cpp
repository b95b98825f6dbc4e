#include <NimbFoundation/Platform/Graphics/Image.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <future>

#include <NimbFoundation/Internal/ImageCodecs.h>
#include <NimbFoundation/Internal/ImageDecodePool.h>
#include <NimbFoundation/Platform/Env/FileManager.h>

namespace nimb {

using detail::ImageDecodePool;
using detail::ImageHeader;
using detail::PixelBufferPool;

// The pixels, shared by the Image and, until it has run, the decode job. The
// job holds only a weak reference while it waits in the queue, so an image
// dropped before its turn is never decoded, and its bytes go with it.
struct Image::Pixels {
  Bitmap bitmap;  // written once by whoever decodes, read only after `ready`

  // For images made from bytes:
  ImageHeader header;
  PixelSize size;                             // what the decode makes: the header's or less
  Data bytes;                                 // the encoded picture, released once decoded
  std::atomic<bool> claimed{false};           // a worker or a reader has taken the decode
  std::optional<std::promise<void>> decoded;  // kept by whoever decodes
  std::shared_future<void> ready;             // not valid for images made from a bitmap

  ~Pixels() { PixelBufferPool::give(std::move(bitmap.rgba)); }
};

namespace {

double normalizedScale(double scale) {
  return std::isfinite(scale) && scale > 0 ? scale : 1.0;
}

ImageOrientation normalizedOrientation(ImageOrientation o) {
  auto code = static_cast<int>(o);
  return code >= 0 && code <= 7 ? o : ImageOrientation::Up;
}

}  // namespace

Image::Image(Bitmap bitmap, double scale, ImageOrientation orientation)
    : pixels_(std::make_shared<Pixels>()),
      width_(bitmap.width),
      height_(bitmap.height),
      scale_(scale),
      orientation_(orientation) {
  pixels_->bitmap = std::move(bitmap);
}

Image::Image(Passkey, std::shared_ptr<Pixels> pixels, int width, int height, double scale,
             ImageOrientation orientation)
    : pixels_(std::move(pixels)),
      width_(width),
      height_(height),
      scale_(scale),
      orientation_(orientation) {}

std::shared_ptr<const Image> Image::withBitmap(Bitmap bitmap, double scale,
                                               ImageOrientation orientation) {
  if (bitmap.width <= 0 || bitmap.height <= 0) return nullptr;
  const auto width = static_cast<std::uint64_t>(bitmap.width);
  const auto height = static_cast<std::uint64_t>(bitmap.height);
  if (!detail::acceptableImageSize(width, height)) return nullptr;
  if (bitmap.rgba.size() != width * height * 4) return nullptr;
  try {
    return std::make_shared<const Image>(std::move(bitmap), normalizedScale(scale),
                                         normalizedOrientation(orientation));
  } catch (...) {
    return nullptr;
  }
}

std::shared_ptr<const Image> Image::withData(std::span<const std::uint8_t> bytes, double scale) {
  return withData(bytes, scale, PixelSize{});
}

std::shared_ptr<const Image> Image::withData(Data&& bytes, double scale) {
  return withData(std::move(bytes), scale, PixelSize{});
}

std::shared_ptr<const Image> Image::withData(std::span<const std::uint8_t> bytes, double scale,
                                             PixelSize decodeFor) {
  try {
    // The header first, so bytes that are no picture are never copied.
    auto header = detail::readImageHeader(bytes);
    if (!header) return nullptr;
    auto pixels = std::make_shared<Pixels>();
    pixels->header = *header;
    pixels->bytes.assign(bytes.begin(), bytes.end());
    return decoding(std::move(pixels), scale, decodeFor);
  } catch (...) {
    return nullptr;
  }
}

std::shared_ptr<const Image> Image::withData(Data&& bytes, double scale, PixelSize decodeFor) {
  try {
    auto header = detail::readImageHeader(bytes);
    if (!header) return nullptr;
    auto pixels = std::make_shared<Pixels>();
    pixels->header = *header;
    pixels->bytes = std::move(bytes);
    return decoding(std::move(pixels), scale, decodeFor);
  } catch (...) {
    return nullptr;
  }
}

std::shared_ptr<const Image> Image::withContentsOfFile(const std::string& path) {
  auto bytes = FileManager::contentsAtPath(path);
  if (!bytes) return nullptr;
  return withData(std::move(*bytes), 1.0);
}

std::shared_ptr<const Image> Image::decoding(std::shared_ptr<Pixels> pixels, double scale,
                                             PixelSize decodeFor) {
  const detail::ImageHeader& header = pixels->header;
  pixels->size = detail::decodeSizeFor(header, decodeFor);
  pixels->ready = pixels->decoded.emplace().get_future().share();
  auto image =
      std::make_shared<const Image>(Passkey{}, pixels, pixels->size.width, pixels->size.height,
                                    normalizedScale(scale), header.orientation);
  // Should the job not even queue, the first reader decodes instead.
  ImageDecodePool::addJob([weak = std::weak_ptr<Pixels>(pixels)] {
    auto pixels = weak.lock();
    if (pixels && !pixels->claimed.exchange(true, std::memory_order_acq_rel)) {
      decode(std::move(pixels));
    }
  });
  return image;
}

void Image::decode(std::shared_ptr<Pixels> pixels) noexcept {
  Pixels& p = *pixels;
  const std::size_t size =
      static_cast<std::size_t>(p.size.width) * static_cast<std::size_t>(p.size.height) * 4;
  try {
    auto buffer = PixelBufferPool::take(size);
    // A recycled buffer still holds an earlier picture, so a failed decode
    // clears it rather than leave anything of that picture showing.
    if (!detail::decodeImage(p.bytes, p.header, p.size, buffer.data())) {
      std::memset(buffer.data(), 0, size);
    }
    p.bitmap = Bitmap{p.size.width, p.size.height, std::move(buffer)};
  } catch (...) {
    // No buffer to be had: the bitmap stays empty (documented in the header).
  }
  Data().swap(p.bytes);
  // Our reference goes before readers are told, so that a reader who drops
  // the image straight after returns its buffer to the free list itself,
  // not this thread at some later moment.
  std::promise<void> decoded = std::move(*p.decoded);
  pixels.reset();
  decoded.set_value();
}

bool Image::isDecoded() const {
  const Pixels& p = *pixels_;
  return !p.ready.valid() || p.ready.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

void Image::waitUntilDecoded() const {
  Pixels& p = *pixels_;
  if (!p.ready.valid()) return;  // made from a bitmap
  // A decode that has not started yet is done here: quicker than waiting
  // for it behind the rest of the queue.
  if (!p.claimed.load(std::memory_order_acquire) &&
      !p.claimed.exchange(true, std::memory_order_acq_rel)) {
    decode(pixels_);
  }
  p.ready.wait();
}

const Bitmap& Image::bitmap() const {
  waitUntilDecoded();
  return pixels_->bitmap;
}

Size Image::size() const {
  const double s = normalizedScale(scale_);
  const double w = width_ / s;
  const double h = height_ / s;
  switch (orientation_) {
    case ImageOrientation::Left:
    case ImageOrientation::Right:
    case ImageOrientation::LeftMirrored:
    case ImageOrientation::RightMirrored:
      return {h, w};
    default:
      return {w, h};
  }
}

std::optional<Data> Image::pngRepresentation() const {
  return detail::encodePng(bitmap());
}

std::optional<Data> Image::jpegRepresentation(int quality) const {
  return detail::encodeJpeg(bitmap(), quality);
}

std::optional<Data> Image::gifRepresentation() const {
  return detail::encodeGif(bitmap());
}

std::optional<Data> Image::webpRepresentation(float quality) const {
  return detail::encodeWebP(bitmap(), quality);
}

std::size_t Image::recycledBufferCount() {
  return PixelBufferPool::count();
}

std::optional<Data> ImagePNGRepresentation(const std::shared_ptr<const Image>& image) {
  if (!image) return std::nullopt;
  return image->pngRepresentation();
}

}  // namespace nimb
