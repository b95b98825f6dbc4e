// TimeZone: the process's time zones and their offsets, through ICU.
//
// The system time zone is the machine's, as Env::current() reports it (on
// Linux TZ, else /etc/localtime, read once per process); a test's Env can
// give a zone of -09:30 or +05:45. The default time zone is the one the
// application works in: the system one unless the host sets another. Zone
// names are IANA names ("Asia/Kathmandu") or
// "GMT+05:45"-style offsets; a name ICU does not know means GMT.
//
// Used by VQProtocolData (date, time and time-zone fields) and DateFormatter.
// Thread rule: any thread; the settings are guarded by a lock.
#pragma once

#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Date.h>

namespace NIMB_EXPORT nimb {

class TimeZone {
 public:
  static std::string systemTimeZoneName();
  static std::string defaultTimeZoneName();
  // "" makes the default follow the system zone again.
  static void setDefaultTimeZoneName(std::string name);
  // Seconds east of GMT in `zone` at `date`, daylight saving included.
  static int secondsFromGMT(std::string_view zone, Date date);
};

}  // namespace nimb
