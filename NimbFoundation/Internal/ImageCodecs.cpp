#include <NimbFoundation/Internal/ImageCodecs.h>

#include <gif_lib.h>
#include <libexif/exif-data.h>
#include <png.h>
#include <turbojpeg.h>
#include <webp/decode.h>
#include <webp/demux.h>
#include <webp/encode.h>

#include <NimbFoundation/Internal/ImageDecodePool.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace nimb::detail {

namespace {

bool hasPngSignature(std::span<const std::uint8_t> b) {
  static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  return b.size() >= 8 && std::memcmp(b.data(), kSignature, 8) == 0;
}

bool hasJpegSignature(std::span<const std::uint8_t> b) {
  return b.size() >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF;
}

bool hasGifSignature(std::span<const std::uint8_t> b) {
  return b.size() >= 6 &&
         (std::memcmp(b.data(), "GIF87a", 6) == 0 || std::memcmp(b.data(), "GIF89a", 6) == 0);
}

bool hasWebPSignature(std::span<const std::uint8_t> b) {
  return b.size() >= 12 && std::memcmp(b.data(), "RIFF", 4) == 0 &&
         std::memcmp(b.data() + 8, "WEBP", 4) == 0;
}

// Whether an encoder may read width * height * 4 bytes from the bitmap.
// Image's constructor is public, so a bitmap can reach here unchecked.
bool consistent(const Bitmap& bm) {
  if (bm.width <= 0 || bm.height <= 0) return false;
  const auto width = static_cast<std::uint64_t>(bm.width);
  const auto height = static_cast<std::uint64_t>(bm.height);
  return acceptableImageSize(width, height) && bm.rgba.size() == width * height * 4;
}

std::size_t byteCount(const ImageHeader& h) {
  return static_cast<std::size_t>(h.width) * static_cast<std::size_t>(h.height) * 4;
}

std::size_t byteCount(PixelSize s) {
  return static_cast<std::size_t>(s.width) * static_cast<std::size_t>(s.height) * 4;
}

// Decodes the full picture into a pooled buffer, then area-averages it down
// to `size` in `out`; the full-size buffer goes back to the pool either way.
bool decodeFullThenDownscale(std::span<const std::uint8_t> bytes, const ImageHeader& header,
                             PixelSize size, std::uint8_t* out,
                             bool (*decodeFull)(std::span<const std::uint8_t>, const ImageHeader&,
                                                std::uint8_t*)) {
  struct Pooled {
    std::vector<std::uint8_t> buffer;
    ~Pooled() { PixelBufferPool::give(std::move(buffer)); }
  } full{PixelBufferPool::take(byteCount(header))};
  if (!decodeFull(bytes, header, full.buffer.data())) return false;
  downscaleRgba(full.buffer.data(), header.width, header.height, out, size.width, size.height);
  return true;
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
std::optional<ImageHeader> readPngHeader(std::span<const std::uint8_t> bytes) {
  PngImage png;
  if (!png_image_begin_read_from_memory(&png.image, bytes.data(), bytes.size())) return {};
  const std::uint64_t width = png.image.width;
  const std::uint64_t height = png.image.height;
  if (!acceptableImageSize(width, height)) return {};
  // Every pixel takes at least one bit before compression, so a file this
  // small cannot hold the picture its header claims.
  if (width * height / 8 > bytes.size() * kDeflateMaxRatio) return {};
  return ImageHeader{ImageFormat::Png, static_cast<int>(width), static_cast<int>(height)};
}

bool decodePng(std::span<const std::uint8_t> bytes, const ImageHeader& header, std::uint8_t* out) {
  PngImage png;
  if (!png_image_begin_read_from_memory(&png.image, bytes.data(), bytes.size())) return false;
  if (png.image.width != static_cast<png_uint_32>(header.width) ||
      png.image.height != static_cast<png_uint_32>(header.height)) {
    return false;
  }
  // Untagged 16-bit files are taken as sRGB like 8-bit ones (libpng would
  // otherwise assume linear and brighten them); tagged files still convert.
  png.image.flags |= PNG_IMAGE_FLAG_16BIT_sRGB;
  png.image.format = PNG_FORMAT_RGBA;
  // Warnings (a bad ancillary chunk, a dubious colour profile) leave the
  // pixels whole and are accepted; missing or corrupt image data is an error.
  return png_image_finish_read(&png.image, nullptr, out, header.width * 4, nullptr) != 0;
}

// ---- JPEG ------------------------------------------------------------------

std::uint16_t read16(const std::uint8_t* p, bool littleEndian) {
  return littleEndian ? static_cast<std::uint16_t>(p[0] | p[1] << 8)
                      : static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

ImageOrientation orientationFromExifValue(unsigned value) {
  // EXIF numbers orientations 1 to 8; anything else is taken as upright.
  static constexpr ImageOrientation kFromExif[] = {
      ImageOrientation::Up,           ImageOrientation::Up,
      ImageOrientation::UpMirrored,   ImageOrientation::Down,
      ImageOrientation::DownMirrored, ImageOrientation::LeftMirrored,
      ImageOrientation::Right,        ImageOrientation::RightMirrored,
      ImageOrientation::Left};
  return value < std::size(kFromExif) ? kFromExif[value] : ImageOrientation::Up;
}

// The Orientation tag (0x0112) of IFD0 in the payload of an APP1 "Exif"
// segment (the "Exif\0\0" header included). libexif reads only these bytes,
// so nothing past the segment is ever looked at. Anything malformed means
// "no orientation", never a refusal: the picture itself is still good.
ImageOrientation exifOrientation(std::span<const std::uint8_t> segment) {
  // A TIFF header (byte order, then 42) must follow; libexif takes less.
  if (segment.size() < 14) return ImageOrientation::Up;
  const std::uint8_t* t = segment.data() + 6;
  const bool little = t[0] == 'I' && t[1] == 'I';
  if (!little && !(t[0] == 'M' && t[1] == 'M')) return ImageOrientation::Up;
  if (read16(t + 2, little) != 42) return ImageOrientation::Up;

  ExifData* data = exif_data_new();
  if (!data) return ImageOrientation::Up;
  // Read the tags as they are: no mandatory tags made up, no values "fixed".
  exif_data_unset_option(data, EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
  exif_data_load_data(data, segment.data(), static_cast<unsigned>(segment.size()));
  ImageOrientation out = ImageOrientation::Up;
  ExifEntry* entry = exif_content_get_entry(data->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
  if (entry && entry->data && entry->components >= 1) {
    const ExifByteOrder order = exif_data_get_byte_order(data);
    if (entry->format == EXIF_FORMAT_SHORT && entry->size >= 2) {
      out = orientationFromExifValue(exif_get_short(entry->data, order));
    } else if (entry->format == EXIF_FORMAT_LONG && entry->size >= 4) {
      out = orientationFromExifValue(exif_get_long(entry->data, order));
    }
  }
  exif_data_unref(data);
  return out;
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
      out.orientation = exifOrientation(payload);
    }
    if (isFrameMarker(marker) && out.frameMarker == 0) out.frameMarker = marker;
    pos += length;
  }
  return out;
}

struct TurboJpeg {
  tjhandle handle;
  explicit TurboJpeg(bool compress) : handle(compress ? tjInitCompress() : tjInitDecompress()) {}
  ~TurboJpeg() {
    if (handle) tjDestroy(handle);
  }
  TurboJpeg(const TurboJpeg&) = delete;
  TurboJpeg& operator=(const TurboJpeg&) = delete;
};

std::optional<ImageHeader> readJpegHeader(std::span<const std::uint8_t> bytes) {
  TurboJpeg tj(false);
  if (!tj.handle) return {};
  int w = 0, h = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(tj.handle, bytes.data(), bytes.size(), &w, &h, &subsampling,
                          &colorspace) != 0) {
    return {};
  }
  if (w <= 0 || h <= 0) return {};  // also a tables-only stream, which names no size
  const auto width = static_cast<std::uint64_t>(w);
  const auto height = static_cast<std::uint64_t>(h);
  if (!acceptableImageSize(width, height)) return {};

  JpegMarkers markers = scanJpegMarkers(bytes);
  // Huffman-coded scans spend at least one bit on every 8x8 block of some
  // component, and no component is subsampled below a quarter per axis, so a
  // real picture has at least a bit per 32x32 pixels. That holds for SOF0-2,
  // the Huffman frames libjpeg-turbo decodes (and a frame we could not find is
  // held to it too); arithmetic-coded frames can do better and are exempt.
  const bool huffman = markers.frameMarker == 0 || markers.frameMarker <= 0xC2;
  if (huffman && width * height / (32 * 32 * 8) > bytes.size()) return {};
  return ImageHeader{ImageFormat::Jpeg, w, h, markers.orientation};
}

// Warnings are not failures: a cut-off download decodes with a grey bottom,
// which is what the platform shows for it too. TJFLAG_LIMITSCANS still stops
// progressive files built to spend minutes on thousands of scans.
constexpr int kJpegFlags = TJFLAG_ACCURATEDCT | TJFLAG_LIMITSCANS;

// The size the smallest DCT scaling step (of those at most 1) that covers
// `target` makes of a `width` x `height` picture; scaling while decoding
// costs nothing, and never touches a full-size buffer.
PixelSize jpegScaledSize(int width, int height, PixelSize target) {
  PixelSize best{width, height};
  int count = 0;
  const tjscalingfactor* factors = tjGetScalingFactors(&count);
  for (int i = 0; factors && i < count; ++i) {
    const tjscalingfactor f = factors[i];
    if (f.num <= 0 || f.num > f.denom) continue;
    const PixelSize scaled{TJSCALED(width, f), TJSCALED(height, f)};
    if (scaled.width >= target.width && scaled.height >= target.height &&
        std::uint64_t(scaled.width) * scaled.height < std::uint64_t(best.width) * best.height) {
      best = scaled;
    }
  }
  return best;
}

// Decodes at `size`: the full size or one jpegScaledSize gave, which
// libjpeg-turbo reaches with its DCT scaling.
bool decodeJpeg(std::span<const std::uint8_t> bytes, const ImageHeader& header, PixelSize size,
                std::uint8_t* out) {
  TurboJpeg tj(false);
  if (!tj.handle) return false;
  int w = 0, h = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(tj.handle, bytes.data(), bytes.size(), &w, &h, &subsampling,
                          &colorspace) != 0 ||
      w != header.width || h != header.height) {
    return false;
  }
  const bool cmyk = colorspace == TJCS_CMYK || colorspace == TJCS_YCCK;
  // libjpeg-turbo reports a fatal error that follows a warning as a mere
  // warning, with rows left unwritten; cleared first, such rows come out
  // transparent instead of showing the picture that used the buffer before.
  const std::size_t n = byteCount(size);
  std::memset(out, 0, n);
  if (tjDecompress2(tj.handle, bytes.data(), bytes.size(), out, size.width, 0, size.height,
                    cmyk ? TJPF_CMYK : TJPF_RGBA, kJpegFlags) != 0 &&
      tjGetErrorCode(tj.handle) != TJERR_WARNING) {
    return false;
  }
  if (cmyk) {
    // CMYK files come from Adobe software, which stores the inks inverted
    // (255 = no ink); without a colour profile the plain product is the best
    // rendering we can give.
    for (std::size_t i = 0; i < n; i += 4) {
      const unsigned k = out[i + 3];
      for (std::size_t c = 0; c < 3; ++c) {
        out[i + c] = static_cast<std::uint8_t>((out[i + c] * k + 127) / 255);
      }
      out[i + 3] = 0xFF;
    }
  }
  return true;
}

// ---- GIF -------------------------------------------------------------------

// giflib pulls its input through a callback; this one serves a byte span.
struct GifSource {
  std::span<const std::uint8_t> bytes;
  std::size_t position = 0;
};

int readGifBytes(GifFileType* gif, GifByteType* buffer, int wanted) {
  auto* source = static_cast<GifSource*>(gif->UserData);
  const std::size_t left = source->bytes.size() - source->position;
  const std::size_t n = std::min(left, static_cast<std::size_t>(std::max(wanted, 0)));
  std::memcpy(buffer, source->bytes.data() + source->position, n);
  source->position += n;
  return static_cast<int>(n);
}

struct GifCloser {
  void operator()(GifFileType* gif) const {
    int error = 0;
    DGifCloseFile(gif, &error);
  }
};

std::optional<ImageHeader> readGifHeader(std::span<const std::uint8_t> bytes) {
  // The logical screen descriptor follows the signature: the canvas every
  // frame is drawn on, and the size the picture has.
  if (bytes.size() < 13) return {};
  const int width = bytes[6] | bytes[7] << 8;
  const int height = bytes[8] | bytes[9] << 8;
  if (!acceptableImageSize(width, height)) return {};
  return ImageHeader{ImageFormat::Gif, width, height};
}

// Draws the first frame on a transparent canvas the size of the logical
// screen, at the frame's offset; what falls outside the canvas is dropped.
bool decodeGif(std::span<const std::uint8_t> bytes, const ImageHeader& header, std::uint8_t* out) {
  GifSource source{bytes};
  int error = 0;
  std::unique_ptr<GifFileType, GifCloser> gif(DGifOpen(&source, readGifBytes, &error));
  if (!gif || gif->SWidth != header.width || gif->SHeight != header.height) return false;
  std::memset(out, 0, byteCount(header));

  int transparent = NO_TRANSPARENT_COLOR;
  for (;;) {
    GifRecordType type = UNDEFINED_RECORD_TYPE;
    if (DGifGetRecordType(gif.get(), &type) == GIF_ERROR) return false;
    if (type == TERMINATE_RECORD_TYPE) return false;  // no frame at all
    if (type == EXTENSION_RECORD_TYPE) {
      int code = 0;
      GifByteType* block = nullptr;
      if (DGifGetExtension(gif.get(), &code, &block) == GIF_ERROR) return false;
      // The graphics control block ahead of a frame names its transparent
      // index; a later one (for a later frame) never gets read.
      GraphicsControlBlock control;
      if (code == GRAPHICS_EXT_FUNC_CODE && block && block[0] == 4 &&
          DGifExtensionToGCB(block[0], block + 1, &control) == GIF_OK) {
        transparent = control.TransparentColor;
      }
      while (block) {
        if (DGifGetExtensionNext(gif.get(), &block) == GIF_ERROR) return false;
      }
      continue;
    }
    if (type == IMAGE_DESC_RECORD_TYPE) break;
  }
  if (DGifGetImageDesc(gif.get()) == GIF_ERROR) return false;

  const GifImageDesc& frame = gif->Image;
  const ColorMapObject* map = frame.ColorMap ? frame.ColorMap : gif->SColorMap;
  if (!map || !map->Colors) return false;
  if (frame.Width <= 0 || frame.Height <= 0) return true;  // an empty frame draws nothing

  std::vector<GifPixelType> line(static_cast<std::size_t>(frame.Width));
  auto drawRow = [&](int y) {
    const long canvasY = static_cast<long>(frame.Top) + y;
    if (canvasY >= header.height) return;
    std::uint8_t* row = out + static_cast<std::size_t>(canvasY) * header.width * 4;
    const int visible = std::min(frame.Width, header.width - std::min(frame.Left, header.width));
    for (int x = 0; x < visible; ++x) {
      const int index = line[x];
      // Indices past the palette are left transparent, like the transparent one.
      if (index == transparent || index >= map->ColorCount) continue;
      std::uint8_t* p = row + (static_cast<std::size_t>(frame.Left) + x) * 4;
      p[0] = map->Colors[index].Red;
      p[1] = map->Colors[index].Green;
      p[2] = map->Colors[index].Blue;
      p[3] = 0xFF;
    }
  };
  if (frame.Interlace) {
    // Four passes: every 8th row from 0, every 8th from 4, every 4th from 2,
    // every 2nd from 1.
    static constexpr int kStart[] = {0, 4, 2, 1}, kStep[] = {8, 8, 4, 2};
    for (int pass = 0; pass < 4; ++pass) {
      for (int y = kStart[pass]; y < frame.Height; y += kStep[pass]) {
        if (DGifGetLine(gif.get(), line.data(), frame.Width) == GIF_ERROR) return false;
        drawRow(y);
      }
    }
  } else {
    // Rows run top to bottom, so reading can stop at the canvas's bottom edge.
    const int rows = std::min(frame.Height, std::max(header.height - frame.Top, 0));
    for (int y = 0; y < rows; ++y) {
      if (DGifGetLine(gif.get(), line.data(), frame.Width) == GIF_ERROR) return false;
      drawRow(y);
    }
  }
  return true;
}

// ---- WebP ------------------------------------------------------------------

std::optional<ImageHeader> readWebPHeader(std::span<const std::uint8_t> bytes) {
  WebPBitstreamFeatures features;
  if (WebPGetFeatures(bytes.data(), bytes.size(), &features) != VP8_STATUS_OK) return {};
  // For an animation these are the canvas's dimensions.
  if (features.width <= 0 || features.height <= 0 ||
      !acceptableImageSize(features.width, features.height)) {
    return {};
  }
  return ImageHeader{ImageFormat::WebP, features.width, features.height};
}

struct DemuxDeleter {
  void operator()(WebPDemuxer* demux) const { WebPDemuxDelete(demux); }
};

// A still picture at a smaller size, through libwebp's own scaling as it
// decodes, straight into `out`.
bool decodeWebPScaled(std::span<const std::uint8_t> bytes, PixelSize size, std::uint8_t* out) {
  WebPDecoderConfig config;
  if (!WebPInitDecoderConfig(&config)) return false;
  config.options.use_scaling = 1;
  config.options.scaled_width = size.width;
  config.options.scaled_height = size.height;
  config.output.colorspace = MODE_RGBA;
  config.output.is_external_memory = 1;
  config.output.u.RGBA.rgba = out;
  config.output.u.RGBA.stride = size.width * 4;
  config.output.u.RGBA.size = byteCount(size);
  const bool ok = WebPDecode(bytes.data(), bytes.size(), &config) == VP8_STATUS_OK;
  WebPFreeDecBuffer(&config.output);
  return ok;
}

bool decodeWebP(std::span<const std::uint8_t> bytes, const ImageHeader& header, std::uint8_t* out);

bool decodeWebP(std::span<const std::uint8_t> bytes, const ImageHeader& header, PixelSize size,
                std::uint8_t* out) {
  WebPBitstreamFeatures features;
  if (WebPGetFeatures(bytes.data(), bytes.size(), &features) != VP8_STATUS_OK ||
      features.width != header.width || features.height != header.height) {
    return false;
  }
  if (size.width == header.width && size.height == header.height) {
    return decodeWebP(bytes, header, out);
  }
  if (!features.has_animation) return decodeWebPScaled(bytes, size, out);
  return decodeFullThenDownscale(bytes, header, size, out, decodeWebP);
}

bool decodeWebP(std::span<const std::uint8_t> bytes, const ImageHeader& header, std::uint8_t* out) {
  WebPBitstreamFeatures features;
  if (WebPGetFeatures(bytes.data(), bytes.size(), &features) != VP8_STATUS_OK ||
      features.width != header.width || features.height != header.height) {
    return false;
  }
  const int stride = header.width * 4;
  const std::size_t size = byteCount(header);
  if (!features.has_animation) {
    return WebPDecodeRGBAInto(bytes.data(), bytes.size(), out, size, stride) != nullptr;
  }
  // An animation: its first frame, drawn at its offset on a transparent
  // canvas. Blending with what lies below changes nothing on an empty canvas.
  WebPData data{bytes.data(), bytes.size()};
  std::unique_ptr<WebPDemuxer, DemuxDeleter> demux(WebPDemux(&data));
  if (!demux) return false;
  WebPIterator frame;
  if (!WebPDemuxGetFrame(demux.get(), 1, &frame)) return false;
  // The bounds come from the frame's own bitstream, which is what gets
  // written, not from the frame header in front of it.
  int width = 0, height = 0;
  bool ok = WebPGetInfo(frame.fragment.bytes, frame.fragment.size, &width, &height) &&
            frame.x_offset >= 0 && frame.y_offset >= 0 && width > 0 && height > 0 &&
            frame.x_offset <= header.width - width && frame.y_offset <= header.height - height;
  if (ok) {
    std::memset(out, 0, size);
    const std::size_t at = (static_cast<std::size_t>(frame.y_offset) * header.width +
                            static_cast<std::size_t>(frame.x_offset)) *
                           4;
    ok = WebPDecodeRGBAInto(frame.fragment.bytes, frame.fragment.size, out + at, size - at,
                            stride) != nullptr;
  }
  WebPDemuxReleaseIterator(&frame);
  return ok;
}

// ---- Encoders --------------------------------------------------------------

// giflib pushes its output through a callback; this one appends to a Data.
// An exception must not cross giflib's C frames, so running out of memory
// becomes a short write, which giflib reports as an error.
int writeGifBytes(GifFileType* gif, const GifByteType* bytes, int n) {
  try {
    auto* out = static_cast<Data*>(gif->UserData);
    out->insert(out->end(), bytes, bytes + n);
    return n;
  } catch (...) {
    return 0;
  }
}

struct GifWriterCloser {
  void operator()(GifFileType* gif) const {
    int error = 0;
    EGifCloseFile(gif, &error);
  }
};

// The GIF palette: a 6x7x6 colour cube (the eye tells greens apart best),
// then one transparent entry for pixels under half opacity.
constexpr int kGreenLevels = 7, kRedBlueLevels = 6;
constexpr int kTransparentIndex = kRedBlueLevels * kGreenLevels * kRedBlueLevels;  // 252

int quantise(int value, int levels) {
  return (value * (levels - 1) + 127) / 255;
}

int level(int index, int levels) {
  return (index * 255 + (levels - 1) / 2) / (levels - 1);
}

}  // namespace

