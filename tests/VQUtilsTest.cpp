#include <NimbFoundation/Utils/VQUtils.h>

#include <NimbFoundation/Platform/Bundle.h>
#include <NimbFoundation/Platform/Clock.h>
#include <NimbFoundation/Platform/Device.h>
#include <NimbFoundation/Platform/Scanner.h>
#include <NimbFoundation/Platform/TextEncoding.h>
#include <NimbFoundation/Platform/TimeZone.h>
#include <NimbFoundation/Platform/View.h>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <limits>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "TestSupport.h"

using nimb::Data;
using nimb::Dictionary;
using nimb::TextEncoding;
using nimb::Value;
using nimb::VQUtils;
using nimb::test::hexOf;

namespace {

constexpr auto kIntegerDefault = std::numeric_limits<std::int64_t>::max();

std::string captureStandardOutput(const std::function<void()>& body) {
  return nimb::test::captureOutput(1, body);
}

}  // namespace

TEST(VQUtilsDigest, UpperCaseHexOfTheTextUpToItsFirstNul) {
  EXPECT_EQ(VQUtils::md5Value(""), "D41D8CD98F00B204E9800998ECF8427E");
  EXPECT_EQ(VQUtils::md5Value("abc"), "900150983CD24FB0D6963F7D28E17F72");
  EXPECT_EQ(VQUtils::md5Value(std::string("abc\0def", 7)), VQUtils::md5Value("abc"));
  EXPECT_EQ(VQUtils::utilsVersion(), "1.2.4");
}

TEST(VQUtilsDictionary, StringReadsDescribeWhatIsNotAString) {
  Dictionary d{{"s", "text"},
               {"n", 5},
               {"r", 7.9},
               {"b", true},
               {"null", nimb::Null{}},
               {"list", nimb::Array{1, "two words", "é"}},
               {"inner", Dictionary{{"k", Dictionary{{"x", 1}}}}}};
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "s"), "text");
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "n"), "5");
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "r"), "7.9");
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "b"), "1");
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "null"), "");
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "list"),
            "(\n    1,\n    \"two words\",\n    \"\\U00e9\"\n)");
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "inner"),
            "{\n    k =     {\n        x = 1;\n    };\n}");
  // An absent key is formatted like nil, not defaulted.
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, "missing"), "(null)");
  EXPECT_EQ(VQUtils::getStringFromDictionary(d, ""), "");
  EXPECT_EQ(VQUtils::getStringFromDictionary(Value("not a dictionary"), "s"), "");
  EXPECT_EQ(VQUtils::getStringFromDictionary(Value(d), "n"), "5");
}

TEST(VQUtilsDictionary, IntegerReadsTakeNumbersAndPureIntegerStrings) {
  Dictionary d{{"padded", " 12 "},      {"suffix", "12a"},  {"word", "abc"},
               {"real", 7.9},           {"negative", -7.9}, {"yes", true},
               {"wide", "99999999999"}, {"huge", -1e300},   {"float", "1.5"},
               {"list", nimb::Array{}}};
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "padded"), 12);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "suffix"), kIntegerDefault);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "word"), kIntegerDefault);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "real"), 7);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "negative"), -7);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "yes"), 1);
  // The 32-bit scan accepts it (clamped); the value is then read in 64 bits.
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "wide"), 99999999999);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "huge"),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "float"), kIntegerDefault);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "list"), kIntegerDefault);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(d, "missing"), kIntegerDefault);
  EXPECT_EQ(VQUtils::getIntergerFromDictionary(Value(5), "real"), kIntegerDefault);
}

