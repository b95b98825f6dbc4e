#include <NimbFoundation/NimbKit+Color.h>

#include <cstdint>
#include <utility>

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <NimbFoundation/Internal/NimbKitMethods.h>
#include <NimbFoundation/Internal/RuntimeMethods.h>
#include <NimbFoundation/Internal/Whitespace.h>
#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Core/Scanner.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>

namespace nimb {

namespace {

// `text` without white space and line breaks at either end.
icu::UnicodeString trimmed(const icu::UnicodeString& text) {
  std::int32_t start = 0;
  std::int32_t end = text.length();
  while (start < end && detail::isWhitespaceOrNewline(text.char32At(start))) {
    start = text.moveIndex32(start, 1);
  }
  while (end > start) {
    const std::int32_t before = text.moveIndex32(end, -1);
    if (!detail::isWhitespaceOrNewline(text.char32At(before))) break;
    end = before;
  }
  return icu::UnicodeString(text, start, end - start);
}

// The component of the two UTF-16 units at `at`: their leading hex digits
// over 255, 0 when there are none.
double component(const icu::UnicodeString& digits, std::int32_t at) {
  std::string pair;
  icu::UnicodeString(digits, at, 2).toUTF8String(pair);
  std::uint32_t value = 0;
  if (!Scanner(pair).scanHexInt(&value)) value = 0;
  return static_cast<double>(static_cast<float>(value) / 255.0f);
}

Color colorOf(const std::optional<std::string>& text) {
  if (!text) return Color::whiteColor();
  icu::UnicodeString digits = trimmed(icu::UnicodeString::fromUTF8(*text));
  digits.toUpper(icu::Locale::getRoot());
  // Lengths count UTF-16 units, as the platform's strings do.
  if (digits.length() <= 5) return Color::whiteColor();
  if (digits.charAt(0) == u'#') digits.remove(0, 1);
  if (digits.length() != 6) return Color::whiteColor();
  return Color::colorWithRed(component(digits, 0), component(digits, 2), component(digits, 4), 1);
}

}  // namespace

// A class method of NimbKit, "colorWithHexString:".
void detail::registerNimbKitColorMethods(Class* metaclass) {
  detail::addClassMethod(metaclass, detail::selectorNamed<"colorWithHexString:">(),
                         [](std::optional<std::string> text) { return colorOf(text); });
}

Color NimbKitColor::colorWithHexString(std::optional<std::string> text) {
  return msgSend<Color>(NimbKit::classObject(), detail::selectorNamed<"colorWithHexString:">(),
                        std::move(text));
}

}  // namespace nimb
