#include <NimbFoundation/Platform/Env/Env.h>
#include <NimbFoundation/Platform/Location/GpsdLocationSource.h>

#include <fcntl.h>
#include <gps.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <mutex>
#include <thread>

namespace nimb {

namespace {

constexpr double kFirstBackoff = 0.25;
constexpr double kLastBackoff = 4;
constexpr int kAvailabilityMs = 2000;
// Room for one JSON report of gpsd, the longest (SKY) included.
constexpr int kMessageSize = 8192;

struct Endpoint {
  std::string host;
  std::string port;
  std::string text() const { return host + ":" + port; }
};

Endpoint resolveEndpoint(const std::string& host, unsigned port) {
  Endpoint endpoint;
  auto env = Env::current();
  endpoint.host = host;
  if (endpoint.host.empty()) {
    endpoint.host = env->environmentVariable("GPSD_HOST").value_or("");
    if (endpoint.host.empty()) endpoint.host = "localhost";
  }
  if (port != 0) {
    endpoint.port = std::to_string(port);
  } else {
    auto variable = env->environmentVariable("GPSD_PORT").value_or("");
    char* end = nullptr;
    const unsigned long value = std::strtoul(variable.c_str(), &end, 10);
    const bool valid = !variable.empty() && *end == '\0' && value > 0 && value < 65536;
    endpoint.port = valid ? std::to_string(value) : std::string(DEFAULT_GPSD_PORT);
  }
  return endpoint;
}

bool isClass(const char* message, const char* name) {
  const std::string tag = std::string("\"class\":\"") + name + "\"";
  return std::strstr(message, tag.c_str()) != nullptr;
}

double orUnknown(double value, double unknown) {
  return std::isfinite(value) ? value : unknown;
}

// The fix of a TPV report with a 2-D or 3-D fix; nullopt-like `false` when
// the report carries no position yet (gpsd may send the mode first).
bool locationFromFix(const gps_fix_t& fix, Location& out) {
  if (!std::isfinite(fix.latitude) || !std::isfinite(fix.longitude)) return false;
  double horizontal = -1;
  if (std::isfinite(fix.eph)) {
    horizontal = fix.eph;
  } else if (std::isfinite(fix.epx) || std::isfinite(fix.epy)) {
    horizontal = std::max(orUnknown(fix.epx, -1), orUnknown(fix.epy, -1));
  }
  double altitude = orUnknown(fix.altMSL, orUnknown(fix.altHAE, 0));
  Date timestamp = fix.time.tv_sec != 0 || fix.time.tv_nsec != 0
                       ? Date::fromTimeIntervalSince1970(static_cast<double>(fix.time.tv_sec) +
                                                         fix.time.tv_nsec / 1e9)
                       : Env::current()->now();
  out = Location({fix.latitude, fix.longitude}, altitude, horizontal, orUnknown(fix.epv, -1),
                 orUnknown(fix.track, -1), orUnknown(fix.speed, -1), timestamp);
  return true;
}

// Whether a TCP connection to `endpoint` opens within `timeoutMs`. A
// connect to a host that does not answer can hang for minutes, and libgps
// connects without a limit, so the kit asks first. A write on `wake` (when
// given) ends the wait early, as not reachable.
bool reachable(const Endpoint& endpoint, int timeoutMs, int wake = -1) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(endpoint.host.c_str(), endpoint.port.c_str(), &hints, &found) != 0) {
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  bool connected = false;
  for (addrinfo* a = found; a && !connected; a = a->ai_next) {
    const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) continue;
    if (::connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
      connected = true;
    } else if (errno == EINPROGRESS) {
      for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) break;
        pollfd fds[2] = {{fd, POLLOUT, 0}, {wake, POLLIN, 0}};
        const int ready = ::poll(fds, wake >= 0 ? 2 : 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready > 0 && fds[0].revents != 0 && (wake < 0 || fds[1].revents == 0)) {
          int error = 0;
          socklen_t length = sizeof error;
          connected = ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
        }
        break;
      }
    }
    ::close(fd);
  }
  ::freeaddrinfo(found);
  return connected;
}

// libgps works in buffers shared by the process (getprotobyname() when it
// opens, static text buffers when it builds commands and reads reports):
// its calls run one at a time, among all sources and availability checks.
// None of them blocks but gps_open()'s connect, which reachable() has
// just seen succeed.
std::mutex& libgpsLock() {
  static std::mutex lock;
  return lock;
}

// A connection to gpsd; closed when it goes.
class Connection {
 public:
  bool open(const Endpoint& endpoint) {
    std::memset(&data_, 0, sizeof data_);
    {
      std::lock_guard<std::mutex> guard(libgpsLock());
      open_ = gps_open(endpoint.host.c_str(), endpoint.port.c_str(), &data_) == 0;
    }
    if (open_) {
      // Reads never block: poll() says when to read.
      const int flags = ::fcntl(fd(), F_GETFL);
      ::fcntl(fd(), F_SETFL, flags | O_NONBLOCK);
    }
    return open_;
  }
  ~Connection() {
    if (!open_) return;
    std::lock_guard<std::mutex> guard(libgpsLock());
    gps_close(&data_);
  }
  void watch() {
    std::lock_guard<std::mutex> guard(libgpsLock());
    gps_stream(&data_, WATCH_ENABLE | WATCH_JSON, nullptr);
  }
  int fd() const { return static_cast<int>(data_.gps_fd); }
  gps_data_t& data() { return data_; }

  enum class Read { kMessage, kDrained, kLost };
  // The next whole report from what the socket holds, into `message`.
  Read next(char* message, int size) {
    std::lock_guard<std::mutex> guard(libgpsLock());
    errno = 0;
    const int status = gps_read(&data_, message, size);
    if (status > 0) return Read::kMessage;
    if (status == 0 || errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
      return Read::kDrained;
    }
    return Read::kLost;
  }

