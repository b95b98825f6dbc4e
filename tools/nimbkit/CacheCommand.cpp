// nimbkit cache: store, read and inspect entries of the shared disk cache.
//
// Every call is a separate process, so the commands also show that entries
// survive a restart through the index file.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Platform/FileManager.h>
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

int set(const CacheOptions& o) {
  requireKey(o.key);
  Data bytes;
  if (!o.path.empty()) {
    auto contents = nimb::FileManager::contentsAtPath(o.path);
    if (!contents) throw UsageError("cannot read " + o.path);
    bytes = std::move(*contents);
  } else {
    bytes = readStandardInput();
  }
  auto cache = VQCache::currentCache();
  if (o.ttl) {
    cache->setData(std::move(bytes), o.key, requireTtl(*o.ttl));
  } else {
    cache->setData(std::move(bytes), o.key);
  }
  settle(*cache);
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
        VQCache::isUsableKey(key) && nimb::FileManager::fileExists(VQCache::pathForKey(key));
    std::printf("%s\t%s\t%s\t%s\n", key.c_str(), expiry.iso8601().c_str(),
                VQCache::isExpired(expiry) ? "expired" : "fresh", present ? "present" : "absent");
  }
  return kOk;
}

int copy(const CacheOptions& o) {
  requireKey(o.key);
  if (!nimb::FileManager::fileExists(o.path) || nimb::FileManager::isDirectory(o.path)) {
    throw UsageError("no file to copy at " + o.path);
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
      "list", "List the index: key, expiry (UTC), fresh or expired, file present or absent");
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
