#include <NimbFoundation/Platform/Graphics/View.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace nimb {

View::View(Rect frame) : frame_(frame) {}

// The subviews' weak links to this view expire by themselves.
View::~View() = default;

void View::setAlpha(double alpha) {
  if (std::isnan(alpha)) return;
  alpha_ = std::clamp(alpha, 0.0, 1.0);
}

bool View::hasAncestor(const View* view) const {
  if (view == this) return true;
  for (auto up = superview_.lock(); up; up = up->superview_.lock()) {
    if (up.get() == view) return true;
  }
  return false;
}

void View::attach(const std::shared_ptr<View>& view, std::size_t index) {
  if (!view || hasAncestor(view.get())) return;
  std::weak_ptr<View> self = weak_from_this();
  if (self.expired()) return;
  // `view` may refer into the old superview's list, which is about to change.
  std::shared_ptr<View> moving = view;
  moving->removeFromSuperview();
  index = std::min(index, subviews_.size());
  subviews_.insert(subviews_.begin() + static_cast<std::ptrdiff_t>(index), moving);
  moving->superview_ = std::move(self);
}

void View::addSubview(const std::shared_ptr<View>& view) {
  attach(view, std::numeric_limits<std::size_t>::max());  // clamped to the end
}

void View::insertSubview(const std::shared_ptr<View>& view, std::size_t index) {
  attach(view, index);
}

void View::removeFromSuperview() {
  std::shared_ptr<View> parent = superview_.lock();
  superview_.reset();
  if (!parent) return;
  auto& siblings = parent->subviews_;
  auto it = std::find_if(siblings.begin(), siblings.end(),
                         [this](const std::shared_ptr<View>& v) { return v.get() == this; });
  if (it == siblings.end()) return;
  // The superview may have held the last handle: this view can be destroyed
  // when `leaving` goes, so nothing of it is touched afterwards.
  std::shared_ptr<View> leaving = std::move(*it);
  siblings.erase(it);
}

std::string View::formatNumber(double value) {
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string View::description() const {
  char address[2 + 2 * sizeof(void*) + 1];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  std::string out = "<" + className() + ": " + address;
  appendDescription(out);
  out += '>';
  return out;
}

void View::appendDescription(std::string& out) const {
  out += "; frame = (" + formatNumber(frame_.origin.x) + " " + formatNumber(frame_.origin.y) +
         "; " + formatNumber(frame_.size.width) + " " + formatNumber(frame_.size.height) + ")";
  if (hidden_) out += "; hidden = YES";
  if (alpha_ != 1) out += "; alpha = " + formatNumber(alpha_);
  if (!opaque_) out += "; opaque = NO";
}

ImageView::ImageView(std::shared_ptr<const Image> image)
    : View(image ? Rect({0, 0}, image->size()) : Rect()), image_(std::move(image)) {}

ImageView::ImageView(Rect frame) : View(frame) {}

void ImageView::setImage(std::shared_ptr<const Image> image) {
  image_ = std::move(image);
}

void ImageView::startAnimating() {
  animating_ = true;
}

void ImageView::stopAnimating() {
  animating_ = false;
}

void ImageView::appendDescription(std::string& out) const {
  View::appendDescription(out);
  if (!image_) return;
  Size size = image_->size();
  out += "; image = <Image " + formatNumber(size.width) + "x" + formatNumber(size.height) + " @" +
         formatNumber(image_->scale()) + "x>";
}

}  // namespace nimb
