// VQImageLoadConnection: the request it sends, the raw fractions it reports,
// and which events it listens to; driven by a loopback server and, where
// the server cannot produce the case, by calling its event methods by hand.
#include <NimbFoundation/Images/VQImageLoadConnection.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "HttpTestServer.h"

using namespace std::chrono_literals;
using namespace nimb;
using nimb::test::pumpFor;
using nimb::test::pumpUntil;

namespace {

struct Heard {
  std::vector<float> percents;
  int finished = 0;
  std::vector<Error> errors;
  std::size_t finishedBytes = 0;
  std::size_t calls() const { return percents.size() + finished + errors.size(); }
  bool ended() const { return finished + errors.size() > 0; }
};

std::shared_ptr<VQImageLoadConnectionDelegate> recorder(Heard& h) {
  return std::make_shared<VQImageLoadConnectionDelegate>(VQImageLoadConnectionDelegate{
      [&h](float p, VQImageLoadConnection&) { h.percents.push_back(p); },
      [&h](VQImageLoadConnection& c) { ++h.finished, h.finishedBytes = c.responseData().size(); },
      [&h](VQImageLoadConnection&, const Error& e) { h.errors.push_back(e); }});
}

const std::uint8_t kFour[4] = {1, 2, 3, 4};
constexpr const char* kBinary = test::HttpTestServer::kBinary;

class VQImageLoadConnectionTest : public ::testing::Test {
 protected:
  VQImageLoadConnectionTest() {
    server.serve("/missing", "no such image", 404);
    server.serveEndless("/endless");
    server.server().Get("/quarters", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(1000, kBinary, [this](size_t, size_t, httplib::DataSink& sink) {
        server.pause(30ms);  // each quarter reaches the client on its own
        return sink.write(std::string(250, 'q').data(), 250);
      });
    });
    server.server().Get("/unsized", [](const httplib::Request&, httplib::Response& res) {
      res.set_chunked_content_provider(kBinary, [](size_t offset, httplib::DataSink& sink) {
        if (offset == 3000) sink.done();
        return offset == 3000 || sink.write(std::string(1000, 'u').data(), 1000);
      });
    });
    server.start();
  }

  // `where` is a path on the test server or a whole URL.
  std::shared_ptr<VQImageLoadConnection> make(
      const std::string& where, const std::shared_ptr<VQImageLoadConnectionDelegate>& d) {
    auto url = URL::withString(where.starts_with("/") ? server.url(where) : where);
    return VQImageLoadConnection::create(*url, d);
  }

  // Loads to the end with a recording delegate.
  std::shared_ptr<VQImageLoadConnection> load(const std::string& where, Heard& heard) {
    auto d = recorder(heard);
    auto c = make(where, d);
    c->start();
    EXPECT_TRUE(pumpUntil([&] { return heard.ended(); }, 10)) << where;
    return c;
  }

  test::HttpTestServer server;
};

TEST_F(VQImageLoadConnectionTest, RequestAsksForCacheGzipAndTheTimeout) {
  auto c = make("/missing", {});
  auto r = c->makeRequest();
  EXPECT_EQ(r.url, c->imageURL());
  EXPECT_EQ(r.cachePolicy, URLRequestCachePolicy::ReturnCacheDataElseLoad);
  EXPECT_EQ(r.allHTTPHeaderFields["accept-encoding"], "gzip");
  EXPECT_EQ(r.timeoutInterval, 30.0);

  c->setTimeoutInterval(7.5);
  c->start();
  ASSERT_TRUE(c->connection());
  const auto& sent = c->connection()->originalRequest();  // start() sends makeRequest()
  EXPECT_EQ(sent.timeoutInterval, 7.5);
  EXPECT_EQ(sent.cachePolicy, URLRequestCachePolicy::ReturnCacheDataElseLoad);
  EXPECT_EQ(sent.allHTTPHeaderFields, r.allHTTPHeaderFields);
  c->cancel();
}

TEST_F(VQImageLoadConnectionTest, FractionsFollowTheAnnouncedLength) {
  Heard quarters, unsized;
  load("/quarters", quarters);
  EXPECT_EQ(quarters.percents, (std::vector<float>{0.25f, 0.5f, 0.75f, 1.0f}));
  EXPECT_EQ(quarters.finished, 1);
  EXPECT_EQ(quarters.finishedBytes, 1000u);

  load("/unsized", unsized);  // no length announced: the fraction stays negative
  ASSERT_FALSE(unsized.percents.empty());
  for (float p : unsized.percents) EXPECT_LT(p, 0) << p;
  EXPECT_EQ(unsized.finished, 1);
  EXPECT_EQ(unsized.finishedBytes, 3000u);
}

