// Image loader benchmark: 1,000 JPEGs of 640x480 (about 60 KB each, made
// here) served from memory by a loopback server, through VQImageLoader and
// its disk cache, against plain pipelines measured in the same run:
//   - cold: download, one file per image, decode to RGBA. The loader works
//     from the main run loop; the floor is libcurl multi with 16 transfers
//     in flight, writing each body as it completes, and turbojpeg on 2
//     threads, with a one-thread pipeline as a reference;
//   - warm: the same images again from their files, through imageForURL and
//     the cache, against reading and decoding those files on 2 threads;
//   - peak memory (VmHWM) of one cold run of the loader and of the floor.
// Every measure ends when all pixels are decoded and all files written.
// Wall-clock figures on a shared 2-core machine swing with its other work;
// repetitions are interleaved at random and the ratios use medians.
#include <benchmark/benchmark.h>

#include <curl/curl.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Images/VQImageLoader.h>
#include <NimbFoundation/Platform/Concurrency/NotificationCenter.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

#include "../tests/HttpTestServer.h"
#include "BenchSupport.h"

extern char** environ;

namespace {

constexpr int kImages = 1000;
constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr std::size_t kTargetMeanBytes = 60 * 1024;
constexpr std::size_t kInFlight = 16;  // transfers of the plain floor
constexpr int kDecodeThreads = 2;      // the plain floor's decoders, one per core here
// The loader's JPEG decode uses the accurate IDCT; the floor does the same work.
constexpr int kDecodeFlags = TJFLAG_ACCURATEDCT;

// --- The corpus ---

// Gradients, a few flat rectangles and noise, all varying per image, so
// sizes spread around the mean as photographs' do.
std::vector<std::uint8_t> syntheticPixels(int index) {
  std::uint64_t s = 0x9E3779B97F4A7C15ull * static_cast<std::uint64_t>(index + 1);
  auto next = [&s] {
    s ^= s << 13, s ^= s >> 7, s ^= s << 17;
    return s;
  };
  int from[3], to[3];
  for (int c = 0; c < 3; ++c) from[c] = next() % 256, to[c] = next() % 256;
  const int dx = static_cast<int>(next() % 5) - 2, dy = static_cast<int>(next() % 5) - 2;
  const int span = std::max(1, std::abs(dx) * kWidth + std::abs(dy) * kHeight);
  const int noise = 8 + static_cast<int>(next() % 24);
  struct Rect {
    int x0, y0, x1, y1;
    std::uint8_t rgb[3];
  } rects[4];
  for (auto& r : rects) {
    r.x0 = next() % kWidth, r.y0 = next() % kHeight;
    r.x1 = r.x0 + static_cast<int>(next() % 200), r.y1 = r.y0 + static_cast<int>(next() % 150);
    for (auto& v : r.rgb) v = static_cast<std::uint8_t>(next());
  }
  std::vector<std::uint8_t> rgb(static_cast<std::size_t>(kWidth) * kHeight * 3);
  std::uint8_t* p = rgb.data();
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      int t = dx * x + dy * y;
      t = ((t % span) + span) % span;
      const std::uint8_t* flat = nullptr;
      for (const auto& r : rects)
        if (x >= r.x0 && x < r.x1 && y >= r.y0 && y < r.y1) flat = r.rgb;
      std::uint64_t bits = next();
      for (int c = 0; c < 3; ++c, bits >>= 16) {
        int v = flat ? flat[c] : from[c] + (to[c] - from[c]) * t / span;
        v += static_cast<int>(bits % (2 * noise + 1)) - noise;
        *p++ = static_cast<std::uint8_t>(std::clamp(v, 0, 255));
      }
    }
  }
  return rgb;
}

std::string compressJpeg(tjhandle tj, const std::vector<std::uint8_t>& rgb, int quality) {
  unsigned char* out = nullptr;
  unsigned long size = 0;
  if (tjCompress2(tj, rgb.data(), kWidth, 0, kHeight, TJPF_RGB, &out, &size, TJSAMP_420, quality,
                  0) != 0) {
    std::fprintf(stderr, "tjCompress2: %s\n", tjGetErrorStr2(tj));
    std::exit(1);
  }
  std::string jpeg(reinterpret_cast<const char*>(out), size);
  tjFree(out);
  return jpeg;
}

