#include <NimbFoundation/Platform/TextEncoding.h>

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <optional>
#include <string>

using nimb::TextEncoding;

namespace {

const std::string kE = "\xC3\xA9";             // é
const std::string kZhong = "\xE4\xB8\xAD";     // 中
const std::string kGrin = "\xF0\x9F\x98\x80";  // 😀
const std::string kMixed = "a" + kE + kZhong + kGrin;

const std::uint32_t kAll[] = {TextEncoding::kASCII,
                              TextEncoding::kJapaneseEUC,
                              TextEncoding::kUTF8,
                              TextEncoding::kISOLatin1,
                              TextEncoding::kShiftJIS,
                              TextEncoding::kISOLatin2,
                              TextEncoding::kUnicode,
                              TextEncoding::kWindowsCP1251,
                              TextEncoding::kWindowsCP1252,
                              TextEncoding::kWindowsCP1253,
                              TextEncoding::kWindowsCP1254,
                              TextEncoding::kWindowsCP1250,
                              TextEncoding::kMacOSRoman,
                              TextEncoding::kUTF16BigEndian,
                              TextEncoding::kUTF16LittleEndian,
                              TextEncoding::kUTF32,
                              TextEncoding::kUTF32BigEndian,
                              TextEncoding::kUTF32LittleEndian,
                              TextEncoding::kGB18030,
                              TextEncoding::kGBK,
                              TextEncoding::kBig5,
                              TextEncoding::kEUCKR};

std::string bytes(std::initializer_list<unsigned char> values) {
  return std::string(values.begin(), values.end());
}

}  // namespace

TEST(TextEncoding, EveryListedEncodingConvertsBothWays) {
  for (auto encoding : kAll) {
    EXPECT_TRUE(TextEncoding::isSupported(encoding)) << std::hex << encoding;
    auto encoded = TextEncoding::bytesUsingEncoding("Az09 ", encoding);
    ASSERT_TRUE(encoded) << std::hex << encoding;
    EXPECT_EQ(TextEncoding::stringWithBytes(*encoded, encoding), "Az09 ") << std::hex << encoding;
  }
}

TEST(TextEncoding, LengthsAgreeWithTheBytesWritten) {
  const std::uint32_t encodings[] = {
      TextEncoding::kUTF8, TextEncoding::kUnicode,   TextEncoding::kUTF32, TextEncoding::kGB18030,
      TextEncoding::kBig5, TextEncoding::kISOLatin1, TextEncoding::kASCII};
  struct Row {
    std::string text;
    std::size_t lengths[7];  // in the order of `encodings`; 0 where it cannot be written
  };
  const Row rows[] = {{"abc", {3, 6, 12, 3, 3, 3, 3}},
                      {kE, {2, 2, 4, 2, 0, 1, 0}},
                      {kZhong, {3, 2, 4, 2, 2, 0, 0}},
                      {kGrin, {4, 4, 4, 4, 0, 0, 0}}};
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < 7; ++i) {
      SCOPED_TRACE(row.text + " in " + std::to_string(encodings[i]));
      EXPECT_EQ(TextEncoding::lengthOfBytes(row.text, encodings[i]), row.lengths[i]);
      auto encoded = TextEncoding::bytesUsingEncoding(row.text, encodings[i]);
      EXPECT_EQ(encoded ? encoded->size() : 0, row.lengths[i]);
    }
  }
}

TEST(TextEncoding, WritesKnownBytesWithoutByteOrderMarks) {
  using T = TextEncoding;
  const bool little = std::endian::native == std::endian::little;
  EXPECT_EQ(T::bytesUsingEncoding(kZhong, T::kGB18030), bytes({0xD6, 0xD0}));
  EXPECT_EQ(T::bytesUsingEncoding(kZhong, T::kGBK), bytes({0xD6, 0xD0}));
  EXPECT_EQ(T::bytesUsingEncoding(kZhong, T::kBig5), bytes({0xA4, 0xA4}));
  EXPECT_EQ(T::bytesUsingEncoding(kZhong, T::kEUCKR), bytes({0xF1, 0xE9}));
  EXPECT_EQ(T::bytesUsingEncoding(kZhong, T::kShiftJIS), bytes({0x92, 0x86}));
  EXPECT_EQ(T::bytesUsingEncoding(kZhong, T::kJapaneseEUC), bytes({0xC3, 0xE6}));
  EXPECT_EQ(T::bytesUsingEncoding(kGrin, T::kGB18030), bytes({0x94, 0x39, 0xFC, 0x36}));
  EXPECT_EQ(T::bytesUsingEncoding(kE, T::kISOLatin1), bytes({0xE9}));
  EXPECT_EQ(T::bytesUsingEncoding(kE, T::kMacOSRoman), bytes({0x8E}));
  EXPECT_EQ(T::bytesUsingEncoding("a", T::kUnicode), little ? bytes({0x61, 0}) : bytes({0, 0x61}));
  EXPECT_EQ(T::bytesUsingEncoding("a", T::kUTF32),
            little ? bytes({0x61, 0, 0, 0}) : bytes({0, 0, 0, 0x61}));
  EXPECT_EQ(T::bytesUsingEncoding(kGrin, T::kUTF16BigEndian), bytes({0xD8, 0x3D, 0xDE, 0x00}));
  EXPECT_EQ(T::bytesUsingEncoding(kGrin, T::kUTF16LittleEndian), bytes({0x3D, 0xD8, 0x00, 0xDE}));
  EXPECT_EQ(T::bytesUsingEncoding("a", T::kUTF32BigEndian), bytes({0, 0, 0, 0x61}));
}