 private:
  gps_data_t data_{};
  bool open_ = false;
};

}  // namespace

struct GpsdLocationSource::Impl {
  std::string host;
  unsigned port = 0;

  // Guards `events` and `delivering`; held while an event is delivered, so
  // that stop() returns only after any delivery in progress has ended.
  std::mutex eventsLock;
  LocationSourceEvents events;
  bool delivering = false;

  std::thread thread;
  int wake = -1;  // eventfd written by stop()

  void deliverFix(const Location& fix) {
    std::lock_guard<std::mutex> guard(eventsLock);
    if (!delivering || !events.fix) return;
    try {
      events.fix(fix);
    } catch (...) {
    }
  }
  void deliverFailure(const Error& error) {
    std::lock_guard<std::mutex> guard(eventsLock);
    if (!delivering || !events.failure) return;
    try {
      events.failure(error);
    } catch (...) {
    }
  }

  // Waits up to `seconds` (forever when negative) for `fd` to be readable
  // or for stop(). False when stopped.
  bool wait(int fd, double seconds, bool* readable) const {
    pollfd fds[2] = {{wake, POLLIN, 0}, {fd, POLLIN, 0}};
    const int timeout = seconds < 0 ? -1 : static_cast<int>(seconds * 1000);
    int ready;
    do {
      ready = ::poll(fds, fd >= 0 ? 2 : 1, timeout);
    } while (ready < 0 && errno == EINTR);
    if (fds[0].revents != 0) return false;
    if (readable) *readable = fd >= 0 && fds[1].revents != 0;
    return true;
  }

  void run(const Endpoint& endpoint) {
    double backoff = kFirstBackoff;
    bool outageReported = false;
    bool unknownReported = false;
    char message[kMessageSize];
    for (;;) {
      Connection connection;
      if (reachable(endpoint, kAvailabilityMs, wake) && connection.open(endpoint)) {
        connection.watch();
        backoff = kFirstBackoff;
        outageReported = false;
        bool lost = false;
        while (!lost) {
          bool readable = false;
          if (!wait(connection.fd(), -1, &readable)) return;
          if (!readable) continue;
          for (;;) {
            const auto read = connection.next(message, sizeof message);
            if (read == Connection::Read::kDrained) break;
            if (read == Connection::Read::kLost) {
              lost = true;
              break;
            }
            if (!isClass(message, "TPV")) continue;
            const gps_fix_t& fix = connection.data().fix;
            Location location;
            if (fix.mode >= MODE_2D) {
              if (locationFromFix(fix, location)) {
                unknownReported = false;
                deliverFix(location);
              }
            } else if (!unknownReported) {
              unknownReported = true;
              deliverFailure(locationError(kCLErrorLocationUnknown,
                                           "gpsd at " + endpoint.text() + " has no fix"));
            }
          }
        }
      }
      if (!outageReported) {
        outageReported = true;
        deliverFailure(locationError(kCLErrorNetwork, "cannot reach gpsd at " + endpoint.text()));
      }
      if (!wait(-1, backoff, nullptr)) return;
      backoff = std::min(backoff * 2, kLastBackoff);
    }
  }
};

GpsdLocationSource::GpsdLocationSource(std::string host, unsigned port)
    : impl_(std::make_unique<Impl>()) {
  impl_->host = std::move(host);
  impl_->port = port;
}

GpsdLocationSource::~GpsdLocationSource() {
  stop();
}

bool GpsdLocationSource::isAvailable() {
  try {
    const Endpoint endpoint = resolveEndpoint(impl_->host, impl_->port);
    Connection connection;
    if (!reachable(endpoint, kAvailabilityMs) || !connection.open(endpoint)) return false;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kAvailabilityMs);
    char message[kMessageSize];
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
      if (left <= 0) return false;
      pollfd fd{connection.fd(), POLLIN, 0};
      const int ready = ::poll(&fd, 1, static_cast<int>(left));
      if (ready < 0 && errno != EINTR) return false;
      if (ready <= 0) continue;
      for (;;) {
        const auto read = connection.next(message, sizeof message);
        if (read == Connection::Read::kLost) return false;
        if (read == Connection::Read::kDrained) break;
        if (isClass(message, "VERSION")) return true;
      }
    }
  } catch (...) {
    return false;
  }
}

void GpsdLocationSource::start(const LocationRequest&, LocationSourceEvents events) {
  stop();
  try {
    const Endpoint endpoint = resolveEndpoint(impl_->host, impl_->port);
    {
      std::lock_guard<std::mutex> guard(impl_->eventsLock);
      impl_->events = std::move(events);
      impl_->delivering = true;
    }
    impl_->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (impl_->wake < 0) {
      impl_->deliverFailure(
          locationError(kCLErrorNetwork, "cannot start the gpsd client for " + endpoint.text()));
      return;
    }
    Impl* impl = impl_.get();
    impl_->thread = std::thread([impl, endpoint] { impl->run(endpoint); });
  } catch (...) {
    impl_->deliverFailure(locationError(kCLErrorNetwork, "cannot start the gpsd client"));
  }
}

void GpsdLocationSource::stop() {
  {
    std::lock_guard<std::mutex> guard(impl_->eventsLock);
    impl_->delivering = false;
    impl_->events = {};
  }
  if (impl_->wake >= 0) {
    const uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(impl_->wake, &one, sizeof one);
  }
  if (impl_->thread.joinable()) impl_->thread.join();
  if (impl_->wake >= 0) {
    ::close(impl_->wake);
    impl_->wake = -1;
  }
}

}  // namespace nimb
