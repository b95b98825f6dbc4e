// Utf8: the strict UTF-8 test the property-list writer and the cache
// index reader share for their strings and keys.
//
// Callers: PropertyList (strings it hands to libplist) and
// CacheIndexParser (keys it reads). Thread rule: a pure function.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace nimb::detail {

// Strict UTF-8: no overlong forms, surrogates or code points past U+10FFFF.
// NUL is refused as well: libplist takes strings as C strings and would cut
// them short, and a key names a file.
inline bool isUtf8WithoutNul(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const std::size_t n = s.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char c = p[i];
    if (c == 0) return false;
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t len;
    std::uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2, cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3, cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4, cp = c & 0x07;
    } else {
      return false;
    }
    if (n - i < len) return false;
    for (std::size_t k = 1; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000)) return false;
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return false;
    i += len;
  }
  return true;
}

}  // namespace nimb::detail
