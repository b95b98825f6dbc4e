// VQCache: a small key-value store on disk with an expiry date per entry.
//
// Each value is one file, named exactly by its key, in the cache's
// directory: the one open() was given, or the process's shared cache
// directory ($XDG_CACHE_HOME or ~/.cache, then the process name, then
// "VQCache"). One index file there, "VQCache.plist" (an XML property list of
// key to expiry date), says until when each file is valid. The image loader
// keeps downloaded images here; the image view reads and removes them.
//
// How it behaves, and why:
//   - An entry expires when its date is not later than now: a date equal to
//     now is already expired. "Now" comes from the cache's Env, so tests
//     can pin it.
//   - Writes and deletes of entry files go to diskOperationQueue() and run
//     in parallel, in any order; a set returns before its bytes are on disk,
//     and until they are, the key reads as missing.
//   - The index is saved 0.3 s after the last set, by one delayed perform on
//     the main run loop that each new set withdraws and schedules again, so a
//     burst of sets writes the index once. Removal and clearCache save at
//     once. A program that exits must first turn the main run loop until
//     that save has run (RunLoop::main().runUntilIdle()) and wait for the
//     disk queue (diskOperationQueue().waitUntilAllOperationsAreFinished()).
//   - Each instance keeps the index it read at start-up and its own changes
//     to it; it never picks up entries other processes add later. Many
//     processes (and instances) may share the directory all the same: a
//     save takes an advisory lock (indexLockPath()), reads the index as it
//     is on disk, applies this instance's sets and removals since its last
//     save (a clear is the removal of every key it knew), writes it
//     atomically and lets go. No process loses another's entries. A save
//     that cannot have the lock within a second (its holder is stopped, say)
//     writes nothing and is tried again a second later on the main run
//     loop. A missing or damaged index is replaced by this instance's view.
//   - The start-up purge leaves a file written after the index was saved:
//     it belongs to a set whose save is still to come, not to the stale
//     entry.
//   - At start-up, files of expired entries are deleted but the entries stay
//     in the index; they keep failing the expiry test.
//   - imageForKey() reads the file straight away, ignoring the index and
//     expiry: a file that is still there is still an image.
//   - Decoded pictures are kept in memoryCache(), in front of the files:
//     imageForKey() answers from there while the key's file is still the
//     one the picture was decoded from (same inode, size and modification
//     time, checked with one lstat), so a file removed or replaced by
//     another process or instance is never answered for. Every set, copy,
//     removal and clear of a key drops its pictures from memory; a picture
//     handed to setData() or setImage() is kept only once its bytes are on
//     disk, so a key still reads as missing until then.
//   - "VQCache.plist" is reserved: the data families and removal refuse it,
//     while copyFilePath() does not (it then fails to copy over the index
//     file, yet records the entry). A key that cannot name exactly one file
//     inside the directory (empty, ".", "..", holding "/" or NUL, longer
//     than 255 bytes) or is not UTF-8 (the index holds text) is refused by
//     every operation: no file, no entry, no save, and reads give nothing.
//   - Files and directories are private (0600/0700) and every file is
//     written through a temporary file and a rename, so a crash never leaves
//     half an entry or half an index. A corrupt index reads as empty.
//     Temporaries of writes that were killed (".NAME.tmp-XXXXXX", untouched
//     for a minute) are removed by each new instance, on the disk queue.
//   - An entry file, or the index, that is a symbolic link or a special file
//     (a FIFO, a device) reads as missing; nothing follows it or waits on it.
//
// Instances opened on different directories share nothing but the disk:
// a test or a host may open as many as it likes, each on its own folder.
//
// Thread rule: meant for the main thread, and safe from any thread. Sets
// from another thread hop to the main thread (and wait) to schedule the
// index save, so the main run loop must be turning. The index in memory is
// guarded by a lock; saves are serialised.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Images/VQMemoryCache.h>
#include <NimbFoundation/Platform/Concurrency/OperationQueue.h>
#include <NimbFoundation/Platform/Core/Date.h>
#include <NimbFoundation/Platform/Core/Result.h>
#include <NimbFoundation/Platform/Core/Value.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

namespace NIMB_EXPORT nimb {

class Env;

class VQCache : public std::enable_shared_from_this<VQCache> {
  struct Passkey {};

 public:
  // The index file's name, and so the one key the data families refuse.
  static constexpr std::string_view kIndexFileName = "VQCache.plist";
  // The shared instance's default lifetime: one day.
  static constexpr double kCurrentCacheTimeoutInterval = 86400.0;
  // How long after the last set the index is saved.
  static constexpr double kSaveDelay = 0.3;

  // What open() builds an instance on.
  struct Options {
    // The system the instance reads its clock from and keeps its entries
    // and index on; null means Env::current() at each call.
    std::shared_ptr<Env> env;
    // The folder of entry files and the index; empty means the shared
    // directory (cacheDirectory()). Made (0700, with its parents) when
    // missing.
    std::string directory;
    // The lifetime the short set forms use.
    double defaultTimeout = kCurrentCacheTimeoutInterval;
  };

  // A new instance on `options.directory`, reading the index found there.
  // nullptr when the directory cannot be made; `whyNot`, when given, then
  // says why (errno and path). Never throws.
  static std::shared_ptr<VQCache> open(Options options, SystemError* whyNot = nullptr);

