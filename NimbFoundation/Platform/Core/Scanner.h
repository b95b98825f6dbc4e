// Scanner: reads numbers off the front of a text, the way the platform's
// scanner does, for VQUtils::isPureInt() / isPureFloat(), the integer
// reading of dictionary values and NimbKit::colorWithHexString().
//
// Before each scan, white space and line breaks are skipped (Unicode space
// separators, line and paragraph separators, U+0009 to U+000D and U+0085).
// A scan that fails leaves the position where it was, skipped characters
// included. Digits are ASCII only; the decimal separator is ".".
//
// One scanner per thread; it only reads the text it was given, which must
// outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class Scanner {
 public:
  explicit Scanner(std::string_view utf8) : text_(utf8) {}

  // An optional "+" or "-" and decimal digits. Past the 32-bit range the
  // value sticks at INT32_MAX or INT32_MIN and the remaining digits are
  // still consumed.
  bool scanInt(std::int32_t* value);
  // The same in 64 bits.
  bool scanLongLong(std::int64_t* value);
  // [sign] digits ["." digits] or [sign] "." digits, then an optional
  // exponent ("e" or "E", [sign], digits; left alone when no digit follows).
  // Out of range gives infinity or zero, as strtof does.
  bool scanFloat(float* value);
  bool scanDouble(double* value);
  // An optional "0x" or "0X" (taken only when a hex digit follows it), then
  // hex digits of either case, as many as there are. Past 32 bits the value
  // sticks at UINT32_MAX and the remaining digits are still consumed. Fails
  // when no hex digit comes first.
  bool scanHexInt(std::uint32_t* value);

  // Whether only white space and line breaks remain.
  bool isAtEnd() const;
  // Byte offset of the next character to read.
  std::size_t scanLocation() const { return position_; }

 private:
  // The offset after the white space starting at `from`.
  std::size_t skipWhitespace(std::size_t from) const;
  template <typename I>
  bool scanInteger(I* value);
  // Length of the decimal number at `from`, 0 when there is none.
  std::size_t floatLength(std::size_t from) const;
  // Consumes the decimal number after the white space, if there is one.
  std::optional<std::string> takeDecimal();

  std::string_view text_;
  std::size_t position_ = 0;
};

}  // namespace nimb
