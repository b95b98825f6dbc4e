#include "ImageFetch.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Images/VQImageLoader.h>
#include <NimbFoundation/Images/VQImageView.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>

namespace nimbkit {

namespace {

using Clock = std::chrono::steady_clock;
using nimb::Rect;

std::string nameOf(const std::string& url) {
  std::string path = url.substr(0, url.find_first_of("?#"));
  const auto slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return name.empty() ? url : name;
}

std::string humanBytes(std::size_t bytes) {
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof text, "%zu B", bytes);
  } else {
    std::snprintf(text, sizeof text, "%.1f KB", static_cast<double>(bytes) / 1024.0);
  }
  return text;
}

// One progress bar per image on a terminal, redrawn in place; elsewhere a
// plain line at each quarter, so logs stay readable.
class ProgressDisplay {
 public:
  explicit ProgressDisplay(std::vector<std::string> names)
      : terminal_(::isatty(2) == 1),
        names_(std::move(names)),
        lastQuarter_(names_.size(), -1),
        lines_(names_.size()) {
    for (std::size_t i = 0; i < names_.size(); ++i) {
      lines_[i] = bar(i, 0) + "  waiting";
      if (terminal_) std::fprintf(stderr, "%s\n", lines_[i].c_str());
    }
  }

  void update(std::size_t i, float fraction) {
    if (!(fraction >= 0)) return;  // unknown length: nothing to draw
    fraction = std::min(fraction, 1.0f);
    if (terminal_) {
      redraw(i, bar(i, fraction));
      return;
    }
    const int quarter = static_cast<int>(fraction * 4);
    if (quarter > lastQuarter_[i] && quarter > 0) {
      lastQuarter_[i] = quarter;
      std::fprintf(stderr, "%s: %d%%\n", names_[i].c_str(), quarter * 25);
    }
  }

  void finish(std::size_t i, const std::string& status) {
    if (terminal_) {
      redraw(i, bar(i, 1) + "  " + status);
    } else {
      std::fprintf(stderr, "%s: %s\n", names_[i].c_str(), status.c_str());
    }
  }

 private:
  std::string bar(std::size_t i, float fraction) const {
    constexpr int kWidth = 24;
    const int filled = static_cast<int>(fraction * kWidth + 0.5f);
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100 + 0.5f));
    return "[" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "] " + percent +
           "  " + names_[i];
  }

  void redraw(std::size_t i, const std::string& line) {
    if (lines_[i] == line) return;
    lines_[i] = line;
    const std::size_t up = names_.size() - i;
    std::fprintf(stderr, "\x1b[%zuA\r\x1b[2K%s\x1b[%zuB\r", up, line.c_str(), up);
    std::fflush(stderr);
  }

  bool terminal_;
  std::vector<std::string> names_;
  std::vector<int> lastQuarter_;
  std::vector<std::string> lines_;
};

struct Slot {
  std::shared_ptr<nimb::VQImageView> view;
  std::shared_ptr<nimb::VQImageViewDelegate> delegate;
  FetchResult result;
  Clock::time_point start;
  bool done = false;
  bool insideSetImageURL = false;
};

// The view as it draws itself: its image scaled to fill its bounds.
std::shared_ptr<const nimb::Image> render(const nimb::VQImageView& view) {
  const nimb::Size size = view.bounds().size;
  nimb::ImageContext context(size, false, 1.0);
  if (auto image = view.image()) context.drawImage(*image, Rect(0, 0, size.width, size.height));
  return context.image();
}

}  // namespace

void flushCache() {
  auto cache = nimb::VQCache::currentCache();
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  nimb::RunLoop::main().runUntilIdle(10);
}

