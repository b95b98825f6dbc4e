// Date: an absolute instant, as seconds since 1970-01-01 00:00:00 UTC.
//
// The platform's dates count from 2001-01-01; property lists and keyed
// archives store that form, so both views are offered. A Date is a plain
// value: copy it freely between threads.
#pragma once

#include <compare>
#include <string>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class Date {
 public:
  // Seconds between 1970-01-01 and the platform's reference date 2001-01-01.
  static constexpr double kReferenceDateOffset = 978307200.0;

  constexpr Date() = default;  // 1970-01-01 00:00:00 UTC
  static constexpr Date fromTimeIntervalSince1970(double seconds) { return Date(seconds); }
  static constexpr Date fromTimeIntervalSinceReferenceDate(double seconds) {
    return Date(seconds + kReferenceDateOffset);
  }
  // The current instant: Env::current()->now() (see Env.h).
  static Date now();

  constexpr double timeIntervalSince1970() const { return seconds_; }
  constexpr double timeIntervalSinceReferenceDate() const {
    return seconds_ - kReferenceDateOffset;
  }
  constexpr Date addingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }
  constexpr double timeIntervalSince(Date other) const { return seconds_ - other.seconds_; }

  // ISO 8601 in UTC with milliseconds, e.g. "2026-11-21T09:30:00.250Z".
  std::string iso8601() const;

  friend constexpr bool operator==(Date, Date) = default;
  friend constexpr auto operator<=>(Date a, Date b) { return a.seconds_ <=> b.seconds_; }

 private:
  constexpr explicit Date(double s) : seconds_(s) {}
  double seconds_ = 0;
};

}  // namespace nimb