bool acceptableImageSize(std::uint64_t width, std::uint64_t height) {
  if (width == 0 || height == 0) return false;
  if (width > Image::kMaxPixels || height > Image::kMaxPixels) return false;
  if (width * height > Image::kMaxPixels) return false;
  return width * 4 <= static_cast<std::uint64_t>(INT_MAX);
}

std::optional<ImageHeader> readImageHeader(std::span<const std::uint8_t> bytes) {
  if (hasPngSignature(bytes)) return readPngHeader(bytes);
  if (hasJpegSignature(bytes)) return readJpegHeader(bytes);
  if (hasGifSignature(bytes)) return readGifHeader(bytes);
  if (hasWebPSignature(bytes)) return readWebPHeader(bytes);
  return std::nullopt;
}

PixelSize decodeSizeFor(const ImageHeader& header, PixelSize target) {
  const PixelSize full{header.width, header.height};
  if (target.width <= 0 || target.height <= 0) return full;
  switch (header.orientation) {  // the target as the picture is stored
    case ImageOrientation::Left:
    case ImageOrientation::Right:
    case ImageOrientation::LeftMirrored:
    case ImageOrientation::RightMirrored:
      std::swap(target.width, target.height);
      break;
    default:
      break;
  }
  if (target.width >= full.width || target.height >= full.height) return full;
  if (header.format == ImageFormat::Jpeg) return jpegScaledSize(full.width, full.height, target);
  // The side that needs the larger share of the picture sets the scale; the
  // other is rounded up so that it still covers its target.
  const std::uint64_t w = full.width, h = full.height, tw = target.width, th = target.height;
  if (tw * h >= th * w) {
    return {target.width, static_cast<int>(std::min(h, (h * tw + w - 1) / w))};
  }
  return {static_cast<int>(std::min(w, (w * th + h - 1) / h)), target.height};
}

