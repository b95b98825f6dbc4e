#include <NimbFoundation/Images/VQCache.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <NimbFoundation/Internal/CacheIndex.h>
#include <NimbFoundation/Internal/CacheIndexParser.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include "TestSupport.h"

using namespace std::literals;
using nimb::Data;
using nimb::Date;
using nimb::FileManager;
using nimb::RunLoop;
using nimb::VQCache;
using nimb::test::dataOf;

namespace {

// Lets queued file writes land and the deferred index save run.
void settle(VQCache& cache) {
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
  ASSERT_TRUE(RunLoop::main().runUntilIdle(5));
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
}

// Sets the modification time of `path` two minutes back.
bool backdate(const std::string& path) {
  const timespec past[2] = {{std::time(nullptr) - 120, 0}, {std::time(nullptr) - 120, 0}};
  return ::utimensat(AT_FDCWD, path.c_str(), past, AT_SYMLINK_NOFOLLOW) == 0;
}

// Each test has a cache directory of its own; instances are opened on it.
class VQCacheTest : public ::testing::Test {
 protected:
  void TearDown() override {
    nimb::Env::setCurrent(nullptr);
    RunLoop::main().runUntilIdle(5);  // saves still pending run now, not in the next test
    cache.reset();
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }
  // Pins "now" so expiry can be tested to the instant.
  std::shared_ptr<nimb::test::FakeEnv> pinClock(double at) {
    auto clock = std::make_shared<nimb::test::FakeEnv>();
    clock->setNow(Date::fromTimeIntervalSince1970(at));
    clock->realMonotonic = true;
    nimb::Env::setCurrent(clock);
    return clock;
  }
  // Another instance on the directory: a restart, or another process.
  std::shared_ptr<VQCache> open(double defaultTimeout = 86400) {
    auto opened = VQCache::open({nullptr, directory, defaultTimeout});
    EXPECT_TRUE(opened);
    return opened;
  }
  std::string path(std::string_view key) const { return directory + "/" + std::string(key); }
  std::string indexPath() const { return path("VQCache.plist"); }
  std::optional<nimb::Dictionary> indexOnDisk() const {
    return nimb::PropertyList::dictionaryWithContentsOfFile(indexPath()).optional();
  }

  const std::string root = nimb::test::makeTemporaryDirectory("vqcache");
  const std::string directory = root + "/VQCache";
  std::shared_ptr<VQCache> cache = open();
};

}  // namespace

TEST_F(VQCacheTest, EveryFamilyIsSavedOnceAndReloadsAfterRestart) {
  const nimb::Value plist(
      nimb::Dictionary{{"n", 42}, {"when", Date::fromTimeIntervalSince1970(1e9)}});
  const nimb::Bitmap bitmap{2, 1, {255, 0, 0, 255, 0, 0, 255, 128}};
  // Each set withdraws the pending save and schedules it again: a burst of
  // sets writes the index once, later.
  cache->setData(dataOf("raw\0bytes"sv), "data");
  cache->setString("héllo wörld", "string");
  cache->setPlist(plist, "plist");
  cache->setImage(nimb::Image::withBitmap(bitmap), "image");
  EXPECT_EQ(RunLoop::main().scheduledCount(), 1u);
  EXPECT_FALSE(FileManager::fileExists(indexPath()));
  settle(*cache);
  // The plist family stores binary v1.0.
  EXPECT_EQ(nimb::test::readFile(path("plist")).substr(0, 8), "bplist00");

  // A second instance is a restart: it only knows what the index file says.
  auto again = open(0);
  EXPECT_EQ(again->cacheDictionary().size(), 4u);
  EXPECT_EQ(again->dataForKey("data"), dataOf("raw\0bytes"sv));
  EXPECT_EQ(again->stringForKey("string"), "héllo wörld");
  EXPECT_EQ(again->plistForKey("plist"), plist);
  auto image = again->imageForKey("image");
  ASSERT_TRUE(image);
  EXPECT_EQ(image->bitmap().rgba, bitmap.rgba);

  // The index is an XML property list of key to date.
  nimb::PropertyListFormat format{};
  auto index = nimb::PropertyList::parse(dataOf(nimb::test::readFile(indexPath())), &format);
  EXPECT_EQ(format, nimb::PropertyListFormat::Xml);
  EXPECT_TRUE(index && index->find("data") && index->find("data")->asDate());
}

