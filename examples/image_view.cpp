// A picture shown by URL: a VQImageView shows a placeholder, its loader
// downloads the picture from a small server inside this program, the main
// run loop turns until the view's delegate hears that the picture is in,
// and the view is drawn to a PNG file.
//   image_view [out.png, default image_view.png]
// Nothing leaves the machine: the server listens on 127.0.0.1 only. The
// loader keeps what it downloads in a cache folder of its own, made in the
// temporary folder and removed at the end, so the user's cache is untouched.
#include <httplib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Images/VQImageView.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Graphics/ViewRenderer.h>

namespace {

// A flat picture of `width` x `height` pixels in one colour.
std::shared_ptr<const nimb::Image> solid(int width, int height, std::uint8_t r, std::uint8_t g,
                                         std::uint8_t b) {
  nimb::Bitmap bitmap{width, height, {}};
  for (int i = 0; i < width * height; ++i) bitmap.rgba.insert(bitmap.rgba.end(), {r, g, b, 255});
  return nimb::Image::withBitmap(std::move(bitmap));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string outPath = argc > 1 ? argv[1] : "image_view.png";

  // 1. The picture the server hands out: 120x80 orange pixels, as PNG bytes.
  const auto png = solid(120, 80, 240, 140, 20)->pngRepresentation();
  if (!png) return 1;
  httplib::Server server;
  server.Get("/photo.png", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(std::string(png->begin(), png->end()), "image/png");
  });
  server.set_keep_alive_max_count(1);  // one request a connection: stop() need not wait
  const int port = server.bind_to_any_port("127.0.0.1");
  if (port <= 0) return 1;
  std::thread serving([&] { server.listen_after_bind(); });

  // 2. A loader on a cache folder of our own. With no options the shared
  // loader would keep pictures under $XDG_CACHE_HOME/<program>/VQCache.
  std::error_code fsError;
  std::string scratch =
      (std::filesystem::temp_directory_path(fsError) / "image_view-XXXXXX").string();
  if (!mkdtemp(scratch.data())) return 1;
  auto cache = nimb::VQCache::open({.directory = scratch + "/VQCache"});
  auto loader = nimb::VQImageLoader::create({.cache = cache});

  // 3. The view: grey placeholder at once, the picture when it is in. The
  // delegate is held by us (the view keeps only a weak reference) and stops
  // the main run loop on either outcome.
  auto delegate = std::make_shared<nimb::VQImageViewDelegate>();
  delegate->imageViewLoadedImage = [](nimb::VQImageView&) { nimb::RunLoop::main().stop(); };
  delegate->imageViewFailedToLoadImage = [](nimb::VQImageView&, const nimb::Error& error) {
    std::fprintf(stderr, "load failed: %s\n", error.localizedDescription().c_str());
    nimb::RunLoop::main().stop();
  };
  auto view =
      nimb::VQImageView::createWithPlaceholderImage(solid(8, 8, 128, 128, 128), delegate, loader);
  view->setFrame(nimb::Rect(0, 0, 240, 160));  // the picture is stretched to fill it
  std::printf("before: status %d, showing the placeholder\n", view->status());

  // 4. Setting the URL starts the download (auto-start is on); it runs and
  // reports on the main run loop, so turn it: run() returns at stop(), and
  // the delayed stop is a safety net should the server never answer.
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/photo.png";
  view->setImageURL(nimb::URL::withString(url));
  nimb::RunLoop::main().performAfterDelay(10.0, &url, "timeout",
                                          [] { nimb::RunLoop::main().stop(); });
  nimb::RunLoop::main().run();
  nimb::RunLoop::main().cancelPerforms(&url);
  std::printf("after:  status %d (1 = loaded), picture %.0fx%.0f from %s\n", view->status(),
              view->image() ? view->image()->size().width : 0,
              view->image() ? view->image()->size().height : 0, url.c_str());

  // 5. Draw the view, as a window would, and save the drawing as PNG.
  int status = 1;
  if (view->status() == nimb::VQImageView::kLoaded) {
    auto drawing = nimb::ViewRenderer::imageOfView(*view, 1.0);
    auto bytes = drawing ? drawing->pngRepresentation() : std::nullopt;
    if (bytes && std::ofstream(outPath, std::ios::binary)
                     .write(reinterpret_cast<const char*>(bytes->data()),
                            static_cast<std::streamsize>(bytes->size()))) {
      std::printf("wrote %s: %.0fx%.0f PNG, %zu bytes\n", outPath.c_str(), drawing->size().width,
                  drawing->size().height, bytes->size());
      status = 0;
    }
  }

  // 6. Let the cache finish its writes, then clean up.
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  nimb::RunLoop::main().runUntilIdle(5);
  server.stop();
  serving.join();
  std::filesystem::remove_all(scratch, fsError);
  return status;
}
