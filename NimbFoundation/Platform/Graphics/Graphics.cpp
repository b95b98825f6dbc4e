#include <NimbFoundation/Platform/Graphics/Graphics.h>

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <NimbFoundation/Platform/Env/Device.h>

namespace nimb {

namespace {

// Cairo refuses image surfaces with a longer side.
constexpr int kMaxCairoSide = 32767;

// Text further out than this many device pixels is not drawn: Cairo keeps
// device coordinates in 24.8 fixed point, and values beyond its range wrap.
constexpr double kMaxTextReach = 65536;

// Transparency layers open at once beyond which drawing goes to the layer
// under them: each one is a surface the size of the context.
constexpr int kMaxOpenLayers = 32;

// A rectangle as its four edges, so that overflowing sums become infinities
// instead of being added back to an origin.
struct Edges {
  double x0 = 0;
  double y0 = 0;
  double x1 = 0;
  double y1 = 0;

  double width() const { return x1 - x0; }
  double height() const { return y1 - y0; }
  bool isEmpty() const { return !(x1 > x0) || !(y1 > y0); }  // NaN counts as empty
};

// The area a rectangle covers, negative extents taken from the far edge.
Edges edgesOf(Rect r) {
  const double x = r.origin.x + r.size.width;
  const double y = r.origin.y + r.size.height;
  return {std::min(r.origin.x, x), std::min(r.origin.y, y), std::max(r.origin.x, x),
          std::max(r.origin.y, y)};
}

Edges clipped(Edges a, Edges b) {
  return {std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1), std::min(a.y1, b.y1)};
}

bool isFinite(Rect r) {
  return std::isfinite(r.origin.x) && std::isfinite(r.origin.y) && std::isfinite(r.size.width) &&
         std::isfinite(r.size.height);
}

// Whether the buffer holds exactly width * height RGBA pixels. Images made
// through the constructor rather than withBitmap() are not checked there.
bool isConsistent(const Bitmap& b) {
  if (b.width <= 0 || b.height <= 0) return false;
  return b.rgba.size() == std::uint64_t(b.width) * std::uint64_t(b.height) * 4;
}

double unit(double v) {
  return v > 0 ? std::min(v, 1.0) : 0.0;  // NaN fails the test and becomes 0
}

// ---- Pixel conversion --------------------------------------------------------
//
// Cairo's ARGB32 is one native-endian 32-bit word per pixel, alpha in the top
// byte, colours premultiplied; the kit's bitmaps are straight RGBA bytes.

std::uint32_t premultiplied(std::uint32_t c, std::uint32_t a) {
  return (c * a + 127) / 255;  // c * a / 255 never ends in exactly .5, so this rounds
}

std::uint8_t unpremultiplied(std::uint32_t c, std::uint32_t a) {
  return std::uint8_t(std::min<std::uint32_t>(255, (c * 255 + a / 2) / a));
}

void writePremultiplied(const Bitmap& bitmap, unsigned char* data, std::size_t stride) {
  const std::uint8_t* in = bitmap.rgba.data();
  for (int y = 0; y < bitmap.height; ++y) {
    unsigned char* out = data + std::size_t(y) * stride;
    for (int x = 0; x < bitmap.width; ++x, in += 4, out += 4) {
      const std::uint32_t a = in[3];
      const std::uint32_t word = a << 24 | premultiplied(in[0], a) << 16 |
                                 premultiplied(in[1], a) << 8 | premultiplied(in[2], a);
      std::memcpy(out, &word, 4);
    }
  }
}

void readStraight(const unsigned char* data, int stride, Bitmap& bitmap) {
  std::uint8_t* out = bitmap.rgba.data();
  for (int y = 0; y < bitmap.height; ++y) {
    const unsigned char* in = data + std::size_t(y) * std::size_t(stride);
    for (int x = 0; x < bitmap.width; ++x, in += 4, out += 4) {
      std::uint32_t word;
      std::memcpy(&word, in, 4);
      const std::uint32_t a = word >> 24;
      if (a == 0) {
        std::memset(out, 0, 4);
        continue;
      }
      out[0] = unpremultiplied(word >> 16 & 0xFF, a);
      out[1] = unpremultiplied(word >> 8 & 0xFF, a);
      out[2] = unpremultiplied(word & 0xFF, a);
      out[3] = std::uint8_t(a);
    }
  }
}

// ---- Cairo objects -----------------------------------------------------------

// A Cairo context for one drawing call, in points. Each call gets its own, so
// a call that puts Cairo into an error state (text that is not UTF-8, a
// matrix that cannot be inverted) leaves later calls unaffected.
class Painter {
 public:
  Painter(cairo_surface_t* surface, double scale) : cr_(cairo_create(surface)) {
    cairo_scale(cr_, scale, scale);
  }
  ~Painter() { cairo_destroy(cr_); }
  Painter(const Painter&) = delete;
  Painter& operator=(const Painter&) = delete;

