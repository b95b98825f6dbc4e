#include <NimbFoundation/Images/VQImageLoadConnection.h>

namespace nimb {

std::shared_ptr<VQImageLoadConnection> VQImageLoadConnection::create(
    URL imageURL, std::weak_ptr<VQImageLoadConnectionDelegate> delegate,
    std::shared_ptr<Transport> transport) {
  if (!transport) transport = Transport::defaultTransport();
  return std::make_shared<VQImageLoadConnection>(Passkey{}, std::move(imageURL),
                                                 std::move(delegate), std::move(transport));
}

VQImageLoadConnection::VQImageLoadConnection(Passkey, URL imageURL,
                                             std::weak_ptr<VQImageLoadConnectionDelegate> delegate,
                                             std::shared_ptr<Transport> transport)
    : imageURL_(std::move(imageURL)),
      transport_(std::move(transport)),
      delegate_(std::move(delegate)) {}

VQImageLoadConnection::~VQImageLoadConnection() {
  // Nobody is left to hear the rest of the transfer.
  if (connection_) connection_->cancel();
}

URLRequest VQImageLoadConnection::makeRequest() const {
  URLRequest request(imageURL_);
  request.cachePolicy = URLRequestCachePolicy::ReturnCacheDataElseLoad;
  request.timeoutInterval = timeoutInterval_;
  request.timeoutIntervalForResource = timeoutIntervalForResource_;
  request.maximumBodyLength = maximumBodyLength_;
  request.setValue("gzip", "Accept-Encoding");
  return request;
}

void VQImageLoadConnection::start() {
  // The platform connection reports to this object only while it lives.
  std::weak_ptr<VQImageLoadConnection> weak = weak_from_this();
  TransportDelegate events;
  events.didReceiveResponse = [weak](TransportTask& from, const URLResponse& response) {
    if (auto self = weak.lock()) self->connection(from, response);
  };
  events.didReceiveData = [weak](TransportTask& from, Data& chunk) {
    if (auto self = weak.lock()) self->receive(from, chunk);
  };
  events.didFinishLoading = [weak](TransportTask& from) {
    if (auto self = weak.lock()) self->connectionDidFinishLoading(from);
  };
  events.didFailWithError = [weak](TransportTask& from, const Error& error) {
    if (auto self = weak.lock()) self->connection(from, error);
  };
  connection_ = transport_->start(makeRequest(), std::move(events));
}

void VQImageLoadConnection::cancel() {
  if (connection_) connection_->cancel();
}

void VQImageLoadConnection::connection(TransportTask& from, const URLResponse& response) {
  if (&from != connection_.get()) return;
  // A later response (a new multipart part) keeps the bytes gathered so far.
  response_ = response;
}

void VQImageLoadConnection::connection(TransportTask& from, std::span<const std::uint8_t> data) {
  if (&from != connection_.get()) return;
  responseData_.insert(responseData_.end(), data.begin(), data.end());
  reportPercent();
}

void VQImageLoadConnection::receive(TransportTask& from, Data& chunk) {
  if (&from != connection_.get()) return;
  // The first chunk comes with room for the rest of the announced body: it
  // becomes the buffer, and later chunks grow it in place.
  if (responseData_.empty()) {
    responseData_.swap(chunk);
  } else {
    responseData_.insert(responseData_.end(), chunk.begin(), chunk.end());
  }
  reportPercent();
}

void VQImageLoadConnection::reportPercent() {
  // Kept raw on purpose: negative for an unknown length, infinite with no
  // response yet, above 1 for a body longer than announced.
  float expected = response_ ? static_cast<float>(response_->expectedContentLength) : 0.0f;
  float percent = static_cast<float>(responseData_.size()) / expected;
  auto delegate = delegate_.lock();
  if (delegate && delegate->imageLoadConnectionDidReceivePercent) {
    delegate->imageLoadConnectionDidReceivePercent(percent, *this);
  }
}

void VQImageLoadConnection::connectionDidFinishLoading(TransportTask& from) {
  if (&from != connection_.get()) return;
  auto delegate = delegate_.lock();
  if (delegate && delegate->imageLoadConnectionDidFinishLoading) {
    delegate->imageLoadConnectionDidFinishLoading(*this);
  }
}

void VQImageLoadConnection::connection(TransportTask& from, const Error& error) {
  if (&from != connection_.get()) return;
  // A failed body is never used; up to maximumBodyLength() bytes go now.
  Data().swap(responseData_);
  auto delegate = delegate_.lock();
  if (delegate && delegate->imageLoadConnection) delegate->imageLoadConnection(*this, error);
}

}  // namespace nimb
