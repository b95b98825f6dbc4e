// routeLog: how the kit's own classes log. The message goes to the
// application's sink when one is set (see Log.h), else `fallback` writes it
// the way that class always has.
#pragma once

#include <string_view>

#include <NimbFoundation/Platform/Env/Log.h>

namespace nimb::detail {

using LogFallback = void (*)(std::string_view subsystem, std::string_view message);

void routeLog(LogLevel level, std::string_view subsystem, std::string_view message,
              LogFallback fallback);

// Fallbacks. The message on standard error as one line:
void writeErrorLine(std::string_view subsystem, std::string_view message);
// the message as a platform log line (SystemLog's header, standard error):
void writePlatformLogLine(std::string_view subsystem, std::string_view message);

// Writes `line` to standard error in as few writes as it takes, so that
// lines from several threads never mix.
void writeWhole(std::string_view line);

}  // namespace nimb::detail