// No real event arrives until the loop turns, so these calls are the only
// ones the connection sees.
TEST_F(VQImageLoadConnectionTest, EventsByHandOnlyFromItsOwnConnection) {
  Heard heard;
  auto d = recorder(heard);
  auto c = make("/missing", d);
  c->start();
  URLConnection& own = *c->connection();
  auto other = URLConnection::start(c->makeRequest(), {});  // same request, other object
  other->cancel();
  auto announcing = [&](std::int64_t length) {
    return URLResponse{c->imageURL(), 200, {}, length};
  };
  c->connection(*other, announcing(4));
  c->connection(*other, std::span(kFour));
  c->connectionDidFinishLoading(*other);
  c->connection(*other, Error::urlError(kURLErrorTimedOut, c->imageURL().absoluteString(), "x"));
  EXPECT_EQ(heard.calls(), 0u);
  EXPECT_TRUE(c->responseData().empty());
  EXPECT_FALSE(c->response());

  c->connection(own, std::span(kFour));  // before any response
  c->connection(own, announcing(4));
  c->connection(own, std::span(kFour));  // 8 bytes of 4 announced
  c->connection(own, announcing(16));    // keeps what came before
  c->connection(own, std::span(kFour));
  ASSERT_EQ(heard.percents.size(), 3u);
  EXPECT_TRUE(std::isinf(heard.percents[0]) && heard.percents[0] > 0) << heard.percents[0];
  EXPECT_EQ(heard.percents[1], 2.0f);
  EXPECT_EQ(heard.percents[2], 0.75f);
  EXPECT_EQ(c->responseData().size(), 12u);
  EXPECT_EQ(c->response()->expectedContentLength, 16);
  c->cancel();
}

TEST_F(VQImageLoadConnectionTest, DelegateIsNotOwnedAndEmptyMembersAreSkipped) {
  int calls = 0;
  auto gone = std::make_shared<VQImageLoadConnectionDelegate>(VQImageLoadConnectionDelegate{
      [&](float, VQImageLoadConnection&) { ++calls; }, [&](VQImageLoadConnection&) { ++calls; }});
  auto c1 = make("/quarters", gone);
  c1->start();
  gone.reset();
  // The body still comes in; wait for it so the delegate had every chance.
  pumpUntil([&] { return c1->responseData().size() == 1000; }, 5);
  pumpFor(0.1);
  EXPECT_EQ(calls, 0);

  // Only the finish is wanted. Calling an empty member would throw, and the
  // run loop would swallow that, so read what it reports.
  auto partial = std::make_shared<VQImageLoadConnectionDelegate>();
  partial->imageLoadConnectionDidFinishLoading = [&](VQImageLoadConnection&) { ++calls; };
  auto c2 = make("/quarters", partial);
  testing::internal::CaptureStderr();
  c2->start();
  bool ended = pumpUntil([&] { return calls > 0; }, 10);
  std::string reported = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(ended);
  EXPECT_EQ(reported.find("threw"), std::string::npos) << reported;
  EXPECT_EQ(c2->responseData().size(), 1000u);
}

TEST_F(VQImageLoadConnectionTest, CancelSilencesTheDelegate) {
  Heard heard;
  auto d = recorder(heard);
  make("/missing", d)->cancel();  // before start: nothing to report
  auto c = make("/endless", d);
  c->start();
  ASSERT_TRUE(pumpUntil([&] { return c->responseData().size() >= 128 * 1024; }, 10));
  c->cancel();
  auto before = heard.calls();
  pumpFor(0.3);
  EXPECT_EQ(heard.calls(), before);
  EXPECT_FALSE(heard.ended());
  EXPECT_TRUE(pumpUntil([] { return URLConnection::activeTransferCount() == 0; }, 5));
}

TEST_F(VQImageLoadConnectionTest, ErrorPageFinishesAndFailurePassesThePlatformError) {
  Heard page, failed;
  auto c = load("/missing", page);  // status codes are not looked at
  EXPECT_EQ(page.finished, 1);
  EXPECT_TRUE(page.errors.empty());
  EXPECT_EQ(std::string(c->responseData().begin(), c->responseData().end()), "no such image");

  auto closed = "http://127.0.0.1:" + std::to_string(test::closedLoopbackPort()) + "/i.png";
  load(closed, failed);
  EXPECT_EQ(failed.finished, 0);
  ASSERT_EQ(failed.errors.size(), 1u);
  EXPECT_EQ(failed.errors[0].domain, kURLErrorDomain);
  EXPECT_EQ(failed.errors[0].code, kURLErrorCannotConnectToHost);
  EXPECT_EQ(failed.errors[0].failingURLString(), closed);
}

}  // namespace
