#include <NimbFoundation/Platform/Graphics/LayoutConstraint.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>

#include <NimbFoundation/Internal/LayoutEngine.h>
#include <NimbFoundation/Platform/Graphics/View.h>

namespace nimb {

namespace {

std::atomic<std::uint64_t> nextSequence{1};

bool isSize(LayoutAttribute a) {
  return a == LayoutAttribute::Width || a == LayoutAttribute::Height;
}

bool isKnown(LayoutAttribute a) {
  int n = static_cast<int>(a);
  return n >= 1 && n <= 11;
}

bool isHorizontal(LayoutAttribute a) {
  switch (a) {
    case LayoutAttribute::Left:
    case LayoutAttribute::Right:
    case LayoutAttribute::Leading:
    case LayoutAttribute::Trailing:
    case LayoutAttribute::Width:
    case LayoutAttribute::CenterX:
      return true;
    default:
      return false;
  }
}

}  // namespace

const char* layoutAttributeName(LayoutAttribute attribute) {
  static const char* const names[] = {"notAnAttribute", "left",    "right",    "top",
                                      "bottom",         "leading", "trailing", "width",
                                      "height",         "centerX", "centerY",  "baseline"};
  int n = static_cast<int>(attribute);
  return n >= 0 && n <= 11 ? names[n] : "?";
}

std::shared_ptr<LayoutConstraint> LayoutConstraint::constraintWithItem(
    const std::shared_ptr<View>& view1, LayoutAttribute attribute1, LayoutRelation relation,
    const std::shared_ptr<View>& view2, LayoutAttribute attribute2, double multiplier,
    double constant) {
  if (!view1 || !isKnown(attribute1)) return nullptr;
  int r = static_cast<int>(relation);
  if (r < -1 || r > 1) return nullptr;
  if (!std::isfinite(multiplier)) return nullptr;
  if (view2) {
    if (!isKnown(attribute2)) return nullptr;
    if (isSize(attribute1) != isSize(attribute2)) return nullptr;
    // Sizes may relate across axes (an aspect ratio); positions may not.
    if (!isSize(attribute1) && isHorizontal(attribute1) != isHorizontal(attribute2)) {
      return nullptr;
    }
    if (!isSize(attribute1) && multiplier == 0) return nullptr;
  } else {
    if (attribute2 != LayoutAttribute::NotAnAttribute || !isSize(attribute1)) return nullptr;
  }
  std::shared_ptr<LayoutConstraint> c(new (std::nothrow) LayoutConstraint());
  if (!c) return nullptr;
  c->first_ = view1;
  c->firstRaw_ = view1.get();
  c->second_ = view2;
  c->secondRaw_ = view2.get();
  c->firstAttribute_ = attribute1;
  c->secondAttribute_ = attribute2;
  c->relation_ = relation;
  c->multiplier_ = multiplier;
  c->constant_ = constant;
  c->sequence_ = nextSequence.fetch_add(1, std::memory_order_relaxed);
  return c;
}

LayoutConstraint::~LayoutConstraint() = default;

bool LayoutConstraint::namesView(const View* view) const {
  return view && (view == firstRaw_ || view == secondRaw_);
}

void LayoutConstraint::setConstant(double constant) {
  if (constant == constant_ || (std::isnan(constant) && std::isnan(constant_))) return;
  constant_ = constant;
  if (auto engine = engine_.lock()) engine->constantChanged(*this);
}

void LayoutConstraint::setPriority(LayoutPriority priority) {
  if (std::isnan(priority)) return;
  priority = std::clamp(priority, LayoutPriority(1), LayoutPriorityRequired);
  if (priority == priority_) return;
  priority_ = priority;
  for (View* holder : holders_) holder->layoutStructureChanged();
}

void LayoutConstraint::setActive(bool active) {
  if (!active) {
    // removeConstraint edits holders_, so work on a copy.
    auto holders = holders_;
    auto self = shared_from_this();
    for (View* holder : holders) holder->removeConstraint(self);
    return;
  }
  if (isActive()) return;
  auto first = first_.lock();
  auto second = second_.lock();
  if (!first) return;
  std::shared_ptr<View> holder = first;
  if (second) {
    // The nearest common ancestor: the first of second's ancestors (itself
    // included) that is also an ancestor of first.
    holder = nullptr;
    for (auto up = second; up; up = up->superview()) {
      if (first->hasAncestor(up.get())) {
        holder = up;
        break;
      }
    }
  }
  if (holder) holder->addConstraint(shared_from_this());
}

void LayoutConstraint::activateConstraints(
    const std::vector<std::shared_ptr<LayoutConstraint>>& list) {
  for (const auto& c : list) {
    if (c) c->setActive(true);
  }
}

void LayoutConstraint::deactivateConstraints(
    const std::vector<std::shared_ptr<LayoutConstraint>>& list) {
  for (const auto& c : list) {
    if (c) c->setActive(false);
  }
}

std::string LayoutConstraint::description() const {
  auto itemName = [](const std::shared_ptr<View>& view, const View* raw) -> std::string {
    if (!view) return "(gone)";
    if (!view->accessibilityIdentifier().empty()) return view->accessibilityIdentifier();
    return view->className() + ":" + View::formatAddress(raw);
  };
  std::string out = "<LayoutConstraint: " + View::formatAddress(this);
  if (!identifier_.empty()) out += " '" + identifier_ + "'";
  out += " " + itemName(first_.lock(), firstRaw_) + "." + layoutAttributeName(firstAttribute_);
  out += relation_ == LayoutRelation::Equal             ? " == "
         : relation_ == LayoutRelation::LessThanOrEqual ? " <= "
                                                        : " >= ";
  bool hasSecond = secondRaw_ != nullptr;
  if (hasSecond) {
    if (multiplier_ != 1) out += View::formatNumber(multiplier_) + "*";
    out += itemName(second_.lock(), secondRaw_) + "." + layoutAttributeName(secondAttribute_);
    if (constant_ != 0) {
      out += constant_ < 0 ? " - " + View::formatNumber(-constant_)
                           : " + " + View::formatNumber(constant_);
    }
  } else {
    out += View::formatNumber(constant_);
  }
  if (priority_ != LayoutPriorityRequired) out += " @" + View::formatNumber(priority_);
  out += ">";
  return out;
}

}  // namespace nimb
