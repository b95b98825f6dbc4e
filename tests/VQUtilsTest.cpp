#include <NimbFoundation/Utils/VQUtils.h>

#include <NimbFoundation/Encode/VQStringEncoding.h>
#include <NimbFoundation/Platform/Core/Scanner.h>
#include <NimbFoundation/Platform/Core/TextEncoding.h>
#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/Device.h>
#include <NimbFoundation/Platform/Env/TimeZone.h>
#include <NimbFoundation/Platform/Graphics/View.h>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iterator>
#include <limits>
#include <regex>
#include <set>
#include <thread>
#include <tuple>

#include "HttpTestServer.h"
#include "TestSupport.h"

using nimb::Data;
using nimb::Dictionary;
using nimb::TextEncoding;
using nimb::Value;
using nimb::VQUtils;
using nimb::test::captureOutput;

namespace {

constexpr auto kDefault = std::numeric_limits<std::int64_t>::max(),
               kMin = std::numeric_limits<std::int64_t>::min();

}  // namespace

TEST(VQUtilsDictionary, StringDictionaryAndIntegerReads) {
  Dictionary d{{"s", "text"}, {"n", 5}, {"r", 7.9}, {"b", true}, {"null", nimb::Null{}}};
  d["list"] = nimb::Array{1, "two words", "é"};
  d["inner"] = Dictionary{{"k", Dictionary{{"x", 1}}}};
  // An absent key is formatted like nil, not defaulted.
  const std::pair<const char*, const char*> rows[] = {
      {"s", "text"},         {"n", "5"}, {"r", "7.9"}, {"b", "1"}, {"null", ""},
      {"missing", "(null)"}, {"", ""}};
  for (const auto& [key, text] : rows) {
    EXPECT_EQ(VQUtils::getStringFromDictionary(d, key), text) << key;
  }
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "list"),
            "(\n    1,\n    \"two words\",\n    \"\\U00e9\"\n)");
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "inner"),
            "{\n    k =     {\n        x = 1;\n    };\n}");
  EXPECT_EQ(VQUtils::getStringFromDictionary(Value("not a dictionary"), "s"), "");
  EXPECT_EQ(VQUtils::getStringFromDictionary(Value(d), "n"), "5");
  // Dictionary reads give the value, or an empty one for anything else.
  EXPECT_EQ(VQUtils::getDictionaryFromDictionary(d, "inner"), *d["inner"].asDictionary());
  EXPECT_TRUE(VQUtils::getDictionaryFromDictionary(d, "s").empty());
  EXPECT_TRUE(VQUtils::getDictionaryFromDictionary(d, "").empty());
  EXPECT_TRUE(VQUtils::getDictionaryFromDictionary(Value(nimb::Array{}), "inner").empty());

  // Integer reads take numbers and pure integer strings. "wide" passes the 32-bit scan (clamped)
  // and is then read in 64 bits.
  const std::tuple<const char*, Value, std::int64_t> intRows[] = {
      {"padded", " 12 ", 12},     {"suffix", "12a", kDefault},
      {"word", "abc", kDefault},  {"real", 7.9, 7},
      {"negative", -7.9, -7},     {"yes", true, 1},
      {"huge", -1e300, kMin},     {"wide", "99999999999", 99999999999},
      {"float", "1.5", kDefault}, {"list", nimb::Array{}, kDefault}};
  Dictionary ints;
  for (const auto& [key, value, expected] : intRows) ints[key] = value;
  for (const auto& [key, value, expected] : intRows) {
    EXPECT_EQ(VQUtils::getIntergerFromDictionary(ints, key), expected) << key;
  }
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(ints, "missing"), kDefault);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(Value(5), "real"), kDefault);
}

