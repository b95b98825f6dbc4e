#include <NimbFoundation/Images/VQCache.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <mutex>
#include <set>
#include <utility>

#include <NimbFoundation/Internal/CacheIndexParser.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Core/Text.h>
#include <NimbFoundation/Platform/Env/FileLock.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

namespace nimb {

namespace {

// The delayed-perform name under which the deferred index save is scheduled
// and withdrawn.
constexpr const char* kSaveAction = "saveCacheDictionary";
// The longest file name Linux file systems take.
constexpr std::size_t kMaxKeyBytes = 255;
// A temporary file of the cache's own untouched for this long belongs to a
// write that was killed: a live writer touches its file far more often.
constexpr double kAbandonedTemporaryAge = 60;
// How long a save waits for another holder of the index lock, and how long
// after giving up it tries again. Holders keep it for one read and write
// of the index; a holder that keeps it longer is stopped or stuck.
constexpr auto kIndexLockWait = std::chrono::milliseconds(1000);
constexpr double kIndexLockRetryDelay = 1.0;

// "VQCache.lock" in the folder that holds `directory`.
std::string lockPathBeside(const std::string& directory) {
  return directory.substr(0, directory.find_last_of('/')) + "/VQCache.lock";
}

bool isReserved(std::string_view key) {
  return key == VQCache::kIndexFileName;
}

// The key-to-date pairs of the index file as it is on disk now; whatever
// else a damaged or foreign index holds is left out. nullopt when there is
// no index or it is no property-list dictionary.
std::optional<detail::CacheIndex> readIndexFile(Env& env, const std::string& indexPath) {
  auto bytes = env.readFile(indexPath, FollowLinks::No);
  if (!bytes) return std::nullopt;
  // The index as this library (or libplist elsewhere) writes it reads
  // straight into the map; any other form takes the generic path.
  if (auto entries = detail::parseCacheIndexXml(*bytes)) {
    Data().swap(*bytes);
    entries->shrinkToFit();
    return entries;
  }
  auto value = PropertyList::parse(*bytes);
  Dictionary* index = value ? value->asDictionary() : nullptr;
  if (!index) return std::nullopt;
  detail::CacheIndex entries;
  for (const auto& [key, value] : *index) {
    if (auto* date = value.asDate()) entries.append(key, *date);
  }
  entries.finish();
  return entries;
}

// The modification time of the regular file at `path`, in nanoseconds; 0
// when there is none.
std::int64_t modifiedNs(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  return st.st_mtim.tv_sec * 1'000'000'000LL + st.st_mtim.tv_nsec;
}

// Whether `fd` is the file at `path` now. The descriptor keeps its inode
// alive, so no other file can have taken its number meanwhile.
bool isFileAtPath(int fd, const std::string& path) {
  struct stat held {
  }, current{};
  return fd >= 0 && ::fstat(fd, &held) == 0 && ::lstat(path.c_str(), &current) == 0 &&
         held.st_dev == current.st_dev && held.st_ino == current.st_ino;
}

bool isRegularFile(Env& env, const std::string& path) {
  auto info = env.fileInfo(path, FollowLinks::No);
  return info && info->kind == FileInfo::Kind::kRegular;
}

// The failed writes of one instance; disk jobs hold it, never the instance.
class WriteFailures {
 public:
  void record(const Result<void>& result) {
    if (result) return;
    std::lock_guard lock(mutex_);
    ++count_;
    last_ = result.error();
  }
  std::uint64_t count() const {
    std::lock_guard lock(mutex_);
    return count_;
  }
  std::optional<SystemError> last() const {
    std::lock_guard lock(mutex_);
    return last_;
  }

