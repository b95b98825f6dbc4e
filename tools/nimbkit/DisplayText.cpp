#include "DisplayText.h"

#include <unicode/utf8.h>

#include <cstdint>
#include <cstdio>

namespace nimbkit {

namespace {

bool reordersText(UChar32 cp) {
  return cp == 0x061C || cp == 0x200E || cp == 0x200F || (cp >= 0x202A && cp <= 0x202E) ||
         (cp >= 0x2066 && cp <= 0x2069);
}

}  // namespace

std::string escapeForDisplay(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::int32_t>(text.size());
  char escape[16];
  for (std::int32_t i = 0; i < length;) {
    const std::int32_t start = i;
    UChar32 cp;
    U8_NEXT(bytes, i, length, cp);
    if (cp < 0) {  // every byte of an ill-formed sequence
      for (std::int32_t b = start; b < i; ++b) {
        std::snprintf(escape, sizeof escape, "\\x%02X", bytes[b]);
        out += escape;
      }
    } else if (cp == '\\') {
      out += "\\\\";
    } else if (cp == '\t') {
      out += "\\t";
    } else if (cp == '\n') {
      out += "\\n";
    } else if (cp == '\r') {
      out += "\\r";
    } else if (cp < 0x20 || cp == 0x7F) {
      std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned>(cp));
      out += escape;
    } else if ((cp >= 0x80 && cp <= 0x9F) || reordersText(cp)) {
      std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(cp));
      out += escape;
    } else {
      out.append(text.substr(start, i - start));
    }
  }
  return out;
}

}  // namespace nimbkit
