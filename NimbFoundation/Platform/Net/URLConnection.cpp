#include <NimbFoundation/Platform/Net/URLConnection.h>
#include <NimbFoundation/Version.h>

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

namespace nimb {

namespace {

using Clock = std::chrono::steady_clock;

// How often the network thread looks at idle and paused transfers when
// nothing else wakes it.
constexpr auto kHousekeepingInterval = std::chrono::milliseconds(50);
// The longest an event waits on the network thread for others to travel
// with it to the same run loop.
constexpr auto kBatchWindow = std::chrono::microseconds(1000);
constexpr const char* kUserAgent = "NimbFoundation/" NIMBFOUNDATION_VERSION_STRING;
// The most header bytes one transfer takes from its server, over every
// response it reads (interim ones and redirects included): ample for any
// real server, and a bound on what an endless header block can make us
// hold. It lies below libcurl's own limit on a response's headers, so that
// the failure says what happened; a single line longer than libcurl takes
// (100 KiB) is refused by libcurl first, as an out-of-memory failure.
constexpr std::size_t kMaxHeaderBytes = 256 * 1024;

std::string trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() &&
         (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
    s.remove_suffix(1);
  return std::string(s);
}

bool sameField(std::string_view a, std::string_view b) {
  return !CaseInsensitiveLess{}(a, b) && !CaseInsensitiveLess{}(b, a);
}

// How many content codings other than "identity" the response applies to
// its body, from its Content-Encoding field(s), e.g. 2 for "gzip, gzip".
int contentCodings(const HTTPHeaderFields& fields) {
  auto found = fields.find("Content-Encoding");
  if (found == fields.end()) return 0;
  int count = 0;
  std::string_view rest = found->second;
  while (!rest.empty()) {
    auto comma = rest.find(',');
    std::string coding = trim(rest.substr(0, comma));
    if (!coding.empty() && !sameField(coding, "identity")) ++count;
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  return count;
}

long errorCodeFor(CURLcode code) {
  switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
      return kURLErrorUnsupportedURL;
    case CURLE_URL_MALFORMAT:
      return kURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return kURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return kURLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return kURLErrorTimedOut;
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
      return kURLErrorNetworkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
      return kURLErrorHTTPTooManyRedirects;
    case CURLE_BAD_CONTENT_ENCODING:
      return kURLErrorCannotDecodeContentData;
    case CURLE_WEIRD_SERVER_REPLY:
      return kURLErrorBadServerResponse;
    case CURLE_PEER_FAILED_VERIFICATION:
      return kURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
      return kURLErrorSecureConnectionFailed;
    default:
      return kURLErrorUnknown;
  }
}

}  // namespace

// The connection's state. The network thread reads the request and the
// flags; the delegate is touched only on the starting thread.
struct URLConnection::Impl {
  using Event = std::function<void(URLConnection&, URLConnectionDelegate&)>;

  Impl(URLRequest r, URLConnectionDelegate d, std::shared_ptr<RunLoop> l)
      : request(std::move(r)), delegate(std::move(d)), loop(std::move(l)) {}

  static Impl& of(URLConnection& connection) { return *connection.impl_; }

  // Runs on the starting thread: delivers one event unless cancelled or
  // already ended; `last` marks the finish or failure.
  void deliver(URLConnection& self, const Event& event, bool last) {
    if (cancelled || ended) return;
    if (last) ended = true;
    // Held in a local while it runs: the delegate may cancel, or drop the
    // last reference to whoever owns this connection, from inside its own
    // call.
    URLConnectionDelegate held = std::move(delegate);
    event(self, held);
    if (!last && !cancelled) delegate = std::move(held);
  }

