#include <NimbFoundation/NimbKit+Image.h>

#include <cmath>
#include <utility>

#include <NimbFoundation/Internal/NimbKitMethods.h>
#include <NimbFoundation/Internal/RuntimeMethods.h>
#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>

namespace nimb {

namespace {

// The picture as a viewer shows it: trunc(w) x trunc(h) pixels at scale 1,
// with w x h the size in points. A photo stored sideways or mirrored comes
// back turned so that what its orientation calls the top is the top row;
// e.g. for Right (stored to be turned a quarter clockwise) the stored
// top-left pixel ends at the top right, for LeftMirrored (transposed) the
// stored top-right pixel ends at the bottom left. The picture is stretched
// over the full w x h, so a fractional point size loses its last partial
// pixel rather than being squeezed.
std::shared_ptr<const Image> upright(const std::shared_ptr<const Image>& image) {
  if (!image || image->orientation() == ImageOrientation::Up) return image;
  try {
    const Size points = image->size();
    ImageContext context({std::trunc(points.width), std::trunc(points.height)}, false, 1);
    // drawImage applies the orientation while stretching the stored pixels
    // over the rectangle: the same drawing as rotating, then mirroring, the
    // stored bitmap into (0, 0, h, w) or (0, 0, w, h).
    context.drawImage(*image, {{0, 0}, points});
    return context.image();
  } catch (...) {
    return nullptr;
  }
}

std::shared_ptr<const Image> pixelOf(Color color) {
  try {
    ImageContext context({1, 1}, false, 1);
    context.fillRect({0, 0, 1, 1}, color);
    return context.image();
  } catch (...) {
    return nullptr;
  }
}

}  // namespace

// Class methods of NimbKit, "fixOrientation:" and "imageWithColor:".
void detail::registerNimbKitImageMethods(Class* metaclass) {
  detail::addClassMethod(metaclass, detail::selectorNamed<"fixOrientation:">(),
                         [](std::shared_ptr<const Image> image) { return upright(image); });
  detail::addClassMethod(metaclass, detail::selectorNamed<"imageWithColor:">(),
                         [](Color color) { return pixelOf(color); });
}

std::shared_ptr<const Image> NimbKitImage::fixOrientation(std::shared_ptr<const Image> image) {
  return msgSend<std::shared_ptr<const Image>>(
      NimbKit::classObject(), detail::selectorNamed<"fixOrientation:">(), std::move(image));
}

std::shared_ptr<const Image> NimbKitImage::imageWithColor(Color color) {
  return msgSend<std::shared_ptr<const Image>>(NimbKit::classObject(),
                                               detail::selectorNamed<"imageWithColor:">(), color);
}

}  // namespace nimb
