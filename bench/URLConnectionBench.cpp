// URL loading benchmark: 1,000 transfers of 60 KB each (distinct paths,
// same bytes) from a loopback server started here, through
// VQImageLoadConnection and the network thread, against plain libcurl multi
// fetching the same URLs in the same run with the same per-host limit: once
// with all thousand handles added up front, once fed six at a time.
//
// Both sides reach one server with keep-alive; repetitions are interleaved
// and the ratio uses medians.
#include <benchmark/benchmark.h>

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <NimbFoundation/Images/VQImageLoadConnection.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

#include "../tests/HttpTestServer.h"
#include "BenchSupport.h"

namespace {

constexpr int kTransfers = 1000;
constexpr std::size_t kBodyBytes = 60 * 1024;

nimb::test::HttpTestServer& server() {
  static auto* s = [] {
    // Enough workers for both clients' connections, idle ones included.
    auto* srv = new nimb::test::HttpTestServer(24);
    static const std::string body = [] {
      std::string b(kBodyBytes, '\0');
      for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<char>(i * 31 + 7);
      return b;
    }();
    srv->server().set_keep_alive_max_count(100000);
    srv->server().Get(R"(/file/(\d+))", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(body, "application/octet-stream");
    });
    srv->start();
    return srv;
  }();
  return *s;
}

std::vector<std::string> urls() {
  std::vector<std::string> u;
  for (int i = 0; i < kTransfers; ++i) u.push_back(server().url("/file/" + std::to_string(i)));
  return u;
}

void BM_Fetch1000_VQImageLoadConnection(benchmark::State& state) {
  const auto all = urls();
  for (auto _ : state) {
    int finished = 0, failed = 0;
    std::size_t bytes = 0;
    auto delegate = std::make_shared<nimb::VQImageLoadConnectionDelegate>();
    delegate->imageLoadConnectionDidFinishLoading = [&](nimb::VQImageLoadConnection& c) {
      ++finished;
      bytes += c.responseData().size();
    };
    delegate->imageLoadConnection = [&](nimb::VQImageLoadConnection&, const nimb::Error&) {
      ++failed;
    };
    std::vector<std::shared_ptr<nimb::VQImageLoadConnection>> connections;
    connections.reserve(all.size());
    for (const auto& u : all) {
      connections.push_back(
          nimb::VQImageLoadConnection::create(*nimb::URL::withString(u), delegate));
      connections.back()->start();
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (finished + failed < kTransfers && std::chrono::steady_clock::now() < deadline) {
      nimb::RunLoop::main().runOnce(0.01);
    }
    if (failed || bytes != kTransfers * kBodyBytes) state.SkipWithError("transfers lost");
  }
  state.SetBytesProcessed(state.iterations() * kTransfers * kBodyBytes);
  state.SetItemsProcessed(state.iterations() * kTransfers);
}

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* out) {
  auto* body = static_cast<std::vector<std::uint8_t>*>(out);
  body->insert(body->end(), data, data + size * count);
  return size * count;
}

// Plain libcurl multi on the calling thread. With `window` below the number
// of URLs, easy handles are added only as earlier ones finish: libcurl 7.88
// walks every handle it holds on each perform, so a thousand waiting handles
// cost it more CPU than the transfers themselves.
void fetchWithCurlMulti(benchmark::State& state, std::size_t window) {
  const auto all = urls();
  for (auto _ : state) {
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
    std::vector<std::vector<std::uint8_t>> bodies(all.size());
    std::size_t next = 0, held = 0, ok = 0, done = 0;
    auto refill = [&] {
      for (; next < all.size() && held < window; ++next, ++held) {
        CURL* easy = curl_easy_init();
        curl_easy_setopt(easy, CURLOPT_URL, all[next].c_str());
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip");
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, appendBody);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &bodies[next]);
        curl_multi_add_handle(multi, easy);
      }
    };
    refill();
    while (done < all.size()) {
      int running = 0;
      curl_multi_perform(multi, &running);
      while (CURLMsg* msg = curl_multi_info_read(multi, &running)) {
        if (msg->msg != CURLMSG_DONE) continue;
        ok += msg->data.result == CURLE_OK;
        ++done, --held;
        curl_multi_remove_handle(multi, msg->easy_handle);
        curl_easy_cleanup(msg->easy_handle);
      }
      refill();
      if (done < all.size()) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    curl_multi_cleanup(multi);
    std::size_t bytes = 0;
    for (auto& b : bodies) bytes += b.size();
    if (ok != all.size() || bytes != kTransfers * kBodyBytes) state.SkipWithError("transfers lost");
  }
  state.SetBytesProcessed(state.iterations() * kTransfers * kBodyBytes);
  state.SetItemsProcessed(state.iterations() * kTransfers);
}

void BM_Fetch1000_CurlMulti(benchmark::State& state) {
  fetchWithCurlMulti(state, kTransfers);
}
void BM_Fetch1000_CurlMultiFedBySix(benchmark::State& state) {
  fetchWithCurlMulti(state, 6);
}

BENCHMARK(BM_Fetch1000_CurlMulti)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);
BENCHMARK(BM_Fetch1000_CurlMultiFedBySix)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);
BENCHMARK(BM_Fetch1000_VQImageLoadConnection)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  int status = nimb::bench::runWithRatios(
      argc, argv,
      {{"BM_Fetch1000_VQImageLoadConnection", "BM_Fetch1000_CurlMulti"},
       {"BM_Fetch1000_VQImageLoadConnection", "BM_Fetch1000_CurlMultiFedBySix"}});
  server().stop();
  curl_global_cleanup();
  return status;
}
