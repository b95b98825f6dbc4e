#include <NimbFoundation/Platform/Core/Text.h>

#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <algorithm>
#include <climits>
#include <cstdio>

namespace nimb {

bool isValidUtf8(std::string_view bytes) {
  if (bytes.size() > static_cast<std::size_t>(INT32_MAX)) return false;
  // Plain ASCII, the common case for keys and names, is valid as it is.
  if (std::all_of(bytes.begin(), bytes.end(), [](char c) { return (c & 0x80) == 0; })) return true;
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  // Preflight only: ICU checks the whole input and reports the first
  // ill-formed sequence without writing anything.
  u_strFromUTF8(nullptr, 0, &length, bytes.data(), static_cast<int32_t>(bytes.size()), &status);
  return status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status);
}

std::string stringWithFormatv(const char* format, va_list arguments) {
  std::string text;
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.resize(static_cast<std::size_t>(length));
  }
  return text;
}

}  // namespace nimb
