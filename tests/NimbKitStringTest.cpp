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
#include <vector>

using namespace nimb;
using Text = std::optional<std::string>;

// One surrogate pair, a letter and its combining acute, an emoji with its
// skin tone, a ZWJ family, one flag, Hangul jamo L V T and CR LF are one
// character each; a bad byte is one U+FFFD.
TEST(NimbKitString, LengthCountsUserPerceivedCharacters) {
  const std::pair<std::int64_t, std::vector<Text>> rows[] = {
      {0, {"", std::nullopt}},
      {1, {"😀", "e\u0301", "👍🏽", "👨\u200D👩\u200D👧", "🇫🇷", "\u1100\u1161\u11A8", "\r\n"}},
      {2, {"中文", "🇫🇷🇩🇪"}},
      {3, {"abc", "a\xFF\x62"}}};
  for (const auto& [length, texts] : rows) {
    for (const auto& text : texts) {
      EXPECT_EQ(NimbKit::getStringLengthWithString(text), length) << text.value_or("(absent)");
    }
  }
}

// "x a@b.cn" fails: a match, not a search. U+4E00 and U+9FA5 end the range
// of ordinary characters, U+9FA6 is past it, and "-" only joins the range.
TEST(NimbKitString, PatternTestsMatchTheWholeText) {
  using Check = bool (*)(std::optional<std::string>);
  const std::tuple<Check, const char*, std::vector<Text>, std::vector<Text>> rows[] = {
      {&NimbKit::checkEmailFormat,
       "email",
       {"a@b.cn", "a@d-e.com", "a@b.co.uk"},
       {"a@b.museum", "a@localhost", "a@b.c0m", "x a@b.cn", "", std::nullopt}},
      {&NimbKit::includeAlphabetOrDigitOnly, "alnum", {"Ab9"}, {"a_b", "", std::nullopt}},
      {&NimbKit::includeSpecialCharact,
       "special",
       {"\u9FA6", "a b", "a-b", "", std::nullopt},
       {"a_b9", "\u4E00\u9FA5中文"}}};
  for (const auto& [check, name, matching, failing] : rows) {
    for (const auto& text : matching) EXPECT_TRUE(check(text)) << name << " " << text.value_or("-");
    for (const auto& text : failing) EXPECT_FALSE(check(text)) << name << " " << text.value_or("-");
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
  for (const Text& empty : {Text(""), Text()}) {
    EXPECT_EQ(NimbKit::md5(empty), "d41d8cd98f00b204e9800998ecf8427e");
  }
  for (const Text& abc : {Text("abc"), Text(std::string("abc\0def", 7))}) {
    EXPECT_EQ(NimbKit::md5(abc), "900150983cd24fb0d6963f7d28e17f72");
  }
  EXPECT_EQ(VQUtils::md5Value(std::string("abc\0def", 7)), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(NimbKitString, RequestParametersSplitAfterTheFirstQuestionMark) {
  using Map = std::map<std::string, std::string>;
  for (const Text& none : {Text("cmd://x"), Text("cmd://x?"), Text()}) {
    EXPECT_EQ(NimbKit::parseWebViewRequestString(none), Map{}) << none.value_or("(absent)");
  }
  // Only the first "?" splits.
  const std::pair<const char*, Map> rows[] = {{"cmd://x?a=1&b=&c&d=1=2", {{"a", "1"}, {"b", ""}}},
                                              {"x?a=1#frag&b=2", {{"a", "1#frag"}, {"b", "2"}}},
                                              {"x?a=1&a=2", {{"a", "2"}}},
                                              {"x?a%20b=c%26", {{"a%20b", "c%26"}}},
                                              {"x?y?a=1&=v", {{"y?a", "1"}, {"", "v"}}}};
  for (const auto& [text, parameters] : rows) {
    EXPECT_EQ(NimbKit::parseWebViewRequestString(text), parameters) << text;
  }
}

// Six UTF-16 units with no hex digit read as black; "ßßß" counts once
// upper-cased ("SSSSSS"); 5 digits after the "#" are white.
TEST(NimbKitColor, HexStringGivesComponentsOrWhite) {
  const double half = static_cast<double>(128.0f / 255.0f);
  const auto byte = [](int v) { return static_cast<double>(static_cast<float>(v) / 255.0f); };
  const std::pair<Color, std::vector<Text>> rows[] = {
      {Color::colorWithRed(1, half, 0, 1), {" \n#ff8000\u3000", "FF8000"}},
      {Color::colorWithRed(byte(1), byte(2), byte(3), 1), {"#1G2H3I"}},
      {Color::colorWithRed(0, byte(10), 0, 1), {"#GG0aZZ"}},
      {Color::whiteColor(), {"#FFF", "0xFF8000", "FF80001", "#FF800", std::nullopt}},
      {Color::colorWithRed(0, 0, 0, 1), {"😀😀😀", "\u00DF\u00DF\u00DF"}}};
  for (const auto& [color, texts] : rows) {
    for (const auto& text : texts) {
      EXPECT_EQ(NimbKit::colorWithHexString(text), color) << text.value_or("(absent)");
    }
  }
}

TEST(NimbKitColor, ScanHexIntTakesPrefixClampsAndFailsInPlace) {
  const std::tuple<const char*, bool, std::uint32_t, std::size_t> rows[] = {
      {" 0x1fZ", true, 0x1F, 5},
      {"0X", true, 0, 1},  // no digit after the prefix: just the "0"
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