  cairo_t* cr() const { return cr_; }
  void setColor(Color c) {
    cairo_set_source_rgba(cr_, unit(c.red), unit(c.green), unit(c.blue), unit(c.alpha));
  }
  void addRectangle(Edges e) { cairo_rectangle(cr_, e.x0, e.y0, e.width(), e.height()); }

 private:
  cairo_t* cr_;  // never null: Cairo hands out an inert object when out of memory
};

// The pixels of `bitmap` as a Cairo surface; null if Cairo cannot make one.
cairo_surface_t* surfaceOf(const Bitmap& bitmap) {
  cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, bitmap.width, bitmap.height);
  if (cairo_surface_status(s) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(s);
    return nullptr;
  }
  cairo_surface_flush(s);
  writePremultiplied(bitmap, cairo_image_surface_get_data(s),
                     std::size_t(cairo_image_surface_get_stride(s)));
  cairo_surface_mark_dirty(s);
  return s;
}

// Maps the displayed picture (width and height exchanged for the sideways
// orientations) back to the stored pixels of a w x h bitmap. Left shows the
// stored pixels turned 90° counter-clockwise, so the stored top row runs up
// the left side; Right turns them clockwise. The mirrored forms flip the
// stored pixels left to right before turning them, so LeftMirrored is a
// transpose.
cairo_matrix_t displayToStored(ImageOrientation orientation, double w, double h) {
  cairo_matrix_t m;  // x' = xx * x + xy * y + x0, y' = yx * x + yy * y + y0
  switch (orientation) {
    case ImageOrientation::Up:
    default:
      cairo_matrix_init(&m, 1, 0, 0, 1, 0, 0);
      break;
    case ImageOrientation::UpMirrored:
      cairo_matrix_init(&m, -1, 0, 0, 1, w, 0);
      break;
    case ImageOrientation::Down:
      cairo_matrix_init(&m, -1, 0, 0, -1, w, h);
      break;
    case ImageOrientation::DownMirrored:
      cairo_matrix_init(&m, 1, 0, 0, -1, 0, h);
      break;
    case ImageOrientation::Left:  // stored (x, y) shows at (y, w - x)
      cairo_matrix_init(&m, 0, 1, -1, 0, w, 0);
      break;
    case ImageOrientation::Right:  // stored (x, y) shows at (h - y, x)
      cairo_matrix_init(&m, 0, -1, 1, 0, 0, h);
      break;
    case ImageOrientation::LeftMirrored:
      cairo_matrix_init(&m, 0, 1, 1, 0, 0, 0);
      break;
    case ImageOrientation::RightMirrored:
      cairo_matrix_init(&m, 0, -1, -1, 0, w, h);
      break;
  }
  return m;
}

bool isSideways(ImageOrientation o) {
  return o == ImageOrientation::Left || o == ImageOrientation::Right ||
         o == ImageOrientation::LeftMirrored || o == ImageOrientation::RightMirrored;
}

}  // namespace

// ---- Graphics ----------------------------------------------------------------

