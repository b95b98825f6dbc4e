#include <NimbFoundation/Images/VQCache.h>

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fcntl.h>
#include <sys/file.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <NimbFoundation/Platform/Clock.h>
#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/PropertyList.h>
#include <NimbFoundation/Platform/RunLoop.h>

using namespace std::chrono_literals;
using nimb::Data;
using nimb::Date;
using nimb::FileManager;
using nimb::RunLoop;
using nimb::VQCache;

namespace {

Data bytes(std::string_view s) {
  return Data(s.begin(), s.end());
}

std::string indexPath() {
  return VQCache::pathForKey("VQCache.plist");
}

// Lets queued file writes land and the deferred index save run.
void settle(VQCache& cache) {
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
  ASSERT_TRUE(RunLoop::main().runUntilIdle(5));
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
}

class VQCacheTest : public ::testing::Test {
 protected:
  void TearDown() override { nimb::Clock::setCurrent(nullptr); }
  // Pins "now" so expiry can be tested to the instant.
  std::shared_ptr<nimb::ManualClock> pinClock(double at = 1.8e9) {
    auto clock = std::make_shared<nimb::ManualClock>(Date::fromTimeIntervalSince1970(at));
    nimb::Clock::setCurrent(clock);
    return clock;
  }
};

}  // namespace

