// isWhitespaceOrNewline: the white space and line breaks that Scanner skips
// and NimbKit::colorWithHexString() trims: Unicode space separators, line
// and paragraph separators, U+0009 to U+000D and U+0085.
#pragma once

#include <unicode/uchar.h>

namespace nimb::detail {

inline bool isWhitespaceOrNewline(UChar32 c) {
  if ((c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
  const auto type = static_cast<UCharCategory>(u_charType(c));
  return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

}  // namespace nimb::detail
