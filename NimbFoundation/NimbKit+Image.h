// NimbKitImage: the image helpers of the kit class NimbKit (call these as
// NimbKit::fixOrientation(...) and NimbKit::imageWithColor(...)): a photo
// redrawn so that its pixels stand upright, and a one-pixel image of a
// colour. Class methods of NimbKit in the object runtime ("fixOrientation:",
// "imageWithColor:"), sent through it.
//
// Thread rule: any thread; no state, no locks.
#pragma once

#include <memory>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Graphics/Color.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

namespace NIMB_EXPORT nimb {

class NimbKitImage {
 public:
  // The image with its pixels upright (orientation Up).
  //   - Orientation Up: `image` itself, not copied. A null image: nullptr.
  //   - Otherwise, with w and h the size in points as size() reports it
  //     (already exchanged for left and right): a transform starts as the
  //     identity; the rotation step (Down, DownMirrored: translate (w, h),
  //     rotate pi; Left, LeftMirrored: translate (w, 0), rotate pi/2; Right,
  //     RightMirrored: translate (0, h), rotate -pi/2), then the mirror step
  //     (UpMirrored, DownMirrored: translate (w, 0), scale (-1, 1);
  //     LeftMirrored, RightMirrored: translate (h, 0), scale (-1, 1)) are
  //     concatenated onto it; a context of trunc(w) x trunc(h) pixels takes
  //     the transform and the stored bitmap is drawn into (0, 0, h, w) for
  //     the left and right orientations and (0, 0, w, h) otherwise.
  //   - Codes above 7 take neither step: the bitmap is redrawn as it is.
  // The result has scale 1: a picture whose scale is not 1 is redrawn at
  // its size in points.
  static std::shared_ptr<const Image> fixOrientation(std::shared_ptr<const Image> image);

  // A 1 x 1 image (scale 1) filled with `color`.
  static std::shared_ptr<const Image> imageWithColor(Color color);
};

}  // namespace nimb