// The shared instance lives on the shared directory and keeps entries a
// day; an opened one lives where it was told (or fails to open, saying
// why); a bare one keeps entries not at all; an entry expires at its date
// to the instant.
TEST_F(VQCacheTest, DefaultLifetimesAndExpiryAtTheExactInstant) {
  auto shared = VQCache::currentCache();
  EXPECT_EQ(shared, VQCache::currentCache());
  EXPECT_EQ(cache->lockPath(), root + "/VQCache.lock");
  EXPECT_EQ(nimb::test::modeOf(directory), 0700u);
  nimb::SystemError why;
  ASSERT_TRUE(FileManager::writeAtomically(root + "/file", "x"sv));
  EXPECT_FALSE(VQCache::open({nullptr, root + "/file/VQCache", 1}, &why));
  EXPECT_EQ(why.path, root + "/file/VQCache");
  EXPECT_NE(why.code, 0);

  // An instance opened on an Env of its own dates its entries by that Env's
  // clock, not the process's.
  auto clock = std::make_shared<nimb::test::FakeEnv>();
  clock->setNow(Date::fromTimeIntervalSince1970(1.8e9));
  auto timed = VQCache::open({clock, directory, 86400});
  timed->setData(dataOf("x"), "ttl10", 10);
  settle(*timed);
  clock->advance(9.999);
  EXPECT_TRUE(timed->hasCacheForKey("ttl10"));
  clock->advance(0.001);  // exactly the expiry date
  EXPECT_FALSE(timed->hasCacheForKey("ttl10"));
  EXPECT_FALSE(timed->dataForKey("ttl10"));

  // A bare instance's short form stores with lifetime 0: expired at once.
  auto bare = open(0);
  bare->setData(dataOf("y"), "bare");
  settle(*bare);
  EXPECT_FALSE(bare->hasCacheForKey("bare"));
  EXPECT_TRUE(FileManager::fileExists(path("bare")));
  // ...while the image family ignores the index and expiry altogether.
  bare->setImage(nimb::Image::withBitmap({1, 1, {1, 2, 3, 4}}), "img", -5);
  settle(*bare);
  EXPECT_FALSE(bare->hasCacheForKey("img"));
  EXPECT_TRUE(bare->imageForKey("img"));
}

// Start-up deletes the files of expired entries but keeps the entries. A
// file written after the index was saved stays: another process's fresh
// write of a key that is stale in the index, whose index save is to come.
TEST_F(VQCacheTest, StartUpPurgeDeletesStaleFilesButKeepsEntries) {
  auto clock = pinClock(std::time(nullptr));
  auto first = open(0);
  first->setData(dataOf("long"), "long", 100);
  first->setData(dataOf("short"), "short", 1);
  first->setData(dataOf("old"), "photo", 1);
  settle(*first);
  clock->advance(10);  // "short" and "photo" are stale in the index now
  // The files so far are older than the one below.
  for (const char* name : {"long", "short", "photo", "VQCache.plist"}) {
    ASSERT_TRUE(backdate(path(name))) << name;
  }
  first->setData(dataOf("new"), "photo", 3600);
  first->diskOperationQueue().waitUntilAllOperationsAreFinished();  // the save is pending
  auto restarted = open(0);
  EXPECT_FALSE(FileManager::fileExists(path("short")));
  EXPECT_TRUE(FileManager::fileExists(path("long")));
  auto entries = restarted->cacheDictionary();
  ASSERT_EQ(entries.count("short"), 1u);  // stale, but kept
  EXPECT_TRUE(restarted->hasCacheForKey("long"));
  settle(*first);

  // A later save writes the stale entry back unchanged.
  restarted->setData(dataOf("z"), "other", 100);
  settle(*restarted);
  auto third = open(0);
  EXPECT_EQ(third->cacheDictionary().at("short"), entries.at("short"));
  EXPECT_EQ(third->dataForKey("photo"), dataOf("new"));
}

