#include <NimbFoundation/Platform/Env/Clock.h>

#include <ctime>
#include <mutex>

namespace nimb {

namespace {
std::mutex& clockMutex() {
  static std::mutex m;
  return m;
}
std::shared_ptr<const Clock>& installedClock() {
  static std::shared_ptr<const Clock> c = std::make_shared<SystemClock>();
  return c;
}
}  // namespace

std::shared_ptr<const Clock> Clock::current() {
  std::lock_guard lock(clockMutex());
  return installedClock();
}

void Clock::setCurrent(std::shared_ptr<const Clock> clock) {
  std::lock_guard lock(clockMutex());
  installedClock() = clock ? std::move(clock) : std::make_shared<SystemClock>();
}

Date SystemClock::now() const {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return Date::fromTimeIntervalSince1970(double(ts.tv_sec) + double(ts.tv_nsec) / 1e9);
}

}  // namespace nimb
