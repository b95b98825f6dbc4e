// Clock: the source of every "now" in the kit (cache expiry, log stamps).
//
// The real clock reads the system's wall clock. Tests install a ManualClock
// and move it by hand, so that instants such as "expires exactly now" can be
// reached exactly. Clock::setCurrent may be called from any thread; the
// swap is atomic, and a clock must stay thread-safe for now().
#pragma once

#include <atomic>
#include <memory>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Date.h>

namespace NIMB_EXPORT nimb {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual Date now() const = 0;

  // The clock in use; the system clock unless a test replaced it.
  static std::shared_ptr<const Clock> current();
  // Installs `clock`; nullptr restores the system clock.
  static void setCurrent(std::shared_ptr<const Clock> clock);
};

// Reads CLOCK_REALTIME.
class SystemClock final : public Clock {
 public:
  Date now() const override;
};

// A clock that stands still until told to move.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(Date start) : seconds_(start.timeIntervalSince1970()) {}
  Date now() const override { return Date::fromTimeIntervalSince1970(seconds_.load()); }
  void set(Date d) { seconds_.store(d.timeIntervalSince1970()); }
  void advance(double seconds) { seconds_.store(seconds_.load() + seconds); }

 private:
  std::atomic<double> seconds_;
};

}  // namespace nimb
