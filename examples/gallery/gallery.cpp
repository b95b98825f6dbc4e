// gallery: a GTK 4 window of remote pictures loaded through the kit. Each
// cell is a VQImageView that shows the placeholder, asks the shared
// VQImageLoader for its URL and crops the picture to a square; a progress
// bar under it follows the loader's progress notifications. The kit's main
// run loop turns inside GTK's own main loop through its descriptor
// (GLibRunLoopSource.h), with no polling timer, and each cell's view tree
// is drawn by the kit's Cairo drawing (ViewRenderer) and painted into the
// GtkDrawingArea's cairo_t.
//
//   gallery [--screenshot FILE] [--timeout SECONDS] [--dir DIR] [--pace KB/s] [URL...]
//
// With no URL it serves pictures itself on a loopback server: those in
// --dir when given, else sample pictures of distinct colours that it draws
// and encodes (JPEG, PNG, WebP) with the kit. --screenshot writes a PNG of
// the window once every cell has its picture or has failed, then quits.
// The loader's disk cache lives under $XDG_CACHE_HOME (else ~/.cache).
//
// Exit status: 0 when every cell settled (and the screenshot, if asked for,
// was written), 1 on a timeout or a screenshot that could not be written,
// 2 on a usage error.
#include <gtk/gtk.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <NimbFoundation/Images/VQImageView.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Graphics/ViewRenderer.h>
#include <NimbFoundation/Platform/Net/URL.h>

#include "../GLibRunLoopSource.h"
#include "SamplePictures.h"

namespace {

constexpr double kCellSide = 180;  // points; the view inside has a 6-point margin
constexpr double kMargin = 6;
constexpr int kColumns = 3;

struct Options {
  std::vector<std::string> urls;
  std::string screenshot;
  std::string dir;
  double timeout = 60;
  double pace = 0;  // kilobytes a second per response; 0 sends at once
};

struct Cell {
  std::string url;
  std::shared_ptr<nimb::View> root;  // a framed ground with the image view on it
  std::shared_ptr<nimb::VQImageView> view;
  std::shared_ptr<nimb::VQImageViewDelegate> delegate;
  cairo_surface_t* drawn = nullptr;  // the tree as last rendered, until it changes
  GtkWidget* area = nullptr;
  GtkWidget* progress = nullptr;
  GtkWidget* label = nullptr;
  bool settled = false;
};

struct Gallery {
  Options options;
  std::vector<std::unique_ptr<Cell>> cells;
  GtkWidget* window = nullptr;
  GMainLoop* loop = nullptr;
  std::size_t loaded = 0, failed = 0;
  bool timedOut = false;
  bool screenshotWritten = false;
  int framesToWait = 0;
};

// The kit's RGBA picture as a Cairo surface, in Cairo's own pixel layout.
cairo_surface_t* surfaceOf(const nimb::Image& image) {
  const nimb::Bitmap& bitmap = image.bitmap();
  cairo_surface_t* surface =
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, bitmap.width, bitmap.height);
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) return surface;
  cairo_surface_flush(surface);
  nimb::Graphics::writePremultipliedARGB32(
      bitmap, cairo_image_surface_get_data(surface),
      static_cast<std::size_t>(cairo_image_surface_get_stride(surface)));
  cairo_surface_mark_dirty(surface);
  return surface;
}

void drawCell(GtkDrawingArea*, cairo_t* cr, int width, int height, gpointer data) {
  auto* cell = static_cast<Cell*>(data);
  if (!cell->drawn) {
    auto image = nimb::ViewRenderer::imageOfView(*cell->root, 1.0);
    if (!image) return;
    cell->drawn = surfaceOf(*image);
  }
  const double w = cairo_image_surface_get_width(cell->drawn);
  const double h = cairo_image_surface_get_height(cell->drawn);
  if (w <= 0 || h <= 0) return;
  cairo_save(cr);
  cairo_scale(cr, width / w, height / h);
  cairo_set_source_surface(cr, cell->drawn, 0, 0);
  cairo_paint(cr);
  cairo_restore(cr);
}

void redraw(Cell& cell) {
  if (cell.drawn) cairo_surface_destroy(cell.drawn);
  cell.drawn = nullptr;
  gtk_widget_queue_draw(cell.area);
}

std::string nameOf(const std::string& url) {
  const std::string path = url.substr(0, url.find_first_of("?#"));
  const auto slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return name.empty() ? url : name;
}