 private:
  mutable std::mutex mutex_;
  std::uint64_t count_ = 0;
  std::optional<SystemError> last_;
};

Result<void> writeData(Env& env, const Data& data, const std::string& path) {
  auto written = env.writeFileAtomically(path, data);
  // The directory may have been removed behind the cache's back.
  if (!written && written.error().code == ENOENT) {
    const std::string dir = path.substr(0, path.find_last_of('/'));
    if (env.createDirectory(dir, true)) return env.writeFileAtomically(path, data);
  }
  return written;
}

}  // namespace

// Key to its new expiry date, or to nullopt for a removal.
using Changes = std::map<std::string, std::optional<Date>>;

// Which source a picture in memory was decoded from: the file's inode,
// size and modification time, folded into one word.
std::uint64_t versionOf(const FileInfo& info) {
  std::uint64_t h = info.inode * 0x9E3779B97F4A7C15ull;
  h ^= info.size + 0x632BE59BD9B4E019ull + (h << 6) + (h >> 2);
  const auto ns = static_cast<std::uint64_t>(
      static_cast<std::int64_t>(std::llround(info.modified.timeIntervalSince1970() * 1e9)));
  h ^= ns + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
  return h;
}

// The memory side of one instance, shared with the disk jobs that put a
// picture there once its bytes have landed.
struct MemoryFront {
  VQMemoryCache memory;
  // The latest set of each key that brings a decoded picture, by ticket;
  // any later change of the key withdraws it, so a write that lands late
  // never puts an older picture in front of newer bytes.
  std::mutex mutex;
  std::map<std::string, std::uint64_t> pending;
  std::uint64_t nextTicket = 0;

  std::uint64_t expect(const std::string& key) {
    std::lock_guard lock(mutex);
    pending[key] = ++nextTicket;
    return nextTicket;
  }
  void forget(const std::string& key) {
    memory.removeImagesForKey(key);
    std::lock_guard lock(mutex);
    pending.erase(key);
  }
  // Whether `ticket` is still the key's latest set; it is used up either way.
  bool claim(const std::string& key, std::uint64_t ticket) {
    std::lock_guard lock(mutex);
    auto found = pending.find(key);
    if (found == pending.end() || found->second != ticket) return false;
    pending.erase(found);
    return true;
  }
};

struct VQCache::Impl {
  Impl(std::shared_ptr<Env> e, std::string dir, double timeout)
      : env(std::move(e)),
        directory(std::move(dir)),
        lockPath(lockPathBeside(directory)),
        indexPath(FileManager::appendingPathComponent(directory, kIndexFileName)),
        defaultTimeoutInterval(timeout) {}
  ~Impl() {
    // The queue goes first: its destructor lets queued writes land.
    diskOperationQueue.reset();
    if (lastSavedFd >= 0) ::close(lastSavedFd);
  }

  // The Env given to open(), else the process's current one.
  std::shared_ptr<Env> system() const { return env ? env : Env::current(); }
  std::string pathForKey(std::string_view key) const {
    return FileManager::appendingPathComponent(directory, key);
  }
  // Puts changes a save could not write back among the unsaved ones.
  void restoreChanges(Changes changes) {
    // A change made meanwhile is newer and wins.
    std::lock_guard lock(dictionaryMutex);
    for (auto& [key, expiry] : changes) unsavedChanges.try_emplace(key, std::move(expiry));
  }
  void forgetLastSaved() {
    if (lastSavedFd >= 0) ::close(lastSavedFd);
    lastSavedFd = -1;
    lastSaved = {};
  }
  void perform(OperationQueue::Operation op) { diskOperationQueue->addOperation(std::move(op)); }

  const std::shared_ptr<Env> env;
  const std::string directory;
  const std::string lockPath;
  const std::string indexPath;
  mutable std::mutex dictionaryMutex;  // guards the two below
  detail::CacheIndex cacheDictionary;
  // What this instance changed in the index since its last save.
  Changes unsavedChanges;
  // Guarded by saveMutex: what this instance's last save wrote, and the
  // file it wrote, held open so that its inode cannot pass to another file;
  // while that file is still the index, the next save need not read it.
  detail::CacheIndex lastSaved;
  int lastSavedFd = -1;
  std::mutex saveMutex;
  std::unique_ptr<OperationQueue> diskOperationQueue = std::make_unique<OperationQueue>();
  std::atomic<double> defaultTimeoutInterval{0.0};
  const std::shared_ptr<WriteFailures> writeFailures = std::make_shared<WriteFailures>();
  const std::shared_ptr<MemoryFront> front = std::make_shared<MemoryFront>();
};

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
  if (key.find('/') != std::string_view::npos || key.find('\0') != std::string_view::npos) {
    return false;
  }
  // Keys are text: the index can only hold a key that is UTF-8.
  return isValidUtf8(key);
}

std::string VQCache::pathForKey(std::string_view key) {
  return FileManager::appendingPathComponent(cacheDirectory(), key);
}