std::vector<FetchResult> fetchIntoViews(const std::vector<nimb::URL>& urls,
                                        const FetchSettings& settings) {
  std::vector<std::string> names;
  for (const auto& url : urls) names.push_back(nameOf(url.absoluteString()));
  ProgressDisplay display(names);

  std::vector<Slot> slots(urls.size());
  for (std::size_t i = 0; i < urls.size(); ++i) {
    Slot& slot = slots[i];
    slot.result.url = urls[i].absoluteString();
    slot.view = nimb::VQImageView::createWithPlaceholderImage(nullptr);
    slot.view->setFrame(Rect(0, 0, settings.viewSize.width, settings.viewSize.height));
    slot.view->setNeedCutOff(settings.crop);
    // A cropping view downloads only when started by hand.
    if (settings.crop) slot.view->setIsAutoStart(false);

    slot.delegate = std::make_shared<nimb::VQImageViewDelegate>();
    slot.delegate->imageViewLoadedImage = [&slot, &display, i](nimb::VQImageView& view) {
      if (slot.done) return;
      slot.done = true;
      slot.result.loaded = true;
      slot.result.fromCache = slot.insideSetImageURL;
      // The time ends when the pixels are ready to draw.
      if (auto image = view.image()) {
        const auto& bitmap = image->bitmap();
        slot.result.pictureSize =
            nimb::Size{static_cast<double>(bitmap.width), static_cast<double>(bitmap.height)};
      }
      slot.result.seconds = std::chrono::duration<double>(Clock::now() - slot.start).count();
      display.finish(i, slot.result.fromCache ? "cache" : "network");
    };
    slot.delegate->imageViewLoadedImageSizePercent =
        [&display, i](float percent, nimb::VQImageView&) { display.update(i, percent); };
    slot.delegate->imageViewFailedToLoadImage = [&slot, &display, i](nimb::VQImageView&,
                                                                     const nimb::Error& error) {
      if (slot.done) return;
      slot.done = true;
      // The 406 of a body that is no picture has no description of its own.
      slot.result.error =
          error.code == nimb::VQImageLoader::kNotAnImageCode && error.userInfo.empty()
              ? "not a picture (406 from " + error.domain + ")"
              : error.localizedDescription();
      slot.result.seconds = std::chrono::duration<double>(Clock::now() - slot.start).count();
      display.finish(i, "failed: " + slot.result.error);
    };
    slot.view->setDelegate(slot.delegate);
  }

  for (std::size_t i = 0; i < urls.size(); ++i) {
    Slot& slot = slots[i];
    slot.start = Clock::now();
    slot.insideSetImageURL = true;
    slot.view->setImageURL(urls[i]);
    slot.insideSetImageURL = false;
    if (!slot.done && settings.crop) slot.view->startImageLoad();
  }

  const auto deadline = Clock::now() + std::chrono::duration<double>(settings.timeoutSeconds);
  auto allDone = [&] {
    return std::all_of(slots.begin(), slots.end(), [](const Slot& s) { return s.done; });
  };
  while (!allDone() && Clock::now() < deadline) nimb::RunLoop::main().runOnce(0.05);
  flushCache();

  auto cache = nimb::VQCache::currentCache();
  if (!settings.outDirectory.empty())
    (void)nimb::FileManager::createDirectory(settings.outDirectory);
  std::vector<FetchResult> results;
  for (std::size_t i = 0; i < slots.size(); ++i) {
    Slot& slot = slots[i];
    FetchResult& result = slot.result;
    if (!slot.done) {
      result.error = "timed out";
      slot.view->cancelImageLoad();
    }
    if (result.loaded) {
      auto body = cache->dataForKey(nimb::VQImageLoader::keyForURL(urls[i]));
      result.bytes = body ? body->size() : 0;
    }
    result.rendered = render(*slot.view);
    if (!settings.outDirectory.empty() && result.rendered && result.loaded) {
      char prefix[24];
      std::snprintf(prefix, sizeof prefix, "%02zu-", i + 1);
      const std::string stem = names[i].substr(0, names[i].rfind('.'));
      const std::string path = nimb::FileManager::appendingPathComponent(
          settings.outDirectory, prefix + (stem.empty() ? names[i] : stem) + ".png");
      if (auto png = result.rendered->pngRepresentation();
          png && nimb::FileManager::writeAtomically(path, *png)) {
        result.pngPath = path;
      }
    }
    results.push_back(std::move(result));
  }
  return results;
}

