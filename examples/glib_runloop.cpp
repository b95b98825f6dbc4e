// A GLib application that turns the kit's main run loop from its own
// GMainLoop: a VQImageView loads a picture from a loopback server while
// g_main_loop_run() runs. The kit's loop is attached through its descriptor
// (GLibRunLoopSource.h), so the load takes as long as the download and the
// decode, whatever else the application's loop does.
//
// For comparison it also loads with the older way, a GLib timeout calling
// RunLoop::runOnce(0) every 10 ms and every 200 ms, and prints the median
// load time of each:
//   glib_runloop [loads per mode, default 5]
// The loader's disk cache lives under $HOME: run it with a scratch HOME.
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <NimbFoundation/Images/VQImageView.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Net/URL.h>

#include "GLibRunLoopSource.h"

namespace {

using Clock = std::chrono::steady_clock;

// A 640x480 JPEG of gradients and noise, about the size of a photo thumbnail.
std::string makePicture() {
  nimb::Bitmap bitmap{640, 480, std::vector<std::uint8_t>(640 * 480 * 4)};
  std::uint32_t seed = 12345;
  for (int y = 0; y < bitmap.height; ++y) {
    for (int x = 0; x < bitmap.width; ++x) {
      seed = seed * 1664525u + 1013904223u;
      auto* p = &bitmap.rgba[static_cast<std::size_t>(y * bitmap.width + x) * 4];
      const int noise = static_cast<int>(seed >> 27);
      p[0] = static_cast<std::uint8_t>((x * 255 / 640 + noise) & 0xff);
      p[1] = static_cast<std::uint8_t>((y * 255 / 480 + noise) & 0xff);
      p[2] = static_cast<std::uint8_t>(((x + y) / 5 + noise) & 0xff);
      p[3] = 255;
    }
  }
  auto jpeg = nimb::Image::withBitmap(std::move(bitmap))->jpegRepresentation(90);
  return jpeg ? std::string(jpeg->begin(), jpeg->end()) : std::string();
}

// Loads `url` into a view while `glibLoop` runs; seconds until the view shows it.
double loadOnce(GMainLoop* glibLoop, const std::string& url) {
  auto delegate = std::make_shared<nimb::VQImageViewDelegate>();
  delegate->imageViewLoadedImage = [glibLoop](nimb::VQImageView&) { g_main_loop_quit(glibLoop); };
  delegate->imageViewFailedToLoadImage = [glibLoop](nimb::VQImageView&, const nimb::Error& e) {
    std::fprintf(stderr, "load failed: %s\n", e.localizedDescription().c_str());
    g_main_loop_quit(glibLoop);
  };
  auto view = nimb::VQImageView::createWithPlaceholderImage(nullptr, delegate);
  const auto start = Clock::now();
  view->setImageURL(nimb::URL::withString(url));
  g_main_loop_run(glibLoop);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return view->status() == nimb::VQImageView::kLoaded ? seconds : -1;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? -1 : values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int loads = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const std::string picture = makePicture();
  httplib::Server server;
  server.set_keep_alive_max_count(1);  // one request a connection: stop() need not wait
  server.Get(R"(/.*)", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(picture, "image/jpeg");
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  if (port <= 0 || picture.empty()) return 1;
  std::thread serving([&] { server.listen_after_bind(); });
  std::printf("picture: %zu bytes, %d loads per mode\n", picture.size(), loads);

  GMainLoop* glibLoop = g_main_loop_new(nullptr, FALSE);
  int failures = 0;
  struct Mode {
    const char* name;
    unsigned pollMs;  // 0: the kit's GLib source
  };
  for (const Mode mode :
       {Mode{"GLib source", 0}, Mode{"poll 10 ms", 10}, Mode{"poll 200 ms", 200}}) {
    GSource* source = nullptr;
    guint timeout = 0;
    if (mode.pollMs == 0) {
      source = nimb::example::attachRunLoop(nimb::RunLoop::main(), nullptr);
    } else {
      timeout = g_timeout_add(
          mode.pollMs,
          [](gpointer) -> gboolean {
            nimb::RunLoop::main().runOnce(0);
            return G_SOURCE_CONTINUE;
          },
          nullptr);
    }
    std::vector<double> times;
    for (int i = 0; i < loads; ++i) {
      // A new URL each time, so every load downloads and decodes.
      const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/" +
                              std::to_string(mode.pollMs) + "-" + std::to_string(i) + ".jpg";
      const double seconds = loadOnce(glibLoop, url);
      if (seconds < 0)
        ++failures;
      else
        times.push_back(seconds);
    }
    std::printf("%-12s median load %.1f ms\n", mode.name, median(times) * 1000);
    if (source) {
      g_source_destroy(source);
      g_source_unref(source);
    }
    if (timeout) g_source_remove(timeout);
  }
  g_main_loop_unref(glibLoop);
  server.stop();
  serving.join();
  return failures == 0 ? 0 : 1;
}
