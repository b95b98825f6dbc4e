#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/PropertyList.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <filesystem>
#include <limits>
#include <random>

#include "TestSupport.h"

namespace nimb {
namespace {

using namespace std::string_view_literals;
constexpr auto kXml = PropertyListFormat::Xml;
constexpr auto kBinary = PropertyListFormat::BinaryV1_0;
constexpr double kInf = std::numeric_limits<double>::infinity();

std::span<const std::uint8_t> bytesOf(std::string_view s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

std::optional<Value> roundTrip(const Value& v, PropertyListFormat format) {
  auto bytes = PropertyList::serialize(v, format);
  PropertyListFormat seen{};
  auto back = bytes ? PropertyList::parse(*bytes, &seen) : std::nullopt;
  EXPECT_TRUE(!back || seen == format);
  return back;
}

Value refDate(double seconds) {
  return Date::fromTimeIntervalSinceReferenceDate(seconds);
}

void putBigEndian(Data& out, std::uint64_t v, int width) {
  for (int k = width - 1; k >= 0; --k) out.push_back(static_cast<std::uint8_t>(v >> (8 * k)));
}

// A binary plist of raw objects whose references are `refSize` wide; object 0 is the top.
Data binaryPlist(const std::vector<Data>& objects, std::uint8_t refSize = 1) {
  Data out{'b', 'p', 'l', 'i', 's', 't', '0', '0'}, table;
  for (const Data& o : objects) {
    putBigEndian(table, out.size(), 4);
    out.insert(out.end(), o.begin(), o.end());
  }
  const std::uint64_t tableOffset = out.size();
  out.insert(out.end(), table.begin(), table.end());
  out.insert(out.end(), {0, 0, 0, 0, 0, 0, 4, refSize});
  putBigEndian(out, objects.size(), 8);
  putBigEndian(out, 0, 8);
  putBigEndian(out, tableOffset, 8);
  return out;
}

// Arrays only: object i holds references to children[i].
Data binaryOfArrays(const std::vector<std::vector<std::uint32_t>>& children) {
  std::vector<Data> objects;
  for (const auto& refs : children) {
    Data& o = objects.emplace_back(1, static_cast<std::uint8_t>(0xA0 | refs.size()));
    for (auto r : refs) putBigEndian(o, r, 4);
  }
  return binaryPlist(objects, 4);
}

std::string nestedXml(std::size_t levels, std::string_view open = "<array>") {
  std::string s = "<plist version=\"1.0\">";
  for (std::size_t i = 0; i < levels; ++i) s += open;
  for (std::size_t i = 0; i < levels; ++i) s += "</array>";
  return s + "</plist>";
}

TEST(PropertyListRoundTrip, EveryTypeSurvivesBothFormats) {
  Dictionary inner{{"flag", false}, {"empty array", Array{}}, {"empty dict", Dictionary{}}};
  Dictionary root{{"yes", true},
                  {"int", -42},
                  {"real", 2.5},
                  {"text", "h\xC3\xA9llo \xF0\x9F\x98\x80 <&>"},
                  {"", "empty key"},
                  {"bytes", Data{0, 1, 0xFF, 0x80}},
                  {"no bytes", Data{}},
                  {"when", refDate(86400)},
                  {"list", Array{1, "two", 3.0, inner}},
                  {"inner", inner}};
  EXPECT_EQ(roundTrip(root, kXml), Value(root));
  root["uid"] = Uid{7};
  EXPECT_EQ(roundTrip(root, kBinary), Value(root));
  auto binary = PropertyList::serialize(root, kBinary);
  ASSERT_TRUE(binary);
  EXPECT_EQ(std::string(binary->begin(), binary->begin() + 8), "bplist00");
}

TEST(PropertyListRoundTrip, RealsAreBitExactInBinaryAndSeventeenDigitsInXml) {
  for (double r : {0.1, 1.0 / 3, -1e300, std::numeric_limits<double>::denorm_min(),
                   std::numeric_limits<double>::max(), kInf, -0.0, 123456789.123456789}) {
    auto binary = roundTrip(r, kBinary);
    ASSERT_TRUE(binary && binary->asReal()) << r;
    EXPECT_EQ(std::bit_cast<std::uint64_t>(*binary->asReal()), std::bit_cast<std::uint64_t>(r));
    // XML writes %.17g, enough for every finite double; only -0.0 loses its sign.
    EXPECT_EQ(roundTrip(r, kXml), Value(r)) << r;
  }
  auto nan = roundTrip(std::nan(""), kBinary);
  EXPECT_TRUE(nan && nan->asReal() && std::isnan(*nan->asReal()));
}

TEST(PropertyListRoundTrip, StringsLibplistCannotCarryAreRefused) {
  for (auto format : {kXml, kBinary}) {
    EXPECT_FALSE(PropertyList::serialize("a\0b"sv, format));
    EXPECT_FALSE(PropertyList::serialize("bad \xFF utf8", format));
    EXPECT_FALSE(PropertyList::serialize("\xED\xA0\x80", format));               // a surrogate
    EXPECT_FALSE(PropertyList::serialize(Dictionary{{"\xC0\xAF", 1}}, format));  // overlong
  }
  EXPECT_FALSE(PropertyList::parse(bytesOf("<plist><string>\xC3(</string></plist>")));
}

TEST(PropertyListDates, KeepMicrosecondsAndSignAroundBothEpochs) {
  auto xml = PropertyList::serialize(refDate(0), kXml);
  ASSERT_TRUE(xml);
  EXPECT_NE(std::string(xml->begin(), xml->end()).find("<date>2001-01-01T00:00:00Z</date>"),
            std::string::npos);
  for (double s :
       {-0.5, 0.5, -1.25, 0.000001, -0.000001, -978307200.5, -1e9 - 0.75, 2147483647.999999})
    EXPECT_EQ(roundTrip(refDate(s), kBinary), refDate(s)) << s;
  // XML dates carry whole seconds only.
  const Value moonLanding = Date::fromTimeIntervalSince1970(-14182940);
  EXPECT_EQ(roundTrip(moonLanding, kXml), moonLanding);
  EXPECT_EQ(roundTrip(refDate(1.0000004), kBinary), refDate(1));
}

TEST(PropertyListDates, OutOfRangeInstantsClampToTheInt32Ends) {
  const Value latest = refDate(2147483647.999999), earliest = refDate(-2147483648.0);
  EXPECT_EQ(roundTrip(refDate(1e12), kBinary), latest);
  EXPECT_EQ(roundTrip(refDate(kInf), kBinary), latest);
  EXPECT_EQ(roundTrip(refDate(-1e12), kBinary), earliest);
  EXPECT_EQ(roundTrip(refDate(-kInf), kBinary), earliest);
  EXPECT_EQ(roundTrip(refDate(std::nan("")), kBinary), refDate(0));
  // Dates read from outside are held to the same range.
  EXPECT_EQ(PropertyList::parse(bytesOf("<plist><date>9999-01-01T00:00:00Z</date></plist>")),
            latest);
  EXPECT_EQ(PropertyList::parse(bytesOf("<plist><date>1850-01-01T00:00:00Z</date></plist>")),
            earliest);
}

TEST(PropertyListIntegers, EdgeValuesSurviveBothFormats) {
  using L64 = std::numeric_limits<std::int64_t>;
  for (std::int64_t i : {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, L64::min(), L64::max(),
                         std::int64_t{-2147483649}, std::int64_t{4294967296}}) {
    EXPECT_EQ(roundTrip(i, kXml), Value(i)) << i;
    EXPECT_EQ(roundTrip(i, kBinary), Value(i)) << i;
  }
  // Past INT64_MAX only the two's complement bits remain.
  EXPECT_EQ(PropertyList::parse(bytesOf("<plist><integer>18446744073709551615</integer></plist>")),
            Value(-1));
}

TEST(PropertyListRefusals, NullAnywhereFails) {
  for (auto format : {kXml, kBinary}) {
    EXPECT_FALSE(PropertyList::serialize(Value(), format));
    EXPECT_FALSE(PropertyList::serialize(Array{1, Null{}}, format));
    EXPECT_FALSE(PropertyList::serialize(Dictionary{{"a", Dictionary{{"b", Null{}}}}}, format));
  }
}

TEST(PropertyListRefusals, UidsOnlyInBinaryAndOnly32Bits) {
  for (std::uint64_t u : {0u, 255u, 256u, 0xFFFFFFFFu})
    EXPECT_EQ(roundTrip(Uid{u}, kBinary), Value(Uid{u})) << u;
  // libplist would write the low 32 bits only.
  EXPECT_FALSE(PropertyList::serialize(Uid{0x100000000}, kBinary));
  // XML has no UID: libplist's {CF$UID: n} stand-in reads back as a dictionary.
  EXPECT_FALSE(PropertyList::serialize(Array{Uid{3}}, kXml));
  auto standIn = PropertyList::parse(
      bytesOf("<plist><dict><key>CF$UID</key><integer>3</integer></dict></plist>"));
  EXPECT_TRUE(standIn && standIn->asDictionary());
}

TEST(PropertyListRefusals, NestingBeyondTheLimitFailsWithoutCrashing) {
  Value deep = Array{};
  for (int i = 1; i < 512; ++i) deep = Array{deep};
  EXPECT_TRUE(PropertyList::serialize(deep, kBinary));
  EXPECT_FALSE(PropertyList::serialize(Array{deep}, kBinary));
  EXPECT_TRUE(PropertyList::parse(bytesOf(nestedXml(512))));
  EXPECT_FALSE(PropertyList::parse(bytesOf(nestedXml(513))));
  // Deep enough that libplist's recursive free would overflow the stack, had
  // the depth check missed it. Comments and quoted '>' must not hide levels.
  EXPECT_FALSE(PropertyList::parse(bytesOf(nestedXml(1000000))));
  EXPECT_FALSE(PropertyList::parse(bytesOf(nestedXml(1000000, "<array><!-- > </x> -->"))));
  EXPECT_FALSE(PropertyList::parse(bytesOf(nestedXml(1000000, "<array a=\"></x>\">"))));
  EXPECT_FALSE(PropertyList::parse(bytesOf(nestedXml(1000000, "<array><!--></x>-->"))));

  std::vector<std::vector<std::uint32_t>> chain(513);
  for (std::uint32_t i = 0; i + 1 < chain.size(); ++i) chain[i] = {i + 1};
  EXPECT_FALSE(PropertyList::parse(binaryOfArrays(chain)));
  chain.pop_back();
  chain.back().clear();
  EXPECT_TRUE(PropertyList::parse(binaryOfArrays(chain)));
}

TEST(PropertyListParse, MalformedInputGivesNullopt) {
  EXPECT_FALSE(PropertyList::parse({}));
  EXPECT_FALSE(PropertyList::parse(bytesOf("bplist00")));
  EXPECT_FALSE(PropertyList::parse(bytesOf("not a plist at all")));
  EXPECT_FALSE(PropertyList::parse(binaryOfArrays({{0}})));  // a cycle
  EXPECT_FALSE(
      PropertyList::parse(binaryPlist({{0xAF, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 9}})));
  EXPECT_FALSE(PropertyList::parse(binaryPlist({{0x5F, 0x12, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}})));
  // libplist asserts on keys holding NUL, so they must never reach it.
  EXPECT_FALSE(PropertyList::parse(binaryPlist({{0xD1, 1, 2}, {0x53, 'a', 0, 'b'}, {0x09}})));
  EXPECT_FALSE(PropertyList::parse(binaryPlist({{0xD1, 1, 2}, {0x61, 0, 0}, {0x09}})));
  EXPECT_FALSE(PropertyList::parse(binaryPlist({{0xD1, 1, 2}, {0x10, 5}, {0x09}})));
  EXPECT_FALSE(
      PropertyList::parse(bytesOf("<plist><dict><key>a\0b</key><true/></dict></plist>"sv)));
  EXPECT_EQ(PropertyList::parse(bytesOf("<plist><true/></plist>\0"sv)), Value(true));
  // Every level refers to the next one twice: 2^40 nodes once expanded.
  std::vector<std::vector<std::uint32_t>> bomb(41);
  for (std::uint32_t i = 0; i < 40; ++i) bomb[i] = {i + 1, i + 1};
  EXPECT_FALSE(PropertyList::parse(binaryOfArrays(bomb)));

  const Value sample = Dictionary{{"a", Array{1, "s", 2.5}}, {"b", true}};
  const Data binary = *PropertyList::serialize(sample, kBinary);
  for (std::size_t n = 0; n < binary.size(); ++n)
    EXPECT_FALSE(PropertyList::parse(std::span(binary).first(n))) << n;
  const Data xml = *PropertyList::serialize(sample, kXml);
  const std::size_t rootClose = std::string(xml.begin(), xml.end()).rfind("</dict>");
  for (std::size_t n = 0; n < rootClose; ++n)
    EXPECT_FALSE(PropertyList::parse(std::span(xml).first(n))) << n;

  std::mt19937 random(20240601);
  for (int i = 0; i < 300; ++i) {
    Data garbage(random() % 256);
    for (auto& b : garbage) b = static_cast<std::uint8_t>(random());
    if (i % 2) std::copy_n("bplist00", std::min<std::size_t>(8, garbage.size()), garbage.begin());
    EXPECT_FALSE(PropertyList::parse(garbage)) << i;
  }
}

TEST(PropertyListFile, ReadingNeedsADictionaryInAReadableFile) {
  const std::string dir = test::makeTemporaryDirectory("nimb-plist");
  EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(dir + "/missing.plist"));
  ASSERT_TRUE(FileManager::writeAtomically(dir + "/array.plist",
                                           *PropertyList::serialize(Array{1, 2}, kXml)));
  EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(dir + "/array.plist"));
  ASSERT_TRUE(FileManager::writeAtomically(dir + "/corrupt.plist", "<plist><dict><key>"));
  EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(dir + "/corrupt.plist"));
  const Dictionary dict{{"k", "v"}};
  ASSERT_TRUE(
      FileManager::writeAtomically(dir + "/binary.plist", *PropertyList::serialize(dict, kBinary)));
  EXPECT_EQ(PropertyList::dictionaryWithContentsOfFile(dir + "/binary.plist"), dict);
  std::filesystem::remove_all(dir);
}

TEST(PropertyListFile, WritingReplacesAtomicallyAsXml) {
  const std::string dir = test::makeTemporaryDirectory("nimb-plist");
  const std::string path = dir + "/settings.plist";
  const Dictionary first{{"count", 1}}, second{{"count", 2}, {"name", "x"}};
  ASSERT_TRUE(PropertyList::writeDictionaryToFile(first, path));
  ASSERT_TRUE(PropertyList::writeDictionaryToFile(second, path));
  EXPECT_EQ(PropertyList::dictionaryWithContentsOfFile(path), second);
  auto bytes = FileManager::contentsAtPath(path);
  ASSERT_TRUE(bytes);
  const std::string text(bytes->begin(), bytes->end());
  EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist", 0), 0u);
  EXPECT_NE(text.find("<plist version=\"1.0\">"), std::string::npos);
  EXPECT_FALSE(PropertyList::writeDictionaryToFile({{"bad", Null{}}}, dir + "/null.plist"));
  EXPECT_FALSE(PropertyList::writeDictionaryToFile(first, dir + "/no/such/dir.plist"));
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"settings.plist"});
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace nimb
