// NimbKitAutolayout: the Autolayout extension of the kit class NimbKit
// (call these as NimbKit::ALView_...). Helpers over a view's layout
// constraints: find the constraint that sizes a view along an attribute,
// read and set its constant, collapse a view to zero height or width and
// bring it back, collect every constraint that touches a view, and measure
// or size a view from its content. NimbConstraintCache uses
// ALView_AllConstraints.
//
// The helpers keep no state. The one value a collapse must remember, the
// constant it replaced, is kept in the view's alpha while the view is
// hidden, and read back from there when it is shown: anything that changes
// the alpha of a collapsed view meanwhile changes the constant restored.
//
// Constraints are looked up by a first attribute and a first item equal to
// the view; the second item is never looked at. The superview's constraints
// are searched before the view's own, so a match held by the superview wins.
//
// Thread rule: main thread only, like the views. No locks.
#pragma once

#include <memory>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Geometry.h>
#include <NimbFoundation/Platform/Graphics/LayoutConstraint.h>
#include <NimbFoundation/Platform/Graphics/View.h>

namespace NIMB_EXPORT nimb {

class NimbKitAutolayout {
 public:
  // The first constraint held by the superview, else by the view itself,
  // whose first attribute is `attribute` and whose first item is the view;
  // nullptr when none (or no view).
  static std::shared_ptr<LayoutConstraint> ALView_constraintForAttribute(
      const std::shared_ptr<View>& view, LayoutAttribute attribute);
  // That constraint's constant; a quiet NaN when there is none.
  static double ALView_constraintConstantforAttribute(const std::shared_ptr<View>& view,
                                                      LayoutAttribute attribute);
  // Sets the constant of that constraint and answers true. Without one, makes
  // `view.attribute == constant` (relation equal, no second item, multiplier
  // 1), adds it to the superview and answers false; with no superview the
  // new constraint is dropped and the answer is still false.
  static bool ALView_setConstraintConstant(const std::shared_ptr<View>& view, double constant,
                                           LayoutAttribute attribute);
  // A new list: the view's own constraints, then those of its superview whose
  // first or second item is the view, in the superview's order. Empty for no
  // view.
  static std::vector<std::shared_ptr<LayoutConstraint>> ALView_AllConstraints(
      const std::shared_ptr<View>& view);

  // ALView_hideView along the height (attribute 8).
  static void ALView_hideByHeight(const std::shared_ptr<View>& view, bool hide);
  // ALView_hideView along the width (attribute 7).
  static void ALView_hideByWidth(const std::shared_ptr<View>& view, bool hide);
  // Collapses the view along `attribute` (hide) or brings it back (show).
  // Nothing happens when the view is already in the requested state.
  // Hide: the current constant (or, without a constraint, the view's current
  // height for attribute 8 and width otherwise) goes into alpha, the
  // constant becomes 0 (making a constraint on the superview when there was
  // none), the view is hidden. Show: without a constraint nothing happens
  // and the view stays hidden; otherwise the view is shown, the constant is
  // set from alpha and alpha becomes 1.
  static void ALView_hideView(const std::shared_ptr<View>& view, bool hide,
                              LayoutAttribute attribute);

  // ALView_UpdateSizes, then the size of the view's bounds; (0, 0) for no
  // view.
  static Size ALView_GetSize(const std::shared_ptr<View>& view);
  // ALView_UpdateSizes, then the frame becomes (0, 0, 320, the height of
  // systemLayoutSizeFittingSize(LayoutFittingCompressedSize)). The width is
  // 320 whatever the fitting width is.
  static void ALView_SizeToSubviews(const std::shared_ptr<View>& view);
  // setNeedsLayout, then layoutIfNeeded.
  static void ALView_UpdateSizes(const std::shared_ptr<View>& view);
};

}  // namespace nimb
