// Color: a colour value, the counterpart of the platform's colour object.
// Views fill their background with one, the graphics contexts draw with one,
// and NimbKit::colorWithHexString() makes one from "#RRGGBB" text.
//
// Components are doubles from 0 to 1 with straight (not premultiplied)
// alpha, stored as given; drawing clamps values out of range and reads NaN
// as 0. A plain value: copy it freely, from any thread.
#pragma once

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

struct Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 1;

  static constexpr Color colorWithRed(double red, double green, double blue, double alpha) {
    return Color{red, green, blue, alpha};
  }
  static constexpr Color colorWithWhite(double white, double alpha) {
    return Color{white, white, white, alpha};
  }
  // The named colours the kit uses.
  static constexpr Color whiteColor() { return Color{1, 1, 1, 1}; }
  static constexpr Color blackColor() { return Color{0, 0, 0, 1}; }
  static constexpr Color clearColor() { return Color{0, 0, 0, 0}; }
  static constexpr Color grayColor() { return Color{0.5, 0.5, 0.5, 1}; }
  static constexpr Color lightGrayColor() { return Color{2.0 / 3, 2.0 / 3, 2.0 / 3, 1}; }
  static constexpr Color darkGrayColor() { return Color{1.0 / 3, 1.0 / 3, 1.0 / 3, 1}; }
  static constexpr Color redColor() { return Color{1, 0, 0, 1}; }
  static constexpr Color greenColor() { return Color{0, 1, 0, 1}; }
  static constexpr Color blueColor() { return Color{0, 0, 1, 1}; }

  // Component-wise, exact (NaN is unequal to everything, itself included).
  constexpr bool operator==(const Color&) const = default;
};

}  // namespace nimb
