// URLConnection: one HTTP transfer, run by the process's network thread and
// reported on the run loop of the thread that started it.
//
// URLConnection::start() returns at once. The transfer runs on one internal
// thread that drives libcurl's multi interface for every connection of the
// process; its events are posted, in order, to the starting thread's run
// loop: a response, each chunk of body bytes, then exactly one of finish or
// failure. Like the platform's connection:
//   - "Accept-Encoding: gzip" is sent and gzip bodies arrive decoded;
//   - redirects are followed, and only the final response is reported;
//   - no progress for request.timeoutInterval seconds fails the transfer
//     with kURLErrorTimedOut (time spent waiting for a free connection does
//     not count);
//   - at most kMaxConnectionsPerHost connections run at once per host; the
//     rest wait their turn;
//   - HTTP status codes are not failures: an error page is a body;
//   - a body longer than request.maximumBodyLength (decoded bytes; the
//     announced length of a plain body is believed at once) fails with
//     kURLErrorDataLengthExceedsMaximum, and a load that runs past
//     request.timeoutIntervalForResource fails as timed out, however
//     steadily the server sends; both are off unless the request sets them;
//   - a server that sends more than 256 KiB of headers fails the load with
//     kURLErrorBadServerResponse.
// Events travel to the run loop in batches (an event waits at most about a
// millisecond for company), and body bytes that arrive within one batch
// come as one chunk: waking the receiving thread per event would cost more
// than the events. After cancel() no event reaches the delegate any more, not even one
// already queued on the run loop. The starting thread must turn its run loop
// for events to arrive. Should that loop fall behind by more than
// kMaxUndeliveredBytes, the transfer pauses until it catches up, so a
// stalled receiver never makes the process buffer without end.
//
// It is the kit's default Transport (Transport::defaultTransport()).
//
// Callers: the default Transport, and so VQImageLoadConnection. Thread rule: start() and cancel()
// from any thread (cancel is final only for events delivered after it returns when called off the
// starting thread); the delegate runs on the starting thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Net/Transport.h>
#include <NimbFoundation/Platform/Net/URL.h>

namespace NIMB_EXPORT nimb {

class URLConnection;

// What a connection reports. An empty member is simply not called. The
// connection keeps its delegate until it has finished, failed or been
// cancelled, then lets it go.
struct URLConnectionDelegate {
  std::function<void(URLConnection&, const URLResponse&)> didReceiveResponse;
  // The chunk is the receiver's to keep: it may move the bytes out rather
  // than copy them (a callable taking a span works too).
  std::function<void(URLConnection&, Data& chunk)> didReceiveData;
  std::function<void(URLConnection&)> didFinishLoading;
  std::function<void(URLConnection&, const Error&)> didFailWithError;
};

class URLConnection final : public TransportTask,
                            public std::enable_shared_from_this<URLConnection> {
  struct Passkey {};

 public:
  static constexpr long kMaxConnectionsPerHost = 6;
  static constexpr std::size_t kMaxUndeliveredBytes = 4 * 1024 * 1024;

  // Starts `request` now; events go to the calling thread's run loop.
  static std::shared_ptr<URLConnection> start(const URLRequest& request,
                                              URLConnectionDelegate delegate);
  // Stops the transfer; the delegate hears nothing more and is released.
  void cancel() override;

  const URLRequest& originalRequest() const override;

  // Transfers the network thread holds right now (running or waiting for a
  // connection); for tests and diagnostics.
  static std::size_t activeTransferCount();

  // The connection's state, known only to its implementation.
  struct Impl;
  URLConnection(Passkey, std::unique_ptr<Impl> impl);
  ~URLConnection() override;
  URLConnection(const URLConnection&) = delete;
  URLConnection& operator=(const URLConnection&) = delete;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace nimb
