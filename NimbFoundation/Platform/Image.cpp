#include <NimbFoundation/Platform/Image.h>

#include <png.h>
#include <turbojpeg.h>

#include <climits>
#include <cmath>
#include <cstring>

#include <NimbFoundation/Platform/FileManager.h>

namespace nimb {

namespace {

// A decoded picture before it becomes an Image.
struct Decoded {
  Bitmap bitmap;
  ImageOrientation orientation = ImageOrientation::Up;
};

double normalizedScale(double scale) {
  return std::isfinite(scale) && scale > 0 ? scale : 1.0;
}

ImageOrientation normalizedOrientation(ImageOrientation o) {
  auto code = static_cast<int>(o);
  return code >= 0 && code <= 7 ? o : ImageOrientation::Up;
}

// Dimensions the decoders are willing to produce: positive, within the pixel
// budget, and with a row length that fits the libraries' int strides.
bool acceptableSize(std::uint64_t width, std::uint64_t height) {
  if (width == 0 || height == 0) return false;
  if (width > Image::kMaxPixels || height > Image::kMaxPixels) return false;
  if (width * height > Image::kMaxPixels) return false;
  return width * 4 <= static_cast<std::uint64_t>(INT_MAX);
}

bool hasPngSignature(std::span<const std::uint8_t> b) {
  static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  return b.size() >= 8 && std::memcmp(b.data(), kSignature, 8) == 0;
}

bool hasJpegSignature(std::span<const std::uint8_t> b) {
  return b.size() >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF;
}

// ---- PNG -------------------------------------------------------------------

// The most deflate can expand: one 258-byte match per two bits of output.
constexpr std::uint64_t kDeflateMaxRatio = 1032;

// Frees libpng's state on every path out, including early refusals.
struct PngImage {
  png_image image{};
  PngImage() { image.version = PNG_IMAGE_VERSION; }
  ~PngImage() { png_image_free(&image); }
  PngImage(const PngImage&) = delete;
  PngImage& operator=(const PngImage&) = delete;
};

// The simplified API keeps libpng's setjmp/longjmp error handling inside
// libpng, so no C++ frame is ever jumped over.
std::optional<Decoded> decodePng(std::span<const std::uint8_t> bytes) {
  PngImage png;
  if (!png_image_begin_read_from_memory(&png.image, bytes.data(), bytes.size())) return {};
  const std::uint64_t width = png.image.width;
  const std::uint64_t height = png.image.height;
  if (!acceptableSize(width, height)) return {};
  // Every pixel takes at least one bit before compression, so a file this
  // small cannot hold the picture its header claims; refuse it before
  // allocating the claimed size.
  if (width * height / 8 > bytes.size() * kDeflateMaxRatio) return {};

  // Untagged 16-bit files are taken as sRGB like 8-bit ones (libpng would
  // otherwise assume linear and brighten them); tagged files still convert.
  png.image.flags |= PNG_IMAGE_FLAG_16BIT_sRGB;
  png.image.format = PNG_FORMAT_RGBA;

  Decoded out;
  out.bitmap.width = static_cast<int>(width);
  out.bitmap.height = static_cast<int>(height);
  out.bitmap.rgba.resize(static_cast<std::size_t>(width * height * 4));
  // Warnings (a bad ancillary chunk, a dubious colour profile) leave the
  // pixels whole and are accepted; missing or corrupt image data is an error.
  if (!png_image_finish_read(&png.image, nullptr, out.bitmap.rgba.data(),
                             static_cast<png_int_32>(width * 4), nullptr)) {
    return {};
  }
  return out;
}

// ---- JPEG ------------------------------------------------------------------

std::uint16_t read16(const std::uint8_t* p, bool littleEndian) {
  return littleEndian ? static_cast<std::uint16_t>(p[0] | p[1] << 8)
                      : static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

std::uint32_t read32(const std::uint8_t* p, bool littleEndian) {
  std::uint32_t a = p[0], b = p[1], c = p[2], d = p[3];
  return littleEndian ? (d << 24 | c << 16 | b << 8 | a) : (a << 24 | b << 16 | c << 8 | d);
}

ImageOrientation orientationFromExifValue(std::uint32_t value) {
  // EXIF numbers orientations 1 to 8; anything else is taken as upright.
  static constexpr ImageOrientation kFromExif[] = {
      ImageOrientation::Up,           ImageOrientation::Up,
      ImageOrientation::UpMirrored,   ImageOrientation::Down,
      ImageOrientation::DownMirrored, ImageOrientation::LeftMirrored,
      ImageOrientation::Right,        ImageOrientation::RightMirrored,
      ImageOrientation::Left};
  return value < std::size(kFromExif) ? kFromExif[value] : ImageOrientation::Up;
}

// Reads the Orientation tag (0x0112) from IFD0 of the TIFF structure inside
// an Exif segment. Anything malformed means "no orientation", never a refusal:
// the picture itself is still good.
ImageOrientation exifOrientation(std::span<const std::uint8_t> tiff) {
  if (tiff.size() < 8) return ImageOrientation::Up;
  const std::uint8_t* t = tiff.data();
  bool little;
  if (t[0] == 'I' && t[1] == 'I') {
    little = true;
  } else if (t[0] == 'M' && t[1] == 'M') {
    little = false;
  } else {
    return ImageOrientation::Up;
  }
  if (read16(t + 2, little) != 42) return ImageOrientation::Up;
  const std::size_t ifd = read32(t + 4, little);
  if (ifd > tiff.size() || tiff.size() - ifd < 2) return ImageOrientation::Up;
  const std::size_t count = read16(t + ifd, little);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t entry = ifd + 2 + i * 12;
    if (entry > tiff.size() || tiff.size() - entry < 12) break;
    const std::uint8_t* e = t + entry;
    if (read16(e, little) != 0x0112) continue;
    const std::uint16_t type = read16(e + 2, little);
    if (read32(e + 4, little) < 1) return ImageOrientation::Up;
    if (type == 3) return orientationFromExifValue(read16(e + 8, little));  // SHORT
    if (type == 4) return orientationFromExifValue(read32(e + 8, little));  // LONG
    return ImageOrientation::Up;
  }
  return ImageOrientation::Up;
}

// What the marker segments ahead of the first scan tell us.
struct JpegMarkers {
  ImageOrientation orientation = ImageOrientation::Up;
  int frameMarker = 0;  // the SOFn marker code, 0 when none was found
};

bool isFrameMarker(int m) {
  return m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC;
}

JpegMarkers scanJpegMarkers(std::span<const std::uint8_t> b) {
  JpegMarkers out;
  bool sawExif = false;
  std::size_t pos = 2;  // past SOI
  while (pos + 2 <= b.size()) {
    if (b[pos] != 0xFF) break;  // not a marker; the decoder will judge it
    const int marker = b[pos + 1];
    if (marker == 0xFF) {  // fill byte
      ++pos;
      continue;
    }
    pos += 2;
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;  // no length
    if (marker == 0xD9 || marker == 0xDA) break;                         // EOI or the first scan
    if (b.size() - pos < 2) break;
    const std::size_t length = read16(&b[pos], false);
    if (length < 2 || length > b.size() - pos) break;
    auto payload = b.subspan(pos + 2, length - 2);
    if (marker == 0xE1 && !sawExif && payload.size() >= 6 &&
        std::memcmp(payload.data(), "Exif\0\0", 6) == 0) {
      sawExif = true;
      out.orientation = exifOrientation(payload.subspan(6));
    }
    if (isFrameMarker(marker) && out.frameMarker == 0) out.frameMarker = marker;
    pos += length;
  }
  return out;
}

struct TurboJpeg {
  tjhandle handle = tjInitDecompress();
  ~TurboJpeg() {
    if (handle) tjDestroy(handle);
  }
  TurboJpeg() = default;
  TurboJpeg(const TurboJpeg&) = delete;
  TurboJpeg& operator=(const TurboJpeg&) = delete;
};

// Any libjpeg-turbo warning refuses the file: a truncated download decodes
// with a grey bottom and only a warning, and such a picture must not be
// cached as if it were whole. tjDecompress2 already reports -1 after a
// warning; stopping at the first one spares decoding the rest of a bad
// stream. The price is that files with a cosmetic defect (stray bytes before
// a marker) are refused too.
constexpr int kJpegFlags = TJFLAG_ACCURATEDCT | TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS;

std::optional<Decoded> decodeJpeg(std::span<const std::uint8_t> bytes) {
  TurboJpeg tj;
  if (!tj.handle) return {};
  int w = 0, h = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(tj.handle, bytes.data(), bytes.size(), &w, &h, &subsampling,
                          &colorspace) != 0) {
    return {};
  }
  if (w <= 0 || h <= 0) return {};  // also a tables-only stream, which names no size
  const auto width = static_cast<std::uint64_t>(w);
  const auto height = static_cast<std::uint64_t>(h);
  if (!acceptableSize(width, height)) return {};