bool decodeImage(std::span<const std::uint8_t> bytes, const ImageHeader& header, PixelSize size,
                 std::uint8_t* rgba) noexcept {
  const bool fullSize = size.width == header.width && size.height == header.height;
  if (size.width <= 0 || size.height <= 0 || size.width > header.width ||
      size.height > header.height) {
    return false;
  }
  try {
    switch (header.format) {
      case ImageFormat::Png:
        return fullSize ? decodePng(bytes, header, rgba)
                        : decodeFullThenDownscale(bytes, header, size, rgba, decodePng);
      case ImageFormat::Jpeg:
        return decodeJpeg(bytes, header, size, rgba);
      case ImageFormat::Gif:
        return fullSize ? decodeGif(bytes, header, rgba)
                        : decodeFullThenDownscale(bytes, header, size, rgba, decodeGif);
      case ImageFormat::WebP:
        return decodeWebP(bytes, header, size, rgba);
    }
  } catch (...) {
    // Only a line buffer, or for a smaller size a full-size one, is
    // allocated along the way; without it, the picture is as good as corrupt.
  }
  return false;
}

void downscaleRgba(const std::uint8_t* from, int fromWidth, int fromHeight, std::uint8_t* to,
                   int toWidth, int toHeight) {
  // In units of 1/to of a source pixel, output pixel i spans [i * from,
  // (i + 1) * from) and source pixel j spans [j * to, (j + 1) * to): the
  // overlaps are exact integers, and the weights of each output sum to 1.
  struct Taps {
    std::vector<int> first;      // per output: the first source pixel it covers
    std::vector<int> offset;     // per output, and one past: where its weights start
    std::vector<float> weights;  // per output, one per source pixel covered
  };
  auto taps = [](int source, int target) {
    Taps t;
    t.first.resize(static_cast<std::size_t>(target));
    t.offset.resize(static_cast<std::size_t>(target) + 1);
    const auto n = static_cast<std::int64_t>(source), m = static_cast<std::int64_t>(target);
    for (std::int64_t i = 0; i < m; ++i) {
      const std::int64_t begin = i * n, end = (i + 1) * n;
      t.first[i] = static_cast<int>(begin / m);
      t.offset[i] = static_cast<int>(t.weights.size());
      for (std::int64_t j = begin / m; j * m < end; ++j) {
        const std::int64_t overlap = std::min(end, (j + 1) * m) - std::max(begin, j * m);
        t.weights.push_back(static_cast<float>(overlap) / static_cast<float>(n));
      }
    }
    t.offset[m] = static_cast<int>(t.weights.size());
    return t;
  };
  const Taps across = taps(fromWidth, toWidth), down = taps(fromHeight, toHeight);
  // Per output pixel of the current row: colours times alpha, then alpha.
  std::vector<float> sums(static_cast<std::size_t>(toWidth) * 4);
  for (int y = 0; y < toHeight; ++y) {
    std::fill(sums.begin(), sums.end(), 0.0f);
    for (int k = down.offset[y]; k < down.offset[y + 1]; ++k) {
      const float wy = down.weights[k];
      const std::uint8_t* row =
          from + static_cast<std::size_t>(down.first[y] + (k - down.offset[y])) * fromWidth * 4;
      for (int x = 0; x < toWidth; ++x) {
        float r = 0, g = 0, b = 0, a = 0;
        const std::uint8_t* p = row + static_cast<std::size_t>(across.first[x]) * 4;
        for (int t = across.offset[x]; t < across.offset[x + 1]; ++t, p += 4) {
          const float wa = across.weights[t] * p[3];
          r += wa * p[0];
          g += wa * p[1];
          b += wa * p[2];
          a += wa;
        }
        float* s = &sums[static_cast<std::size_t>(x) * 4];
        s[0] += wy * r;
        s[1] += wy * g;
        s[2] += wy * b;
        s[3] += wy * a;
      }
    }
    std::uint8_t* out = to + static_cast<std::size_t>(y) * toWidth * 4;
    for (int x = 0; x < toWidth; ++x, out += 4) {
      const float* s = &sums[static_cast<std::size_t>(x) * 4];
      // Alpha is the plain mean; colour the alpha-weighted one, so fully
      // transparent pixels lend none of theirs.
      const float alpha = s[3];
      for (int c = 0; c < 3; ++c) {
        const float v = alpha > 0 ? s[c] / alpha : 0.0f;
        out[c] = static_cast<std::uint8_t>(std::clamp(v + 0.5f, 0.0f, 255.0f));
      }
      out[3] = static_cast<std::uint8_t>(std::clamp(alpha + 0.5f, 0.0f, 255.0f));
    }
  }
}

