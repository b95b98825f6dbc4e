#include <NimbFoundation/Images/VQCache.h>

#include <cmath>
#include <utility>

#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/PropertyList.h>
#include <NimbFoundation/Platform/RunLoop.h>
#include <NimbFoundation/Platform/Text.h>

namespace nimb {

namespace {

// The delayed-perform name under which the deferred index save is scheduled
// and withdrawn.
constexpr const char* kSaveAction = "saveCacheDictionary";
// The longest file name Linux file systems take.
constexpr std::size_t kMaxKeyBytes = 255;

std::string indexPath() {
  return FileManager::appendingPathComponent(VQCache::cacheDirectory(), VQCache::kIndexFileName);
}

bool isReserved(std::string_view key) {
  return key == VQCache::kIndexFileName;
}

}  // namespace

const std::string& VQCache::cacheDirectory() {
  // Fixed at first use: a later change of $XDG_CACHE_HOME must not split
  // one process's entries over two directories.
  static const std::string directory = FileManager::appendingPathComponent(
      FileManager::appendingPathComponent(FileManager::cachesDirectory(),
                                          FileManager::processName()),
      "VQCache");
  return directory;
}

bool VQCache::isUsableKey(std::string_view key) {
  if (key.empty() || key.size() > kMaxKeyBytes || key == "." || key == "..") return false;
  return key.find('/') == std::string_view::npos && key.find('\0') == std::string_view::npos;
}

std::string VQCache::pathForKey(std::string_view key) {
  return FileManager::appendingPathComponent(cacheDirectory(), key);
}

bool VQCache::isExpired(Date expiry, Date now) {
  // Not later than now: an entry that expires this very instant is gone.
  return !(expiry > now);
}

std::shared_ptr<VQCache> VQCache::create() {
  return std::make_shared<VQCache>(Passkey{});
}

std::shared_ptr<VQCache> VQCache::currentCache() {
  static std::mutex mutex;
  // Never released: it serves until the process ends.
  static std::shared_ptr<VQCache>* shared = nullptr;
  std::lock_guard lock(mutex);
  if (!shared) {
    shared = new std::shared_ptr<VQCache>(create());
    (*shared)->setDefaultTimeoutInterval(kCurrentCacheTimeoutInterval);
  }
  return *shared;
}

VQCache::VQCache(Passkey) : diskOperationQueue_(std::make_unique<OperationQueue>()) {
  if (auto index = PropertyList::dictionaryWithContentsOfFile(indexPath())) {
    while (!index->empty()) {
      // Keys are moved, not copied: an index can hold many thousands.
      auto node = index->extract(index->begin());
      // Only dates mean anything here; whatever else a foreign or damaged
      // index holds is left out (and its file left alone).
      if (auto* date = node.mapped().asDate()) {
        cacheDictionary_.emplace_hint(cacheDictionary_.end(), std::move(node.key()), *date);
      }
    }
  }
  FileManager::createDirectory(cacheDirectory(), true);
  // One instant for the whole purge, so that it treats every entry alike.
  const Date now = Date::now();
  for (const auto& [key, expiry] : cacheDictionary_) {
    // The file goes, the entry stays: it keeps failing the expiry test until
    // it is removed or set again.
    if (isExpired(expiry, now) && isUsableKey(key) && !isReserved(key)) {
      FileManager::removeItem(pathForKey(key));
    }
  }
}

// The queue's destructor lets queued writes land before the instance goes.
VQCache::~VQCache() = default;

bool VQCache::hasCacheForKey(const std::string& key) const {
  if (!isUsableKey(key)) return false;
  {
    std::lock_guard lock(dictionaryMutex_);
    auto it = cacheDictionary_.find(key);
    if (it == cacheDictionary_.end() || isExpired(it->second)) return false;
  }
  return FileManager::fileExists(pathForKey(key));
}

std::optional<Data> VQCache::dataForKey(const std::string& key) const {
  if (!hasCacheForKey(key)) return std::nullopt;
  return FileManager::contentsAtPath(pathForKey(key));
}

void VQCache::setData(Data data, const std::string& key) {
  setData(std::move(data), key, defaultTimeoutInterval());
}

void VQCache::setData(Data data, const std::string& key, double timeoutInterval) {
  if (isReserved(key) || !isUsableKey(key)) return;
  std::string path = pathForKey(key);
  performDiskWriteOperation(
      [data = std::move(data), path = std::move(path)] { writeData(data, path); });
  recordEntry(key, timeoutInterval);
}

void VQCache::recordEntry(const std::string& key, double timeoutInterval) {
  // NaN would make a date that is never expired; count it as no lifetime.
  if (std::isnan(timeoutInterval)) timeoutInterval = 0;
  {
    std::lock_guard lock(dictionaryMutex_);
    cacheDictionary_[key] = Date::now().addingTimeInterval(timeoutInterval);
  }
  RunLoop::performOnMainThread([self = shared_from_this()] { self->saveAfterDelay(); }, true);
}

std::optional<std::string> VQCache::stringForKey(const std::string& key) const {
  auto data = dataForKey(key);
  if (!data) return std::nullopt;
  std::string text(data->begin(), data->end());
  if (!isValidUtf8(text)) return std::nullopt;
  return text;
}

void VQCache::setString(std::string_view string, const std::string& key) {
  setString(string, key, defaultTimeoutInterval());
}

void VQCache::setString(std::string_view string, const std::string& key, double timeoutInterval) {
  setData(Data(string.begin(), string.end()), key, timeoutInterval);
}

std::shared_ptr<const Image> VQCache::imageForKey(const std::string& key) const {
  if (!isUsableKey(key)) return nullptr;
  return Image::withContentsOfFile(pathForKey(key));
}

void VQCache::setImage(const std::shared_ptr<const Image>& image, const std::string& key) {
  setImage(image, key, defaultTimeoutInterval());
}

void VQCache::setImage(const std::shared_ptr<const Image>& image, const std::string& key,
                       double timeoutInterval) {
  // Recording an entry without bytes would vouch for whatever file is there.
  auto png = ImagePNGRepresentation(image);
  if (!png) return;
  setData(std::move(*png), key, timeoutInterval);
}

std::optional<Value> VQCache::plistForKey(const std::string& key) const {
  auto data = dataForKey(key);
  if (!data) return std::nullopt;
  return PropertyList::parse(*data);
}

void VQCache::setPlist(const Value& plist, const std::string& key) {
  setPlist(plist, key, defaultTimeoutInterval());
}

void VQCache::setPlist(const Value& plist, const std::string& key, double timeoutInterval) {
  auto bytes = PropertyList::serialize(plist, PropertyListFormat::BinaryV1_0);
  if (!bytes) return;
  setData(std::move(*bytes), key, timeoutInterval);
}

void VQCache::copyFilePath(const std::string& sourcePath, const std::string& key) {
  copyFilePath(sourcePath, key, defaultTimeoutInterval());
}

void VQCache::copyFilePath(const std::string& sourcePath, const std::string& key,
                           double timeoutInterval) {
  // The index name is not refused here: copying onto it fails because the
  // index file is there, and the entry is recorded all the same.
  if (!isUsableKey(key)) return;
  FileManager::copyItem(sourcePath, pathForKey(key));
  recordEntry(key, timeoutInterval);
}

void VQCache::removeCacheForKey(const std::string& key) {
  if (isReserved(key) || !isUsableKey(key)) return;
  removeItemFromCache(key);
  saveCacheDictionary();
}

void VQCache::removeItemFromCache(const std::string& key) {
  // An entry named like the index (only copyFilePath makes one) is dropped,
  // but its "file" is the index itself, which must survive.
  if (!isReserved(key)) {
    std::string path = pathForKey(key);
    performDiskWriteOperation([path = std::move(path)] { deleteDataAtPath(path); });
  }
  std::lock_guard lock(dictionaryMutex_);
  cacheDictionary_.erase(key);
}

void VQCache::clearCache() {
  std::vector<std::string> keys;
  {
    std::lock_guard lock(dictionaryMutex_);
    keys.reserve(cacheDictionary_.size());
    for (const auto& entry : cacheDictionary_) keys.push_back(entry.first);
  }
  for (const auto& key : keys) removeItemFromCache(key);
  saveCacheDictionary();
}

std::map<std::string, Date> VQCache::cacheDictionary() const {
  std::lock_guard lock(dictionaryMutex_);
  return cacheDictionary_;
}

void VQCache::saveAfterDelay() {
  auto& loop = RunLoop::current();
  loop.cancelPerforms(this, kSaveAction);
  loop.performAfterDelay(kSaveDelay, this, kSaveAction,
                         [self = shared_from_this()] { self->saveCacheDictionary(); });
}

void VQCache::saveCacheDictionary() {
  // Holding the save lock across snapshot and write keeps saves in order:
  // a later save always writes a later snapshot.
  std::lock_guard saving(saveMutex_);
  Dictionary index;
  {
    std::lock_guard lock(dictionaryMutex_);
    for (const auto& [key, expiry] : cacheDictionary_) index.emplace_hint(index.end(), key, expiry);
  }
  PropertyList::writeDictionaryToFile(index, indexPath());
}

void VQCache::writeData(const Data& data, const std::string& path) {
  FileManager::writeAtomically(path, data);
}

void VQCache::deleteDataAtPath(const std::string& path) {
  FileManager::removeItem(path);
}

void VQCache::performDiskWriteOperation(OperationQueue::Operation op) {
  diskOperationQueue_->addOperation(std::move(op));
}

}  // namespace nimb
