#include <NimbFoundation/NimbKit+String.h>

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <NimbFoundation/Internal/NimbKitMethods.h>
#include <NimbFoundation/Internal/RuntimeMethods.h>
#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Core/Digest.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>

namespace nimb {

namespace {

// A compiled pattern, shared by every thread (ICU patterns are immutable);
// nullptr if it failed to compile. Never freed: the pattern tests stay usable from
// destructors run at exit, after function-local statics are gone.
const icu::RegexPattern* compile(const icu::UnicodeString& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexPattern> compiled(icu::RegexPattern::compile(pattern, 0, status));
  return U_SUCCESS(status) ? compiled.release() : nullptr;
}

// Whether the whole of `text` matches `pattern`.
bool wholeTextMatches(const icu::RegexPattern* pattern, std::string_view text) {
  if (!pattern) return false;
  const icu::UnicodeString input = icu::UnicodeString::fromUTF8(text);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(input, status));
  if (U_FAILURE(status) || !matcher) return false;
  const bool matched = matcher->matches(status);
  return U_SUCCESS(status) && matched;
}

std::int64_t lengthOf(const std::optional<std::string>& text) {
  if (!text || text->empty()) return 0;
  // One prototype, cloned per call: a break iterator holds its position.
  // Never destroyed, so the count stays right in destructors run at exit.
  static const icu::BreakIterator* const prototype = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> made(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    return U_SUCCESS(status) ? made.release() : nullptr;
  }();
  if (!prototype) return 0;
  std::unique_ptr<icu::BreakIterator> characters(prototype->clone());
  if (!characters) return 0;
  const icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(*text);
  characters->setText(unicode);
  std::int64_t count = 0;
  characters->first();
  while (characters->next() != icu::BreakIterator::DONE) ++count;
  return count;
}

bool isEmail(const std::optional<std::string>& text) {
  if (!text || text->empty()) return false;
  static const icu::RegexPattern* const pattern =
      compile(u"[A-Z0-9a-z._-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,4}");
  return wholeTextMatches(pattern, *text);
}

bool hasSpecialCharacter(const std::optional<std::string>& text) {
  if (!text || text->empty()) return true;
  // The CJK range holds the two code points themselves, not escapes.
  static const icu::RegexPattern* const pattern = compile(
      icu::UnicodeString(u"(^[a-zA-Z0-9_") + char16_t{0x4E00} + u"-" + char16_t{0x9FA5} + u"]+$)");
  return !wholeTextMatches(pattern, *text);
}

bool isAlphanumericOnly(const std::optional<std::string>& text) {
  if (!text || text->empty()) return false;
  static const icu::RegexPattern* const pattern = compile(u"(^[a-zA-Z0-9]+$)");
  return wholeTextMatches(pattern, *text);
}

std::string lowerCaseMD5(const std::optional<std::string>& text) {
  return Digest::md5HexOfText(text ? std::string_view(*text) : std::string_view(), false);
}

// `text` cut at every `separator`, empty pieces included.
std::vector<std::string_view> pieces(std::string_view text, char separator) {
  std::vector<std::string_view> out;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find(separator, start);
    out.push_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    if (end == std::string_view::npos) return out;
    start = end + 1;
  }
}

std::map<std::string, std::string> requestParameters(const std::optional<std::string>& text) {
  std::map<std::string, std::string> parameters;
  if (!text) return parameters;
  const std::size_t question = text->find('?');
  if (question == std::string::npos) return parameters;
  for (std::string_view piece : pieces(std::string_view(*text).substr(question + 1), '&')) {
    const auto parts = pieces(piece, '=');
    if (parts.size() == 2) parameters[std::string(parts[0])] = std::string(parts[1]);
  }
  return parameters;
}

}  // namespace

// Each operation is a class method of NimbKit, "name:" taking the text.
using Text = std::optional<std::string>;

namespace {
// Sends one of them to the kit class.
template <typename R>
R sendToKit(const Selector& selector, Text text) {
  return msgSend<R>(NimbKit::classObject(), selector, std::move(text));
}
}  // namespace

void detail::registerNimbKitStringMethods(Class* metaclass) {
  detail::addClassMethod(metaclass, detail::selectorNamed<"getStringLengthWithString:">(),
                         [](Text text) { return lengthOf(text); });
  detail::addClassMethod(metaclass, detail::selectorNamed<"checkEmailFormat:">(),
                         [](Text text) { return isEmail(text); });
  detail::addClassMethod(metaclass, detail::selectorNamed<"includeSpecialCharact:">(),
                         [](Text text) { return hasSpecialCharacter(text); });
  detail::addClassMethod(metaclass, detail::selectorNamed<"includeAlphabetOrDigitOnly:">(),
                         [](Text text) { return isAlphanumericOnly(text); });
  detail::addClassMethod(metaclass, detail::selectorNamed<"md5:">(),
                         [](Text text) { return lowerCaseMD5(text); });
  detail::addClassMethod(metaclass, detail::selectorNamed<"parseWebViewRequestString:">(),
                         [](Text text) { return requestParameters(text); });
}

std::int64_t NimbKitString::getStringLengthWithString(Text text) {
  return sendToKit<std::int64_t>(detail::selectorNamed<"getStringLengthWithString:">(),
                                 std::move(text));
}
bool NimbKitString::checkEmailFormat(Text text) {
  return sendToKit<bool>(detail::selectorNamed<"checkEmailFormat:">(), std::move(text));
}
bool NimbKitString::includeSpecialCharact(Text text) {
  return sendToKit<bool>(detail::selectorNamed<"includeSpecialCharact:">(), std::move(text));
}
bool NimbKitString::includeAlphabetOrDigitOnly(Text text) {
  return sendToKit<bool>(detail::selectorNamed<"includeAlphabetOrDigitOnly:">(), std::move(text));
}
std::string NimbKitString::md5(Text text) {
  return sendToKit<std::string>(detail::selectorNamed<"md5:">(), std::move(text));
}
std::map<std::string, std::string> NimbKitString::parseWebViewRequestString(Text text) {
  return sendToKit<std::map<std::string, std::string>>(
      detail::selectorNamed<"parseWebViewRequestString:">(), std::move(text));
}

}  // namespace nimb