TEST(VQUtilsDictionary, DictionaryReadsGiveTheValueOrAnEmptyOne) {
  Dictionary inner{{"a", 1}};
  Dictionary d{{"inner", inner}, {"text", "x"}};
  EXPECT_EQ(VQUtils::getDictionaryFromDictionary(d, "inner"), inner);
  EXPECT_TRUE(VQUtils::getDictionaryFromDictionary(d, "text").empty());
  EXPECT_TRUE(VQUtils::getDictionaryFromDictionary(d, "").empty());
  EXPECT_TRUE(VQUtils::getDictionaryFromDictionary(Value(nimb::Array{}), "inner").empty());
}

TEST(VQUtilsQuery, ParsingSkipsMalformedPiecesAndLaterKeysWin) {
  auto parsed = VQUtils::dictionaryWithQueryString("a=1&b=%20x&c&d=1=2&a=3");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(*parsed, (Dictionary{{"a", "3"}, {"b", " x"}}));

  parsed = VQUtils::dictionaryWithQueryString("&=v&k=&&x%3Dy=1+2");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(*parsed, (Dictionary{{"", "v"}, {"k", ""}, {"x=y", "1+2"}}));

  EXPECT_EQ(VQUtils::dictionaryWithQueryString(""), Dictionary{});
  // Escapes that are not UTF-8 reject the whole text rather than lose a pair.
  EXPECT_FALSE(VQUtils::dictionaryWithQueryString("a=1&b=%FF"));
  EXPECT_FALSE(VQUtils::dictionaryWithQueryString("a=%2"));
}

TEST(VQUtilsQuery, BuildingEscapesValuesButNotKeys) {
  EXPECT_EQ(VQUtils::queryStringWithDictionary({{"k", "a b&c"}}), "k=a%20b%26c");
  EXPECT_EQ(VQUtils::queryStringWithDictionary({{"b", "2"}, {"a b", "é"}}), "a b=%C3%A9&b=2");
  EXPECT_EQ(VQUtils::queryStringWithDictionary({}), "");
  EXPECT_FALSE(VQUtils::queryStringWithDictionary({{"k", 5}}));

  Dictionary original{{"q", "50% off & more=yes"}, {"lang", "中文"}, {"empty", ""}};
  EXPECT_EQ(VQUtils::dictionaryWithQueryString(*VQUtils::queryStringWithDictionary(original)),
            original);
}

TEST(VQUtilsPercent, OnlyUnreservedCharactersStay) {
  EXPECT_EQ(VQUtils::urlEncode("a-b_c.d~e"), "a-b_c.d~e");
  EXPECT_EQ(VQUtils::urlEncode("é"), "%C3%A9");
  EXPECT_EQ(VQUtils::urlEncode("!*'\"();:@&=+$,/?%#[] "),
            "%21%2A%27%22%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D%20");
  EXPECT_EQ(VQUtils::urlEncode("<>\\^`{|}\n\x7f"), "%3C%3E%5C%5E%60%7B%7C%7D%0A%7F");
}

TEST(VQUtilsPercent, DecodingIsStrictAboutEscapesAndUtf8) {
  EXPECT_EQ(VQUtils::urlDecode("%C3%a9+x%2B"), "é+x+");
  EXPECT_EQ(VQUtils::urlDecode("plain"), "plain");
  EXPECT_FALSE(VQUtils::urlDecode("%C3"));     // half a character
  EXPECT_FALSE(VQUtils::urlDecode("%FF%FE"));  // never UTF-8
  EXPECT_FALSE(VQUtils::urlDecode("%zz"));
  EXPECT_FALSE(VQUtils::urlDecode("100%"));
  EXPECT_FALSE(VQUtils::urlDecode("%4"));

  const std::string every = "a %+~\x7f\u00e9\u4e2d\U0001F600";
  EXPECT_EQ(VQUtils::urlDecode(VQUtils::urlEncode(every)), every);
}

