// URL and URLConnection against a loopback server: what goes on the wire,
// what comes back and in which order, how transfers fail, cancel, and share
// the per-host connection limit.
#include <NimbFoundation/Platform/URLConnection.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "HttpTestServer.h"

using namespace std::chrono_literals;
using namespace nimb;
using nimb::test::pumpFor;
using nimb::test::pumpUntil;
using Clock = std::chrono::steady_clock;

namespace {

// Everything a delegate heard, in order, and on which threads.
struct Events {
  std::vector<std::string> kinds;  // "response", "data", "finish", "fail"
  std::vector<URLResponse> responses;
  std::string body;
  std::optional<Error> error;
  std::set<std::thread::id> threads;
  Clock::time_point endedAt;
  void note(const char* kind) {
    kinds.push_back(kind);
    threads.insert(std::this_thread::get_id());
    if (ended()) endedAt = Clock::now();
  }
  bool ended() const { return count("finish") + count("fail") > 0; }
  long count(const std::string& kind) const { return std::ranges::count(kinds, kind); }
};

URLConnectionDelegate recorder(const std::shared_ptr<Events>& e) {
  return {
      [e](URLConnection&, const URLResponse& r) { e->responses.push_back(r), e->note("response"); },
      [e](URLConnection&, std::span<const std::uint8_t> d) {
        e->body.append(d.begin(), d.end()), e->note("data");
      },
      [e](URLConnection&) { e->note("finish"); },
      [e](URLConnection&, const Error& error) { e->error = error, e->note("fail"); }};
}

URLRequest request(const std::string& url, double timeout = 10) {
  URLRequest r(*URL::withString(url));
  r.timeoutInterval = timeout;
  return r;
}

// Loads `url` to its end, then turns the loop a little longer so that an
// event after the last one would be seen too.
std::shared_ptr<Events> load(const std::string& url, double timeout = 10) {
  auto e = std::make_shared<Events>();
  auto connection = URLConnection::start(request(url, timeout), recorder(e));
  EXPECT_TRUE(pumpUntil([&] { return e->ended(); }, timeout + 10)) << url;
  pumpFor(0.05);
  return e;
}

std::string gzip(const std::string& plain) {
  z_stream zs{};
  deflateInit2(&zs, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&zs, plain.size()), '\0');
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
  zs.avail_in = static_cast<uInt>(plain.size());
  zs.next_out = reinterpret_cast<Bytef*>(out.data());
  zs.avail_out = static_cast<uInt>(out.size());
  deflate(&zs, Z_FINISH);
  out.resize(zs.total_out);
  deflateEnd(&zs);
  return out;
}

const std::string kText = [] {
  std::string s;
  for (int i = 0; i < 400; ++i) s += "line " + std::to_string(i) + " of a text worth squeezing\n";
  return s;
}();
constexpr const char* kBinary = test::HttpTestServer::kBinary;