TEST(TextEncoding, RoundTripsThroughUnicodeAndCjkEncodings) {
  for (auto encoding :
       {TextEncoding::kUTF8, TextEncoding::kUnicode, TextEncoding::kUTF16BigEndian,
        TextEncoding::kUTF16LittleEndian, TextEncoding::kUTF32, TextEncoding::kUTF32BigEndian,
        TextEncoding::kUTF32LittleEndian, TextEncoding::kGB18030}) {
    auto encoded = TextEncoding::bytesUsingEncoding(kMixed, encoding);
    ASSERT_TRUE(encoded) << std::hex << encoding;
    EXPECT_EQ(TextEncoding::stringWithBytes(*encoded, encoding), kMixed) << std::hex << encoding;
  }
  const std::string cjk = "a" + kZhong + "b";
  for (auto encoding : {TextEncoding::kGBK, TextEncoding::kBig5, TextEncoding::kEUCKR,
                        TextEncoding::kShiftJIS, TextEncoding::kJapaneseEUC}) {
    auto encoded = TextEncoding::bytesUsingEncoding(cjk, encoding);
    ASSERT_TRUE(encoded) << std::hex << encoding;
    EXPECT_EQ(TextEncoding::stringWithBytes(*encoded, encoding), cjk) << std::hex << encoding;
  }
}

TEST(TextEncoding, GetBytesCutsOnlyBetweenCharacters) {
  using T = TextEncoding;
  auto p = T::getBytes("abcdef", T::kUTF8, 3);
  ASSERT_TRUE(p);
  EXPECT_EQ(p->bytes, "abc");
  EXPECT_EQ(p->utf8Length, 3u);

  EXPECT_FALSE(T::getBytes(kZhong + "abc", T::kUTF8, 2));
  p = T::getBytes(kZhong + "abc", T::kUTF8, 4);
  ASSERT_TRUE(p);
  EXPECT_EQ(p->bytes, kZhong + "a");
  EXPECT_EQ(p->utf8Length, 4u);

  // A surrogate pair is one character.
  EXPECT_FALSE(T::getBytes(kGrin + "a", T::kUTF16BigEndian, 3));
  for (std::size_t limit : {4, 5}) {
    p = T::getBytes(kGrin + "a", T::kUTF16BigEndian, limit);
    ASSERT_TRUE(p) << limit;
    EXPECT_EQ(p->bytes, bytes({0xD8, 0x3D, 0xDE, 0x00}));
    EXPECT_EQ(p->utf8Length, 4u);
  }

  // The 4-byte GB18030 sequence is not split after its first 2 bytes.
  const std::string zhongGrin = kZhong + kGrin;
  for (std::size_t limit : {2, 3, 4, 5}) {
    p = T::getBytes(zhongGrin, T::kGB18030, limit);
    ASSERT_TRUE(p) << limit;
    EXPECT_EQ(p->bytes, bytes({0xD6, 0xD0}));
    EXPECT_EQ(p->utf8Length, 3u);
  }
  p = T::getBytes(zhongGrin, T::kGB18030, 6);
  ASSERT_TRUE(p);
  EXPECT_EQ(p->bytes.size(), 6u);
  EXPECT_EQ(p->utf8Length, zhongGrin.size());

  EXPECT_FALSE(T::getBytes("abc", T::kUTF8, 0));
  p = T::getBytes("", T::kUTF8, 0);
  ASSERT_TRUE(p);
  EXPECT_EQ(p->bytes, "");
  EXPECT_EQ(p->utf8Length, 0u);
  // A character the encoding lacks refuses the call even past the cut.
  EXPECT_FALSE(T::getBytes("ab" + kE, T::kASCII, 1));
}

TEST(TextEncoding, RefusesIllFormedInputAndUnknownEncodings) {
  using T = TextEncoding;
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
