// HttpTestServer: a cpp-httplib server on a free loopback port, for the URL
// loading tests and the benchmark. The port is bound on construction, so url()
// works while handlers are registered on server(); start() serves, the
// destructor stops. Handlers that stall wait with pause(), which stop() ends.
// Also the pumps the tests wait with: events arrive only while the starting
// thread turns its run loop, so a test turns it until a condition holds; and
// the bitmaps the picture tests draw their expectations from.
#pragma once

#include <httplib.h>

#include "RunLoopPump.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Net/URLConnection.h>

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
  void serveEndless(const std::string& path, const char* type = kBinary) {
    server_.Get(path, [this, type](const httplib::Request&, httplib::Response& res) {
      res.set_chunked_content_provider(type, [this](size_t, httplib::DataSink& sink) {
        const std::string block(64 * 1024, 'e');
        while (!stopping_ && sink.write(block.data(), block.size()))
          endlessBytes += block.size(), pause(1ms);
        return false;
      });
    });
  }

  // Every path not served before: `png` as image/png, each request counted
  // in `requests`; but page.html is a page that is no picture.
  std::atomic<int> requests{0};
  void servePictures(std::string png) {
    server_.Get(R"(/(.*))", [this, png](const httplib::Request& req, httplib::Response& res) {
      ++requests;
      if (req.matches[1] == "page.html") {
        res.set_content("<html><body>Not found</body></html>", "text/html");
      } else {
        res.set_content(png, "image/png");
      }
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

// Turns the loop until no transfer is left running.
inline bool pumpUntilNoTransfers() {
  return pumpUntil([] { return URLConnection::activeTransferCount() == 0; }, 5);
}

// A bitmap whose pixel (x, y) is at(x, y), as RGBA; and a pixel read back.
using Pixel = std::array<int, 4>;
inline Bitmap filled(int width, int height, const std::function<Pixel(int, int)>& at) {
  Bitmap bm{width, height, Data(std::size_t(width) * height * 4)};
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < 4; ++c) bm.rgba[(std::size_t(y) * width + x) * 4 + c] = at(x, y)[c];
  return bm;
}
inline Pixel pixel(const Bitmap& bm, int x, int y) {
  const auto* p = &bm.rgba[(std::size_t(y) * bm.width + x) * 4];
  return {p[0], p[1], p[2], p[3]};
}
// The largest difference between two pixels in any channel.
inline int farthest(const Pixel& a, const Pixel& b) {
  int most = 0;
  for (int c = 0; c < 4; ++c) most = std::max(most, std::abs(a[c] - b[c]));
  return most;
}
inline constexpr Pixel kRed{255, 0, 0, 255}, kGreen{0, 255, 0, 255}, kBlue{0, 0, 255, 255};

}  // namespace nimb::test