void printResults(const std::vector<FetchResult>& results, const FetchSettings& settings) {
  std::printf("%s\n", settings.title.c_str());
  std::printf("  %-3s %-8s %10s %11s %9s  %s\n", "#", "from", "bytes", "size", "time", "url");
  for (std::size_t i = 0; i < results.size(); ++i) {
    const FetchResult& r = results[i];
    if (!r.loaded) {
      std::printf("  %-3zu %-8s %10s %11s %7.0f ms  %s  (%s)\n", i + 1, "failed", "-", "-",
                  r.seconds * 1000, r.url.c_str(), r.error.c_str());
      continue;
    }
    char size[32];
    std::snprintf(size, sizeof size, "%.0fx%.0f", r.pictureSize.width, r.pictureSize.height);
    std::printf("  %-3zu %-8s %10s %11s %7.1f ms  %s\n", i + 1, r.fromCache ? "cache" : "network",
                humanBytes(r.bytes).c_str(), size, r.seconds * 1000, r.url.c_str());
  }
  std::fflush(stdout);
}

bool writeContactSheet(const std::vector<FetchResult>& results, const FetchSettings& settings,
                       const std::string& path) {
  if (results.empty()) return false;
  constexpr double kMargin = 16, kLabel = 34, kTitle = 36;
  const double cellWidth = std::max(settings.viewSize.width, 170.0);
  const double cellHeight = settings.viewSize.height + kLabel;
  const std::size_t columns = std::min<std::size_t>(4, results.size());
  const std::size_t rows = (results.size() + columns - 1) / columns;
  const nimb::Size sheet{kMargin + columns * (cellWidth + kMargin),
                         kTitle + kMargin + rows * (cellHeight + kMargin)};
  nimb::ImageContext context(sheet, true, 1.0);
  if (!context.isValid()) return false;
  context.fillRect(Rect(0, 0, sheet.width, sheet.height), {0.94, 0.94, 0.95, 1});
  context.drawText(settings.title, {kMargin, 26}, 16, {0.1, 0.1, 0.15, 1});
  for (std::size_t i = 0; i < results.size(); ++i) {
    const FetchResult& r = results[i];
    const double x = kMargin + (i % columns) * (cellWidth + kMargin);
    const double y = kTitle + kMargin + (i / columns) * (cellHeight + kMargin);
    const Rect frame(x + (cellWidth - settings.viewSize.width) / 2, y, settings.viewSize.width,
                     settings.viewSize.height);
    context.fillRect(frame, {1, 1, 1, 1});
    if (r.rendered) context.drawImage(*r.rendered, frame);
    context.strokeRect(frame, {0.6, 0.6, 0.65, 1}, 1);
    context.drawText(nameOf(r.url), {x, y + settings.viewSize.height + 14}, 11,
                     {0.1, 0.1, 0.15, 1});
    char line[96];
    if (r.loaded) {
      std::snprintf(line, sizeof line, "%s  %s  %.0fx%.0f  %.0f ms",
                    r.fromCache ? "cache" : "network", humanBytes(r.bytes).c_str(),
                    r.pictureSize.width, r.pictureSize.height, r.seconds * 1000);
    } else {
      std::snprintf(line, sizeof line, "failed: %s", r.error.c_str());
    }
    context.drawText(line, {x, y + settings.viewSize.height + 28}, 10, {0.35, 0.35, 0.4, 1});
  }
  auto image = context.image();
  auto png = image ? image->pngRepresentation() : std::nullopt;
  return png && nimb::FileManager::writeAtomically(path, *png);
}

}  // namespace nimbkit
