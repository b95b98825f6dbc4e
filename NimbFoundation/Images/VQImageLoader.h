// VQImageLoader: the service that turns an image URL into a picture. There
// is one shared loader (sharedImageLoader()) on the shared disk cache, the
// default notification centre and the libcurl transport; create() builds
// others on the services it is given. It answers from its disk cache when
// it can; otherwise it starts
// at most one VQImageLoadConnection per URL, keeps the downloaded bytes in
// the cache for cache_seconds(), and tells every observer of that URL
// through notifications whose names end in the URL's cache key.
//
// The road of one download:
//   loadImageForURL() puts a connection in the table and schedules its
//   start 0.01 s later on the caller's run loop (cancelLoadForURL() within
//   that time means no request is ever sent). Progress is posted as
//   "kVQImageLoaderNotificationLoadedPercent-" + key; the end as
//   "kVQImageLoaderNotificationLoaded-" + key (userInfo "image", or
//   "imageGif" with the raw bytes when isGif() is set) or
//   "kVQImageLoaderNotificationLoadFailed-" + key ("error"). Every
//   notification carries "imageURL" and is posted on the main thread, and
//   the loader waits until it has been delivered.
//
// userInfo value types: "percent" float, "image" std::shared_ptr<const
// Image>, "imageGif" Data, "error" Error, "imageURL" URL.
//
// Rules callers rely on:
//   - isGif() is loader-wide: dataForURL() sets it for whatever download
//     finishes next, for any URL. The bytes are never sniffed for it.
//   - A body that is no picture is refused with code 406 and the URL's host
//     as the error domain; nothing is cached.
//   - An observer that asks twice while a URL loads is registered twice and
//     hears everything twice. Observers are never removed by the loader.
//   - imageForURL() does not look at expiry (the cache's imageForKey does
//     not); dataForURL() and hasLoadedImageURL() do.
//   - A finished download's picture is kept, decoded, in the cache's
//     memoryCache() once its bytes are on disk, so imageForURL() then
//     answers without reading or decoding.
//   - When observers hear that a download ended (loaded or failed), the URL
//     is idle: a load they ask for from their handler (a retry after a
//     failure, a reload after clearing the cache) is a new download, and it
//     runs. A scheduled start holds its connection until it runs or
//     cancelLoadForURL() withdraws it.
//   - Bodies longer than maximumBodyLength() (64 MiB by default) fail with
//     kURLErrorDataLengthExceedsMaximum; nothing is cached.
//
// Who calls it: VQImageView, and host code. Thread rule: meant for the main
// thread; the connection table and its snapshot are locked, so other
// threads may ask too, but two threads asking for one URL at the same
// moment can each start a connection: the lookup reads the snapshot, and
// the check and the insert are not one step. A connection's events, and so the posting,
// run on the thread that called loadImageForURL(); that thread's run loop
// must turn, and so must the main thread's.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Images/VQImageLoadConnection.h>
#include <NimbFoundation/Platform/Concurrency/NotificationCenter.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Net/Transport.h>
#include <NimbFoundation/Platform/Net/URL.h>

namespace NIMB_EXPORT nimb {

class VQCache;

// What an observer answers; each operation is optional (leave it empty),
// and the loader registers only for the ones that are set.
struct VQImageLoaderObserver {
  std::function<void(const Notification&)> imageLoaderDidLoadPercent;
  std::function<void(const Notification&)> imageLoaderDidLoad;
  std::function<void(const Notification&)> imageLoaderDidFailToLoad;
};

class VQImageLoader : public std::enable_shared_from_this<VQImageLoader> {
  struct Passkey {};

 public:
  static constexpr std::string_view kLoadedPercentPrefix =
      "kVQImageLoaderNotificationLoadedPercent-";
  static constexpr std::string_view kLoadedPrefix = "kVQImageLoaderNotificationLoaded-";
  static constexpr std::string_view kLoadFailedPrefix = "kVQImageLoaderNotificationLoadFailed-";
  static constexpr double kDefaultCacheSeconds = 604800.0;  // seven days
  static constexpr double kStartDelay = 0.01;               // seconds
  static constexpr long kNotAnImageCode = 406;

  // A running connection, the run loop its delayed start sits on, and the
  // size its picture is decoded for (PixelSize{}: the full picture).
  struct Loading {
    std::shared_ptr<VQImageLoadConnection> connection;
    std::weak_ptr<RunLoop> runLoop;
    PixelSize decodeFor;
  };
  using ConnectionTable = std::map<std::string, Loading>;  // by absolute URL string

  // The services a loader works with; each null member means the shared
  // one. The centre is not owned and must outlive the loader.
  struct Options {
    std::shared_ptr<VQCache> cache;            // VQCache::currentCache()
    NotificationCenter* notificationCenter{};  // NotificationCenter::defaultCenter()
    std::shared_ptr<Transport> transport;      // Transport::defaultTransport()
  };

  // The one loader, made on first use and never released.
  static std::shared_ptr<VQImageLoader> sharedImageLoader();
  // A separate loader (empty table, isGif off, cache_seconds 604800) on the
  // given services.
  static std::shared_ptr<VQImageLoader> create(Options options);
  static std::shared_ptr<VQImageLoader> create();  // every service the shared one

  // The cache it reads and fills, and the transport its downloads use.
  std::shared_ptr<VQCache> cache() const;
  const std::shared_ptr<Transport>& transport() const { return transport_; }

  // "VQImageLoader-" + the upper-case MD5 of the URL's absolute string.
  static std::string keyForURL(const URL& url);

