// nimbkit cache: store, read and inspect entries of the shared disk cache.
//
// Every call is a separate process, so the commands also show that entries
// survive a restart through the index file. The cache itself never reports
// a failed write; `set` and `copy` check that the entry landed (its file and
// its line in the index on disk) and fail with the reason when it did not.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Core/Digest.h>
#include <NimbFoundation/Platform/Env/FileLock.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include "Command.h"
#include "DisplayText.h"
#include "Output.h"

namespace nimbkit {

namespace {

using nimb::Data;
using nimb::VQCache;

struct CacheOptions {
  std::string key;
  std::string path;
  std::optional<double> ttl;
};

void requireKey(const std::string& key) {
  if (key == VQCache::kIndexFileName) {
    throw UsageError("\"" + key + "\" is the cache's index file and cannot be used as a key");
  }
  if (!VQCache::isUsableKey(key)) {
    throw UsageError("\"" + escapeForDisplay(key) +
                     "\" cannot be a cache key: it must be UTF-8 and name one file (not empty, "
                     "\".\" or \"..\", no \"/\", at most 255 bytes)");
  }
}

double requireTtl(double ttl) {
  if (!std::isfinite(ttl)) throw UsageError("--ttl must be a finite number of seconds");
  return ttl;
}

// The bytes of the file the user named: a regular file, or a pipe such as
// a shell's <(command). A device (/dev/zero never ends), a directory or a
// socket is refused: exit 1 with the reason.
Data readInputFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  struct stat st {};
  std::FILE* stream = nullptr;
  if (::fstat(fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISFIFO(st.st_mode)) ||
      !(stream = ::fdopen(fd, "rb"))) {
    ::close(fd);
    throw std::runtime_error("cannot read " + path + ": not a regular file or a pipe");
  }
  auto bytes = readAll(stream);
  std::fclose(stream);
  if (!bytes) throw std::runtime_error("cannot read " + path);
  return std::move(*bytes);
}

// The longest the tool waits for its index save: a save whose lock another
// process holds is retried every second, and a holder this slow is stuck.
constexpr double kSettleSeconds = 30;

// Lets the deferred index save run and queued file writes land, so that
// nothing this process set is lost when it exits.
void settle(VQCache& cache) {
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
  nimb::RunLoop::main().runUntilIdle(kSettleSeconds);
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
}

// Whether another process holds the lock every index save takes.
bool indexLockIsHeld() {
  nimb::FileLock probe(VQCache::indexLockPath(), std::chrono::milliseconds(0));
  return probe.state() == nimb::FileLock::State::Busy;
}

// Why the entry for `key` (`bytes` bytes) did not land, when its file
// (`filed`) or its line in the index did not: the cache's own record of the
// write that failed, else what stands in the way.
std::string whyNotStored(const VQCache& cache, const std::string& key, std::size_t bytes,
                         bool filed) {
  const std::string& dir = VQCache::cacheDirectory();
  if (!nimb::FileManager::isDirectory(dir)) return "cannot create the directory " + dir;
  if (indexLockIsHeld()) {
    return "another process has held the index lock (" + VQCache::indexLockPath() + ") for " +
           std::to_string(static_cast<int>(kSettleSeconds)) + " s";
  }
  const auto failure = cache.lastWriteFailure();
  const std::string reason = failure ? std::strerror(failure->code) : "";
  if (!filed) {
    const std::string path = VQCache::pathForKey(key);
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
      return "something that is no regular file is in the way at " + path;
    }
    if (!failure) return "its file did not land in " + dir;
    return "cannot write " + std::to_string(bytes) + " bytes in " + dir + ": " + reason;
  }
  const std::string index = VQCache::pathForKey(VQCache::kIndexFileName);
  return "the index " + index + " could not be updated" + (failure ? ": " + reason : "");
}

// Fails with the reason unless the index on disk holds `key` with the
// expiry this process gave it and its file is a regular file of
// `expectedSize` bytes (with the digest `expected`, when given).
void confirmStored(VQCache& cache, const std::string& key, const nimb::Digest::MD5Digest* expected,
                   std::uint64_t expectedSize) {
  const std::string path = VQCache::pathForKey(key);
  auto index = nimb::PropertyList::dictionaryWithContentsOfFile(
      VQCache::pathForKey(VQCache::kIndexFileName), nimb::FollowLinks::No);
  const auto ours = cache.cacheDictionary();
  const nimb::Value* found = nullptr;
  if (index) {
    if (auto it = index->find(key); it != index->end()) found = &it->second;
  }
  // The index keeps whole seconds.
  bool indexed = found && found->asDate() && ours.count(key) &&
                 std::fabs(found->asDate()->timeIntervalSince(ours.at(key))) < 1.0;
  struct stat st {};
  bool filed = ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
               static_cast<std::uint64_t>(st.st_size) == expectedSize;
  if (filed && expected) {
    auto contents = nimb::FileManager::contentsAtPath(path, nimb::FollowLinks::No);
    filed = contents && nimb::Digest::md5(*contents) == *expected;
  }
  if (indexed && filed) return;
  throw std::runtime_error("\"" + escapeForDisplay(key) + "\" was not stored: " +
                           whyNotStored(cache, key, static_cast<std::size_t>(expectedSize), filed));
}

