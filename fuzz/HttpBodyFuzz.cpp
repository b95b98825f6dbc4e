// HTTP responses from a hostile server, through the image connection and on
// into the picture decoder, as the image loader takes a download.
//
// A loopback server inside the target answers every request with a response
// made from the input. The first byte picks how:
//   bit 7 set: the rest of the input is the whole response, status line and
//              headers included, as the server writes it;
//   otherwise: the rest is the body, sent with a status from bits 4-6, as
//              gzip content when bit 0 is set (the input is the gzip stream
//              itself, so the decoder sees malformed streams), chunked when
//              bit 1 is set, else with a Content-Length that lies (too long
//              or too short) when bit 2 or bit 3 is set.
// The connection accepts at most 256 KiB; whatever it finishes with is
// decoded under a one-megapixel budget. Every load must end exactly once,
// within the limit, with no body left after a failure.
#include <NimbFoundation/Images/VQImageLoadConnection.h>
#include <NimbFoundation/Internal/ImageCodecs.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr std::uint64_t kMaximumBody = 256 * 1024;
constexpr std::uint64_t kPixelBudget = 1 << 20;

void check(bool ok) {
  if (!ok) std::abort();
}

// Answers each connection with the current response, then closes it.
class RawServer {
 public:
  RawServer() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    check(::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) == 0);
    check(::listen(listener_, 64) == 0);
    check(::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    port_ = ntohs(address.sin_port);
    std::thread([this] { serve(); }).detach();
  }
  int port() const { return port_; }
  void setResponse(std::string response) {
    std::lock_guard lock(mutex_);
    response_ = std::move(response);
  }

 private:
  void serve() {
    for (;;) {
      int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      // The request is read to its blank line, or as far as it comes.
      std::string request;
      char buffer[4096];
      while (request.find("\r\n\r\n") == std::string::npos && request.size() < 65536) {
        ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        request.append(buffer, static_cast<std::size_t>(n));
      }
      std::string response;
      {
        std::lock_guard lock(mutex_);
        response = response_;
      }
      std::size_t sent = 0;
      while (sent < response.size()) {
        ssize_t n = ::send(client, response.data() + sent, response.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
      }
      ::close(client);
    }
  }

  int listener_ = -1;
  int port_ = 0;
  std::mutex mutex_;
  std::string response_;
};

std::string responseFor(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return {};
  const std::uint8_t how = data[0];
  std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (how & 0x80) return rest;
  static const int kStatuses[] = {200, 200, 203, 206, 301, 404, 500, 304};
  std::string out = "HTTP/1.1 " + std::to_string(kStatuses[(how >> 4) & 7]) + " Fuzz\r\n";
  out += "Content-Type: image/png\r\nConnection: close\r\n";
  if (how & 1) out += "Content-Encoding: gzip\r\n";
  if (how & 2) {
    out += "Transfer-Encoding: chunked\r\n\r\n";
    // Chunks of up to 255 bytes, their sizes taken from the body itself.
    std::size_t at = 0;
    while (at < rest.size()) {
      std::size_t n =
          std::min<std::size_t>(rest.size() - at, 1 + static_cast<std::uint8_t>(rest[at]));
      char line[32];
      std::snprintf(line, sizeof line, "%zx\r\n", n);
      out += line + rest.substr(at, n) + "\r\n";
      at += n;
    }
    return out + "0\r\n\r\n";
  }
  std::size_t announced = rest.size();
  if (how & 4) announced += 1 + (how >> 4);
  if (how & 8) announced = announced / 2;
  return out + "Content-Length: " + std::to_string(announced) + "\r\n\r\n" + rest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static RawServer* server = new RawServer;  // lives as long as the process
  server->setResponse(responseFor(data, size));

  auto url = nimb::URL::withString("http://127.0.0.1:" + std::to_string(server->port()) + "/p");
  check(url.has_value());
  int finished = 0, failed = 0;
  auto delegate = std::make_shared<nimb::VQImageLoadConnectionDelegate>();
  delegate->imageLoadConnectionDidFinishLoading = [&](nimb::VQImageLoadConnection&) { ++finished; };
  delegate->imageLoadConnection = [&](nimb::VQImageLoadConnection&, const nimb::Error&) {
    ++failed;
  };
  auto connection = nimb::VQImageLoadConnection::create(*url, delegate);
  connection->setMaximumBodyLength(kMaximumBody);
  connection->setTimeoutInterval(2);
  connection->setTimeoutIntervalForResource(5);
  connection->start();
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  auto& loop = nimb::RunLoop::current();
  while (finished + failed == 0 && std::chrono::steady_clock::now() < deadline) loop.runOnce(0.05);
  check(finished + failed == 1);
  const nimb::Data& body = connection->responseData();
  check(body.size() <= kMaximumBody);
  if (failed) {
    check(body.empty());
    return 0;
  }
  // What the loader does with a finished body: decode it as a picture.
  auto header = nimb::detail::readImageHeader(body);
  if (!header) {
    check(!nimb::Image::withData(body));
    return 0;
  }
  if (static_cast<std::uint64_t>(header->width) * header->height > kPixelBudget) return 0;
  auto image = nimb::Image::withData(body);
  check(image && image->bitmap().rgba.size() ==
                     static_cast<std::size_t>(header->width) * header->height * 4);
  return 0;
}
