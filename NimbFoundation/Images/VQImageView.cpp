#include <NimbFoundation/Images/VQImageView.h>

#include <algorithm>
#include <cmath>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Internal/RuntimeMethods.h>
#include <NimbFoundation/Platform/Env/Device.h>
#include <NimbFoundation/Platform/Env/SystemLog.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>
#include <NimbFoundation/Utils/VQUtils.h>

namespace nimb {

std::shared_ptr<VQImageView> VQImageView::create(std::shared_ptr<const Image> image,
                                                 std::shared_ptr<VQImageLoader> loader) {
  auto view = std::make_shared<VQImageView>(Passkey{}, std::move(image));
  view->setImageLoader(std::move(loader));
  // The observer reaches the view weakly: a view that went away hears
  // nothing, and the loader never keeps a view alive.
  std::weak_ptr<VQImageView> weak = view;
  view->observer_->imageLoaderDidLoad = [weak](const Notification& n) {
    if (auto v = weak.lock()) v->imageLoaderDidLoad(n);
  };
  view->observer_->imageLoaderDidFailToLoad = [weak](const Notification& n) {
    if (auto v = weak.lock()) v->imageLoaderDidFailToLoad(n);
  };
  view->observer_->imageLoaderDidLoadPercent = [weak](const Notification& n) {
    if (auto v = weak.lock()) v->imageLoaderDidLoadPercent(n);
  };
  return view;
}

std::shared_ptr<VQImageView> VQImageView::createWithPlaceholderImage(
    std::shared_ptr<const Image> placeholder, std::weak_ptr<VQImageViewDelegate> delegate,
    std::shared_ptr<VQImageLoader> loader) {
  auto view = create(placeholder, std::move(loader));
  view->setStatus(kNotLoaded);
  view->setPlaceholderImage(std::move(placeholder));
  view->setDelegate(std::move(delegate));
  view->setIsAutoStart(true);
  return view;
}

Class* VQImageView::classObject() {
  static Class* const cls = [] {
    Class* c = detail::registerKitClass("VQImageView", ImageView::classObject());
    detail::addMethod<VQImageView>(
        c, detail::selectorNamed<"startImageLoad">(), [](VQImageView& v) {
          if (v.isAutoStart_ || !v.imageURL_) return;
          v.loader_->loadImageForURL(v.imageURL_, v.observer_, v.decodeSize());
        });
    detail::addMethod<VQImageView>(c, detail::selectorNamed<"cancelImageLoad">(),
                                   [](VQImageView& v) {
                                     auto loader = v.loader_;
                                     loader->cancelLoadForURL(v.imageURL_);
                                     loader->removeObserver(v.observer_.get());
                                   });
    return c;
  }();
  return cls;
}

VQImageView::VQImageView(Passkey, std::shared_ptr<const Image> image)
    : ImageView(std::move(image)), observer_(std::make_shared<VQImageLoaderObserver>()) {
  setRuntimeClass(classObject());
  setOpaque(true);
}

VQImageView::~VQImageView() {
  delegate_.reset();
  imageURL_.reset();
  placeholderImage_.reset();
  setPlaceholderImage(nullptr);
  if (loader_) loader_->removeObserver(observer_.get());
}

void VQImageView::setImageLoader(std::shared_ptr<VQImageLoader> loader) {
  if (!loader) loader = VQImageLoader::sharedImageLoader();
  if (loader_ == loader) return;
  // The old loader's notifications are no longer this view's business.
  if (loader_) loader_->removeObserver(observer_.get());
  loader_ = std::move(loader);
}

std::string VQImageView::cutOffKeyForURL(const URL& url) {
  return "NimbCutoffImageLoader-" + VQUtils::md5Value(url.absoluteString());
}

void VQImageView::setPlaceholderImage(std::shared_ptr<const Image> placeholder) {
  placeholderImage_ = std::move(placeholder);
  show(placeholderImage_);
  setHidden(false);
}

void VQImageView::setImageURL(const std::optional<URL>& url,
                              std::shared_ptr<const Image> placeholder) {
  setPlaceholderImage(std::move(placeholder));
  setImageURL(url);
}

void VQImageView::setImageURL(const std::optional<URL>& url) {
  setOpaque(true);
  if (!url) {
    show(placeholderImage_);
    imageURL_.reset();
    return;
  }
  imageURL_ = url;
  std::shared_ptr<const Image> image;
  if (needCutOff_) {
    image = loader_->cache()->imageForKey(cutOffKeyForURL(*url));
  } else {
    // The loader registers the observer only if it starts a download.
    image = loader_->imageForURL(url, observer_, isAutoStart_, decodeSize());
  }
  if (image) {
    show(std::move(image));
    tellLoaded();
  } else {
    show(placeholderImage_);
  }
}

void VQImageView::setDecodesForViewSize(bool on) {
  decodesForViewSize_ = on;
  if (on) screenScale_ = Device::mainScreenScale();
}

PixelSize VQImageView::decodeSize() const {
  if (!decodesForViewSize_) return {};
  Size points = bounds().size;
  if (needCutOff_) {
    const double side = 2 * std::min(points.width, points.height);
    points = {side, side};
  }
  const double width = std::ceil(points.width * screenScale_);
  const double height = std::ceil(points.height * screenScale_);
  // No size yet (or none that makes sense): the full picture.
  if (!(width >= 1 && height >= 1 && width <= 1e6 && height <= 1e6)) return {};
  return {static_cast<int>(width), static_cast<int>(height)};
}

bool VQImageView::isCacheImage() const {
  if (!imageURL_) return false;
  if (needCutOff_) return loader_->cache()->hasCacheForKey(cutOffKeyForURL(*imageURL_));
  return loader_->hasLoadedImageURL(*imageURL_);
}

void VQImageView::startImageLoad() {
  msgSend<void>(this, detail::selectorNamed<"startImageLoad">());
}

void VQImageView::cancelImageLoad() {
  msgSend<void>(this, detail::selectorNamed<"cancelImageLoad">());
}

void VQImageView::tellLoaded() {
  auto delegate = delegate_.lock();
  if (delegate && delegate->imageViewLoadedImage) delegate->imageViewLoadedImage(*this);
}

bool VQImageView::isCurrentURL(const Notification& notification) const {
  const URL* url = notification.get<URL>("imageURL");
  return url && imageURL_ && *url == *imageURL_;
}

void VQImageView::imageLoaderDidLoad(const Notification& notification) {
  if (!isCurrentURL(notification)) {
    isCacheImageFlag_ = false;
    return;
  }
  setStatus(kLoaded);
  const auto* found = notification.get<std::shared_ptr<const Image>>("image");
  std::shared_ptr<const Image> image = found ? *found : nullptr;
  if (needCutOff_) {
    auto crop = cutOffImage(image);
    show(crop);
    loader_->cache()->setImage(crop, cutOffKeyForURL(*imageURL_));
  } else {
    show(std::move(image));
  }
  tellLoaded();
}

void VQImageView::imageLoaderDidFailToLoad(const Notification& notification) {
  setStatus(kFailed);  // first, whichever URL failed
  if (!isCurrentURL(notification)) return;
  auto delegate = delegate_.lock();
  if (!delegate || !delegate->imageViewFailedToLoadImage) return;
  const Error* error = notification.get<Error>("error");
  delegate->imageViewFailedToLoadImage(*this, error ? *error : Error{});
}

void VQImageView::imageLoaderDidLoadPercent(const Notification& notification) {
  if (!isCurrentURL(notification)) return;
  auto delegate = delegate_.lock();
  if (!delegate || !delegate->imageViewLoadedImageSizePercent) return;
  const float* percent = notification.get<float>("percent");
  delegate->imageViewLoadedImageSizePercent(percent ? *percent : 0.0f, *this);
}

std::shared_ptr<const Image> VQImageView::cutOffImage(
    const std::shared_ptr<const Image>& image) const {
  if (!needCutOff_ || !image) return image;
  const Rect f = frame();
  const double shorter = f.size.height > f.size.width ? f.size.width : f.size.height;
  const float side = static_cast<float>(shorter) * 2.0f;

  const Size size = image->size();
  Rect source;
  if (size.width > size.height) {
    source =
        Rect(static_cast<float>((size.width - size.height) * 0.5), 0, size.height, size.height);
  } else {
    source = Rect(0, static_cast<float>((size.height - size.width) * 0.5), size.width, size.width);
  }
  // Points applied to pixels as they are; the crop is wrapped at scale 2.
  auto cut = Graphics::imageWithCroppedBitmap(*image, source, 2.0, image->orientation());
  ImageContext context(Size{side, side}, false, 1.0);
  if (cut) context.drawImage(*cut, Rect(0, 0, side, side));
  return context.image();
}

void VQImageView::setCacheSecondes(double seconds) {
  if (seconds <= 0.0) {
    SystemLog::log("[%f] is error", seconds);
    return;
  }
  loader_->setCache_seconds(seconds);
}

void VQImageView::clearCache() {
  if (imageURL_) loader_->clearCacheForURL(*imageURL_);
}

}  // namespace nimb
