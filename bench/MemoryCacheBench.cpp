// Memory cache benchmarks, each beside a baseline measured in the same run:
//   - one hit: imageForURL() of a picture the memory cache holds (the key's
//     digest, one lstat of its file, the lookup), and the bare lookup in
//     VQMemoryCache, against the same imageForURL() with a memory budget of
//     0, which reads and decodes the file every time;
//   - a feed: 1,000 JPEGs of 320x240 in the disk cache, shown by a list
//     that asks for each picture as its cell scrolls into view, scrolled
//     from top to bottom and back twice, with a memory budget of 100
//     pictures, against the same scroll with no memory cache. Every picture
//     is drawn (its pixels waited for), as a list would. The hit ratio is
//     printed after the table.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Images/VQImageLoader.h>
#include <NimbFoundation/Images/VQMemoryCache.h>
#include <NimbFoundation/Platform/Concurrency/NotificationCenter.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

#include "BenchSupport.h"

namespace {

using nimb::Image;
using nimb::URL;
using nimb::VQCache;
using nimb::VQImageLoader;
using nimb::VQMemoryCache;

constexpr int kFeed = 1000;
constexpr int kBudgetPictures = 100;
constexpr int kVisible = 8;  // cells on screen at once
constexpr int kWidth = 320, kHeight = 240;

struct Fixture {
  std::string directory;
  std::shared_ptr<VQCache> cache;
  nimb::NotificationCenter center;
  std::shared_ptr<VQImageLoader> loader;
  std::vector<std::optional<URL>> urls;
};

// A picture of its own for each index: a gradient with the index in it.
nimb::Data jpegFor(int index) {
  nimb::Bitmap bitmap{kWidth, kHeight, nimb::Data(std::size_t(kWidth) * kHeight * 4)};
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      auto* p = &bitmap.rgba[(std::size_t(y) * kWidth + x) * 4];
      p[0] = std::uint8_t(x + index), p[1] = std::uint8_t(y * 3 + index * 7);
      p[2] = std::uint8_t((x ^ y) + index * 13), p[3] = 255;
    }
  }
  return *Image::withBitmap(std::move(bitmap))->jpegRepresentation(80);
}

// The feed's pictures in a disk cache of their own, written once.
Fixture& fixture() {
  static Fixture* f = [] {
    auto* made = new Fixture;
    made->directory = std::filesystem::temp_directory_path().string() + "/nimb-memcache-XXXXXX";
    if (!mkdtemp(made->directory.data())) std::exit(1);
    made->cache = VQCache::open({nullptr, made->directory + "/VQCache", 86400});
    if (!made->cache) std::exit(1);
    made->loader = VQImageLoader::create({made->cache, &made->center, nullptr});
    for (int i = 0; i < kFeed; ++i) {
      made->urls.push_back(URL::withString("https://feed.example/p/" + std::to_string(i) + ".jpg"));
      made->cache->setData(jpegFor(i), VQImageLoader::keyForURL(*made->urls.back()), 86400);
    }
    made->cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
    nimb::RunLoop::main().runUntilIdle(10);
    return made;
  }();
  return *f;
}

std::size_t pictureBytes() {
  return std::size_t(kWidth) * kHeight * 4;
}

void hit(benchmark::State& state, std::size_t budget) {
  auto& f = fixture();
  auto& memory = f.cache->memoryCache();
  memory.removeAllImages();
  memory.setBudgetBytes(budget);
  const auto& url = f.urls[0];
  f.loader->imageForURL(url, nullptr, false)->waitUntilDecoded();
  for (auto _ : state) {
    auto image = f.loader->imageForURL(url, nullptr, false);
    if (!image) state.SkipWithError("missing");
    image->waitUntilDecoded();
    benchmark::DoNotOptimize(image);
  }
  memory.setBudgetBytes(VQMemoryCache::kDefaultBudgetBytes);
}

void BM_Hit_ImageForURL(benchmark::State& state) {
  hit(state, VQMemoryCache::kDefaultBudgetBytes);
}

