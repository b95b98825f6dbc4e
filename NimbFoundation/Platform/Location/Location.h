// Location: one position fix, the platform's location value. A plain value
// made by the location sources and handed to LocationManager's delegate.
//
// Units: degrees (WGS 84) for the coordinate, meters for altitude and the
// accuracies, degrees clockwise from true north for the course, meters per
// second for the speed. A negative accuracy, course or speed means "not
// known", as the platform reports it; a negative horizontal accuracy makes
// the coordinate itself invalid.
//
// Also the location error domain and codes that the sources report.
//
// Thread rule: a value; copy it between threads freely.
#pragma once

#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Date.h>
#include <NimbFoundation/Platform/Core/Error.h>

namespace NIMB_EXPORT nimb {

// Accuracies a LocationManager can be asked for, in meters. The two "best"
// settings are markers, not distances.
inline constexpr double kLocationAccuracyBestForNavigation = -2;
inline constexpr double kLocationAccuracyBest = -1;
inline constexpr double kLocationAccuracyNearestTenMeters = 10;
inline constexpr double kLocationAccuracyHundredMeters = 100;
inline constexpr double kLocationAccuracyKilometer = 1000;
inline constexpr double kLocationAccuracyThreeKilometers = 3000;
// A distance filter that lets every fix through.
inline constexpr double kDistanceFilterNone = -1;

// The location error domain and its codes (Error::domain and Error::code).
inline constexpr const char* kLocationErrorDomain = "kCLErrorDomain";
enum LocationErrorCode : long {
  kCLErrorLocationUnknown = 0,  // no fix can be had yet; updates go on
  kCLErrorDenied = 1,           // the user or the service refused access
  kCLErrorNetwork = 2,          // the position service cannot be reached
};

// An Error in kLocationErrorDomain whose userInfo carries `description`
// under kLocalizedDescriptionKey, as the kit's sources report them.
Error locationError(long code, const std::string& description);

struct LocationCoordinate2D {
  double latitude = 0;
  double longitude = 0;
  friend bool operator==(const LocationCoordinate2D&, const LocationCoordinate2D&) = default;
};

class Location {
 public:
  Location() = default;
  Location(LocationCoordinate2D coordinate, double altitude, double horizontalAccuracy,
           double verticalAccuracy, double course, double speed, Date timestamp)
      : coordinate_(coordinate),
        altitude_(altitude),
        horizontalAccuracy_(horizontalAccuracy),
        verticalAccuracy_(verticalAccuracy),
        course_(course),
        speed_(speed),
        timestamp_(timestamp) {}

  LocationCoordinate2D coordinate() const { return coordinate_; }
  double altitude() const { return altitude_; }
  double horizontalAccuracy() const { return horizontalAccuracy_; }
  double verticalAccuracy() const { return verticalAccuracy_; }
  double course() const { return course_; }
  double speed() const { return speed_; }
  Date timestamp() const { return timestamp_; }

  // The great-circle distance to `other` in meters (haversine on a sphere
  // of the Earth's mean radius, 6,371,008.8 m). NaN when either coordinate
  // is NaN.
  double distanceFromLocation(const Location& other) const;

  // The platform's text form, with the time in the default time zone:
  // "<+52.52000000,+13.40500000> +/- 5.00m (speed 10.00 mps / course 90.00)
  //  @ 11/22/26, 2:30:05 PM Central European Standard Time".
  std::string description() const;

  friend bool operator==(const Location&, const Location&) = default;

 private:
  LocationCoordinate2D coordinate_;
  double altitude_ = 0;
  double horizontalAccuracy_ = -1;
  double verticalAccuracy_ = -1;
  double course_ = -1;
  double speed_ = -1;
  Date timestamp_;
};

}  // namespace nimb