  JpegMarkers markers = scanJpegMarkers(bytes);
  // Huffman-coded scans spend at least one bit on every 8x8 block of some
  // component, and no component is subsampled below a quarter per axis, so a
  // real picture has at least a bit per 32x32 pixels. That holds for SOF0-2,
  // the Huffman frames libjpeg-turbo decodes (and a frame we could not find is
  // held to it too); arithmetic-coded frames can do better and are exempt.
  const bool huffman = markers.frameMarker == 0 || markers.frameMarker <= 0xC2;
  if (huffman && width * height / (32 * 32 * 8) > bytes.size()) return {};

  const bool cmyk = colorspace == TJCS_CMYK || colorspace == TJCS_YCCK;
  Decoded out;
  out.orientation = markers.orientation;
  out.bitmap.width = w;
  out.bitmap.height = h;
  out.bitmap.rgba.resize(static_cast<std::size_t>(width * height * 4));
  std::uint8_t* pixels = out.bitmap.rgba.data();
  if (tjDecompress2(tj.handle, bytes.data(), bytes.size(), pixels, w, 0, h,
                    cmyk ? TJPF_CMYK : TJPF_RGBA, kJpegFlags) != 0) {
    return {};
  }
  if (cmyk) {
    // CMYK files come from Adobe software, which stores the inks inverted
    // (255 = no ink); without a colour profile the plain product is the best
    // rendering we can give.
    for (std::size_t i = 0, n = out.bitmap.rgba.size(); i < n; i += 4) {
      const unsigned k = pixels[i + 3];
      for (std::size_t c = 0; c < 3; ++c) {
        pixels[i + c] = static_cast<std::uint8_t>((pixels[i + c] * k + 127) / 255);
      }
      pixels[i + 3] = 0xFF;
    }
  }
  return out;
}

}  // namespace

