#include <NimbFoundation/Platform/Env/TimeZone.h>

#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <memory>
#include <mutex>

#include <NimbFoundation/Platform/Env/Env.h>

namespace nimb {

namespace {

std::mutex gMutex;
std::string gDefaultName;  // set by the host; "" = the system zone

}  // namespace

std::string TimeZone::systemTimeZoneName() {
  return Env::current()->systemTimeZoneName();
}

std::string TimeZone::defaultTimeZoneName() {
  {
    std::lock_guard lock(gMutex);
    if (!gDefaultName.empty()) return gDefaultName;
  }
  return systemTimeZoneName();
}

void TimeZone::setDefaultTimeZoneName(std::string name) {
  std::lock_guard lock(gMutex);
  gDefaultName = std::move(name);
}

int TimeZone::secondsFromGMT(std::string_view zoneName, Date date) {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(
      icu::StringPiece(zoneName.data(), static_cast<int32_t>(zoneName.size())))));
  if (!zone) return 0;
  int32_t raw = 0, dst = 0;
  UErrorCode status = U_ZERO_ERROR;
  zone->getOffset(date.timeIntervalSince1970() * 1000.0, false, raw, dst, status);
  if (U_FAILURE(status)) return 0;
  return (raw + dst) / 1000;
}

}  // namespace nimb
