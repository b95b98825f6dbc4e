// hexDigitValue: the value of one hexadecimal digit, either case; -1 for
// any other character. Used by percent-unescaping and UUID parsing.
#pragma once

namespace nimb::detail {

inline int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace nimb::detail
