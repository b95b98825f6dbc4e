#include <NimbFoundation/Platform/Storage/KeyedArchive.h>

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <NimbFoundation/Platform/Storage/PropertyList.h>

namespace nimb {

namespace {

// How many containers may enclose a value, as in PropertyList.
constexpr std::size_t kMaxNesting = 512;

constexpr std::string_view kArchiver = "NSKeyedArchiver";
constexpr std::int64_t kVersion = 100000;
constexpr std::string_view kNil = "$null";

// An archive may place one object in many places, and every place becomes
// its own copy when read. Reading may therefore take this many times the
// memory of the archive's own objects, plus a fixed allowance so that small
// archives sharing a string or two are never refused.
constexpr std::uint64_t kMaxExpansion = 16;
constexpr std::uint64_t kExpansionAllowance = std::uint64_t{1} << 20;

enum class Kind { Dictionary, Array, Date, String, Data };

struct ClassName {
  std::string_view name;
  Kind kind;
};
constexpr ClassName kClassNames[] = {
    {"NSDictionary", Kind::Dictionary},
    {"NSMutableDictionary", Kind::Dictionary},
    {"NSArray", Kind::Array},
    {"NSMutableArray", Kind::Array},
    {"NSDate", Kind::Date},
    {"NSString", Kind::String},
    {"NSMutableString", Kind::String},
    {"NSData", Kind::Data},
    {"NSMutableData", Kind::Data},
};

const Value* field(const Dictionary& object, std::string_view key) {
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &it->second;
}

// ---- Writing ---------------------------------------------------------------

// Lays a value out in $objects the way the platform's archiver does: a
// container first takes its own slot, then its keys, then its values, and
// its class object follows the first object of that class.
class Writer {
 public:
  Array objects{Value(kNil)};

  std::optional<Uid> add(const Value& value, std::size_t nesting) {
    switch (value.type()) {
      case Value::Type::Null:
      case Value::Type::Uid:
        return std::nullopt;
      case Value::Type::Boolean:
      case Value::Type::Integer:
      case Value::Type::Real:
      case Value::Type::String:
      case Value::Type::Data:
        objects.push_back(value);
        return Uid{objects.size() - 1};
      case Value::Type::Date: {
        const std::size_t at = reserve();
        Dictionary object{{"NS.time", value.asDate()->timeIntervalSinceReferenceDate()}};
        object.emplace("$class", classOf("NSDate"));
        objects[at] = std::move(object);
        return Uid{at};
      }
      case Value::Type::Array: {
        if (nesting >= kMaxNesting) return std::nullopt;
        const std::size_t at = reserve();
        Array refs;
        refs.reserve(value.asArray()->size());
        for (const Value& item : *value.asArray()) {
          const auto uid = add(item, nesting + 1);
          if (!uid) return std::nullopt;
          refs.emplace_back(*uid);
        }
        Dictionary object{{"NS.objects", std::move(refs)}};
        object.emplace("$class", classOf("NSArray"));
        objects[at] = std::move(object);
        return Uid{at};
      }
      case Value::Type::Dictionary: {
        if (nesting >= kMaxNesting) return std::nullopt;
        const std::size_t at = reserve();
        const Dictionary& dict = *value.asDictionary();
        Array keys, refs;
        keys.reserve(dict.size());
        refs.reserve(dict.size());
        for (const auto& entry : dict) {
          objects.emplace_back(entry.first);
          keys.emplace_back(Uid{objects.size() - 1});
        }
        for (const auto& entry : dict) {
          const auto uid = add(entry.second, nesting + 1);
          if (!uid) return std::nullopt;
          refs.emplace_back(*uid);
        }
        Dictionary object{{"NS.keys", std::move(keys)}, {"NS.objects", std::move(refs)}};
        object.emplace("$class", classOf("NSDictionary"));
        objects[at] = std::move(object);
        return Uid{at};
      }
    }
    return std::nullopt;
  }

