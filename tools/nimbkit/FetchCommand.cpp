// nimbkit fetch: URLs through the image loader into image views, the kit's
// main job as an application sees it; and nimbkit demo: the same on the
// project's own sample pictures, served from a loopback server, once cold
// and once warm, with a contact sheet at the end.
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

#include "Command.h"
#include "DisplayText.h"
#include "ImageFetch.h"
#include "Output.h"

namespace nimbkit {

namespace {

using nimb::Color;
using nimb::ImageContext;
using nimb::Rect;

struct FetchOptions {
  std::vector<std::string> urls;
  bool crop = false;
  std::string view = "160x160";
  std::string out = "nimbkit-fetch";
  double timeout = 60;
};

nimb::Size parseViewSize(const std::string& text) {
  double width = 0, height = 0;
  char x = 0, extra = 0;
  if (std::sscanf(text.c_str(), "%lf%c%lf%c", &width, &x, &height, &extra) != 3 || x != 'x' ||
      !(width >= 1 && width <= 4096 && height >= 1 && height <= 4096)) {
    throw UsageError("--view wants WIDTHxHEIGHT in points, 1 to 4096 each, e.g. 160x120");
  }
  return {width, height};
}

std::string absolute(const std::string& path) {
  std::error_code ec;
  auto full = std::filesystem::absolute(path, ec);
  return ec ? path : full.lexically_normal().string();
}

// Writes the contact sheet and says where; false, with the reason on
// standard error, when it could not be written.
bool finishWithSheet(const std::vector<FetchResult>& results, const FetchSettings& settings,
                     const std::string& outDirectory) {
  const std::string sheet =
      nimb::FileManager::appendingPathComponent(outDirectory, "contact-sheet.png");
  const std::string why = writeContactSheet(results, settings, sheet);
  if (why.empty()) {
    std::printf("\nContact sheet: %s\n", absolute(sheet).c_str());
  } else {
    diagnose("nimbkit: cannot write the contact sheet to %s: %s\n", escapeForDisplay(sheet).c_str(),
             why.c_str());
  }
  return why.empty();
}

int fetch(const FetchOptions& o) {
  std::vector<nimb::URL> urls;
  for (const auto& text : o.urls) {
    auto url = nimb::URL::withString(text);
    if (!url) throw UsageError("\"" + text + "\" is not an absolute URL");
    urls.push_back(*url);
  }
  if (!(o.timeout > 0)) throw UsageError("--timeout must be a positive number of seconds");
  FetchSettings settings;
  settings.crop = o.crop;
  settings.viewSize = parseViewSize(o.view);
  settings.outDirectory = o.out;
  settings.timeoutSeconds = o.timeout;
  auto results = fetchIntoViews(urls, settings);
  printResults(results, settings);
  const bool written = finishWithSheet(results, settings, o.out);
  const bool all =
      std::all_of(results.begin(), results.end(), [](const FetchResult& r) { return r.loaded; });
  return written && all ? kOk : kNotFound;
}

// --- The demo's own pictures ---

struct Sample {
  std::string name;
  std::string mime;
  nimb::Data bytes;
};

// Rows of colour from `top` to `bottom`.
void gradient(ImageContext& context, Rect area, Color top, Color bottom) {
  const int rows = static_cast<int>(area.size.height);
  for (int y = 0; y < rows; ++y) {
    const double t = rows > 1 ? static_cast<double>(y) / (rows - 1) : 0;
    Color c{top.red + (bottom.red - top.red) * t, top.green + (bottom.green - top.green) * t,
            top.blue + (bottom.blue - top.blue) * t, 1};
    context.fillRect(Rect(area.minX(), area.minY() + y, area.size.width, 1), c);
  }
}

// A sunset over a skyline.
void drawSunset(ImageContext& context, double width, double height) {
  gradient(context, Rect(0, 0, width, height), {0.98, 0.62, 0.25, 1}, {0.35, 0.12, 0.45, 1});
  unsigned seed = 7;
  for (double x = 0; x < width; x += 22) {
    seed = seed * 1103515245u + 12345u;
    const double h = height * (0.15 + (seed >> 16) % 100 / 300.0);
    context.fillRect(Rect(x, height - h, 20, h), {0.12, 0.1, 0.18, 1});
  }
}

// A bar chart on white.
void drawChart(ImageContext& context, double width, double height) {
  context.fillRect(Rect(0, 0, width, height), nimb::Color::whiteColor());
  const double bars[] = {0.3, 0.55, 0.8, 0.45, 0.95, 0.6};
  for (int i = 0; i < 6; ++i) {
    const double h = bars[i] * (height - 40);
    context.fillRect(Rect(20 + i * (width - 40) / 6, height - 20 - h, (width - 40) / 6 - 8, h),
                     {0.2 + i * 0.12, 0.45, 0.85 - i * 0.1, 1});
  }
}

// A badge on a transparent ground.
void drawBadge(ImageContext& context, double width, double height) {
  const Rect badge(width * 0.1, height * 0.1, width * 0.8, height * 0.8);
  context.fillRect(badge, {0.15, 0.6, 0.35, 0.9});
  context.strokeRect(badge, {0.05, 0.3, 0.15, 1}, 6);
}

void drawTiles(ImageContext& context, double width, double height) {
  const Color palette[] = {{0.9, 0.3, 0.3, 1}, {0.3, 0.7, 0.9, 1}, {0.95, 0.85, 0.3, 1},
                           {0.4, 0.8, 0.4, 1}, {0.6, 0.4, 0.8, 1}, {0.2, 0.2, 0.25, 1}};
  const double tile = std::max(8.0, std::floor(width / 8));
  for (int y = 0; y * tile < height; ++y) {
    for (int x = 0; x * tile < width; ++x) {
      context.fillRect(Rect(x * tile, y * tile, tile, tile), palette[(x * 3 + y * 5) % 6]);
    }
  }
}

// Sample `kind` (0 sunset, 1 chart, 2 badge, else tiles) with its label.
std::shared_ptr<const nimb::Image> drawSample(int kind, double width, double height,
                                              const std::string& label) {
  ImageContext context({width, height}, kind != 2, 1.0);
  switch (kind) {
    case 0:
      drawSunset(context, width, height);
      break;
    case 1:
      drawChart(context, width, height);
      break;
    case 2:
      drawBadge(context, width, height);
      break;
    default:
      drawTiles(context, width, height);
      break;
  }
  context.fillRect(Rect(10, 10, label.size() * 11.0 + 16, 30), {1, 1, 1, 0.85});
  context.drawText(label, {18, 32}, 18, {0.1, 0.1, 0.15, 1});
  return context.image();
}

std::vector<Sample> makeSamples() {
  struct Plan {
    const char* name;
    int kind;
    double width, height;
    const char* label;
  };
  const Plan plans[] = {
      {"sunset.jpg", 0, 640, 480, "JPEG 640x480"}, {"skyline.jpg", 0, 480, 640, "JPEG portrait"},
      {"chart.png", 1, 400, 300, "PNG chart"},     {"badge.png", 2, 256, 256, "PNG alpha"},
      {"tiles.gif", 3, 240, 180, "GIF tiles"},     {"sunset.gif", 0, 200, 200, "GIF"},
      {"chart.webp", 1, 500, 300, "WebP lossy"},   {"tiles.webp", 3, 300, 300, "WebP lossless"},
  };
  std::vector<Sample> samples;
  for (const Plan& plan : plans) {
    auto image = drawSample(plan.kind, plan.width, plan.height, plan.label);
    if (!image) continue;
    const std::string name = plan.name;
    std::optional<nimb::Data> bytes;
    std::string mime;
    if (name.ends_with(".jpg")) {
      bytes = image->jpegRepresentation(92), mime = "image/jpeg";
    } else if (name.ends_with(".png")) {
      bytes = image->pngRepresentation(), mime = "image/png";
    } else if (name.ends_with(".gif")) {
      bytes = image->gifRepresentation(), mime = "image/gif";
    } else {
      bytes = image->webpRepresentation(name == "tiles.webp" ? 100.0f : 80.0f), mime = "image/webp";
    }
    if (bytes) samples.push_back({name, mime, std::move(*bytes)});
  }
  return samples;
}

struct DemoOptions {
  std::string out = "nimbkit-demo";
  double pace = 24;  // kilobytes a second per response: slow enough to watch
};

int demo(const DemoOptions& o) {
  if (!(o.pace > 0)) throw UsageError("--pace must be a positive number of kilobytes a second");
  const std::vector<Sample> samples = makeSamples();
  if (samples.empty()) throw std::runtime_error("cannot draw the sample pictures");

  // The samples go out in small paced chunks with their length announced,
  // so that progress is there to see even on loopback.
  httplib::Server server;
  std::map<std::string, const Sample*> byPath;
  for (const auto& sample : samples) byPath["/" + sample.name] = &sample;
  const double pace = o.pace;
  server.Get(
      R"(/(.*))", [&byPath, pace](const httplib::Request& request, httplib::Response& response) {
        auto found = byPath.find(request.path);
        if (found == byPath.end()) {
          response.status = 404;
          response.set_content("<html><body><h1>404 Not Found</h1></body></html>", "text/html");
          return;
        }
        const Sample* sample = found->second;
        response.set_content_provider(
            sample->bytes.size(), sample->mime,
            [sample, pace](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
              constexpr std::size_t kChunk = 4096;
              const std::size_t n = std::min(kChunk, length);
              std::this_thread::sleep_for(std::chrono::duration<double>(n / (pace * 1024.0)));
              return sink.write(reinterpret_cast<const char*>(sample->bytes.data()) + offset, n);
            });
      });
  server.new_task_queue = [] { return new httplib::ThreadPool(16); };
  server.set_keep_alive_timeout(1);  // stop() waits for idle connections
  const int port = server.bind_to_any_port("127.0.0.1");
  if (port <= 0) throw std::runtime_error("cannot listen on 127.0.0.1");
  std::thread serving([&server] { server.listen_after_bind(); });
  while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/";
  std::vector<nimb::URL> urls;
  for (const auto& sample : samples) urls.push_back(*nimb::URL::withString(base + sample.name));
  urls.push_back(*nimb::URL::withString(base + "missing.png"));
  std::printf("Serving %zu sample pictures that nimbkit drew (JPEG, PNG, GIF, WebP) at %s\n",
              samples.size(), base.c_str());
  std::printf("plus missing.png, an HTML error page, which the loader refuses (406).\n\n");
  std::fflush(stdout);

  FetchSettings settings;
  settings.crop = true;
  settings.viewSize = {160, 160};
  settings.outDirectory = nimb::FileManager::appendingPathComponent(o.out, "cold");
  settings.title = "Cold: every picture from the network, cropped to a square";
  auto cold = fetchIntoViews(urls, settings);
  printResults(cold, settings);
  std::printf("\n");

  settings.outDirectory = nimb::FileManager::appendingPathComponent(o.out, "warm");
  settings.title = "Warm: the same views again, the crops from the disk cache";
  auto warm = fetchIntoViews(urls, settings);
  printResults(warm, settings);

  server.stop();
  serving.join();

  std::vector<FetchResult> both = cold;
  both.insert(both.end(), warm.begin(), warm.end());
  settings.title = "nimbkit demo: cold (network) then warm (cache)";
  const bool written = finishWithSheet(both, settings, o.out);
  std::printf("Each view as PNG: %s/cold and %s/warm\n", absolute(o.out).c_str(),
              absolute(o.out).c_str());
  // Everything but the page that is no picture must have loaded.
  auto sampleLoaded = [&](const std::vector<FetchResult>& results) {
    return std::all_of(results.begin(), results.end() - 1,
                       [](const FetchResult& r) { return r.loaded; }) &&
           !results.back().loaded;
  };
  return written && sampleLoaded(cold) && sampleLoaded(warm) ? kOk : kNotFound;
}

}  // namespace

void addFetchCommands(CLI::App& app, Action& selected) {
  auto fetchOptions = std::make_shared<FetchOptions>();
  auto* fetchCmd = app.add_subcommand(
      "fetch", "Load image URLs through the image loader into views; PNGs and a contact sheet");
  fetchCmd->add_option("URL", fetchOptions->urls, "Absolute http or https URLs")->required();
  fetchCmd->add_flag("--crop", fetchOptions->crop, "Crop each picture to a centred square");
  fetchCmd->add_option("--view", fetchOptions->view, "View size WIDTHxHEIGHT (default 160x160)");
  fetchCmd->add_option("--out", fetchOptions->out,
                       "Folder for the PNGs and contact sheet (default nimbkit-fetch)");
  fetchCmd->add_option("--timeout", fetchOptions->timeout,
                       "Seconds to wait for the whole batch (default 60)");
  onSelected(fetchCmd, selected, [fetchOptions] { return fetch(*fetchOptions); });

  auto demoOptions = std::make_shared<DemoOptions>();
  auto* demoCmd = app.add_subcommand(
      "demo", "Serve sample pictures on loopback and load them cold and warm into views");
  demoCmd->add_option("--out", demoOptions->out,
                      "Folder for the PNGs and contact sheet (default nimbkit-demo)");
  demoCmd->add_option("--pace", demoOptions->pace,
                      "Kilobytes a second per picture from the server (default 24)");
  onSelected(demoCmd, selected, [demoOptions] { return demo(*demoOptions); });
}

}  // namespace nimbkit
