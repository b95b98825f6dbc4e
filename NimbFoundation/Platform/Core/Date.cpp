#include <NimbFoundation/Platform/Core/Date.h>

#include <cmath>
#include <cstdio>
#include <ctime>

#include <NimbFoundation/Platform/Env/Env.h>

namespace nimb {

Date Date::now() {
  return Env::current()->now();
}

std::string Date::iso8601() const {
  if (!std::isfinite(seconds_)) return seconds_ > 0 ? "+inf" : (seconds_ < 0 ? "-inf" : "nan");
  double whole = std::floor(seconds_);
  auto millis = static_cast<int>(std::lround((seconds_ - whole) * 1000.0));
  if (millis == 1000) {
    whole += 1;
    millis = 0;
  }
  time_t t = static_cast<time_t>(whole);
  tm parts{};
  gmtime_r(&t, &parts);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, millis);
  return buf;
}

}  // namespace nimb
