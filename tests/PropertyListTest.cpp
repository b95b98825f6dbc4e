// PropertyList: XML and binary round trips, dates, refusals, hostile input, files.
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <utility>

#include "TestSupport.h"

namespace nimb {
namespace {

using namespace std::string_view_literals;
using test::dataOf;
constexpr auto kXml = PropertyListFormat::Xml;
constexpr auto kBinary = PropertyListFormat::BinaryV1_0;
constexpr double kInf = std::numeric_limits<double>::infinity();

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

// A binary plist of raw objects with 2-byte references; object 0 is the top.
Data binaryPlist(const std::vector<Data>& objects) {
  Data out = dataOf("bplist00"), table;
  for (const Data& o : objects) {
    for (int k = 24; k >= 0; k -= 8) table.push_back(std::uint8_t(out.size() >> k));
    out.insert(out.end(), o.begin(), o.end());
  }
  // Trailer: offsets 4 bytes wide and references 2, object count, top object, table offset.
  const std::uint64_t trailer[] = {0x0402, objects.size(), 0, out.size()};
  out.insert(out.end(), table.begin(), table.end());
  for (std::uint64_t v : trailer)
    for (int k = 56; k >= 0; k -= 8) out.push_back(std::uint8_t(v >> k));
  return out;
}

// `levels` nested arrays, each but the innermost holding `refs` references to the next.
Data nestedBinary(std::size_t levels, std::uint8_t refs = 1) {
  std::vector<Data> objects(levels, Data{std::uint8_t(0xA0 | refs)});
  objects.back() = {0xA0};
  for (std::size_t i = 0; i + 1 < levels; ++i)
    for (int k = 0; k < refs; ++k)
      objects[i].insert(objects[i].end(), {std::uint8_t((i + 1) >> 8), std::uint8_t(i + 1)});
  return binaryPlist(objects);
}

std::string nestedXml(std::size_t levels, std::string_view open = "<array>") {
  std::string s = "<plist version=\"1.0\">";
  for (std::size_t i = 0; i < levels; ++i) s += open;
  for (std::size_t i = 0; i < levels; ++i) s += "</array>";
  return s + "</plist>";
}

TEST(PropertyListRoundTrip, EveryTypeAndEdgeValueSurvivesBothFormats) {
  using L64 = std::numeric_limits<std::int64_t>;
  Dictionary inner{{"flag", false}, {"empty array", Array{}}, {"empty dict", Dictionary{}}};
  Dictionary root{{"yes", true},
                  {"", "empty key"},
                  {"text", "h\xC3\xA9llo \xF0\x9F\x98\x80 <&>"},
                  {"bytes", Data{0, 1, 0xFF, 0x80}},
                  {"no bytes", Data{}},
                  {"when", refDate(86400)},
                  {"list", Array{1, "two", 3.0, inner}},
                  {"inner", inner}};
  root["ints"] = Array{0, 1, -1, L64::min(), L64::max(), -2147483649LL, 4294967296LL};
  root["reals"] = Array{2.5, 0.1, 1.0 / 3, -1e300, std::numeric_limits<double>::denorm_min(), kInf};
  EXPECT_EQ(roundTrip(root, kXml), Value(root));
  root["uids"] = Array{Uid{0}, Uid{255}, Uid{256}, Uid{0xFFFFFFFF}};
  EXPECT_EQ(roundTrip(root, kBinary), Value(root));
}

TEST(PropertyListRefusals, NullBadStringsAndMisplacedUidsAreNotSerialized) {
  for (auto format : {kXml, kBinary}) {
    EXPECT_FALSE(PropertyList::serialize(Value(), format));
    EXPECT_FALSE(PropertyList::serialize(Array{1, Null{}}, format));
    EXPECT_FALSE(PropertyList::serialize(Dictionary{{"a", Dictionary{{"b", Null{}}}}}, format));
    // A NUL, invalid UTF-8, a surrogate, an overlong form; as strings and as keys.
    for (auto bad : {"a\0b"sv, "bad \xFF utf8"sv, "\xED\xA0\x80"sv, "\xC0\xAF"sv}) {
      EXPECT_FALSE(PropertyList::serialize(bad, format)) << bad;
      EXPECT_FALSE(PropertyList::serialize(Dictionary{{std::string(bad), 1}}, format)) << bad;
    }
  }
  EXPECT_FALSE(PropertyList::serialize(Array{Uid{3}}, kXml));        // XML has no UID
  EXPECT_FALSE(PropertyList::serialize(Uid{0x100000000}, kBinary));  // libplist keeps 32 bits
}

TEST(PropertyListDates, BinaryKeepsMicrosecondsXmlWholeSecondsAndBothClamp) {
  for (double s : {-0.5, 0.5, -1.25, 0.000001, -0.000001, -978307200.5, -1e9 - 0.75})
    EXPECT_EQ(roundTrip(refDate(s), kBinary), refDate(s)) << s;
  EXPECT_EQ(roundTrip(refDate(1.0000004), kBinary), refDate(1));
  // XML carries whole seconds (either neighbour will do), before 1970 too.
  const Date moonLanding = Date::fromTimeIntervalSince1970(-14182940);
  auto xml = roundTrip(moonLanding.addingTimeInterval(0.5), kXml);
  EXPECT_TRUE(xml == Value(moonLanding) || xml == Value(moonLanding.addingTimeInterval(1)));
  // Instants libplist cannot store clamp to its int32 range, also when read from XML.
  const Value hi = refDate(2147483647.999999), lo = refDate(-2147483648.0);
  for (auto [in, out] :
       {std::pair{1e12, hi}, {kInf, hi}, {-1e12, lo}, {-kInf, lo}, {NAN, refDate(0)}})
    EXPECT_EQ(roundTrip(refDate(in), kBinary), out) << in;
  EXPECT_EQ(PropertyList::parse(dataOf("<plist><date>9999-01-01T00:00:00Z</date></plist>")), hi);
  EXPECT_EQ(PropertyList::parse(dataOf("<plist><date>1850-01-01T00:00:00Z</date></plist>")), lo);
}

TEST(PropertyListParse, NestingBeyondTheLimitFailsWithoutCrashing) {
  Value deep = Array{};
  for (int i = 1; i < 512; ++i) deep = Array{deep};
  EXPECT_TRUE(PropertyList::serialize(deep, kBinary));
  EXPECT_FALSE(PropertyList::serialize(Array{deep}, kBinary));
  EXPECT_TRUE(PropertyList::parse(dataOf(nestedXml(512))));
  EXPECT_FALSE(PropertyList::parse(dataOf(nestedXml(513))));
  // Deep enough to overflow libplist's recursive free, had the depth check
  // missed it. Comments and quoted '>' must not hide levels.
  for (auto open :
       {"<array>"sv, "<array><!-- > </x> -->"sv, "<array a=\"></x>\">"sv, "<array><!--></x>-->"sv})
    EXPECT_FALSE(PropertyList::parse(dataOf(nestedXml(1000000, open)))) << open;
  EXPECT_TRUE(PropertyList::parse(nestedBinary(512)));
  EXPECT_FALSE(PropertyList::parse(nestedBinary(513)));
}

TEST(PropertyListParse, MalformedInputGivesNulloptWithoutCrashing) {
  // Sound framing: a dictionary {"k": true}; a trailing NUL after XML is fine.
  const Dictionary good{{"k", true}};
  EXPECT_EQ(PropertyList::parse(binaryPlist({{0xD1, 0, 1, 0, 2}, {0x51, 'k'}, {0x09}})), good);
  EXPECT_EQ(PropertyList::parse(dataOf("<plist><true/></plist>\0"sv)), Value(true));
  // Empty, a bare header, text, a key holding NUL (libplist asserts on those), bad UTF-8.
  for (auto text : {""sv, "bplist00"sv, "not a plist"sv, "<plist><string>\xC3(</string></plist>"sv,
                    "<plist><dict><key>a\0b</key><true/></dict></plist>"sv})
    EXPECT_FALSE(PropertyList::parse(dataOf(text))) << text;
  // Counts far past the end; keys holding NUL or not strings at all.
  const std::vector<Data> objects[] = {{{0xAF, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 9}},
                                       {{0x5F, 0x12, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}},
                                       {{0xD1, 0, 1, 0, 2}, {0x53, 'a', 0, 'b'}, {0x09}},
                                       {{0xD1, 0, 1, 0, 2}, {0x61, 0, 0}, {0x09}},
                                       {{0xD1, 0, 1, 0, 2}, {0x10, 5}, {0x09}}};
  for (const auto& o : objects) EXPECT_FALSE(PropertyList::parse(binaryPlist(o))) << &o - objects;
  // An array holding itself; 2^40 nodes once expanded, each level referring to the next twice.
  EXPECT_FALSE(PropertyList::parse(binaryPlist({{0xA1, 0, 0}})));
  EXPECT_FALSE(PropertyList::parse(nestedBinary(41, 2)));
  // One 60 KB string shared by 20,000 places: 1.2 GB once copied into each.
  // Referenced a few times it is fine.
  auto sharedString = [](std::uint16_t places) {
    Data array{0xAF, 0x11, std::uint8_t(places >> 8), std::uint8_t(places)};
    for (int i = 0; i < places; ++i) array.insert(array.end(), {0, 1});
    Data string{0x5F, 0x11, 0xEA, 0x60};
    string.resize(string.size() + 60000, 'a');
    return binaryPlist({array, string});
  };
  EXPECT_FALSE(PropertyList::parse(sharedString(20000)));
  auto few = PropertyList::parse(sharedString(4));
  ASSERT_TRUE(few && few->asArray());
  EXPECT_EQ(few->asArray()->size(), 4u);
  // Every cut short of the end (of the root's closing tag, in XML).
  const Value sample = Dictionary{{"a", Array{1, "s", 2.5}}, {"b", true}};
  const Data binary = *PropertyList::serialize(sample, kBinary);
  for (std::size_t n = 0; n < binary.size(); ++n)
    EXPECT_FALSE(PropertyList::parse(std::span(binary).first(n))) << n;
  const Data xml = *PropertyList::serialize(sample, kXml);
  const std::size_t rootClose = std::string(xml.begin(), xml.end()).rfind("</dict>");
  for (std::size_t n = 0; n < rootClose; ++n)
    EXPECT_FALSE(PropertyList::parse(std::span(xml).first(n))) << n;
}

TEST(PropertyListFile, ReadsOnlyDictionariesAndWritesXmlAtomically) {
  const std::string dir = test::makeTemporaryDirectory("nimb-plist"), path = dir + "/a.plist";
  ASSERT_TRUE(
      FileManager::writeAtomically(dir + "/array", *PropertyList::serialize(Array{}, kXml)));
  ASSERT_TRUE(FileManager::writeAtomically(dir + "/corrupt", "<plist><dict><key>"));
  // A failure says why, and on which file.
  for (auto [name, code] :
       {std::pair{"/missing", ENOENT}, {"/array", EBADMSG}, {"/corrupt", EBADMSG}}) {
    auto read = PropertyList::dictionaryWithContentsOfFile(dir + name);
    ASSERT_FALSE(read) << name;
    EXPECT_EQ(read.error(), (nimb::SystemError{code, dir + name})) << name;
  }
  const Dictionary first{{"count", 1}}, second{{"count", 2}, {"when", refDate(0)}};
  ASSERT_TRUE(FileManager::writeAtomically(path, *PropertyList::serialize(first, kBinary)));
  EXPECT_EQ(PropertyList::dictionaryWithContentsOfFile(path).optional(), first);
  ASSERT_TRUE(PropertyList::writeToFile(second, path));  // replaces the file
  EXPECT_EQ(PropertyList::dictionaryWithContentsOfFile(path).optional(), second);
  const std::string text = test::readFile(path);
  EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist", 0), 0u);
  EXPECT_NE(text.find("<date>2001-01-01T00:00:00Z</date>"), std::string::npos);
  auto unfit = PropertyList::writeToFile({{"bad", Null{}}}, dir + "/null.plist");
  ASSERT_FALSE(unfit);
  EXPECT_EQ(unfit.error(), (nimb::SystemError{EINVAL, dir + "/null.plist"}));
  auto nowhere = PropertyList::writeToFile(first, dir + "/no/such/dir.plist");
  ASSERT_FALSE(nowhere);
  EXPECT_EQ(nowhere.error(), (nimb::SystemError{ENOENT, dir + "/no/such/dir.plist"}));
  EXPECT_EQ(nowhere.error().message(), std::strerror(ENOENT) + (": " + dir + "/no/such/dir.plist"));
  // a.plist, array and corrupt: no temporary file is left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 3);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace nimb