  // The shared instance, made on first use on the shared directory with a
  // default lifetime of 86400 s; it lives until the process ends.
  static std::shared_ptr<VQCache> currentCache();
  // A new instance over the shared directory and index; its default
  // lifetime is 0, so the short set forms store entries that are already
  // expired.
  static std::shared_ptr<VQCache> create();

  // The shared cache directory, fixed at first use for the life of the
  // process.
  static const std::string& cacheDirectory();
  // The file every instance on the shared directory, in every process,
  // locks while it saves the index: "VQCache.lock" in the folder that holds
  // the cache directory.
  static const std::string& indexLockPath();

  // This instance's directory, and its index lock file ("VQCache.lock"
  // beside the directory, as for the shared one).
  const std::string& directory() const;
  const std::string& lockPath() const;
  // The file path of `key` in this instance's directory (meaningful only
  // for usable keys).
  std::string filePathForKey(std::string_view key) const;
  // The Env given to open(); null for Env::current().
  const std::shared_ptr<Env>& env() const;
  // Writes of entry files and of the index that failed since the instance
  // was made, and the reason of the last one (errno and path). The cache
  // carries on regardless: an entry that could not land reads as missing.
  std::uint64_t writeFailureCount() const;
  std::optional<SystemError> lastWriteFailure() const;
  // Whether `key` is UTF-8 and names exactly one file inside the cache
  // directory. The reserved index name passes this test; the data families
  // refuse it apart.
  static bool isUsableKey(std::string_view key);

  // Fresh entry whose file exists.
  bool hasCacheForKey(const std::string& key) const;

  std::optional<Data> dataForKey(const std::string& key) const;
  void setData(Data data, const std::string& key);
  void setData(Data data, const std::string& key, double timeoutInterval);
  // The same, with `decoded`, the picture the bytes hold (decoded for
  // `decodedFor`, PixelSize{} for a full decode): it goes to memoryCache()
  // once the bytes are on disk, unless the key changed meanwhile, so the
  // next imageForKey() need not decode them again.
  void setData(Data data, const std::string& key, double timeoutInterval,
               std::shared_ptr<const Image> decoded, PixelSize decodedFor = {});

  // Stored as UTF-8; bytes that are not UTF-8 read back as nullopt.
  std::optional<std::string> stringForKey(const std::string& key) const;
  void setString(std::string_view string, const std::string& key);
  void setString(std::string_view string, const std::string& key, double timeoutInterval);

  // Stored as PNG. A null image stores nothing. Reads answer from
  // memoryCache() first (see the class comment).
  std::shared_ptr<const Image> imageForKey(const std::string& key) const;
  // The same, decoded for showing at `decodeFor` pixels (see
  // Image::withData); kept in memory under that size. A side <= 0 is a
  // full decode.
  std::shared_ptr<const Image> imageForKey(const std::string& key, PixelSize decodeFor) const;
  void setImage(const std::shared_ptr<const Image>& image, const std::string& key);
  void setImage(const std::shared_ptr<const Image>& image, const std::string& key,
                double timeoutInterval);

  // Stored as a binary property list (v1.0), read back from either format.
  // A value a property list cannot hold stores nothing.
  std::optional<Value> plistForKey(const std::string& key) const;
  void setPlist(const Value& plist, const std::string& key);
  void setPlist(const Value& plist, const std::string& key, double timeoutInterval);

  // Copies the file at `sourcePath` under `key` now, on the caller's thread.
  // An existing file under the key is kept and the copy fails; the entry is
  // recorded either way.
  void copyFilePath(const std::string& sourcePath, const std::string& key);
  void copyFilePath(const std::string& sourcePath, const std::string& key, double timeoutInterval);

  // Drops the entry and queues the deletion of its file; saves the index now.
  void removeCacheForKey(const std::string& key);
  // Removes every entry of the index (files without an entry stay); saves once.
  void clearCache();

  // The lifetime the short forms use, read when they are called.
  double defaultTimeoutInterval() const;
  void setDefaultTimeoutInterval(double seconds);

  // A snapshot of the index in memory: key to expiry date.
  std::map<std::string, Date> cacheDictionary() const;
  // Where entry files are written and deleted.
  OperationQueue& diskOperationQueue();
  // This instance's decoded pictures (each instance has its own).
  VQMemoryCache& memoryCache() const;
  // The file path of `key` in the shared directory (meaningful only for
  // usable keys).
  static std::string pathForKey(std::string_view key);
  // Whether an entry with this expiry date is expired at `now`: its date is
  // not later than now.
  static bool isExpired(Date expiry, Date now = Date::now());

  struct Impl;
  VQCache(Passkey, std::unique_ptr<Impl> impl);  // use open(), create() or currentCache()
  ~VQCache();
  VQCache(const VQCache&) = delete;
  VQCache& operator=(const VQCache&) = delete;

 private:
  void recordEntry(const std::string& key, double timeoutInterval);
  void removeItemFromCache(const std::string& key);
  void saveAfterDelay(double seconds);
  void saveCacheDictionary();

  std::unique_ptr<Impl> impl_;
};

}  // namespace nimb