std::optional<Data> encodePng(const Bitmap& bitmap) noexcept {
  if (!consistent(bitmap)) return std::nullopt;
  try {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(bitmap.width);
    image.height = static_cast<png_uint_32>(bitmap.height);
    image.format = PNG_FORMAT_RGBA;
    // One compression pass into a worst-case buffer; left uninitialised so
    // the pages libpng never writes are never touched.
    png_alloc_size_t capacity = PNG_IMAGE_PNG_SIZE_MAX(image);
    auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
    png_alloc_size_t written = capacity;
    if (!png_image_write_to_memory(&image, buffer.get(), &written, 0, bitmap.rgba.data(), 0,
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

std::optional<Data> encodeJpeg(const Bitmap& bitmap, int quality) noexcept {
  if (!consistent(bitmap)) return std::nullopt;
  try {
    TurboJpeg tj(true);
    if (!tj.handle) return std::nullopt;
    quality = std::clamp(quality, 1, 100);
    // JPEG has no alpha. Colours are weighted by it (transparent comes out
    // black), so colours hidden under transparent pixels never show.
    const std::uint8_t* pixels = bitmap.rgba.data();
    Data flattened;
    for (std::size_t i = 3; i < bitmap.rgba.size(); i += 4) {
      if (bitmap.rgba[i] == 0xFF) continue;
      flattened = bitmap.rgba;
      for (std::size_t j = 0; j < flattened.size(); j += 4) {
        const unsigned a = flattened[j + 3];
        for (std::size_t c = 0; c < 3; ++c) {
          flattened[j + c] = static_cast<std::uint8_t>((flattened[j + c] * a + 127) / 255);
        }
      }
      pixels = flattened.data();
      break;
    }
    // Full colour resolution at high quality, where halved chroma would be
    // the largest loss left; the usual 4:2:0 below that.
    const int subsampling = quality >= 90 ? TJSAMP_444 : TJSAMP_420;
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    if (tjCompress2(tj.handle, pixels, bitmap.width, 0, bitmap.height, TJPF_RGBX, &jpeg, &size,
                    subsampling, quality, TJFLAG_ACCURATEDCT) != 0) {
      tjFree(jpeg);
      return std::nullopt;
    }
    std::unique_ptr<unsigned char, decltype(&tjFree)> owned(jpeg, tjFree);
    return Data(jpeg, jpeg + size);
  } catch (...) {
    return std::nullopt;
  }
}

std::optional<Data> encodeGif(const Bitmap& bitmap) noexcept {
  if (!consistent(bitmap) || bitmap.width > 0xFFFF || bitmap.height > 0xFFFF) return std::nullopt;
  try {
    GifColorType colours[256] = {};
    for (int r = 0; r < kRedBlueLevels; ++r) {
      for (int g = 0; g < kGreenLevels; ++g) {
        for (int b = 0; b < kRedBlueLevels; ++b) {
          GifColorType& c = colours[(r * kGreenLevels + g) * kRedBlueLevels + b];
          c.Red = static_cast<GifByteType>(level(r, kRedBlueLevels));
          c.Green = static_cast<GifByteType>(level(g, kGreenLevels));
          c.Blue = static_cast<GifByteType>(level(b, kRedBlueLevels));
        }
      }
    }
    const std::size_t pixelCount = bitmap.rgba.size() / 4;
    std::vector<GifPixelType> indices(pixelCount);
    bool anyTransparent = false;
    for (std::size_t i = 0; i < pixelCount; ++i) {
      const std::uint8_t* p = &bitmap.rgba[i * 4];
      if (p[3] < 128) {
        indices[i] = kTransparentIndex;
        anyTransparent = true;
        continue;
      }
      indices[i] = static_cast<GifPixelType>(
          (quantise(p[0], kRedBlueLevels) * kGreenLevels + quantise(p[1], kGreenLevels)) *
              kRedBlueLevels +
          quantise(p[2], kRedBlueLevels));
    }

    Data out;
    int error = 0;
    std::unique_ptr<GifFileType, GifWriterCloser> gif(EGifOpen(&out, writeGifBytes, &error));
    if (!gif) return std::nullopt;
    std::unique_ptr<ColorMapObject, decltype(&GifFreeMapObject)> map(GifMakeMapObject(256, colours),
                                                                     GifFreeMapObject);
    if (!map) return std::nullopt;
    EGifSetGifVersion(gif.get(), true);  // GIF89a, for the transparent index
    if (EGifPutScreenDesc(gif.get(), bitmap.width, bitmap.height, 8, 0, map.get()) == GIF_ERROR) {
      return std::nullopt;
    }
    if (anyTransparent) {
      GraphicsControlBlock control{};  // no disposal, no delay, no input wait
      control.TransparentColor = kTransparentIndex;
      GifByteType block[4];
      const auto length = EGifGCBToExtension(&control, block);
      if (EGifPutExtension(gif.get(), GRAPHICS_EXT_FUNC_CODE, static_cast<int>(length), block) ==
          GIF_ERROR) {
        return std::nullopt;
      }
    }
    if (EGifPutImageDesc(gif.get(), 0, 0, bitmap.width, bitmap.height, false, nullptr) ==
        GIF_ERROR) {
      return std::nullopt;
    }
    for (int y = 0; y < bitmap.height; ++y) {
      if (EGifPutLine(gif.get(), &indices[static_cast<std::size_t>(y) * bitmap.width],
                      bitmap.width) == GIF_ERROR) {
        return std::nullopt;
      }
    }
    // Closing writes the trailer; giflib frees the handle whatever happens.
    if (EGifCloseFile(gif.release(), &error) == GIF_ERROR) return std::nullopt;
    return out;
  } catch (...) {
    return std::nullopt;
  }
}

std::optional<Data> encodeWebP(const Bitmap& bitmap, float quality) noexcept {
  if (!consistent(bitmap) || bitmap.width > WEBP_MAX_DIMENSION ||
      bitmap.height > WEBP_MAX_DIMENSION) {
    return std::nullopt;
  }
  WebPConfig config;
  if (!WebPConfigInit(&config)) return std::nullopt;
  const bool lossless = quality >= 100;
  if (lossless) {
    // Lossless keeps every byte, the colours under transparent pixels too,
    // as PNG does; libwebp would otherwise rewrite those to compress better.
    config.lossless = 1;
    config.exact = 1;
  } else {
    config.quality = std::isnan(quality) ? config.quality : std::clamp(quality, 0.0f, 100.0f);
  }
  WebPPicture picture;
  if (!WebPPictureInit(&picture)) return std::nullopt;
  picture.use_argb = lossless ? 1 : 0;
  picture.width = bitmap.width;
  picture.height = bitmap.height;
  WebPMemoryWriter writer;
  WebPMemoryWriterInit(&writer);
  picture.writer = WebPMemoryWrite;
  picture.custom_ptr = &writer;
  bool ok = WebPPictureImportRGBA(&picture, bitmap.rgba.data(), bitmap.width * 4) &&
            WebPEncode(&config, &picture);
  WebPPictureFree(&picture);
  std::optional<Data> out;
  if (ok) {
    try {
      out.emplace(writer.mem, writer.mem + writer.size);
    } catch (...) {
    }
  }
  WebPMemoryWriterClear(&writer);
  return out;
}

}  // namespace nimb::detail