// The one quality, found on a sample, that puts the mean near the target.
int tuneQuality(tjhandle tj) {
  std::vector<std::vector<std::uint8_t>> sample;
  for (int i = 0; i < kImages; i += 50) sample.push_back(syntheticPixels(i));
  auto meanAt = [&](int quality) {
    std::size_t total = 0;
    for (const auto& rgb : sample) total += compressJpeg(tj, rgb, quality).size();
    return total / sample.size();
  };
  int lo = 10, hi = 98;
  while (lo < hi) {
    int mid = (lo + hi) / 2;
    if (meanAt(mid) < kTargetMeanBytes)
      lo = mid + 1;
    else
      hi = mid;
  }
  return lo;
}

const std::vector<std::string>& corpus() {
  static const auto* jpegs = [] {
    tjhandle tj = tjInitCompress();
    const int quality = tuneQuality(tj);
    tjDestroy(tj);
    auto* out = new std::vector<std::string>(kImages);
    std::vector<std::thread> threads;
    for (int t = 0; t < kDecodeThreads; ++t) {
      threads.emplace_back([out, quality, t] {
        tjhandle tj = tjInitCompress();
        for (int i = t; i < kImages; i += kDecodeThreads)
          (*out)[i] = compressJpeg(tj, syntheticPixels(i), quality);
        tjDestroy(tj);
      });
    }
    for (auto& thread : threads) thread.join();
    std::size_t total = 0;
    for (const auto& j : *out) total += j.size();
    std::printf("Corpus: %d JPEGs of %dx%d at quality %d, mean %.1f KB\n", kImages, kWidth, kHeight,
                quality, total / 1024.0 / kImages);
    return out;
  }();
  return *jpegs;
}

// --- The server ---

nimb::test::HttpTestServer& server() {
  static auto* s = [] {
    // Workers for the floor's 16 connections, the loader's, and idle
    // keep-alive ones of the side that ran before.
    auto* srv = new nimb::test::HttpTestServer(32);
    const auto& jpegs = corpus();
    srv->server().set_keep_alive_max_count(100000);
    srv->server().Get(R"(/img/(\d+))",
                      [&jpegs](const httplib::Request& req, httplib::Response& res) {
                        std::size_t i = std::stoul(req.matches[1]);
                        if (i < jpegs.size())
                          res.set_content(jpegs[i], "image/jpeg");
                        else
                          res.status = 404;
                      });
    srv->start();
    return srv;
  }();
  return *s;
}

// Each cold run of the loader asks for URLs no run asked for before (the
// server ignores the query), so every key misses a cache that only grows.
// Clearing the cache between runs instead would make each run create 1,000
// files right after deleting as many, which on this kind of file system
// (ext4 without a journal) is several times slower than creating them in a
// directory left alone, and the floor would not pay it.
std::vector<std::string> urlsFor(const std::string& base, const std::string& run) {
  std::vector<std::string> urls;
  for (int i = 0; i < kImages; ++i)
    urls.push_back(base + "/img/" + std::to_string(i) + "?run=" + run);
  return urls;
}

std::string serverBase() {
  return server().url("");
}

// --- Shared helpers ---

std::string scratchRoot() {
  const char* home = std::getenv("XDG_CACHE_HOME");
  return home ? home : std::filesystem::temp_directory_path().string();
}

bool writeFile(const std::string& path, const std::uint8_t* data, std::size_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool ok = true;
  while (ok && size > 0) {
    ssize_t n = ::write(fd, data, size);
    ok = n > 0;
    if (ok) data += n, size -= static_cast<std::size_t>(n);
  }
  return ::close(fd) == 0 && ok;
}

std::vector<std::uint8_t> readFile(const std::string& path) {
  std::vector<std::uint8_t> bytes;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return bytes;
  struct stat st {};
  if (::fstat(fd, &st) == 0) {
    bytes.resize(static_cast<std::size_t>(st.st_size));
    std::size_t done = 0;
    while (done < bytes.size()) {
      ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    bytes.resize(done);
  }
  ::close(fd);
  return bytes;
}

using Pixels = std::unique_ptr<std::uint8_t[]>;

// RGBA into a fresh buffer (not cleared first: every byte is written), kept
// by the caller as an application keeps what it shows.
Pixels decodeRgba(tjhandle tj, const std::vector<std::uint8_t>& jpeg) {
  int w = 0, h = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(tj, jpeg.data(), jpeg.size(), &w, &h, &subsampling, &colorspace) != 0 ||
      w != kWidth || h != kHeight) {
    return nullptr;
  }
  Pixels out(new std::uint8_t[static_cast<std::size_t>(w) * h * 4]);
  if (tjDecompress2(tj, jpeg.data(), jpeg.size(), out.get(), w, 0, h, TJPF_RGBA, kDecodeFlags) !=
      0) {
    return nullptr;
  }
  return out;
}

