// View and ImageView: the view toolkit's view objects, the counterparts of
// the platform's view and image view. They keep the state the kit's
// components read and set (frame, visibility, the view tree, an image); they
// draw nothing themselves. VQImageView derives from ImageView.
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
#include <string>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Geometry.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

namespace NIMB_EXPORT nimb {

class View : public std::enable_shared_from_this<View> {
 public:
  explicit View(Rect frame = {});
  virtual ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  Rect frame() const { return frame_; }
  void setFrame(Rect frame) { frame_ = frame; }
  // Origin (0,0), the frame's size.
  Rect bounds() const { return Rect({0, 0}, frame_.size); }

  bool isHidden() const { return hidden_; }  // default false
  void setHidden(bool hidden) { hidden_ = hidden; }
  bool isOpaque() const { return opaque_; }  // default true
  void setOpaque(bool opaque) { opaque_ = opaque; }
  double alpha() const { return alpha_; }  // default 1
  // Clamped to [0, 1]; NaN leaves the alpha as it was.
  void setAlpha(double alpha);

  // The view this one is a subview of; nullptr when none (or when it is gone).
  std::shared_ptr<View> superview() const { return superview_.lock(); }
  // Back to front.
  const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }

  // Adds `view` in front of the other subviews, taking it from its previous
  // superview (an existing subview of this one moves to the front). Refused,
  // doing nothing: a null view, this view itself or one of its ancestors (a
  // cycle), or when this view is not owned by a std::shared_ptr.
  void addSubview(const std::shared_ptr<View>& view);
  // As addSubview, at position `index` of subviews() (past the end = front).
  void insertSubview(const std::shared_ptr<View>& view, std::size_t index);
  // Leaves the superview, if any.
  void removeFromSuperview();

  // One line, e.g. "<View: 0x55d0c2a1e2b0; frame = (10 20; 100 50);
  // hidden = YES; alpha = 0.5; opaque = NO>": the class name, the address,
  // the frame as (x y; width height) with numbers in shortest form, then
  // only the properties that differ from their defaults.
  virtual std::string description() const;

 protected:
  virtual std::string className() const { return "View"; }
  // Appends the "; key = value" parts; an override calls its base first,
  // then appends its own.
  virtual void appendDescription(std::string& out) const;
  // The shortest text that reads back as `value` ("10", "0.5").
  static std::string formatNumber(double value);

 private:
  // Whether `view` is this view or one of its superviews.
  bool hasAncestor(const View* view) const;
  void attach(const std::shared_ptr<View>& view, std::size_t index);

  Rect frame_;
  bool hidden_ = false;
  bool opaque_ = true;
  double alpha_ = 1;
  std::weak_ptr<View> superview_;
  std::vector<std::shared_ptr<View>> subviews_;
};

class ImageView : public View {
 public:
  // With an image, the frame is (0, 0, the image's size in points).
  explicit ImageView(std::shared_ptr<const Image> image = nullptr);
  explicit ImageView(Rect frame);

  std::shared_ptr<const Image> image() const { return image_; }
  // Does not change the frame.
  virtual void setImage(std::shared_ptr<const Image> image);

  // The platform cycles through a list of animation images; this kit has no
  // such list, so there is nothing to cycle: startAnimating only marks the
  // view animating (isAnimating) until stopAnimating. The image is unchanged.
  virtual void startAnimating();
  virtual void stopAnimating();
  bool isAnimating() const { return animating_; }

 protected:
  std::string className() const override { return "ImageView"; }
  // Adds "; image = <Image WxH @Sx>" (size in points) when there is one.
  void appendDescription(std::string& out) const override;

 private:
  std::shared_ptr<const Image> image_;
  bool animating_ = false;
};

}  // namespace nimb
