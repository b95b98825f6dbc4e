// NimbKitString: the String extension of the kit class NimbKit (call these
// as NimbKit::md5(...) and so on). A character count by user-perceived
// characters, three pattern tests, a lower-case MD5 digest and the query
// parameters of a web view's request text.
//
// Every operation is a class method of NimbKit in the object runtime and is
// called through it, so exchanging one (NimbKit::swizzleClassMethod)
// changes what these functions do.
//
// Texts are UTF-8; bytes that are not UTF-8 count as U+FFFD each. An absent
// text (std::nullopt) gets the answer stated for it below.
//
// Thread rule: any thread; no state, no locks.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class NimbKitString {
 public:
  // One per extended grapheme cluster (ICU's character boundaries): a
  // letter with its combining marks, a surrogate pair, an emoji sequence
  // joined by ZWJ, a flag, a Hangul syllable of jamo and CRLF each count 1.
  // 0 for an empty or absent text.
  static std::int64_t getStringLengthWithString(std::optional<std::string> text);

  // Whether the whole text matches
  // [A-Z0-9a-z._-]+@[A-Za-z0-9.-]+\.[A-Za-z]{2,4}; false for an empty or
  // absent text.
  static bool checkEmailFormat(std::optional<std::string> text);
  // Whether the text holds anything other than ASCII letters, digits, "_"
  // and CJK ideographs U+4E00 to U+9FA5: the whole text fails to match
  // (^[a-zA-Z0-9_\x{4E00}-\x{9FA5}]+$). True for an empty or absent text.
  static bool includeSpecialCharact(std::optional<std::string> text);
  // Whether the whole text matches (^[a-zA-Z0-9]+$); false for an empty or
  // absent text.
  static bool includeAlphabetOrDigitOnly(std::optional<std::string> text);

  // MD5 of the text's bytes up to its first NUL, as 32 lower-case hex
  // digits (VQUtils::md5Value gives the same digest in upper case). An
  // absent text digests as the empty one.
  static std::string md5(std::optional<std::string> text);

  // The parameters after the first "?": the rest of the text (a fragment
  // after "#" included) split at each "&", each piece split at each "=";
  // a piece of exactly two parts maps its first part to its second (which
  // may be empty), any other piece is skipped. Nothing is percent-decoded;
  // a later repeat of a key wins. Empty when the text is absent or has no
  // "?".
  static std::map<std::string, std::string> parseWebViewRequestString(
      std::optional<std::string> text);
};

}  // namespace nimb