std::shared_ptr<const Image> Image::withBitmap(Bitmap bitmap, double scale,
                                               ImageOrientation orientation) {
  if (bitmap.width <= 0 || bitmap.height <= 0) return nullptr;
  const auto width = static_cast<std::uint64_t>(bitmap.width);
  const auto height = static_cast<std::uint64_t>(bitmap.height);
  if (!acceptableSize(width, height)) return nullptr;
  if (bitmap.rgba.size() != width * height * 4) return nullptr;
  try {
    return std::make_shared<const Image>(std::move(bitmap), normalizedScale(scale),
                                         normalizedOrientation(orientation));
  } catch (...) {
    return nullptr;
  }
}

std::shared_ptr<const Image> Image::withData(std::span<const std::uint8_t> bytes, double scale) {
  // Decoders allocate; running out of memory on a hostile size is a refusal.
  try {
    std::optional<Decoded> decoded;
    if (hasPngSignature(bytes)) {
      decoded = decodePng(bytes);
    } else if (hasJpegSignature(bytes)) {
      decoded = decodeJpeg(bytes);
    }
    if (!decoded) return nullptr;
    return std::make_shared<const Image>(std::move(decoded->bitmap), normalizedScale(scale),
                                         decoded->orientation);
  } catch (...) {
    return nullptr;
  }
}

std::shared_ptr<const Image> Image::withContentsOfFile(const std::string& path) {
  auto bytes = FileManager::contentsAtPath(path);
  if (!bytes) return nullptr;
  return withData(*bytes, 1.0);
}

Size Image::size() const {
  const double s = normalizedScale(scale_);
  const double w = bitmap_.width / s;
  const double h = bitmap_.height / s;
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
  // The constructor is public, so the bitmap is checked again before libpng
  // reads width * height * 4 bytes from it.
  if (bitmap_.width <= 0 || bitmap_.height <= 0) return std::nullopt;
  const auto width = static_cast<std::uint64_t>(bitmap_.width);
  const auto height = static_cast<std::uint64_t>(bitmap_.height);
  if (!acceptableSize(width, height) || bitmap_.rgba.size() != width * height * 4) {
    return std::nullopt;
  }
  try {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = PNG_FORMAT_RGBA;
    // One compression pass into a worst-case buffer; left uninitialised so
    // the pages libpng never writes are never touched.
    png_alloc_size_t capacity = PNG_IMAGE_PNG_SIZE_MAX(image);
    auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
    png_alloc_size_t written = capacity;
    if (!png_image_write_to_memory(&image, buffer.get(), &written, 0, bitmap_.rgba.data(), 0,
                                   nullptr) ||
        written > capacity) {
      png_image_free(&image);
      return std::nullopt;
    }
    return Data(buffer.get(), buffer.get() + written);
  } catch (...) {
    return std::nullopt;
  }
}

std::optional<Data> ImagePNGRepresentation(const std::shared_ptr<const Image>& image) {
  if (!image) return std::nullopt;
  return image->pngRepresentation();
}

}  // namespace nimb