 private:
  std::size_t reserve() {
    objects.emplace_back();
    return objects.size() - 1;
  }

  // The one class object for `name`, written on first use.
  Uid classOf(std::string_view name) {
    const auto [it, added] = classes_.try_emplace(name, Uid{objects.size()});
    if (added) {
      objects.emplace_back(Dictionary{{"$classname", name}, {"$classes", Array{name, "NSObject"}}});
    }
    return it->second;
  }

  std::map<std::string_view, Uid> classes_;
};

// ---- Reading ---------------------------------------------------------------

// The memory a parsed value takes, roughly: one Value per node and the bytes
// of its strings and data.
std::uint64_t footprint(const Value& value) {
  std::uint64_t size = sizeof(Value);
  if (const auto* s = value.asString()) {
    size += s->size();
  } else if (const auto* d = value.asData()) {
    size += d->size();
  } else if (const auto* array = value.asArray()) {
    for (const Value& item : *array) size += footprint(item);
  } else if (const auto* dict = value.asDictionary()) {
    for (const auto& [key, item] : *dict) size += key.size() + footprint(item);
  }
  return size;
}

// Resolves UIDs into the value they name. Every object read is charged to a
// memory budget, and a container being read is marked active, so shared
// objects cannot expand without bound and cycles fail instead of looping.
class Reader {
 public:
  explicit Reader(const Array& objects)
      : objects_(objects),
        active_(objects.size(), false),
        budget_(kMaxExpansion * footprint(objects) + kExpansionAllowance) {}

  bool read(Uid uid, std::size_t nesting, Value& out) {
    if (!named(uid) || !charge(sizeof(Value))) return false;
    const Value& object = objects_[uid.value];
    switch (object.type()) {
      case Value::Type::Boolean:
      case Value::Type::Integer:
      case Value::Type::Real:
        out = object;
        return true;
      case Value::Type::String:
        return copyOut(object, object.asString()->size(), out);
      case Value::Type::Data:
        return copyOut(object, object.asData()->size(), out);
      case Value::Type::Dictionary:
        break;
      default:  // dates, arrays and UIDs never stand in $objects on their own
        return false;
    }
    const Dictionary& fields = *object.asDictionary();
    const auto kind = kindOf(fields);
    if (!kind) return false;
    switch (*kind) {
      case Kind::String: {
        const Value* s = field(fields, "NS.string");
        return s && s->asString() && copyOut(*s, s->asString()->size(), out);
      }
      case Kind::Data: {
        const Value* d = field(fields, "NS.bytes");
        return d && d->asData() && copyOut(*d, d->asData()->size(), out);
      }
      case Kind::Date: {
        const Value* time = field(fields, "NS.time");
        if (!time || !time->asReal()) return false;
        out = Date::fromTimeIntervalSinceReferenceDate(*time->asReal());
        return true;
      }
      case Kind::Array:
      case Kind::Dictionary:
        if (nesting >= kMaxNesting || active_[uid.value]) return false;
        active_[uid.value] = true;
        if (!(*kind == Kind::Array ? readArray(fields, nesting, out)
                                   : readDictionary(fields, nesting, out)))
          return false;
        active_[uid.value] = false;
        return true;
    }
    return false;
  }

 private:
  // A UID naming an object: inside $objects and not nil.
  bool named(Uid uid) const { return uid.value != 0 && uid.value < objects_.size(); }

  bool charge(std::uint64_t bytes) {
    if (bytes > budget_) return false;
    budget_ -= bytes;
    return true;
  }

  bool copyOut(const Value& value, std::size_t bytes, Value& out) {
    if (!charge(bytes)) return false;
    out = value;
    return true;
  }

  // The kind of object `fields` is, by the class object its "$class" names.
  std::optional<Kind> kindOf(const Dictionary& fields) const {
    const Value* ref = field(fields, "$class");
    if (!ref || !ref->asUid() || !named(*ref->asUid())) return std::nullopt;
    const Value* name = objects_[ref->asUid()->value].find("$classname");
    if (!name || !name->asString()) return std::nullopt;
    for (const ClassName& c : kClassNames)
      if (c.name == *name->asString()) return c.kind;
    return std::nullopt;
  }

