#include <NimbFoundation/Internal/CacheIndexParser.h>

#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include <NimbFoundation/Internal/Utf8.h>

namespace nimb::detail {

namespace {

// Seconds between 1970 and 2001, the epoch of a stored date.
constexpr std::int64_t kReferenceEpoch = 978307200;

class Cursor {
 public:
  explicit Cursor(std::span<const std::uint8_t> bytes)
      : p_(reinterpret_cast<const char*>(bytes.data())), end_(p_ + bytes.size()) {}

  bool atEnd() const { return p_ == end_; }
  void skipSpace() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) ++p_;
  }
  bool take(std::string_view s) {
    if (static_cast<std::size_t>(end_ - p_) < s.size() || std::memcmp(p_, s.data(), s.size()) != 0)
      return false;
    p_ += s.size();
    return true;
  }
  // The text up to the next '<', which is left in place.
  std::optional<std::string_view> textToTag() {
    const void* at = std::memchr(p_, '<', static_cast<std::size_t>(end_ - p_));
    if (!at) return std::nullopt;
    std::string_view text(p_, static_cast<std::size_t>(static_cast<const char*>(at) - p_));
    p_ = static_cast<const char*>(at);
    return text;
  }

 private:
  const char* p_;
  const char* end_;
};

void appendUtf8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// The code point of a character reference's body ("#65", "#x41"); nullopt
// for NUL, surrogates, values past U+10FFFF and anything malformed.
std::optional<std::uint32_t> characterReference(std::string_view body) {
  if (body.size() < 2 || body[0] != '#') return std::nullopt;
  const bool hex = body[1] == 'x';
  std::string_view digits = body.substr(hex ? 2 : 1);
  if (digits.empty() || digits.size() > 7) return std::nullopt;
  std::uint32_t cp = 0;
  for (char c : digits) {
    int v = -1;
    if (c >= '0' && c <= '9') {
      v = c - '0';
    } else if (hex && c >= 'a' && c <= 'f') {
      v = c - 'a' + 10;
    } else if (hex && c >= 'A' && c <= 'F') {
      v = c - 'A' + 10;
    }
    if (v < 0) return std::nullopt;
    cp = cp * (hex ? 16 : 10) + static_cast<std::uint32_t>(v);
  }
  if (cp == 0 || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return std::nullopt;
  return cp;
}

// The key's text with its escapes resolved: `raw` itself when it has none,
// else held in `scratch`. nullopt for an escape the generic reader might
// take differently, or text that is no key.
std::optional<std::string_view> keyText(std::string_view raw, std::string& scratch) {
  std::string_view key = raw;
  std::size_t amp = raw.find('&');
  if (amp != std::string_view::npos) {
    scratch.clear();
    std::size_t from = 0;
    while (amp != std::string_view::npos) {
      scratch.append(raw.substr(from, amp - from));
      const std::size_t semi = raw.find(';', amp);
      if (semi == std::string_view::npos) return std::nullopt;
      const std::string_view name = raw.substr(amp + 1, semi - amp - 1);
      if (name == "amp") {
        scratch += '&';
      } else if (name == "lt") {
        scratch += '<';
      } else if (name == "gt") {
        scratch += '>';
      } else if (name == "quot") {
        scratch += '"';
      } else if (name == "apos") {
        scratch += '\'';
      } else if (auto cp = characterReference(name)) {
        appendUtf8(scratch, *cp);
      } else {
        return std::nullopt;
      }
      from = semi + 1;
      amp = raw.find('&', from);
    }
    scratch.append(raw.substr(from));
    key = scratch;
  }
  if (key.empty() || !isUtf8WithoutNul(key)) return std::nullopt;
  return key;
}

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

// "YYYY-MM-DDTHH:MM:SSZ" as a Date; nullopt for any other form, a field out
// of its range, or an instant a stored date cannot hold.
std::optional<Date> stamp(std::string_view s) {
  if (s.size() != 20 || s[4] != '-' || s[7] != '-' || s[10] != 'T' || s[13] != ':' ||
      s[16] != ':' || s[19] != 'Z')
    return std::nullopt;
  bool ok = true;
  auto field = [&](std::size_t at, std::size_t width) {
    unsigned v = 0;
    for (std::size_t i = at; i < at + width; ++i) {
      if (s[i] < '0' || s[i] > '9') ok = false;
      v = v * 10 + static_cast<unsigned>(s[i] - '0');
    }
    return v;
  };
  const unsigned year = field(0, 4), month = field(5, 2), day = field(8, 2);
  const unsigned hour = field(11, 2), minute = field(14, 2), second = field(17, 2);
  if (!ok || month < 1 || month > 12 || day < 1 || hour > 23 || minute > 59 || second > 59)
    return std::nullopt;
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (day > kDays[month - 1] + (month == 2 && leap ? 1 : 0)) return std::nullopt;
  const std::int64_t since2001 = daysFromCivil(year, month, day) * 86400 + hour * 3600 +
                                 minute * 60 + second - kReferenceEpoch;
  // The ends of the stored range are clamps, which the generic reader
  // resolves on its own.
  if (since2001 <= std::numeric_limits<std::int32_t>::min() ||
      since2001 >= std::numeric_limits<std::int32_t>::max())
    return std::nullopt;
  return Date::fromTimeIntervalSinceReferenceDate(static_cast<double>(since2001));
}

}  // namespace

std::optional<CacheIndex> parseCacheIndexXml(std::span<const std::uint8_t> bytes) {
  Cursor in(bytes);
  // Only the prolog the writers make, word for word: any other declaration,
  // document type or root is left to the generic reader, which may refuse
  // it.
  if (!in.take(R"(<?xml version="1.0" encoding="UTF-8"?>)")) return std::nullopt;
  in.skipSpace();
  if (!in.take(R"(<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" )"
               R"("http://www.apple.com/DTDs/PropertyList-1.0.dtd">)"))
    return std::nullopt;
  in.skipSpace();
  if (!in.take(R"(<plist version="1.0">)")) return std::nullopt;
  in.skipSpace();
  CacheIndex entries;
  std::string scratch;
  if (in.take("<dict/>")) {
    in.skipSpace();
  } else {
    if (!in.take("<dict>")) return std::nullopt;
    for (;;) {
      in.skipSpace();
      if (in.take("</dict>")) break;
      if (!in.take("<key>")) return std::nullopt;
      auto rawKey = in.textToTag();
      if (!rawKey || !in.take("</key>")) return std::nullopt;
      in.skipSpace();
      if (!in.take("<date>")) return std::nullopt;
      auto rawDate = in.textToTag();
      if (!rawDate || !in.take("</date>")) return std::nullopt;
      auto key = keyText(*rawKey, scratch);
      auto expiry = key ? stamp(*rawDate) : std::nullopt;
      if (!expiry) return std::nullopt;
      entries.append(*key, *expiry);
    }
    in.skipSpace();
  }
  if (!in.take("</plist>")) return std::nullopt;
  in.skipSpace();
  if (!in.atEnd()) return std::nullopt;
  entries.finish();
  return entries;
}

}  // namespace nimb::detail
