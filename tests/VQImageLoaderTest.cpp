#include <NimbFoundation/Images/VQImageLoader.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>

#include "FakeTransport.h"
#include "HttpTestServer.h"

using namespace nimb;
using namespace nimb::test;

namespace {

// What one observer heard, in order.
struct Heard {
  std::vector<std::string> events;  // "percent", "loaded", "failed"
  std::vector<Notification> notifications;
  std::atomic<int> offMainThread{0};

  std::shared_ptr<VQImageLoaderObserver> observer(bool percent = true, bool loaded = true,
                                                  bool failed = true) {
    auto o = std::make_shared<VQImageLoaderObserver>();
    auto record = [this](const char* what) {
      return [this, what](const Notification& n) {
        offMainThread += !RunLoop::isMainThread();
        events.push_back(what), notifications.push_back(n);
      };
    };
    if (percent) o->imageLoaderDidLoadPercent = record("percent");
    if (loaded) o->imageLoaderDidLoad = record("loaded");
    if (failed) o->imageLoaderDidFailToLoad = record("failed");
    return o;
  }
  // An observer answering all three.
  const std::shared_ptr<VQImageLoaderObserver> all = observer();

  bool ended() const {
    return std::ranges::any_of(events, [](const std::string& e) { return e != "percent"; });
  }
  const std::string& last() const { return events.back(); }
  // The {domain, code} of the failure heard last, or {"", 0} when the last event is no failure.
  std::pair<std::string, long> failure() const {
    const Error* e = last() == "failed" ? notifications.back().get<Error>("error") : nullptr;
    return e ? std::pair{e->domain, e->code} : std::pair{std::string(), 0L};
  }
};

// Every path is `png`, but page.html is a page that is no picture, and so is
// the first answer on a path starting "flaky" (on "flaky-drop", a load that
// fails after half the body); "held" paths wait for release(); "endless"
// fails as too long.
class VQImageLoaderTest : public LoaderFixture {
 protected:
  FakeTransport::Reply reply(const std::string& path, int hit) override {
    if (path == "/endless") return {png, "image/png", kURLErrorDataLengthExceedsMaximum};
    if (path.starts_with("/held")) return {png, "image/png", std::nullopt, true};
    if (hit == 1 && path.starts_with("/flaky-drop")) {
      return {png, "image/png", kURLErrorNetworkConnectionLost};
    }
    if (path == "/page.html" || (hit == 1 && path.starts_with("/flaky")))
      return {kPage, "text/html"};
    return {png};
  }
  static constexpr const char* kPage = "<html><body>Not found</body></html>";
  const std::string png = pngBody(Image::withBitmap({30, 20, Data(30 * 20 * 4, 0x7F)}));
};

}  // namespace

TEST(VQImageLoaderKeys, KeyIsTheUpperCaseDigestOfTheAbsoluteString) {
  const auto a = *URL::withString("http://example.com/a.png");
  EXPECT_EQ(VQImageLoader::keyForURL(a), "VQImageLoader-B876851593B9E119ED73F38561576BDA");
  EXPECT_NE(VQImageLoader::keyForURL(*URL::withString("http://example.com/b.png")),
            VQImageLoader::keyForURL(a));
}