TEST(VQUtilsQuery, ParsingSkipsMalformedPiecesAndBuildingEscapesValuesOnly) {
  // Escapes that are not UTF-8 reject the whole text rather than lose a pair.
  const std::pair<const char*, std::optional<Dictionary>> rows[] = {
      {"a=1&b=%20x&c&d=1=2&a=3", Dictionary{{"a", "3"}, {"b", " x"}}},
      {"&=v&k=&&x%3Dy=1+2", Dictionary{{"", "v"}, {"k", ""}, {"x=y", "1+2"}}},
      {"", Dictionary{}},
      {"a=1&b=%FF", std::nullopt},
      {"a=%2", std::nullopt}};
  for (const auto& [query, expected] : rows) {
    EXPECT_EQ(VQUtils::dictionaryWithQueryString(query), expected) << query;
  }
  // Building escapes values but not keys; the round trip needs "&", "=" and "%" escaped.
  EXPECT_EQ(VQUtils::queryStringWithDictionary({{"b", "2"}, {"a b", "é"}}), "a b=%C3%A9&b=2");
  EXPECT_EQ(VQUtils::queryStringWithDictionary({}), "");
  EXPECT_FALSE(VQUtils::queryStringWithDictionary({{"k", 5}}));

  Dictionary original{{"q", "50% off & more=yes"}, {"lang", "中文"}, {"empty", ""}};
  EXPECT_EQ(VQUtils::dictionaryWithQueryString(*VQUtils::queryStringWithDictionary(original)),
            original);
}

TEST(VQUtilsPercent, OnlyUnreservedCharactersStayAndDecodingIsStrict) {
  const std::pair<const char*, const char*> rows[] = {
      {"a-b_c.d~e", "a-b_c.d~e"},
      {"é", "%C3%A9"},
      {"!*'\"();:@&=+$,/?%#[] ", "%21%2A%27%22%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D%20"},
      {"<>\\^`{|}\n\x7f", "%3C%3E%5C%5E%60%7B%7C%7D%0A%7F"}};
  for (const auto& [text, escaped] : rows) EXPECT_EQ(VQUtils::urlEncode(text), escaped);
  // Decoding is strict: half a character, bytes that are never UTF-8, and
  // malformed escapes fail.
  const std::pair<const char*, std::optional<std::string>> decodes[] = {
      {"%C3%a9+x%2B", "é+x+"},  {"plain", "plain"},    {"%C3", std::nullopt},
      {"%FF%FE", std::nullopt}, {"%zz", std::nullopt}, {"100%", std::nullopt},
      {"%4", std::nullopt}};
  for (const auto& [text, decoded] : decodes) EXPECT_EQ(VQUtils::urlDecode(text), decoded) << text;
  const std::string every = "a %+~\x7f\u00e9\u4e2d\U0001F600";
  EXPECT_EQ(VQUtils::urlDecode(VQUtils::urlEncode(every)), every);
}

TEST(VQUtilsText, SubStringCutsWholeCharactersByEncodedBytes) {
  // Whole characters only: nothing fitting, a limit of 0, text not writable
  // in the encoding at all, or an unknown encoding all leave it unchanged.
  // UTF-16 takes two bytes a character and never splits a surrogate pair;
  // GB 18030 and Big5 take two for 中 and one for ASCII.
  constexpr auto kUTF8 = TextEncoding::kUTF8, kUTF16 = TextEncoding::kUTF16LittleEndian,
                 kGB = TextEncoding::kGB18030, kBig5 = TextEncoding::kBig5,
                 kASCII = TextEncoding::kASCII;
  const std::tuple<const char*, std::uint32_t, std::uint32_t, std::optional<std::string>> rows[] = {
      {"abcdef", kUTF8, 3, "abc"},  {"中abc", kUTF8, 2, "中abc"},
      {"中abc", kUTF8, 4, "中a"},   {"abcdef", kUTF8, 0, "abcdef"},
      {"abc", kUTF8, 3, "abc"},     {"", kUTF8, 3, std::nullopt},
      {"ab😀c", kUTF16, 7, "ab"},    {"ab😀c", kUTF16, 8, "ab😀"},
      {"中文abc", kGB, 5, "中文a"}, {"中文abc", kBig5, 3, "中"},
      {"déjà", kASCII, 2, "déjà"},  {"abcdef", 0xDEAD, 2, "abcdef"}};
  for (const auto& [text, encoding, limit, cut] : rows) {
    EXPECT_EQ(VQUtils::subString(text, encoding, limit), cut) << text << " " << limit;
  }
}

