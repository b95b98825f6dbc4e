#include <NimbFoundation/Platform/Core/DateFormatter.h>
#include <NimbFoundation/Platform/Location/Location.h>

#include <cmath>
#include <cstdio>
#include <numbers>

namespace nimb {

Error locationError(long code, const std::string& description) {
  return Error{kLocationErrorDomain, code, Dictionary{{kLocalizedDescriptionKey, description}}};
}

double Location::distanceFromLocation(const Location& other) const {
  constexpr double kEarthMeanRadius = 6371008.8;
  constexpr double kRadians = std::numbers::pi / 180;
  const double lat1 = coordinate_.latitude * kRadians;
  const double lat2 = other.coordinate_.latitude * kRadians;
  const double dLat = lat2 - lat1;
  const double dLon = (other.coordinate_.longitude - coordinate_.longitude) * kRadians;
  const double h = std::sin(dLat / 2) * std::sin(dLat / 2) +
                   std::cos(lat1) * std::cos(lat2) * std::sin(dLon / 2) * std::sin(dLon / 2);
  // Rounding can push h a hair past 1 for antipodal points.
  return 2 * kEarthMeanRadius * std::asin(std::sqrt(h > 1 ? 1.0 : h));
}

std::string Location::description() const {
  char head[160];
  std::snprintf(head, sizeof head, "<%+.8f,%+.8f> +/- %.2fm (speed %.2f mps / course %.2f) @ ",
                coordinate_.latitude, coordinate_.longitude, horizontalAccuracy_, speed_, course_);
  return head + DateFormatter("M/d/yy, h:mm:ss a zzzz").stringFromDate(timestamp_);
}

}  // namespace nimb
