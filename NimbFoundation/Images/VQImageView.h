// VQImageView: an image view that shows the picture at a URL. It shows a
// placeholder until the picture is there, asks its VQImageLoader (the
// shared one unless it was given another) for it, listens to the loader's notifications, and
// reports to an optional delegate. With needCutOff() it crops every picture to a centred square of
// twice its shorter side and keeps the crop in the loader's disk cache under
// "NimbCutoffImageLoader-" + the URL's digest, so each URL is cropped once.
//
// Rules callers rely on:
//   - A cropping view with isAutoStart() on never downloads: setImageURL()
//     only looks for a cached crop, and startImageLoad() does nothing while
//     isAutoStart() is on. Turn isAutoStart() off and call startImageLoad().
//   - Setting a new URL cancels nothing; notifications for the old URL are
//     told apart by comparing URLs, except failures: any failure notification
//     the view hears sets status() to 2.
//   - setIsCacheImage() stores a flag that nothing reads; isCacheImage()
//     asks the caches.
//   - cutOffImage() applies its source square, computed in points, to the
//     pixels as it is, without the picture's scale.
//   - setCacheSecondes() with a value that is not positive writes
//     "[%f] is error" on the platform log (SystemLog), whatever the kit's log
//     switch says.
//
// The delegate is not owned: one that went away is not called. Thread rule:
// the main thread only, like every view; the view takes no lock, and status()
// is one atomic word.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Images/VQImageLoader.h>
#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Graphics/View.h>
#include <NimbFoundation/Platform/Net/URL.h>

namespace NIMB_EXPORT nimb {

class VQImageView;

// What the view reports; each operation is optional (leave it empty).
struct VQImageViewDelegate {
  // A picture (or its cached crop) is now shown.
  std::function<void(VQImageView& view)> imageViewLoadedImage;
  // Download progress of the view's current URL, the loader's fraction.
  std::function<void(float percent, VQImageView& view)> imageViewLoadedImageSizePercent;
  // The download of the view's current URL failed.
  std::function<void(VQImageView& view, const Error& error)> imageViewFailedToLoadImage;
};

class VQImageView : public ImageView {
  struct Passkey {};

 public:
  // The runtime class "VQImageView", a subclass of "ImageView"; it adds
  // "startImageLoad" and "cancelImageLoad".
  static Class* classObject();

  enum Status : std::int32_t { kNotLoaded = 0, kLoaded = 1, kFailed = 2 };

  // Shows `image`, opaque, auto-start on; loads through `loader` (the
  // shared loader when null).
  static std::shared_ptr<VQImageView> create(std::shared_ptr<const Image> image = nullptr,
                                             std::shared_ptr<VQImageLoader> loader = nullptr);
  // Shows the placeholder at once; status 0, auto-start on.
  static std::shared_ptr<VQImageView> createWithPlaceholderImage(
      std::shared_ptr<const Image> placeholder, std::weak_ptr<VQImageViewDelegate> delegate = {},
      std::shared_ptr<VQImageLoader> loader = nullptr);

  // The loader the view asks, and whose cache keeps its crops. Setting
  // another (null: the shared one) leaves the old one's notifications.
  const std::shared_ptr<VQImageLoader>& imageLoader() const { return loader_; }
  void setImageLoader(std::shared_ptr<VQImageLoader> loader);

  // The key of the URL's cropped picture in the disk cache.
  static std::string cutOffKeyForURL(const URL& url);

  const std::optional<URL>& imageURL() const { return imageURL_; }
  // See the class comment; nullopt shows the placeholder and forgets the URL.
  void setImageURL(const std::optional<URL>& url);
  void setImageURL(const std::optional<URL>& url, std::shared_ptr<const Image> placeholder);

  const std::shared_ptr<const Image>& placeholderImage() const { return placeholderImage_; }
  // Shows the new placeholder at once (even none) and unhides the view.
  void setPlaceholderImage(std::shared_ptr<const Image> placeholder);

  std::weak_ptr<VQImageViewDelegate> delegate() const { return delegate_; }
  void setDelegate(std::weak_ptr<VQImageViewDelegate> delegate) { delegate_ = std::move(delegate); }

  bool isAutoStart() const { return isAutoStart_; }  // on after creation
  void setIsAutoStart(bool autoStart) { isAutoStart_ = autoStart; }
  bool needCutOff() const { return needCutOff_; }  // off after creation
  void setNeedCutOff(bool cutOff) { needCutOff_ = cutOff; }
  // Off after creation. On, the view asks for its pictures decoded for the
  // pixels it shows them at (decodeSize()), which saves most of the time
  // and memory a large picture in a small view would cost; the picture is
  // then smaller than the full picture (see Image::withData).
  bool decodesForViewSize() const { return decodesForViewSize_; }
  // Turning it on reads the main screen's scale once (Device::
  // mainScreenScale()), so setting URLs reads no device facts.
  void setDecodesForViewSize(bool on);
  // What the view asks for: PixelSize{} (the full picture) with the switch
  // off or no size yet; else its bounds times that scale, rounded up, and
  // for a cropping view the square it crops to (twice its shorter side).
  PixelSize decodeSize() const;
  std::int32_t status() const { return status_.load(); }
  void setStatus(std::int32_t status) { status_.store(status); }

  // Whether the picture (or, when cropping, the crop) is already cached.
  bool isCacheImage() const;
  void setIsCacheImage(bool flag) { isCacheImageFlag_ = flag; }

  // Loads imageURL() when auto-start is off; nothing otherwise. Sends
  // "startImageLoad".
  void startImageLoad();
  // Cancels the URL's download and leaves every URL's notifications. Sends
  // "cancelImageLoad".
  void cancelImageLoad();

  // The centred square of `image`, scaled to twice the view's shorter side;
  // `image` itself when needCutOff() is off.
  std::shared_ptr<const Image> cutOffImage(const std::shared_ptr<const Image>& image) const;

  // Sets the loader's cache lifetime (for every view that shares it).
  void setCacheSecondes(double seconds);
  // Drops the loader's entry for imageURL(); the crop stays.
  void clearCache();

  // The loader's notifications, as the view's observer receives them.
  void imageLoaderDidLoad(const Notification& notification);
  void imageLoaderDidFailToLoad(const Notification& notification);
  void imageLoaderDidLoadPercent(const Notification& notification);

  // What the view registers with the loader (its identity for removal).
  const VQImageLoaderObserver* loaderObserver() const { return observer_.get(); }

  VQImageView(Passkey, std::shared_ptr<const Image> image);
  ~VQImageView() override;

 private:
  void show(std::shared_ptr<const Image> image) { setImage(std::move(image)); }
  void tellLoaded();
  bool isCurrentURL(const Notification& notification) const;

  std::optional<URL> imageURL_;
  std::shared_ptr<const Image> placeholderImage_;
  std::weak_ptr<VQImageViewDelegate> delegate_;
  bool isAutoStart_ = true;
  bool isCacheImageFlag_ = false;
  bool needCutOff_ = false;
  bool decodesForViewSize_ = false;
  double screenScale_ = 1.0;  // read when decodesForViewSize_ is turned on
  std::atomic<std::int32_t> status_{kNotLoaded};
  std::shared_ptr<VQImageLoaderObserver> observer_;
  std::shared_ptr<VQImageLoader> loader_;
};

}  // namespace nimb
