#include "Output.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>

#include <NimbFoundation/Platform/Env/Log.h>

namespace nimbkit {

namespace {

constexpr std::string_view kToolSubsystem = "nimbkit";

// The first write error on standard output (an errno value), or 0.
int firstOutputError = 0;
bool outputFailed = false;

void noteOutputError(int code) {
  outputFailed = true;
  if (firstOutputError == 0) firstOutputError = code;
}

std::string parentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string randomSuffix() {
  static std::mt19937_64 generator{std::random_device{}()};
  char text[20];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(generator()));
  return text;
}

// Writes all of `bytes` to `fd`; 0 or the errno of the failed write.
int writeAll(int fd, std::span<const std::uint8_t> bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? errno : EIO;
    done += static_cast<std::size_t>(n);
  }
  return 0;
}

}  // namespace

bool writeStandardOutput(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return true;
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
    noteOutputError(errno);
    return false;
  }
  return true;
}

bool flushStandardOutput() {
  if (std::fflush(stdout) != 0) {
    noteOutputError(errno);
    return false;
  }
  return true;
}

void installDiagnosticSink() {
  nimb::setLogSink([](nimb::LogLevel, std::string_view subsystem, std::string_view message) {
    std::string line = subsystem == kToolSubsystem
                           ? std::string(message)
                           : "nimbkit: " + std::string(subsystem) + ": " + std::string(message);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
  });
}

void diagnose(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  nimb::logMessage(nimb::LogLevel::kError, kToolSubsystem, text);
}

int finishStandardStreams(int status) {
  if (std::ferror(stdout)) noteOutputError(EIO);
  // Standard output closed before the start is no error unless something
  // was written to it.
  const bool pending = __fpending(stdout) > 0;
  if (std::fclose(stdout) != 0 && (pending || errno != EBADF)) noteOutputError(errno);
  if (outputFailed) {
    diagnose("nimbkit: write error: %s", std::strerror(firstOutputError));
  }
  const bool errorFailed = std::fflush(stderr) != 0 || std::ferror(stderr);
  return (outputFailed || errorFailed) && status == 0 ? 1 : status;
}

std::string writeUserFile(const std::string& path, std::span<const std::uint8_t> bytes) {
  const std::string directory = parentOf(path);
  const std::string base = path.substr(path.rfind('/') + 1);
  if (base.empty()) return std::strerror(EISDIR);
  std::string temporary;
  int fd = -1;
  // O_EXCL | O_NOFOLLOW: a name someone else holds (even a dangling link)
  // is never written through; another name is tried.
  for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
    temporary = directory + "/." + base + "." + randomSuffix() + ".tmp";
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) return std::strerror(errno);
  }
  if (fd < 0) return std::strerror(EEXIST);
  int error = writeAll(fd, bytes);
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    return std::strerror(error);
  }
  return "";
}

std::string writeUserFile(const std::string& path, std::string_view bytes) {
  return writeUserFile(
      path, std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

}  // namespace nimbkit