// Starts a run with nothing of an earlier one left to write back.
void settleDisk() {
  ::sync();
}

// --- The loader ---

// Loads every URL through `loader` from the main thread; returns once all
// have posted, all pixels are decoded and the cache's files are written.
// The number of failures.
std::size_t loadThroughLoader(nimb::VQImageLoader& loader, const std::vector<std::string>& urls,
                              std::vector<std::shared_ptr<const nimb::Image>>& images) {
  std::size_t posted = 0;
  auto observer = std::make_shared<nimb::VQImageLoaderObserver>();
  observer->imageLoaderDidLoad = [&](const nimb::Notification& n) {
    ++posted;
    if (auto image = n.get<std::shared_ptr<const nimb::Image>>("image")) images.push_back(*image);
  };
  observer->imageLoaderDidFailToLoad = [&](const nimb::Notification&) { ++posted; };
  for (const auto& u : urls) loader.loadImageForURL(nimb::URL::withString(u), observer);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (posted < urls.size() && std::chrono::steady_clock::now() < deadline)
    nimb::RunLoop::main().runOnce(0.01);
  std::size_t failed = urls.size() - images.size();
  for (const auto& image : images) failed += image->bitmap().width != kWidth;
  nimb::VQCache::currentCache()->diskOperationQueue().waitUntilAllOperationsAreFinished();
  return failed;
}

// Lets the index save (0.3 s after the last set, on the main run loop) run
// outside the measures.
void settleLoader() {
  nimb::RunLoop::main().runUntilIdle(10);
  nimb::VQCache::currentCache()->diskOperationQueue().waitUntilAllOperationsAreFinished();
}

int coldRuns = 0;

void BM_Cold_VQImageLoader(benchmark::State& state) {
  const auto urls = urlsFor(serverBase(), std::to_string(++coldRuns));
  nimb::NotificationCenter center;
  auto loader = nimb::VQImageLoader::create({nullptr, &center, nullptr});
  std::vector<std::shared_ptr<const nimb::Image>> images;
  images.reserve(urls.size());
  settleDisk();
  for (auto _ : state) {
    if (loadThroughLoader(*loader, urls, images) != 0) state.SkipWithError("images lost");
  }
  images.clear();
  settleLoader();
  state.SetItemsProcessed(state.iterations() * kImages);
}

// The URLs of the warm runs, loaded once through the loader before any
// measure, so their files are in the cache.
const std::vector<std::string>& warmUrls() {
  static const auto* urls = [] {
    auto* u = new std::vector<std::string>(urlsFor(serverBase(), "warm"));
    nimb::NotificationCenter center;
    auto loader = nimb::VQImageLoader::create({nullptr, &center, nullptr});
    std::vector<std::shared_ptr<const nimb::Image>> images;
    if (loadThroughLoader(*loader, *u, images) != 0) {
      std::fprintf(stderr, "warm-up load failed\n");
      std::exit(1);
    }
    settleLoader();
    return u;
  }();
  return *urls;
}

void BM_Warm_VQImageLoader(benchmark::State& state) {
  std::vector<std::optional<nimb::URL>> urls;
  for (const auto& u : warmUrls()) urls.push_back(nimb::URL::withString(u));
  auto loader = nimb::VQImageLoader::create();
  std::vector<std::shared_ptr<const nimb::Image>> images;
  images.reserve(urls.size());
  for (auto _ : state) {
    std::size_t failed = 0;
    for (const auto& u : urls) {
      if (auto image = loader->imageForURL(u, nullptr, false))
        images.push_back(std::move(image));
      else
        ++failed;
    }
    for (const auto& image : images) failed += image->bitmap().width != kWidth;
    if (failed) state.SkipWithError("images lost");
  }
  images.clear();
  state.SetItemsProcessed(state.iterations() * kImages);
}

// --- The plain floor ---

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* out) {
  auto* body = static_cast<std::vector<std::uint8_t>*>(out);
  body->insert(body->end(), data, data + size * count);
  return size * count;
}