// Writes what the window shows to `path` as PNG through its own renderer.
bool saveScreenshot(GtkWidget* window, const std::string& path) {
  GdkPaintable* paintable = gtk_widget_paintable_new(window);
  const int width = gtk_widget_get_width(window), height = gtk_widget_get_height(window);
  GtkSnapshot* snapshot = gtk_snapshot_new();
  gdk_paintable_snapshot(paintable, snapshot, width, height);
  GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
  bool written = false;
  if (node) {
    GskRenderer* renderer = gtk_native_get_renderer(GTK_NATIVE(window));
    const graphene_rect_t bounds =
        GRAPHENE_RECT_INIT(0, 0, static_cast<float>(width), static_cast<float>(height));
    GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &bounds);
    written = texture && gdk_texture_save_to_png(texture, path.c_str());
    if (texture) g_object_unref(texture);
    gsk_render_node_unref(node);
  }
  g_object_unref(paintable);
  return written;
}

// Waits two frames after the last cell settled, so the window has painted
// every cell's final state, then writes the screenshot and quits.
gboolean onFrame(GtkWidget*, GdkFrameClock*, gpointer data) {
  auto* gallery = static_cast<Gallery*>(data);
  if (--gallery->framesToWait > 0) return G_SOURCE_CONTINUE;
  gallery->screenshotWritten = saveScreenshot(gallery->window, gallery->options.screenshot);
  if (gallery->screenshotWritten) {
    std::printf("screenshot: %s\n", gallery->options.screenshot.c_str());
  } else {
    std::fprintf(stderr, "gallery: cannot write the screenshot to %s\n",
                 gallery->options.screenshot.c_str());
  }
  g_main_loop_quit(gallery->loop);
  return G_SOURCE_REMOVE;
}

void settle(Gallery& gallery, Cell& cell, const std::string& status) {
  if (cell.settled) return;
  cell.settled = true;
  gtk_label_set_text(GTK_LABEL(cell.label), (nameOf(cell.url) + " — " + status).c_str());
  redraw(cell);
  if (gallery.loaded + gallery.failed < gallery.cells.size()) return;
  std::printf("gallery: %zu loaded, %zu failed\n", gallery.loaded, gallery.failed);
  std::fflush(stdout);
  if (!gallery.options.screenshot.empty()) {
    gallery.framesToWait = 2;
    gtk_widget_add_tick_callback(gallery.window, onFrame, &gallery, nullptr);
    gtk_widget_queue_draw(gallery.window);
  }
}

void addCell(Gallery& gallery, GtkWidget* grid, const std::string& url,
             const std::shared_ptr<const nimb::Image>& placeholder) {
  auto cell = std::make_unique<Cell>();
  Cell* c = cell.get();
  c->url = url;
  c->root = std::make_shared<nimb::View>(nimb::Rect(0, 0, kCellSide, kCellSide));
  c->root->setBackgroundColor(nimb::Color{0.97, 0.97, 0.98, 1});
  c->delegate = std::make_shared<nimb::VQImageViewDelegate>();
  c->delegate->imageViewLoadedImage = [&gallery, c](nimb::VQImageView&) {
    if (c->settled) return;
    ++gallery.loaded;
    gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(c->progress), 1);
    settle(gallery, *c, "loaded");
  };
  c->delegate->imageViewLoadedImageSizePercent = [c](float percent, nimb::VQImageView&) {
    if (percent >= 0)
      gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(c->progress), std::min(1.0f, percent));
  };
  c->delegate->imageViewFailedToLoadImage = [&gallery, c](nimb::VQImageView&,
                                                          const nimb::Error& error) {
    if (c->settled) return;
    ++gallery.failed;
    std::fprintf(stderr, "gallery: %s: %s\n", c->url.c_str(), error.localizedDescription().c_str());
    settle(gallery, *c, "failed");
  };
  c->view = nimb::VQImageView::createWithPlaceholderImage(placeholder, c->delegate);
  c->view->setFrame(nimb::Rect(kMargin, kMargin, kCellSide - 2 * kMargin, kCellSide - 2 * kMargin));
  c->view->setClipsToBounds(true);
  // A cropping view downloads only when asked to.
  c->view->setNeedCutOff(true);
  c->view->setIsAutoStart(false);
  c->root->addSubview(c->view);

  c->area = gtk_drawing_area_new();
  gtk_drawing_area_set_content_width(GTK_DRAWING_AREA(c->area), static_cast<int>(kCellSide));
  gtk_drawing_area_set_content_height(GTK_DRAWING_AREA(c->area), static_cast<int>(kCellSide));
  gtk_drawing_area_set_draw_func(GTK_DRAWING_AREA(c->area), drawCell, c, nullptr);
  c->progress = gtk_progress_bar_new();
  c->label = gtk_label_new((nameOf(url) + " — loading").c_str());
  gtk_label_set_ellipsize(GTK_LABEL(c->label), PANGO_ELLIPSIZE_MIDDLE);
  gtk_label_set_max_width_chars(GTK_LABEL(c->label), 20);
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
  gtk_box_append(GTK_BOX(box), c->area);
  gtk_box_append(GTK_BOX(box), c->progress);
  gtk_box_append(GTK_BOX(box), c->label);
  const int index = static_cast<int>(gallery.cells.size());
  gtk_grid_attach(GTK_GRID(grid), box, index % kColumns, index / kColumns, 1, 1);
  gallery.cells.push_back(std::move(cell));
}

