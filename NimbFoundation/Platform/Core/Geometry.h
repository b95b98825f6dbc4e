// Geometry: points, sizes and rectangles in points (or pixels, where a
// caller says so), the counterparts of the platform's CGPoint, CGSize and
// CGRect. Origins are at the top left; y grows downwards.
//
// Plain values, used by images, views, drawing and the screen facts.
#pragma once

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

struct Point {
  double x = 0;
  double y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
  double width = 0;
  double height = 0;
  friend bool operator==(const Size&, const Size&) = default;
};

struct Rect {
  Point origin;
  Size size;

  constexpr Rect() = default;
  constexpr Rect(Point o, Size s) : origin(o), size(s) {}
  constexpr Rect(double x, double y, double width, double height)
      : origin{x, y}, size{width, height} {}

  double minX() const { return origin.x; }
  double minY() const { return origin.y; }
  double maxX() const { return origin.x + size.width; }
  double maxY() const { return origin.y + size.height; }
  bool isEmpty() const { return !(size.width > 0) || !(size.height > 0); }
  friend bool operator==(const Rect&, const Rect&) = default;
};

}  // namespace nimb
