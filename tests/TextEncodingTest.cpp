#include <NimbFoundation/Platform/Core/TextEncoding.h>

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

using T = nimb::TextEncoding;

namespace {

const std::string kE = "\xC3\xA9";             // é
const std::string kZhong = "\xE4\xB8\xAD";     // 中
const std::string kGrin = "\xF0\x9F\x98\x80";  // 😀
const std::string kMixed = "a" + kE + kZhong + kGrin;
const std::string kGrin18030 = "\x94\x39\xFC\x36";  // 😀 in GB 18030

std::string bytes(std::initializer_list<unsigned char> values) {
  return std::string(values.begin(), values.end());
}

}  // namespace

TEST(TextEncoding, EveryListedEncodingConvertsBothWays) {
  // ASCII text in every encoding, and more in the Unicode and CJK ones.
  const std::string a = "Az09 ", cjk = "a" + kZhong + "b";
  const std::pair<std::string, std::vector<std::uint32_t>> groups[] = {
      {a,
       {T::kASCII, T::kISOLatin1, T::kISOLatin2, T::kWindowsCP1251, T::kWindowsCP1252,
        T::kWindowsCP1253, T::kWindowsCP1254, T::kWindowsCP1250, T::kMacOSRoman}},
      {kMixed,
       {T::kUTF8, T::kUnicode, T::kUTF16BigEndian, T::kUTF16LittleEndian, T::kUTF32,
        T::kUTF32BigEndian, T::kUTF32LittleEndian, T::kGB18030}},
      {cjk, {T::kGBK, T::kBig5, T::kEUCKR, T::kShiftJIS, T::kJapaneseEUC}}};
  for (const auto& [text, encodings] : groups) {
    for (auto encoding : encodings) {
      EXPECT_TRUE(T::isSupported(encoding)) << std::hex << encoding;
      for (const std::string& sample : {a, text}) {
        auto encoded = T::bytesUsingEncoding(sample, encoding);
        ASSERT_TRUE(encoded) << std::hex << encoding;
        EXPECT_EQ(T::stringWithBytes(*encoded, encoding), sample) << std::hex << encoding;
      }
    }
  }
}

// The length asked for is always the size of the bytes written, and 0 for
// text the encoding cannot write.
TEST(TextEncoding, WritesKnownBytesWithoutByteOrderMarksAndLengthsAgree) {
  using namespace std::string_literals;
  const bool little = std::endian::native == std::endian::little;
  const auto no = std::nullopt;
  const std::tuple<std::string, std::uint32_t, std::optional<std::string>> rows[] = {
      {kZhong, T::kGB18030, "\xD6\xD0"},
      {kZhong, T::kGBK, "\xD6\xD0"},
      {kZhong, T::kBig5, "\xA4\xA4"},
      {kZhong, T::kEUCKR, "\xF1\xE9"},
      {kZhong, T::kShiftJIS, "\x92\x86"},
      {kZhong, T::kJapaneseEUC, "\xC3\xE6"},
      {kGrin, T::kGB18030, kGrin18030},
      {kE, T::kISOLatin1, "\xE9"},
      {kE, T::kMacOSRoman, "\x8E"},
      {"a", T::kUTF32BigEndian, "\0\0\0a"s},
      {kGrin, T::kUTF16BigEndian, "\xD8\x3D\xDE\x00"s},
      {kGrin, T::kUTF16LittleEndian, "\x3D\xD8\x00\xDE"s},
      {"a", T::kUnicode, little ? "a\0"s : "\0a"s},
      {"a", T::kUTF32, little ? "a\0\0\0"s : "\0\0\0a"s},
      {kMixed, T::kUTF8, kMixed},
      {kE, T::kBig5, no},
      {kE, T::kASCII, no},
      {kZhong, T::kISOLatin1, no},
      {kGrin, T::kBig5, no}};
  for (const auto& [text, encoding, written] : rows) {
    SCOPED_TRACE(text + " in " + std::to_string(encoding));
    EXPECT_EQ(T::bytesUsingEncoding(text, encoding), written);
    EXPECT_EQ(T::lengthOfBytes(text, encoding), written ? written->size() : 0);
  }
}