TEST(VQUtilsNumbers, PureNumbersFollowTheScannerWhichClampsToThirtyTwoBits) {
  const std::tuple<bool (*)(std::string_view), bool, std::vector<const char*>> rows[] = {
      {&VQUtils::isPureInt,
       true,
       {"12", " 12\n", "+5", "-0", "\t-2147483648 ", "99999999999", "\u00A07"}},
      {&VQUtils::isPureInt, false, {"", "  ", "12a", "1.5", "+", "- 1", "1 2", "\xEF\xBC\x91"}},
      {&VQUtils::isPureFloat, true, {"1.5", ".5", "5.", "-1e3", "2E-2 ", "7"}},
      {&VQUtils::isPureFloat, false, {".", "1e", "1.5.2", "e5", "0x10", "nan", "1,5"}}};
  for (const auto& [pure, expected, texts] : rows) {
    for (const char* text : texts) EXPECT_EQ(pure(text), expected) << text;
  }
  // The scanner clamps to 32 bits and consumes every digit.
  nimb::Scanner scanner(" 99999999999x");
  std::int32_t value = 0;
  ASSERT_TRUE(scanner.scanInt(&value));
  EXPECT_EQ(value, std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(scanner.scanLocation(), 12u);
  EXPECT_FALSE(scanner.scanInt(&value));  // "x" is not a number; nothing moves
  EXPECT_EQ(scanner.scanLocation(), 12u);
  nimb::Scanner negative("-99999999999 ");
  ASSERT_TRUE(negative.scanInt(&value));
  EXPECT_EQ(value, std::numeric_limits<std::int32_t>::min());
  EXPECT_TRUE(negative.isAtEnd());
  // An exponent is read only when a digit follows its "e".
  for (const auto& [text, expected, end] : {std::tuple{"1e5x", 1e5f, 3u}, {"2.5e+", 2.5f, 3u}}) {
    nimb::Scanner floats(text);
    float f = 0;
    ASSERT_TRUE(floats.scanFloat(&f)) << text;
    EXPECT_FLOAT_EQ(f, expected);
    EXPECT_EQ(floats.scanLocation(), end) << text;
  }
}

TEST(VQUtilsBase64, StandardAndWebSafeAlphabetsWithPadding) {
  EXPECT_EQ(VQUtils::base64Encode("hello"), "aGVsbG8=");
  const Data bytes{0xFB, 0xFF, 0xBF};
  EXPECT_EQ(VQUtils::base64EncodeData(bytes), "+/+/");
  EXPECT_EQ(VQUtils::base64WebSafeEncodeData(bytes), "-_-_");
  EXPECT_EQ(VQUtils::base64WebSafeEncodeData(Data{0xFF}), "_w==");
  EXPECT_EQ(VQUtils::base64DecodeData("+/+/"), bytes);
  EXPECT_EQ(VQUtils::base64WebSafeDecode("-_-_"), bytes);
  for (const char* bad : {"-_-_", "aGVs bG8="}) EXPECT_FALSE(VQUtils::base64DecodeData(bad));
  EXPECT_FALSE(VQUtils::base64WebSafeDecode("+/+/"));
}

// The token is compared as text, so its padding is checked too; the key is
// the secret filled up with NUL to 32 bytes, the vector its first 16 bytes.
TEST(VQUtilsAES, MatchesTheOpensslCommandAndRefusesBadParameters) {
  const auto hex = [](std::string_view s) {
    return nimb::VQStringEncoding::hexStringEncoding()->encode(nimb::test::dataOf(s));
  };
  const std::pair<std::string, std::string> cases[] = {
      {"0123456789abcdef", "exactly sixteen!"},
      {"0123456789abcdef é", "x"},  // non-ASCII after the vector is fine
      {"A secret of 32 characters, long.", "中文 and more than one block of text, é"}};
  for (const auto& [secret, text] : cases) {
    auto token = VQUtils::AES256Encrypt(text, secret);
    ASSERT_TRUE(token) << secret;
    auto openssl = nimb::test::runProgram({"openssl", "enc", "-aes-256-cbc", "-K",
                                           hex(secret + std::string(32 - secret.size(), '\0')),
                                           "-iv", hex(secret.substr(0, 16)), "-base64", "-A"},
                                          text);
    ASSERT_EQ(openssl.exitCode, 0) << "the openssl command is needed: " << openssl.err;
    // openssl writes standard base 64; the token is web-safe.
    std::string expected = openssl.out;
    for (char& c : expected) c = c == '+' ? '-' : c == '/' ? '_' : c;
    if (!expected.empty() && expected.back() == '\n') expected.pop_back();
    EXPECT_EQ(*token, expected) << secret;
  }
  // Bad parameters are logged and refused.
  VQUtils::setOpenLog(true);
  std::string out = captureOutput(1, [] {
    EXPECT_FALSE(VQUtils::AES256Encrypt("text", "fifteen chars!!"));
    EXPECT_FALSE(VQUtils::AES256Encrypt("", "0123456789abcdef"));
    EXPECT_FALSE(VQUtils::AES256Encrypt("text", "é123456789abcdef"));  // vector would not fit
    EXPECT_FALSE(VQUtils::AES256Encrypt("text", "sixteen-chars-ok+and-sixteen-more"));  // 33 bytes
  });
  const std::regex line("AES encrypt failed: params error\\. \n");
  EXPECT_EQ(std::distance(std::sregex_iterator(out.begin(), out.end(), line), {}), 4) << out;
}

TEST(VQUtilsLog, LineFormatPrefixAndQuirks) {
  nimb::test::FakeMachine machine;
  machine->setNow(nimb::Date::fromTimeIntervalSince1970(1772600767.089));
  nimb::TimeZone::setDefaultTimeZoneName("GMT");
  char thread[16];
  std::snprintf(thread, sizeof thread, "%5d", static_cast<int>(::syscall(SYS_gettid)));
  const std::string header = std::string("[05:06:07.089(") + thread + ")] - ";

  VQUtils::setOpenLog(true);
  EXPECT_EQ(captureOutput(1, [] { VQUtils::outLog("n=%d s=%s", 42, "x"); }),
            header + "n=42 s=x \n");
  EXPECT_EQ(captureOutput(1, [] { VQUtils::outLog(nullptr); }), header + "nil\n");
  // A "%%" left in the message comes out doubled.
  EXPECT_EQ(captureOutput(1, [] { VQUtils::outLog("100%%%% and 5%%"); }),
            header + "100%%%% and 5% \n");
  VQUtils::setPrefix("[chat]");
  EXPECT_EQ(captureOutput(1, [] { VQUtils::outLog("hi"); }), header + "[chat] hi \n");
  VQUtils::setPrefix("");
  EXPECT_EQ(captureOutput(1, [] { VQUtils::outLog("hi"); }), header + "hi \n");
  VQUtils::setOpenLog(false);
  EXPECT_EQ(captureOutput(1, [] { VQUtils::outLog("hi"); }), "");
}

TEST(VQUtilsLog, LinesFromManyThreadsNeverMix) {
  VQUtils::setOpenLog(true);
  constexpr int kThreads = 6, kLines = 200;
  std::string out = captureOutput(1, [] {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t] {
        const std::string filler(200, static_cast<char>('a' + t));
        for (int i = 0; i < kLines; ++i) {
          VQUtils::setPrefix(i % 2 ? std::optional<std::string>("p") : std::nullopt);
          VQUtils::outLog("t%d %d %s", t, i, filler.c_str());
        }
      });
    }
    for (auto& t : threads) t.join();
  });
  // Every line whole and in its format, with nothing between or after them.
  const std::regex line(
      R"(\[\d\d:\d\d:\d\d\.\d{3}\( *(\d+)\)\] - (p )?t(\d) (\d+) ([a-f]{200}) \n)");
  std::size_t count = 0, covered = 0;
  std::set<std::string> threadNumbers;
  for (std::sregex_iterator m(out.begin(), out.end(), line), end; m != end; ++m, ++count) {
    ASSERT_EQ(m->position(), static_cast<std::ptrdiff_t>(covered)) << m->prefix();
    EXPECT_EQ((*m)[5].str()[0], 'a' + std::stoi((*m)[3].str()));
    threadNumbers.insert((*m)[1].str());
    covered += m->length();
  }
  EXPECT_EQ(covered, out.size());
  EXPECT_EQ(count, static_cast<std::size_t>(kThreads * kLines));
  EXPECT_EQ(threadNumbers.size(), static_cast<std::size_t>(kThreads));
}