  URLRequest request;
  URLConnectionDelegate delegate;
  std::shared_ptr<RunLoop> loop;
  std::atomic<bool> cancelled{false};
  std::atomic<bool> ended{false};
  // Bytes posted to the run loop and not yet handed to the delegate.
  std::atomic<std::size_t> undeliveredBytes{0};
};

namespace {

using Event = URLConnection::Impl::Event;

// Hashes connections by address. Being this file's own, it keeps the table
// that uses it out of the library's exported symbols.
struct ConnectionHash {
  std::size_t operator()(const URLConnection* connection) const {
    return std::hash<const void*>{}(connection);
  }
};

URLConnection::Impl& state(URLConnection& connection) {
  return URLConnection::Impl::of(connection);
}

// The one thread that runs every transfer of the process on a libcurl multi
// handle. Other threads talk to it only through its command queue; every
// curl call happens here.
class NetworkThread {
 public:
  static NetworkThread& shared() {
    // Never destroyed: transfers may be in flight while the process exits.
    static NetworkThread* thread = new NetworkThread;
    return *thread;
  }

  void add(std::shared_ptr<URLConnection> connection) {
    post([this, c = std::move(connection)]() mutable { begin(std::move(c)); });
  }
  void remove(URLConnection* connection) {
    post([this, connection] { end(connection); });
  }
  std::size_t activeCount() const { return active_.load(); }

 private:
  struct Transfer {
    NetworkThread* owner = nullptr;
    std::shared_ptr<URLConnection> connection;
    // The data event of the batch being gathered, while it is still the
    // transfer's latest event: later bytes join it instead of making another.
    std::shared_ptr<Data> openChunk;
    std::uint64_t openChunkBatch = 0;
    // Body bytes still to come by the announced length; -1 when unknown.
    std::int64_t bodyLeft = -1;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    bool inHeaderBlock = false;
    HTTPHeaderFields responseHeaders;
    std::string hostKey;   // scheme://host: what the per-host limit counts
    bool waiting = false;  // queued here until its host has a free connection
    bool started = false;  // libcurl has begun work on it
    bool paused = false;   // waiting for the receiver to catch up
    Clock::time_point lastProgress;
    curl_off_t lastDownloaded = -1;
    std::atomic<std::size_t>* undelivered = nullptr;
    std::uint64_t maximumBodyLength = 0;  // 0: no limit
    std::uint64_t bodyReceived = 0;       // decoded body bytes so far
    std::size_t headerBytes = 0;          // over every response of the transfer
    // Why the transfer was stopped from one of the callbacks, when it was:
    // libcurl itself only reports a write error.
    std::optional<std::pair<long, std::string>> abort;
  };

  NetworkThread() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, URLConnection::kMaxConnectionsPerHost);
    std::thread([this] { run(); }).detach();
  }

  void post(std::function<void()> command) {
    {
      std::lock_guard lock(mutex_);
      commands_.push_back(std::move(command));
    }
    curl_multi_wakeup(multi_);
  }