TEST_F(VQCacheTest, SharedInstanceAndDirectory) {
  auto shared = VQCache::currentCache();
  EXPECT_EQ(shared, VQCache::currentCache());
  EXPECT_EQ(shared->defaultTimeoutInterval(), 86400.0);
  EXPECT_EQ(VQCache::create()->defaultTimeoutInterval(), 0.0);

  const char* xdg = std::getenv("XDG_CACHE_HOME");
  ASSERT_NE(xdg, nullptr);
  EXPECT_EQ(VQCache::cacheDirectory(),
            std::string(xdg) + "/" + FileManager::processName() + "/VQCache");
  struct stat st {};
  ASSERT_EQ(stat(VQCache::cacheDirectory().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST_F(VQCacheTest, EveryFamilyReloadsAfterRestart) {
  {
    auto cache = VQCache::currentCache();
    cache->setData(bytes("raw\0bytes"), "data");
    cache->setString("héllo wörld", "string");
    nimb::Dictionary dict{{"n", 42}, {"when", Date::fromTimeIntervalSince1970(1e9)}};
    cache->setPlist(nimb::Value(dict), "plist");
    nimb::Bitmap bitmap{2, 1, {255, 0, 0, 255, 0, 0, 255, 128}};
    cache->setImage(nimb::Image::withBitmap(bitmap), "image");
    settle(*cache);
    // The plist family stores binary v1.0.
    auto raw = FileManager::contentsAtPath(VQCache::pathForKey("plist"));
    ASSERT_TRUE(raw);
    EXPECT_EQ(std::string(raw->begin(), raw->begin() + 8), "bplist00");
  }
  // A second instance is a restart: it only knows what the index file says.
  auto again = VQCache::create();
  EXPECT_EQ(again->cacheDictionary().size(), 4u);
  EXPECT_EQ(again->dataForKey("data"), bytes("raw\0bytes"));
  EXPECT_EQ(again->stringForKey("string"), "héllo wörld");
  auto plist = again->plistForKey("plist");
  ASSERT_TRUE(plist);
  EXPECT_EQ(*plist->find("n"), nimb::Value(42));
  auto image = again->imageForKey("image");
  ASSERT_TRUE(image);
  EXPECT_EQ(image->bitmap().rgba, (std::vector<std::uint8_t>{255, 0, 0, 255, 0, 0, 255, 128}));

  // The index is an XML property list of key to date.
  auto index = FileManager::contentsAtPath(indexPath());
  ASSERT_TRUE(index);
  nimb::PropertyListFormat format{};
  auto parsed = nimb::PropertyList::parse(*index, &format);
  ASSERT_TRUE(parsed && parsed->asDictionary());
  EXPECT_EQ(format, nimb::PropertyListFormat::Xml);
  EXPECT_TRUE(parsed->find("data")->asDate());
}

TEST_F(VQCacheTest, BurstOfSetsWritesTheIndexOnce) {
  auto cache = VQCache::currentCache();
  int watch = inotify_init1(IN_NONBLOCK);
  ASSERT_GE(watch, 0);
  ASSERT_GE(inotify_add_watch(watch, VQCache::cacheDirectory().c_str(), IN_MOVED_TO), 0);

  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 3; ++i) {
    cache->setData(bytes("v"), "k" + std::to_string(i));
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_EQ(RunLoop::main().scheduledCount(), 1u);
  RunLoop::main().runUntil(start + 200ms);
  EXPECT_FALSE(FileManager::fileExists(indexPath()));  // 0.3 s after the last set, not yet
  settle(*cache);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 400ms);

  int indexWrites = 0;
  alignas(inotify_event) char buf[8192];
  ssize_t n;
  while ((n = read(watch, buf, sizeof buf)) > 0) {
    for (char* p = buf; p < buf + n;) {
      auto* ev = reinterpret_cast<inotify_event*>(p);
      if (ev->len && std::strcmp(ev->name, "VQCache.plist") == 0) ++indexWrites;
      p += sizeof(inotify_event) + ev->len;
    }
  }
  close(watch);
  EXPECT_EQ(indexWrites, 1);
  EXPECT_EQ(VQCache::create()->cacheDictionary().size(), 3u);
}

TEST_F(VQCacheTest, ExpiryAtTheExactInstant) {
  auto clock = pinClock();
  auto cache = VQCache::currentCache();
  cache->setData(bytes("x"), "ttl10", 10);
  settle(*cache);
  clock->advance(9.999);
  EXPECT_TRUE(cache->hasCacheForKey("ttl10"));
  EXPECT_EQ(cache->dataForKey("ttl10"), bytes("x"));
  clock->advance(0.001);  // exactly the expiry date
  EXPECT_FALSE(cache->hasCacheForKey("ttl10"));
  EXPECT_FALSE(cache->dataForKey("ttl10"));
  EXPECT_FALSE(cache->stringForKey("ttl10"));

  // A bare instance's short form stores with lifetime 0: expired at once.
  auto bare = VQCache::create();
  bare->setData(bytes("y"), "bare");
  settle(*bare);
  EXPECT_FALSE(bare->hasCacheForKey("bare"));
  EXPECT_TRUE(FileManager::fileExists(VQCache::pathForKey("bare")));
  // ...while the image family ignores the index and expiry altogether.
  bare->setImage(nimb::Image::withBitmap({1, 1, {1, 2, 3, 4}}), "img", -5);
  settle(*bare);
  EXPECT_FALSE(bare->hasCacheForKey("img"));
  EXPECT_TRUE(bare->imageForKey("img"));
}

TEST_F(VQCacheTest, StartUpPurgeDeletesFilesButKeepsEntries) {
  auto clock = pinClock();
  {
    auto cache = VQCache::create();
    cache->setData(bytes("long"), "long", 100);
    cache->setData(bytes("short"), "short", 1);
    settle(*cache);
  }
  clock->advance(10);
  auto restarted = VQCache::create();
  EXPECT_FALSE(FileManager::fileExists(VQCache::pathForKey("short")));
  EXPECT_TRUE(FileManager::fileExists(VQCache::pathForKey("long")));
  auto entries = restarted->cacheDictionary();
  ASSERT_EQ(entries.count("short"), 1u);  // stale, but kept
  EXPECT_FALSE(restarted->hasCacheForKey("short"));
  EXPECT_TRUE(restarted->hasCacheForKey("long"));

  // A later save writes the stale entry back unchanged.
  restarted->setData(bytes("z"), "other", 100);
  settle(*restarted);
  auto third = VQCache::create()->cacheDictionary();
  EXPECT_EQ(third.at("short"), entries.at("short"));
}

TEST_F(VQCacheTest, RefusedKeysLeaveNoTrace) {
  auto cache = VQCache::currentCache();
  std::string longKey(256, 'k');
  for (const std::string& key :
       {std::string("VQCache.plist"), std::string(), std::string("."), std::string(".."),
        std::string("a/b"), std::string("../escape"), std::string("nul\0key", 7), longKey,
        std::string("not-utf8-\x9b")}) {
    cache->setData(bytes("x"), key, 100);
    cache->setString("x", key, 100);
    EXPECT_FALSE(cache->dataForKey(key)) << key;
    EXPECT_FALSE(cache->imageForKey(key)) << key;
    cache->removeCacheForKey(key);
  }
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(cache->cacheDictionary().empty());
  EXPECT_EQ(RunLoop::main().scheduledCount(), 0u);  // no save was even scheduled
  EXPECT_FALSE(FileManager::fileExists(indexPath()));
  EXPECT_FALSE(FileManager::fileExists(VQCache::cacheDirectory() + "/../escape"));

  // The longest file name still works.
  std::string longest(255, 'k');
  cache->setData(bytes("ok"), longest, 100);
  settle(*cache);
  EXPECT_EQ(cache->dataForKey(longest), bytes("ok"));
}

TEST_F(VQCacheTest, CopyTakesTheReservedKeyButNeverOverwrites) {
  auto cache = VQCache::currentCache();
  cache->setData(bytes("first"), "entry", 100);
  settle(*cache);
  auto indexBefore = FileManager::contentsAtPath(indexPath());
  ASSERT_TRUE(indexBefore);

  std::string source = VQCache::cacheDirectory() + "/../source.bin";
  ASSERT_TRUE(FileManager::writeAtomically(source, std::string_view("copied")));
  // Onto the index name: the copy fails, the entry is recorded anyway.
  cache->copyFilePath(source, "VQCache.plist", 100);
  EXPECT_EQ(cache->cacheDictionary().count("VQCache.plist"), 1u);
  EXPECT_EQ(FileManager::contentsAtPath(indexPath()), indexBefore);
  // Onto an existing file: the old bytes stay.
  cache->copyFilePath(source, "entry", 100);
  EXPECT_EQ(cache->dataForKey("entry"), bytes("first"));
  // Onto a free key: copied at once, synchronously.
  cache->copyFilePath(source, "copy", 100);
  EXPECT_EQ(cache->dataForKey("copy"), bytes("copied"));
  settle(*cache);

  // Clearing drops the odd entry without deleting the index file.
  cache->clearCache();
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(cache->cacheDictionary().empty());
  auto cleared = nimb::PropertyList::dictionaryWithContentsOfFile(indexPath());
  ASSERT_TRUE(cleared);
  EXPECT_TRUE(cleared->empty());
}

TEST_F(VQCacheTest, RemovalAndClearSaveAtOnce) {
  auto cache = VQCache::currentCache();
  cache->setData(bytes("a"), "a", 100);
  cache->setData(bytes("b"), "b", 100);
  settle(*cache);
  ASSERT_TRUE(FileManager::writeAtomically(VQCache::pathForKey("stray"), std::string_view("s")));

  cache->removeCacheForKey("a");
  EXPECT_EQ(RunLoop::main().scheduledCount(), 0u);
  EXPECT_EQ(nimb::PropertyList::dictionaryWithContentsOfFile(indexPath())->size(), 1u);
  cache->clearCache();
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(nimb::PropertyList::dictionaryWithContentsOfFile(indexPath())->empty());
  EXPECT_FALSE(FileManager::fileExists(VQCache::pathForKey("a")));
  EXPECT_FALSE(FileManager::fileExists(VQCache::pathForKey("b")));
  EXPECT_TRUE(FileManager::fileExists(VQCache::pathForKey("stray")));  // not in the index
}

TEST_F(VQCacheTest, ReadsFailCleanly) {
  auto cache = VQCache::currentCache();
  cache->setData(Data{0xff, 0xfe, 0x00}, "binary", 100);
  cache->setData(bytes("not a plist"), "text", 100);
  cache->setData(bytes("gone"), "gone", 100);
  settle(*cache);
  EXPECT_FALSE(cache->stringForKey("binary"));  // not UTF-8
  EXPECT_FALSE(cache->plistForKey("text"));
  EXPECT_FALSE(cache->imageForKey("text"));
  ASSERT_TRUE(FileManager::removeItem(VQCache::pathForKey("gone")));  // behind the cache's back
  EXPECT_FALSE(cache->hasCacheForKey("gone"));
  EXPECT_FALSE(cache->dataForKey("gone"));
  EXPECT_FALSE(cache->dataForKey("never-set"));
  // A value no property list can hold stores nothing.
  cache->setPlist(nimb::Value(nimb::Null{}), "null", 100);
  cache->setImage(nullptr, "noimage", 100);
  EXPECT_EQ(cache->cacheDictionary().count("null"), 0u);
  EXPECT_EQ(cache->cacheDictionary().count("noimage"), 0u);
}

// A damaged index reads as empty, and the next save replaces it with what
// the instance knows, not with its latest change alone.
TEST_F(VQCacheTest, CorruptIndexReadsAsEmptyAndIsRepaired) {
  ASSERT_TRUE(FileManager::createDirectory(VQCache::cacheDirectory()));
  ASSERT_TRUE(FileManager::writeAtomically(indexPath(), std::string_view("<plist><dict><key>")));
  auto cache = VQCache::currentCache();
  EXPECT_TRUE(cache->cacheDictionary().empty());
  cache->setData(bytes("v"), "k", 100);
  settle(*cache);
  ASSERT_TRUE(FileManager::writeAtomically(indexPath(), std::string_view("garbage")));
  cache->setData(bytes("w"), "l", 100);
  settle(*cache);
  auto index = nimb::PropertyList::dictionaryWithContentsOfFile(indexPath());
  ASSERT_TRUE(index);
  EXPECT_EQ(index->size(), 2u);
}

TEST_F(VQCacheTest, SetsFromManyThreadsWhileSavesRun) {
  auto cache = VQCache::currentCache();
  constexpr int kThreads = 4;
  constexpr int kPerThread = 50;
  std::atomic<int> finished{0};
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        std::string key = "t" + std::to_string(t) + "-" + std::to_string(i);
        cache->setData(bytes(key), key, 100);
        if (i % 10 == 0) cache->removeCacheForKey(key);  // immediate saves in between
      }
      ++finished;
    });
  }
  // The main thread keeps turning: sets from workers wait for it.
  auto deadline = std::chrono::steady_clock::now() + 30s;
  while (finished < kThreads && std::chrono::steady_clock::now() < deadline) {
    RunLoop::main().runOnce(0.01);
  }
  for (auto& w : writers) w.join();
  settle(*cache);
  std::size_t expected = kThreads * (kPerThread - kPerThread / 10);
  EXPECT_EQ(cache->cacheDictionary().size(), expected);
  auto index = nimb::PropertyList::dictionaryWithContentsOfFile(indexPath());
  ASSERT_TRUE(index);
  EXPECT_EQ(index->size(), expected);
  EXPECT_EQ(cache->dataForKey("t3-49"), bytes("t3-49"));
}