TEST(VQUtilsRandom, StaysWithinTheBounds) {
  for (int only : {7, -3}) EXPECT_EQ(VQUtils::getRand(only, only), only);
  std::set<std::int32_t> seen;
  for (int i = 0; i < 2000; ++i) {
    const auto r = VQUtils::getRand(-2, 2);
    ASSERT_GE(r, -2);
    ASSERT_LE(r, 2);
    seen.insert(r);
  }
  EXPECT_EQ(seen.size(), 5u);
  // The whole 32-bit range: defined here, any value.
  (void)VQUtils::getRand(std::numeric_limits<std::int32_t>::min(),
                         std::numeric_limits<std::int32_t>::max());
}

TEST(VQUtilsBundle, ResourcePathsInsideNamedBundles) {
  const std::string resources = nimb::test::makeTemporaryDirectory("resources");
  std::filesystem::create_directories(resources + "/Emoji.bundle");
  nimb::test::FakeMachine machine;
  machine->bundle = nimb::BundleSettings{std::nullopt, std::nullopt, resources};
  EXPECT_EQ(VQUtils::getBundleRes("smile.png", "Emoji.bundle"),
            resources + "/Emoji.bundle/smile.png");
  EXPECT_FALSE(VQUtils::getBundleRes("smile.png", "Missing.bundle"));
  EXPECT_FALSE(VQUtils::getBundleRes("", "Emoji.bundle"));
}

