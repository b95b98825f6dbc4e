// VQCache benchmarks, each beside a baseline measured in the same run:
//   - set then get of 10,000 entries of 60 KB, against writing and reading
//     the same files directly (atomically, one thread, no index);
//   - start-up of a cache whose index holds 100,000 entries, against parsing
//     the same index file alone, through PropertyList and through bare libplist;
//   - start-up of a cache whose index holds 600,000 entries, with the
//     heap the open instance holds (in MB);
//   - one immediate save into that index (a removal: lock, check the file is
//     still the one this instance wrote, merge, write), against writing the
//     whole index from memory without a look at the file.
//
// Disk figures on a virtual machine swing with the host's write-back; the
// runs are interleaved at random and each starts after a sync, and the
// ratios use medians.
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <plist/plist.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include "BenchSupport.h"

namespace {

using nimb::Data;
using nimb::FileManager;
using nimb::VQCache;

constexpr int kEntries = 10'000;
constexpr std::size_t kEntryBytes = 60 * 1024;
constexpr int kIndexEntries = 100'000;

Data payload() {
  Data d(kEntryBytes);
  for (std::size_t i = 0; i < d.size(); ++i) d[i] = static_cast<std::uint8_t>(i * 31 + 7);
  return d;
}

std::string key(int i) {
  return "VQImageLoader-" + std::to_string(1000000 + i);
}

void settle(VQCache& cache) {
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
  nimb::RunLoop::main().runUntilIdle();
  cache.diskOperationQueue().waitUntilAllOperationsAreFinished();
}

// Starts a run from an empty directory with nothing left to write back.
void emptyDirectory(const std::string& dir) {
  std::filesystem::remove_all(dir);
  (void)FileManager::createDirectory(dir, true);
  ::sync();
}

void BM_SetThenGet_VQCache(benchmark::State& state) {
  const Data bytes = payload();
  for (auto _ : state) {
    state.PauseTiming();
    emptyDirectory(VQCache::cacheDirectory());
    auto cache = VQCache::create();
    state.ResumeTiming();
    for (int i = 0; i < kEntries; ++i) cache->setData(bytes, key(i), 3600);
    settle(*cache);  // every file on disk and the index saved
    std::size_t total = 0;
    for (int i = 0; i < kEntries; ++i) total += cache->dataForKey(key(i))->size();
    if (total != kEntries * kEntryBytes) state.SkipWithError("lost entries");
  }
  state.SetBytesProcessed(state.iterations() * kEntries * kEntryBytes * 2);
  state.SetItemsProcessed(state.iterations() * kEntries);
}

void BM_SetThenGet_DirectFiles(benchmark::State& state) {
  const Data bytes = payload();
  std::string dir = VQCache::cacheDirectory() + "-direct";
  for (auto _ : state) {
    state.PauseTiming();
    emptyDirectory(dir);
    state.ResumeTiming();
    for (int i = 0; i < kEntries; ++i)
      (void)FileManager::writeAtomically(dir + "/" + key(i), bytes);
    std::size_t total = 0;
    for (int i = 0; i < kEntries; ++i)
      total += FileManager::contentsAtPath(dir + "/" + key(i))->size();
    if (total != kEntries * kEntryBytes) state.SkipWithError("lost files");
  }
  std::filesystem::remove_all(dir);
  state.SetBytesProcessed(state.iterations() * kEntries * kEntryBytes * 2);
  state.SetItemsProcessed(state.iterations() * kEntries);
}

// Writes an index of kIndexEntries fresh entries (no files needed: start-up
// only deletes the files of expired entries).
void writeLargeIndex() {
  emptyDirectory(VQCache::cacheDirectory());
  nimb::Dictionary index;
  auto expiry = nimb::Date::now().addingTimeInterval(86400);
  for (int i = 0; i < kIndexEntries; ++i) index.emplace(key(i), expiry);
  (void)nimb::PropertyList::writeToFile(index, VQCache::pathForKey(VQCache::kIndexFileName));
}

void BM_StartUp100k_VQCache(benchmark::State& state) {
  writeLargeIndex();
  for (auto _ : state) {
    auto cache = VQCache::create();
    if (cache->cacheDictionary().size() != kIndexEntries) state.SkipWithError("index not read");
  }
  state.SetItemsProcessed(state.iterations() * kIndexEntries);
}

// Heap memory in use, in MB: what the process holds, whether or not
// freed blocks were given back to the system.
double heapMegabytes() {
  const struct mallinfo2 info = ::mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd) / 1e6;
}