std::optional<Bitmap> Graphics::cropBitmap(const Bitmap& bitmap, Rect rect) {
  if (!isConsistent(bitmap)) return std::nullopt;
  if (!(rect.size.width != 0) || !(rect.size.height != 0)) return std::nullopt;
  const Edges e = edgesOf(rect);
  // Integral first, then clipped; infinite edges clip to the bitmap's, NaN
  // anywhere leaves the comparisons false and the area empty.
  const Edges area = clipped({std::floor(e.x0), std::floor(e.y0), std::ceil(e.x1), std::ceil(e.y1)},
                             {0, 0, double(bitmap.width), double(bitmap.height)});
  if (area.isEmpty()) return std::nullopt;
  const auto x0 = std::size_t(area.x0), y0 = std::size_t(area.y0);
  const auto width = std::size_t(area.width()), height = std::size_t(area.height());
  try {
    Bitmap out{int(width), int(height), Data(width * height * 4)};
    const std::size_t rowBytes = width * 4, stride = std::size_t(bitmap.width) * 4;
    for (std::size_t y = 0; y < height; ++y)
      std::memcpy(out.rgba.data() + y * rowBytes, bitmap.rgba.data() + (y0 + y) * stride + x0 * 4,
                  rowBytes);
    return out;
  } catch (...) {
    return std::nullopt;
  }
}

std::shared_ptr<const Image> Graphics::imageWithCroppedBitmap(const Image& image, Rect pixelRect,
                                                              double scale,
                                                              ImageOrientation orientation) {
  auto cropped = cropBitmap(image.bitmap(), pixelRect);
  if (!cropped) return nullptr;
  return Image::withBitmap(std::move(*cropped), scale, orientation);
}

void Graphics::writePremultipliedARGB32(const Bitmap& bitmap, std::uint8_t* data,
                                        std::size_t stride) {
  if (!data || !isConsistent(bitmap) || stride < std::size_t(bitmap.width) * 4) return;
  writePremultiplied(bitmap, data, stride);
}

// ---- ImageContext --------------------------------------------------------------

struct ImageContext::Surface {
  Surface(cairo_surface_t* s, int w, int h, double scale)
      : surface(s), width(w), height(h), clip(workArea(scale)) {}
  ~Surface() {
    cairo_surface_destroy(surface);
    for (auto& saved : stack) {
      if (saved.layer) cairo_surface_destroy(saved.layer);
    }
  }
  Surface(const Surface&) = delete;
  Surface& operator=(const Surface&) = delete;

  // The area drawing is clipped to before Cairo sees it, in points: the
  // surface and a margin of two pixels, so that antialiased edges of the
  // clipped shapes fall outside the pixels while coordinates stay in range.
  Edges workArea(double scale) const {
    const double margin = 2 / scale;
    return {-margin, -margin, width / scale + margin, height / scale + margin};
  }
  // `e`, given in the current coordinates, in the surface's points.
  Edges toSurface(Edges e) const { return {e.x0 + ox, e.y0 + oy, e.x1 + ox, e.y1 + oy}; }
  // Where drawing goes: the innermost open layer that has a surface.
  cairo_surface_t* target() const {
    for (auto it = stack.rbegin(); it != stack.rend(); ++it) {
      if (it->layer) return it->layer;
    }
    return surface;
  }

  // What saveState and beginTransparencyLayer push.
  struct Saved {
    double ox = 0;
    double oy = 0;
    Edges clip;
    bool isLayer = false;
    cairo_surface_t* layer = nullptr;  // owned; null for a plain save or a refused layer
    double opacity = 1;
  };

  cairo_surface_t* surface;
  int width;
  int height;
  // The drawing state: the origin in the surface's points, and the clip
  // there, always inside the work area.
  double ox = 0;
  double oy = 0;
  Edges clip;
  std::vector<Saved> stack;
  int openLayers = 0;
};