void startLoads(Gallery& gallery) {
  for (auto& cell : gallery.cells) {
    cell->view->setImageURL(nimb::URL::withString(cell->url));
    if (cell->view->status() == nimb::VQImageView::kLoaded) continue;  // the cached crop
    cell->view->startImageLoad();
  }
}

bool parseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char* what) -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "gallery: %s wants %s\n", arg.c_str(), what);
        return nullptr;
      }
      return argv[++i];
    };
    if (arg == "--screenshot") {
      const char* v = value("a file");
      if (!v) return false;
      o.screenshot = v;
    } else if (arg == "--dir") {
      const char* v = value("a directory");
      if (!v) return false;
      o.dir = v;
    } else if (arg == "--timeout" || arg == "--pace") {
      const char* v = value("a number");
      if (!v) return false;
      char* end = nullptr;
      const double number = std::strtod(v, &end);
      if (*end != '\0' || !(number > 0) || !std::isfinite(number)) {
        std::fprintf(stderr, "gallery: %s wants a positive number\n", arg.c_str());
        return false;
      }
      (arg == "--timeout" ? o.timeout : o.pace) = number;
    } else if (arg == "--help" || arg == "-h") {
      std::printf(
          "usage: gallery [--screenshot FILE] [--timeout SECONDS] [--dir DIR] [--pace KB/s] "
          "[URL...]\n");
      std::exit(0);
    } else if (arg.starts_with("--")) {
      std::fprintf(stderr, "gallery: unknown option %s\n", arg.c_str());
      return false;
    } else if (!nimb::URL::withString(arg)) {
      std::fprintf(stderr, "gallery: \"%s\" is not an absolute URL\n", arg.c_str());
      return false;
    } else {
      o.urls.push_back(arg);
    }
  }
  return true;
}

// The pictures of --dir, or the drawn samples.
std::vector<gallery::Sample> picturesToServe(const std::string& dir) {
  if (dir.empty()) return gallery::makeSamples();
  std::vector<gallery::Sample> pictures;
  std::error_code ec;
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    if (entry.is_regular_file(ec)) paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  for (const auto& path : paths) {
    std::ifstream in(path, std::ios::binary);
    nimb::Data bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    pictures.push_back({path.filename().string(), "application/octet-stream", std::move(bytes)});
  }
  return pictures;
}

}  // namespace

