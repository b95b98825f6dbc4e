// URL: an absolute URL, checked with libcurl's URL parser; and the request
// and response values that travel with a URL load.
//
// A URL keeps the string it was made from as its absoluteString (no
// normalisation, so keys derived from it stay as the caller wrote them) and
// compares by it. A string that is no absolute URL (no scheme, a space, a
// malformed authority) gives no URL. Plain values, safe to copy between
// threads.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class URL {
 public:
  // nullopt for a string that is not an absolute URL.
  static std::optional<URL> withString(std::string_view string);

  const std::string& absoluteString() const { return absolute_; }
  // Lower-case scheme, e.g. "http".
  const std::string& scheme() const { return scheme_; }
  // Host as written, without port; "" when the URL has none.
  const std::string& host() const { return host_; }

  friend bool operator==(const URL& a, const URL& b) { return a.absolute_ == b.absolute_; }

 private:
  URL() = default;
  std::string absolute_;
  std::string scheme_;
  std::string host_;
};

// Header field names compare without regard to case, as HTTP has it.
struct CaseInsensitiveLess {
  bool operator()(std::string_view a, std::string_view b) const;
  using is_transparent = void;
};
using HTTPHeaderFields = std::map<std::string, std::string, CaseInsensitiveLess>;

// The platform's cache policies, by their numbers.
enum class URLRequestCachePolicy : int {
  UseProtocolCachePolicy = 0,
  ReloadIgnoringLocalCacheData = 1,
  ReturnCacheDataElseLoad = 2,
  ReturnCacheDataDontLoad = 3,
};

struct URLRequest {
  explicit URLRequest(URL u) : url(std::move(u)) {}
  URL url;
  // There is no HTTP cache on this side yet, so every policy loads.
  URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::UseProtocolCachePolicy;
  // Seconds without progress after which the load fails as timed out.
  double timeoutInterval = 60.0;
  // Seconds the whole load may take once it has a connection, however
  // steadily the server sends; then it fails as timed out. 0: no limit.
  double timeoutIntervalForResource = 0;
  // The most body bytes, counted after content decoding (so a small gzip
  // body that inflates without end is caught), the load accepts. A body
  // that grows past it fails with kURLErrorDataLengthExceedsMaximum as soon
  // as it does. 0: no limit.
  std::uint64_t maximumBodyLength = 0;
  HTTPHeaderFields allHTTPHeaderFields;
  void setValue(std::string value, std::string field) {
    allHTTPHeaderFields[std::move(field)] = std::move(value);
  }
};

struct URLResponse {
  URL url;  // after redirects
  long statusCode = 0;
  HTTPHeaderFields allHeaderFields;
  // The announced body length, -1 when the server did not say.
  std::int64_t expectedContentLength = -1;
};

}  // namespace nimb