bool VQCache::isExpired(Date expiry, Date now) {
  // Not later than now: an entry that expires this very instant is gone.
  return !(expiry > now);
}

std::shared_ptr<VQCache> VQCache::open(Options options, SystemError* whyNot) {
  std::string directory = options.directory.empty() ? cacheDirectory() : options.directory;
  // The parent of a relative name is the working directory.
  if (directory.find('/') == std::string::npos) directory = "./" + directory;
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  Env& env = options.env ? *options.env : *Env::current();
  if (auto made = env.createDirectory(directory, true); !made) {
    // Named for the directory asked for, whichever parent stood in the way.
    if (whyNot) *whyNot = SystemError{made.error().code, directory};
    return nullptr;
  }
  auto impl =
      std::make_unique<Impl>(std::move(options.env), std::move(directory), options.defaultTimeout);
  auto cache = std::make_shared<VQCache>(Passkey{}, std::move(impl));
  // Off the caller's thread: the directory may hold many thousand entries.
  // The job holds its own copies, never the instance, so it may still run
  // while the instance or the process goes away.
  std::set<std::string> keep;
  {
    std::lock_guard lock(cache->impl_->dictionaryMutex);
    cache->impl_->cacheDictionary.forEach([&keep](std::string_view key, Date) {
      if (FileManager::isTemporaryFileName(key)) keep.emplace(key);
    });
  }
  cache->impl_->perform(
      [env = cache->impl_->system(), dir = cache->impl_->directory, keep = std::move(keep)] {
        FileManager::removeAbandonedTemporaries(*env, dir, kAbandonedTemporaryAge, keep);
      });
  return cache;
}

