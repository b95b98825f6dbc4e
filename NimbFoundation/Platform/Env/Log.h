// Log: the one place the kit's diagnostics go, and the hook an application
// uses to send them elsewhere (its own log, a file, nowhere).
//
// Every diagnostic the kit writes reaches the sink as a level, the subsystem
// that wrote it ("RunLoop", "OperationQueue", "NotificationCenter",
// "ImageDecodePool", "VQUtils" for the console log, "VQProtocolData",
// "SystemLog" for the platform log) and the message without its line header
// or final newline. With no sink set, each message is written as it always
// was: the console log's lines on standard output under outLog's header, the
// platform log's lines on standard error under SystemLog's header, a task or
// operation that threw as "<what> threw: <reason>" on standard error, and the
// hardware-address failures as bare lines on standard output.
//
// Thread rule: the sink may be called from any thread; calls are serialised
// (one at a time, process-wide), so a sink needs no lock of its own. A
// message logged from inside the sink goes to the default output instead of
// back into the sink. setLogSink() may be called from any thread, the sink
// too; a call already under way finishes with the sink it started with.
#pragma once

#include <functional>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

enum class LogLevel { kDebug, kInfo, kWarning, kError };

using LogSink =
    std::function<void(LogLevel level, std::string_view subsystem, std::string_view message)>;

// Sends every later diagnostic to `sink`; an empty sink restores the default output.
void setLogSink(LogSink sink);

// Whether an application sink is set.
bool hasLogSink();

// Logs through the sink; with none set, writes "<subsystem>: <message>" as a
// platform log line (SystemLog) on standard error.
void logMessage(LogLevel level, std::string_view subsystem, std::string_view message);

}  // namespace nimb
