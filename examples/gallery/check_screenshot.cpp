// Checks a gallery screenshot: every sample picture must show as a block of
// its own colour (each cell holds the picture's middle, which is that colour
// alone), and no cell may still show the placeholder. Decodes the PNG with
// the kit's own image decoding.
//
//   check_screenshot FILE.png
// Exit status 0 when the screenshot passes, 1 with the reasons otherwise.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <NimbFoundation/Platform/Graphics/Image.h>

#include "SamplePictures.h"

namespace {

// Pixels of `bitmap` within `tolerance` of `color` on every channel.
std::size_t countNear(const nimb::Bitmap& bitmap, const nimb::Color& color, int tolerance) {
  const int want[3] = {static_cast<int>(color.red * 255 + 0.5),
                       static_cast<int>(color.green * 255 + 0.5),
                       static_cast<int>(color.blue * 255 + 0.5)};
  std::size_t count = 0;
  for (std::size_t i = 0; i + 3 < bitmap.rgba.size(); i += 4) {
    if (std::abs(bitmap.rgba[i] - want[0]) <= tolerance &&
        std::abs(bitmap.rgba[i + 1] - want[1]) <= tolerance &&
        std::abs(bitmap.rgba[i + 2] - want[2]) <= tolerance) {
      ++count;
    }
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: check_screenshot FILE.png\n");
    return 2;
  }
  auto image = nimb::Image::withContentsOfFile(argv[1]);
  if (!image) {
    std::fprintf(stderr, "check_screenshot: %s is not a picture\n", argv[1]);
    return 1;
  }
  const nimb::Bitmap& bitmap = image->bitmap();
  std::printf("%s: %dx%d\n", argv[1], bitmap.width, bitmap.height);
  // A cell's view is 168 points square; the picture's plain middle covers
  // far more than 60x60 of it, the label and stripes aside.
  constexpr std::size_t kBlock = 60 * 60;
  constexpr int kTolerance = 10;
  int faults = 0;
  for (const auto& plan : gallery::kSamplePlans) {
    const std::size_t n = countNear(bitmap, plan.ground, kTolerance);
    std::printf("  %-14s %7zu pixels of its colour\n", plan.name, n);
    if (n < kBlock) {
      std::fprintf(stderr, "check_screenshot: %s is not shown\n", plan.name);
      ++faults;
    }
  }
  // The placeholder's ground fills most of a cell while it shows; the rest
  // of the window has none of its colour worth counting.
  const std::size_t placeholder = countNear(bitmap, gallery::kPlaceholderGround, 2);
  std::printf("  %-14s %7zu pixels of its colour\n", "placeholder", placeholder);
  if (placeholder >= kBlock) {
    std::fprintf(stderr, "check_screenshot: a cell still shows the placeholder\n");
    ++faults;
  }
  return faults == 0 ? 0 : 1;
}