TEST(VQUtilsViews, TreesPrintWithBarHyphenIndentsAndAddImageDrawsAOverB) {
  auto root = std::make_shared<nimb::View>(), b = std::make_shared<nimb::View>();
  auto a = std::make_shared<nimb::View>(nimb::Rect(1, 2, 3, 4));
  auto a1 = std::make_shared<nimb::View>(nimb::Rect(5, 6, 7, 8));
  auto a1x = std::make_shared<nimb::ImageView>(nimb::Rect(0, 0, 1, 1));
  root->addSubview(a);
  root->addSubview(b);
  a->addSubview(a1);
  a1->addSubview(a1x);
  const auto A = a->description(), A1 = a1->description(), A1X = a1x->description(),
             B = b->description();
  EXPECT_EQ(captureOutput(1, [&] { VQUtils::printViewHierarchy(*root, 0); }),
            A + "\n|-" + A1 + "\n|-|-" + A1X + "\n\n\n" + B + "\n\n");
  const std::vector<std::shared_ptr<nimb::View>> top{a, b};
  EXPECT_EQ(captureOutput(1, [&] { VQUtils::printViews(top, 1); }),
            "|" + A + "\n|-|" + A1 + "\n|-|-|" + A1X + "\n\n\n|" + B + "\n\n");
  EXPECT_EQ(captureOutput(1, [&] { VQUtils::printViewHierarchy(*b, 3); }), "\n");

  // addImage draws A over B at the screen's scale, cut to B.
  nimb::test::FakeMachine machine;
  machine->device = nimb::DeviceFacts{};
  machine->device->mainScreen = nimb::ScreenFacts{{320, 568}, 2.0, std::nullopt};
  auto solid = [](int w, int h, nimb::test::Pixel colour) {
    return nimb::Image::withBitmap(nimb::test::filled(w, h, [&](int, int) { return colour; }));
  };
  auto red = solid(4, 4, nimb::test::kRed), blue = solid(2, 6, nimb::test::kBlue);
  auto both = VQUtils::addImage(blue, red);
  ASSERT_TRUE(both);
  EXPECT_EQ(both->size(), (nimb::Size{4, 4}));
  EXPECT_EQ(both->scale(), 2.0);
  const auto& bitmap = both->bitmap();
  ASSERT_EQ(bitmap.width, 8);
  auto pixel = [&](int x, int y) { return &bitmap.rgba[(y * bitmap.width + x) * 4]; };
  EXPECT_EQ(pixel(1, 7)[2], 255);  // A, down to B's bottom edge
  EXPECT_EQ(pixel(1, 7)[0], 0);
  EXPECT_EQ(pixel(6, 1)[0], 255);  // B beside A
  EXPECT_FALSE(VQUtils::addImage(blue, nullptr));
  EXPECT_EQ(VQUtils::addImage(nullptr, red)->size(), (nimb::Size{4, 4}));
}