// Instances (and so processes) that share the directory each save their
// own sets and removals onto the index as it is on disk: none loses the
// other's entries, and a clear removes only the keys its instance knew.
TEST_F(VQCacheTest, InstancesSharingTheIndexLoseNothing) {
  auto a = VQCache::create();
  auto b = VQCache::create();
  a->setData(bytes("a"), "from-a", 100);
  b->setData(bytes("b"), "from-b", 100);
  settle(*a);
  settle(*b);
  auto onDisk = [] {
    auto index = nimb::PropertyList::dictionaryWithContentsOfFile(indexPath());
    std::set<std::string> keys;
    for (const auto& entry : index.value_or(nimb::Dictionary{})) keys.insert(entry.first);
    return keys;
  };
  EXPECT_EQ(onDisk(), (std::set<std::string>{"from-a", "from-b"}));
  EXPECT_EQ(a->cacheDictionary().count("from-b"), 0u);  // each keeps its own view

  b->setData(bytes("b2"), "later-b", 100);
  settle(*b);
  a->clearCache();
  EXPECT_EQ(onDisk(), (std::set<std::string>{"from-b", "later-b"}));
  a->setData(bytes("a2"), "from-a", 100);
  b->removeCacheForKey("from-b");
  settle(*a);
  EXPECT_EQ(onDisk(), (std::set<std::string>{"from-a", "later-b"}));

  // Saves in turns, each instance writing twice while the other waits: the
  // file one wrote last is never taken for the one it finds.
  for (int round = 0; round < 20; ++round) {
    const std::string n = std::to_string(round);
    a->setData(bytes("a"), "a" + n, 100);
    a->removeCacheForKey("a" + n);
    b->setData(bytes("b"), "b" + n, 100);
    b->removeCacheForKey("b" + n);
    b->setData(bytes("c"), "c" + n, 100);
    settle(*b);
    a->removeCacheForKey("none");
  }
  auto keys = onDisk();
  EXPECT_EQ(keys.size(), 22u);
  EXPECT_TRUE(keys.count("c0") && keys.count("c19") && !keys.count("a0") && !keys.count("b19"));
}