ImageContext::ImageContext(Size size, bool opaque, double scale) {
  scale_ = scale > 0 ? scale : Device::mainScreenScale();  // NaN fails the test too
  const double width = std::round(size.width * scale_);
  const double height = std::round(size.height * scale_);
  if (!(width >= 1 && height >= 1 && width <= kMaxCairoSide && height <= kMaxCairoSide)) return;
  if (width * height > double(Image::kMaxPixels)) return;
  cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, int(width), int(height));
  if (cairo_surface_status(s) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(s);
    return;
  }
  surface_.reset(new (std::nothrow) Surface(s, int(width), int(height), scale_));
  if (!surface_) {
    cairo_surface_destroy(s);
    return;
  }
  // Cairo clears new surfaces, which is the transparent start.
  if (opaque) {
    Painter p(s, 1);
    cairo_set_source_rgb(p.cr(), 0, 0, 0);
    cairo_paint(p.cr());
  }
}

ImageContext::~ImageContext() = default;

Size ImageContext::size() const {
  if (!surface_) return {};
  return {surface_->width / scale_, surface_->height / scale_};
}

void ImageContext::drawImage(const Image& image, Rect rect) {
  if (!surface_ || !isFinite(rect)) return;
  const Edges dest = surface_->toSurface(edgesOf(rect));
  const Edges area = clipped(dest, surface_->clip);
  if (dest.isEmpty() || area.isEmpty()) return;
  const Bitmap& bitmap = image.bitmap();
  if (!isConsistent(bitmap) || bitmap.width > kMaxCairoSide || bitmap.height > kMaxCairoSide)
    return;

  // Points in `dest` to the displayed picture, then to the stored pixels.
  const double w = bitmap.width, h = bitmap.height;
  const bool sideways = isSideways(image.orientation());
  const double sx = (sideways ? h : w) / dest.width(), sy = (sideways ? w : h) / dest.height();
  cairo_matrix_t toDisplay, toStored = displayToStored(image.orientation(), w, h), m;
  cairo_matrix_init(&toDisplay, sx, 0, 0, sy, -dest.x0 * sx, -dest.y0 * sy);
  cairo_matrix_multiply(&m, &toDisplay, &toStored);
  cairo_matrix_t inverse = m;
  if (cairo_matrix_invert(&inverse) != CAIRO_STATUS_SUCCESS) return;

  cairo_surface_t* source = surfaceOf(bitmap);
  if (!source) return;
  cairo_pattern_t* pattern = cairo_pattern_create_for_surface(source);
  cairo_surface_destroy(source);  // the pattern holds its own reference
  cairo_pattern_set_matrix(pattern, &m);
  cairo_pattern_set_filter(pattern, CAIRO_FILTER_GOOD);
  // Padding repeats the edge pixels, so the picture's border does not fade
  // into transparency under the filter.
  cairo_pattern_set_extend(pattern, CAIRO_EXTEND_PAD);

  Painter p(surface_->target(), scale_);
  cairo_set_source(p.cr(), pattern);
  cairo_pattern_destroy(pattern);
  p.addRectangle(area);
  cairo_fill(p.cr());
}

void ImageContext::fillRect(Rect rect, Color color) {
  if (!surface_ || !isFinite(rect)) return;
  const Edges area = clipped(surface_->toSurface(edgesOf(rect)), surface_->clip);
  if (area.isEmpty()) return;
  Painter p(surface_->target(), scale_);
  p.setColor(color);
  p.addRectangle(area);
  cairo_fill(p.cr());
}

void ImageContext::strokeRect(Rect rect, Color color, double lineWidth) {
  if (!surface_ || !isFinite(rect) || !(lineWidth > 0) || !std::isfinite(lineWidth)) return;
  // With square (mitred) corners the stroke is exactly the rectangle grown by
  // half the line width less the rectangle shrunk by it. Filling that
  // difference lets both be clipped like any fill, whatever their size.
  const Edges r = surface_->toSurface(edgesOf(rect)), work = surface_->clip;
  const double half = lineWidth / 2;
  const Edges outer = clipped({r.x0 - half, r.y0 - half, r.x1 + half, r.y1 + half}, work);
  if (outer.isEmpty()) return;
  Painter p(surface_->target(), scale_);
  p.setColor(color);
  p.addRectangle(outer);
  const Edges inner = clipped({r.x0 + half, r.y0 + half, r.x1 - half, r.y1 - half}, work);
  if (!inner.isEmpty()) p.addRectangle(inner);
  cairo_set_fill_rule(p.cr(), CAIRO_FILL_RULE_EVEN_ODD);
  cairo_fill(p.cr());
}