TEST(VQUtilsText, SubStringCutsWholeCharactersByEncodedBytes) {
  EXPECT_EQ(VQUtils::subString("abcdef", TextEncoding::kUTF8, 3), "abc");
  EXPECT_EQ(VQUtils::subString("中abc", TextEncoding::kUTF8, 2), "中abc");  // nothing fits
  EXPECT_EQ(VQUtils::subString("中abc", TextEncoding::kUTF8, 4), "中a");
  EXPECT_EQ(VQUtils::subString("abcdef", TextEncoding::kUTF8, 0), "abcdef");
  EXPECT_EQ(VQUtils::subString("abc", TextEncoding::kUTF8, 3), "abc");
  EXPECT_FALSE(VQUtils::subString("", TextEncoding::kUTF8, 3));
  // Two bytes a character in UTF-16; a surrogate pair is never split.
  EXPECT_EQ(VQUtils::subString("ab😀c", TextEncoding::kUTF16LittleEndian, 7), "ab");
  EXPECT_EQ(VQUtils::subString("ab😀c", TextEncoding::kUTF16LittleEndian, 8), "ab😀");
  // Two bytes for 中 in GB 18030 and Big5, one for ASCII.
  EXPECT_EQ(VQUtils::subString("中文abc", TextEncoding::kGB18030, 5), "中文a");
  EXPECT_EQ(VQUtils::subString("中文abc", TextEncoding::kBig5, 3), "中");
  // Not writable in the encoding at all, or an unknown encoding: unchanged.
  EXPECT_EQ(VQUtils::subString("déjà", TextEncoding::kASCII, 2), "déjà");
  EXPECT_EQ(VQUtils::subString("abcdef", 0xDEAD, 2), "abcdef");
}

TEST(VQUtilsNumbers, PureNumbersFollowTheScannerRules) {
  for (const char* yes : {"12", " 12\n", "+5", "-0", "\t-2147483648 ", "99999999999",
                          "\xC2\xA0"
                          "7"}) {
    EXPECT_TRUE(VQUtils::isPureInt(yes)) << yes;
  }
  for (const char* no : {"", "  ", "12a", "1.5", "+", "- 1", "1 2", "\xEF\xBC\x91"}) {
    EXPECT_FALSE(VQUtils::isPureInt(no)) << no;
  }
  for (const char* yes : {"1.5", ".5", "5.", "-1e3", "2E-2 ", "7"}) {
    EXPECT_TRUE(VQUtils::isPureFloat(yes)) << yes;
  }
  for (const char* no : {".", "1e", "1.5.2", "e5", "0x10", "nan", "1,5"}) {
    EXPECT_FALSE(VQUtils::isPureFloat(no)) << no;
  }
}

TEST(VQUtilsNumbers, ScannerClampsToThirtyTwoBitsAndConsumesEveryDigit) {
  nimb::Scanner scanner(" 99999999999x -99999999999");
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

  float f = 0;
  nimb::Scanner exponent("1e5x");
  ASSERT_TRUE(exponent.scanFloat(&f));
  EXPECT_FLOAT_EQ(f, 1e5f);
  nimb::Scanner noExponent("2.5e+");
  ASSERT_TRUE(noExponent.scanFloat(&f));
  EXPECT_FLOAT_EQ(f, 2.5f);
  EXPECT_EQ(noExponent.scanLocation(), 3u);
}

TEST(VQUtilsBase64, StandardAndWebSafeAlphabetsWithPadding) {
  EXPECT_EQ(VQUtils::base64Encode("hello"), "aGVsbG8=");
  const Data bytes{0xFB, 0xFF, 0xBF};
  EXPECT_EQ(VQUtils::base64EncodeData(bytes), "+/+/");
  EXPECT_EQ(VQUtils::base64WebSafeEncodeData(bytes), "-_-_");
  EXPECT_EQ(VQUtils::base64WebSafeEncodeData(Data{0xFF}), "_w==");
  EXPECT_EQ(VQUtils::base64DecodeData("+/+/"), bytes);
  EXPECT_EQ(VQUtils::base64WebSafeDecode("-_-_"), bytes);
  EXPECT_FALSE(VQUtils::base64DecodeData("-_-_"));
  EXPECT_FALSE(VQUtils::base64WebSafeDecode("+/+/"));
  EXPECT_FALSE(VQUtils::base64DecodeData("aGVs bG8="));
}

