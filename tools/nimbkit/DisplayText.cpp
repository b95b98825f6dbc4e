#include "DisplayText.h"

#include <cstdint>
#include <cstdio>

namespace nimbkit {

namespace {

// Length and code point of the UTF-8 sequence at the start of `s`; length 0
// when it is not a valid sequence (overlong forms and surrogates included).
std::size_t decodeUtf8(std::string_view s, char32_t& cp) {
  auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(s[i]); };
  const std::uint8_t b0 = byte(0);
  std::size_t n = b0 < 0x80           ? 1
                  : (b0 >> 5) == 0x6  ? 2
                  : (b0 >> 4) == 0xE  ? 3
                  : (b0 >> 3) == 0x1E ? 4
                                      : 0;
  if (n == 0 || n > s.size()) return 0;
  cp = n == 1 ? b0 : n == 2 ? (b0 & 0x1F) : n == 3 ? (b0 & 0x0F) : (b0 & 0x07);
  for (std::size_t i = 1; i < n; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i) & 0x3F);
  }
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kSmallest[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

bool reordersText(char32_t cp) {
  return cp == 0x061C || cp == 0x200E || cp == 0x200F || (cp >= 0x202A && cp <= 0x202E) ||
         (cp >= 0x2066 && cp <= 0x2069);
}

}  // namespace

std::string escapeForDisplay(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  char escape[16];
  while (!text.empty()) {
    char32_t cp = 0;
    std::size_t n = decodeUtf8(text, cp);
    if (n == 0) {
      std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<std::uint8_t>(text[0]));
      out += escape;
      text.remove_prefix(1);
      continue;
    }
    if (cp == '\\') {
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
      out.append(text.substr(0, n));
    }
    text.remove_prefix(n);
  }
  return out;
}

}  // namespace nimbkit
