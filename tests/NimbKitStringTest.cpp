// NimbKit's String and Color extensions, and the hex scan the colours read
// with: one table per operation.
#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Core/Scanner.h>
#include <NimbFoundation/Utils/VQUtils.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <tuple>

using namespace nimb;
using Text = std::optional<std::string>;

TEST(NimbKitString, LengthCountsUserPerceivedCharacters) {
  const std::pair<Text, std::int64_t> rows[] = {{"abc", 3},
                                                {"中文", 2},
                                                {"😀", 1},        // one surrogate pair
                                                {"e\u0301", 1},  // letter + combining acute
                                                {"", 0},
                                                {std::nullopt, 0},
                                                {"👍🏽", 1},            // emoji + skin tone
                                                {"👨\u200D👩\u200D👧", 1},     // ZWJ family
                                                {"🇫🇷", 1},                  // one flag
                                                {"🇫🇷🇩🇪", 2},                // two flags
                                                {"\u1100\u1161\u11A8", 1},  // Hangul jamo L V T
                                                {"\r\n", 1},
                                                {"a\xFF"
                                                 "b",
                                                 3}};  // the bad byte is one U+FFFD
  for (const auto& [text, length] : rows) {
    EXPECT_EQ(NimbKit::getStringLengthWithString(text), length) << text.value_or("(absent)");
  }
}

TEST(NimbKitString, PatternTestsMatchTheWholeText) {
  using Check = bool (*)(std::optional<std::string>);
  const std::tuple<Check, const char*, Text, bool> rows[] = {
      {&NimbKit::checkEmailFormat, "email", "a@b.cn", true},
      {&NimbKit::checkEmailFormat, "email", "a@d-e.com", true},
      {&NimbKit::checkEmailFormat, "email", "a@b.co.uk", true},
      {&NimbKit::checkEmailFormat, "email", "a@b.museum", false},
      {&NimbKit::checkEmailFormat, "email", "a@localhost", false},
      {&NimbKit::checkEmailFormat, "email", "a@b.c0m", false},
      {&NimbKit::checkEmailFormat, "email", "x a@b.cn", false},  // not a search
      {&NimbKit::checkEmailFormat, "email", "", false},
      {&NimbKit::checkEmailFormat, "email", std::nullopt, false},
      {&NimbKit::includeAlphabetOrDigitOnly, "alnum", "Ab9", true},
      {&NimbKit::includeAlphabetOrDigitOnly, "alnum", "a_b", false},
      {&NimbKit::includeAlphabetOrDigitOnly, "alnum", "", false},
      {&NimbKit::includeAlphabetOrDigitOnly, "alnum", std::nullopt, false},
      {&NimbKit::includeSpecialCharact, "special", "a_b9", false},
      {&NimbKit::includeSpecialCharact, "special", "\u4E00\u9FA5中文", false},  // range ends
      {&NimbKit::includeSpecialCharact, "special", "\u9FA6", true},  // just past the range
      {&NimbKit::includeSpecialCharact, "special", "a b", true},
      {&NimbKit::includeSpecialCharact, "special", "a-b", true},  // "-" only joins the range
      {&NimbKit::includeSpecialCharact, "special", "", true},
      {&NimbKit::includeSpecialCharact, "special", std::nullopt, true}};
  for (const auto& [check, name, text, expected] : rows) {
    EXPECT_EQ(check(text), expected) << name << " " << text.value_or("(absent)");
  }
}

// A destructor that runs at exit, after the kit's own statics are gone,
// still gets right answers (the compiled patterns and the break iterator
// are never destroyed). The child is a fresh process, so the object below is
// made before the kit's first use and destroyed after what that use made.
namespace {
bool kitTextAnswersRight() {
  return NimbKit::getStringLengthWithString("abc") == 3 && NimbKit::checkEmailFormat("a@b.cd") &&
         !NimbKit::includeSpecialCharact("abc") && NimbKit::includeAlphabetOrDigitOnly("abc");
}
}  // namespace

