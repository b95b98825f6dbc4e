#include "ImageFetch.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Images/VQImageLoader.h>
#include <NimbFoundation/Images/VQImageView.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>

#include "Output.h"

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

// The rows of the terminal on standard error: its window size, else $LINES;
// 0 when unknown.
std::size_t terminalRows() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0) return size.ws_row;
  const char* lines = std::getenv("LINES");
  const long rows = lines ? std::strtol(lines, nullptr, 10) : 0;
  return rows > 0 ? static_cast<std::size_t>(rows) : 0;
}

// Whether standard error is a terminal tall enough for one bar per image
// with two rows to spare; a board taller than the screen would be drawn
// above its top.
bool boardFits(std::size_t bars) {
  if (::isatty(STDERR_FILENO) != 1) return false;
  const std::size_t rows = terminalRows();
  return rows == 0 || bars + 2 <= rows;
}

// One progress bar per image on a terminal that holds them all, redrawn in
// place; elsewhere a plain line at each quarter, so logs stay readable.
class ProgressDisplay {
 public:
  explicit ProgressDisplay(std::vector<std::string> names)
      : terminal_(boardFits(names.size())),
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

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// "host:port" of `url`, the port the scheme's when none is written.
std::string authorityOf(const nimb::URL& url) {
  const std::string& text = url.absoluteString();
  const auto start = text.find("://");
  if (start == std::string::npos) return url.host();
  std::string authority = text.substr(start + 3, text.find_first_of("/?#", start + 3) - start - 3);
  if (const auto at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
  const auto colon = authority.rfind(':');
  if (colon == std::string::npos || authority.find(']', colon) != std::string::npos) {
    authority += url.scheme() == "https" ? ":443" : ":80";
  }
  return authority;
}

}  // namespace

std::string failureText(const nimb::Error& error) {
  // The 406 of a body that is no picture has no description of its own.
  if (error.code == nimb::VQImageLoader::kNotAnImageCode && error.userInfo.empty()) {
    return "not a picture (406 from " + error.domain + ")";
  }
  const std::string description = error.localizedDescription();
  if (error.domain != nimb::kURLErrorDomain || (error.code != nimb::kURLErrorCannotConnectToHost &&
                                                error.code != nimb::kURLErrorCannotFindHost)) {
    return description;
  }
  auto url = nimb::URL::withString(error.failingURLString());
  if (!url) return description;
  const auto colon = description.rfind(": ");
  const std::string reason =
      colon == std::string::npos ? description : description.substr(colon + 2);
  return (error.code == nimb::kURLErrorCannotFindHost ? "cannot find host "
                                                      : "cannot connect to ") +
         authorityOf(*url) + ": " + reason;
}

namespace {

// The delegate that fills the slot's result and the display's line `i`.
std::shared_ptr<nimb::VQImageViewDelegate> slotDelegate(Slot& slot, ProgressDisplay& display,
                                                        std::size_t i) {
  auto delegate = std::make_shared<nimb::VQImageViewDelegate>();
  delegate->imageViewLoadedImage = [&slot, &display, i](nimb::VQImageView& view) {
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
    slot.result.seconds = secondsSince(slot.start);
    display.finish(i, slot.result.fromCache ? "cache" : "network");
  };
  delegate->imageViewLoadedImageSizePercent = [&display, i](float percent, nimb::VQImageView&) {
    display.update(i, percent);
  };
  delegate->imageViewFailedToLoadImage = [&slot, &display, i](nimb::VQImageView&,
                                                              const nimb::Error& error) {
    if (slot.done) return;
    slot.done = true;
    slot.result.error = failureText(error);
    slot.result.seconds = secondsSince(slot.start);
    display.finish(i, "failed: " + slot.result.error);
  };
  return delegate;
}

void prepareSlot(Slot& slot, const nimb::URL& url, const FetchSettings& settings,
                 ProgressDisplay& display, std::size_t i) {
  slot.result.url = url.absoluteString();
  slot.view = nimb::VQImageView::createWithPlaceholderImage(nullptr);
  slot.view->setFrame(Rect(0, 0, settings.viewSize.width, settings.viewSize.height));
  slot.view->setNeedCutOff(settings.crop);
  // A cropping view downloads only when started by hand.
  if (settings.crop) slot.view->setIsAutoStart(false);
  slot.delegate = slotDelegate(slot, display, i);
  slot.view->setDelegate(slot.delegate);
}

void startLoad(Slot& slot, const nimb::URL& url, const FetchSettings& settings) {
  slot.start = Clock::now();
  slot.insideSetImageURL = true;
  slot.view->setImageURL(url);
  slot.insideSetImageURL = false;
  if (!slot.done && settings.crop) slot.view->startImageLoad();
}

void runUntilDone(const std::vector<Slot>& slots, double timeoutSeconds) {
  const auto deadline = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
  auto allDone = [&] {
    return std::all_of(slots.begin(), slots.end(), [](const Slot& s) { return s.done; });
  };
  while (!allDone() && Clock::now() < deadline) nimb::RunLoop::main().runOnce(0.05);
}

// Saves the rendered view as "<NN>-<name stem>.png" in the output folder.
void savePicture(FetchResult& result, const std::string& name, std::size_t i,
                 const std::string& outDirectory) {
  char prefix[24];
  std::snprintf(prefix, sizeof prefix, "%02zu-", i + 1);
  const std::string stem = name.substr(0, name.rfind('.'));
  const std::string path = nimb::FileManager::appendingPathComponent(
      outDirectory, prefix + (stem.empty() ? name : stem) + ".png");
  if (auto png = result.rendered->pngRepresentation(); png && writeUserFile(path, *png).empty()) {
    result.pngPath = path;
  }
}

FetchResult finishSlot(Slot& slot, const nimb::URL& url, const std::string& name, std::size_t i,
                       const FetchSettings& settings) {
  FetchResult& result = slot.result;
  if (!slot.done) {
    result.error = "timed out";
    slot.view->cancelImageLoad();
  }
  if (result.loaded) {
    auto body = nimb::VQCache::currentCache()->dataForKey(nimb::VQImageLoader::keyForURL(url));
    result.bytes = body ? body->size() : 0;
  }
  result.rendered = render(*slot.view);
  if (!settings.outDirectory.empty() && result.rendered && result.loaded) {
    savePicture(result, name, i, settings.outDirectory);
  }
  return std::move(result);
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
  for (std::size_t i = 0; i < urls.size(); ++i)
    prepareSlot(slots[i], urls[i], settings, display, i);
  for (std::size_t i = 0; i < urls.size(); ++i) startLoad(slots[i], urls[i], settings);
  runUntilDone(slots, settings.timeoutSeconds);
  flushCache();

  if (!settings.outDirectory.empty())
    (void)nimb::FileManager::createDirectory(settings.outDirectory);
  std::vector<FetchResult> results;
  for (std::size_t i = 0; i < slots.size(); ++i) {
    results.push_back(finishSlot(slots[i], urls[i], names[i], i, settings));
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

namespace {

constexpr double kSheetMargin = 16, kSheetLabel = 34, kSheetTitle = 36;
constexpr nimb::Color kSheetInk{0.1, 0.1, 0.15, 1};

// Where each result goes on the contact sheet: up to four cells a row.
struct SheetLayout {
  double cellWidth = 0, cellHeight = 0;
  std::size_t columns = 0, rows = 0;
  nimb::Size size;

  SheetLayout(std::size_t count, nimb::Size viewSize)
      : cellWidth(std::max(viewSize.width, 170.0)),
        cellHeight(viewSize.height + kSheetLabel),
        columns(std::min<std::size_t>(4, count)),
        rows((count + columns - 1) / columns),
        size{kSheetMargin + columns * (cellWidth + kSheetMargin),
             kSheetTitle + kSheetMargin + rows * (cellHeight + kSheetMargin)} {}

  // The top-left corner of cell `i`.
  nimb::Point cell(std::size_t i) const {
    return {kSheetMargin + (i % columns) * (cellWidth + kSheetMargin),
            kSheetTitle + kSheetMargin + (i / columns) * (cellHeight + kSheetMargin)};
  }
};

// The second caption line: how the picture came, or why it did not.
std::string cellCaption(const FetchResult& r) {
  char line[96];
  if (r.loaded) {
    std::snprintf(line, sizeof line, "%s  %s  %.0fx%.0f  %.0f ms",
                  r.fromCache ? "cache" : "network", humanBytes(r.bytes).c_str(),
                  r.pictureSize.width, r.pictureSize.height, r.seconds * 1000);
  } else {
    std::snprintf(line, sizeof line, "failed: %s", r.error.c_str());
  }
  return line;
}

void drawCell(nimb::ImageContext& context, const FetchResult& r, nimb::Point at,
              const SheetLayout& layout, nimb::Size viewSize) {
  const Rect frame(at.x + (layout.cellWidth - viewSize.width) / 2, at.y, viewSize.width,
                   viewSize.height);
  context.fillRect(frame, nimb::Color::whiteColor());
  if (r.rendered) context.drawImage(*r.rendered, frame);
  context.strokeRect(frame, {0.6, 0.6, 0.65, 1}, 1);
  context.drawText(nameOf(r.url), {at.x, at.y + viewSize.height + 14}, 11, kSheetInk);
  context.drawText(cellCaption(r), {at.x, at.y + viewSize.height + 28}, 10, {0.35, 0.35, 0.4, 1});
}

}  // namespace

std::string writeContactSheet(const std::vector<FetchResult>& results,
                              const FetchSettings& settings, const std::string& path) {
  if (results.empty()) return "no pictures";
  const SheetLayout layout(results.size(), settings.viewSize);
  nimb::ImageContext context(layout.size, true, 1.0);
  if (!context.isValid()) return "too large to draw";
  context.fillRect(Rect(0, 0, layout.size.width, layout.size.height), {0.94, 0.94, 0.95, 1});
  context.drawText(settings.title, {kSheetMargin, 26}, 16, kSheetInk);
  for (std::size_t i = 0; i < results.size(); ++i) {
    drawCell(context, results[i], layout.cell(i), layout, settings.viewSize);
  }
  auto image = context.image();
  auto png = image ? image->pngRepresentation() : std::nullopt;
  return png ? writeUserFile(path, *png) : "cannot encode it as PNG";
}

}  // namespace nimbkit
