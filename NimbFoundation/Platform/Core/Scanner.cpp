#include <NimbFoundation/Platform/Core/Scanner.h>

#include <NimbFoundation/Internal/HexDigit.h>
#include <NimbFoundation/Internal/Whitespace.h>

#include <unicode/utf8.h>

#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>

namespace nimb {

namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

std::size_t Scanner::skipWhitespace(std::size_t from) const {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text_.data());
  const auto length = static_cast<std::int32_t>(
      std::min<std::size_t>(text_.size(), std::numeric_limits<std::int32_t>::max()));
  auto offset = static_cast<std::int32_t>(from);
  while (offset < length) {
    std::int32_t next = offset;
    UChar32 c;
    U8_NEXT(bytes, next, length, c);
    if (c < 0 || !detail::isWhitespaceOrNewline(c)) break;
    offset = next;
  }
  return static_cast<std::size_t>(offset);
}

bool Scanner::isAtEnd() const {
  return skipWhitespace(position_) >= text_.size();
}

template <typename I>
bool Scanner::scanInteger(I* value) {
  std::size_t i = skipWhitespace(position_);
  bool negative = false;
  if (i < text_.size() && (text_[i] == '+' || text_[i] == '-')) negative = text_[i++] == '-';
  if (i >= text_.size() || !isDigit(text_[i])) return false;
  // Accumulate toward the sign so that the most negative value fits.
  I result = 0;
  bool overflow = false;
  for (; i < text_.size() && isDigit(text_[i]); ++i) {
    const int digit = text_[i] - '0';
    if (overflow) continue;
    if (negative) {
      if (result < (std::numeric_limits<I>::min() + digit) / 10) {
        overflow = true;
        continue;
      }
      result = static_cast<I>(result * 10 - digit);
    } else {
      if (result > (std::numeric_limits<I>::max() - digit) / 10) {
        overflow = true;
        continue;
      }
      result = static_cast<I>(result * 10 + digit);
    }
  }
  if (overflow) result = negative ? std::numeric_limits<I>::min() : std::numeric_limits<I>::max();
  if (value) *value = result;
  position_ = i;
  return true;
}

bool Scanner::scanInt(std::int32_t* value) {
  return scanInteger(value);
}
bool Scanner::scanLongLong(std::int64_t* value) {
  return scanInteger(value);
}

bool Scanner::scanHexInt(std::uint32_t* value) {
  std::size_t i = skipWhitespace(position_);
  auto hexAt = [&](std::size_t at) {
    return at < text_.size() && detail::hexDigitValue(text_[at]) >= 0;
  };
  if (i + 1 < text_.size() && text_[i] == '0' && (text_[i + 1] == 'x' || text_[i + 1] == 'X') &&
      hexAt(i + 2)) {
    i += 2;
  }
  if (!hexAt(i)) return false;
  std::uint64_t result = 0;
  for (; hexAt(i); ++i) {
    if (result <= std::numeric_limits<std::uint32_t>::max()) {
      result = result * 16 + static_cast<std::uint64_t>(detail::hexDigitValue(text_[i]));
    }
  }
  if (value) {
    *value = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(result, std::numeric_limits<std::uint32_t>::max()));
  }
  position_ = i;
  return true;
}

std::size_t Scanner::floatLength(std::size_t from) const {
  std::size_t i = from;
  if (i < text_.size() && (text_[i] == '+' || text_[i] == '-')) ++i;
  std::size_t digits = 0;
  while (i < text_.size() && isDigit(text_[i])) ++i, ++digits;
  if (i < text_.size() && text_[i] == '.') {
    ++i;
    while (i < text_.size() && isDigit(text_[i])) ++i, ++digits;
  }
  if (digits == 0) return 0;
  if (i < text_.size() && (text_[i] == 'e' || text_[i] == 'E')) {
    std::size_t j = i + 1;
    if (j < text_.size() && (text_[j] == '+' || text_[j] == '-')) ++j;
    if (j < text_.size() && isDigit(text_[j])) {
      while (j < text_.size() && isDigit(text_[j])) ++j;
      i = j;
    }
  }
  return i - from;
}

std::optional<std::string> Scanner::takeDecimal() {
  const std::size_t start = skipWhitespace(position_);
  const std::size_t length = floatLength(start);
  if (length == 0) return std::nullopt;
  position_ = start + length;
  return std::string(text_.substr(start, length));
}

namespace {

// The separator is always ".", whatever locale the host has set.
locale_t cLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", locale_t{});
  return locale;
}

}  // namespace

bool Scanner::scanDouble(double* value) {
  auto number = takeDecimal();
  if (number && value) *value = strtod_l(number->c_str(), nullptr, cLocale());
  return number.has_value();
}

bool Scanner::scanFloat(float* value) {
  auto number = takeDecimal();
  if (number && value) *value = strtof_l(number->c_str(), nullptr, cLocale());
  return number.has_value();
}

}  // namespace nimb
