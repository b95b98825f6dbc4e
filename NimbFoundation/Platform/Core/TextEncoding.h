// TextEncoding: text in the phone platform's encodings, named by the
// platform's encoding numbers and converted with ICU converters.
//
// The kit keeps every string as UTF-8; this is how it measures, writes and
// reads text in another encoding (VQUtils::subString cuts text to a byte
// budget with getBytes). Stateless: each call opens its own converter, so
// any thread may call it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class TextEncoding {
 public:
  static constexpr std::uint32_t kASCII = 1;
  static constexpr std::uint32_t kJapaneseEUC = 3;
  static constexpr std::uint32_t kUTF8 = 4;
  static constexpr std::uint32_t kISOLatin1 = 5;
  static constexpr std::uint32_t kShiftJIS = 8;
  static constexpr std::uint32_t kISOLatin2 = 9;
  // UTF-16 in this machine's byte order, without a byte-order mark.
  static constexpr std::uint32_t kUnicode = 10;
  static constexpr std::uint32_t kWindowsCP1251 = 11;
  static constexpr std::uint32_t kWindowsCP1252 = 12;
  static constexpr std::uint32_t kWindowsCP1253 = 13;
  static constexpr std::uint32_t kWindowsCP1254 = 14;
  static constexpr std::uint32_t kWindowsCP1250 = 15;
  static constexpr std::uint32_t kMacOSRoman = 30;
  static constexpr std::uint32_t kUTF16BigEndian = 0x90000100;
  static constexpr std::uint32_t kUTF16LittleEndian = 0x94000100;
  // UTF-32 in this machine's byte order, without a byte-order mark.
  static constexpr std::uint32_t kUTF32 = 0x8c000100;
  static constexpr std::uint32_t kUTF32BigEndian = 0x98000100;
  static constexpr std::uint32_t kUTF32LittleEndian = 0x9c000100;
  static constexpr std::uint32_t kGB18030 = 0x80000632;
  static constexpr std::uint32_t kGBK = 0x80000631;
  static constexpr std::uint32_t kBig5 = 0x80000A03;
  static constexpr std::uint32_t kEUCKR = 0x80000940;

  // Whole characters copied from the front of a text, see getBytes.
  struct Prefix {
    std::string bytes;       // the characters in the target encoding
    std::size_t utf8Length;  // how many bytes of the UTF-8 input they came from
  };

  // Whether the encoding number is one of the above.
  static bool isSupported(std::uint32_t encoding);

  // The bytes the whole UTF-8 text takes in `encoding`; 0 when the encoding
  // is unknown, the text is not UTF-8, or some character has no form in it.
  static std::size_t lengthOfBytes(std::string_view utf8, std::uint32_t encoding);

  // The UTF-8 text written in `encoding`; nullopt when lengthOfBytes would
  // say 0 for a non-empty text.
  static std::optional<std::string> bytesUsingEncoding(std::string_view utf8,
                                                       std::uint32_t encoding);

  // The bytes read as `encoding`, as UTF-8; nullopt when the encoding is
  // unknown or the bytes are not well formed in it. Nothing is substituted.
  static std::optional<std::string> stringWithBytes(std::string_view bytes, std::uint32_t encoding);

  // As many whole characters (code points) from the front of the text as
  // fit in `maxLength` bytes of `encoding`. nullopt when not even the first
  // character fits, or when bytesUsingEncoding would fail. An empty text
  // gives an empty prefix.
  static std::optional<Prefix> getBytes(std::string_view utf8, std::uint32_t encoding,
                                        std::size_t maxLength);
};

}  // namespace nimb
