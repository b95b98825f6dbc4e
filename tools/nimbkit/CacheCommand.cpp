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
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Platform/Digest.h>
#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/PropertyList.h>
#include <NimbFoundation/Platform/RunLoop.h>

#include "Command.h"

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
    throw UsageError("\"" + key +
                     "\" cannot be a cache key: it must name one file (not empty, \".\" or "
                     "\"..\", no \"/\", at most 255 bytes)");
  }
}

// A key as one field of a listing line: backslash, tab, newline, carriage
// return and the other control bytes are written as backslash escapes.
std::string escapeKey(std::string_view key) {
  std::string out;
  for (char c : key) {
    auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (byte < 0x20 || byte == 0x7F) {
          char escape[5];
          std::snprintf(escape, sizeof escape, "\\x%02X", byte);
          out += escape;
        } else {
          out += c;
        }
    }
  }
  return out;
}

double requireTtl(double ttl) {
  if (!std::isfinite(ttl)) throw UsageError("--ttl must be a finite number of seconds");
  return ttl;
}

// Lets the deferred index save run and queued file writes land, so that
// nothing this process set is lost when it exits.
void settle(VQCache& cache) {
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
  nimb::RunLoop::main().runUntilIdle();
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
}

// Why `bytes` bytes could not be stored in the cache directory: tries what
// the cache tried, a private temporary file of that size there, and names
// the error it meets.
std::string whyNotStored(std::size_t bytes) {
  const std::string& dir = VQCache::cacheDirectory();
  if (!nimb::FileManager::isDirectory(dir)) return "cannot create the directory " + dir;
  // Shaped like the cache's own temporaries, so a later start-up sweeps it
  // should this process be killed before it removes it.
  std::string probe = dir + "/.nimbkit-probe.tmp-XXXXXX";
  int fd = ::mkostemp(probe.data(), O_CLOEXEC);
  if (fd < 0) return "cannot write in " + dir + ": " + std::strerror(errno);
  std::string reason = "the cache did not record it in " + dir;
  if (bytes > 0) {
    int error = ::posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    if (error != 0)
      reason = "cannot write " + std::to_string(bytes) + " bytes in " + dir + ": " +
               std::strerror(error);
  }
  ::close(fd);
  ::unlink(probe.c_str());
  return reason;
}

// Fails with the reason unless `key` is in the index on disk and its file
// is a regular file of `expectedSize` bytes (with the digest `expected`,
// when given).
void confirmStored(const std::string& key, const nimb::Digest::MD5Digest* expected,
                   std::uint64_t expectedSize) {
  const std::string path = VQCache::pathForKey(key);
  auto index = nimb::PropertyList::dictionaryWithContentsOfFile(
      VQCache::pathForKey(VQCache::kIndexFileName), nimb::FollowLinks::No);
  bool indexed = index && index->count(key) && index->at(key).asDate();
  struct stat st {};
  bool filed = ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
               static_cast<std::uint64_t>(st.st_size) == expectedSize;
  if (filed && expected) {
    auto contents = nimb::FileManager::contentsAtPath(path, nimb::FollowLinks::No);
    filed = contents && nimb::Digest::md5(*contents) == *expected;
  }
  if (indexed && filed) return;
  throw std::runtime_error("\"" + escapeKey(key) + "\" was not stored: " +
                           whyNotStored(static_cast<std::size_t>(expectedSize)));
}

int set(const CacheOptions& o) {
  requireKey(o.key);
  Data bytes;
  if (!o.path.empty()) {
    auto contents = nimb::FileManager::contentsAtPath(o.path);
    if (!contents) throw std::runtime_error("cannot read " + o.path + " as a regular file");
    bytes = std::move(*contents);
  } else {
    bytes = readStandardInput();
  }
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
  confirmStored(o.key, &digest, size);
  return kOk;
}

int get(const CacheOptions& o) {
  requireKey(o.key);
  auto data = VQCache::currentCache()->dataForKey(o.key);
  if (!data) {
    std::fprintf(stderr, "nimbkit: no fresh entry for \"%s\"\n", o.key.c_str());
    return kNotFound;
  }
  std::fwrite(data->data(), 1, data->size(), stdout);
  std::fflush(stdout);
  return kOk;
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
    std::printf("%s\t%s\t%s\t%s\n", escapeKey(key).c_str(), expiry.iso8601().c_str(),
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
  if (nimb::FileManager::fileExists(VQCache::pathForKey(o.key))) {
    throw UsageError("\"" + o.key + "\" already has a file; remove it first");
  }
  auto cache = VQCache::currentCache();
  if (o.ttl) {
    cache->copyFilePath(o.path, o.key, requireTtl(*o.ttl));
  } else {
    cache->copyFilePath(o.path, o.key);
  }
  settle(*cache);
  confirmStored(o.key, nullptr, static_cast<std::uint64_t>(source.st_size));
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
