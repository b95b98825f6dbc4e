// VQImageLoadConnection: the request it sends, the raw fractions it reports and
// what reaches its delegate. One real load shows it wired to the default
// transport; the rest runs on a transport whose requests wait for release()
// and feeds the event methods by hand.
#include <NimbFoundation/Images/VQImageLoadConnection.h>

#include <gtest/gtest.h>

#include <limits>
#include <utility>
#include <vector>

#include "FakeTransport.h"
#include "HttpTestServer.h"

using namespace nimb;
using namespace nimb::test;

namespace {

using Delegate = VQImageLoadConnectionDelegate;

struct Heard {
  std::vector<float> percents;
  int finished = 0;
  std::vector<Error> errors;
  std::size_t calls() const { return percents.size() + finished + errors.size(); }
};

std::shared_ptr<Delegate> recorder(Heard& h) {
  return std::make_shared<Delegate>(
      Delegate{[&h](float p, VQImageLoadConnection&) { h.percents.push_back(p); },
               [&h](VQImageLoadConnection&) { ++h.finished; },
               [&h](VQImageLoadConnection&, const Error& e) { h.errors.push_back(e); }});
}

const std::uint8_t kFour[4] = {1, 2, 3, 4};

class VQImageLoadConnectionTest : public ::testing::Test {
 protected:
  VQImageLoadConnectionTest() {
    server.server().Get("/quarters", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(1000, kBinary, [this](size_t, size_t, httplib::DataSink& sink) {
        server.pause(30ms);  // each quarter reaches the client on its own
        return sink.write(std::string(250, 'q').data(), 250);
      });
    });
    server.start();
  }

  // A started connection on the held transport. (Cancelling one is pinned
  // by the image loader's tests.)
  std::shared_ptr<VQImageLoadConnection> make(std::weak_ptr<Delegate> d) {
    auto c = VQImageLoadConnection::create(*URL::withString("http://images.test/a.png"),
                                           std::move(d), held);
    c->start();
    return c;
  }

  HttpTestServer server;
  std::shared_ptr<FakeTransport> held =
      std::make_shared<FakeTransport>([](const std::string&, int) {
        return FakeTransport::Reply{"body", kBinary, {}, true};
      });
};

// What start() sends is what makeRequest() makes; the quarters of an
// announced body are reported as they arrive (through the default transport,
// the only one that reaches the server).
TEST_F(VQImageLoadConnectionTest, RequestAsksForCacheGzipAndTheTimeoutThenReportsQuarters) {
  Heard heard;
  auto d = recorder(heard);
  auto c = VQImageLoadConnection::create(*URL::withString(server.url("/quarters")), d);
  EXPECT_EQ(c->makeRequest().timeoutInterval, 30.0);
  c->setTimeoutInterval(7.5);
  c->start();
  ASSERT_TRUE(c->connection());
  for (URLRequest r : {c->makeRequest(), c->connection()->originalRequest()}) {
    EXPECT_EQ(r.url, c->imageURL());
    EXPECT_EQ(r.cachePolicy, URLRequestCachePolicy::ReturnCacheDataElseLoad);
    EXPECT_EQ(r.allHTTPHeaderFields["accept-encoding"], "gzip");
    EXPECT_EQ(r.timeoutInterval, 7.5);
  }
  ASSERT_TRUE(pumpUntil([&] { return heard.finished + heard.errors.size() > 0; }, 10));
  EXPECT_EQ(heard.percents, (std::vector<float>{0.25f, 0.5f, 0.75f, 1.0f}));
  EXPECT_EQ(heard.finished, 1);
  EXPECT_EQ(c->responseData().size(), 1000u);
}

TEST_F(VQImageLoadConnectionTest, HearsOnlyItsOwnConnectionAndKeepsFractionsRaw) {
  Heard heard;
  auto d = recorder(heard);
  auto c = make(d);
  TransportTask& own = *c->connection();
  auto other = held->start(c->makeRequest(), {});  // same request, other object
  auto response = [&](std::int64_t length, long status = 200) {
    return URLResponse{c->imageURL(), status, {}, length};
  };
  c->connection(*other, response(4));
  c->connection(*other, std::span(kFour));
  c->connectionDidFinishLoading(*other);
  c->connection(*other, Error::urlError(kURLErrorTimedOut, c->imageURL().absoluteString(), "x"));
  EXPECT_EQ(heard.calls(), 0u);
  EXPECT_TRUE(c->responseData().empty());
  EXPECT_FALSE(c->response());

  c->connection(own, std::span(kFour));  // before any response: infinite
  c->connection(own, response(4, 404));  // status codes are not looked at
  c->connection(own, std::span(kFour));  // 8 bytes of 4 announced
  c->connection(own, response(16));      // keeps what came before
  c->connection(own, std::span(kFour));
  c->connection(own, response(-1));  // length unknown: negative
  c->connection(own, std::span(kFour));
  c->connectionDidFinishLoading(own);
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(heard.percents, (std::vector<float>{inf, 2.0f, 0.75f, -16.0f}));
  EXPECT_EQ(heard.finished, 1);
  EXPECT_TRUE(heard.errors.empty());
  EXPECT_EQ(c->responseData().size(), 16u);
}

// A finish or a failure fed to a full delegate (the platform's error comes
// unchanged), to one that went away (nothing), and to one with only the
// finish member (the empty ones are skipped, not called).
TEST_F(VQImageLoadConnectionTest, DelegateIsNotOwnedAndEmptyMembersAreSkipped) {
  const auto error = Error::urlError(kURLErrorCannotConnectToHost, "http://images.test/x", "x");
  auto feed = [&](std::shared_ptr<Delegate> d, bool fail) {
    auto c = make(std::exchange(d, nullptr));  // held only until started
    TransportTask& own = *c->connection();
    c->connection(own, URLResponse{c->imageURL(), 200, {}, 4});
    c->connection(own, std::span(kFour));
    fail ? c->connection(own, error) : c->connectionDidFinishLoading(own);
  };
  for (bool fail : {false, true}) {
    SCOPED_TRACE(fail ? "failure" : "finish");
    Heard full, ghost, partial;
    auto kept = recorder(full), part = recorder(partial);
    part->imageLoadConnectionDidReceivePercent = {}, part->imageLoadConnection = {};
    feed(kept, fail);
    feed(recorder(ghost), fail);  // nobody else holds this one
    EXPECT_NO_THROW(feed(part, fail));
    EXPECT_EQ(full.percents, std::vector{1.0f});
    EXPECT_EQ(full.finished, fail ? 0 : 1);
    EXPECT_EQ(full.errors, fail ? std::vector{error} : std::vector<Error>{});
    EXPECT_EQ(ghost.calls(), 0u);
    EXPECT_EQ(partial.calls(), fail ? 0u : 1u);
  }
}

}  // namespace
