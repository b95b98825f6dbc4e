#include <NimbFoundation/Platform/Text.h>

#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <climits>

namespace nimb {

bool isValidUtf8(std::string_view bytes) {
  if (bytes.size() > static_cast<std::size_t>(INT32_MAX)) return false;
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  // Preflight only: ICU checks the whole input and reports the first
  // ill-formed sequence without writing anything.
  u_strFromUTF8(nullptr, 0, &length, bytes.data(), static_cast<int32_t>(bytes.size()), &status);
  return status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status);
}

}  // namespace nimb