  void run() {
    for (;;) {
      std::vector<std::function<void()>> commands;
      {
        std::lock_guard lock(mutex_);
        commands.swap(commands_);
      }
      for (auto& c : commands) c();
      int running = 0;
      curl_multi_perform(multi_, &running);
      int left = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi_, &left)) {
        if (msg->msg == CURLMSG_DONE) done(msg->easy_handle, msg->data.result);
      }
      auto now = Clock::now();
      if (now - lastHousekeeping_ >= kHousekeepingInterval) {
        lastHousekeeping_ = now;
        housekeeping();
      }
      // Events wait up to kBatchWindow for company: each hand-over wakes the
      // receiving thread, and on a busy machine those wake-ups, not the
      // events, are what cost.
      auto wait = kHousekeepingInterval;
      if (!outbox_.empty()) {
        auto age = Clock::now() - outboxSince_;
        if (age >= kBatchWindow || transfers_.empty()) {
          flush();
        } else {
          wait = std::chrono::duration_cast<std::chrono::milliseconds>(kBatchWindow - age) +
                 std::chrono::milliseconds(1);
        }
      }
      int ignored = 0;
      curl_multi_poll(multi_, nullptr, 0, static_cast<int>(wait.count()), &ignored);
    }
  }

  // Queues one event for the connection's run loop, in order. Events are
  // handed over in one batch per run loop and pass of the network loop:
  // waking the receiving thread once per event costs more than the event.
  static void deliver(Transfer& t, Event event, bool last) {
    auto c = t.connection;
    t.openChunk.reset();
    t.owner->enqueue(*c,
                     [c, event = std::move(event), last] { state(*c).deliver(*c, event, last); });
  }

  void enqueue(URLConnection& c, std::function<void()> task) {
    if (outbox_.empty()) outboxSince_ = Clock::now();
    auto& box = outbox_[state(c).loop.get()];
    if (!box.loop) box.loop = state(c).loop;
    box.tasks.push_back(std::move(task));
  }

  void flush() {
    for (auto& [key, box] : outbox_) {
      box.loop->perform([tasks = std::move(box.tasks)]() mutable {
        for (auto& task : tasks) task();
      });
    }
    outbox_.clear();
    ++batch_;  // chunks handed over are closed
  }

  static void fail(Transfer& t, long code, const std::string& description) {
    Error error =
        Error::urlError(code, state(*t.connection).request.url.absoluteString(), description);
    deliver(
        t,
        [error](URLConnection& c, URLConnectionDelegate& d) {
          if (d.didFailWithError) d.didFailWithError(c, error);
        },
        true);
  }

  void begin(std::shared_ptr<URLConnection> connection) {
    auto t = std::make_unique<Transfer>();
    t->owner = this;
    t->connection = std::move(connection);
    t->undelivered = &state(*t->connection).undeliveredBytes;
    const URLRequest& request = state(*t->connection).request;
    if (state(*t->connection).cancelled) return;
    ++active_;
    const std::string& scheme = request.url.scheme();
    if (scheme != "http" && scheme != "https") {
      fail(*t, kURLErrorUnsupportedURL, "unsupported URL");
      --active_;
      return;
    }
    CURL* easy = curl_easy_init();
    if (!easy) {
      fail(*t, kURLErrorUnknown, "cannot create a transfer");
      --active_;
      return;
    }
    t->easy = easy;
    std::string acceptEncoding = "gzip";
    for (const auto& [field, value] : request.allHTTPHeaderFields) {
      // libcurl must know the encodings it is to undo, so the field is
      // handed to it rather than sent as written.
      if (sameField(field, "Accept-Encoding")) {
        acceptEncoding = value;
      } else {
        t->headers = curl_slist_append(t->headers, (field + ": " + value).c_str());
      }
    }
    long timeoutMs = request.timeoutInterval > 0
                         ? static_cast<long>(std::min(request.timeoutInterval, 1e6) * 1000)
                         : 0;
    curl_easy_setopt(easy, CURLOPT_URL, request.url.absoluteString().c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, t.get());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, acceptEncoding.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t->headers);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, kUserAgent);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    if (timeoutMs > 0) curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    if (request.timeoutIntervalForResource > 0) {
      long resourceMs = static_cast<long>(std::min(request.timeoutIntervalForResource, 1e6) * 1000);
      curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, std::max(resourceMs, 1L));
    }
    t->maximumBodyLength = request.maximumBodyLength;
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &NetworkThread::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, t.get());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &NetworkThread::onData);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, t.get());
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &NetworkThread::onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, t.get());
    t->hostKey = request.url.scheme() + "://" + request.url.host();
    byConnection_[t->connection.get()] = easy;
    Transfer& added = *t;
    transfers_[easy] = std::move(t);
    // The per-host limit is kept here rather than by libcurl: libcurl walks
    // every handle it holds on each call, so a thousand queued transfers
    // would slow the few that run.
    auto& host = hosts_[added.hostKey];
    if (host.running < URLConnection::kMaxConnectionsPerHost) {
      ++host.running;
      curl_multi_add_handle(multi_, easy);
    } else {
      added.waiting = true;
      host.waiting.push_back(easy);
    }
  }

  // Removes a transfer without a word to its delegate (a cancel).
  void end(URLConnection* connection) {
    auto it = byConnection_.find(connection);
    if (it == byConnection_.end()) return;
    release(it->second);
  }

  void release(CURL* easy) {
    auto it = transfers_.find(easy);
    if (it == transfers_.end()) return;
    Transfer& t = *it->second;
    auto host = hosts_.find(t.hostKey);
    if (t.waiting) {
      auto& queue = host->second.waiting;
      queue.erase(std::find(queue.begin(), queue.end(), easy));
    } else {
      curl_multi_remove_handle(multi_, easy);
      --host->second.running;
    }
    curl_easy_cleanup(easy);
    curl_slist_free_all(t.headers);
    byConnection_.erase(t.connection.get());
    transfers_.erase(it);
    --active_;
    // The freed connection goes to the next transfer waiting for this host.
    auto& h = host->second;
    while (h.running < URLConnection::kMaxConnectionsPerHost && !h.waiting.empty()) {
      CURL* next = h.waiting.front();
      h.waiting.pop_front();
      transfers_[next]->waiting = false;
      ++h.running;
      curl_multi_add_handle(multi_, next);
    }
    if (h.running == 0 && h.waiting.empty()) hosts_.erase(host);
  }

  void done(CURL* easy, CURLcode result) {
    auto it = transfers_.find(easy);
    if (it == transfers_.end()) return;
    Transfer& t = *it->second;
    if (t.abort) {
      fail(t, t.abort->first, t.abort->second);
    } else if (result == CURLE_OK) {
      deliver(
          t,
          [](URLConnection& c, URLConnectionDelegate& d) {
            if (d.didFinishLoading) d.didFinishLoading(c);
          },
          true);
    } else {
      fail(t, errorCodeFor(result), curl_easy_strerror(result));
    }
    release(easy);
  }

  // Fails transfers that made no progress for their timeout, and resumes
  // paused ones whose receiver has caught up.
  void housekeeping() {
    auto now = Clock::now();
    std::vector<CURL*> timedOut;
    for (auto& [easy, t] : transfers_) {
      if (t->waiting) continue;
      if (t->paused) {
        if (t->undelivered->load() < URLConnection::kMaxUndeliveredBytes / 2) {
          t->paused = false;
          t->lastProgress = now;
          curl_easy_pause(easy, CURLPAUSE_CONT);
        }
        continue;
      }
      double timeout = state(*t->connection).request.timeoutInterval;
      if (t->started && timeout > 0 &&
          std::chrono::duration<double>(now - t->lastProgress).count() >= timeout) {
        timedOut.push_back(easy);
      }
    }
    for (CURL* easy : timedOut) {
      fail(*transfers_[easy], kURLErrorTimedOut, "The request timed out.");
      release(easy);
    }
  }

  static int onProgress(void* p, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t) {
    auto* t = static_cast<Transfer*>(p);
    if (!t->started || downloaded != t->lastDownloaded) {
      t->started = true;
      t->lastDownloaded = downloaded;
      t->lastProgress = Clock::now();
    }
    return 0;
  }

  // Stops the transfer from inside a libcurl callback; done() reports it.
  static std::size_t abortTransfer(Transfer& t, long code, std::string description) {
    t.abort.emplace(code, std::move(description));
    return 0;  // fewer bytes than offered: libcurl ends the transfer
  }

  static std::string tooLong(std::uint64_t maximum) {
    return "The response body is longer than the maximum of " + std::to_string(maximum) + " bytes.";
  }

  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* p) {
    auto* t = static_cast<Transfer*>(p);
    std::size_t n = size * count;
    std::string_view line(data, n);
    t->lastProgress = Clock::now();
    t->headerBytes += n;
    if (t->headerBytes > kMaxHeaderBytes) {
      return abortTransfer(
          *t, kURLErrorBadServerResponse,
          "The server sent more than " + std::to_string(kMaxHeaderBytes) + " bytes of headers.");
    }
    if (line.starts_with("HTTP/")) {
      t->inHeaderBlock = true;
      t->responseHeaders.clear();
      return n;
    }
    if (!t->inHeaderBlock) return n;  // trailers
    if (line == "\r\n" || line == "\n") {
      t->inHeaderBlock = false;
      if (!responseComplete(*t)) return 0;  // responseComplete() said why
      return n;
    }
    auto colon = line.find(':');
    if (colon != std::string_view::npos) {
      std::string field = trim(line.substr(0, colon));
      std::string value = trim(line.substr(colon + 1));
      auto [it, inserted] = t->responseHeaders.emplace(field, value);
      if (!inserted) it->second += ", " + value;
    }
    return n;
  }

  // Reports a final response; false (with the reason in t.abort) when the
  // response is refused before any of its body comes: a body announced
  // longer than the transfer accepts, or content codings stacked.
  static bool responseComplete(Transfer& t) {
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    // Interim and followed-redirect responses stay inside the transfer.
    if (status / 100 == 1) return true;
    if (status / 100 == 3 && t.responseHeaders.count("Location")) return true;
    URLResponse response{state(*t.connection).request.url, status, std::move(t.responseHeaders),
                         -1};
    t.responseHeaders = {};
    char* effective = nullptr;
    if (curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective &&
        response.url.absoluteString() != effective) {
      if (auto url = URL::withString(effective)) response.url = *url;
    }
    auto length = response.allHeaderFields.find("Content-Length");
    if (length != response.allHeaderFields.end()) {
      std::int64_t value = -1;
      auto& text = length->second;
      auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
      if (ec == std::errc() && ptr == text.data() + text.size() && value >= 0) {
        response.expectedContentLength = value;
      }
    }
    t.bodyLeft = response.expectedContentLength;
    const int codings = contentCodings(response.allHeaderFields);
    if (codings > 1) {
      // Only gzip was asked for, once. Codings stacked on one another
      // inflate by the product of their ratios, faster than any limit can
      // be checked, and no real server sends them.
      t.abort.emplace(kURLErrorCannotDecodeContentData,
                      "The response stacks content codings, which were not asked for.");
      return false;
    }
    // An announced length is the encoded one; only a body sent as it is can
    // be refused by it before it arrives. Some responses carry no body
    // whatever they announce, and a chunked one's length does not count.
    const bool bodiless = status == 204 || status == 304;
    const bool chunked = response.allHeaderFields.count("Transfer-Encoding") > 0;
    if (codings == 0 && !bodiless && !chunked && t.maximumBodyLength > 0 &&
        response.expectedContentLength > 0 &&
        static_cast<std::uint64_t>(response.expectedContentLength) > t.maximumBodyLength) {
      t.abort.emplace(kURLErrorDataLengthExceedsMaximum, tooLong(t.maximumBodyLength));
      return false;
    }
    deliver(
        t,
        [response = std::move(response)](URLConnection& c, URLConnectionDelegate& d) {
          if (d.didReceiveResponse) d.didReceiveResponse(c, response);
        },
        false);
    return true;
  }

  static std::size_t onData(char* data, std::size_t size, std::size_t count, void* p) {
    auto* t = static_cast<Transfer*>(p);
    std::size_t n = size * count;
    if (state(*t->connection).cancelled) return 0;  // ends the transfer; the cancel removes it
    if (t->maximumBodyLength > 0 && n > t->maximumBodyLength - t->bodyReceived) {
      return abortTransfer(*t, kURLErrorDataLengthExceedsMaximum, tooLong(t->maximumBodyLength));
    }
    if (t->undelivered->load() > URLConnection::kMaxUndeliveredBytes) {
      t->paused = true;
      return CURL_WRITEFUNC_PAUSE;
    }
    t->bodyReceived += n;
    t->lastProgress = Clock::now();
    t->undelivered->fetch_add(n);
    if (t->bodyLeft > 0) t->bodyLeft -= std::min<std::int64_t>(t->bodyLeft, n);
    auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
    if (t->openChunk && t->openChunkBatch == t->owner->batch_) {
      t->openChunk->insert(t->openChunk->end(), bytes, bytes + n);
      return n;
    }
    auto chunk = std::make_shared<Data>();
    // Room for the rest of the announced body, so a receiver that keeps this
    // chunk as its buffer grows it in place.
    std::int64_t reserveCap = 64 << 20;
    if (t->maximumBodyLength > 0 && t->maximumBodyLength < static_cast<std::uint64_t>(reserveCap)) {
      reserveCap = static_cast<std::int64_t>(t->maximumBodyLength);
    }
    chunk->reserve(std::max<std::size_t>(
        n, static_cast<std::size_t>(std::clamp<std::int64_t>(t->bodyLeft, 0, reserveCap))));
    chunk->assign(bytes, bytes + n);
    auto c = t->connection;
    t->owner->enqueue(*c, [c, chunk] {
      state(*c).undeliveredBytes.fetch_sub(chunk->size());
      state(*c).deliver(
          *c,
          [&chunk](URLConnection& conn, URLConnectionDelegate& d) {
            if (d.didReceiveData) d.didReceiveData(conn, *chunk);
          },
          false);
    });
    t->openChunk = std::move(chunk);
    t->openChunkBatch = t->owner->batch_;
    return n;
  }

  CURLM* multi_ = nullptr;
  std::mutex mutex_;
  std::vector<std::function<void()>> commands_;
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> transfers_;
  std::unordered_map<URLConnection*, CURL*, ConnectionHash> byConnection_;
  struct Host {
    long running = 0;
    std::deque<CURL*> waiting;
  };
  std::unordered_map<std::string, Host> hosts_;
  struct Outbox {
    std::shared_ptr<RunLoop> loop;
    std::vector<std::function<void()>> tasks;
  };
  std::unordered_map<RunLoop*, Outbox> outbox_;
  std::uint64_t batch_ = 0;
  Clock::time_point outboxSince_;
  Clock::time_point lastHousekeeping_;
  std::atomic<std::size_t> active_{0};
};