TEST(TextEncoding, GetBytesCutsOnlyBetweenCharacters) {
  // A surrogate pair is one character, and the 4-byte GB18030 sequence is
  // not split after its first 2 bytes. A character the encoding lacks
  // refuses the call even past the cut.
  using namespace std::string_literals;
  constexpr auto u8 = T::kUTF8, be = T::kUTF16BigEndian, gb = T::kGB18030;
  const std::string grinA = kGrin + "a", zhongAbc = kZhong + "abc", zhongGrin = kZhong + kGrin;
  const std::string grin16 = "\xD8\x3D\xDE\x00"s, zhong18030 = "\xD6\xD0";
  const auto no = std::nullopt;
  // Text, encoding and limit; the bytes cut, or none, and the UTF-8 length they stand for.
  const std::tuple<std::string, std::uint32_t, std::size_t, std::optional<std::string>, std::size_t>
      rows[] = {{"abcdef", u8, 3, "abc", 3},
                {zhongAbc, u8, 2, no, 0},
                {zhongAbc, u8, 4, kZhong + "a", 4},
                {grinA, be, 3, no, 0},
                {grinA, be, 4, grin16, 4},
                {grinA, be, 5, grin16, 4},
                {zhongGrin, gb, 2, zhong18030, 3},
                {zhongGrin, gb, 5, zhong18030, 3},
                {"abc", u8, 0, no, 0},
                {"", u8, 0, "", 0},
                {"ab" + kE, T::kASCII, 1, no, 0},
                {zhongGrin, gb, 6, zhong18030 + kGrin18030, 7}};
  for (const auto& [text, encoding, limit, cut, utf8Length] : rows) {
    SCOPED_TRACE(text + " limit " + std::to_string(limit));
    auto p = T::getBytes(text, encoding, limit);
    ASSERT_EQ(p.has_value(), cut.has_value());
    if (!p) continue;
    EXPECT_EQ(p->bytes, *cut);
    EXPECT_EQ(p->utf8Length, utf8Length);
  }
}

TEST(TextEncoding, RefusesIllFormedInputAndUnknownEncodings) {
  for (const std::string bad : {"\xC3", "a\xFF", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
    EXPECT_EQ(T::lengthOfBytes(bad, T::kUTF16BigEndian), 0u);
    EXPECT_FALSE(T::bytesUsingEncoding(bad, T::kUTF8));
    EXPECT_FALSE(T::getBytes(bad, T::kUTF8, 100));
    EXPECT_FALSE(T::stringWithBytes(bad, T::kUTF8));
  }
  for (std::uint32_t unknown : {0u, 2u, 0x12345678u, 0x80000A02u}) {
    EXPECT_FALSE(T::isSupported(unknown));
    EXPECT_EQ(T::lengthOfBytes("abc", unknown), 0u);
    EXPECT_FALSE(T::bytesUsingEncoding("abc", unknown));
    EXPECT_FALSE(T::stringWithBytes("abc", unknown));
    EXPECT_FALSE(T::getBytes("abc", unknown, 10));
  }
  EXPECT_FALSE(T::stringWithBytes("a", T::kUTF16LittleEndian));                  // half a unit
  EXPECT_FALSE(T::stringWithBytes(bytes({0x3D, 0xD8}), T::kUTF16LittleEndian));  // lone lead
  EXPECT_FALSE(T::stringWithBytes(bytes({0, 0, 0x11, 0}), T::kUTF32LittleEndian));
  EXPECT_FALSE(T::stringWithBytes(bytes({0x94, 0x39}), T::kGB18030));
  EXPECT_FALSE(T::stringWithBytes(bytes({0xA4}), T::kBig5));
  EXPECT_FALSE(T::stringWithBytes(bytes({0x80}), T::kASCII));
}
