// Transport: how the kit sends an HTTP request and hears its answer.
//
// start() sends a request and returns its task at once; the answer comes to
// the delegate on the run loop of the thread that called start(): a
// response, each chunk of body bytes, then exactly one of finish or
// failure. After the task's cancel() the delegate hears nothing more.
// Transport::defaultTransport() is the libcurl URLConnection (see
// URLConnection.h for what it promises about redirects, timeouts and
// limits); a host or a test may give the image loader another one, say one
// that answers from memory.
//
// Thread rule: start() and cancel() from any thread; the delegate runs on
// the starting thread only.
#pragma once

#include <functional>
#include <memory>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Net/URL.h>

namespace NIMB_EXPORT nimb {

// One request in flight.
class TransportTask {
 public:
  virtual ~TransportTask();
  // Stops the request; the delegate hears nothing more and is released.
  virtual void cancel() = 0;
  // The request as start() was given it.
  virtual const URLRequest& originalRequest() const = 0;
};

// What a task reports. An empty member is simply not called. The task
// keeps its delegate until it has finished, failed or been cancelled.
struct TransportDelegate {
  std::function<void(TransportTask&, const URLResponse&)> didReceiveResponse;
  // The chunk is the receiver's to keep: it may move the bytes out.
  std::function<void(TransportTask&, Data& chunk)> didReceiveData;
  std::function<void(TransportTask&)> didFinishLoading;
  std::function<void(TransportTask&, const Error&)> didFailWithError;
};

class Transport {
 public:
  virtual ~Transport();
  // Sends `request` now; events go to the calling thread's run loop.
  virtual std::shared_ptr<TransportTask> start(const URLRequest& request,
                                               TransportDelegate delegate) = 0;

  // The libcurl connection, shared by the whole process.
  static std::shared_ptr<Transport> defaultTransport();
};

}  // namespace nimb