// Another process's fresh write of a key that is stale in the index, whose
// index save is still to come, survives the start-up purge of a new instance.
TEST_F(VQCacheTest, StartUpPurgeLeavesAFileWrittenAfterTheIndex) {
  auto clock = pinClock(std::time(nullptr));
  auto first = VQCache::create();
  first->setData(bytes("old"), "photo", 1);
  settle(*first);
  clock->advance(10);                 // "photo" is stale in the index now
  std::this_thread::sleep_for(20ms);  // the file below is newer than the index
  first->setData(bytes("new"), "photo", 3600);
  first->diskOperationQueue().waitUntilAllOperationsAreFinished();  // the save is pending
  auto second = VQCache::create();
  settle(*first);
  EXPECT_EQ(first->dataForKey("photo"), bytes("new"));
  EXPECT_EQ(VQCache::create()->dataForKey("photo"), bytes("new"));
}

// While another process holds the index lock (stopped midway, say), a save
// writes nothing; it is tried again on the main run loop and lands once the
// lock is free.
TEST_F(VQCacheTest, ASaveWaitsForTheIndexLockAndLandsAfterIt) {
  auto cache = VQCache::currentCache();
  cache->setData(bytes("v"), "k", 100);
  settle(*cache);
  const int held = ::open(VQCache::indexLockPath().c_str(), O_RDWR);
  ASSERT_GE(held, 0);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  cache->removeCacheForKey("k");
  RunLoop::main().runFor(1.5);  // a retry falls due and finds the lock still held
  EXPECT_EQ(nimb::PropertyList::dictionaryWithContentsOfFile(indexPath())->count("k"), 1u);
  ::close(held);
  settle(*cache);
  EXPECT_TRUE(nimb::PropertyList::dictionaryWithContentsOfFile(indexPath())->empty());
}

