#include <NimbFoundation/Images/VQCache.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <ctime>
#include <thread>
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
// A temporary file of the cache's own older than this belongs to a write
// that was killed: a live writer touches its file far more often.
constexpr std::time_t kAbandonedTemporaryAge = 60;

std::string indexPath() {
  return FileManager::appendingPathComponent(VQCache::cacheDirectory(), VQCache::kIndexFileName);
}

bool isReserved(std::string_view key) {
  return key == VQCache::kIndexFileName;
}

// An exclusive advisory lock on the cache directory, for as long as the
// object lives. Every process (and every instance) that saves the index
// takes it, so read-merge-write of the index is one step for all of them.
// The directory itself is locked rather than a file in it: no key can
// replace it, and there is no extra file to leave behind.
class DirectoryLock {
 public:
  // A process stopped while it holds the lock must not stall every other
  // one for ever: after kMaxWait the save goes ahead without it (still
  // atomic; only a save racing it at that moment could lose its changes).
  static constexpr auto kMaxWait = std::chrono::seconds(5);

  explicit DirectoryLock(const std::string& dir) {
    do {
      fd_ = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } while (fd_ < 0 && errno == EINTR);
    if (fd_ < 0) return;
    const auto deadline = std::chrono::steady_clock::now() + kMaxWait;
    auto pause = std::chrono::milliseconds(1);
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      if ((errno != EWOULDBLOCK && errno != EINTR) ||
          std::chrono::steady_clock::now() >= deadline) {
        return;
      }
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
  }
  ~DirectoryLock() {
    if (fd_ >= 0) ::close(fd_);  // releases the lock
  }
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  int fd_ = -1;
};

// What tells one index file from another: every save renames a new file
// into place, so the inode changes, and size and times catch a reuse of it.
std::optional<VQCache::IndexStamp> stampOfIndexFile() {
  struct stat st {};
  if (::lstat(indexPath().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  return VQCache::IndexStamp{static_cast<std::uint64_t>(st.st_dev),
                             static_cast<std::uint64_t>(st.st_ino),
                             static_cast<std::uint64_t>(st.st_size),
                             st.st_mtim.tv_sec * 1'000'000'000LL + st.st_mtim.tv_nsec,
                             st.st_ctim.tv_sec * 1'000'000'000LL + st.st_ctim.tv_nsec};
}

// The key-to-date pairs of the index file as it is on disk now; whatever
// else a damaged or foreign index holds is left out.
std::map<std::string, Date> readIndexFile() {
  std::map<std::string, Date> entries;
  auto index = PropertyList::dictionaryWithContentsOfFile(indexPath(), FollowLinks::No);
  if (!index) return entries;
  while (!index->empty()) {
    // Keys are moved, not copied: an index can hold many thousands.
    auto node = index->extract(index->begin());
    if (auto* date = node.mapped().asDate()) {
      entries.emplace_hint(entries.end(), std::move(node.key()), *date);
    }
  }
  return entries;
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
  auto cache = std::make_shared<VQCache>(Passkey{});
  // Off the caller's thread: the directory may hold many thousand entries.
  cache->performDiskWriteOperation([weak = std::weak_ptr<VQCache>(cache)] {
    if (auto self = weak.lock()) self->removeAbandonedTemporaries();
  });
  return cache;
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

VQCache::VQCache(Passkey)
    : cacheDictionary_(readIndexFile()), diskOperationQueue_(std::make_unique<OperationQueue>()) {
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
  // A symbolic link or a special file under the key's name is no entry.
  return FileManager::isRegularFile(pathForKey(key), FollowLinks::No);
}

std::optional<Data> VQCache::dataForKey(const std::string& key) const {
  if (!hasCacheForKey(key)) return std::nullopt;
  return FileManager::contentsAtPath(pathForKey(key), FollowLinks::No);
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
    const Date expiry = Date::now().addingTimeInterval(timeoutInterval);
    cacheDictionary_[key] = expiry;
    unsavedChanges_[key] = expiry;
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
  auto bytes = FileManager::contentsAtPath(pathForKey(key), FollowLinks::No);
  if (!bytes) return nullptr;
  return Image::withData(std::move(*bytes));
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
  unsavedChanges_[key] = std::nullopt;
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
  // Holding the save lock across taking the changes and writing keeps this
  // instance's saves in order: a later save never writes older changes.
  std::lock_guard saving(saveMutex_);
  Changes changes;
  {
    std::lock_guard lock(dictionaryMutex_);
    changes.swap(unsavedChanges_);
  }
  bool written = false;
  {
    // Other processes (and other instances) save the same file: under the
    // directory lock, what is on disk now takes this instance's own changes
    // and nothing else, so no one's entries are lost.
    DirectoryLock lock(cacheDirectory());
    // When the file is still the one this instance wrote last, what it holds
    // is known: parsing it again would be the dearest part of the save.
    std::map<std::string, Date> entries;
    if (lastSavedStamp_ && lastSavedStamp_ == stampOfIndexFile()) {
      entries = std::move(lastSaved_);
    } else {
      entries = readIndexFile();
    }
    lastSaved_.clear();
    lastSavedStamp_.reset();
    for (const auto& [key, expiry] : changes) {
      if (expiry) {
        entries.insert_or_assign(key, *expiry);
      } else {
        entries.erase(key);
      }
    }
    Dictionary index;
    for (auto& [key, expiry] : entries) index.emplace_hint(index.end(), key, expiry);
    written = PropertyList::writeDictionaryToFile(index, indexPath());
    if (written) {
      lastSavedStamp_ = stampOfIndexFile();
      if (lastSavedStamp_) lastSaved_ = std::move(entries);
    }
  }
  if (!written) {
    // Kept for the next save; a change made meanwhile is newer and wins.
    std::lock_guard lock(dictionaryMutex_);
    for (auto& [key, expiry] : changes) unsavedChanges_.try_emplace(key, std::move(expiry));
  }
}

void VQCache::removeAbandonedTemporaries() {
  const std::string& dir = cacheDirectory();
  DIR* listing = ::opendir(dir.c_str());
  if (!listing) return;
  const std::time_t now = std::time(nullptr);
  while (dirent* entry = ::readdir(listing)) {
    std::string_view name = entry->d_name;
    if (!FileManager::isTemporaryFileName(name)) continue;
    {
      // A key may have the same shape; an entry's file is never swept.
      std::lock_guard lock(dictionaryMutex_);
      if (cacheDictionary_.count(std::string(name))) continue;
    }
    struct stat st {};
    if (::fstatat(::dirfd(listing), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (!S_ISREG(st.st_mode) || now - st.st_mtime < kAbandonedTemporaryAge) continue;
    ::unlinkat(::dirfd(listing), entry->d_name, 0);
  }
  ::closedir(listing);
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
