#include <NimbFoundation/Platform/Env/Log.h>

#include <NimbFoundation/Internal/LogRoute.h>

#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>

namespace nimb {

namespace {

struct SinkState {
  std::mutex mutex;      // guards `sink`
  std::mutex callMutex;  // serialises calls into the sink
  std::shared_ptr<const LogSink> sink;
};

SinkState& sinkState() {
  // Never destroyed: threads may log while the process exits.
  static auto* state = new SinkState;
  return *state;
}

thread_local bool insideSink = false;

std::shared_ptr<const LogSink> currentSink() {
  auto& state = sinkState();
  std::lock_guard lock(state.mutex);
  return state.sink;
}

void writeSystemLogLine(std::string_view subsystem, std::string_view message) {
  detail::writePlatformLogLine(subsystem, std::string(subsystem) + ": " + std::string(message));
}

}  // namespace

void setLogSink(LogSink sink) {
  auto next = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  auto& state = sinkState();
  std::lock_guard lock(state.mutex);
  state.sink.swap(next);
  // The old sink is released here, or by a call still using it.
}

bool hasLogSink() {
  return currentSink() != nullptr;
}

void logMessage(LogLevel level, std::string_view subsystem, std::string_view message) {
  detail::routeLog(level, subsystem, message, writeSystemLogLine);
}

namespace detail {

void routeLog(LogLevel level, std::string_view subsystem, std::string_view message,
              LogFallback fallback) {
  auto sink = insideSink ? nullptr : currentSink();
  if (!sink) {
    fallback(subsystem, message);
    return;
  }
  std::lock_guard lock(sinkState().callMutex);
  insideSink = true;
  try {
    (*sink)(level, subsystem, message);
  } catch (...) {
    // A sink that throws loses that message; the kit carries on.
  }
  insideSink = false;
}

void writeErrorLine(std::string_view, std::string_view message) {
  std::string line(message);
  line.push_back('\n');
  writeWhole(line);
}

void writeWhole(std::string_view line) {
  const char* data = line.data();
  std::size_t left = line.size();
  while (left > 0) {
    const ssize_t n = ::write(2, data, left);
    if (n <= 0) break;
    data += n;
    left -= static_cast<std::size_t>(n);
  }
}

}  // namespace detail

}  // namespace nimb
