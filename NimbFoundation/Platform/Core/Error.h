// Error: a failure as the platform reports one: a domain, a code and a
// dictionary of details (userInfo). The kit hands Errors to delegates and
// observers; no exception ever carries one.
//
// URL loading fails in kURLErrorDomain with the platform's codes below; its
// userInfo holds the failing URL under kErrorFailingURLStringKey and a
// readable description under kLocalizedDescriptionKey. A plain value: copy
// it between threads freely.
#pragma once

#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Value.h>

namespace NIMB_EXPORT nimb {

inline constexpr const char* kURLErrorDomain = "NSURLErrorDomain";
inline constexpr const char* kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* kErrorFailingURLStringKey = "NSErrorFailingURLStringKey";

// The platform's URL error codes.
enum URLErrorCode : long {
  kURLErrorUnknown = -1,
  kURLErrorCancelled = -999,
  kURLErrorBadURL = -1000,
  kURLErrorTimedOut = -1001,
  kURLErrorUnsupportedURL = -1002,
  kURLErrorCannotFindHost = -1003,
  kURLErrorCannotConnectToHost = -1004,
  kURLErrorNetworkConnectionLost = -1005,
  kURLErrorHTTPTooManyRedirects = -1007,
  kURLErrorResourceUnavailable = -1008,
  kURLErrorBadServerResponse = -1011,
  kURLErrorCannotDecodeContentData = -1016,
  kURLErrorDataLengthExceedsMaximum = -1103,
  kURLErrorSecureConnectionFailed = -1200,
  kURLErrorServerCertificateUntrusted = -1202,
};

struct Error {
  std::string domain;
  long code = 0;
  Dictionary userInfo;

  // userInfo's description, or "<domain> error <code>" when it has none.
  std::string localizedDescription() const;
  // The failing URL recorded in userInfo, or "".
  std::string failingURLString() const;

  // A URL loading error for `url` with a description.
  static Error urlError(long code, const std::string& url, const std::string& description);
  friend bool operator==(const Error&, const Error&) = default;
};

}  // namespace nimb
