// VQMemoryCache: decoded pictures kept in memory, in front of the disk
// cache, so that a picture shown again is neither read nor decoded again.
//
// Each VQCache has one (VQCache::memoryCache()); its imageForKey() answers
// from it first, and every write, removal and clear of the disk cache drops
// the key's pictures here too. Hosts use this class directly only to set
// the budget, to watch the statistics, and to give memory back when the
// system runs short (handleMemoryPressure()).
//
// Rules callers rely on:
//   - The cache holds at most budgetBytes() of pixels (width * height * 4 of
//     each picture, as decoded). Storing past the budget first drops the
//     pictures used least recently; a picture larger than the whole budget
//     is not kept at all. A budget of 0 keeps nothing.
//   - A picture is kept under its key and the size it was decoded for
//     (PixelSize{} for a full decode), so one URL may be held at several
//     sizes. removeImagesForKey() drops every size of the key.
//   - Each picture carries a version, the caller's word for the source it
//     was decoded from (the disk cache uses the file's inode, size and
//     modification time). A lookup with another version misses and drops
//     the stale picture: a file replaced or removed behind the cache's back
//     (by another process, say) is never answered for.
//   - Pictures are shared, never copied: a picture dropped here lives on in
//     whoever still holds it.
//
// Thread rule: every member may be called from any thread at once; one
// lock guards the table, and nothing is decoded or read under it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

namespace NIMB_EXPORT nimb {

class VQMemoryCache {
 public:
  // The budget a new memory cache starts with: 128 MiB of pixels.
  static constexpr std::size_t kDefaultBudgetBytes = std::size_t{128} << 20;

  // What the cache has done since it was made.
  struct Statistics {
    std::uint64_t hits = 0;
    std::uint64_t misses = 0;
    std::uint64_t evictions = 0;  // pictures dropped to stay within budget
  };

  explicit VQMemoryCache(std::size_t budgetBytes = kDefaultBudgetBytes);
  ~VQMemoryCache();
  VQMemoryCache(const VQMemoryCache&) = delete;
  VQMemoryCache& operator=(const VQMemoryCache&) = delete;

  // The picture kept under `key` for `decodedFor` with this version (for a
  // size, a full decode of the key answers too: it covers any size), made
  // the most recently used; nullptr otherwise. A picture kept under another
  // version is dropped.
  std::shared_ptr<const Image> imageForKey(const std::string& key, PixelSize decodedFor = {},
                                           std::uint64_t version = 0);
  // Keeps `image` (nothing for a null one), replacing what the key held for
  // that size, then drops the least recently used pictures down to budget.
  void setImage(std::shared_ptr<const Image> image, const std::string& key,
                PixelSize decodedFor = {}, std::uint64_t version = 0);
  // Drops every size of `key`.
  void removeImagesForKey(const std::string& key);
  void removeAllImages();

  std::size_t budgetBytes() const;
  // Drops pictures at once to fit a smaller budget.
  void setBudgetBytes(std::size_t bytes);
  // The pixels kept now, and how many pictures.
  std::size_t totalBytes() const;
  std::size_t count() const;
  Statistics statistics() const;

  // What a picture counts against the budget: its decoded pixels.
  static std::size_t costOf(const Image& image);

  // Empties every memory cache of the process. The host calls it when the
  // system says memory is short (a low-memory signal, a trim request).
  static void handleMemoryPressure();

 private:
  struct Entry {
    std::string key;
    PixelSize decodedFor;
    std::uint64_t version = 0;
    std::size_t cost = 0;
    std::shared_ptr<const Image> image;
  };
  using Order = std::list<Entry>;  // most recently used first

  void dropLocked(Order::iterator entry);
  void trimLocked();

  mutable std::mutex mutex_;
  Order order_;
  // Every size kept of a key; there are seldom more than one or two.
  std::unordered_map<std::string, std::vector<Order::iterator>> byKey_;
  std::size_t budget_;
  std::size_t total_ = 0;
  Statistics statistics_;
};

}  // namespace nimb