class URLConnectionTest : public ::testing::Test {
 protected:
  URLConnectionTest() {
    server.serve("/gzip", gzip(kText), 200, {{"Content-Encoding", "gzip"}});
    server.serve("/hop1", "the first hop's own body", 302, {{"Location", "/hop2"}});
    server.serve("/final", "final");
    server.serve("/missing", "no such page", 404);
    server.serve("/big", std::string(300 * 1024, 'b'));
    server.serveEndless("/endless");
    auto& s = server.server();
    s.Get("/echo-encoding", [](const httplib::Request& req, httplib::Response& res) {
      auto count = req.get_header_value_count("Accept-Encoding");
      res.set_content(req.get_header_value("Accept-Encoding") + " x" + std::to_string(count),
                      kBinary);
    });
    s.Get("/hop2", [this](const httplib::Request&, httplib::Response& res) {
      res.status = 301;  // to an absolute URL this time; the port is known only now
      res.set_header("Location", url("/final"));
    });
    s.Get("/truncated", [](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(1000, kBinary, [](size_t offset, size_t, httplib::DataSink& sink) {
        // Half of the announced body, then the connection drops.
        return offset == 0 && sink.write(std::string(500, 't').data(), 500);
      });
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

  test::HttpTestServer server;
  std::atomic<int> inFlight{0}, maxInFlight{0};
};

TEST(URL, ParsesAbsoluteURLsKeepingTheirTextAndComparesByIt) {
  struct Case {
    const char* text;
    const char* scheme;
    const char* host;
  };
  for (auto c : {Case{"http://example.com", "http", "example.com"},
                 Case{"https://example.com/a/b?c=d#e", "https", "example.com"},
                 Case{"HTTPS://Example.org:8443/x", "https", "Example.org"}}) {
    SCOPED_TRACE(c.text);
    auto url = URL::withString(c.text);
    ASSERT_TRUE(url);
    EXPECT_EQ(url->absoluteString(), c.text);  // no trailing slash added, no case folded
    EXPECT_EQ(url->scheme(), c.scheme);
    EXPECT_EQ(url->host(), c.host);
  }
  for (const char* bad : {"not a url", "", "http://exa mple.com/x", "/relative/path"}) {
    EXPECT_FALSE(URL::withString(bad)) << '"' << bad << '"';
  }
  EXPECT_EQ(*URL::withString("http://a.test/x"), *URL::withString("http://a.test/x"));
  EXPECT_NE(*URL::withString("http://a.test/x"), *URL::withString("http://a.test/x/"));
  EXPECT_NE(*URL::withString("http://a.test/x"), *URL::withString("http://A.test/x"));
}

// Each load ends in exactly one response, its body, then one finish: gzip
// decoded, redirects followed quietly, an error page delivered like any page.
TEST_F(URLConnectionTest, DeliversTheFinalResponseAndItsDecodedBody) {
  struct Case {
    const char* path;
    long status;
    const char* finalPath;
    std::string body;
  };
  for (const auto& c : {Case{"/echo-encoding", 200, "/echo-encoding", "gzip x1"},
                        Case{"/gzip", 200, "/gzip", kText}, Case{"/hop1", 200, "/final", "final"},
                        Case{"/missing", 404, "/missing", "no such page"}}) {
    SCOPED_TRACE(c.path);
    auto e = load(url(c.path));
    ASSERT_EQ(e->responses.size(), 1u);
    EXPECT_EQ(e->responses[0].statusCode, c.status);
    EXPECT_EQ(e->responses[0].url.absoluteString(), url(c.finalPath));
    EXPECT_EQ(e->body, c.body);
    EXPECT_EQ(e->kinds.back(), "finish");
    EXPECT_EQ(e->count("finish") + e->count("fail"), 1);
  }
}

TEST_F(URLConnectionTest, EventsArriveInOrderOnTheStartingThread) {
  auto e = std::make_shared<Events>();
  std::thread::id worker;
  std::thread([&] {
    worker = std::this_thread::get_id();
    auto connection = URLConnection::start(request(url("/big")), recorder(e));
    pumpUntil([&] { return e->ended(); }, 10);
    pumpFor(0.1);
  }).join();
  ASSERT_GE(e->kinds.size(), 3u);
  EXPECT_EQ(e->kinds.front(), "response");
  EXPECT_EQ(e->count("response"), 1);
  EXPECT_GE(e->count("data"), 1);  // bytes of one hand-over may come as one chunk
  EXPECT_EQ(e->kinds.back(), "finish");
  EXPECT_EQ(e->count("finish") + e->count("fail"), 1);
  EXPECT_EQ(e->body.size(), 300u * 1024);
  EXPECT_EQ(e->threads, std::set<std::thread::id>{worker});
}

TEST_F(URLConnectionTest, FailuresCarryThePlatformCodeAndTheURL) {
  struct Case {
    const char* name;
    std::string url;
    double timeout;
    long code;
    double minSeconds, maxSeconds;
  };
  const std::string closed = "http://127.0.0.1:" + std::to_string(test::closedLoopbackPort()) + "/";
  for (const auto& c :
       {Case{"reset mid-body", url("/truncated"), 10, kURLErrorNetworkConnectionLost, 0, 5},
        Case{"stall", url("/stall"), 0.5, kURLErrorTimedOut, 0.4, 2.5},
        Case{"closed port", closed, 10, kURLErrorCannotConnectToHost, 0, 5}}) {
    SCOPED_TRACE(c.name);
    auto started = Clock::now();
    auto e = load(c.url, c.timeout);
    ASSERT_TRUE(e->error);
    EXPECT_EQ(e->kinds.back(), "fail");
    EXPECT_EQ(e->count("finish") + e->count("fail"), 1);
    EXPECT_EQ(e->error->domain, kURLErrorDomain);
    EXPECT_EQ(e->error->code, c.code) << e->error->localizedDescription();
    EXPECT_EQ(e->error->failingURLString(), c.url);
    double seconds = std::chrono::duration<double>(e->endedAt - started).count();
    EXPECT_GE(seconds, c.minSeconds);
    EXPECT_LE(seconds, c.maxSeconds);
  }
}

TEST_F(URLConnectionTest, CancelRightAfterStartSilencesEverything) {
  auto e = std::make_shared<Events>();
  URLConnection::start(request(url("/final")), recorder(e))->cancel();
  pumpFor(0.3);
  EXPECT_TRUE(e->kinds.empty());
  EXPECT_TRUE(pumpUntil([] { return URLConnection::activeTransferCount() == 0; }, 5));
}

TEST_F(URLConnectionTest, CancelDuringTheBodyStopsEventsAndTheTransfer) {
  auto e = std::make_shared<Events>();
  auto connection = URLConnection::start(request(url("/endless")), recorder(e));
  ASSERT_TRUE(pumpUntil([&] { return e->body.size() >= 256 * 1024; }, 10));
  // The loop holds more chunks by now; none of them may come through.
  connection->cancel();
  auto heard = e->kinds.size();
  pumpFor(0.3);
  EXPECT_EQ(e->kinds.size(), heard);
  EXPECT_EQ(e->count("finish") + e->count("fail"), 0);
  EXPECT_TRUE(pumpUntil([] { return URLConnection::activeTransferCount() == 0; }, 5));
}

TEST_F(URLConnectionTest, AReceiverThatFallsBehindPausesTheTransfer) {
  auto e = std::make_shared<Events>();
  auto connection = URLConnection::start(request(url("/endless")), recorder(e));
  ASSERT_TRUE(pumpUntil([&] { return !e->body.empty(); }, 10));
  // The receiving thread stops turning its loop: on purpose, not a wait.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  std::size_t sentWhileStalled = server.endlessBytes;
  // Unbounded, the server would have sent tens of MiB by now; paused, the
  // undelivered allowance plus the sockets' buffers.
  EXPECT_LT(sentWhileStalled, URLConnection::kMaxUndeliveredBytes + 8u * 1024 * 1024);
  // Once the receiver catches up, the transfer resumes.
  ASSERT_TRUE(pumpUntil([&] { return server.endlessBytes > sentWhileStalled + 1024 * 1024; }, 10));
  connection->cancel();
  EXPECT_TRUE(pumpUntil([] { return URLConnection::activeTransferCount() == 0; }, 5));
}

TEST_F(URLConnectionTest, AThousandTransfersQueueBehindSixConnections) {
  constexpr int kCount = 1000;
  std::vector<std::shared_ptr<Events>> events;
  std::vector<std::shared_ptr<URLConnection>> connections;
  auto started = Clock::now();
  for (int i = 0; i < kCount; ++i) {
    events.push_back(std::make_shared<Events>());
    connections.push_back(URLConnection::start(request(url("/small")), recorder(events.back())));
  }
  EXPECT_LT(Clock::now() - started, 1s);  // start() only hands the work over
  ASSERT_TRUE(pumpUntil([&] { return std::ranges::all_of(events, &Events::ended); }, 60));
  EXPECT_EQ(std::ranges::count_if(events, [](auto& e) { return e->body == "ok"; }), kCount);
  EXPECT_LE(maxInFlight.load(), URLConnection::kMaxConnectionsPerHost);
  EXPECT_GE(maxInFlight.load(), 2);  // but they do run side by side
}

}  // namespace
