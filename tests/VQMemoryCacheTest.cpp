#include <NimbFoundation/Images/VQMemoryCache.h>

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

using nimb::Data;
using nimb::Image;
using nimb::PixelSize;
using nimb::VQMemoryCache;

namespace {

// A picture of w x h pixels: w * h * 4 bytes against the budget.
std::shared_ptr<const Image> picture(int w, int h) {
  return Image::withBitmap({w, h, Data(std::size_t(w) * h * 4, 0x40)});
}

}  // namespace

// The budget is in decoded bytes; the least recently used picture goes
// first, a lookup counts as a use, and sizes of one key live and go
// together.
TEST(VQMemoryCache, EvictsLeastRecentlyUsedByBytes) {
  VQMemoryCache cache(3 * 400);  // three 10x10 pictures
  auto a = picture(10, 10), b = picture(10, 10), c = picture(10, 10), d = picture(10, 10);
  cache.setImage(a, "a");
  cache.setImage(b, "b");
  cache.setImage(c, "c");
  EXPECT_EQ(cache.imageForKey("a"), a);  // a is now the most recent
  cache.setImage(d, "d");                // so b goes
  EXPECT_EQ(cache.imageForKey("b"), nullptr);
  EXPECT_EQ(cache.imageForKey("c"), c);
  EXPECT_EQ(cache.totalBytes(), 1200u);
  EXPECT_EQ(cache.count(), 3u);

  // Replacing a key's picture at one size does not count it twice.
  auto a2 = picture(10, 10);
  cache.setImage(a2, "a");
  EXPECT_EQ(cache.imageForKey("a"), a2);
  EXPECT_EQ(cache.totalBytes(), 1200u);

  // A picture larger than the whole budget is not kept, and evicts nothing.
  cache.setImage(picture(20, 20), "huge");
  EXPECT_EQ(cache.imageForKey("huge"), nullptr);
  EXPECT_EQ(cache.count(), 3u);

  // Sizes are kept apart and removed together; a full decode answers for
  // a size it holds no picture of.
  cache.setBudgetBytes(10'000);
  auto small = picture(5, 5);
  cache.setImage(small, "a", PixelSize{5, 5});
  EXPECT_EQ(cache.imageForKey("a", PixelSize{5, 5}), small);
  EXPECT_EQ(cache.imageForKey("a", PixelSize{7, 7}), a2);
  EXPECT_EQ(cache.imageForKey("c", PixelSize{5, 5}), c);
  EXPECT_EQ(cache.imageForKey("a"), a2);
  cache.removeImagesForKey("a");
  EXPECT_EQ(cache.imageForKey("a"), nullptr);
  EXPECT_EQ(cache.imageForKey("a", PixelSize{5, 5}), nullptr);
  EXPECT_EQ(cache.totalBytes(), 800u);

  // A smaller budget trims at once.
  cache.setBudgetBytes(500);
  EXPECT_EQ(cache.count(), 1u);
  EXPECT_LE(cache.totalBytes(), 500u);
  EXPECT_GT(cache.statistics().evictions, 0u);
}

// A lookup with another version misses and drops the stale picture; memory
// pressure empties every memory cache of the process; a zero budget keeps
// nothing.
TEST(VQMemoryCache, VersionsPressureAndZeroBudget) {
  VQMemoryCache one, two, none(0);
  auto p = picture(4, 4);
  one.setImage(p, "k", {}, 7);
  EXPECT_EQ(one.imageForKey("k", {}, 7), p);
  EXPECT_EQ(one.imageForKey("k", {}, 8), nullptr);
  EXPECT_EQ(one.imageForKey("k", {}, 7), nullptr);  // dropped by the mismatch
  EXPECT_EQ(one.totalBytes(), 0u);

  one.setImage(p, "k");
  two.setImage(p, "k");
  none.setImage(p, "k");
  EXPECT_EQ(none.count(), 0u);
  VQMemoryCache::handleMemoryPressure();
  EXPECT_EQ(one.count() + two.count(), 0u);
  EXPECT_EQ(one.totalBytes() + two.totalBytes(), 0u);
  EXPECT_EQ(p.use_count(), 1);  // nothing held on to it
  const auto stats = one.statistics();
  EXPECT_EQ(stats.hits, 1u);
  EXPECT_EQ(stats.misses, 2u);
}

// Many threads storing, reading and removing at once: the pixels kept never
// exceed the budget, and the totals stay consistent with what is kept.
TEST(VQMemoryCache, StaysWithinBudgetUnderConcurrentUse) {
  constexpr std::size_t kBudget = 40'000;
  VQMemoryCache cache(kBudget);
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(t);
      for (int i = 0; i < 2000; ++i) {
        const std::string key = "k" + std::to_string(random() % 64);
        const int side = 1 + int(random() % 40);
        switch (random() % 4) {
          case 0:
          case 1:
            cache.setImage(picture(side, side), key, PixelSize{int(random() % 2), 0});
            break;
          case 2:
            (void)cache.imageForKey(key, PixelSize{int(random() % 2), 0});
            break;
          default:
            cache.removeImagesForKey(key);
            break;
        }
        if (cache.totalBytes() > kBudget) over = true;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(over);
  // The books balance: dropping every key leaves nothing counted.
  EXPECT_GT(cache.count(), 0u);
  for (int k = 0; k < 64; ++k) cache.removeImagesForKey("k" + std::to_string(k));
  EXPECT_EQ(cache.totalBytes(), 0u);
  EXPECT_EQ(cache.count(), 0u);
}
