// View and ImageView: the view toolkit's view objects, the counterparts of
// the platform's view and image view. They keep the state the kit's
// components read and set (frame, visibility, opacity, colour, the view
// tree, an image) and the layout constraints of the tree, which the layout
// pass (layoutIfNeeded) solves to set frames. ViewRenderer draws a tree.
// VQImageView derives from ImageView; the kit's layout helpers (NimbKit's
// Autolayout extension) and NimbConstraintCache work on these.
//
// Layout: a view whose translatesAutoresizingMaskIntoConstraints is true
// (the default) keeps the frame it is given, relative to its superview, as
// if required constraints held it there. A view that has it false and is
// named by at least one constraint of its tree gets its frame from the
// solution, with its intrinsic content size held by its hugging and
// compression-resistance priorities. Any other view keeps its frame too.
//
// The object runtime: View, ImageView and VQImageView are registered
// classes. setHidden, layoutSubviews, description, setImage, startAnimating
// and stopAnimating are sent through it (msgSend), so exchanging one of
// their implementations (NimbKit::swizzleInstanceMethod) changes what the
// kit runs, for the class concerned and the classes inheriting from it. A
// C++ subclass changes layoutSubviews, setImage, startAnimating and
// stopAnimating by overriding the protected ...Implementation hooks, which
// the registered methods call, and adds to description through
// appendDescription. The senders themselves are final, so an override
// written against them does not compile rather than silently never running.
//
// Views are owned through std::shared_ptr (make them with std::make_shared):
// a superview owns its subviews, a subview refers back to its superview
// weakly, so dropping the last handle to a parent leaves its children with
// no superview.
//
// Thread rule: main thread only. Nothing here takes a lock.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Geometry.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Graphics/LayoutConstraint.h>
#include <NimbFoundation/Platform/Runtime/Object.h>

namespace NIMB_EXPORT nimb {

// No intrinsic size along an axis.
inline constexpr double ViewNoIntrinsicMetric = -1;
// Targets for View::systemLayoutSizeFittingSize: the smallest size the
// constraints allow, and the largest (capped at this value per axis).
inline constexpr Size LayoutFittingCompressedSize{0, 0};
inline constexpr Size LayoutFittingExpandedSize{10000000, 10000000};

class View : public Object, public std::enable_shared_from_this<View> {
 public:
  // The runtime class "View", registered on first use.
  static Class* classObject();

  explicit View(Rect frame = {});
  virtual ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  Rect frame() const { return frame_; }
  void setFrame(Rect frame);
  // Origin (0,0), the frame's size.
  Rect bounds() const { return Rect({0, 0}, frame_.size); }

  bool isHidden() const { return hidden_; }  // default false
  // Sends "setHidden:".
  void setHidden(bool hidden);
  bool isOpaque() const { return opaque_; }  // default true
  void setOpaque(bool opaque) { opaque_ = opaque; }
  double alpha() const { return alpha_; }  // default 1
  // Stored as given, even out of [0, 1] or NaN (the layout helpers keep a
  // constraint constant here while a view is collapsed); drawing clamps it.
  void setAlpha(double alpha) { alpha_ = alpha; }
  // Whether drawing (ViewRenderer) keeps the view's content and subviews
  // inside its bounds; default false, so subviews may draw outside.
  bool clipsToBounds() const { return clipsToBounds_; }
  void setClipsToBounds(bool clips) { clipsToBounds_ = clips; }
  // Filled behind the subviews when drawn; none (clear) by default.
  std::optional<Color> backgroundColor() const { return backgroundColor_; }
  void setBackgroundColor(std::optional<Color> color) { backgroundColor_ = color; }
  // A name for tests, logs and constraint descriptions; empty by default.
  const std::string& accessibilityIdentifier() const { return identifier_; }
  void setAccessibilityIdentifier(std::string identifier) { identifier_ = std::move(identifier); }

  // The view this one is a subview of; nullptr when none (or when it is gone).
  std::shared_ptr<View> superview() const { return superview_.lock(); }
  // Back to front.
  const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }

  // Adds `view` in front of the other subviews, taking it from its previous
  // superview (an existing subview of this one moves to the front, keeping
  // its constraints: only the order changes). Refused,
  // doing nothing: a null view, this view itself or one of its ancestors (a
  // cycle), or when this view is not owned by a std::shared_ptr.
  void addSubview(const std::shared_ptr<View>& view);
  // As addSubview, at position `index` of subviews() (past the end = front).
  void insertSubview(const std::shared_ptr<View>& view, std::size_t index);
  // Leaves the superview, if any. Every constraint that relates this view
  // or one of its subviews to a view outside that subtree goes with it: the
  // ancestors drop each constraint they hold that names a view of the
  // subtree, and the views of the subtree drop each one that names a view
  // outside it.
  void removeFromSuperview();

  // --- Constraints -------------------------------------------------------
  // The constraints this view holds, in the order they were added.
  const std::vector<std::shared_ptr<LayoutConstraint>>& constraints() const { return constraints_; }
  // A constraint already held, or null, is ignored. A view may hold
  // constraints between any views of its tree; the layout pass leaves out
  // those naming a view outside the tree.
  void addConstraint(const std::shared_ptr<LayoutConstraint>& constraint);
  void addConstraints(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints);
  void removeConstraint(const std::shared_ptr<LayoutConstraint>& constraint);
  void removeConstraints(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints);

  bool translatesAutoresizingMaskIntoConstraints() const { return translatesMask_; }
  void setTranslatesAutoresizingMaskIntoConstraints(bool translates);