TEST_F(VQImageLoaderTest, TwoObserversOfOneURLShareOneRequestAndTheCache) {
  Heard first, second;
  loader->loadImageForURL(url("a.png"), first.all);
  auto connection = loader->loadingConnectionForURL(url("a.png"));
  loader->loadImageForURL(url("a.png"), second.all);
  EXPECT_EQ(loader->loadingConnectionForURL(url("a.png")), connection);
  EXPECT_EQ(loader->loadImageForURL(url("a.png")), connection);
  ASSERT_TRUE(pumpUntil([&] { return first.ended() && second.ended(); }, 10));
  ASSERT_TRUE(RunLoop::current().runUntilIdle(10));  // nothing more comes

  EXPECT_EQ(requests.load(), 1);
  for (Heard* heard : {&first, &second}) {
    ASSERT_EQ(heard->last(), "loaded");
    EXPECT_EQ(heard->events.front(), "percent");  // progress first, then exactly one end
    EXPECT_EQ(std::count(heard->events.begin(), heard->events.end(), "loaded"), 1);
    const Notification& loaded = heard->notifications.back();
    EXPECT_EQ(loaded.name,
              std::string(VQImageLoader::kLoadedPrefix) + VQImageLoader::keyForURL(url("a.png")));
    EXPECT_EQ(loaded.object, loader.get());
    auto* image = loaded.get<std::shared_ptr<const Image>>("image");
    ASSERT_TRUE(image && *image);
    EXPECT_EQ((*image)->size(), (Size{30, 20}));
    EXPECT_EQ(*loaded.get<URL>("imageURL"), url("a.png"));
    // The length is announced, so the last fraction before the end is 1.
    const Notification& lastProgress = heard->notifications[heard->notifications.size() - 2];
    ASSERT_TRUE(lastProgress.get<float>("percent"));
    EXPECT_FLOAT_EQ(*lastProgress.get<float>("percent"), 1.0f);
  }
  // The raw bytes are cached for seven days, in the loader's cache.
  const auto key = VQImageLoader::keyForURL(url("a.png"));
  auto cached = cache->dataForKey(key);
  ASSERT_TRUE(cached);
  EXPECT_EQ(std::string(cached->begin(), cached->end()), png);
  EXPECT_NEAR(cache->cacheDictionary().at(key).timeIntervalSince(Date::now()), 604800, 5);
  // Once the bytes are on disk, the very picture the observers got answers
  // from memory, and clearing the URL drops it there too.
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_EQ(loader->imageForURL(url("a.png"), nullptr, true),
            *first.notifications.back().get<std::shared_ptr<const Image>>("image"));
  loader->clearCacheForURL(url("a.png"));
  EXPECT_EQ(cache->memoryCache().count(), 0u);
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(loader->imageForURL(url("a.png"), nullptr, false));
}

// A load for a size decodes the one download at the size that serves every
// observer of the URL: covering both sizes asked for, or whole once anyone
// asks for the whole picture. The memory cache keeps it under its size; the
// disk keeps the download's bytes.
TEST_F(VQImageLoaderTest, ALoadForASizeDecodesOncePerURLAtTheSizeServingEveryone) {
  auto loaded = [&](const char* name, std::vector<std::pair<Heard*, PixelSize>> asks) {
    for (auto& [heard, size] : asks) loader->loadImageForURL(url(name), heard->all, size);
    EXPECT_TRUE(pumpUntil([&] { return asks.back().first->ended(); }, 10));
    cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
    auto* image =
        asks.back().first->notifications.back().get<std::shared_ptr<const Image>>("image");
    return image ? *image : nullptr;
  };
  Heard a, b, c, d, e;
  auto small = loaded("s.png", {{&a, {3, 2}}});
  ASSERT_TRUE(small);
  EXPECT_EQ(small->pixelSize(), (PixelSize{3, 2}));  // 30 x 20 at a tenth
  EXPECT_EQ(loader->imageForURL(url("s.png"), nullptr, false, {3, 2}), small);
  EXPECT_EQ(loader->imageForURL(url("s.png"), nullptr, false)->pixelSize(), (PixelSize{30, 20}));
  EXPECT_EQ(cache->dataForKey(VQImageLoader::keyForURL(url("s.png")))->size(), png.size());

  EXPECT_EQ(loaded("t.png", {{&b, {3, 2}}, {&c, {}}})->pixelSize(), (PixelSize{30, 20}));
  EXPECT_EQ(loaded("u.png", {{&d, {3, 2}}, {&e, {6, 1}}})->pixelSize(), (PixelSize{6, 4}));
  EXPECT_EQ(requests.load(), 3);
}

