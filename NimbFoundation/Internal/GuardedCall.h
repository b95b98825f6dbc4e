// callReportingExceptions: runs a unit of work handed to the platform layer
// (a run-loop task, a queued operation) so that an exception it throws is
// reported and goes no further: the loop or the worker that ran it must
// carry on. Used by RunLoop, OperationQueue, NotificationCenter and
// ImageDecodePool. `what` reads "<subsystem>: <the work>"; the report,
// "<what> threw: <reason>", goes to the log sink under that subsystem, by
// default on standard error.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include <NimbFoundation/Internal/LogRoute.h>

namespace nimb::detail {

inline void reportThrow(std::string_view what, const char* reason) noexcept {
  try {
    const std::string_view subsystem = what.substr(0, what.find(": "));
    std::string message = std::string(what) + " threw";
    if (reason) message.append(": ").append(reason);
    routeLog(LogLevel::kError, subsystem, message, writeErrorLine);
  } catch (...) {
    // Out of memory for the report: the work is dropped unreported.
  }
}

template <typename Work>
void callReportingExceptions(const char* what, Work& work) noexcept {
  try {
    work();
  } catch (const std::exception& e) {
    reportThrow(what, e.what());
  } catch (...) {
    reportThrow(what, nullptr);
  }
}

}  // namespace nimb::detail