  // The size the content wants, ViewNoIntrinsicMetric on an axis without
  // one. A plain view has none; an image view, its image's size in points.
  virtual Size intrinsicContentSize() const;
  // Call when what intrinsicContentSize() answers has changed.
  void invalidateIntrinsicContentSize();
  LayoutPriority contentHuggingPriorityForAxis(LayoutAxis axis) const;  // default 250
  void setContentHuggingPriority(LayoutPriority priority, LayoutAxis axis);
  // Default 750.
  LayoutPriority contentCompressionResistancePriorityForAxis(LayoutAxis axis) const;
  void setContentCompressionResistancePriority(LayoutPriority priority, LayoutAxis axis);

  // --- Layout ------------------------------------------------------------
  // Marks the view for layoutSubviews at the next layout pass.
  void setNeedsLayout();
  bool needsLayout() const { return needsLayout_; }
  // The layout pass of the whole tree this view belongs to: brings the
  // tree's solver up to date with every constraint change since the last
  // pass (incrementally), solves, sets the frame of every view whose place
  // changed, then calls layoutSubviews, parents before children, on each
  // view that was marked or whose size changed. Constraints that cannot
  // hold together with the required ones already in are left out one at a
  // time, the most recently made first, each with one line on the system
  // log naming it; the rest is laid out.
  void layoutIfNeeded();
  // Sends "layoutSubviews"; the layout pass calls it. The registered method
  // runs layoutSubviewsImplementation().
  virtual void layoutSubviews() final;
  // The size this view would take to come as close to `targetSize` as its
  // subtree's constraints allow with the target held at the fitting
  // priority (50): LayoutFittingCompressedSize gives the smallest size
  // allowed, LayoutFittingExpandedSize the largest. Measured from the
  // constraints among the view and its subviews alone; the view's own frame
  // size does not count. Frames are left as they are.
  Size systemLayoutSizeFittingSize(Size targetSize);

  // description() (sent through the runtime) answers one line, e.g.
  // "<View: 0x55d0c2a1e2b0; frame = (10 20; 100 50); hidden = YES;
  // alpha = 0.5; opaque = NO>": the class name, the address, the frame as
  // (x y; width height) with numbers in shortest form, then only the
  // properties that differ from their defaults.

  // The name of the view's runtime class ("View", "ImageView", ...).
  std::string className() const;

 protected:
  // What the registered "layoutSubviews" runs; the base does nothing.
  // Overrides may change frames and constraints (a change of constraints is
  // solved by one more pass).
  virtual void layoutSubviewsImplementation();
  // Appends the "; key = value" parts; an override calls its base first,
  // then appends its own.
  virtual void appendDescription(std::string& out) const;
  // The shortest text that reads back as `value` ("10", "0.5").
  static std::string formatNumber(double value);
  // An address as descriptions show it ("0x55d0c2a1e2b0").
  static std::string formatAddress(const void* address);

 private:
  friend class LayoutConstraint;
  friend class detail::LayoutEngine;
  // Whether `view` is this view or one of its superviews.
  bool hasAncestor(const View* view) const;
  void attach(const std::shared_ptr<View>& view, std::size_t index);
  // The topmost ancestor (this view when it has no superview).
  View* root();
  // Tells the tree's layout engine, if it has one, that constraints, the
  // tree or a fixed frame changed.
  void layoutStructureChanged();
  void dropConstraintsLeavingTree();

  Rect frame_;
  bool hidden_ = false;
  bool opaque_ = true;
  double alpha_ = 1;
  bool clipsToBounds_ = false;
  std::optional<Color> backgroundColor_;
  std::string identifier_;
  std::weak_ptr<View> superview_;
  std::vector<std::shared_ptr<View>> subviews_;

  std::vector<std::shared_ptr<LayoutConstraint>> constraints_;
  bool translatesMask_ = true;
  bool needsLayout_ = false;
  LayoutPriority hugging_[2] = {LayoutPriorityDefaultLow, LayoutPriorityDefaultLow};
  LayoutPriority compression_[2] = {LayoutPriorityDefaultHigh, LayoutPriorityDefaultHigh};
  // Held by the root of a tree once it has been laid out.
  std::shared_ptr<detail::LayoutEngine> engine_;
};

class ImageView : public View {
 public:
  // The runtime class "ImageView", a subclass of "View".
  static Class* classObject();

  // With an image, the frame is (0, 0, the image's size in points).
  explicit ImageView(std::shared_ptr<const Image> image = nullptr);
  explicit ImageView(Rect frame);

  std::shared_ptr<const Image> image() const { return image_; }
  // Sends "setImage:". Does not change the frame; the intrinsic content
  // size follows.
  virtual void setImage(std::shared_ptr<const Image> image) final;
  // The image's size in points; none without an image.
  Size intrinsicContentSize() const override;

  // The platform cycles through a list of animation images; this kit has no
  // such list, so there is nothing to cycle: startAnimating only marks the
  // view animating (isAnimating) until stopAnimating. The image is unchanged.
  // Send "startAnimating" and "stopAnimating".
  virtual void startAnimating() final;
  virtual void stopAnimating() final;
  bool isAnimating() const { return animating_; }

 protected:
  // What the registered methods run.
  virtual void setImageImplementation(std::shared_ptr<const Image> image);
  virtual void startAnimatingImplementation();
  virtual void stopAnimatingImplementation();
  // Adds "; image = <Image WxH @Sx>" (size in points) when there is one.
  void appendDescription(std::string& out) const override;

 private:
  std::shared_ptr<const Image> image_;
  bool animating_ = false;
};

}  // namespace nimb