// Fetches every URL with libcurl multi on the calling thread, kInFlight at a
// time, handing each complete body to `done` in completion order. The
// number of failed transfers.
std::size_t fetchAll(const std::vector<std::string>& urls,
                     const std::function<void(std::size_t, std::vector<std::uint8_t>&&)>& done) {
  CURLM* multi = curl_multi_init();
  std::vector<std::vector<std::uint8_t>> bodies(urls.size());
  std::size_t next = 0, held = 0, finished = 0, failed = 0;
  auto refill = [&] {
    for (; next < urls.size() && held < kInFlight; ++next, ++held) {
      CURL* easy = curl_easy_init();
      curl_easy_setopt(easy, CURLOPT_URL, urls[next].c_str());
      curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip");  // as the loader asks
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, appendBody);
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &bodies[next]);
      curl_easy_setopt(easy, CURLOPT_PRIVATE, reinterpret_cast<char*>(next));
      curl_multi_add_handle(multi, easy);
    }
  };
  refill();
  while (finished < urls.size()) {
    int running = 0;
    curl_multi_perform(multi, &running);
    while (CURLMsg* msg = curl_multi_info_read(multi, &running)) {
      if (msg->msg != CURLMSG_DONE) continue;
      char* tag = nullptr;
      curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, &tag);
      const auto index = reinterpret_cast<std::size_t>(tag);
      if (msg->data.result == CURLE_OK)
        done(index, std::move(bodies[index]));
      else
        ++failed;
      ++finished, --held;
      curl_multi_remove_handle(multi, msg->easy_handle);
      curl_easy_cleanup(msg->easy_handle);
    }
    refill();
    if (finished < urls.size()) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  curl_multi_cleanup(multi);
  return failed;
}

// Bodies waiting to be decoded, fed as transfers complete.
class WorkQueue {
 public:
  struct Job {
    std::size_t index;
    std::shared_ptr<const std::vector<std::uint8_t>> body;
  };
  void push(Job job) {
    {
      std::lock_guard lock(mutex_);
      jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
  }
  void close() {
    {
      std::lock_guard lock(mutex_);
      closed_ = true;
    }
    ready_.notify_all();
  }
  // False once closed and drained.
  bool pop(Job& job) {
    std::unique_lock lock(mutex_);
    ready_.wait(lock, [this] { return closed_ || !jobs_.empty(); });
    if (jobs_.empty()) return false;
    job = std::move(jobs_.front());
    jobs_.pop_front();
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Job> jobs_;
  bool closed_ = false;
};

// One file per body in `dir`: open, write, close (no temporary file and
// rename as the cache does).
bool store(const std::string& dir, std::size_t index, const std::vector<std::uint8_t>& body) {
  return writeFile(dir + "/" + std::to_string(index), body.data(), body.size());
}

// A fresh, empty folder per run; nothing is deleted until the program ends,
// for the same reason as the loader's distinct URLs.
int plainRuns = 0;
std::string freshFolder() {
  std::string dir = scratchRoot() + "/plain-" + std::to_string(++plainRuns);
  std::filesystem::create_directories(dir);
  return dir;
}

// The cold floor: transfers and file writes on the calling thread, decoding
// on kDecodeThreads workers. The writes stay off the decoders because a
// write here can block for milliseconds (creating files on a busy disk), and
// the loader's cache writes on threads of its own too.
// The number of failures.
std::size_t coldPlainTwoThreads(const std::vector<std::string>& urls, const std::string& dir,
                                std::vector<Pixels>& pixels) {
  WorkQueue queue;
  std::atomic<std::size_t> failed{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < kDecodeThreads; ++t) {
    workers.emplace_back([&] {
      tjhandle tj = tjInitDecompress();
      WorkQueue::Job job;
      while (queue.pop(job))
        if (!(pixels[job.index] = decodeRgba(tj, *job.body))) ++failed;
      tjDestroy(tj);
    });
  }
  failed += fetchAll(urls, [&](std::size_t index, std::vector<std::uint8_t>&& body) {
    auto shared = std::make_shared<const std::vector<std::uint8_t>>(std::move(body));
    queue.push({index, shared});  // decoding starts before the write
    if (!store(dir, index, *shared)) ++failed;
  });
  queue.close();
  for (auto& worker : workers) worker.join();
  return failed;
}

void BM_Cold_CurlTurbo2Threads(benchmark::State& state) {
  const auto urls = urlsFor(serverBase(), "plain");
  const std::string dir = freshFolder();
  std::vector<Pixels> pixels(urls.size());
  settleDisk();
  for (auto _ : state) {
    if (coldPlainTwoThreads(urls, dir, pixels) != 0) state.SkipWithError("images lost");
  }
  pixels.clear();
  state.SetItemsProcessed(state.iterations() * kImages);
}

// The same on one thread: each body is written and decoded as it completes,
// in the transfer loop.
void BM_Cold_CurlTurbo1Thread(benchmark::State& state) {
  const auto urls = urlsFor(serverBase(), "plain");
  const std::string dir = freshFolder();
  std::vector<Pixels> pixels(urls.size());
  settleDisk();
  for (auto _ : state) {
    tjhandle tj = tjInitDecompress();
    std::size_t failed = 0;
    std::size_t lost = fetchAll(urls, [&](std::size_t index, std::vector<std::uint8_t>&& body) {
      failed += !store(dir, index, body);
      failed += !(pixels[index] = decodeRgba(tj, body));
    });
    tjDestroy(tj);
    if (failed + lost) state.SkipWithError("images lost");
  }
  pixels.clear();
  state.SetItemsProcessed(state.iterations() * kImages);
}

// The warm floor reads the very files the warm loader reads.
void BM_Warm_FilesTurbo2Threads(benchmark::State& state) {
  std::vector<std::string> paths;
  for (const auto& u : warmUrls())
    paths.push_back(
        nimb::VQCache::pathForKey(nimb::VQImageLoader::keyForURL(*nimb::URL::withString(u))));
  std::vector<Pixels> pixels(paths.size());
  for (auto _ : state) {
    std::atomic<std::size_t> next{0}, failed{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < kDecodeThreads; ++t) {
      workers.emplace_back([&] {
        tjhandle tj = tjInitDecompress();
        for (std::size_t i; (i = next++) < paths.size();)
          if (!(pixels[i] = decodeRgba(tj, readFile(paths[i])))) ++failed;
        tjDestroy(tj);
      });
    }
    for (auto& worker : workers) worker.join();
    if (failed) state.SkipWithError("images lost");
  }
  pixels.clear();
  state.SetItemsProcessed(state.iterations() * kImages);
}

BENCHMARK(BM_Cold_CurlTurbo1Thread)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(3);
BENCHMARK(BM_Cold_CurlTurbo2Threads)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);
BENCHMARK(BM_Cold_VQImageLoader)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);
BENCHMARK(BM_Warm_FilesTurbo2Threads)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);
BENCHMARK(BM_Warm_VQImageLoader)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);

