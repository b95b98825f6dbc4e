// URL and URLConnection against a loopback server: what goes on the wire,
// what comes back and in which order, how transfers fail, cancel, and share
// the per-host connection limit.
#include <NimbFoundation/Platform/Net/URLConnection.h>

#include <gtest/gtest.h>

#include <zlib.h>

#include <algorithm>
#include <optional>
#include <regex>
#include <set>
#include <vector>

#include "HttpTestServer.h"

using namespace nimb;
using namespace nimb::test;

namespace {

// Everything a delegate heard: the kinds in order ('r'esponse, 'd'ata,
// 'f'inish, 'x' failure), what came with them, and on which threads.
struct Events {
  std::string kinds, body;
  std::vector<URLResponse> responses;
  std::optional<Error> error;
  std::set<std::thread::id> threads;
  Clock::time_point lastAt;
  void note(char kind) {
    kinds += kind, lastAt = Clock::now(), threads.insert(std::this_thread::get_id());
  }
  bool ended() const { return kinds.find_first_of("fx") != std::string::npos; }
};

std::shared_ptr<URLConnection> start(const std::string& url, const std::shared_ptr<Events>& e,
                                     double timeout = 10,
                                     const std::function<void(URLRequest&)>& adjust = {}) {
  URLRequest request(*URL::withString(url));
  request.timeoutInterval = timeout;
  if (adjust) adjust(request);
  return URLConnection::start(
      request,
      {[e](URLConnection&, const URLResponse& r) { e->responses.push_back(r), e->note('r'); },
       [e](URLConnection&, auto d) { e->body.append(d.begin(), d.end()), e->note('d'); },
       [e](URLConnection&) { e->note('f'); },
       [e](URLConnection&, const Error& error) { e->error = error, e->note('x'); }});
}

// Loads `url` to its end from a thread of its own, turning that thread's loop
// a little longer so that an event after the last one would be seen too.
std::shared_ptr<Events> load(const std::string& url, double timeout,
                             const std::function<void(URLRequest&)>& adjust) {
  auto e = std::make_shared<Events>();
  std::thread::id worker;
  std::thread([&] {
    worker = std::this_thread::get_id();
    auto connection = start(url, e, timeout, adjust);
    EXPECT_TRUE(pumpUntil([&] { return e->ended(); }, timeout + 10));
    pumpFor(0.05);
  }).join();
  EXPECT_EQ(e->threads, std::set{worker});
  return e;
}

#ifndef CPPHTTPLIB_ZLIB_SUPPORT
#error "the gzip case needs cpp-httplib to gzip text bodies for clients that ask"
#endif
const std::string kText(64 * 1024, 'z');

std::string gzip(const std::string& text) {
  z_stream z{};
  EXPECT_EQ(deflateInit2(&z, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string out(deflateBound(&z, text.size()) + 32, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  z.avail_in = static_cast<uInt>(text.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

class URLConnectionTest : public ::testing::Test {
 protected:
  URLConnectionTest() {
    server.serve("/gzip", kText, 200, {}, "text/plain");
    server.serve("/hop1", "the first hop's own body", 302, {{"Location", "/hop2"}});
    server.serve("/hop2", "", 301, {{"Location", url("/final")}});  // absolute this time
    server.serve("/final", "final");
    server.serve("/missing", "no such page", 404);
    server.serve("/big", std::string(300 * 1024, 'b'));
    server.serveEndless("/endless");
    // 16 MiB of zeros in a few kilobytes of gzip; and gzip inside gzip.
    server.serve("/bomb", gzip(std::string(16 << 20, '\0')), 200, {{"Content-Encoding", "gzip"}});
    server.serve("/stacked", gzip(gzip(std::string(1 << 20, '\0'))), 200,
                 {{"Content-Encoding", "gzip, gzip"}});
    auto& s = server.server();
    s.Get("/echo-encoding", [](const httplib::Request& req, httplib::Response& res) {
      auto count = std::to_string(req.get_header_value_count("Accept-Encoding"));
      res.set_content(req.get_header_value("Accept-Encoding") + " x" + count, kBinary);
    });
    s.Get("/truncated", [](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(1000, kBinary, [](size_t offset, size_t, httplib::DataSink& sink) {
        // Half of the announced body, then the connection drops.
        return offset == 0 && sink.write(std::string(500, 't').data(), 500);
      });
    });
    s.Get("/no-content", [](const httplib::Request&, httplib::Response& res) {
      res.status = 204;
      res.set_header("Content-Length", "999999999");
    });
    s.Get("/headers", [](const httplib::Request&, httplib::Response& res) {
      for (int i = 0; i < 1500; ++i)
        res.set_header("X-Flood-" + std::to_string(i), kText.substr(0, 1000));
      res.set_content("after the headers", kBinary);
    });
    s.Get("/stall", [this](const httplib::Request&, httplib::Response& res) {
      server.pause(3s);
      res.set_content("late", kBinary);
    });
    s.Get("/small", [this](const httplib::Request&, httplib::Response& res) {
      int now = ++inFlight, seen = maxInFlight;
      while (now > seen && !maxInFlight.compare_exchange_weak(seen, now)) {
      }
      server.pause(2ms);  // long enough for handlers of parallel connections to overlap
      --inFlight;
      res.set_content("ok", kBinary);
    });
    server.start();
  }

  std::string url(const std::string& path) const { return server.url(path); }

  HttpTestServer server;
  std::atomic<int> inFlight{0}, maxInFlight{0};
};

TEST(URL, ParsesAbsoluteURLsKeepingTheirTextAndComparesByIt) {
  const char* cases[][3] = {{"http://example.com", "http", "example.com"},
                            {"https://example.com/a/b?c=d#e", "https", "example.com"},
                            {"HTTPS://Example.org:8443/x", "https", "Example.org"}};
  for (auto [text, scheme, host] : cases) {
    auto url = URL::withString(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->absoluteString(), text);  // no trailing slash added, no case folded
    EXPECT_EQ(url->scheme(), scheme);
    EXPECT_EQ(url->host(), host);
  }
  for (const char* bad : {"not a url", "", "http://exa mple.com/x", "/relative/path"})
    EXPECT_FALSE(URL::withString(bad)) << '"' << bad << '"';
  EXPECT_NE(*URL::withString("http://a.test/x"), *URL::withString("http://a.test/x/"));
  EXPECT_NE(*URL::withString("http://a.test/x"), *URL::withString("http://A.test/x"));
}

// Each load, on the starting thread, is one response, its body and one finish
// (gzip asked for and decoded, redirects followed quietly, an error page like
// any page) or ends in one failure with the platform's code and the URL.
// A request's limits hold against servers that never stop: the body is
// counted after decoding (a gzip bomb is caught, a body of exactly the
// limit is not), a plain body announced too long is refused before it
// comes, the resource timeout ends a transfer that keeps making progress,
// a flood of headers fails too, and so do content codings stacked on one
// another (they inflate faster than a limit can be checked); a response
// that carries no body is not refused for the length it announces.
TEST_F(URLConnectionTest, DeliversTheFinalResponseOrOneFailureWithinTheLimits) {
  struct Case {
    std::string url, kinds;  // the events heard, as a pattern
    long status = 0;         // of the response, when the load finishes
    std::string body;
    long code = 0;              // of the failure; 0 for a finish
    std::uint64_t maximum = 0;  // of the body
    double timeout = 10, resource = 0;
  };
  const std::uint64_t kMiB = 1 << 20, kBig = 300 * 1024;
  const long kTooLong = kURLErrorDataLengthExceedsMaximum;
  HttpTestServer dead;  // once stopped, its port refuses connections
  dead.start(), dead.stop();
  for (const auto& c :
       {Case{url("/echo-encoding"), "rd+f", 200, "gzip x1"}, Case{url("/gzip"), "rd+f", 200, kText},
        Case{url("/hop1"), "rd+f", 200, "final"},
        Case{url("/missing"), "rd+f", 404, "no such page"},
        Case{url("/big"), "rd+f", 200, std::string(kBig, 'b'), 0, kBig},
        Case{url("/no-content"), "rd*f", 204, "", 0, kMiB},
        Case{url("/truncated"), "(rd*)?x", 0, "", kURLErrorNetworkConnectionLost},
        Case{url("/stall"), "(rd*)?x", 0, "", kURLErrorTimedOut, 0, 0.5},
        Case{dead.url("/"), "(rd*)?x", 0, "", kURLErrorCannotConnectToHost},
        Case{url("/endless"), "rd*x", 0, "", kTooLong, kMiB},
        Case{url("/bomb"), "rd*x", 0, "", kTooLong, kMiB},
        Case{url("/big"), "x", 0, "", kTooLong, kBig - 1},
        Case{url("/endless"), "rd*x", 0, "", kURLErrorTimedOut, 0, 10, 0.5},
        Case{url("/headers"), "x", 0, "", kURLErrorBadServerResponse},
        Case{url("/stacked"), "x", 0, "", kURLErrorCannotDecodeContentData}}) {
    SCOPED_TRACE(c.url + " " + std::to_string(c.maximum));
    auto started = Clock::now();
    auto e = load(c.url, c.timeout, [&](URLRequest& r) {
      r.maximumBodyLength = c.maximum;
      r.timeoutIntervalForResource = c.resource;
    });
    const double seconds = std::chrono::duration<double>(e->lastAt - started).count();
    const double limit = c.resource ? c.resource : c.timeout;
    EXPECT_LE(seconds, limit + 2);
    EXPECT_TRUE(std::regex_match(e->kinds, std::regex(c.kinds))) << e->kinds;
    if (c.maximum) {
      EXPECT_LE(e->body.size(), c.maximum);
    }
    if (c.code) {
      ASSERT_TRUE(e->error);
      EXPECT_EQ(e->error->domain, kURLErrorDomain);
      EXPECT_EQ(e->error->code, c.code) << e->error->localizedDescription();
      EXPECT_EQ(e->error->failingURLString(), c.url);
      EXPECT_GE(seconds, c.code == kURLErrorTimedOut ? limit * 0.8 : 0);
      continue;
    }
    ASSERT_EQ(e->responses.size(), 1u);
    EXPECT_EQ(e->responses[0].statusCode, c.status);
    EXPECT_EQ(e->responses[0].url, *URL::withString(c.url == url("/hop1") ? url("/final") : c.url));
    EXPECT_EQ(e->body, c.body);
    // The length announced: gzip's is the encoded one, the 204's a lie.
    auto length = e->responses[0].expectedContentLength;
    EXPECT_TRUE(c.body == kText || c.status == 204 || length == std::ssize(c.body)) << length;
  }
  EXPECT_TRUE(pumpUntilNoTransfers());
}

// A receiver that stops turning its loop pauses the transfer, which resumes
// once it catches up. Cancelled right after start, or amid a body with chunks
// already waiting on the loop, a transfer reports nothing more and ends.
TEST_F(URLConnectionTest, AReceiverThatFallsBehindPausesTheTransferAndCancelSilencesIt) {
  auto early = std::make_shared<Events>(), e = std::make_shared<Events>();
  auto cancelled = start(url("/endless"), early);
  cancelled->cancel();
  auto connection = start(url("/endless"), e);
  ASSERT_TRUE(pumpUntil([&] { return !e->body.empty(); }, 10));
  EXPECT_EQ(e->responses.at(0).expectedContentLength, -1);  // chunked: not announced
  // The receiving thread stops turning its loop until the server's count
  // stays put across a few checks: the transfer has paused.
  auto stalled = [&, last = std::size_t(0), still = 0]() mutable {
    const std::size_t now = server.endlessBytes;
    still = now == last ? still + 1 : 0, last = now;
    return still >= 4;
  };
  bool paused = false;
  for (const auto guard = Clock::now() + 10s; !(paused = stalled()) && Clock::now() < guard;)
    std::this_thread::sleep_for(50ms);
  ASSERT_TRUE(paused) << "the transfer never paused";
  std::size_t sentWhileStalled = server.endlessBytes;
  // Paused, it has sent at most the undelivered allowance plus the sockets'
  // buffers (unbounded, it would never have stopped).
  EXPECT_LT(sentWhileStalled, URLConnection::kMaxUndeliveredBytes + 8u * 1024 * 1024);
  ASSERT_TRUE(pumpUntil([&] { return server.endlessBytes > sentWhileStalled + 1024 * 1024; }, 10));
  connection->cancel();
  const auto heard = e->kinds;
  pumpFor(0.3);
  EXPECT_EQ(e->kinds, heard);
  EXPECT_EQ(early->kinds, "");
  EXPECT_TRUE(pumpUntilNoTransfers());
}

TEST_F(URLConnectionTest, AThousandTransfersQueueBehindSixConnections) {
  std::vector<std::shared_ptr<Events>> events(1000);
  std::vector<std::shared_ptr<URLConnection>> connections;
  auto started = Clock::now();
  for (auto& e : events)
    connections.push_back(start(url("/small"), e = std::make_shared<Events>()));
  EXPECT_LT(Clock::now() - started, 1s);  // start() only hands the work over
  ASSERT_TRUE(pumpUntil([&] { return std::ranges::all_of(events, &Events::ended); }, 60));
  EXPECT_TRUE(std::ranges::all_of(events, [](auto& e) { return e->body == "ok"; }));
  EXPECT_LE(maxInFlight.load(), URLConnection::kMaxConnectionsPerHost);
  EXPECT_GE(maxInFlight.load(), 2);  // but they do run side by side
}

}  // namespace
