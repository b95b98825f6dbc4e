// FakeTransport: a Transport that answers from memory, for the tests of the
// image loader and view. Like the real one, it reports on the run loop of
// the thread that started the request, never inside start(), and a
// cancelled task hears nothing more. LoaderFixture: a loader on it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Images/VQImageLoader.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Net/Transport.h>

#include "TestSupport.h"

namespace nimb::test {

class FakeTransport final : public Transport {
 public:
  struct Reply {
    std::string body;
    std::string contentType = "image/png";
    // Set: after the response and the first half of the body, the load
    // fails with this URL error code instead of finishing.
    std::optional<long> failWith;
    // Set: no event at all until release() (a request that hangs).
    bool held = false;
  };
  // Says how to answer the `hit`-th request (from 1) for `path` (the URL
  // from the slash after its host, "/a.png").
  using Responder = std::function<Reply(const std::string& path, int hit)>;

  explicit FakeTransport(Responder responder) : responder_(std::move(responder)) {}

  std::atomic<int> requests{0};

  // Sends the answers of the held requests.
  void release() {
    std::map<Task*, std::shared_ptr<Task>> held;
    {
      std::lock_guard lock(mutex_);
      held.swap(held_);
    }
    for (auto& [raw, task] : held) task->schedule();
  }

  std::shared_ptr<TransportTask> start(const URLRequest& request,
                                       TransportDelegate delegate) override {
    ++requests;
    const std::string& url = request.url.absoluteString();
    const auto slash = url.find('/', url.find("://") + 3);
    const std::string path = slash == std::string::npos ? "/" : url.substr(slash);
    int hit = 0;
    {
      std::lock_guard lock(mutex_);
      hit = ++hits_[path];
    }
    auto task = std::make_shared<Task>(request, std::move(delegate), responder_(path, hit),
                                       RunLoop::currentShared());
    if (task->reply.held) {
      std::lock_guard lock(mutex_);
      held_[task.get()] = task;
    } else {
      task->schedule();
    }
    return task;
  }

 private:
  struct Task final : TransportTask, std::enable_shared_from_this<Task> {
    Task(URLRequest r, TransportDelegate d, Reply reply, std::shared_ptr<RunLoop> loop)
        : request(std::move(r)),
          delegate(std::move(d)),
          reply(std::move(reply)),
          loop(std::move(loop)) {}
    void cancel() override { cancelled = true; }
    const URLRequest& originalRequest() const override { return request; }

    void schedule() {
      loop->perform([self = shared_from_this()] { self->play(); });
    }
    // A response, the body's halves, then the finish (or the failure in
    // place of the second half); nothing more once cancelled.
    void play() {
      const auto half = reply.body.begin() + reply.body.size() / 2;
      Data halves[2] = {Data(reply.body.begin(), half), Data(half, reply.body.end())};
      if (cancelled) return;
      URLResponse response{request.url,
                           200,
                           {{"Content-Type", reply.contentType}},
                           static_cast<std::int64_t>(reply.body.size())};
      if (delegate.didReceiveResponse) delegate.didReceiveResponse(*this, response);
      for (Data& chunk : halves) {
        if (cancelled) return;
        if (&chunk == &halves[1] && reply.failWith) {
          const auto error =
              Error::urlError(*reply.failWith, request.url.absoluteString(), "fake failure");
          if (delegate.didFailWithError) delegate.didFailWithError(*this, error);
          return;
        }
        if (delegate.didReceiveData) delegate.didReceiveData(*this, chunk);
      }
      if (!cancelled && delegate.didFinishLoading) delegate.didFinishLoading(*this);
    }

    URLRequest request;
    TransportDelegate delegate;
    Reply reply;
    std::shared_ptr<RunLoop> loop;
    std::atomic<bool> cancelled{false};
  };

  Responder responder_;
  std::mutex mutex_;
  std::map<std::string, int> hits_;
  std::map<Task*, std::shared_ptr<Task>> held_;
};

// A loader on a cache in a temporary directory, a centre of its own and a
// FakeTransport that answers with reply(). Tear-down drains the main run
// loop (the cache's pending save runs there) and removes the directory.
class LoaderFixture : public ::testing::Test {
 protected:
  virtual FakeTransport::Reply reply(const std::string& path, int hit) = 0;
  void TearDown() override {
    loader.reset();
    RunLoop::main().runUntilIdle(5);
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }
  static URL url(const std::string& path) { return *URL::withString("http://images.test/" + path); }
  void settle() {  // the cache writes on its disk queue
    cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  }

  const std::string root = makeTemporaryDirectory("loader");
  std::shared_ptr<VQCache> cache = VQCache::open({nullptr, root + "/VQCache", 86400});
  std::shared_ptr<FakeTransport> transport = std::make_shared<FakeTransport>(
      [this](const std::string& path, int hit) { return reply(path, hit); });
  std::atomic<int>& requests = transport->requests;
  NotificationCenter center;
  std::shared_ptr<VQImageLoader> loader = VQImageLoader::create({cache, &center, transport});
};

}  // namespace nimb::test
