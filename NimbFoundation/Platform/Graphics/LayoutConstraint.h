// LayoutConstraint: one linear relation between two views' layout
// attributes, the counterpart of the platform's layout constraint:
//
//   first.firstAttribute  RELATION  multiplier * second.secondAttribute + constant
//
// or, with no second item, `first.firstAttribute RELATION constant`. Views
// hold constraints (View::addConstraint); the layout pass of the view tree
// (View::layoutIfNeeded) solves every constraint held in the tree and sets
// the views' frames from the solution.
//
// A constraint refers to its items weakly (a view holding a constraint that
// names itself would otherwise never be freed); one whose item is gone takes
// no part in layout. Priorities run from 1 to 1000; 1000 is required, any
// lower one is a preference weighted by its value.
//
// Thread rule: main thread only, like the views.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <NimbFoundation/Export.h>

// The layout engine is the library's own: declared outside the exported
// namespace so that it stays hidden in the shared library.
namespace nimb::detail {
class LayoutEngine;
}

namespace NIMB_EXPORT nimb {

class View;

// The platform's attribute numbers. Leading and trailing are left and right
// (text runs left to right); the baseline of a view without text is its
// bottom.
enum class LayoutAttribute : int {
  NotAnAttribute = 0,
  Left = 1,
  Right = 2,
  Top = 3,
  Bottom = 4,
  Leading = 5,
  Trailing = 6,
  Width = 7,
  Height = 8,
  CenterX = 9,
  CenterY = 10,
  Baseline = 11,
};

enum class LayoutRelation : int {
  LessThanOrEqual = -1,
  Equal = 0,
  GreaterThanOrEqual = 1,
};

enum class LayoutAxis : int { Horizontal = 0, Vertical = 1 };

using LayoutPriority = float;
inline constexpr LayoutPriority LayoutPriorityRequired = 1000;
inline constexpr LayoutPriority LayoutPriorityDefaultHigh = 750;
inline constexpr LayoutPriority LayoutPriorityDefaultLow = 250;
inline constexpr LayoutPriority LayoutPriorityFittingSizeLevel = 50;

// The attribute's name as the platform spells it after the prefix: "left",
// "width", "centerX", "notAnAttribute"; "?" for a number out of range.
const char* layoutAttributeName(LayoutAttribute attribute);

class LayoutConstraint : public std::enable_shared_from_this<LayoutConstraint> {
 public:
  // nullptr when the description is not a constraint the layout can hold:
  // no first item or a first attribute of NotAnAttribute; a second item
  // without a second attribute, or a second attribute without a second
  // item; a position (left, top, center, ...) related to a constant alone;
  // a horizontal position related to a vertical one, or a size to a
  // position (a width may relate to a height: an aspect ratio); a
  // multiplier that is NaN, infinite or (between positions) 0.
  // The constant is kept as given; a NaN or infinite one makes the layout
  // pass leave the constraint out (see View::layoutIfNeeded).
  static std::shared_ptr<LayoutConstraint> constraintWithItem(const std::shared_ptr<View>& view1,
                                                              LayoutAttribute attribute1,
                                                              LayoutRelation relation,
                                                              const std::shared_ptr<View>& view2,
                                                              LayoutAttribute attribute2,
                                                              double multiplier, double constant);

  LayoutConstraint(const LayoutConstraint&) = delete;
  LayoutConstraint& operator=(const LayoutConstraint&) = delete;
  ~LayoutConstraint();

  std::shared_ptr<View> firstItem() const { return first_.lock(); }
  LayoutAttribute firstAttribute() const { return firstAttribute_; }
  LayoutRelation relation() const { return relation_; }
  std::shared_ptr<View> secondItem() const { return second_.lock(); }
  LayoutAttribute secondAttribute() const { return secondAttribute_; }
  double multiplier() const { return multiplier_; }
  // Whether `view` is the first or the second item, by identity (so it
  // answers even after the items are gone).
  bool namesView(const View* view) const;

  double constant() const { return constant_; }
  // Takes effect at the next layout pass of the tree that holds it.
  void setConstant(double constant);

  LayoutPriority priority() const { return priority_; }  // default 1000
  // Clamped to [1, 1000]; NaN leaves it unchanged.
  void setPriority(LayoutPriority priority);

  // Active while some view holds the constraint.
  bool isActive() const { return !holders_.empty(); }
  // true: the nearest common ancestor of the items (the first item alone
  // when there is no second) adds the constraint; nothing happens when the
  // items share no tree. false: every view holding it removes it.
  void setActive(bool active);
  static void activateConstraints(const std::vector<std::shared_ptr<LayoutConstraint>>& list);
  static void deactivateConstraints(const std::vector<std::shared_ptr<LayoutConstraint>>& list);

  // A name for logs and descriptions, empty by default.
  const std::string& identifier() const { return identifier_; }
  void setIdentifier(std::string identifier) { identifier_ = std::move(identifier); }

  // e.g. "<LayoutConstraint: 0x55d0c2a1e2b0 'title-width' label.width ==
  // 0.5*card.width + 8 @750>": views by their accessibility identifier, else
  // class name and address; the multiplier only when it is not 1, the
  // constant only when it is not 0, the priority only when not required.
  std::string description() const;

  // The order in which constraints were made: the layout pass adds them to
  // its solver in this order, so when required constraints contradict each
  // other the one made last is the one left out.
  std::uint64_t sequence() const { return sequence_; }

 private:
  friend class View;
  friend class detail::LayoutEngine;
  LayoutConstraint() = default;

  std::weak_ptr<View> first_;
  std::weak_ptr<View> second_;
  const View* firstRaw_ = nullptr;   // identity only, never dereferenced
  const View* secondRaw_ = nullptr;  // identity only, never dereferenced
  LayoutAttribute firstAttribute_ = LayoutAttribute::NotAnAttribute;
  LayoutAttribute secondAttribute_ = LayoutAttribute::NotAnAttribute;
  LayoutRelation relation_ = LayoutRelation::Equal;
  double multiplier_ = 1;
  double constant_ = 0;
  LayoutPriority priority_ = LayoutPriorityRequired;
  std::string identifier_;
  std::uint64_t sequence_ = 0;
  // Views holding this constraint, for identity only (a view may hold it
  // once; several views may each hold it). A view leaves this list when it
  // stops holding the constraint or is destroyed.
  std::vector<View*> holders_;
  // The layout engine that installed it, told when the constant changes.
  std::weak_ptr<detail::LayoutEngine> engine_;
};

}  // namespace nimb