// Cancelled within the start delay, a load sends nothing; cancelled while
// it runs, it posts nothing more and its connection takes none of the
// answer. Either way observers stay registered.
TEST_F(VQImageLoaderTest, CancelSendsNothingOrSilencesTheDownload) {
  Heard heard;
  auto before = loader->currentConnections();
  loader->loadImageForURL(url("a.png"), heard.all);
  EXPECT_TRUE(before->empty());  // a snapshot taken stays as it was
  EXPECT_TRUE(loader->isLoadingImageURL(url("a.png")));
  loader->cancelLoadForURL(url("a.png"));
  EXPECT_FALSE(loader->isLoadingImageURL(url("a.png")));
  EXPECT_EQ(RunLoop::current().scheduledCount(), 0u);  // the start was withdrawn
  ASSERT_TRUE(RunLoop::current().runUntilIdle(10));
  EXPECT_EQ(requests.load(), 0);
  EXPECT_TRUE(heard.events.empty());
  // The observer stays registered: three names.
  EXPECT_EQ(center.observerCount(), 3u);
  loader->cancelLoadForURL(url("never-loaded.png"));  // nothing to do

  loader->loadImageForURL(url("held.png"), heard.all);
  auto connection = loader->loadingConnectionForURL(url("held.png"));
  ASSERT_TRUE(pumpUntil([&] { return requests == 1; }, 10));
  loader->cancelLoadForURL(url("held.png"));
  transport->release();  // the answer comes, to nobody
  ASSERT_TRUE(RunLoop::current().runUntilIdle(10));
  EXPECT_TRUE(heard.events.empty());
  EXPECT_FALSE(loader->isLoadingImageURL(url("held.png")));
  EXPECT_TRUE(connection->responseData().empty());
  EXPECT_FALSE(loader->hasLoadedImageURL(url("held.png")));
}

// An HTML page fails with 406 unless GIF mode is on. The loader's limit goes
// with each request; a body past it fails with the transport's code while it
// arrives, and nothing of it is cached.
TEST_F(VQImageLoaderTest, AnHtmlPageFailsWith406UnlessGifModeIsOnAndABodyPastTheLimitFails) {
  EXPECT_EQ(loader->maximumBodyLength(), 64u << 20);
  loader->setMaximumBodyLength(256 * 1024);
  Heard tooLong;
  auto connection = loader->loadImageForURL(url("endless"));
  ASSERT_TRUE(pumpUntil([&] { return connection->connection() != nullptr; }, 10));
  EXPECT_EQ(connection->connection()->originalRequest().maximumBodyLength, 256u * 1024);
  loader->addObserver(tooLong.all, url("endless"));
  ASSERT_TRUE(pumpUntil([&] { return tooLong.ended(); }, 10));
  EXPECT_EQ(tooLong.failure().second, kURLErrorDataLengthExceedsMaximum);
  EXPECT_TRUE(connection->responseData().empty());  // the bytes it held are gone
  EXPECT_FALSE(loader->hasLoadedImageURL(url("endless")));

  Heard heard;
  loader->loadImageForURL(url("page.html"), heard.all);
  ASSERT_TRUE(pumpUntil([&] { return heard.ended(); }, 10));
  EXPECT_EQ(heard.failure(), std::pair(std::string("images.test"), 406L));
  EXPECT_FALSE(loader->hasLoadedImageURL(url("page.html")));

  Heard gif;
  EXPECT_FALSE(loader->dataForURL(url("page.html"), gif.all, true));
  EXPECT_TRUE(loader->isGif());
  ASSERT_TRUE(pumpUntil([&] { return gif.ended(); }, 10));
  ASSERT_EQ(gif.last(), "loaded");
  const Data* bytes = gif.notifications.back().get<Data>("imageGif");
  ASSERT_TRUE(bytes);
  EXPECT_EQ(std::string(bytes->begin(), bytes->end()), kPage);
  EXPECT_FALSE(gif.notifications.back().get<std::shared_ptr<const Image>>("image"));
  settle();
  EXPECT_EQ(loader->dataForURL(url("page.html"), gif.all, true), *bytes);
}

TEST_F(VQImageLoaderTest, ObserversHearOnlyWhatTheyAnswer) {
  Heard onlyLoaded;
  auto observer = onlyLoaded.observer(false, true, false);
  loader->loadImageForURL(url("page.html"), observer);
  EXPECT_EQ(center.observerCount(), 1u);
  loader->loadImageForURL(url("a.png"), observer);
  ASSERT_TRUE(pumpUntil([&] { return !onlyLoaded.events.empty(); }, 10));
  ASSERT_TRUE(RunLoop::current().runUntilIdle(10));
  EXPECT_EQ(onlyLoaded.events, std::vector<std::string>{"loaded"});

  // An observer answering nothing, or none at all: not registered, still loads.
  loader->loadImageForURL(url("b.png"), std::make_shared<VQImageLoaderObserver>());
  loader->loadImageForURL(url("c.png"), nullptr);
  EXPECT_EQ(center.observerCount(), 2u);
  ASSERT_TRUE(pumpUntil([&] { return loader->hasLoadedImageURL(url("c.png")); }, 10));

  loader->removeObserver(observer.get(), url("a.png"));
  EXPECT_EQ(center.observerCount(), 1u);
  loader->removeObserver(observer.get());
  EXPECT_EQ(center.observerCount(), 0u);
}