void ImageContext::drawText(std::string_view utf8, Point origin, double fontSize, Color color) {
  if (!surface_ || utf8.empty() || !(fontSize > 0) || surface_->clip.isEmpty()) return;
  origin = {origin.x + surface_->ox, origin.y + surface_->oy};
  const double reach = kMaxTextReach / scale_;
  if (!(std::abs(origin.x) < reach && std::abs(origin.y) < reach && fontSize < reach)) return;
  try {
    const std::string text(utf8);  // Cairo wants a NUL-terminated string
    Painter p(surface_->target(), scale_);
    p.addRectangle(surface_->clip);
    cairo_clip(p.cr());
    cairo_select_font_face(p.cr(), "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(p.cr(), fontSize);
    p.setColor(color);
    cairo_move_to(p.cr(), origin.x, origin.y);
    cairo_show_text(p.cr(), text.c_str());  // refuses invalid UTF-8 before drawing anything
  } catch (...) {
    // Out of memory for the copy: the label is not drawn.
  }
}

void ImageContext::saveState() {
  if (!surface_) return;
  try {
    surface_->stack.push_back({surface_->ox, surface_->oy, surface_->clip});
  } catch (...) {
    // Out of memory: the matching restoreState finds nothing to pop.
  }
}

void ImageContext::restoreState() {
  if (!surface_ || surface_->stack.empty()) return;
  const Surface::Saved saved = surface_->stack.back();
  surface_->stack.pop_back();
  surface_->ox = saved.ox;
  surface_->oy = saved.oy;
  surface_->clip = saved.clip;
  if (!saved.isLayer) return;
  --surface_->openLayers;
  if (!saved.layer) return;
  cairo_surface_flush(saved.layer);
  {
    Painter p(surface_->target(), 1);
    cairo_set_source_surface(p.cr(), saved.layer, 0, 0);
    cairo_paint_with_alpha(p.cr(), saved.opacity);
  }
  cairo_surface_destroy(saved.layer);
}

void ImageContext::translate(double dx, double dy) {
  if (!surface_) return;
  const double x = surface_->ox + dx, y = surface_->oy + dy;
  if (!std::isfinite(x) || !std::isfinite(y)) return;
  surface_->ox = x;
  surface_->oy = y;
}

void ImageContext::clipToRect(Rect rect) {
  if (!surface_ || !isFinite(rect)) return;
  surface_->clip = clipped(surface_->clip, surface_->toSurface(edgesOf(rect)));
}

void ImageContext::beginTransparencyLayer(double opacity) {
  if (!surface_) return;
  Surface::Saved saved{surface_->ox, surface_->oy, surface_->clip, true, nullptr, unit(opacity)};
  if (surface_->openLayers < kMaxOpenLayers) {
    cairo_surface_t* layer =
        cairo_image_surface_create(CAIRO_FORMAT_ARGB32, surface_->width, surface_->height);
    if (cairo_surface_status(layer) == CAIRO_STATUS_SUCCESS) {
      saved.layer = layer;
    } else {
      cairo_surface_destroy(layer);
    }
  }
  try {
    surface_->stack.push_back(saved);
    ++surface_->openLayers;
  } catch (...) {
    if (saved.layer) cairo_surface_destroy(saved.layer);
  }
}

std::shared_ptr<const Image> ImageContext::image() const {
  if (!surface_) return nullptr;
  cairo_surface_t* s = surface_->surface;
  cairo_surface_flush(s);
  try {
    Bitmap bitmap{surface_->width, surface_->height,
                  Data(std::size_t(surface_->width) * std::size_t(surface_->height) * 4)};
    readStraight(cairo_image_surface_get_data(s), cairo_image_surface_get_stride(s), bitmap);
    return Image::withBitmap(std::move(bitmap), scale_, ImageOrientation::Up);
  } catch (...) {
    return nullptr;
  }
}

}  // namespace nimb
