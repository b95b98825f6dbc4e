// callReportingExceptions: runs a unit of work handed to the platform layer
// (a run-loop task, a queued operation) so that an exception it throws is
// reported on standard error and goes no further: the loop or the worker
// that ran it must carry on. Used by RunLoop and OperationQueue.
#pragma once

#include <cstdio>
#include <exception>

namespace nimb::detail {

template <typename Work>
void callReportingExceptions(const char* what, Work& work) noexcept {
  try {
    work();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s threw: %s\n", what, e.what());
  } catch (...) {
    std::fprintf(stderr, "%s threw\n", what);
  }
}

}  // namespace nimb::detail
