// The gallery's own sample pictures, shared with its screenshot checker:
// each is a ground of one distinct colour with its name on a white label and
// a frame of stripes, so most of every picture (and of its square crop) is
// that colour alone. The placeholder is a pale grey with a
// darker cross, a colour no sample uses, so a cell still showing it is told
// apart from one showing its picture.
#pragma once

#include <array>
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <NimbFoundation/Platform/Core/Value.h>
#include <NimbFoundation/Platform/Graphics/Color.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

namespace gallery {

struct SamplePlan {
  const char* name;  // the served path; the suffix picks the encoding
  nimb::Color ground;
  double width, height;
};

// Colours far apart from each other and from the placeholder's grey.
inline constexpr std::array<SamplePlan, 6> kSamplePlans{{
    {"red.jpg", {0.86, 0.16, 0.16, 1}, 640, 480},
    {"green.png", {0.16, 0.70, 0.24, 1}, 400, 300},
    {"blue.jpg", {0.16, 0.32, 0.86, 1}, 480, 640},
    {"yellow.png", {0.95, 0.82, 0.12, 1}, 320, 320},
    {"magenta.webp", {0.80, 0.20, 0.72, 1}, 500, 300},
    {"teal.jpg", {0.10, 0.62, 0.62, 1}, 360, 480},
}};

inline constexpr nimb::Color kPlaceholderGround{0.82, 0.82, 0.85, 1};
inline constexpr nimb::Color kPlaceholderMark{0.62, 0.62, 0.68, 1};

struct Sample {
  std::string name;
  std::string mime;
  nimb::Data bytes;
};

inline std::shared_ptr<const nimb::Image> drawSample(const SamplePlan& plan) {
  nimb::ImageContext context({plan.width, plan.height}, true, 1.0);
  context.fillRect(nimb::Rect(0, 0, plan.width, plan.height), plan.ground);
  const nimb::Color stripe{plan.ground.red * 0.55, plan.ground.green * 0.55,
                           plan.ground.blue * 0.55, 1};
  for (double x = 0; x < plan.width; x += 24) {
    context.fillRect(nimb::Rect(x, 0, 12, 14), stripe);
    context.fillRect(nimb::Rect(x, plan.height - 14, 12, 14), stripe);
  }
  for (double y = 0; y < plan.height; y += 24) {
    context.fillRect(nimb::Rect(0, y, 14, 12), stripe);
    context.fillRect(nimb::Rect(plan.width - 14, y, 14, 12), stripe);
  }
  // The label sits centred a third of the way down, inside any square crop.
  const std::string label = plan.name;
  const double labelWidth = label.size() * 11.0 + 16;
  const nimb::Rect box((plan.width - labelWidth) / 2, plan.height / 3 - 15, labelWidth, 30);
  context.fillRect(box, {1, 1, 1, 0.85});
  context.drawText(label, {box.minX() + 8, box.minY() + 22}, 18, {0.1, 0.1, 0.15, 1});
  return context.image();
}

// Every sample encoded as its name says; a sample whose encoding failed is
// left out.
inline std::vector<Sample> makeSamples() {
  std::vector<Sample> samples;
  for (const SamplePlan& plan : kSamplePlans) {
    auto image = drawSample(plan);
    if (!image) continue;
    const std::string name = plan.name;
    std::optional<nimb::Data> bytes;
    std::string mime;
    if (name.ends_with(".jpg")) {
      bytes = image->jpegRepresentation(90), mime = "image/jpeg";
    } else if (name.ends_with(".png")) {
      bytes = image->pngRepresentation(), mime = "image/png";
    } else {
      bytes = image->webpRepresentation(85.0f), mime = "image/webp";
    }
    if (bytes) samples.push_back({name, mime, std::move(*bytes)});
  }
  return samples;
}

// The placeholder every cell shows until its picture is there.
inline std::shared_ptr<const nimb::Image> drawPlaceholder(double side) {
  nimb::ImageContext context({side, side}, true, 1.0);
  context.fillRect(nimb::Rect(0, 0, side, side), kPlaceholderGround);
  const double bar = std::round(side / 12);
  context.fillRect(nimb::Rect(0, (side - bar) / 2, side, bar), kPlaceholderMark);
  context.fillRect(nimb::Rect((side - bar) / 2, 0, bar, side), kPlaceholderMark);
  return context.image();
}

}  // namespace gallery
