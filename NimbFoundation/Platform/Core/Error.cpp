#include <NimbFoundation/Platform/Core/Error.h>

namespace nimb {

std::string Error::localizedDescription() const {
  auto it = userInfo.find(kLocalizedDescriptionKey);
  if (it != userInfo.end()) {
    if (auto* s = it->second.asString()) return *s;
  }
  return domain + " error " + std::to_string(code);
}

std::string Error::failingURLString() const {
  auto it = userInfo.find(kErrorFailingURLStringKey);
  if (it == userInfo.end()) return "";
  auto* s = it->second.asString();
  return s ? *s : "";
}

Error Error::urlError(long code, const std::string& url, const std::string& description) {
  Error e;
  e.domain = kURLErrorDomain;
  e.code = code;
  e.userInfo.emplace(kLocalizedDescriptionKey, description);
  e.userInfo.emplace(kErrorFailingURLStringKey, url);
  return e;
}

}  // namespace nimb