TEST(NimbKitStringDeathTest, TextOperationsStayRightInDestructorsAtExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        struct AtExit {
          ~AtExit() { std::_Exit(kitTextAnswersRight() ? 0 : 1); }
        };
        static AtExit atExit;
        std::exit(kitTextAnswersRight() ? 2 : 3);
      },
      testing::ExitedWithCode(0), "");
}

TEST(NimbKitString, Md5IsLowerCaseOfTheSharedDigestUpToTheFirstNul) {
  const std::pair<Text, std::string> rows[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {std::nullopt, "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {std::string("abc\0def", 7), "900150983cd24fb0d6963f7d28e17f72"}};
  for (const auto& [text, digest] : rows) EXPECT_EQ(NimbKit::md5(text), digest);
  EXPECT_EQ(VQUtils::md5Value(std::string("abc\0def", 7)), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(NimbKitString, RequestParametersSplitAfterTheFirstQuestionMark) {
  using Map = std::map<std::string, std::string>;
  const std::pair<Text, Map> rows[] = {
      {"cmd://x?a=1&b=&c&d=1=2", {{"a", "1"}, {"b", ""}}},
      {"cmd://x", {}},
      {"cmd://x?", {}},
      {"x?a=1#frag&b=2", {{"a", "1#frag"}, {"b", "2"}}},
      {"x?a=1&a=2", {{"a", "2"}}},
      {"x?a%20b=c%26", {{"a%20b", "c%26"}}},
      {"x?y?a=1&=v", {{"y?a", "1"}, {"", "v"}}},  // only the first "?" splits
      {std::nullopt, {}}};
  for (const auto& [text, parameters] : rows) {
    EXPECT_EQ(NimbKit::parseWebViewRequestString(text), parameters) << text.value_or("(absent)");
  }
}

TEST(NimbKitColor, HexStringGivesComponentsOrWhite) {
  const double half = static_cast<double>(128.0f / 255.0f);
  const auto byte = [](int v) { return static_cast<double>(static_cast<float>(v) / 255.0f); };
  const Color orange = Color::colorWithRed(1, half, 0, 1);
  const std::pair<Text, Color> rows[] = {
      {" \n#ff8000\u3000", orange},
      {"FF8000", orange},
      {"#1G2H3I", Color::colorWithRed(byte(1), byte(2), byte(3), 1)},
      {"#GG0aZZ", Color::colorWithRed(0, byte(10), 0, 1)},
      {"#FFF", Color::whiteColor()},
      {"0xFF8000", Color::whiteColor()},
      {"FF80001", Color::whiteColor()},
      {"#FF800", Color::whiteColor()},           // 5 left after the "#"
      {"😀😀😀", Color::colorWithRed(0, 0, 0, 1)},  // 6 UTF-16 units, no hex digit
      {"\u00DF\u00DF\u00DF",
       Color::colorWithRed(0, 0, 0, 1)},  // counted once upper-cased: "SSSSSS"
      {std::nullopt, Color::whiteColor()}};
  for (const auto& [text, color] : rows) {
    EXPECT_EQ(NimbKit::colorWithHexString(text), color) << text.value_or("(absent)");
  }
}

TEST(NimbKitColor, ScanHexIntTakesPrefixClampsAndFailsInPlace) {
  const std::tuple<const char*, bool, std::uint32_t, std::size_t> rows[] = {
      {" 0x1fZ", true, 0x1F, 5},
      {"0X", true, 0, 1},  // no digit after the prefix: just the "0"
      {"0xg", true, 0, 1},
      {"123456789abc", true, std::numeric_limits<std::uint32_t>::max(), 12},
      {"ffffffff", true, 0xFFFFFFFF, 8},
      {"  zz", false, 7, 0},
      {"", false, 7, 0}};
  for (const auto& [text, scanned, value, end] : rows) {
    Scanner scanner(text);
    std::uint32_t v = 7;
    EXPECT_EQ(scanner.scanHexInt(&v), scanned) << text;
    EXPECT_EQ(v, value) << text;
    EXPECT_EQ(scanner.scanLocation(), end) << text;
  }
}