  // The array under `key` when it holds nothing but UIDs.
  static const Array* uids(const Dictionary& fields, std::string_view key) {
    const Value* refs = field(fields, key);
    if (!refs || !refs->asArray()) return nullptr;
    for (const Value& ref : *refs->asArray())
      if (!ref.asUid()) return nullptr;
    return refs->asArray();
  }

  // The text of a dictionary key: a string, or a string object.
  const std::string* keyAt(Uid uid) const {
    if (!named(uid)) return nullptr;
    const Value& object = objects_[uid.value];
    if (object.asString()) return object.asString();
    if (!object.asDictionary() || kindOf(*object.asDictionary()) != Kind::String) return nullptr;
    const Value* s = object.find("NS.string");
    return s ? s->asString() : nullptr;
  }

  bool readArray(const Dictionary& fields, std::size_t nesting, Value& out) {
    const Array* refs = uids(fields, "NS.objects");
    if (!refs) return false;
    Array array;
    array.reserve(refs->size());
    for (const Value& ref : *refs)
      if (!read(*ref.asUid(), nesting + 1, array.emplace_back())) return false;
    out = std::move(array);
    return true;
  }

  bool readDictionary(const Dictionary& fields, std::size_t nesting, Value& out) {
    const Array* keys = uids(fields, "NS.keys");
    const Array* refs = uids(fields, "NS.objects");
    if (!keys || !refs || keys->size() != refs->size()) return false;
    Dictionary dict;
    for (std::size_t i = 0; i < keys->size(); ++i) {
      const std::string* key = keyAt(*(*keys)[i].asUid());
      if (!key || !charge(sizeof(Value) + key->size())) return false;
      Value value;
      if (!read(*(*refs)[i].asUid(), nesting + 1, value)) return false;
      if (!dict.try_emplace(*key, std::move(value)).second) return false;  // a repeated key
    }
    out = std::move(dict);
    return true;
  }

  const Array& objects_;
  std::vector<bool> active_;
  std::uint64_t budget_;
};

std::optional<Value> unarchive(std::span<const std::uint8_t> bytes) {
  const auto archive = PropertyList::parse(bytes);
  if (!archive) return std::nullopt;
  const Value* archiver = archive->find("$archiver");
  const Value* version = archive->find("$version");
  const Value* top = archive->find("$top");
  const Value* objects = archive->find("$objects");
  if (!archiver || !archiver->asString() || *archiver->asString() != kArchiver) return std::nullopt;
  if (!version || !version->asInteger() || *version->asInteger() != kVersion) return std::nullopt;
  const Value* root = top ? top->find("root") : nullptr;
  if (!root || !root->asUid()) return std::nullopt;
  if (!objects || !objects->asArray() || objects->asArray()->empty()) return std::nullopt;
  const Array& list = *objects->asArray();
  if (!list.front().asString() || *list.front().asString() != kNil) return std::nullopt;
  Value value;
  if (!Reader(list).read(*root->asUid(), 0, value)) return std::nullopt;
  return value;
}

}  // namespace

std::optional<Data> KeyedArchive::archivedDataWithRootObject(const Value& root) {
  try {
    Writer writer;
    const auto uid = writer.add(root, 0);
    if (!uid) return std::nullopt;
    Dictionary archive{{"$archiver", kArchiver},
                       {"$version", kVersion},
                       {"$top", Dictionary{{"root", *uid}}},
                       {"$objects", std::move(writer.objects)}};
    return PropertyList::serialize(archive, PropertyListFormat::BinaryV1_0);
  } catch (...) {
    return std::nullopt;
  }
}

std::optional<Value> KeyedArchive::unarchiveObjectWithData(std::span<const std::uint8_t> bytes) {
  try {
    return unarchive(bytes);
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace nimb