TEST_F(VQImageLoaderTest, NotificationsArriveOnTheMainThreadWhateverThreadLoads) {
  Heard heard;
  std::atomic<bool> done{false};
  std::thread worker([&] {
    loader->loadImageForURL(url("elsewhere.png"), heard.all);
    // The connection's events arrive on this thread's run loop.
    pumpUntil([&] { return !loader->isLoadingImageURL(url("elsewhere.png")); }, 10);
    done = true;
  });
  pumpUntil([&] { return done.load(); }, 15);
  worker.join();
  ASSERT_TRUE(heard.ended());
  EXPECT_EQ(heard.last(), "loaded");
  EXPECT_EQ(heard.offMainThread.load(), 0);
}

TEST_F(VQImageLoaderTest, LifetimeAndClearing) {
  for (double refused : {0.0, -5.0, std::nan("")}) loader->setCache_seconds(refused);
  EXPECT_EQ(loader->cache_seconds(), 604800.0);
  loader->setCache_seconds(3600);
  loader->loadImageForURL(url("a.png"), nullptr);
  const auto key = VQImageLoader::keyForURL(url("a.png"));
  ASSERT_TRUE(pumpUntil([&] { return loader->hasLoadedImageURL(url("a.png")); }, 10));
  EXPECT_NEAR(cache->cacheDictionary().at(key).timeIntervalSince(Date::now()), 3600, 5);

  // With a style only the styled entry goes.
  cache->setString("styled", key + "-42");
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  loader->clearCacheForURL(url("a.png"), 42);
  EXPECT_FALSE(cache->hasCacheForKey(key + "-42"));
  EXPECT_TRUE(cache->hasCacheForKey(key));
  loader->clearCacheForURL(url("a.png"));
  EXPECT_FALSE(loader->hasLoadedImageURL(url("a.png")));

  // No auto-load: nothing cached means nothing started.
  EXPECT_FALSE(loader->imageForURL(url("d.png"), nullptr, false));
  EXPECT_FALSE(loader->isLoadingImageURL(url("d.png")));
  EXPECT_FALSE(loader->imageForURL(std::nullopt, nullptr, true));
}

// When observers hear that a download ended, the URL is idle: a retry asked
// for from the failure handler (after a refused body or a dropped
// connection) and a reload asked for from the loaded handler each start a
// new download that runs to its own end.
TEST_F(VQImageLoaderTest, ALoadAskedForFromAnEndNotificationRuns) {
  struct Case {
    std::string path;
    const char* first;  // the end that asks again
  };
  for (const auto& c : {Case{"flaky-406.png", "failed"}, Case{"flaky-drop.png", "failed"},
                        Case{"reload.png", "loaded"}}) {
    SCOPED_TRACE(c.path);
    const URL u = url(c.path);
    std::vector<std::string> ends;
    auto observer = std::make_shared<VQImageLoaderObserver>();
    auto end = [&](const char* what) {
      return [&, what](const Notification&) {
        ends.push_back(what);
        if (ends.size() > 1) return;
        EXPECT_FALSE(loader->isLoadingImageURL(u));
        if (std::string(what) == "loaded") loader->clearCacheForURL(u);
        loader->loadImageForURL(u);  // the observer is registered already
      };
    };
    observer->imageLoaderDidLoad = end("loaded");
    observer->imageLoaderDidFailToLoad = end("failed");
    const int before = requests;
    loader->loadImageForURL(u, observer);
    ASSERT_TRUE(pumpUntil([&] { return ends.size() == 2; }, 10));
    EXPECT_EQ(ends, (std::vector<std::string>{c.first, "loaded"}));
    EXPECT_EQ(requests - before, 2);
    EXPECT_FALSE(loader->isLoadingImageURL(u));
    settle();
    EXPECT_TRUE(loader->hasLoadedImageURL(u));
    loader->removeObserver(observer.get());
  }
}