int main(int argc, char** argv) {
  Gallery gallery;
  if (!parseOptions(argc, argv, gallery.options)) return 2;
  if (!gtk_init_check()) {
    std::fprintf(stderr, "gallery: cannot open a display\n");
    return 1;
  }

  std::vector<gallery::Sample> pictures;
  httplib::Server server;
  std::thread serving;
  std::vector<std::string> urls = gallery.options.urls;
  if (urls.empty()) {
    pictures = picturesToServe(gallery.options.dir);
    if (pictures.empty()) {
      std::fprintf(stderr, "gallery: no pictures to serve\n");
      return 1;
    }
    const double pace = gallery.options.pace;
    server.Get(R"(/(.*))", [&pictures, pace](const httplib::Request& request,
                                             httplib::Response& response) {
      auto found = std::find_if(pictures.begin(), pictures.end(),
                                [&](const auto& p) { return "/" + p.name == request.path; });
      if (found == pictures.end()) {
        response.status = 404;
        return;
      }
      const gallery::Sample* picture = &*found;
      // In small chunks with the length announced, paced when asked, so the
      // progress bars have something to show even on loopback.
      response.set_content_provider(
          picture->bytes.size(), picture->mime,
          [picture, pace](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            const std::size_t n = std::min<std::size_t>(4096, length);
            if (pace > 0) {
              std::this_thread::sleep_for(std::chrono::duration<double>(n / (pace * 1024.0)));
            }
            return sink.write(reinterpret_cast<const char*>(picture->bytes.data()) + offset, n);
          });
    });
    server.new_task_queue = [] { return new httplib::ThreadPool(8); };
    server.set_keep_alive_timeout(1);  // stop() waits for idle connections
    const int port = server.bind_to_any_port("127.0.0.1");
    if (port <= 0) {
      std::fprintf(stderr, "gallery: cannot listen on 127.0.0.1\n");
      return 1;
    }
    serving = std::thread([&server] { server.listen_after_bind(); });
    const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/";
    for (const auto& picture : pictures) urls.push_back(base + picture.name);
    std::printf("gallery: serving %zu pictures at %s\n", pictures.size(), base.c_str());
    std::fflush(stdout);
  }

  gallery.loop = g_main_loop_new(nullptr, FALSE);
  gallery.window = gtk_window_new();
  gtk_window_set_title(GTK_WINDOW(gallery.window), "NimbFoundation gallery");
  const int rows = static_cast<int>((urls.size() + kColumns - 1) / kColumns);
  gtk_window_set_default_size(GTK_WINDOW(gallery.window), kColumns * 200 + 24,
                              std::min(3, std::max(1, rows)) * 240 + 16);
  g_signal_connect_swapped(gallery.window, "close-request", G_CALLBACK(g_main_loop_quit),
                           gallery.loop);

  GtkWidget* grid = gtk_grid_new();
  gtk_grid_set_row_spacing(GTK_GRID(grid), 12);
  gtk_grid_set_column_spacing(GTK_GRID(grid), 12);
  gtk_widget_set_margin_start(grid, 8);
  gtk_widget_set_margin_end(grid, 8);
  gtk_widget_set_margin_top(grid, 8);
  gtk_widget_set_margin_bottom(grid, 8);
  GtkWidget* scrolled = gtk_scrolled_window_new();
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scrolled), grid);
  gtk_window_set_child(GTK_WINDOW(gallery.window), scrolled);

  const auto placeholder = gallery::drawPlaceholder(kCellSide - 2 * kMargin);
  for (const auto& url : urls) addCell(gallery, grid, url, placeholder);

  // The kit's main loop runs inside GLib's, woken by its descriptor.
  GSource* source = nimb::example::attachRunLoop(nimb::RunLoop::main(), nullptr);
  guint timer = g_timeout_add(
      static_cast<guint>(gallery.options.timeout * 1000),
      [](gpointer data) -> gboolean {
        auto* g = static_cast<Gallery*>(data);
        g->timedOut = true;
        std::fprintf(stderr, "gallery: timed out with %zu of %zu cells settled\n",
                     g->loaded + g->failed, g->cells.size());
        g_main_loop_quit(g->loop);
        return G_SOURCE_REMOVE;
      },
      &gallery);

  gtk_window_present(GTK_WINDOW(gallery.window));
  startLoads(gallery);
  g_main_loop_run(gallery.loop);
  if (!gallery.timedOut) g_source_remove(timer);

  // Leave the loader before the views go, then let the cache finish writing.
  for (auto& cell : gallery.cells) cell->view->cancelImageLoad();
  nimb::RunLoop::main().runUntilIdle(5);
  if (source) {
    g_source_destroy(source);
    g_source_unref(source);
  }
  gtk_window_destroy(GTK_WINDOW(gallery.window));
  for (auto& cell : gallery.cells) {
    if (cell->drawn) cairo_surface_destroy(cell->drawn);
  }
  g_main_loop_unref(gallery.loop);
  if (serving.joinable()) {
    server.stop();
    serving.join();
  }
  if (gallery.timedOut) return 1;
  if (!gallery.options.screenshot.empty() && !gallery.screenshotWritten) return 1;
  return 0;
}