std::shared_ptr<VQCache> VQCache::create() {
  // The shared directory is used even when it cannot be made: every
  // operation then fails quietly, as it would had it gone later.
  if (auto cache = open({nullptr, {}, 0.0})) return cache;
  auto cache =
      std::make_shared<VQCache>(Passkey{}, std::make_unique<Impl>(nullptr, cacheDirectory(), 0.0));
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

VQCache::VQCache(Passkey, std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {
  Impl& d = *impl_;
  auto env = d.system();
  d.cacheDictionary = readIndexFile(*env, d.indexPath).value_or(detail::CacheIndex{});
  (void)env->createDirectory(d.directory, true);
  // One instant for the whole purge, so that it treats every entry alike.
  const Date now = env->now();
  const std::int64_t indexWritten = modifiedNs(d.indexPath);
  d.cacheDictionary.forEach([&](std::string_view key, Date expiry) {
    // The file goes, the entry stays: it keeps failing the expiry test until
    // it is removed or set again. Only expired entries cost a path.
    if (!isExpired(expiry, now) || !isUsableKey(key) || isReserved(key)) return;
    // A file written after the index was saved belongs to a set whose save
    // is still to come, in this process or another: it is not this stale
    // entry's file.
    const std::string path = d.pathForKey(key);
    if (modifiedNs(path) > indexWritten) return;
    (void)env->removeItem(path);
  });
}

// The queue's destructor lets queued writes land before the instance goes.
VQCache::~VQCache() = default;

const std::string& VQCache::indexLockPath() {
  static const std::string path = lockPathBeside(cacheDirectory());
  return path;
}

const std::string& VQCache::directory() const {
  return impl_->directory;
}

const std::string& VQCache::lockPath() const {
  return impl_->lockPath;
}

std::string VQCache::filePathForKey(std::string_view key) const {
  return impl_->pathForKey(key);
}

const std::shared_ptr<Env>& VQCache::env() const {
  return impl_->env;
}

std::uint64_t VQCache::writeFailureCount() const {
  return impl_->writeFailures->count();
}

std::optional<SystemError> VQCache::lastWriteFailure() const {
  return impl_->writeFailures->last();
}

double VQCache::defaultTimeoutInterval() const {
  return impl_->defaultTimeoutInterval.load();
}

void VQCache::setDefaultTimeoutInterval(double seconds) {
  impl_->defaultTimeoutInterval.store(seconds);
}

OperationQueue& VQCache::diskOperationQueue() {
  return *impl_->diskOperationQueue;
}

VQMemoryCache& VQCache::memoryCache() const {
  return impl_->front->memory;
}

bool VQCache::hasCacheForKey(const std::string& key) const {
  if (!isUsableKey(key)) return false;
  std::optional<Date> expiry;
  {
    std::lock_guard lock(impl_->dictionaryMutex);
    expiry = impl_->cacheDictionary.find(key);
  }
  if (!expiry) return false;
  auto env = impl_->system();
  // A symbolic link or a special file under the key's name is no entry.
  return !isExpired(*expiry, env->now()) && isRegularFile(*env, impl_->pathForKey(key));
}

std::optional<Data> VQCache::dataForKey(const std::string& key) const {
  if (!hasCacheForKey(key)) return std::nullopt;
  return impl_->system()->readFile(impl_->pathForKey(key), FollowLinks::No).optional();
}

void VQCache::setData(Data data, const std::string& key) {
  setData(std::move(data), key, defaultTimeoutInterval());
}

void VQCache::setData(Data data, const std::string& key, double timeoutInterval) {
  setData(std::move(data), key, timeoutInterval, nullptr);
}

void VQCache::setData(Data data, const std::string& key, double timeoutInterval,
                      std::shared_ptr<const Image> decoded, PixelSize decodedFor) {
  if (isReserved(key) || !isUsableKey(key)) return;
  auto& front = impl_->front;
  front->forget(key);
  const std::uint64_t ticket = decoded ? front->expect(key) : 0;
  std::string path = impl_->pathForKey(key);
  impl_->perform([env = impl_->system(), failures = impl_->writeFailures, front, key, ticket,
                  decoded = std::move(decoded), decodedFor, data = std::move(data),
                  path = std::move(path)] {
    auto written = writeData(*env, data, path);
    failures->record(written);
    if (!ticket || !front->claim(key, ticket) || !written) return;
    if (auto info = env->fileInfo(path, FollowLinks::No)) {
      front->memory.setImage(decoded, key, decodedFor, versionOf(*info));
    }
  });
  recordEntry(key, timeoutInterval);
}

void VQCache::recordEntry(const std::string& key, double timeoutInterval) {
  // NaN would make a date that is never expired; count it as no lifetime.
  if (std::isnan(timeoutInterval)) timeoutInterval = 0;
  const Date expiry = impl_->system()->now().addingTimeInterval(timeoutInterval);
  {
    std::lock_guard lock(impl_->dictionaryMutex);
    impl_->cacheDictionary.set(key, expiry);
    impl_->unsavedChanges[key] = expiry;
  }
  RunLoop::performOnMainThread([self = shared_from_this()] { self->saveAfterDelay(kSaveDelay); },
                               true);
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
  return imageForKey(key, PixelSize{});
}

std::shared_ptr<const Image> VQCache::imageForKey(const std::string& key,
                                                  PixelSize decodeFor) const {
  if (decodeFor.width <= 0 || decodeFor.height <= 0) decodeFor = {};
  if (!isUsableKey(key)) return nullptr;
  auto env = impl_->system();
  const std::string path = impl_->pathForKey(key);
  // The file as it is now decides, whatever memory holds: taken before the
  // read, a file replaced meanwhile only makes the next lookup miss.
  auto info = env->fileInfo(path, FollowLinks::No);
  if (!info || info->kind != FileInfo::Kind::kRegular) return nullptr;
  const std::uint64_t version = versionOf(*info);
  auto& memory = impl_->front->memory;
  if (auto kept = memory.imageForKey(key, decodeFor, version)) return kept;
  auto bytes = env->readFile(path, FollowLinks::No);
  if (!bytes) return nullptr;
  auto image = Image::withData(std::move(*bytes), 1.0, decodeFor);
  memory.setImage(image, key, decodeFor, version);
  return image;
}

void VQCache::setImage(const std::shared_ptr<const Image>& image, const std::string& key) {
  setImage(image, key, defaultTimeoutInterval());
}

void VQCache::setImage(const std::shared_ptr<const Image>& image, const std::string& key,
                       double timeoutInterval) {
  // Recording an entry without bytes would vouch for whatever file is there.
  auto png = ImagePNGRepresentation(image);
  if (!png) return;
  // The file reads back as these pixels, upright at scale 1: only such a
  // picture may stand for it in memory.
  const bool same = image->scale() == 1.0 && image->orientation() == ImageOrientation::Up;
  setData(std::move(*png), key, timeoutInterval, same ? image : nullptr);
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
  impl_->front->forget(key);
  impl_->writeFailures->record(impl_->system()->copyFile(sourcePath, impl_->pathForKey(key)));
  recordEntry(key, timeoutInterval);
}

void VQCache::removeCacheForKey(const std::string& key) {
  if (isReserved(key) || !isUsableKey(key)) return;
  removeItemFromCache(key);
  saveCacheDictionary();
}

void VQCache::removeItemFromCache(const std::string& key) {
  impl_->front->forget(key);
  // An entry named like the index (only copyFilePath makes one) is dropped,
  // but its "file" is the index itself, which must survive.
  if (!isReserved(key)) {
    std::string path = impl_->pathForKey(key);
    impl_->perform(
        [env = impl_->system(), path = std::move(path)] { (void)env->removeItem(path); });
  }
  std::lock_guard lock(impl_->dictionaryMutex);
  impl_->cacheDictionary.erase(key);
  impl_->unsavedChanges[key] = std::nullopt;
}

void VQCache::clearCache() {
  std::vector<std::string> keys;
  {
    std::lock_guard lock(impl_->dictionaryMutex);
    impl_->cacheDictionary.forEach([&keys](std::string_view key, Date) { keys.emplace_back(key); });
  }
  for (const auto& key : keys) removeItemFromCache(key);
  saveCacheDictionary();
}

std::map<std::string, Date> VQCache::cacheDictionary() const {
  std::lock_guard lock(impl_->dictionaryMutex);
  return impl_->cacheDictionary.toMap();
}

void VQCache::saveAfterDelay(double seconds) {
  auto& loop = RunLoop::current();
  loop.cancelPerforms(this, kSaveAction);
  loop.performAfterDelay(seconds, this, kSaveAction,
                         [self = shared_from_this()] { self->saveCacheDictionary(); });
}

void VQCache::saveCacheDictionary() {
  // Holding the save lock across taking the changes and writing keeps this
  // instance's saves in order: a later save never writes older changes.
  Impl& d = *impl_;
  std::lock_guard saving(d.saveMutex);
  Changes changes;
  {
    std::lock_guard lock(impl_->dictionaryMutex);
    changes.swap(impl_->unsavedChanges);
  }
  auto env = d.system();
  // The directory may have been removed behind the cache's back.
  (void)env->createDirectory(d.directory, true);
  bool written = false;
  {
    // Other processes (and other instances) save the same file: under the
    // index lock, what is on disk now takes this instance's own changes and
    // nothing else, so no one's entries are lost. Nothing is written while
    // someone else holds the lock (a process stopped midway, say): the save
    // is tried again a little later instead.
    FileLock lock(d.lockPath, kIndexLockWait);
    if (lock.state() == FileLock::State::Busy) {
      d.restoreChanges(std::move(changes));
      RunLoop::performOnMainThread(
          [self = shared_from_this()] { self->saveAfterDelay(kIndexLockRetryDelay); }, false);
      return;
    }
    detail::CacheIndex entries;
    if (isFileAtPath(d.lastSavedFd, d.indexPath)) {
      // Still the file this instance wrote last: its contents are known,
      // and parsing it again would be the dearest part of the save.
      entries = std::move(d.lastSaved);
    } else if (auto onDisk = readIndexFile(*env, d.indexPath)) {
      entries = std::move(*onDisk);
    } else {
      // No index, or a damaged one: this instance's own view (which holds
      // its changes already) is the best there is.
      std::lock_guard own(d.dictionaryMutex);
      entries = d.cacheDictionary;
    }
    d.forgetLastSaved();
    for (const auto& [key, expiry] : changes) {
      if (expiry) {
        entries.set(key, *expiry);
      } else {
        entries.erase(key);
      }
    }
    Dictionary index;
    entries.forEach([&index](std::string_view key, Date expiry) {
      index.emplace_hint(index.end(), std::string(key), expiry);
    });
    auto bytes = PropertyList::serialize(Value(std::move(index)), PropertyListFormat::Xml);
    if (bytes) {
      auto result = env->writeFileAtomically(d.indexPath, *bytes);
      d.writeFailures->record(result);
      written = result.ok();
    }
    if (written) {
      d.lastSavedFd = ::open(d.indexPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
      if (d.lastSavedFd >= 0) d.lastSaved = std::move(entries);
    }
  }
  // Kept for the next save.
  if (!written) d.restoreChanges(std::move(changes));
}

}  // namespace nimb