void BM_Hit_MemoryCacheLookup(benchmark::State& state) {
  auto& f = fixture();
  const std::string key = VQImageLoader::keyForURL(*f.urls[0]);
  nimb::VQMemoryCache memory;
  memory.setImage(f.loader->imageForURL(f.urls[0], nullptr, false), key);
  for (auto _ : state) benchmark::DoNotOptimize(memory.imageForKey(key));
}

void BM_NoMemory_ImageForURL(benchmark::State& state) {
  hit(state, 0);
}

// Top to bottom and back, twice; each cell asks for its picture as it
// comes into view and draws it.
std::uint64_t scrollFeed(benchmark::State& state, std::size_t budget) {
  auto& f = fixture();
  auto& memory = f.cache->memoryCache();
  std::uint64_t hits = 0, asked = 0;
  for (auto _ : state) {
    state.PauseTiming();
    memory.removeAllImages();
    memory.setBudgetBytes(budget);
    const auto before = memory.statistics();
    state.ResumeTiming();
    auto show = [&](int index) {
      auto image = f.loader->imageForURL(f.urls[index], nullptr, false);
      if (!image || image->bitmap().width != kWidth) state.SkipWithError("missing");
      ++asked;
    };
    for (int pass = 0; pass < 2; ++pass) {
      for (int top = 0; top < kFeed; ++top) show(top);  // the cell entering at the bottom edge
      for (int top = kFeed - kVisible; top >= 0; --top) show(top);  // back up: at the top edge
    }
    hits += memory.statistics().hits - before.hits;
  }
  memory.setBudgetBytes(VQMemoryCache::kDefaultBudgetBytes);
  state.counters["hit_ratio"] = asked ? double(hits) / double(asked) : 0;
  state.counters["asked"] = double(asked) / double(state.iterations());
  return hits;
}

double feedHitRatio = -1;

void BM_Feed_MemoryCache100(benchmark::State& state) {
  scrollFeed(state, kBudgetPictures * pictureBytes());
  feedHitRatio = state.counters["hit_ratio"];
}

void BM_Feed_NoMemoryCache(benchmark::State& state) {
  scrollFeed(state, 0);
}

BENCHMARK(BM_Hit_ImageForURL)->Unit(benchmark::kMicrosecond)->Repetitions(5);
BENCHMARK(BM_Hit_MemoryCacheLookup)->Unit(benchmark::kMicrosecond)->Repetitions(5);
BENCHMARK(BM_NoMemory_ImageForURL)->Unit(benchmark::kMicrosecond)->Repetitions(5);
BENCHMARK(BM_Feed_MemoryCache100)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);
BENCHMARK(BM_Feed_NoMemoryCache)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
  // Work in a private temporary cache, never the user's.
  std::string home = std::filesystem::temp_directory_path().string() + "/nimb-bench-XXXXXX";
  if (!mkdtemp(home.data())) return 1;
  setenv("XDG_CACHE_HOME", home.c_str(), 1);
  fixture();
  int status = nimb::bench::runWithRatios(
      argc, argv,
      {{"BM_Hit_ImageForURL", "BM_NoMemory_ImageForURL"},
       {"BM_Feed_MemoryCache100", "BM_Feed_NoMemoryCache"}},
      [](const nimb::bench::RatioReporter& r) {
        std::printf("\nTargets:\n");
        const double hitSeconds = r.seconds("BM_Hit_ImageForURL");
        if (hitSeconds > 0)
          std::printf("  one hit through imageForURL            %6.2f us  (target < 2 us)\n",
                      hitSeconds * 1e6);
        if (feedHitRatio >= 0)
          std::printf("  feed hit ratio, budget of %d pictures  %6.1f %%\n", kBudgetPictures,
                      feedHitRatio * 100);
      });
  std::filesystem::remove_all(fixture().directory);
  std::filesystem::remove_all(home);
  return status;
}
