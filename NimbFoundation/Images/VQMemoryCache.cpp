#include <NimbFoundation/Images/VQMemoryCache.h>

#include <algorithm>
#include <set>

namespace nimb {

namespace {

// Every live memory cache, for handleMemoryPressure().
struct Registry {
  std::mutex mutex;
  std::set<VQMemoryCache*> caches;
};

Registry& registry() {
  // Never destroyed: caches may outlive static destruction.
  static auto* instance = new Registry;
  return *instance;
}

}  // namespace

VQMemoryCache::VQMemoryCache(std::size_t budgetBytes) : budget_(budgetBytes) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.caches.insert(this);
}

VQMemoryCache::~VQMemoryCache() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.caches.erase(this);
}

std::size_t VQMemoryCache::costOf(const Image& image) {
  const PixelSize pixels = image.pixelSize();
  return std::size_t(std::max(pixels.width, 0)) * std::size_t(std::max(pixels.height, 0)) * 4;
}

std::shared_ptr<const Image> VQMemoryCache::imageForKey(const std::string& key,
                                                        PixelSize decodedFor,
                                                        std::uint64_t version) {
  std::lock_guard lock(mutex_);
  auto found = byKey_.find(key);
  if (found != byKey_.end()) {
    // The size asked for, else a full decode.
    Order::iterator best = order_.end();
    for (auto entry : found->second) {
      if (entry->decodedFor == decodedFor) {
        best = entry;
        break;
      }
      if (entry->decodedFor == PixelSize{}) best = entry;
    }
    if (best != order_.end() && best->version != version) {
      dropLocked(best);  // decoded from a source that is gone
    } else if (best != order_.end()) {
      order_.splice(order_.begin(), order_, best);
      ++statistics_.hits;
      return best->image;
    }
  }
  ++statistics_.misses;
  return nullptr;
}

void VQMemoryCache::setImage(std::shared_ptr<const Image> image, const std::string& key,
                             PixelSize decodedFor, std::uint64_t version) {
  if (!image) return;
  const std::size_t cost = costOf(*image);
  // Built before the lock: the allocations need not hold up readers.
  Order fresh;
  fresh.push_back(Entry{key, decodedFor, version, cost, std::move(image)});
  std::lock_guard lock(mutex_);
  auto& sizes = byKey_[key];
  for (auto entry : sizes) {
    if (entry->decodedFor == decodedFor) {
      dropLocked(entry);
      break;
    }
  }
  if (cost > budget_) {
    auto again = byKey_.find(key);
    if (again != byKey_.end() && again->second.empty()) byKey_.erase(again);
    return;
  }
  order_.splice(order_.begin(), fresh);
  byKey_[key].push_back(order_.begin());
  total_ += cost;
  trimLocked();
}

void VQMemoryCache::dropLocked(Order::iterator entry) {
  auto sizes = byKey_.find(entry->key);
  if (sizes != byKey_.end()) {
    auto& list = sizes->second;
    list.erase(std::remove(list.begin(), list.end(), entry), list.end());
    if (list.empty()) byKey_.erase(sizes);
  }
  total_ -= entry->cost;
  order_.erase(entry);
}

void VQMemoryCache::trimLocked() {
  while (total_ > budget_ && !order_.empty()) {
    dropLocked(std::prev(order_.end()));
    ++statistics_.evictions;
  }
}

void VQMemoryCache::removeImagesForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  auto found = byKey_.find(key);
  if (found == byKey_.end()) return;
  for (auto entry : found->second) {
    total_ -= entry->cost;
    order_.erase(entry);
  }
  byKey_.erase(found);
}

void VQMemoryCache::removeAllImages() {
  Order dropped;  // released after the lock
  std::lock_guard lock(mutex_);
  dropped.swap(order_);
  byKey_.clear();
  total_ = 0;
}

std::size_t VQMemoryCache::budgetBytes() const {
  std::lock_guard lock(mutex_);
  return budget_;
}

void VQMemoryCache::setBudgetBytes(std::size_t bytes) {
  std::lock_guard lock(mutex_);
  budget_ = bytes;
  trimLocked();
}

std::size_t VQMemoryCache::totalBytes() const {
  std::lock_guard lock(mutex_);
  return total_;
}

std::size_t VQMemoryCache::count() const {
  std::lock_guard lock(mutex_);
  return order_.size();
}

VQMemoryCache::Statistics VQMemoryCache::statistics() const {
  std::lock_guard lock(mutex_);
  return statistics_;
}

void VQMemoryCache::handleMemoryPressure() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  for (auto* cache : r.caches) cache->removeAllImages();
}

}  // namespace nimb