void BM_StartUp600k_VQCache(benchmark::State& state) {
  constexpr int kLarge = 600'000;
  emptyDirectory(VQCache::cacheDirectory());
  // Written as text: building a 600,000-entry tree to serialise it would
  // cost more than the measurement.
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
  for (int i = 0; i < kLarge; ++i)
    xml += "\t<key>" + key(i) + "</key>\n\t<date>2060-06-01T12:30:45Z</date>\n";
  xml += "</dict>\n</plist>\n";
  (void)FileManager::writeAtomically(VQCache::pathForKey(VQCache::kIndexFileName), xml);
  xml = {};
  double held = 0;
  for (auto _ : state) {
    const double before = heapMegabytes();
    auto cache = VQCache::create();
    held = heapMegabytes() - before;
    if (cache->cacheDictionary().size() != kLarge) state.SkipWithError("index not read");
  }
  state.counters["held_MB"] = held;
  state.SetItemsProcessed(state.iterations() * kLarge);
}

void BM_StartUp100k_ParseIndexOnly(benchmark::State& state) {
  writeLargeIndex();
  std::string path = VQCache::pathForKey(VQCache::kIndexFileName);
  for (auto _ : state) {
    auto dict = nimb::PropertyList::dictionaryWithContentsOfFile(path);
    benchmark::DoNotOptimize(dict);
  }
  state.SetItemsProcessed(state.iterations() * kIndexEntries);
}

void BM_StartUp100k_LibplistParse(benchmark::State& state) {
  writeLargeIndex();
  auto bytes = FileManager::contentsAtPath(VQCache::pathForKey(VQCache::kIndexFileName));
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_xml(reinterpret_cast<const char*>(bytes->data()),
                   static_cast<std::uint32_t>(bytes->size()), &root);
    if (plist_dict_get_size(root) != kIndexEntries) state.SkipWithError("index not parsed");
    plist_free(root);
  }
  state.SetItemsProcessed(state.iterations() * kIndexEntries);
}

void BM_Save100k_VQCache(benchmark::State& state) {
  writeLargeIndex();
  auto cache = VQCache::create();
  // The first save after start-up reads the file back once; the later ones
  // only check it is still the one they wrote. Measured: the later ones.
  cache->removeCacheForKey(key(kIndexEntries / 2));
  for (auto _ : state) cache->removeCacheForKey(key(kIndexEntries / 2));
  state.SetItemsProcessed(state.iterations() * kIndexEntries);
}

void BM_Save100k_WriteWholeIndex(benchmark::State& state) {
  writeLargeIndex();
  auto cache = VQCache::create();
  const std::string path = VQCache::pathForKey(VQCache::kIndexFileName);
  for (auto _ : state) {
    nimb::Dictionary index;
    for (const auto& [k, expiry] : cache->cacheDictionary())
      index.emplace_hint(index.end(), k, expiry);
    (void)nimb::PropertyList::writeToFile(index, path);
  }
  state.SetItemsProcessed(state.iterations() * kIndexEntries);
}

BENCHMARK(BM_SetThenGet_DirectFiles)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);
BENCHMARK(BM_SetThenGet_VQCache)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);
BENCHMARK(BM_StartUp100k_LibplistParse)->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK(BM_StartUp100k_ParseIndexOnly)->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK(BM_StartUp100k_VQCache)->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK(BM_StartUp600k_VQCache)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);
BENCHMARK(BM_Save100k_WriteWholeIndex)->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK(BM_Save100k_VQCache)->Unit(benchmark::kMillisecond)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
  // Work in a private temporary cache, never the user's.
  std::string home = std::filesystem::temp_directory_path().string() + "/nimb-bench-XXXXXX";
  if (!mkdtemp(home.data())) return 1;
  setenv("XDG_CACHE_HOME", home.c_str(), 1);

  int status =
      nimb::bench::runWithRatios(argc, argv,
                                 {{"BM_SetThenGet_VQCache", "BM_SetThenGet_DirectFiles"},
                                  {"BM_StartUp100k_VQCache", "BM_StartUp100k_ParseIndexOnly"},
                                  {"BM_StartUp100k_ParseIndexOnly", "BM_StartUp100k_LibplistParse"},
                                  {"BM_StartUp100k_VQCache", "BM_StartUp100k_LibplistParse"},
                                  {"BM_Save100k_VQCache", "BM_Save100k_WriteWholeIndex"}});
  std::filesystem::remove_all(home);
  return status;
}
