// KeyedArchive: round trips, archives laid out as the platform writes them, corrupt input.
#include <NimbFoundation/Platform/Storage/KeyedArchive.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace nimb {
namespace {

Value refDate(double seconds) {
  return Date::fromTimeIntervalSinceReferenceDate(seconds);
}

Dictionary classObject(std::vector<std::string> classes) {
  Array names(classes.begin(), classes.end());
  return {{"$classname", classes.front()}, {"$classes", std::move(names)}};
}

Dictionary archiveOf(Array objects, Uid root = {1}) {
  return {{"$archiver", "NSKeyedArchiver"},
          {"$version", 100000},
          {"$top", Dictionary{{"root", root}}},
          {"$objects", std::move(objects)}};
}

std::optional<Value> unarchive(const Dictionary& archive) {
  const auto bytes = PropertyList::serialize(archive, PropertyListFormat::BinaryV1_0);
  EXPECT_TRUE(bytes);
  return bytes ? KeyedArchive::unarchiveObjectWithData(*bytes) : std::nullopt;
}

// A record as the platform's archiver lays it out: mutable classes, class
// objects shared, one string object in two places, a key that is a string
// object, and string and data objects where inline values would also do.
Dictionary platformArchive() {
  const Uid mutableDictionary{9}, mutableString{10};
  Array objects{
      "$null",
      Dictionary{{"NS.keys", Array{Uid{2}, Uid{3}, Uid{4}, Uid{5}}},
                 {"NS.objects", Array{Uid{6}, Uid{7}, Uid{8}, Uid{6}}},
                 {"$class", mutableDictionary}},
      "name",
      "created",
      "tags",
      Dictionary{{"NS.string", "alias"}, {"$class", mutableString}},
      Dictionary{{"NS.string", "device-1"}, {"$class", mutableString}},
      Dictionary{{"NS.time", 600000000.25}, {"$class", Uid{11}}},
      Dictionary{{"NS.objects", Array{Uid{12}, Uid{13}, Uid{14}}}, {"$class", Uid{15}}},
      classObject({"NSMutableDictionary", "NSDictionary", "NSObject"}),
      classObject({"NSMutableString", "NSString", "NSObject"}),
      classObject({"NSDate", "NSObject"}),
      "a",
      Dictionary{{"NS.bytes", Data{1, 2}}, {"$class", Uid{16}}},
      Dictionary{{"NS.keys", Array{}}, {"NS.objects", Array{}}, {"$class", mutableDictionary}},
      classObject({"NSMutableArray", "NSArray", "NSObject"}),
      classObject({"NSMutableData", "NSData", "NSObject"})};
  return archiveOf(std::move(objects));
}

// `levels` arrays, each holding `refs` references to the next.
Dictionary chainOfArrays(std::uint64_t levels, int refs) {
  Array objects{"$null"};
  for (std::uint64_t i = 1; i <= levels; ++i)
    objects.emplace_back(Dictionary{{"NS.objects", i < levels ? Array(refs, Uid{i + 1}) : Array{}},
                                    {"$class", Uid{levels + 1}}});
  objects.emplace_back(classObject({"NSArray", "NSObject"}));
  return archiveOf(std::move(objects));
}

TEST(KeyedArchiveRoundTrip, NestedValuesReadBackAndClassObjectsAreWrittenOnce) {
  using L64 = std::numeric_limits<std::int64_t>;
  const Dictionary inner{{"when", refDate(-1.5)}, {"none", Array{}}, {"empty", Dictionary{}}};
  const Dictionary root{{"text", "h\xC3\xA9llo"},
                        {"nil text", "$null"},
                        {"ints", Array{L64::min(), -1, 0, L64::max()}},
                        {"real", 2.5},
                        {"yes", true},
                        {"no", false},
                        {"created", refDate(700000000.125)},
                        {"bytes", Data{0, 0xFF}},
                        {"no bytes", Data{}},
                        {"list", Array{inner, "x", Array{inner}}}};
  const auto bytes = KeyedArchive::archivedDataWithRootObject(root);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(KeyedArchive::unarchiveObjectWithData(*bytes), Value(root));

  // The header, "$null" first, and one class object per class however often it is used.
  const auto archive = PropertyList::parse(*bytes);
  const Value* objects = archive ? archive->find("$objects") : nullptr;
  ASSERT_TRUE(objects && objects->asArray());
  const Array& list = *objects->asArray();
  EXPECT_EQ(archive, Value(archiveOf(list)));
  EXPECT_EQ(list.front(), Value("$null"));
  for (const char* name : {"NSDictionary", "NSArray", "NSDate"})
    EXPECT_EQ(std::count(list.begin(), list.end(), Value(classObject({name, "NSObject"}))), 1)
        << name;

  // What has no archived form, and nesting: 512 containers are fine, 513 are not.
  for (const Value& bad : {Value(), Value(Array{1, Null{}}), Value(Dictionary{{"k", Uid{1}}}),
                           Value("bad \xFF"), Value(Dictionary{{"\xC0\xAF", 1}})})
    EXPECT_FALSE(KeyedArchive::archivedDataWithRootObject(bad));
  Value deep = Array{};
  for (int i = 1; i < 512; ++i) deep = Dictionary{{"k", deep}};
  const auto deepBytes = KeyedArchive::archivedDataWithRootObject(deep);
  ASSERT_TRUE(deepBytes);
  EXPECT_EQ(KeyedArchive::unarchiveObjectWithData(*deepBytes), deep);
  EXPECT_FALSE(KeyedArchive::archivedDataWithRootObject(Array{deep}));
}

// The platform's layout reads, shared objects included; any corruption of it
// gives nullopt.
TEST(KeyedArchiveRead, PlatformLayoutReadsAndCorruptArchivesGiveNullopt) {
  const Dictionary expected{{"name", "device-1"},
                            {"alias", "device-1"},
                            {"created", refDate(600000000.25)},
                            {"tags", Array{"a", Data{1, 2}, Dictionary{}}}};
  EXPECT_EQ(unarchive(platformArchive()), Value(expected));
  // Sharing is bounded by depth, not by how often an object is referenced.
  EXPECT_TRUE(unarchive(chainOfArrays(512, 1)));
  EXPECT_FALSE(unarchive(chainOfArrays(513, 1)));
  EXPECT_FALSE(unarchive(chainOfArrays(64, 2)));  // 2^64 arrays once expanded
  auto object = [](Dictionary& archive, std::size_t i) -> Dictionary& {
    return *(*archive["$objects"].asArray())[i].asDictionary();
  };
  auto refs = [&](Dictionary& archive, std::size_t i, const char* key) -> Array& {
    return *object(archive, i)[key].asArray();
  };
  const std::pair<const char*, std::function<void(Dictionary&)>> edits[] = {
      {"UID past $objects", [&](Dictionary& a) { refs(a, 1, "NS.objects")[3] = Uid{17}; }},
      {"dictionary holds itself", [&](Dictionary& a) { refs(a, 1, "NS.objects")[3] = Uid{1}; }},
      {"cycle through an array", [&](Dictionary& a) { refs(a, 8, "NS.objects")[2] = Uid{1}; }},
      {"key count mismatch", [&](Dictionary& a) { refs(a, 1, "NS.keys").pop_back(); }},
      {"date as key", [&](Dictionary& a) { refs(a, 1, "NS.keys")[0] = Uid{7}; }},
      {"repeated key", [&](Dictionary& a) { refs(a, 1, "NS.keys")[0] = Uid{3}; }},
      {"nil value", [&](Dictionary& a) { refs(a, 8, "NS.objects")[0] = Uid{0}; }},
      {"unknown class", [&](Dictionary& a) { object(a, 11)["$classname"] = "NSURL"; }},
      {"integer NS.time", [&](Dictionary& a) { object(a, 7)["NS.time"] = 6; }},
      {"wrong $archiver", [](Dictionary& a) { a["$archiver"] = "NSArchiver"; }},
      {"wrong $version", [](Dictionary& a) { a["$version"] = 1; }},
      {"no $top", [](Dictionary& a) { a.erase("$top"); }},
      {"no root", [](Dictionary& a) { a["$top"] = Dictionary(); }},
      {"nil root", [](Dictionary& a) { (*a["$top"].asDictionary())["root"] = Uid{0}; }},
      {"no $null", [&](Dictionary& a) { (*a["$objects"].asArray())[0] = "null"; }},
  };
  for (const auto& [what, edit] : edits) {
    Dictionary archive = platformArchive();
    edit(archive);
    EXPECT_FALSE(unarchive(archive)) << what;
  }

  std::mt19937 random(7);
  for (std::size_t n = 0; n < 300; ++n) {
    Data junk(n);
    for (auto& b : junk) b = static_cast<std::uint8_t>(random());
    if (n % 2 && n >= 40) std::copy_n("bplist00", 8, junk.begin());
    EXPECT_FALSE(KeyedArchive::unarchiveObjectWithData(junk)) << n;
  }
}

}  // namespace
}  // namespace nimb
