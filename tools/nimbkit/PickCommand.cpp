// nimbkit pick: a photo chosen in the desktop's file chooser, through the
// kit's photo picker.
#include <cstdio>
#include <optional>
#include <string>

#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Graphics/ImagePickerController.h>

#include "Command.h"
#include "DisplayText.h"
#include "Output.h"

namespace nimbkit {

namespace {

using nimb::ImagePickerController;
using nimb::ImagePickerMediaInfo;
using nimb::NimbKit;
using nimb::RunLoop;

int pick() {
  NimbKit& kit = NimbKit::sharedInstance();
  std::optional<ImagePickerMediaInfo> picked;
  kit.fetchImageFromAlbum(nullptr, [&picked](ImagePickerController*,
                                             const ImagePickerMediaInfo& info) { picked = info; });
  // The kit asks the portal itself and presents nothing when none answers.
  auto picker = kit.imagePicker();
  if (!picker || !picker->isPresented()) {
    diagnose("nimbkit pick: no desktop portal with a file chooser on the session bus\n");
    return kNotFound;
  }
  // A pick calls the completion; a cancel only ends the dialog.
  while (!picked && picker && picker->isPresented()) RunLoop::main().runOnce(0.1);
  if (!picked) {
    diagnose("nimbkit pick: cancelled\n");
    return kNotFound;
  }
  std::printf("url: %s\n",
              picked->mediaURL ? escapeForDisplay(picked->mediaURL->absoluteString()).c_str() : "");
  std::printf("type: %s\n", picked->mediaType.c_str());
  if (picked->originalImage) {
    const auto size = picked->originalImage->size();
    std::printf("image: %g x %g\n", size.width, size.height);
  } else {
    std::printf("image: none (not a picture)\n");
  }
  return kOk;
}

}  // namespace

void addPickCommand(CLI::App& app, Action& selected) {
  auto* sub = app.add_subcommand(
      "pick", "Choose a photo in the desktop's file chooser and print its URL, type and size");
  onSelected(sub, selected, pick);
}

}  // namespace nimbkit