// Refused keys and values leave no trace; reads of bytes a family cannot
// use, of files gone behind the cache's back, or of a symbolic link or a
// FIFO under a live key's name, fail cleanly and at once.
TEST_F(VQCacheTest, RefusedKeysAndBadBytesFailCleanly) {
  for (const std::string& key : {"VQCache.plist"s, ""s, "."s, ".."s, "a/b"s, "../escape"s,
                                 "nul\0key"s, std::string(256, 'k'), "not-utf8-\x9b"s}) {
    cache->setData(dataOf("x"), key, 100);
    cache->setString("x", key, 100);
    EXPECT_FALSE(cache->dataForKey(key)) << key;
    EXPECT_FALSE(cache->imageForKey(key)) << key;
    cache->removeCacheForKey(key);
  }
  // A value no property list can hold, and no image, store nothing either.
  cache->setPlist(nimb::Value(nimb::Null{}), "null", 100);
  cache->setImage(nullptr, "noimage", 100);
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(cache->cacheDictionary().empty());
  EXPECT_EQ(RunLoop::main().scheduledCount(), 0u);  // no save was even scheduled
  EXPECT_FALSE(FileManager::fileExists(indexPath()));
  EXPECT_FALSE(FileManager::fileExists(directory + "/../escape"));

  const std::string longest(255, 'k');  // the longest file name still works
  cache->setData(dataOf("ok"), longest, 100);
  cache->setData(Data{0xff, 0xfe, 0x00}, "binary", 100);
  cache->setData(dataOf("not a plist"), "text", 100);
  cache->setData(dataOf("gone"), "gone", 100);
  cache->setImage(nimb::Image::withBitmap({1, 1, {1, 2, 3, 255}}), "linked", 100);
  cache->setData(dataOf("v"), "fifo", 100);
  settle(*cache);
  EXPECT_EQ(cache->dataForKey(longest), dataOf("ok"));
  EXPECT_FALSE(cache->stringForKey("binary"));  // not UTF-8
  EXPECT_FALSE(cache->plistForKey("text"));
  EXPECT_FALSE(cache->imageForKey("text"));
  EXPECT_FALSE(cache->dataForKey("never-set"));
  // Behind the cache's back: removed, moved away for a link, a FIFO instead.
  ASSERT_TRUE(FileManager::removeItem(path("gone")));
  const std::string outside = root + "/outside.png";
  ASSERT_EQ(::rename(path("linked").c_str(), outside.c_str()), 0);
  ASSERT_EQ(::symlink(outside.c_str(), path("linked").c_str()), 0);
  ASSERT_EQ(::unlink(path("fifo").c_str()), 0);
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  ::alarm(20);  // a read that blocks fails the test instead of hanging it
  for (const char* key : {"gone", "linked", "fifo"}) {
    EXPECT_FALSE(cache->hasCacheForKey(key)) << key;
    EXPECT_FALSE(cache->dataForKey(key)) << key;
    EXPECT_FALSE(cache->imageForKey(key)) << key;
  }
  ::alarm(0);
}

// A copy takes the reserved key but never overwrites; a removal saves at
// once; clearing deletes the files of the keys in the index, not the index.
TEST_F(VQCacheTest, CopyRemoveAndClear) {
  cache->setData(dataOf("first"), "entry", 100);
  cache->setData(dataOf("b"), "b", 100);
  settle(*cache);
  auto indexBefore = FileManager::contentsAtPath(indexPath());
  ASSERT_TRUE(indexBefore);
  ASSERT_TRUE(FileManager::writeAtomically(path("stray"), "s"sv));

  std::string source = directory + "/../source.bin";
  ASSERT_TRUE(FileManager::writeAtomically(source, "copied"sv));
  // Onto the index name: the copy fails, the entry is recorded anyway.
  cache->copyFilePath(source, "VQCache.plist", 100);
  EXPECT_EQ(cache->cacheDictionary().count("VQCache.plist"), 1u);
  EXPECT_EQ(FileManager::contentsAtPath(indexPath()), indexBefore);
  // Onto an existing file: the old bytes stay.
  cache->copyFilePath(source, "entry", 100);
  EXPECT_EQ(cache->dataForKey("entry"), dataOf("first"));
  // Onto a free key: copied at once, synchronously.
  cache->copyFilePath(source, "copy", 100);
  EXPECT_EQ(cache->dataForKey("copy"), dataOf("copied"));
  settle(*cache);

  cache->removeCacheForKey("entry");
  EXPECT_EQ(RunLoop::main().scheduledCount(), 0u);
  EXPECT_EQ(indexOnDisk()->size(), 3u);
  cache->clearCache();
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(cache->cacheDictionary().empty());
  EXPECT_EQ(indexOnDisk(), nimb::Dictionary{});
  for (const char* key : {"entry", "b", "copy"}) {
    EXPECT_FALSE(FileManager::fileExists(path(key))) << key;
  }
  EXPECT_TRUE(FileManager::fileExists(path("stray")));  // not in the index
}