// The default Transport: each request is a URLConnection.
class CurlTransport final : public Transport {
 public:
  std::shared_ptr<TransportTask> start(const URLRequest& request,
                                       TransportDelegate delegate) override {
    URLConnectionDelegate events;
    if (delegate.didReceiveResponse) {
      events.didReceiveResponse = [f = std::move(delegate.didReceiveResponse)](
                                      URLConnection& c, const URLResponse& r) { f(c, r); };
    }
    if (delegate.didReceiveData) {
      events.didReceiveData = [f = std::move(delegate.didReceiveData)](
                                  URLConnection& c, Data& chunk) { f(c, chunk); };
    }
    if (delegate.didFinishLoading) {
      events.didFinishLoading = [f = std::move(delegate.didFinishLoading)](URLConnection& c) {
        f(c);
      };
    }
    if (delegate.didFailWithError) {
      events.didFailWithError = [f = std::move(delegate.didFailWithError)](
                                    URLConnection& c, const Error& e) { f(c, e); };
    }
    return URLConnection::start(request, std::move(events));
  }
};

}  // namespace

TransportTask::~TransportTask() = default;
Transport::~Transport() = default;

std::shared_ptr<Transport> Transport::defaultTransport() {
  // Never released: connections may be in flight while the process exits.
  static auto* shared = new std::shared_ptr<Transport>(std::make_shared<CurlTransport>());
  return *shared;
}

std::shared_ptr<URLConnection> URLConnection::start(const URLRequest& request,
                                                    URLConnectionDelegate delegate) {
  auto connection = std::make_shared<URLConnection>(
      Passkey{}, std::make_unique<Impl>(request, std::move(delegate), RunLoop::currentShared()));
  NetworkThread::shared().add(connection);
  return connection;
}

URLConnection::URLConnection(Passkey, std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

URLConnection::~URLConnection() = default;

const URLRequest& URLConnection::originalRequest() const {
  return impl_->request;
}

void URLConnection::cancel() {
  if (impl_->cancelled.exchange(true)) return;
  NetworkThread::shared().remove(this);
  // The delegate is touched only on the starting thread; let it go there.
  if (impl_->loop) {
    impl_->loop->perform([self = shared_from_this()] { self->impl_->delegate = {}; });
  }
}

std::size_t URLConnection::activeTransferCount() {
  return NetworkThread::shared().activeCount();
}

}  // namespace nimb
