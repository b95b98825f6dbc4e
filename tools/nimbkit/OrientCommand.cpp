// nimbkit orient IN [--out FILE]: how a picture is stored and how it is
// meant to be seen, and optionally the picture turned upright as PNG.
//
// Prints one line, e.g.
//   orientation 3 (right), stored 640x480, upright 480x640
// with the library's orientation code (a JPEG's EXIF tag is read into it).
// Exit 1 when the file is missing or no picture, or the PNG cannot be
// written.
#include <cstdio>
#include <memory>
#include <string>

#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

#include "Command.h"
#include "DisplayText.h"
#include "Output.h"

namespace nimbkit {

namespace {

struct OrientOptions {
  std::string input;
  std::string output;
};

const char* orientationName(nimb::ImageOrientation o) {
  static constexpr const char* kNames[] = {
      "up",          "down",          "left",          "right",
      "up-mirrored", "down-mirrored", "left-mirrored", "right-mirrored"};
  const int code = static_cast<int>(o);
  return code >= 0 && code < 8 ? kNames[code] : "unknown";
}

int orient(const OrientOptions& o) {
  auto image = nimb::Image::withContentsOfFile(o.input);
  if (!image) {
    diagnose("nimbkit: %s: missing, unreadable or not a picture\n",
             escapeForDisplay(o.input).c_str());
    return kNotFound;
  }
  auto upright = nimb::NimbKit::fixOrientation(image);
  const nimb::Bitmap& stored = image->bitmap();
  const nimb::Size size = image->size();
  std::printf("orientation %d (%s), stored %dx%d, upright %gx%g\n",
              static_cast<int>(image->orientation()), orientationName(image->orientation()),
              stored.width, stored.height, size.width, size.height);
  if (o.output.empty()) return kOk;
  auto png = upright ? upright->pngRepresentation() : std::nullopt;
  const std::string why = png ? writeUserFile(o.output, *png) : "cannot encode it as PNG";
  if (!why.empty()) {
    diagnose("nimbkit: cannot write %s: %s\n", escapeForDisplay(o.output).c_str(), why.c_str());
    return kNotFound;
  }
  return kOk;
}

}  // namespace

void addOrientCommand(CLI::App& app, Action& selected) {
  auto options = std::make_shared<OrientOptions>();
  auto* cmd = app.add_subcommand(
      "orient", "Print how a picture is stored and meant to be seen; --out writes it upright");
  cmd->add_option("IN", options->input, "A PNG, JPEG, GIF or WebP file")->required();
  cmd->add_option("--out", options->output, "Write the upright picture here as PNG");
  onSelected(cmd, selected, [options] { return orient(*options); });
}

}  // namespace nimbkit