// Decoded pictures answer from memory while the key's file is the one they
// came from; a file replaced or removed behind the instance's back, a later
// set, and a removal all make the next read go to the disk.
TEST_F(VQCacheTest, DecodedPicturesAnswerFromMemoryWhileTheFileIsTheSame) {
  auto solid = [](std::uint8_t shade, double scale = 1.0) {
    return nimb::Image::withBitmap({8, 8, Data(8 * 8 * 4, shade)}, scale);
  };
  auto shadeOf = [](const std::shared_ptr<const nimb::Image>& image) {
    return image ? int(image->bitmap().rgba[0]) : -1;
  };
  const Data dark = *solid(0x20)->pngRepresentation(), light = *solid(0xE0)->pngRepresentation();
  cache->setData(dark, "pic", 100);
  settle(*cache);
  auto first = cache->imageForKey("pic");
  EXPECT_EQ(cache->imageForKey("pic"), first);
  EXPECT_EQ(cache->memoryCache().count(), 1u);
  ASSERT_TRUE(FileManager::writeAtomically(path("pic"), light));  // another process
  EXPECT_EQ(shadeOf(cache->imageForKey("pic")), 0xE0);
  ASSERT_EQ(::unlink(path("pic").c_str()), 0);
  EXPECT_EQ(cache->imageForKey("pic"), nullptr);

  // A picture handed over with its bytes is the one read back once they
  // land; a later set of the key withdraws it.
  auto decoded = nimb::Image::withData(dark);
  cache->setData(dark, "given", 100, decoded);
  cache->setData(dark, "late", 100, decoded);
  cache->setData(light, "late", 100);
  settle(*cache);
  EXPECT_EQ(cache->imageForKey("given"), decoded);
  EXPECT_NE(cache->imageForKey("late"), decoded);
  // A picture the file does not read back as (another scale) is not kept.
  cache->setImage(solid(0x20, 2.0), "scaled", 100);
  settle(*cache);
  EXPECT_EQ(cache->imageForKey("scaled")->scale(), 1.0);

  const std::size_t kept = cache->memoryCache().count();
  cache->removeCacheForKey("given");
  EXPECT_EQ(cache->memoryCache().count(), kept - 1);
  cache->clearCache();
  EXPECT_EQ(cache->memoryCache().count(), 0u);
}

// Readers on several threads, each miss reading and decoding a file, never
// take the memory cache past its budget.
TEST_F(VQCacheTest, ConcurrentReadsKeepMemoryWithinBudget) {
  const Data png = *nimb::Image::withBitmap({16, 16, Data(16 * 16 * 4, 0x80)})->pngRepresentation();
  for (int k = 0; k < 12; ++k) cache->setData(png, "p" + std::to_string(k), 100);
  settle(*cache);
  cache->memoryCache().setBudgetBytes(3 * 16 * 16 * 4);
  std::atomic<bool> over{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        auto image = cache->imageForKey("p" + std::to_string((i * 7 + t) % 12),
                                        nimb::PixelSize{i % 3 == 0 ? 8 : 0, 8});
        if (!image || cache->memoryCache().totalBytes() > 3 * 16 * 16 * 4) over = true;
      }
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_FALSE(over);
  EXPECT_GT(cache->memoryCache().statistics().evictions, 0u);
}

