#include <NimbFoundation/Images/VQImageLoader.h>

#include <algorithm>
#include <cmath>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Utils/VQUtils.h>

namespace nimb {

namespace {

std::string digestOf(const URL& url) {
  return VQUtils::md5Value(url.absoluteString());
}

std::string nameFor(std::string_view prefix, const URL& url) {
  return std::string(prefix) + VQImageLoader::keyForURL(url);
}

}  // namespace

std::shared_ptr<VQImageLoader> VQImageLoader::sharedImageLoader() {
  // Made once and never released, like the other shared instances.
  static auto* shared = new std::shared_ptr<VQImageLoader>(create());
  return *shared;
}

std::shared_ptr<VQImageLoader> VQImageLoader::create() {
  return create(Options{});
}

std::shared_ptr<VQImageLoader> VQImageLoader::create(Options options) {
  auto loader = std::make_shared<VQImageLoader>(Passkey{}, std::move(options));
  // The loader is every connection's delegate; connections hold it weakly,
  // so a loader that went away is simply not called.
  std::weak_ptr<VQImageLoader> weak = loader;
  loader->delegate_->imageLoadConnectionDidReceivePercent = [weak](float percent,
                                                                   VQImageLoadConnection& c) {
    if (auto self = weak.lock()) self->didReceivePercent(percent, c);
  };
  loader->delegate_->imageLoadConnectionDidFinishLoading = [weak](VQImageLoadConnection& c) {
    if (auto self = weak.lock()) self->didFinishLoading(c);
  };
  loader->delegate_->imageLoadConnection = [weak](VQImageLoadConnection& c, const Error& error) {
    if (auto self = weak.lock()) self->didFail(c, error);
  };
  return loader;
}

VQImageLoader::VQImageLoader(Passkey, Options options)
    : cache_(std::move(options.cache)),
      center_(options.notificationCenter ? *options.notificationCenter
                                         : NotificationCenter::defaultCenter()),
      transport_(options.transport ? std::move(options.transport) : Transport::defaultTransport()),
      delegate_(std::make_shared<VQImageLoadConnectionDelegate>()),
      connections_(std::make_shared<ConnectionTable>()),
      snapshot_(connections_) {}

VQImageLoader::~VQImageLoader() {
  // Nobody is left to hear these downloads: withdraw the starts still
  // pending (they hold their connections) and stop the rest.
  for (auto& [url, loading] : *connections_) {
    if (auto loop = loading.runLoop.lock()) loop->cancelPerforms(loading.connection.get(), "start");
    loading.connection->cancel();
  }
  setCurrentConnections(nullptr);
}

std::shared_ptr<VQCache> VQImageLoader::cache() const {
  return cache_ ? cache_ : VQCache::currentCache();
}

std::string VQImageLoader::keyForURL(const URL& url) {
  return "VQImageLoader-" + digestOf(url);
}

// --- The connection table ---

std::shared_ptr<const VQImageLoader::ConnectionTable> VQImageLoader::currentConnections() const {
  std::lock_guard lock(snapshotMutex_);
  return snapshot_;
}

void VQImageLoader::setCurrentConnections(std::shared_ptr<const ConnectionTable> snapshot) {
  std::lock_guard lock(snapshotMutex_);
  snapshot_ = std::move(snapshot);
}

std::shared_ptr<VQImageLoadConnection> VQImageLoader::loadingConnectionForURL(
    const URL& url) const {
  auto snapshot = currentConnections();
  if (!snapshot) return nullptr;
  auto found = snapshot->find(url.absoluteString());
  return found == snapshot->end() ? nullptr : found->second.connection;
}

bool VQImageLoader::isLoadingImageURL(const URL& url) const {
  return loadingConnectionForURL(url) != nullptr;
}

void VQImageLoader::removeFromTable(const VQImageLoadConnection& connection) {
  // Every change of the table is locked: the finish and failure paths run
  // on the loading thread while others may ask for URLs. Only the entry of
  // this very connection goes: an observer that asked for the URL again
  // from its end notification has put a new connection there, which must
  // stay and run.
  std::lock_guard lock(connectionsLock_);
  const std::string url = connection.imageURL().absoluteString();
  auto found = connections_->find(url);
  if (found == connections_->end() || found->second.connection.get() != &connection) return;
  changeTable([&url](ConnectionTable& table) { table.erase(url); });
}

void VQImageLoader::changeTable(const std::function<void(ConnectionTable&)>& change) {
  std::lock_guard lock(snapshotMutex_);
  // Our own snapshot goes first: it is the one reference that is always
  // there, and a table nobody else holds may change in place.
  snapshot_.reset();
  if (connections_.use_count() > 1) {
    connections_ = std::make_shared<ConnectionTable>(*connections_);
  }
  change(*connections_);
  snapshot_ = connections_;
}

// --- Loading ---

namespace {

// A side <= 0 asks for the full picture.
PixelSize normalized(PixelSize size) {
  return size.width > 0 && size.height > 0 ? size : PixelSize{};
}

// The size that serves both requests: full if either is, else covering both.
PixelSize covering(PixelSize a, PixelSize b) {
  if (a == PixelSize{} || b == PixelSize{}) return {};
  return {std::max(a.width, b.width), std::max(a.height, b.height)};
}

}  // namespace

std::shared_ptr<VQImageLoadConnection> VQImageLoader::loadImageForURL(const URL& url) {
  return load(url, {});
}

std::shared_ptr<VQImageLoadConnection> VQImageLoader::load(const URL& url, PixelSize decodeFor) {
  decodeFor = normalized(decodeFor);
  if (auto running = loadingConnectionForURL(url)) {
    std::lock_guard lock(connectionsLock_);
    auto found = connections_->find(url.absoluteString());
    if (found != connections_->end() && found->second.connection == running) {
      const PixelSize wanted = covering(found->second.decodeFor, decodeFor);
      if (wanted != found->second.decodeFor) {
        changeTable(
            [&](ConnectionTable& table) { table[url.absoluteString()].decodeFor = wanted; });
      }
    }
    return running;
  }
  auto connection = VQImageLoadConnection::create(url, delegate_, transport_);
  connection->setMaximumBodyLength(maximumBodyLength());
  auto runLoop = RunLoop::currentShared();
  {
    std::lock_guard lock(connectionsLock_);
    changeTable([&](ConnectionTable& table) {
      table[url.absoluteString()] = Loading{connection, runLoop, decodeFor};
    });
  }
  // The scheduled start holds the connection until it runs or is withdrawn
  // by cancelLoadForURL(): whatever happens to the table meanwhile, a load
  // that was asked for is started.
  runLoop->performAfterDelay(kStartDelay, connection.get(), "start",
                             [connection] { connection->start(); });
  return connection;
}

void VQImageLoader::loadImageForURL(const std::optional<URL>& url,
                                    const std::shared_ptr<VQImageLoaderObserver>& observer) {
  loadImageForURL(url, observer, PixelSize{});
}

void VQImageLoader::loadImageForURL(const std::optional<URL>& url,
                                    const std::shared_ptr<VQImageLoaderObserver>& observer,
                                    PixelSize decodeFor) {
  if (!url) return;
  addObserver(observer, *url);
  load(*url, decodeFor);
}

std::shared_ptr<const Image> VQImageLoader::imageForURL(
    const std::optional<URL>& url, const std::shared_ptr<VQImageLoaderObserver>& observer,
    bool autoLoad) {
  return imageForURL(url, observer, autoLoad, PixelSize{});
}

std::shared_ptr<const Image> VQImageLoader::imageForURL(
    const std::optional<URL>& url, const std::shared_ptr<VQImageLoaderObserver>& observer,
    bool autoLoad, PixelSize decodeFor) {
  if (!url) return nullptr;
  // Both the cache and load() take a side <= 0 as the full picture.
  if (auto image = cache()->imageForKey(keyForURL(*url), decodeFor)) return image;
  if (autoLoad) loadImageForURL(url, observer, decodeFor);
  return nullptr;
}

std::optional<Data> VQImageLoader::dataForURL(
    const std::optional<URL>& url, const std::shared_ptr<VQImageLoaderObserver>& observer,
    bool isGif) {
  if (!url) return std::nullopt;
  setIsGif(isGif);
  if (auto bytes = cache()->dataForKey(keyForURL(*url))) return bytes;
  loadImageForURL(url, observer);
  return std::nullopt;
}

bool VQImageLoader::hasLoadedImageURL(const URL& url) const {
  return cache()->hasCacheForKey(keyForURL(url));
}

void VQImageLoader::cancelLoadForURL(const std::optional<URL>& url) {
  if (!url) return;
  auto snapshot = currentConnections();
  if (!snapshot) return;
  auto found = snapshot->find(url->absoluteString());
  if (found == snapshot->end()) return;
  const Loading loading = found->second;
  // Withdrawn within the start delay, the request is never sent.
  if (auto loop = loading.runLoop.lock()) loop->cancelPerforms(loading.connection.get(), "start");
  loading.connection->cancel();
  cleanUpConnection(*loading.connection);
}

void VQImageLoader::cleanUpConnection(VQImageLoadConnection& connection) {
  if (connection.imageURL().absoluteString().empty()) return;
  connection.setDelegate({});
  removeFromTable(connection);
}

// --- Observers ---

void VQImageLoader::addObserver(const std::shared_ptr<VQImageLoaderObserver>& observer,
                                const URL& url) {
  if (!observer) return;
  using Member = std::function<void(const Notification&)> VQImageLoaderObserver::*;
  const std::pair<std::string_view, Member> operations[] = {
      {kLoadedPercentPrefix, &VQImageLoaderObserver::imageLoaderDidLoadPercent},
      {kLoadedPrefix, &VQImageLoaderObserver::imageLoaderDidLoad},
      {kLoadFailedPrefix, &VQImageLoaderObserver::imageLoaderDidFailToLoad},
  };
  std::weak_ptr<VQImageLoaderObserver> weak = observer;
  for (const auto& operation : operations) {
    const Member member = operation.second;
    if (!((*observer).*member)) continue;  // registered only for what it answers
    center_.addObserver(observer.get(), nameFor(operation.first, url), this,
                        [weak, member](const Notification& notification) {
                          auto alive = weak.lock();
                          if (alive && (*alive).*member) ((*alive).*member)(notification);
                        });
  }
}

void VQImageLoader::removeObserver(const VQImageLoaderObserver* observer) {
  if (observer) center_.removeObserver(observer, "", this);
}

void VQImageLoader::removeObserver(const VQImageLoaderObserver* observer, const URL& url) {
  if (!observer) return;
  for (auto prefix : {kLoadedPercentPrefix, kLoadedPrefix, kLoadFailedPrefix}) {
    center_.removeObserver(observer, nameFor(prefix, url), this);
  }
}

// --- Cache ---

void VQImageLoader::clearCacheForURL(const URL& url) {
  clearCacheForURL(url, std::nullopt);
}

void VQImageLoader::clearCacheForURL(const URL& url, std::optional<std::size_t> styleHash) {
  std::string key = keyForURL(url);
  if (styleHash) key += "-" + std::to_string(*styleHash);
  cache()->removeCacheForKey(key);
}

void VQImageLoader::setCache_seconds(double seconds) {
  if (seconds > 0) cacheSeconds_.store(seconds);  // false for NaN too
}

// --- Connection callbacks ---

void VQImageLoader::post(std::string_view prefix, const URL& url, UserInfo userInfo) {
  userInfo["imageURL"] = url;
  Notification notification{nameFor(prefix, url), this, std::move(userInfo)};
  NotificationCenter* center = &center_;
  // Observers always run on the main thread, and the loader waits for them.
  RunLoop::performOnMainThread([center, &notification] { center->postNotification(notification); },
                               true);
}

void VQImageLoader::didReceivePercent(float percent, VQImageLoadConnection& connection) {
  post(kLoadedPercentPrefix, connection.imageURL(), UserInfo{{"percent", percent}});
}

void VQImageLoader::didFinishLoading(VQImageLoadConnection& connection) {
  // Keep the connection (and its URL and bytes) alive to the end, even if a
  // cleanup removes it from the table meanwhile.
  auto keep = connection.shared_from_this();
  const URL url = connection.imageURL();
  const Data& bytes = connection.responseData();
  PixelSize decodeFor;
  {
    std::lock_guard lock(connectionsLock_);
    auto found = connections_->find(url.absoluteString());
    if (found != connections_->end() && found->second.connection.get() == &connection) {
      decodeFor = found->second.decodeFor;
    }
  }
  UserInfo userInfo;
  std::string_view prefix = kLoadedPrefix;
  bool accepted = true;
  std::shared_ptr<const Image> image;
  if (isGif()) {
    userInfo["imageGif"] = bytes;
  } else if ((image = Image::withData(bytes, 1.0, decodeFor))) {
    userInfo["image"] = image;
  } else {
    accepted = false;
  }
  if (accepted) {
    // The picture goes to the memory cache with the bytes, so that asking
    // for it again decodes nothing.
    cache()->setData(bytes, keyForURL(url), cache_seconds(), image, decodeFor);
  } else {
    userInfo["error"] = Error{url.host(), kNotAnImageCode, {}};
    prefix = kLoadFailedPrefix;
  }
  // Observers hear of the end with the URL idle, accepted or refused alike:
  // a load they ask for from their handler (a retry, a reload) is new.
  removeFromTable(connection);
  post(prefix, url, std::move(userInfo));
  cleanUpConnection(connection);
}

void VQImageLoader::didFail(VQImageLoadConnection& connection, const Error& error) {
  auto keep = connection.shared_from_this();
  const URL url = connection.imageURL();
  removeFromTable(connection);
  post(kLoadFailedPrefix, url, UserInfo{{"error", error}});
  cleanUpConnection(connection);
}

}  // namespace nimb
