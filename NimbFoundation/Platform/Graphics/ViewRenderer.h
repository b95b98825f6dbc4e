// ViewRenderer: draws a view tree into an ImageContext (Cairo), the
// counterpart of rendering a view's layer into a bitmap context. Used by
// `nimbkit layout` to show a laid-out tree and by tests that check views by
// their pixels; anything that wants a picture of its views can use it.
//
// What is drawn, for each view back to front, in its superview's
// coordinates moved to the view's frame origin:
//   - nothing at all for a hidden view, or one whose alpha comes to 0, nor
//     for any of its subviews;
//   - its backgroundColor, if any, over its bounds;
//   - for an ImageView with an image, the image stretched to fill its bounds;
//   - then its subviews, in subviews() order.
// A view's alpha is clamped to [0, 1] here (NaN counts as 0) and applies to
// the view and its subtree as one group, so nested alphas multiply. A view
// with clipsToBounds keeps its drawing and its subviews' inside its bounds;
// other views do not clip. Trees deeper than 256 levels are drawn down to
// that depth.
//
// Thread rule: main thread only, like the views. The images it returns are
// immutable and shared freely.
#pragma once

#include <memory>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Graphics/View.h>

namespace NIMB_EXPORT nimb {

class ViewRenderer {
 public:
  // Levels of subviews drawn below the view passed in.
  static constexpr int kMaxDepth = 256;

  // Draws `view` and its subtree with the view's top left at the context's
  // current origin (the view's own frame origin is not applied). The
  // context's drawing state is the same afterwards.
  static void drawView(const View& view, ImageContext& context);

  // A picture of the view's bounds at `scale` (<= 0 or NaN: the main
  // screen's), transparent where nothing is drawn: drawView() into a fresh
  // non-opaque context the size of the bounds. nullptr when the bounds are
  // empty or too large for a context (see ImageContext::isValid).
  static std::shared_ptr<const Image> imageOfView(const View& view, double scale);
};

}  // namespace nimb
