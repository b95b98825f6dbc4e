// Feeds arbitrary bytes to NimbKit's String and Color extensions. Nothing
// may crash, and:
//   - "#RRGGBB" or "RRGGBB" (white space around it allowed) gives back its
//     three bytes as lround(component * 255), alpha 1; anything else gives
//     components from 0 to 1 and alpha 1;
//   - the parameters always rebuild: no key or value can hold "&" (the
//     pieces are cut there) or "=" (a piece with two must have exactly one),
//     so "x?" + "k=v" joined by "&" parses back to the same map;
//   - a text of letters and digits only has no special character, an e-mail
//     address always has one ("@"), and the digest is 32 lower-case hex
//     digits.
#include <NimbFoundation/NimbKit.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isAsciiSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// The six hex digits of "#RRGGBB" or "RRGGBB" once ASCII white space is cut
// from both ends; empty when the text is not one.
std::string_view sixDigits(std::string_view text) {
  while (!text.empty() && isAsciiSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isAsciiSpace(text.back())) text.remove_suffix(1);
  if (text.size() == 7 && text.front() == '#') text.remove_prefix(1);
  if (text.size() != 6) return {};
  for (char c : text) {
    if (hexDigit(c) < 0) return {};
  }
  return text;
}

void checkColor(const std::string& text) {
  const nimb::Color color = nimb::NimbKit::colorWithHexString(text);
  const double components[] = {color.red, color.green, color.blue};
  if (color.alpha != 1) std::abort();
  for (double c : components) {
    if (!(c >= 0 && c <= 1)) std::abort();
  }
  const std::string_view digits = sixDigits(text);
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const long expected = hexDigit(digits[i]) * 16 + hexDigit(digits[i + 1]);
    if (std::lround(components[i / 2] * 255) != expected) std::abort();
  }
}

void checkParameters(const std::string& text) {
  const auto parameters = nimb::NimbKit::parseWebViewRequestString(text);
  std::string rebuilt = "x?";
  for (const auto& [key, value] : parameters) {
    if ((key + value).find_first_of("&=") != std::string::npos) std::abort();
    if (rebuilt.size() > 2) rebuilt += '&';
    rebuilt += key + "=" + value;
  }
  if (nimb::NimbKit::parseWebViewRequestString(rebuilt) != parameters) std::abort();
}

void checkStrings(const std::string& text) {
  using nimb::NimbKit;
  const auto length = NimbKit::getStringLengthWithString(text);
  if (length < 0 || static_cast<std::size_t>(length) > text.size()) std::abort();
  if (text.empty() != (length == 0)) std::abort();
  if (NimbKit::includeAlphabetOrDigitOnly(text) && NimbKit::includeSpecialCharact(text)) {
    std::abort();
  }
  if (NimbKit::checkEmailFormat(text) && !NimbKit::includeSpecialCharact(text)) std::abort();
  const std::string digest = NimbKit::md5(text);
  if (digest.size() != 32 || digest.find_first_not_of("0123456789abcdef") != std::string::npos) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkColor(text);
  checkParameters(text);
  checkStrings(text);
  return 0;
}
