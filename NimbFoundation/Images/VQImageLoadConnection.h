// VQImageLoadConnection: one HTTP fetch of one image URL. It builds the
// request, collects the body in memory, reports the received fraction, and
// tells its delegate when the body is complete or the fetch failed. Whether
// the bytes are an image is the image loader's business, not this class's.
//
// The request asks for cached data when there is any (there is no HTTP cache
// on Linux yet, so it loads), sends "Accept-Encoding: gzip", and times out
// after timeoutInterval() seconds without progress (30 by default). A body
// longer than maximumBodyLength() bytes once decoded (64 MiB by default, a
// bound suited to pictures) fails with kURLErrorDataLengthExceedsMaximum
// (-1103) as soon as it crosses it; timeoutIntervalForResource() bounds
// the whole transfer (off by default). A failed connection lets go of the
// bytes it had gathered: responseData() is empty after any failure.
//
// The fraction reported after each chunk is the body length so far divided
// by the response's expected length, both as float, and it is kept raw on
// purpose: negative while the length is unknown (-1), infinite before any
// response, above 1 when the body runs past what was announced. A second
// response keeps the bytes already collected. HTTP status codes are never
// looked at: an error page is a finished body.
//
// The request goes through the Transport given to create() (the default
// one, libcurl, when none is given).
//
// The delegate is not owned: a delegate that went away is not called.
// Events from any task other than this object's own are ignored. After cancel() no delegate
// operation is called.
//
// Callers: the image loader. Thread rule: call start() on a thread whose
// run loop turns; every delegate operation runs on that thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Core/Value.h>
#include <NimbFoundation/Platform/Net/Transport.h>
#include <NimbFoundation/Platform/Net/URL.h>

namespace NIMB_EXPORT nimb {

class VQImageLoadConnection;

// What the connection reports; each operation is optional (leave it empty).
struct VQImageLoadConnectionDelegate {
  // After each chunk of body bytes: the received fraction (see above).
  std::function<void(float percent, VQImageLoadConnection& connection)>
      imageLoadConnectionDidReceivePercent;
  // Once, when the body is complete; responseData() holds all of it.
  std::function<void(VQImageLoadConnection& connection)> imageLoadConnectionDidFinishLoading;
  // Once, when the transfer failed, with the platform's error unchanged.
  std::function<void(VQImageLoadConnection& connection, const Error& error)> imageLoadConnection;
};

class VQImageLoadConnection : public std::enable_shared_from_this<VQImageLoadConnection> {
  struct Passkey {};

 public:
  static constexpr double kDefaultTimeoutInterval = 30.0;
  static constexpr std::uint64_t kDefaultMaximumBodyLength = 64ull << 20;  // 64 MiB

  // Keeps the URL, the delegate and the transport (the default one when
  // null); nothing is sent until start().
  static std::shared_ptr<VQImageLoadConnection> create(
      URL imageURL, std::weak_ptr<VQImageLoadConnectionDelegate> delegate,
      std::shared_ptr<Transport> transport = nullptr);

  // Sends the request (see makeRequest). Calling it twice starts a second
  // transfer and forgets the first one's events.
  void start();
  // Cancels the transfer; no delegate operation is called because of it.
  void cancel();

  // The request start() sends.
  URLRequest makeRequest() const;

  const URL& imageURL() const { return imageURL_; }
  const Data& responseData() const { return responseData_; }
  const std::optional<URLResponse>& response() const { return response_; }
  void setResponse(std::optional<URLResponse> response) { response_ = std::move(response); }
  std::weak_ptr<VQImageLoadConnectionDelegate> delegate() const { return delegate_; }
  void setDelegate(std::weak_ptr<VQImageLoadConnectionDelegate> d) { delegate_ = std::move(d); }
  double timeoutInterval() const { return timeoutInterval_; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }
  // Read by start(); 0 lifts the limit.
  std::uint64_t maximumBodyLength() const { return maximumBodyLength_; }
  void setMaximumBodyLength(std::uint64_t bytes) { maximumBodyLength_ = bytes; }
  // Seconds the whole transfer may take, read by start(); 0 (the default)
  // sets no bound.
  double timeoutIntervalForResource() const { return timeoutIntervalForResource_; }
  void setTimeoutIntervalForResource(double seconds) { timeoutIntervalForResource_ = seconds; }
  // The running transport task, if started.
  const std::shared_ptr<TransportTask>& connection() const { return connection_; }
  const std::shared_ptr<Transport>& transport() const { return transport_; }

  // The transport's events. Each first checks that `from` is this object's
  // own task and ignores it otherwise.
  void connection(TransportTask& from, const URLResponse& response);
  void connection(TransportTask& from, std::span<const std::uint8_t> data);
  void connectionDidFinishLoading(TransportTask& from);
  void connection(TransportTask& from, const Error& error);

  VQImageLoadConnection(Passkey, URL imageURL,
                        std::weak_ptr<VQImageLoadConnectionDelegate> delegate,
                        std::shared_ptr<Transport> transport);
  ~VQImageLoadConnection();

 private:
  // The data event as the platform connection delivers it: same checks as
  // connection(from, data), but the chunk may become the buffer itself.
  void receive(TransportTask& from, Data& chunk);
  void reportPercent();

  URL imageURL_;
  std::optional<URLResponse> response_;
  Data responseData_;
  std::shared_ptr<Transport> transport_;
  std::shared_ptr<TransportTask> connection_;
  double timeoutInterval_ = kDefaultTimeoutInterval;
  std::uint64_t maximumBodyLength_ = kDefaultMaximumBodyLength;
  double timeoutIntervalForResource_ = 0;
  std::weak_ptr<VQImageLoadConnectionDelegate> delegate_;
};

}  // namespace nimb
