// HttpTestServer: a cpp-httplib server on a free loopback port, for the URL
// loading tests and the benchmark. The port is bound on construction, so url()
// works while handlers are registered on server(); start() serves, the
// destructor stops. Handlers that stall wait with pause(), which stop() ends.
// Also the pumps the tests wait with: events arrive only while the starting
// thread turns its run loop, so a test turns it until a condition holds.
#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include <NimbFoundation/Platform/RunLoop.h>

namespace nimb::test {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
// The default body type: binary, which httplib never compresses.
inline constexpr const char* kBinary = "application/octet-stream";

class HttpTestServer {
 public:
  // More workers than the client's per-host limit, so that going over it shows.
  explicit HttpTestServer(std::size_t threads = 16) {
    server_.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    server_.set_keep_alive_timeout(1);  // stop() waits for idle keep-alive connections
    server_.set_tcp_nodelay(true);      // else a body waits ~40 ms for a delayed ack
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
  }
  ~HttpTestServer() { stop(); }

  httplib::Server& server() { return server_; }
  std::string url(const std::string& path = "/") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

  void serve(const std::string& path, std::string body, int status = 200,
             httplib::Headers headers = {}, const char* type = kBinary) {
    server_.Get(path, [=](const httplib::Request&, httplib::Response& res) {
      res.status = status;
      res.headers = headers;
      res.set_content(body, type);
    });
  }
  // A chunked body until the client hangs up; endlessBytes counts it.
  std::atomic<std::size_t> endlessBytes{0};
  void serveEndless(const std::string& path) {
    server_.Get(path, [this](const httplib::Request&, httplib::Response& res) {
      res.set_chunked_content_provider(kBinary, [this](size_t, httplib::DataSink& sink) {
        const std::string block(64 * 1024, 'e');
        while (!stopping_ && sink.write(block.data(), block.size()))
          endlessBytes += block.size(), pause(1ms);
        return false;
      });
    });
  }

  void start() {
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() is a no-op until the accept loop runs, so wait for it to begin.
    for (int i = 0; i < 5000 && !server_.is_running(); ++i) std::this_thread::sleep_for(1ms);
    if (!server_.is_running()) throw std::runtime_error("server did not start");
  }
  void stop() {
    stopping_ = true;
    if (thread_.joinable()) server_.stop(), thread_.join();
  }
  // Sleeps up to `d` inside a handler, cut short when the server stops.
  void pause(std::chrono::milliseconds d) const {
    auto until = Clock::now() + d;
    while (!stopping_ && Clock::now() < until) std::this_thread::sleep_for(2ms);
  }

 private:
  httplib::Server server_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  int port_ = 0;
};

// Turns the calling thread's run loop until `done` holds or `seconds` pass.
inline bool pumpUntil(const std::function<bool()>& done, double seconds) {
  auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
  while (!done() && Clock::now() < deadline) RunLoop::current().runOnce(0.01);
  return done();
}
// Turns the loop for `seconds`, to see that nothing (more) arrives.
inline void pumpFor(double seconds) {
  pumpUntil([] { return false; }, seconds);
}

}  // namespace nimb::test
