// Graphics: 2-D drawing on Cairo, the counterpart of the platform's bitmap
// contexts (begin an image context, draw, take the image, end) and of its
// image cropping. ImageContext is an object rather than a current-context
// stack: make one, draw into it, take image() as often as needed.
//
// Used for thumbnails, for compositing one image over another and for
// contact sheets. Coordinates are points with the origin at the top left
// and y growing downwards, like the rest of the kit.
//
// Thread rule: the static functions run on any thread. An ImageContext is
// used by one thread at a time; the images it hands out are immutable and
// shared freely.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Geometry.h>
#include <NimbFoundation/Platform/Graphics/Color.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

namespace NIMB_EXPORT nimb {

class Graphics {
 public:
  // The pixels of `bitmap` inside `rect`, whose coordinates are pixels, not
  // points. The rectangle is first made integral (origin floored, far edges
  // ceiled), then clipped to the bitmap. nullopt when nothing is left, when
  // the rectangle has a NaN or a zero width or height, or when the bitmap's
  // buffer does not match its dimensions.
  static std::optional<Bitmap> cropBitmap(const Bitmap& bitmap, Rect rect);

  // cropBitmap() of image's pixels, wrapped as a new image with `scale` and
  // `orientation` (the source's own are not carried over). nullptr when the
  // crop is empty.
  static std::shared_ptr<const Image> imageWithCroppedBitmap(const Image& image, Rect pixelRect,
                                                             double scale,
                                                             ImageOrientation orientation);

  // Writes `bitmap` (straight RGBA) as premultiplied native-endian 32-bit
  // ARGB words, `stride` bytes per row: the pixel layout of Cairo's
  // CAIRO_FORMAT_ARGB32 surfaces, which a host drawing with Cairo or GTK
  // hands the kit's pictures in. `data` holds height rows of at least
  // width * 4 bytes; a bitmap whose buffer does not match its size writes
  // nothing.
  static void writePremultipliedARGB32(const Bitmap& bitmap, std::uint8_t* data,
                                       std::size_t stride);
};

// An offscreen drawing surface of a size in points at a scale. Its pixel
// size is round(size * scale). A non-opaque context starts fully
// transparent; an opaque one starts black and stays opaque.
//
// Drawing calls with a NaN or infinite argument, an empty rectangle or a
// non-positive line width or font size draw nothing. A rectangle with a
// negative width or height covers the same area as its positive form.
//
// The drawing state is an origin (where drawing calls put (0, 0)) and a
// clip rectangle; it starts as the context's own origin and the whole
// surface. translate and clipToRect change it; saveState and restoreState
// keep and bring it back, and beginTransparencyLayer opens a layer that is
// composited, at an opacity, when its restoreState comes. View drawing
// (ViewRenderer) nests these per view.
class ImageContext {
 public:
  // scale <= 0 or NaN means the main screen's scale (Device::mainScreen(),
  // else 1).
  ImageContext(Size size, bool opaque, double scale);
  ~ImageContext();
  ImageContext(const ImageContext&) = delete;
  ImageContext& operator=(const ImageContext&) = delete;

  // False when the pixel size is empty, exceeds Image::kMaxPixels or
  // Cairo's 32767 pixels per side, or Cairo could not make the surface.
  // Drawing into an invalid context does nothing and image() is nullptr.
  bool isValid() const { return surface_ != nullptr; }

  // The size in points that the pixels cover: the pixel size over the scale,
  // which is the requested size once rounded to whole pixels. (0, 0) when
  // invalid.
  Size size() const;
  // The scale in use, after the main-screen default was applied.
  double scale() const { return scale_; }

  // Draws `image` into `rect` (points), stretched to fill it exactly (not
  // necessarily uniformly), with the image's orientation applied, bilinear
  // filtering and source-over compositing. Images wider or taller than
  // 32767 pixels are beyond Cairo and are not drawn.
  void drawImage(const Image& image, Rect rect);
  // Fills `rect` with `color`, source over.
  void fillRect(Rect rect, Color color);
  // Strokes the outline of `rect`, the line centred on its edges with square
  // corners, as the platform does.
  void strokeRect(Rect rect, Color color, double lineWidth);
  // A one-line label in a sans-serif face with its baseline starting at
  // `origin`; meant for contact sheets, not for typesetting. Text that is not
  // valid UTF-8 is not drawn; it stops at an embedded NUL.
  void drawText(std::string_view utf8, Point origin, double fontSize, Color color);

  // --- Drawing state ------------------------------------------------------
  // Pushes the origin and clip; restoreState() brings them back.
  void saveState();
  // Pops what the latest saveState() or beginTransparencyLayer() pushed; for
  // a layer, composites it onto what lies under it first. Without anything
  // pushed it does nothing.
  void restoreState();
  // Moves the origin by (dx, dy) points. A NaN or infinite move is ignored.
  void translate(double dx, double dy);
  // Narrows the clip to `rect` (in the current coordinates): later drawing
  // lands only inside both. A NaN or infinite rectangle is ignored, an empty
  // one clips everything away.
  void clipToRect(Rect rect);
  // saveState(), then sends the drawing to a fresh transparent layer until
  // the matching restoreState(), which composites the layer with `opacity`
  // (clamped to [0, 1], NaN as 0) source over. Each layer takes a surface
  // the size of the context: beyond 32 open layers, or should the memory be
  // refused, drawing goes straight to what lies under it at full opacity.
  void beginTransparencyLayer(double opacity);

  // A snapshot of what has been drawn: an image with this context's scale and
  // orientation Up, so its size() equals size(). Drawing may go on after it.
  // nullptr when the context is invalid or memory runs out. Layers still
  // open are not in it.
  std::shared_ptr<const Image> image() const;

 private:
  struct Surface;
  std::unique_ptr<Surface> surface_;
  double scale_ = 1;
};

}  // namespace nimb