  // The connection fetching `url`: the running one, or a new one whose start
  // is scheduled kStartDelay seconds from now on the caller's run loop.
  std::shared_ptr<VQImageLoadConnection> loadImageForURL(const URL& url);
  // Registers `observer` for the URL (when there is one), then loads it.
  // Nothing happens for a missing URL.
  void loadImageForURL(const std::optional<URL>& url,
                       const std::shared_ptr<VQImageLoaderObserver>& observer);
  // Loading for showing at `decodeFor` pixels: the downloaded picture is
  // decoded at the smallest size covering it (Image::withData), which is
  // what the notification's "image" carries and what the memory cache
  // keeps. Observers of one URL share one download and one picture: a
  // full-size request (a side <= 0) makes the picture full size, and two
  // sizes make it cover both. The bytes on disk are the download's, always.
  void loadImageForURL(const std::optional<URL>& url,
                       const std::shared_ptr<VQImageLoaderObserver>& observer, PixelSize decodeFor);
  std::shared_ptr<const Image> imageForURL(const std::optional<URL>& url,
                                           const std::shared_ptr<VQImageLoaderObserver>& observer,
                                           bool autoLoad, PixelSize decodeFor);
  // The cached picture (expired or not), else nullptr; the cache's memory
  // of decoded pictures answers first (VQCache::imageForKey). On a miss with
  // `autoLoad`, loadImageForURL(url, observer).
  std::shared_ptr<const Image> imageForURL(const std::optional<URL>& url,
                                           const std::shared_ptr<VQImageLoaderObserver>& observer,
                                           bool autoLoad);
  // Sets isGif() to `isGif`, then gives the fresh cached bytes, or starts a
  // load (always) and gives nullopt.
  std::optional<Data> dataForURL(const std::optional<URL>& url,
                                 const std::shared_ptr<VQImageLoaderObserver>& observer,
                                 bool isGif);

  void addObserver(const std::shared_ptr<VQImageLoaderObserver>& observer, const URL& url);
  // From every URL of this loader.
  void removeObserver(const VQImageLoaderObserver* observer);
  void removeObserver(const VQImageLoaderObserver* observer, const URL& url);

  bool isLoadingImageURL(const URL& url) const;
  std::shared_ptr<VQImageLoadConnection> loadingConnectionForURL(const URL& url) const;
  // Whether the cache holds a fresh entry for the URL.
  bool hasLoadedImageURL(const URL& url) const;

  // Withdraws a pending start, cancels the connection and forgets it. No
  // notification; observers stay registered. Nothing for an idle URL.
  void cancelLoadForURL(const std::optional<URL>& url);

  // Removes the URL's entry, or with a style the entry "VQImageLoader-" +
  // digest + "-" + styleHash (never the plain one).
  void clearCacheForURL(const URL& url);
  void clearCacheForURL(const URL& url, std::optional<std::size_t> styleHash);

  bool isGif() const { return isGif_.load(); }
  void setIsGif(bool isGif) { isGif_.store(isGif); }
  double cache_seconds() const { return cacheSeconds_.load(); }
  // Ignores anything not greater than 0 (NaN included).
  void setCache_seconds(double seconds);
  // The longest body, in decoded bytes, a download may have; given to each
  // connection when the load is asked for. 0 lifts the limit.
  std::uint64_t maximumBodyLength() const { return maximumBodyLength_.load(); }
  void setMaximumBodyLength(std::uint64_t bytes) { maximumBodyLength_.store(bytes); }

  // The snapshot of the connection table, replaced after every change: one
  // taken stays as it was, whatever happens to the table later.
  std::shared_ptr<const ConnectionTable> currentConnections() const;
  void setCurrentConnections(std::shared_ptr<const ConnectionTable> snapshot);

  VQImageLoader(Passkey, Options options);
  ~VQImageLoader();
  VQImageLoader(const VQImageLoader&) = delete;
  VQImageLoader& operator=(const VQImageLoader&) = delete;

 private:
  // The connection callbacks.
  void didReceivePercent(float percent, VQImageLoadConnection& connection);
  void didFinishLoading(VQImageLoadConnection& connection);
  void didFail(VQImageLoadConnection& connection, const Error& error);
  void cleanUpConnection(VQImageLoadConnection& connection);

  // Drops the connection's own entry from the table, if it is still there,
  // and replaces the snapshot.
  void removeFromTable(const VQImageLoadConnection& connection);
  // Applies `change` to the table and makes the result the snapshot. The
  // table is copied only while someone still holds an older snapshot of
  // it; otherwise it changes in place, so a burst of loads costs no copy
  // per URL. Called with connectionsLock_ held.
  void changeTable(const std::function<void(ConnectionTable&)>& change);
  std::shared_ptr<VQImageLoadConnection> load(const URL& url, PixelSize decodeFor);
  void post(std::string_view prefix, const URL& url, UserInfo userInfo);

  // Null for the shared cache, asked for at each use.
  std::shared_ptr<VQCache> cache_;
  NotificationCenter& center_;
  std::shared_ptr<Transport> transport_;
  std::shared_ptr<VQImageLoadConnectionDelegate> delegate_;
  std::mutex connectionsLock_;
  // The table. Every reference to it is taken under snapshotMutex_, so
  // while its count is one nobody else can be reading it.
  std::shared_ptr<ConnectionTable> connections_;
  mutable std::mutex snapshotMutex_;
  std::shared_ptr<const ConnectionTable> snapshot_;
  std::atomic<bool> isGif_{false};
  std::atomic<double> cacheSeconds_{kDefaultCacheSeconds};
  std::atomic<std::uint64_t> maximumBodyLength_{VQImageLoadConnection::kDefaultMaximumBodyLength};
};

}  // namespace nimb
