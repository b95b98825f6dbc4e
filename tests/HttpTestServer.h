// HttpTestServer: a cpp-httplib server on 127.0.0.1 at a free port, for the
// URL loading tests and the benchmark. Register handlers on server(), then
// start(); the destructor stops it. Handlers that stall or stream without
// end should wait with pause() and watch stopping(), so that tear-down never
// waits for a handler's full sleep.
//
// Also the run-loop pumps the tests wait with: events only arrive while the
// starting thread turns its loop, so a test turns it until a condition holds
// or a deadline passes, never sleeps.
#pragma once

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include <NimbFoundation/Platform/RunLoop.h>

namespace nimb::test {

class HttpTestServer {
 public:
  // More worker threads than the client may open connections, so that a
  // client over its per-host limit shows up as more concurrent handlers.
  explicit HttpTestServer(std::size_t threads = 16) {
    server_.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    // stop() waits for idle keep-alive connections to time out; keep that short.
    server_.set_keep_alive_timeout(1);
    // Headers and body go out in separate writes; without this the body
    // waits for the client's delayed ack, some 40 ms a response.
    server_.set_tcp_nodelay(true);
  }
  ~HttpTestServer() { stop(); }
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  httplib::Server& server() { return server_; }

  // The body types the tests use: binary, so httplib never compresses it.
  static constexpr const char* kBinary = "application/octet-stream";

  // A fixed response at `path`.
  void serve(const std::string& path, std::string body, int status = 200,
             httplib::Headers headers = {}) {
    server_.Get(path, [=](const httplib::Request&, httplib::Response& res) {
      res.status = status;
      res.headers = headers;
      res.set_content(body, kBinary);
    });
  }
  // Bytes the endless handlers have written so far.
  std::atomic<std::size_t> endlessBytes{0};
  // A chunked body that goes on until the client hangs up.
  void serveEndless(const std::string& path) {
    server_.Get(path, [this](const httplib::Request&, httplib::Response& res) {
      res.set_chunked_content_provider(kBinary, [this](size_t, httplib::DataSink& sink) {
        const std::string block(64 * 1024, 'e');
        while (!stopping() && sink.write(block.data(), block.size())) {
          endlessBytes += block.size();
          pause(std::chrono::milliseconds(1));
        }
        return false;
      });
    });
  }

  void start() {
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() is a no-op until the accept loop runs, so wait for it to begin.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!server_.is_running() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!server_.is_running()) throw std::runtime_error("server did not start");
  }

  void stop() {
    stopping_ = true;
    if (thread_.joinable()) {
      server_.stop();
      thread_.join();
    }
  }

  bool stopping() const { return stopping_; }
  // Sleeps up to `d` inside a handler, cut short when the server stops.
  template <typename Duration>
  void pause(Duration d) const {
    auto until = std::chrono::steady_clock::now() + d;
    while (!stopping_ && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  int port() const { return port_; }
  std::string url(const std::string& path = "/") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  httplib::Server server_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  int port_ = 0;
};

// A loopback port nobody listens on: bound, then released.
inline int closedLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    throw std::runtime_error("cannot reserve a loopback port");
  }
  ::close(fd);
  return ntohs(addr.sin_port);
}

// Turns the calling thread's run loop until `done` holds or `seconds` pass.
inline bool pumpUntil(const std::function<bool()>& done, double seconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    RunLoop::current().runOnce(0.01);
  }
  return true;
}

// Turns the loop for `seconds`, to see that nothing (more) arrives.
inline void pumpFor(double seconds) {
  pumpUntil([] { return false; }, seconds);
}

}  // namespace nimb::test
