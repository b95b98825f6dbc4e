// Feeds arbitrary text to VQUtils::urlDecode. A text that decodes must be
// UTF-8, and escaping it again must decode back to the same text with only
// unreserved characters left bare. Text that does not decode must hold a
// malformed escape or escapes that are not UTF-8.
#include <NimbFoundation/Platform/Core/Text.h>
#include <NimbFoundation/Utils/VQUtils.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

bool unreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using nimb::VQUtils;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto decoded = VQUtils::urlDecode(text);
  if (!decoded) {
    // Without any "%" nothing is decoded, so the text itself was not UTF-8.
    if (text.find('%') == std::string_view::npos && nimb::isValidUtf8(text)) std::abort();
    return 0;
  }
  if (!nimb::isValidUtf8(*decoded) || decoded->size() > text.size()) std::abort();
  const std::string escaped = VQUtils::urlEncode(*decoded);
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] == '%') {
      i += 2;
    } else if (!unreserved(escaped[i])) {
      std::abort();
    }
  }
  auto back = VQUtils::urlDecode(escaped);
  if (!back || *back != *decoded) std::abort();
  return 0;
}
