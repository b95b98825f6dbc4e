#include <NimbFoundation/Platform/Graphics/ViewRenderer.h>

#include <cmath>

namespace nimb {

namespace {

// The view's own content and its subtree, with the context's origin at the
// view's top left.
void drawTree(const View& view, ImageContext& context, int depth) {
  const double alpha = view.alpha() > 0 ? std::min(view.alpha(), 1.0) : 0.0;  // NaN: 0
  if (view.isHidden() || alpha == 0) return;
  const Rect bounds = view.bounds();
  const bool layer = alpha < 1;
  if (layer) {
    context.beginTransparencyLayer(alpha);
  } else {
    context.saveState();
  }
  if (view.clipsToBounds()) context.clipToRect(bounds);
  if (auto color = view.backgroundColor()) context.fillRect(bounds, *color);
  if (auto* imageView = dynamic_cast<const ImageView*>(&view)) {
    if (auto image = imageView->image()) context.drawImage(*image, bounds);
  }
  if (depth < ViewRenderer::kMaxDepth) {
    for (const auto& subview : view.subviews()) {
      if (!subview) continue;
      const Point origin = subview->frame().origin;
      context.saveState();
      context.translate(origin.x, origin.y);
      drawTree(*subview, context, depth + 1);
      context.restoreState();
    }
  }
  context.restoreState();
}

}  // namespace

void ViewRenderer::drawView(const View& view, ImageContext& context) {
  drawTree(view, context, 0);
}

std::shared_ptr<const Image> ViewRenderer::imageOfView(const View& view, double scale) {
  const Size size = view.bounds().size;
  if (!(size.width > 0) || !(size.height > 0)) return nullptr;
  ImageContext context(size, false, scale);
  if (!context.isValid()) return nullptr;
  drawView(view, context);
  return context.image();
}

}  // namespace nimb
