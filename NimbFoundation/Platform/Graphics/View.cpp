#include <NimbFoundation/Platform/Graphics/View.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <unordered_set>

#include <NimbFoundation/Internal/LayoutEngine.h>
#include <NimbFoundation/Internal/RuntimeMethods.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>

namespace nimb {

Class* View::classObject() {
  static Class* const cls = [] {
    Class* c = detail::registerKitClass("View", Object::classObject());
    detail::addMethod<View>(c, detail::selectorNamed<"setHidden:">(),
                            [](View& v, bool hidden) { v.hidden_ = hidden; });
    detail::addMethod<View>(c, detail::selectorNamed<"layoutSubviews">(),
                            [](View& v) { v.layoutSubviewsImplementation(); });
    detail::addMethod<View>(c, sel_registerName("description"), [](View& v) {
      std::string out = "<" + v.className() + ": " + formatAddress(&v);
      v.appendDescription(out);
      out += '>';
      return out;
    });
    return c;
  }();
  return cls;
}

View::View(Rect frame) : Object(classObject()), frame_(frame) {}

void View::setHidden(bool hidden) {
  msgSend<void>(this, detail::selectorNamed<"setHidden:">(), hidden);
}

std::string View::className() const {
  return class_getName(object_getClass(this));
}

// The subviews' weak links to this view expire by themselves; the
// constraints it holds forget it.
View::~View() {
  for (const auto& c : constraints_) std::erase(c->holders_, this);
  // A deep tree is freed level by level rather than by destructors calling
  // destructors, which would run out of stack thousands of levels down: a
  // subview held by nothing else gives up its own subviews to this list
  // before it goes.
  std::vector<std::shared_ptr<View>> pending = std::move(subviews_);
  while (!pending.empty()) {
    std::shared_ptr<View> view = std::move(pending.back());
    pending.pop_back();
    if (view.use_count() == 1) {
      for (auto& sub : view->subviews_) pending.push_back(std::move(sub));
      view->subviews_.clear();
    }
  }
}

void View::setFrame(Rect frame) {
  if (frame == frame_) return;
  bool resized = frame.size != frame_.size;
  frame_ = frame;
  if (detail::LayoutEngine::anyExists()) {
    View* top = root();
    if (top->engine_) top->engine_->frameChanged(*this);
  }
  if (resized) setNeedsLayout();
}

View* View::root() {
  View* top = this;
  for (auto up = superview_.lock(); up; up = up->superview_.lock()) top = up.get();
  return top;
}

void View::layoutStructureChanged() {
  if (!detail::LayoutEngine::anyExists()) return;
  View* top = root();
  if (top->engine_) top->engine_->structureChanged();
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
  if (moving->superview_.lock().get() == this) {
    // Only the order changes: the view stays in the tree with its constraints.
    auto it = std::find(subviews_.begin(), subviews_.end(), moving);
    subviews_.erase(it);
    index = std::min(index, subviews_.size());
    subviews_.insert(subviews_.begin() + static_cast<std::ptrdiff_t>(index), moving);
    return;
  }
  moving->removeFromSuperview();
  index = std::min(index, subviews_.size());
  subviews_.insert(subviews_.begin() + static_cast<std::ptrdiff_t>(index), moving);
  moving->superview_ = std::move(self);
  // It is no longer the root of a tree of its own.
  moving->engine_.reset();
  layoutStructureChanged();
}

void View::addSubview(const std::shared_ptr<View>& view) {
  attach(view, std::numeric_limits<std::size_t>::max());  // clamped to the end
}

void View::insertSubview(const std::shared_ptr<View>& view, std::size_t index) {
  attach(view, index);
}

void View::dropConstraintsLeavingTree() {
  std::unordered_set<const View*> subtree;
  std::vector<View*> stack{this};
  while (!stack.empty()) {
    View* v = stack.back();
    stack.pop_back();
    subtree.insert(v);
    for (const auto& sub : v->subviews_) stack.push_back(sub.get());
  }
  auto inside = [&](const View* v) { return v && subtree.count(v) != 0; };
  auto dropWhere = [](View& holder, auto&& drop) {
    std::vector<std::shared_ptr<LayoutConstraint>> dropped;
    std::erase_if(holder.constraints_, [&](const std::shared_ptr<LayoutConstraint>& c) {
      if (!drop(*c)) return false;
      dropped.push_back(c);
      return true;
    });
    for (const auto& c : dropped) std::erase(c->holders_, &holder);
  };
  for (auto up = superview_.lock(); up; up = up->superview_.lock()) {
    dropWhere(*up, [&](const LayoutConstraint& c) {
      return inside(c.firstRaw_) || inside(c.secondRaw_);
    });
  }
  for (const View* v : subtree) {
    dropWhere(*const_cast<View*>(v), [&](const LayoutConstraint& c) {
      return (c.firstRaw_ && !inside(c.firstRaw_)) || (c.secondRaw_ && !inside(c.secondRaw_));
    });
  }
}

void View::removeFromSuperview() {
  std::shared_ptr<View> parent = superview_.lock();
  if (!parent) {
    superview_.reset();
    return;
  }
  dropConstraintsLeavingTree();
  parent->layoutStructureChanged();
  superview_.reset();
  auto& siblings = parent->subviews_;
  auto it = std::find_if(siblings.begin(), siblings.end(),
                         [this](const std::shared_ptr<View>& v) { return v.get() == this; });
  if (it == siblings.end()) return;
  // The superview may have held the last handle: this view can be destroyed
  // when `leaving` goes, so nothing of it is touched afterwards.
  std::shared_ptr<View> leaving = std::move(*it);
  siblings.erase(it);
}

void View::addConstraint(const std::shared_ptr<LayoutConstraint>& constraint) {
  if (!constraint) return;
  if (std::find(constraints_.begin(), constraints_.end(), constraint) != constraints_.end()) return;
  constraints_.push_back(constraint);
  constraint->holders_.push_back(this);
  layoutStructureChanged();
}

void View::addConstraints(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints) {
  for (const auto& c : constraints) addConstraint(c);
}

void View::removeConstraint(const std::shared_ptr<LayoutConstraint>& constraint) {
  auto it = std::find(constraints_.begin(), constraints_.end(), constraint);
  if (it == constraints_.end()) return;
  std::shared_ptr<LayoutConstraint> leaving = std::move(*it);
  constraints_.erase(it);
  std::erase(leaving->holders_, this);
  layoutStructureChanged();
}

void View::removeConstraints(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints) {
  for (const auto& c : constraints) removeConstraint(c);
}

void View::setTranslatesAutoresizingMaskIntoConstraints(bool translates) {
  if (translates == translatesMask_) return;
  translatesMask_ = translates;
  layoutStructureChanged();
}

Size View::intrinsicContentSize() const {
  return {ViewNoIntrinsicMetric, ViewNoIntrinsicMetric};
}

void View::invalidateIntrinsicContentSize() {
  layoutStructureChanged();
}

namespace {

int axisIndex(LayoutAxis axis) {
  return axis == LayoutAxis::Vertical ? 1 : 0;
}

// Stores a priority for one axis, clamped to [1, 1000]; false for NaN.
bool storeAxisPriority(LayoutPriority (&slots)[2], LayoutPriority priority, LayoutAxis axis) {
  if (std::isnan(priority)) return false;
  slots[axisIndex(axis)] = std::clamp(priority, LayoutPriority(1), LayoutPriorityRequired);
  return true;
}

}  // namespace

LayoutPriority View::contentHuggingPriorityForAxis(LayoutAxis axis) const {
  return hugging_[axisIndex(axis)];
}

void View::setContentHuggingPriority(LayoutPriority priority, LayoutAxis axis) {
  if (storeAxisPriority(hugging_, priority, axis)) layoutStructureChanged();
}

LayoutPriority View::contentCompressionResistancePriorityForAxis(LayoutAxis axis) const {
  return compression_[axisIndex(axis)];
}

void View::setContentCompressionResistancePriority(LayoutPriority priority, LayoutAxis axis) {
  if (storeAxisPriority(compression_, priority, axis)) layoutStructureChanged();
}

void View::setNeedsLayout() {
  // Already marked: the tree's engine knows (or finds it when it syncs).
  if (needsLayout_) return;
  needsLayout_ = true;
  if (!detail::LayoutEngine::anyExists()) return;
  View* top = root();
  if (top->engine_) top->engine_->needsLayout(*this);
}

void View::layoutIfNeeded() {
  View* top = root();
  if (!top->engine_) {
    top->engine_ = std::make_shared<detail::LayoutEngine>();
  }
  // The pass may run layoutSubviews overrides that re-parent views; hold the
  // engine so it outlives the pass.
  std::shared_ptr<detail::LayoutEngine> engine = top->engine_;
  engine->layout(*top, *this);
}

void View::layoutSubviews() {
  msgSend<void>(this, detail::selectorNamed<"layoutSubviews">());
}

void View::layoutSubviewsImplementation() {}

Size View::systemLayoutSizeFittingSize(Size targetSize) {
  return detail::LayoutEngine::fittingSize(*this, targetSize);
}

std::string View::formatNumber(double value) {
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string View::formatAddress(const void* address) {
  char text[2 + 2 * sizeof(void*) + 1];
  std::snprintf(text, sizeof text, "%p", address);
  return text;
}

void View::appendDescription(std::string& out) const {
  out += "; frame = (" + formatNumber(frame_.origin.x) + " " + formatNumber(frame_.origin.y) +
         "; " + formatNumber(frame_.size.width) + " " + formatNumber(frame_.size.height) + ")";
  if (hidden_) out += "; hidden = YES";
  if (alpha_ != 1) out += "; alpha = " + formatNumber(alpha_);
  if (!opaque_) out += "; opaque = NO";
  if (clipsToBounds_) out += "; clipsToBounds = YES";
}

Class* ImageView::classObject() {
  static Class* const cls = [] {
    Class* c = detail::registerKitClass("ImageView", View::classObject());
    detail::addMethod<ImageView>(c, detail::selectorNamed<"setImage:">(),
                                 [](ImageView& v, std::shared_ptr<const Image> image) {
                                   v.setImageImplementation(std::move(image));
                                 });
    detail::addMethod<ImageView>(c, detail::selectorNamed<"startAnimating">(),
                                 [](ImageView& v) { v.startAnimatingImplementation(); });
    detail::addMethod<ImageView>(c, detail::selectorNamed<"stopAnimating">(),
                                 [](ImageView& v) { v.stopAnimatingImplementation(); });
    return c;
  }();
  return cls;
}

ImageView::ImageView(std::shared_ptr<const Image> image)
    : View(image ? Rect({0, 0}, image->size()) : Rect()), image_(std::move(image)) {
  setRuntimeClass(classObject());
}

ImageView::ImageView(Rect frame) : View(frame) {
  setRuntimeClass(classObject());
}

void ImageView::setImage(std::shared_ptr<const Image> image) {
  msgSend<void>(this, detail::selectorNamed<"setImage:">(), std::move(image));
}

void ImageView::startAnimating() {
  msgSend<void>(this, detail::selectorNamed<"startAnimating">());
}

void ImageView::stopAnimating() {
  msgSend<void>(this, detail::selectorNamed<"stopAnimating">());
}

void ImageView::setImageImplementation(std::shared_ptr<const Image> image) {
  Size before = intrinsicContentSize();
  image_ = std::move(image);
  if (intrinsicContentSize() != before) invalidateIntrinsicContentSize();
}

Size ImageView::intrinsicContentSize() const {
  if (!image_) return View::intrinsicContentSize();
  return image_->size();
}

void ImageView::startAnimatingImplementation() {
  animating_ = true;
}

void ImageView::stopAnimatingImplementation() {
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