// --- Peak memory ---
//
// VmHWM is the process's peak resident size, which only grows, so each side
// gets a process of its own: this program started again with a flag, which
// makes one cold run against the server of the parent (so the corpus and
// the server are not counted) and prints its VmHWM. Both children hold all
// 1,000 decoded images at the end, as the measured runs do.

constexpr const char* kPeakFlag = "--peak-child=";
constexpr const char* kBaseFlag = "--peak-base=";
constexpr const char* kProfileFlag = "--profile=";

long vmHwmKb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
  return -1;
}

// One cold run of `side`, "loader" or "plain", holding every picture to
// the end; `atEnd` runs while they are still held, before the loader's
// index save. The number of failures.
std::size_t coldRun(const std::string& side, const std::vector<std::string>& urls,
                    const std::function<void()>& atEnd) {
  std::size_t failed = 0;
  if (side == "loader") {
    nimb::NotificationCenter center;
    auto loader = nimb::VQImageLoader::create({nullptr, &center, nullptr});
    std::vector<std::shared_ptr<const nimb::Image>> images;
    failed = loadThroughLoader(*loader, urls, images);
    atEnd();
    settleLoader();
  } else {
    std::vector<Pixels> pixels(urls.size());
    failed = coldPlainTwoThreads(urls, freshFolder(), pixels);
    atEnd();
  }
  return failed;
}

// The child's side: one cold run of `kind` ("loader" or "plain").
int peakChild(const std::string& kind, const std::string& base) {
  std::string home = std::filesystem::temp_directory_path().string() + "/nimb-bench-XXXXXX";
  if (!mkdtemp(home.data())) return 1;
  setenv("XDG_CACHE_HOME", home.c_str(), 1);
  long peak = -1;
  const std::size_t failed = coldRun(kind, urlsFor(base, "peak"), [&peak] { peak = vmHwmKb(); });
  std::filesystem::remove_all(home);
  std::printf("%ld\n", failed ? -1 : peak);
  return 0;
}

