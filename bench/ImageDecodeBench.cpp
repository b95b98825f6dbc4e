// Decoding for the size a picture is shown at, against decoding it whole:
// 200 photos of 4000x3000 (JPEG, quality 85) shown in 200 views of 200x200
// pixels. Every decoded image is kept until all 200 are done, as the views
// on screen would hold them. Each mode runs in its own child process, so
// its peak memory (ru_maxrss from wait4) is its own.
//
// Run: ImageDecodeBench [count]   (default 200)
#include <NimbFoundation/Platform/Graphics/Image.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <random>
#include <vector>

namespace {

using nimb::Image;
using nimb::PixelSize;

constexpr int kWidth = 4000, kHeight = 3000;

// A few photographic-looking pictures: broad gradients, a soft disc, noise.
std::vector<nimb::Data> encodePhotos(int count) {
  std::vector<nimb::Data> out;
  std::mt19937 random(7);
  for (int n = 0; n < count; ++n) {
    nimb::Bitmap bm{kWidth, kHeight, nimb::Data(std::size_t(kWidth) * kHeight * 4)};
    std::uint8_t* p = bm.rgba.data();
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x, p += 4) {
        const int dx = x - 1500 - 500 * n, dy = y - 1400;
        const int disc = dx * dx + dy * dy < 900 * 900 ? 60 : 0;
        const int noise = int(random() % 17) - 8;
        p[0] = std::uint8_t(std::clamp(x * 200 / kWidth + disc + noise, 0, 255));
        p[1] = std::uint8_t(std::clamp(y * 180 / kHeight + 40 + noise, 0, 255));
        p[2] = std::uint8_t(std::clamp(255 - (x + y) * 150 / (kWidth + kHeight) + noise, 0, 255));
        p[3] = 255;
      }
    }
    auto jpeg = Image::withBitmap(std::move(bm))->jpegRepresentation(85);
    if (!jpeg) std::abort();
    out.push_back(std::move(*jpeg));
  }
  return out;
}

// Makes `count` images from the photos and keeps them all until every one is
// decoded; returns the wall time in seconds. The bytes arrive one picture at
// a time, as from a feed: at most a few wait for the decode pool at once.
double decodeAll(const std::vector<nimb::Data>& photos, int count, PixelSize decodeFor) {
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::shared_ptr<const Image>> views;
  for (int i = 0; i < count; ++i) {
    auto image = Image::withData(photos[std::size_t(i) % photos.size()], 1.0, decodeFor);
    if (!image) std::abort();
    views.push_back(std::move(image));
    if (i >= 4) views[std::size_t(i) - 4]->waitUntilDecoded();
  }
  for (const auto& image : views) {
    if (image->bitmap().rgba.empty()) std::abort();
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Result {
  double seconds = -1;
  double peakMB = -1;
  int width = 0, height = 0;
};

// Runs one mode in a child process; the time comes back through a pipe, the
// peak resident memory from wait4.
Result runChild(const std::vector<nimb::Data>& photos, int count, PixelSize decodeFor) {
  int fds[2];
  if (pipe(fds) != 0) std::abort();
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    Result r;
    r.seconds = decodeAll(photos, count, decodeFor);
    auto probe = Image::withData(photos[0], 1.0, decodeFor);
    r.width = probe->pixelSize().width;
    r.height = probe->pixelSize().height;
    if (write(fds[1], &r, sizeof r) != sizeof r) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  Result r;
  if (read(fds[0], &r, sizeof r) != sizeof r) r = Result{};
  close(fds[0]);
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "child failed (status %d)\n", status);
    return Result{};
  }
  r.peakMB = usage.ru_maxrss / 1024.0;  // kilobytes on Linux
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 200;
  if (count <= 0) return 2;
  // Encoded once, before any decode thread exists, so each child starts
  // from the same few megabytes of JPEG.
  const std::vector<nimb::Data> photos = encodePhotos(3);
  std::size_t bytes = 0;
  for (const auto& p : photos) bytes += p.size();
  rusage self{};
  getrusage(RUSAGE_SELF, &self);
  std::printf("%d JPEGs of %dx%d (3 distinct, %.1f MB encoded), shown at 200x200\n", count, kWidth,
              kHeight, bytes / 1048576.0);
  std::printf("parent peak before the children (encoding): %.0f MB\n", self.ru_maxrss / 1024.0);
  const Result scaled = runChild(photos, count, PixelSize{200, 200});
  const Result full = runChild(photos, count, PixelSize{});
  if (scaled.seconds <= 0 || full.seconds <= 0) return 1;
  std::printf("%-16s decoded %4dx%-4d  %8.3f s  peak %9.1f MB\n", "full decode", full.width,
              full.height, full.seconds, full.peakMB);
  std::printf("%-16s decoded %4dx%-4d  %8.3f s  peak %9.1f MB\n", "decode for size", scaled.width,
              scaled.height, scaled.seconds, scaled.peakMB);
  std::printf("decode for size: %.1fx faster, %.1fx less peak memory (targets 8x and 20x)\n",
              full.seconds / scaled.seconds, full.peakMB / scaled.peakMB);
  return 0;
}
