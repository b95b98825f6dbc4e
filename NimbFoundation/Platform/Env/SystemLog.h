// SystemLog: the platform's own log (NSLog), for the few messages that
// bypass the kit's switchable console log.
//
// Each message becomes one line on standard error, written whole:
//   "2026-11-21 17:50:00.123 nimbkit[1234:1240] message"
// with the local date and time, the process name, its id and the kernel
// thread number. Always on. Safe from any thread. With a log sink set
// (Log.h), the message goes to it instead, under the subsystem "SystemLog".
#pragma once

#include <cstdarg>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class SystemLog {
 public:
  static void log(const char* format, ...) __attribute__((format(printf, 1, 2)));
  static void logv(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));
};

}  // namespace nimb
