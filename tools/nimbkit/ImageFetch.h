// ImageFetch: what `nimbkit fetch` and `nimbkit demo` share. It loads URLs
// through the shared image loader into image views, as an application
// would, shows a progress bar per image on a terminal (plain lines
// otherwise), then reports per image where it came from, its bytes, its size
// and its time, writes what each view shows as PNG, and draws a contact
// sheet of them all.
//
// Runs on the main thread and turns its run loop until every view has its
// picture or failed, then until the cache's writes and index save are done.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Core/Geometry.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Net/URL.h>

namespace nimbkit {

struct FetchSettings {
  bool crop = false;                    // square crops (cutOffImage) instead of whole pictures
  nimb::Size viewSize{160, 160};        // each view's frame, in points
  std::string outDirectory;             // where the PNGs go; "" writes none
  double timeoutSeconds = 60;           // for the whole batch
  std::string title = "nimbkit fetch";  // printed above the table and on the sheet
};

struct FetchResult {
  std::string url;
  bool loaded = false;
  bool fromCache = false;                       // shown synchronously by setImageURL
  std::size_t bytes = 0;                        // the cached body (or crop) size
  nimb::Size pictureSize;                       // pixels of what the view shows
  double seconds = 0;                           // from setImageURL to pixels ready
  std::string error;                            // when not loaded
  std::shared_ptr<const nimb::Image> rendered;  // the view as drawn, viewSize at scale 1
  std::string pngPath;                          // where `rendered` was written, if it was
};

// Loads every URL into its own view and waits. Never throws for a URL that
// fails: its result says why.
std::vector<FetchResult> fetchIntoViews(const std::vector<nimb::URL>& urls,
                                        const FetchSettings& settings);

// The per-image table on standard output.
void printResults(const std::vector<FetchResult>& results, const FetchSettings& settings);

// Draws every rendered view in a grid with its label and writes it to
// `path`; "" when written, else why not.
std::string writeContactSheet(const std::vector<FetchResult>& results,
                              const FetchSettings& settings, const std::string& path);

// The line that says why a load failed; a connection that could not be
// made names the host and port ("cannot connect to 127.0.0.1:1: ...").
std::string failureText(const nimb::Error& error);

// Runs the main loop until the cache has written everything it was given.
void flushCache();

}  // namespace nimbkit