// A damaged index, or a FIFO in its place, reads as empty at once, and the
// next save replaces it with what the instance knows, not with its latest
// change alone.
TEST_F(VQCacheTest, CorruptIndexReadsAsEmptyAndIsRepaired) {
  cache->setData(dataOf("v"), "k", 100);
  settle(*cache);
  ::alarm(20);  // a read that blocks fails the test instead of hanging it
  for (const std::string key : {"l", "m"}) {
    ASSERT_EQ(::unlink(indexPath().c_str()), 0);
    ASSERT_TRUE(key == "l" ? FileManager::writeAtomically(indexPath(), "garbage"sv).ok()
                           : ::mkfifo(indexPath().c_str(), 0600) == 0);
    EXPECT_TRUE(open(0)->cacheDictionary().empty()) << key;
    cache->setData(dataOf("w"), key, 100);
    settle(*cache);
    EXPECT_EQ(indexOnDisk().value_or(nimb::Dictionary{}).size(), key == "l" ? 2u : 3u) << key;
  }
  ::alarm(0);
}

TEST_F(VQCacheTest, SetsFromManyThreadsWhileSavesRun) {
  constexpr int kThreads = 4, kPerThread = 50;
  std::atomic<int> finished{0};
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        std::string key = "t" + std::to_string(t) + "-" + std::to_string(i);
        cache->setData(dataOf(key), key, 100);
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
  EXPECT_EQ(indexOnDisk().value_or(nimb::Dictionary{}).size(), expected);
  EXPECT_EQ(cache->dataForKey("t3-49"), dataOf("t3-49"));
}

// Instances (and so processes) that share the directory each save their
// own sets and removals onto the index as it is on disk: none loses the
// other's entries, and a clear removes only the keys its instance knew.
TEST_F(VQCacheTest, InstancesSharingTheIndexLoseNothing) {
  auto a = open(0);
  auto b = open(0);
  a->setData(dataOf("a"), "from-a", 100);
  b->setData(dataOf("b"), "from-b", 100);
  settle(*a);
  settle(*b);
  auto onDisk = [this] {
    std::set<std::string> keys;
    for (const auto& entry : indexOnDisk().value_or(nimb::Dictionary{})) keys.insert(entry.first);
    return keys;
  };
  EXPECT_EQ(onDisk(), (std::set<std::string>{"from-a", "from-b"}));
  EXPECT_EQ(a->cacheDictionary().count("from-b"), 0u);  // each keeps its own view

  b->setData(dataOf("b2"), "later-b", 100);
  settle(*b);
  a->clearCache();
  EXPECT_EQ(onDisk(), (std::set<std::string>{"from-b", "later-b"}));
  a->setData(dataOf("a2"), "from-a", 100);
  b->removeCacheForKey("from-b");
  settle(*a);
  EXPECT_EQ(onDisk(), (std::set<std::string>{"from-a", "later-b"}));

  // Saves in turns, each instance writing twice while the other waits: the
  // file one wrote last is never taken for the one it finds.
  for (int round = 0; round < 20; ++round) {
    const std::string n = std::to_string(round);
    a->setData(dataOf("a"), "a" + n, 100);
    a->removeCacheForKey("a" + n);
    b->setData(dataOf("b"), "b" + n, 100);
    b->removeCacheForKey("b" + n);
    b->setData(dataOf("c"), "c" + n, 100);
    settle(*b);
    a->removeCacheForKey("none");
  }
  auto keys = onDisk();
  EXPECT_EQ(keys.size(), 22u);
  EXPECT_TRUE(keys.count("c0") && keys.count("c19") && !keys.count("a0") && !keys.count("b19"));
}

