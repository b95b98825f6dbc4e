#include <NimbFoundation/NimbKit+Autolayout.h>

#include <limits>

namespace nimb {

namespace {

// "firstAttribute = attribute && firstItem = view": the first match in
// `list`, or nullptr.
std::shared_ptr<LayoutConstraint> firstMatch(
    const std::vector<std::shared_ptr<LayoutConstraint>>& list, const View* view,
    LayoutAttribute attribute) {
  for (const auto& c : list) {
    if (c->firstAttribute() == attribute && c->firstItem().get() == view) return c;
  }
  return nullptr;
}

}  // namespace

std::shared_ptr<LayoutConstraint> NimbKitAutolayout::ALView_constraintForAttribute(
    const std::shared_ptr<View>& view, LayoutAttribute attribute) {
  if (!view) return nullptr;
  // The superview first: its match wins over one the view holds itself.
  if (auto superview = view->superview()) {
    if (auto found = firstMatch(superview->constraints(), view.get(), attribute)) return found;
  }
  return firstMatch(view->constraints(), view.get(), attribute);
}

double NimbKitAutolayout::ALView_constraintConstantforAttribute(const std::shared_ptr<View>& view,
                                                                LayoutAttribute attribute) {
  auto c = ALView_constraintForAttribute(view, attribute);
  return c ? c->constant() : std::numeric_limits<double>::quiet_NaN();
}

bool NimbKitAutolayout::ALView_setConstraintConstant(const std::shared_ptr<View>& view,
                                                     double constant, LayoutAttribute attribute) {
  if (auto c = ALView_constraintForAttribute(view, attribute)) {
    c->setConstant(constant);
    return true;
  }
  if (!view) return false;
  auto made = LayoutConstraint::constraintWithItem(view, attribute, LayoutRelation::Equal, nullptr,
                                                   LayoutAttribute::NotAnAttribute, 1.0, constant);
  if (auto superview = view->superview(); made && superview) superview->addConstraint(made);
  return false;
}

std::vector<std::shared_ptr<LayoutConstraint>> NimbKitAutolayout::ALView_AllConstraints(
    const std::shared_ptr<View>& view) {
  if (!view) return {};
  std::vector<std::shared_ptr<LayoutConstraint>> all = view->constraints();
  if (auto superview = view->superview()) {
    for (const auto& c : superview->constraints()) {
      if (c->firstItem().get() == view.get() || c->secondItem().get() == view.get()) {
        all.push_back(c);
      }
    }
  }
  return all;
}

void NimbKitAutolayout::ALView_hideByHeight(const std::shared_ptr<View>& view, bool hide) {
  ALView_hideView(view, hide, LayoutAttribute::Height);
}

void NimbKitAutolayout::ALView_hideByWidth(const std::shared_ptr<View>& view, bool hide) {
  ALView_hideView(view, hide, LayoutAttribute::Width);
}

void NimbKitAutolayout::ALView_hideView(const std::shared_ptr<View>& view, bool hide,
                                        LayoutAttribute attribute) {
  if (!view || view->isHidden() == hide) return;
  double constant = ALView_constraintConstantforAttribute(view, attribute);
  bool found = constant == constant;  // false only for NaN: no constraint
  if (hide) {
    if (!found) {
      Size size = ALView_GetSize(view);
      constant = attribute == LayoutAttribute::Height ? size.height : size.width;
    }
    // alpha keeps the constant while the view is collapsed.
    view->setAlpha(constant);
    ALView_setConstraintConstant(view, 0.0, attribute);
    view->setHidden(true);
    return;
  }
  if (!found) return;  // nothing to restore: the view stays hidden
  view->setHidden(false);
  ALView_setConstraintConstant(view, view->alpha(), attribute);
  view->setAlpha(1.0);
}

Size NimbKitAutolayout::ALView_GetSize(const std::shared_ptr<View>& view) {
  if (!view) return {0, 0};
  ALView_UpdateSizes(view);
  return view->bounds().size;
}

void NimbKitAutolayout::ALView_SizeToSubviews(const std::shared_ptr<View>& view) {
  if (!view) return;
  ALView_UpdateSizes(view);
  Size fitting = view->systemLayoutSizeFittingSize(LayoutFittingCompressedSize);
  // 320 wide whatever the fitting width is.
  view->setFrame(Rect(0, 0, 320.0, fitting.height));
}

void NimbKitAutolayout::ALView_UpdateSizes(const std::shared_ptr<View>& view) {
  if (!view) return;
  view->setNeedsLayout();
  view->layoutIfNeeded();
}

}  // namespace nimb
