#include <NimbFoundation/Platform/Core/Result.h>

#include <cstring>

namespace nimb {

std::string SystemError::message() const {
  char buffer[256];
  // The GNU strerror_r returns the text, which may or may not be `buffer`.
  std::string text = ::strerror_r(code, buffer, sizeof buffer);
  if (!path.empty()) text += ": " + path;
  return text;
}

}  // namespace nimb