// While another process holds the index lock (stopped midway, say), a save
// writes nothing; it is tried again a second later on the main run loop and
// lands once the lock is free. (Each try waits its second for the lock.)
TEST_F(VQCacheTest, ASaveWaitsForTheIndexLockAndLandsAfterIt) {
  cache->setData(dataOf("v"), "k", 100);
  settle(*cache);
  auto clock = std::make_shared<nimb::test::FakeEnv>();  // run-loop time moves by hand
  nimb::Env::setCurrent(clock);
  const int held = ::open(cache->lockPath().c_str(), O_RDWR);
  ASSERT_GE(held, 0);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  cache->removeCacheForKey("k");
  auto& loop = RunLoop::main();
  loop.runOnce(0);  // the failed save schedules its retry from the main loop
  clock->advance(0.999);
  loop.runOnce(0);
  EXPECT_EQ(loop.scheduledCount(), 1u);  // not due yet
  clock->advance(0.001);
  loop.runOnce(0);  // due: finds the lock still held, and schedules another
  EXPECT_EQ(indexOnDisk()->count("k"), 1u);
  ::close(held);
  loop.runOnce(0);
  clock->advance(1);
  loop.runOnce(0);
  EXPECT_TRUE(indexOnDisk()->empty());
}

// A new instance removes the cache's own temporaries that have not been
// touched for a minute; fresh ones, other names and entries' files stay.
TEST_F(VQCacheTest, AbandonedTemporariesAreSweptAtStartUp) {
  const std::string lookalike = ".key.tmp-Kept01";  // a key may have the shape
  cache->setData(dataOf("entry"), lookalike, 100);
  settle(*cache);
  const struct {
    std::string name;
    bool old, swept;
  } files[] = {{".photo.tmp-a1B2c3", true, true},
               {".VQCache.plist.tmp-Zz9Yy8", true, true},
               {".photo.tmp-Fresh1", false, false},
               {"photo.tmp-a1B2c3", true, false},  // not a temporary's name
               {lookalike, true, false}};
  for (const auto& file : files) {
    const std::string at = path(file.name);
    ASSERT_TRUE(file.name == lookalike || FileManager::writeAtomically(at, "partial"sv));
    ASSERT_TRUE(!file.old || backdate(at)) << file.name;
  }
  open(0)->diskOperationQueue().waitUntilAllOperationsAreFinished();
  for (const auto& file : files) {
    EXPECT_EQ(FileManager::fileExists(path(file.name)), !file.swept) << file.name;
  }
  EXPECT_EQ(cache->dataForKey(lookalike), dataOf("entry"));
}