// Runs a child for `kind` and returns its VmHWM in kB, or -1.
long peakOf(const char* argv0, const std::string& kind) {
  int out[2];
  if (::pipe(out) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::string peak = kPeakFlag + kind, base = kBaseFlag + serverBase();
  char* args[] = {const_cast<char*>(argv0), peak.data(), base.data(), nullptr};
  pid_t pid = 0;
  int spawned = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, args, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  std::string text;
  char buffer[256];
  for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  ::close(out[0]);
  int status = 0;
  if (spawned != 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return -1;
  }
  return std::atol(text.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  for (int i = 1; i + 1 < argc; ++i) {
    std::string kind = argv[i], base = argv[i + 1];
    if (kind.rfind(kPeakFlag, 0) == 0 && base.rfind(kBaseFlag, 0) == 0)
      return peakChild(kind.substr(std::strlen(kPeakFlag)), base.substr(std::strlen(kBaseFlag)));
  }

  // Work in a private temporary cache, never the user's.
  std::string home = std::filesystem::temp_directory_path().string() + "/nimb-bench-XXXXXX";
  if (!mkdtemp(home.data())) return 1;
  setenv("XDG_CACHE_HOME", home.c_str(), 1);

  server();
  // --profile=loader|plain: five cold runs of one side and nothing else, for
  // a profiler. It prints when the corpus is ready, so `perf record -D`
  // can skip making it.
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind(kProfileFlag, 0) != 0) continue;
    const std::string side = arg.substr(std::strlen(kProfileFlag));
    std::fprintf(stderr, "corpus ready\n");
    for (int run = 0; run < 5; ++run) {
      const auto urls = urlsFor(serverBase(), "profile" + std::to_string(run));
      const auto start = std::chrono::steady_clock::now();
      double ms = 0;
      const std::size_t failed = coldRun(side, urls, [&] {
        ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                 .count();
      });
      std::printf("%s run %d: %.0f ms, %zu failed\n", side.c_str(), run, ms, failed);
    }
    server().stop();
    std::filesystem::remove_all(home);
    return 0;
  }
  // The children run one at a time, before the measures, on a quiet server.
  const long loaderPeak = peakOf(argv[0], "loader");
  const long plainPeak = peakOf(argv[0], "plain");
  // One-time costs (the cache's start-up, the network thread, the decode
  // pool) are paid here, outside the measures.
  warmUrls();

  int status = nimb::bench::runWithRatios(
      argc, argv,
      {{"BM_Cold_VQImageLoader", "BM_Cold_CurlTurbo2Threads"},
       {"BM_Cold_VQImageLoader", "BM_Cold_CurlTurbo1Thread"},
       {"BM_Cold_CurlTurbo1Thread", "BM_Cold_CurlTurbo2Threads"},
       {"BM_Warm_VQImageLoader", "BM_Warm_FilesTurbo2Threads"}},
      [&](const nimb::bench::RatioReporter& r) {
        auto ratio = [&](const char* a, const char* b) {
          double x = r.seconds(a), y = r.seconds(b);
          return x > 0 && y > 0 ? x / y : -1.0;
        };
        auto target = [&](const char* label, const char* a, const char* b, double limit) {
          double x = ratio(a, b);
          if (x > 0) std::printf("  %-38s %5.2f  (target <= %.2f)\n", label, x, limit);
        };
        std::printf("\nTargets:\n");
        target("cold loader / cold plain (2 threads)", "BM_Cold_VQImageLoader",
               "BM_Cold_CurlTurbo2Threads", 1.1);
        const double cpu = r.cpuSeconds("BM_Cold_VQImageLoader"),
                     cpuPlain = r.cpuSeconds("BM_Cold_CurlTurbo2Threads");
        if (cpu > 0 && cpuPlain > 0)
          std::printf("  %-38s %5.2f  (target <= %.2f)\n", "cold CPU, loader / plain (2 threads)",
                      cpu / cpuPlain, 1.1);
        target("warm loader / warm plain (2 threads)", "BM_Warm_VQImageLoader",
               "BM_Warm_FilesTurbo2Threads", 1.2);
        std::printf("\nPeak resident memory (VmHWM) of one cold run, in a process of its own:\n");
        std::printf("  VQImageLoader              %8.1f MB\n", loaderPeak / 1024.0);
        std::printf("  curl + turbojpeg, 2 threads %7.1f MB\n", plainPeak / 1024.0);
        if (loaderPeak > 0 && plainPeak > 0)
          std::printf("  ratio                      %8.2f\n",
                      static_cast<double>(loaderPeak) / plainPeak);
      });
  server().stop();
  std::filesystem::remove_all(home);
  curl_global_cleanup();
  return status;
}