TEST(VQUtilsAES, MatchesTheOpensslCommand) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"0123456789abcdef", "hello"},
      {"0123456789abcdefXYZ", "exactly sixteen!"},
      {"sixteen-chars-ok+and-sixteen-more", ""},  // 33 bytes: refused below
      {"A secret of 32 characters, long.", "中文 and more than one block of text, é"},
      {"0123456789abcdef é", "x"},  // non-ASCII after the vector is fine
  };
  for (const auto& [secret, text] : cases) {
    auto token = VQUtils::AES256Encrypt(text, secret);
    if (secret.size() > 32 || text.empty()) {
      EXPECT_FALSE(token) << secret;
      continue;
    }
    ASSERT_TRUE(token) << secret;
    std::string key = secret;
    key.resize(32, '\0');
    const std::string vector = secret.substr(0, 16);
    auto openssl = nimb::test::runProgram(
        {"openssl", "enc", "-aes-256-cbc", "-K", hexOf(key), "-iv", hexOf(vector)}, text);
    ASSERT_EQ(openssl.exitCode, 0) << "the openssl command is needed: " << openssl.err;
    auto ours = VQUtils::base64WebSafeDecode(*token);
    ASSERT_TRUE(ours);
    EXPECT_EQ(hexOf(*ours), hexOf(openssl.out)) << secret;
  }
}

TEST(VQUtilsAES, BadParametersAreLoggedAndRefused) {
  VQUtils::setOpenLog(true);
  std::string out = captureStandardOutput([] {
    EXPECT_FALSE(VQUtils::AES256Encrypt("text", "fifteen chars!!"));
    EXPECT_FALSE(VQUtils::AES256Encrypt("", "0123456789abcdef"));
    EXPECT_FALSE(VQUtils::AES256Encrypt("text", "é123456789abcdef"));  // vector would not fit
  });
  std::size_t count = 0, at = 0;
  while ((at = out.find("AES encrypt failed: params error. \n", at)) != std::string::npos) {
    ++count;
    ++at;
  }
  EXPECT_EQ(count, 3u) << out;
}

TEST(VQUtilsLog, LineFormatPrefixAndQuirks) {
  nimb::Clock::setCurrent(
      std::make_shared<nimb::ManualClock>(nimb::Date::fromTimeIntervalSince1970(1772600767.089)));
  nimb::TimeZone::setDefaultTimeZoneName("GMT");
  char thread[16];
  std::snprintf(thread, sizeof thread, "%5d", static_cast<int>(::syscall(SYS_gettid)));
  const std::string header = std::string("[05:06:07.089(") + thread + ")] - ";

  VQUtils::setOpenLog(false);
  EXPECT_EQ(captureStandardOutput([] { VQUtils::outLog("off %d", 1); }), "");
  VQUtils::setOpenLog(true);
  EXPECT_TRUE(VQUtils::openLog());
  EXPECT_EQ(captureStandardOutput([] { VQUtils::outLog("n=%d s=%s", 42, "x"); }),
            header + "n=42 s=x \n");
  EXPECT_EQ(captureStandardOutput([] { VQUtils::outLog(nullptr); }), header + "nil\n");
  // A "%%" left in the message comes out doubled.
  EXPECT_EQ(captureStandardOutput([] { VQUtils::outLog("100%%%% and 5%%"); }),
            header + "100%%%% and 5% \n");
  VQUtils::setPrefix("[chat]");
  EXPECT_EQ(captureStandardOutput([] { VQUtils::outLog("hi"); }), header + "[chat] hi \n");
  VQUtils::setPrefix("");
  EXPECT_EQ(captureStandardOutput([] { VQUtils::outLog("hi"); }), header + "hi \n");
  VQUtils::setOpenLog(false);
  EXPECT_EQ(captureStandardOutput([] { VQUtils::outLog("hi"); }), "");
}

