#include <NimbFoundation/Platform/Core/PercentEscapes.h>

#include <NimbFoundation/Internal/HexDigit.h>

#include <array>

#include <NimbFoundation/Platform/Core/Text.h>

namespace nimb {

namespace {

using AsciiSet = std::array<bool, 128>;

AsciiSet setOf(std::string_view characters) {
  AsciiSet set{};
  for (char c : characters) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 128) set[byte] = true;
  }
  return set;
}

bool isLegalInURL(unsigned char byte) {
  static const AsciiSet legal = [] {
    AsciiSet set = setOf("-._~!*'();:@&=+$,/?#[]%");
    for (char c = '0'; c <= '9'; ++c) set[static_cast<unsigned char>(c)] = true;
    for (char c = 'A'; c <= 'Z'; ++c) set[static_cast<unsigned char>(c)] = true;
    for (char c = 'a'; c <= 'z'; ++c) set[static_cast<unsigned char>(c)] = true;
    return set;
  }();
  return byte < 128 && legal[byte];
}

}  // namespace

std::string PercentEscapes::addingPercentEscapes(std::string_view text,
                                                 std::string_view leaveUnescaped,
                                                 std::string_view legalToEscape) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  const AsciiSet leave = setOf(leaveUnescaped);
  const AsciiSet escapeToo = setOf(legalToEscape);
  std::string out;
  out.reserve(text.size() + text.size() / 2);
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool ascii = byte < 128;
    const bool escape =
        (!isLegalInURL(byte) || (ascii && escapeToo[byte])) && !(ascii && leave[byte]);
    if (!escape) {
      out.push_back(c);
      continue;
    }
    out.push_back('%');
    out.push_back(kHex[byte >> 4]);
    out.push_back(kHex[byte & 15]);
  }
  return out;
}

std::optional<std::string> PercentEscapes::replacingPercentEscapes(std::string_view text,
                                                                   std::string_view leaveEscaped) {
  const AsciiSet keep = setOf(leaveEscaped);
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (text.size() - i < 3) return std::nullopt;
    const int high = detail::hexDigitValue(text[i + 1]);
    const int low = detail::hexDigitValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    const auto byte = static_cast<unsigned char>(high * 16 + low);
    if (byte < 128 && keep[byte]) {
      out.append(text.substr(i, 3));
    } else {
      out.push_back(static_cast<char>(byte));
    }
    i += 2;
  }
  if (!isValidUtf8(out)) return std::nullopt;
  return out;
}

}  // namespace nimb