// A symbolic link or a FIFO under a live key's name, or as the index, reads
// as missing, at once.
TEST_F(VQCacheTest, LinksAndSpecialFilesReadAsMissing) {
  auto cache = VQCache::currentCache();
  cache->setImage(nimb::Image::withBitmap({1, 1, {1, 2, 3, 255}}), "linked", 100);
  cache->setData(bytes("v"), "fifo", 100);
  settle(*cache);
  const std::string outside = std::string(std::getenv("HOME")) + "/outside.png";
  ASSERT_EQ(::rename(VQCache::pathForKey("linked").c_str(), outside.c_str()), 0);
  ASSERT_EQ(::symlink(outside.c_str(), VQCache::pathForKey("linked").c_str()), 0);
  ASSERT_EQ(::unlink(VQCache::pathForKey("fifo").c_str()), 0);
  ASSERT_EQ(::mkfifo(VQCache::pathForKey("fifo").c_str(), 0600), 0);

  ::alarm(20);  // a read that blocks fails the test instead of hanging it
  for (const char* key : {"linked", "fifo"}) {
    EXPECT_FALSE(cache->hasCacheForKey(key)) << key;
    EXPECT_FALSE(cache->dataForKey(key)) << key;
    EXPECT_FALSE(cache->imageForKey(key)) << key;
  }
  ASSERT_EQ(::unlink(indexPath().c_str()), 0);
  ASSERT_EQ(::mkfifo(indexPath().c_str(), 0600), 0);
  EXPECT_TRUE(VQCache::create()->cacheDictionary().empty());
  cache->setData(bytes("w"), "after", 100);  // the save replaces the FIFO
  settle(*cache);
  ::alarm(0);
  EXPECT_TRUE(nimb::PropertyList::dictionaryWithContentsOfFile(indexPath()));
}

// A new instance removes the cache's own temporaries that have not been
// touched for a minute; fresh ones, other names and entries' files stay.
TEST_F(VQCacheTest, AbandonedTemporariesAreSweptAtStartUp) {
  auto cache = VQCache::currentCache();
  const std::string lookalike = ".key.tmp-Kept01";  // a key may have the shape
  cache->setData(bytes("entry"), lookalike, 100);
  settle(*cache);
  auto make = [](const std::string& name, bool old) {
    const std::string path = VQCache::pathForKey(name);
    if (name != ".key.tmp-Kept01") {
      ASSERT_TRUE(FileManager::writeAtomically(path, std::string_view("partial")));
    }
    if (!old) return;
    timespec past[2] = {{std::time(nullptr) - 120, 0}, {std::time(nullptr) - 120, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), past, 0), 0);
  };
  make(".photo.tmp-a1B2c3", true);
  make(".VQCache.plist.tmp-Zz9Yy8", true);
  make(".photo.tmp-Fresh1", false);
  make("photo.tmp-a1B2c3", true);  // not a temporary's name
  make(lookalike, true);
  VQCache::create()->diskOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(FileManager::fileExists(VQCache::pathForKey(".photo.tmp-a1B2c3")));
  EXPECT_FALSE(FileManager::fileExists(VQCache::pathForKey(".VQCache.plist.tmp-Zz9Yy8")));
  EXPECT_TRUE(FileManager::fileExists(VQCache::pathForKey(".photo.tmp-Fresh1")));
  EXPECT_TRUE(FileManager::fileExists(VQCache::pathForKey("photo.tmp-a1B2c3")));
  EXPECT_EQ(cache->dataForKey(lookalike), bytes("entry"));
}
