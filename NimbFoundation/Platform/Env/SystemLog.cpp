#include <NimbFoundation/Platform/Env/SystemLog.h>

#include <NimbFoundation/Internal/LogRoute.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>

#include <NimbFoundation/Platform/Core/Date.h>
#include <NimbFoundation/Platform/Core/Text.h>
#include <NimbFoundation/Platform/Env/FileManager.h>

namespace nimb {

void SystemLog::log(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  logv(format, arguments);
  va_end(arguments);
}

void SystemLog::logv(const char* format, va_list arguments) {
  if (!format) return;
  detail::routeLog(LogLevel::kError, "SystemLog", stringWithFormatv(format, arguments),
                   detail::writePlatformLogLine);
}

namespace detail {

void writePlatformLogLine(std::string_view, std::string_view message) {
  const double now = Date::now().timeIntervalSince1970();
  const auto seconds = static_cast<std::time_t>(std::floor(now));
  const int millis = static_cast<int>((now - std::floor(now)) * 1000);
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

  char header[256];
  std::snprintf(header, sizeof header, "%s.%03d %s[%d:%d] ", stamp, millis,
                FileManager::processName().c_str(), static_cast<int>(::getpid()),
                static_cast<int>(::syscall(SYS_gettid)));
  std::string line = header + std::string(message);
  line.push_back('\n');
  // One write, so that lines from several threads never mix.
  writeWhole(line);
}

}  // namespace detail

}  // namespace nimb