// The index reader's fast path agrees with the generic property-list reader
// on every index it takes, and leaves every other form to it: whatever
// wrote the file, open() reads the same entries as the generic path would.
TEST_F(VQCacheTest, IndexReadsAsTheGenericReaderReadsIt) {
  auto generic = [](const std::string& bytes) -> std::optional<std::map<std::string, Date>> {
    auto value = nimb::PropertyList::parse(dataOf(bytes));
    if (!value || !value->asDictionary()) return std::nullopt;
    std::map<std::string, Date> entries;
    for (const auto& [k, v] : *value->asDictionary())
      if (v.asDate()) entries.emplace(k, *v.asDate());
    return entries;
  };
  // Keys with every escape, dates before 2001, with fractions, near the ends.
  std::vector<std::string> keys = {"plain", "a&b<c>\"d'", "ünï©ødé 😀",
                                   " lead", "t\tab",      "cr\r\nlf"};
  std::mt19937 random(7);
  const std::string pool[] = {"a", "&", "<", ">", "\"", "'", "é", "😀", " ", ";", "#"};
  while (keys.size() < 60) {
    std::string k;
    for (int n = 1 + random() % 8; n > 0; --n) k += pool[random() % std::size(pool)];
    keys.push_back(k);
  }
  nimb::Dictionary dict;
  plist_t bare = plist_new_dict();  // libplist alone, in its own key order
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const double at = -1.5e9 + static_cast<double>(random() % 3'000'000'000u) + (i % 3) * 0.25;
    dict.insert_or_assign(keys[i], Date::fromTimeIntervalSinceReferenceDate(at));
    plist_dict_set_item(bare, keys[keys.size() - 1 - i].c_str(),
                        plist_new_date(static_cast<std::int32_t>(at), 0));
  }
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(bare, &xml, &length);
  const std::string byLibplist(xml, length);
  plist_to_xml_free(xml);
  plist_free(bare);
  auto serialized = [&](nimb::PropertyListFormat format) {
    auto bytes = nimb::PropertyList::serialize(nimb::Value(dict), format);
    return std::string(bytes->begin(), bytes->end());
  };
  const std::string byUs = serialized(nimb::PropertyListFormat::Xml);
  // The prolog the writers make; only with it is the fast path taken.
  const std::string prolog = byUs.substr(0, byUs.find("<dict>"));
  auto bare1 = [&prolog](std::string body) { return prolog + "<dict>" + body + "</dict></plist>"; };
  const std::pair<std::string, bool> cases[] = {
      {byUs, true},
      {byLibplist, true},
      {bare1("<key>&#65;&#x1F600;&quot;&apos;</key>\r\n<date>2026-02-28T23:59:59Z</date>"
             "<key>k</key><date>1999-01-01T00:00:00Z</date><key>k</key><date>2040-12-31T12:00:00Z</"
             "date>"),
       true},
      {prolog + "<dict/></plist>\n", true},
      {"<plist version=\"1.0\"><dict><key>k</key><date>2026-01-01T00:00:00Z</date></dict></plist>",
       false},
      {bare1("<key>k</key><date>2026-11-23T05:18:21.5Z</date>"), false},
      {bare1("<key>k</key><date>1900-01-01T00:00:00Z</date>"), false},
      {bare1("<key>k</key><date>2026-02-29T00:00:00Z</date>"), false},
      {bare1("<key>k</key><!-- c --><date>2026-01-01T00:00:00Z</date>"), false},
      {bare1("<key>k</key><string>s</string><key>d</key><date>2026-01-01T00:00:00Z</date>"), false},
      {bare1("<key>a&#0;b</key><date>2026-01-01T00:00:00Z</date>"), false},
      {bare1("<key>a&nbsp;b</key><date>2026-01-01T00:00:00Z</date>"), false},
      {byUs.substr(0, byUs.size() / 2), false},
      {"garbage", false},
      {serialized(nimb::PropertyListFormat::BinaryV1_0), false},
  };
  for (const auto& [bytes, fast] : cases) {
    const auto expected = generic(bytes);
    const auto parsed = nimb::detail::parseCacheIndexXml(dataOf(bytes));
    EXPECT_EQ(parsed.has_value(), fast) << bytes;
    if (parsed) {
      EXPECT_EQ(parsed->toMap(), expected) << bytes;
    }
    ASSERT_TRUE(FileManager::writeAtomically(indexPath(), bytes).ok());
    EXPECT_EQ(open()->cacheDictionary(), expected.value_or(std::map<std::string, Date>{})) << bytes;
  }
  EXPECT_EQ(generic(byUs)->size(), dict.size());
  EXPECT_EQ(generic(serialized(nimb::PropertyListFormat::BinaryV1_0))->size(), dict.size());
}

// The in-memory index answers as a plain map would through any mix of
// building out of order, sets, removals and the folds they trigger.
TEST(VQCacheIndex, BehavesAsAMapThroughChangesAndFolds) {
  nimb::detail::CacheIndex index;
  std::map<std::string, Date> reference;
  std::mt19937 random(11);
  auto someKey = [&] { return "k" + std::to_string(random() % 3000); };
  for (int i = 0; i < 2000; ++i) {
    const std::string key = someKey();
    const Date at = Date::fromTimeIntervalSince1970(i);
    index.append(key, at);  // a key given again keeps its last date
    reference.insert_or_assign(key, at);
  }
  index.finish();
  for (int i = 0; i < 20000; ++i) {
    const std::string key = someKey();
    const Date at = Date::fromTimeIntervalSince1970(-i);
    if (random() % 3 == 0) {
      index.erase(key);
      reference.erase(key);
    } else {
      index.set(key, at);
      reference.insert_or_assign(key, at);
    }
    if (i % 997 == 0) {
      ASSERT_EQ(index.toMap(), reference) << i;
    }
    const std::string probe = someKey();
    ASSERT_EQ(index.find(probe),
              reference.count(probe) ? std::optional(reference[probe]) : std::nullopt);
  }
  EXPECT_EQ(index.toMap(), reference);
}