int set(const CacheOptions& o) {
  requireKey(o.key);
  Data bytes = o.path.empty() ? readStandardInput() : readInputFile(o.path);
  auto cache = VQCache::currentCache();
  // The cache takes the bytes; their digest stays here to check what landed.
  const auto digest = nimb::Digest::md5(bytes);
  const std::uint64_t size = bytes.size();
  if (o.ttl) {
    cache->setData(std::move(bytes), o.key, requireTtl(*o.ttl));
  } else {
    cache->setData(std::move(bytes), o.key);
  }
  settle(*cache);
  confirmStored(*cache, o.key, &digest, size);
  return kOk;
}

int get(const CacheOptions& o) {
  requireKey(o.key);
  auto data = VQCache::currentCache()->dataForKey(o.key);
  if (!data) {
    diagnose("nimbkit: no fresh entry for \"%s\"\n", o.key.c_str());
    return kNotFound;
  }
  // main reports a write error.
  return writeStandardOutput(*data) && flushStandardOutput() ? kOk : kNotFound;
}

int has(const CacheOptions& o) {
  requireKey(o.key);
  bool fresh = VQCache::currentCache()->hasCacheForKey(o.key);
  std::puts(fresh ? "yes" : "no");
  return fresh ? kOk : kNotFound;
}

int remove(const CacheOptions& o) {
  requireKey(o.key);
  auto cache = VQCache::currentCache();
  cache->removeCacheForKey(o.key);
  settle(*cache);
  return kOk;
}

int clear() {
  auto cache = VQCache::currentCache();
  cache->clearCache();
  settle(*cache);
  return kOk;
}

int list() {
  auto cache = VQCache::currentCache();
  for (const auto& [key, expiry] : cache->cacheDictionary()) {
    bool present =
        VQCache::isUsableKey(key) &&
        nimb::FileManager::isRegularFile(VQCache::pathForKey(key), nimb::FollowLinks::No);
    std::printf("%s\t%s\t%s\t%s\n", escapeForDisplay(key).c_str(), expiry.iso8601().c_str(),
                VQCache::isExpired(expiry) ? "expired" : "fresh", present ? "present" : "absent");
  }
  return kOk;
}

int copy(const CacheOptions& o) {
  requireKey(o.key);
  struct stat source {};
  if (::stat(o.path.c_str(), &source) != 0 || !S_ISREG(source.st_mode)) {
    throw std::runtime_error("no regular file to copy at " + o.path + "; nothing stored");
  }
  struct stat existing {};
  if (::lstat(VQCache::pathForKey(o.key).c_str(), &existing) == 0) {
    throw UsageError("\"" + escapeForDisplay(o.key) + "\" already has a file; remove it first");
  }
  auto cache = VQCache::currentCache();
  if (o.ttl) {
    cache->copyFilePath(o.path, o.key, requireTtl(*o.ttl));
  } else {
    cache->copyFilePath(o.path, o.key);
  }
  settle(*cache);
  confirmStored(*cache, o.key, nullptr, static_cast<std::uint64_t>(source.st_size));
  return kOk;
}

}  // namespace

void addCacheCommand(CLI::App& app, Action& selected) {
  auto options = std::make_shared<CacheOptions>();
  auto* cache = app.add_subcommand("cache", "Store, read and inspect the shared disk cache");
  cache->require_subcommand(1);

  auto on = [&selected](CLI::App* sub, Action action) { onSelected(sub, selected, action); };

  auto* setCmd = cache->add_subcommand("set", "Store bytes (standard input, or --file) under KEY");
  setCmd->add_option("KEY", options->key, "Cache key")->required();
  setCmd->add_option("--ttl", options->ttl, "Lifetime in seconds (default: the cache's, 86400)");
  setCmd->add_option("--file", options->path, "Read the bytes from this file");
  on(setCmd, [options] { return set(*options); });

  auto* getCmd = cache->add_subcommand("get", "Write KEY's bytes to standard output");
  getCmd->add_option("KEY", options->key, "Cache key")->required();
  on(getCmd, [options] { return get(*options); });

  auto* hasCmd =
      cache->add_subcommand("has", "Say whether KEY has a fresh entry (exit 0) or not (1)");
  hasCmd->add_option("KEY", options->key, "Cache key")->required();
  on(hasCmd, [options] { return has(*options); });

  auto* removeCmd = cache->add_subcommand("remove", "Remove KEY's entry and file");
  removeCmd->add_option("KEY", options->key, "Cache key")->required();
  on(removeCmd, [options] { return remove(*options); });

  auto* clearCmd = cache->add_subcommand("clear", "Remove every entry of the index");
  on(clearCmd, [] { return clear(); });

  auto* listCmd = cache->add_subcommand(
      "list",
      "List the index: key (control characters and \\ escaped), expiry (UTC), fresh or "
      "expired, file present or absent");
  on(listCmd, [] { return list(); });

  auto* copyCmd = cache->add_subcommand("copy", "Copy the file at PATH into the cache as KEY");
  copyCmd->add_option("PATH", options->path, "File to copy")->required();
  copyCmd->add_option("KEY", options->key, "Cache key")->required();
  copyCmd->add_option("--ttl", options->ttl, "Lifetime in seconds (default: the cache's, 86400)");
  on(copyCmd, [options] { return copy(*options); });

  auto* pathCmd = cache->add_subcommand("path", "Print the cache directory");
  on(pathCmd, [] {
    std::puts(VQCache::cacheDirectory().c_str());
    return int(kOk);
  });
}

}  // namespace nimbkit