TEST(VQUtilsLog, LinesFromManyThreadsNeverMix) {
  VQUtils::setOpenLog(true);
  constexpr int kThreads = 6, kLines = 200;
  std::string out = captureStandardOutput([] {
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
  const std::regex line(R"(\[\d\d:\d\d:\d\d\.\d{3}\( *(\d+)\)\] - (p )?t(\d) (\d+) ([a-f]{200}) )");
  std::istringstream lines(out);
  std::string text;
  int count = 0;
  std::set<std::string> threadNumbers;
  while (std::getline(lines, text)) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(text, m, line)) << text;
    EXPECT_EQ(m[5].str()[0], 'a' + std::stoi(m[3].str()));
    threadNumbers.insert(m[1].str());
    ++count;
  }
  EXPECT_EQ(count, kThreads * kLines);
  EXPECT_EQ(threadNumbers.size(), static_cast<std::size_t>(kThreads));
}

TEST(VQUtilsRandom, StaysWithinTheBounds) {
  EXPECT_EQ(VQUtils::getRand(7, 7), 7);
  EXPECT_EQ(VQUtils::getRand(-3, -3), -3);
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
  nimb::Bundle::setResourcePath(resources);
  EXPECT_EQ(VQUtils::getBundleRes("smile.png", "Emoji.bundle"),
            resources + "/Emoji.bundle/smile.png");
  EXPECT_FALSE(VQUtils::getBundleRes("smile.png", "Missing.bundle"));
  EXPECT_FALSE(VQUtils::getBundleRes("", "Emoji.bundle"));
}

TEST(VQUtilsViews, TreesPrintWithBarHyphenIndentsAndABlankLinePerLevel) {
  auto root = std::make_shared<nimb::View>();
  auto a = std::make_shared<nimb::View>(nimb::Rect(1, 2, 3, 4));
  auto a1 = std::make_shared<nimb::View>(nimb::Rect(5, 6, 7, 8));
  auto a1x = std::make_shared<nimb::ImageView>(nimb::Rect(0, 0, 1, 1));
  auto b = std::make_shared<nimb::View>();
  root->addSubview(a);
  root->addSubview(b);
  a->addSubview(a1);
  a1->addSubview(a1x);
  const auto A = a->description(), A1 = a1->description(), A1X = a1x->description(),
             B = b->description();
  EXPECT_EQ(captureStandardOutput([&] { VQUtils::printViewHierarchy(*root, 0); }),
            A + "\n|-" + A1 + "\n|-|-" + A1X + "\n\n\n" + B + "\n\n");
  EXPECT_EQ(captureStandardOutput([&] {
              VQUtils::printViews({a, b}, 1);
            }),
            "|" + A + "\n|-|" + A1 + "\n|-|-|" + A1X + "\n\n\n|" + B + "\n\n");
  EXPECT_EQ(captureStandardOutput([&] { VQUtils::printViewHierarchy(*b, 3); }), "\n");
}

TEST(VQUtilsViews, AddImageDrawsAOverBAtTheScreenScaleCutToB) {
  nimb::Device::Overrides overrides;
  overrides.mainScreen = nimb::ScreenFacts{{320, 568}, 2.0, std::nullopt};
  nimb::Device::setOverrides(overrides);
  auto solid = [](int w, int h, std::uint8_t r, std::uint8_t g, std::uint8_t b) {
    nimb::Bitmap bitmap{w, h, {}};
    for (int i = 0; i < w * h; ++i) bitmap.rgba.insert(bitmap.rgba.end(), {r, g, b, 255});
    return nimb::Image::withBitmap(std::move(bitmap));
  };
  auto red = solid(4, 4, 255, 0, 0), blue = solid(2, 6, 0, 0, 255);
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
