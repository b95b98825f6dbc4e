#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include <plist/plist.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include <NimbFoundation/Internal/Utf8.h>
#include <NimbFoundation/Platform/Env/FileManager.h>

namespace nimb {

namespace {

// How many containers may enclose a value. libplist frees, copies and writes
// trees recursively, and so does our own conversion, so anything deeper is
// refused before it can exhaust a thread's stack.
constexpr std::size_t kMaxNesting = 512;

// A binary plist may reference one container from many places, and libplist
// expands every reference into its own copy. Without shared containers a file
// never expands to more nodes than it has bytes, so this bound only stops
// inputs built to blow up.
constexpr std::uint64_t kMaxExpansionPerByte = 8;

constexpr std::string_view kBinaryMagic = "bplist00";

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

struct BinFree {
  void operator()(char* p) const { plist_to_bin_free(p); }
};
struct XmlFree {
  void operator()(char* p) const { plist_to_xml_free(p); }
};

// ---- Binary structure ----------------------------------------------------

std::uint64_t readBigEndian(const std::uint8_t* p, std::size_t n) {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

struct BinaryLayout {
  std::span<const std::uint8_t> bytes;
  std::size_t offsetSize = 0;
  std::size_t refSize = 0;
  std::uint64_t objectCount = 0;
  std::uint64_t topObject = 0;
  std::uint64_t tableOffset = 0;
  std::uint64_t objectsEnd = 0;  // where the trailer starts

  // The file offset of object `index`, or 0 when it points outside the objects.
  std::uint64_t offsetOf(std::uint64_t index) const {
    const std::uint64_t at =
        readBigEndian(bytes.data() + tableOffset + index * offsetSize, offsetSize);
    return at >= kBinaryMagic.size() && at < objectsEnd ? at : 0;
  }
};

constexpr std::size_t kTrailerSize = 32;

// The trailer's description of a "bplist00" file, when it is self-consistent.
std::optional<BinaryLayout> readLayout(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kBinaryMagic.size() + 1 + kTrailerSize) return std::nullopt;
  if (std::memcmp(bytes.data(), kBinaryMagic.data(), kBinaryMagic.size()) != 0) return std::nullopt;
  BinaryLayout l;
  l.bytes = bytes;
  const std::uint8_t* t = bytes.data() + bytes.size() - kTrailerSize;
  l.offsetSize = t[6];
  l.refSize = t[7];
  l.objectCount = readBigEndian(t + 8, 8);
  l.topObject = readBigEndian(t + 16, 8);
  l.tableOffset = readBigEndian(t + 24, 8);
  l.objectsEnd = bytes.size() - kTrailerSize;
  if (l.offsetSize < 1 || l.offsetSize > 8 || l.refSize < 1 || l.refSize > 8) return std::nullopt;
  if (l.objectCount == 0 || l.topObject >= l.objectCount) return std::nullopt;
  if (l.tableOffset < kBinaryMagic.size() + 1 || l.tableOffset > l.objectsEnd) return std::nullopt;
  if (l.objectCount > (l.objectsEnd - l.tableOffset) / l.offsetSize) return std::nullopt;
  return l;
}

// The length field of the object at `offset` (elements, bytes or UTF-16
// units) and where the payload after it starts.
struct Sized {
  std::uint64_t count = 0;
  std::uint64_t at = 0;
};
std::optional<Sized> objectSize(const BinaryLayout& l, std::uint64_t offset) {
  std::uint64_t at = offset + 1;
  std::uint64_t count = l.bytes[offset] & 0x0F;
  if (count == 0x0F) {
    if (at >= l.objectsEnd || (l.bytes[at] & 0xF0) != 0x10) return std::nullopt;
    const std::size_t width = std::size_t{1} << (l.bytes[at] & 0x0F);
    ++at;
    if (width > 8 || l.objectsEnd - at < width) return std::nullopt;
    count = readBigEndian(l.bytes.data() + at, width);
    at += width;
  }
  return Sized{count, at};
}

// The object references held by a container object; none for other objects.
// nullopt when the object runs past the end of the object area.
struct Refs {
  std::uint64_t at = 0;
  std::uint64_t count = 0;
  std::uint64_t keys = 0;  // a dictionary's references start with its keys
};
std::optional<Refs> containerRefs(const BinaryLayout& l, std::uint64_t offset) {
  const unsigned kind = l.bytes[offset] >> 4;
  // Arrays, ordered sets and sets hold `count` references; dictionaries twice that.
  if (kind != 0xA && kind != 0xB && kind != 0xC && kind != 0xD) return Refs{};
  const auto size = objectSize(l, offset);
  if (!size) return std::nullopt;
  const std::uint64_t room = (l.objectsEnd - size->at) / l.refSize;
  if (size->count > (kind == 0xD ? room / 2 : room)) return std::nullopt;
  if (kind != 0xD) return Refs{size->at, size->count, 0};
  return Refs{size->at, size->count * 2, size->count};
}

// Dictionary keys must be strings without NUL: libplist asserts, taking the
// process down, when asked for a key whose text holds one.
bool isSafeKey(const BinaryLayout& l, std::uint64_t object) {
  const std::uint64_t offset = l.offsetOf(object);
  if (offset == 0) return false;
  const unsigned kind = l.bytes[offset] >> 4;
  if (kind != 0x5 && kind != 0x6) return false;
  const std::uint64_t unit = kind == 0x6 ? 2 : 1;
  const auto size = objectSize(l, offset);
  if (!size || size->count > (l.objectsEnd - size->at) / unit) return false;
  const std::uint8_t* p = l.bytes.data() + size->at;
  for (std::uint64_t i = 0; i < size->count; ++i)
    if (p[i * unit] == 0 && p[i * unit + unit - 1] == 0) return false;
  return true;
}

// Walks the object graph of a binary plist before libplist sees it, refusing
// cycles, nesting deeper than kMaxNesting and graphs that expand into far more
// nodes than the file holds. libplist's reader recurses once per level and
// copies shared objects, so both would otherwise be attacks on it.
// What a string or data object adds to the parsed tree beyond its node, in
// node-sized units of 16 bytes (UTF-16 text grows to up to 3 bytes a
// character as UTF-8). A long string that many places share is copied into
// each of them, so its length must count against the expansion limit.
std::uint64_t payloadCost(const BinaryLayout& l, std::uint64_t offset) {
  const unsigned kind = l.bytes[offset] >> 4;
  if (kind != 0x4 && kind != 0x5 && kind != 0x6) return 0;
  const auto size = objectSize(l, offset);
  if (!size) return 0;
  return size->count * (kind == 0x6 ? 3 : 1) / 16;
}

bool binaryGraphIsSafe(std::span<const std::uint8_t> bytes) {
  const auto layout = readLayout(bytes);
  if (!layout) return false;
  const BinaryLayout& l = *layout;
  const std::uint64_t maxNodes = bytes.size() * kMaxExpansionPerByte;

  enum : std::uint8_t { kNew, kActive, kDone };
  std::vector<std::uint8_t> state(l.objectCount, kNew);
  std::vector<std::uint32_t> nesting(l.objectCount, 0);
  std::vector<std::uint64_t> nodes(l.objectCount, 0);
  std::vector<bool> keyChecked(l.objectCount, false);
  struct Frame {
    std::uint64_t object;
    Refs refs;
    std::uint64_t next;
  };
  std::vector<Frame> stack;

  auto enter = [&](std::uint64_t object) -> bool {
    const std::uint64_t offset = l.offsetOf(object);
    if (offset == 0) return false;
    const auto refs = containerRefs(l, offset);
    if (!refs || stack.size() > kMaxNesting) return false;
    state[object] = kActive;
    stack.push_back({object, *refs, 0});
    return true;
  };

  if (!enter(l.topObject)) return false;
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next < f.refs.count) {
      const std::uint64_t child =
          readBigEndian(l.bytes.data() + f.refs.at + f.next * l.refSize, l.refSize);
      const bool isKey = f.next < f.refs.keys;
      ++f.next;
      if (child >= l.objectCount || state[child] == kActive) return false;
      if (isKey && !keyChecked[child]) {
        if (!isSafeKey(l, child)) return false;
        keyChecked[child] = true;
      }
      if (state[child] == kNew && !enter(child)) return false;
      continue;
    }
    // All children are done: settle this object from them.
    std::uint32_t deepest = 0;
    std::uint64_t count = 1 + payloadCost(l, l.offsetOf(f.object));
    for (std::uint64_t k = 0; k < f.refs.count; ++k) {
      const std::uint64_t child =
          readBigEndian(l.bytes.data() + f.refs.at + k * l.refSize, l.refSize);
      deepest = std::max(deepest, nesting[child]);
      count += nodes[child];
      if (count > maxNodes) return false;
    }
    const bool container =
        (l.bytes[l.offsetOf(f.object)] >> 4) >= 0xA && (l.bytes[l.offsetOf(f.object)] >> 4) <= 0xD;
    nesting[f.object] = deepest + (container ? 1 : 0);
    if (nesting[f.object] > kMaxNesting) return false;
    nodes[f.object] = count;
    state[f.object] = kDone;
    stack.pop_back();
  }
  return true;
}

// ---- XML structure -------------------------------------------------------

// Refuses XML whose elements nest deeper than `limit`, before libplist builds
// a tree it would later free recursively. The count errs on the high side
// wherever parsers could disagree (quoted '>' inside a tag), so it never
// falls short of the tree libplist actually builds. Unterminated markup is
// refused outright; libplist would reject it anyway.
bool xmlNestingWithin(std::span<const std::uint8_t> b, std::size_t limit) {
  const std::size_t n = b.size();
  auto at = [&](std::size_t i, std::string_view s) {
    return n - i >= s.size() && std::memcmp(b.data() + i, s.data(), s.size()) == 0;
  };
  auto find = [&](std::size_t from, std::string_view s) -> std::size_t {
    for (std::size_t i = from; i + s.size() <= n; ++i)
      if (at(i, s)) return i;
    return n;
  };

  std::size_t depth = 0;
  std::size_t i = 0;
  while (i < n) {
    if (b[i] != '<') {
      ++i;
      continue;
    }
    std::string_view opener, terminator;
    if (at(i, "<!--")) {
      opener = "<!--", terminator = "-->";
    } else if (at(i, "<![CDATA[")) {
      opener = "<![CDATA[", terminator = "]]>";
    } else if (at(i, "<?")) {
      opener = "<?", terminator = "?>";
    }
    if (!opener.empty()) {
      // Forms like <!--> or <?> end in different places for different
      // parsers; refuse them rather than guess.
      const std::size_t end = find(i + opener.size(), terminator);
      if (end == n || find(i + 1, terminator) != end) return false;
      i = end + terminator.size();
      continue;
    }
    if (at(i, "</")) {
      if (depth > 0) --depth;
      i += 2;
      continue;
    }
    // A start tag, or a declaration such as <!DOCTYPE>.
    std::size_t firstGt = i + 1;
    while (firstGt < n && b[firstGt] != '>') ++firstGt;
    std::size_t end = i + 1;
    char quote = 0;
    for (; end < n; ++end) {
      const char c = static_cast<char>(b[end]);
      if (quote) {
        if (c == quote) quote = 0;
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '>') {
        break;
      }
    }
    if (firstGt == n || end == n) return false;
    const bool declaration = b[i + 1] == '!';
    std::size_t opened = 0;
    if (end != firstGt) {
      // A parser blind to quotes would end the tag at firstGt and read what
      // follows as markup, so count every start tag it could see there.
      for (std::size_t k = firstGt; k < end; ++k)
        if (b[k] == '<' && b[k + 1] != '/') ++opened;
      if (!declaration) ++opened;
    } else if (!declaration && b[end - 1] != '/') {
      opened = 1;
    }
    depth += opened;
    if (depth > limit) return false;
    i = end + 1;
  }
  return true;
}

// ---- Dates ---------------------------------------------------------------

// libplist holds a date as int32 seconds and int32 microseconds since 2001,
// so a date is stored as whole microseconds, and instants outside that range
// (roughly 1933 to 2069) are clamped to its nearest end. NaN has no nearest
// end and becomes the reference date itself.
constexpr std::int64_t kMicros = 1'000'000;
constexpr std::int64_t kMinDateMicros =
    std::int64_t{std::numeric_limits<std::int32_t>::min()} * kMicros;
constexpr std::int64_t kMaxDateMicros =
    std::int64_t{std::numeric_limits<std::int32_t>::max()} * kMicros + (kMicros - 1);

std::int64_t clampDateMicros(double micros) {
  if (std::isnan(micros)) return 0;
  micros = std::round(micros);
  if (micros <= static_cast<double>(kMinDateMicros)) return kMinDateMicros;
  if (micros >= static_cast<double>(kMaxDateMicros)) return kMaxDateMicros;
  return static_cast<std::int64_t>(micros);
}

// Both directions stay within half a microsecond even at the far end of the
// range, where a double since 1970 still resolves about 0.48 us.
std::int64_t referenceMicros(Date d) {
  return clampDateMicros(d.timeIntervalSinceReferenceDate() * kMicros);
}

Date dateFromReferenceMicros(std::int64_t micros) {
  return Date::fromTimeIntervalSinceReferenceDate(static_cast<double>(micros) / kMicros);
}

// The seconds since 2001 a date node holds. plist_get_date_val truncates
// toward zero and drops the sign of instants within a second before 2001
// (-0.5 s reads as +0.5 s), but the binary writer stores the exact double,
// so read it from there.
std::optional<double> dateSeconds(plist_t node) {
  std::int32_t sec = 0, usec = 0;
  plist_get_date_val(node, &sec, &usec);
  // Whole seconds (every XML date, the cache index's among them) read
  // exactly and cheaply; serialising a copy of the node costs far more than
  // parsing it. A fraction is truncated by libplist, and instants beyond the
  // int32 range come out of its conversion as an int32 end (or worse), so
  // those take the exact path.
  constexpr auto kLow = std::numeric_limits<std::int32_t>::min();
  constexpr auto kHigh = std::numeric_limits<std::int32_t>::max();
  if (usec == 0 && sec != kLow && sec != kHigh) return static_cast<double>(sec);
  PlistPtr copy(plist_copy(node));
  if (!copy) return std::nullopt;
  char* raw = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(copy.get(), &raw, &length);
  std::unique_ptr<char, BinFree> buffer(raw);
  if (buffer) {
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(raw), length);
    if (auto l = readLayout(bytes)) {
      const std::uint64_t offset = l->offsetOf(l->topObject);
      if (offset != 0 && l->objectsEnd - offset >= 9 && bytes[offset] == 0x33)
        return std::bit_cast<double>(readBigEndian(bytes.data() + offset + 1, 8));
    }
  }
  // Only if the writer ever changes: the lossy reading is better than none.
  const double fraction = static_cast<double>(std::abs(usec)) / kMicros;
  return sec < 0 ? sec - fraction : sec + fraction;
}

// ---- libplist to Value ---------------------------------------------------

std::optional<std::string> plistString(const char* p, std::size_t n) {
  std::string s(p ? p : "", p ? n : 0);
  if (!detail::isUtf8WithoutNul(s)) return std::nullopt;
  return s;
}

bool fromPlist(plist_t node, std::size_t nesting, Value& out);

Value integerFromPlist(plist_t node) {
  // libplist 2.2 has unsigned integers only; negative numbers travel as
  // their two's complement, which this cast restores.
  std::uint64_t u = 0;
  plist_get_uint_val(node, &u);
  return Value(static_cast<std::int64_t>(u));
}

bool stringFromPlist(plist_t node, Value& out) {
  std::uint64_t length = 0;
  const char* p = plist_get_string_ptr(node, &length);
  auto s = plistString(p, length);
  if (!s) return false;
  out = Value(std::move(*s));
  return true;
}

Value dataFromPlist(plist_t node) {
  std::uint64_t length = 0;
  const auto* p = reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
  return Value(p ? Data(p, p + length) : Data());
}

bool dateFromPlist(plist_t node, Value& out) {
  auto seconds = dateSeconds(node);
  if (!seconds) return false;
  out = Value(dateFromReferenceMicros(clampDateMicros(*seconds * kMicros)));
  return true;
}

bool arrayFromPlist(plist_t node, std::size_t nesting, Value& out) {
  if (nesting >= kMaxNesting) return false;
  const std::uint32_t count = plist_array_get_size(node);
  Array array;
  array.reserve(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    plist_t item = plist_array_get_item(node, i);
    if (!item || !fromPlist(item, nesting + 1, array.emplace_back())) return false;
  }
  out = Value(std::move(array));
  return true;
}

// The text of a dictionary item's key. A binary file may key a dictionary
// with any object, and libplist asserts when asked for the text of a key
// that is not a key node.
std::optional<std::string> dictionaryKey(plist_t item) {
  plist_t keyNode = plist_dict_item_get_key(item);
  if (!keyNode || plist_get_node_type(keyNode) != PLIST_KEY) return std::nullopt;
  char* rawKey = nullptr;
  plist_get_key_val(keyNode, &rawKey);
  std::unique_ptr<char, decltype(&std::free)> keyGuard(rawKey, &std::free);
  if (!rawKey) return std::nullopt;
  return plistString(rawKey, std::strlen(rawKey));
}

bool dictionaryFromPlist(plist_t node, std::size_t nesting, Value& out) {
  if (nesting >= kMaxNesting) return false;
  plist_dict_iter iter = nullptr;
  plist_dict_new_iter(node, &iter);
  if (!iter) return false;
  std::unique_ptr<void, decltype(&std::free)> iterGuard(iter, &std::free);
  Dictionary dict;
  for (;;) {
    plist_t item = nullptr;
    plist_dict_next_item(node, iter, nullptr, &item);
    if (!item) break;
    auto key = dictionaryKey(item);
    Value value;
    if (!key || !fromPlist(item, nesting + 1, value)) return false;
    dict.insert_or_assign(std::move(*key), std::move(value));
  }
  out = Value(std::move(dict));
  return true;
}

bool fromPlist(plist_t node, std::size_t nesting, Value& out) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      out = Value(b != 0);
      return true;
    }
    case PLIST_UINT:
      out = integerFromPlist(node);
      return true;
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      out = Value(d);
      return true;
    }
    case PLIST_STRING:
      return stringFromPlist(node, out);
    case PLIST_DATA:
      out = dataFromPlist(node);
      return true;
    case PLIST_DATE:
      return dateFromPlist(node, out);
    case PLIST_UID: {
      std::uint64_t u = 0;
      plist_get_uid_val(node, &u);
      out = Value(Uid{u});
      return true;
    }
    case PLIST_ARRAY:
      return arrayFromPlist(node, nesting, out);
    case PLIST_DICT:
      return dictionaryFromPlist(node, nesting, out);
    default:  // a bare key or anything libplist does not type
      return false;
  }
}

// ---- Value to libplist ---------------------------------------------------

PlistPtr toPlist(const Value& value, PropertyListFormat format, std::size_t nesting);

PlistPtr toPlist(const Dictionary& dict, PropertyListFormat format, std::size_t nesting) {
  if (nesting >= kMaxNesting) return nullptr;
  PlistPtr node(plist_new_dict());
  if (!node) return nullptr;
  for (const auto& [key, item] : dict) {
    if (!detail::isUtf8WithoutNul(key)) return nullptr;
    PlistPtr child = toPlist(item, format, nesting + 1);
    if (!child) return nullptr;
    plist_dict_set_item(node.get(), key.c_str(), child.release());
  }
  return node;
}

PlistPtr toPlist(const Value& value, PropertyListFormat format, std::size_t nesting) {
  switch (value.type()) {
    case Value::Type::Null:
      return nullptr;
    case Value::Type::Boolean:
      return PlistPtr(plist_new_bool(*value.asBool() ? 1 : 0));
    case Value::Type::Integer:
      return PlistPtr(plist_new_uint(static_cast<std::uint64_t>(*value.asInteger())));
    case Value::Type::Real:
      return PlistPtr(plist_new_real(*value.asReal()));
    case Value::Type::String: {
      const std::string& s = *value.asString();
      if (!detail::isUtf8WithoutNul(s)) return nullptr;
      return PlistPtr(plist_new_string(s.c_str()));
    }
    case Value::Type::Data: {
      const Data& d = *value.asData();
      const char* p = d.empty() ? "" : reinterpret_cast<const char*>(d.data());
      return PlistPtr(plist_new_data(p, d.size()));
    }
    case Value::Type::Date: {
      const std::int64_t micros = referenceMicros(*value.asDate());
      // Microseconds in [0, 1e6) as the pair is meant; before 2001 that
      // takes floor division (-0.5 s is -1 s + 500000 us).
      std::int64_t sec = micros / kMicros;
      std::int64_t usec = micros % kMicros;
      if (usec < 0) {
        --sec;
        usec += kMicros;
      }
      return PlistPtr(
          plist_new_date(static_cast<std::int32_t>(sec), static_cast<std::int32_t>(usec)));
    }
    case Value::Type::Array: {
      if (nesting >= kMaxNesting) return nullptr;
      PlistPtr node(plist_new_array());
      if (!node) return nullptr;
      for (const Value& item : *value.asArray()) {
        PlistPtr child = toPlist(item, format, nesting + 1);
        if (!child) return nullptr;
        plist_array_append_item(node.get(), child.release());
      }
      return node;
    }
    case Value::Type::Dictionary:
      return toPlist(*value.asDictionary(), format, nesting);
    case Value::Type::Uid: {
      // The XML form has no UID: libplist writes a {CF$UID: n} dictionary
      // and reads it back as that dictionary. Its binary writer keeps only
      // the low 32 bits, so larger UIDs would come back as other objects.
      const std::uint64_t uid = value.asUid()->value;
      if (format != PropertyListFormat::BinaryV1_0) return nullptr;
      if (uid > std::numeric_limits<std::uint32_t>::max()) return nullptr;
      return PlistPtr(plist_new_uid(uid));
    }
  }
  return nullptr;
}

template <typename Root>
std::optional<Data> write(const Root& root, PropertyListFormat format) {
  if (format != PropertyListFormat::Xml && format != PropertyListFormat::BinaryV1_0)
    return std::nullopt;
  PlistPtr node = toPlist(root, format, 0);
  if (!node) return std::nullopt;
  char* raw = nullptr;
  std::uint32_t length = 0;
  if (format == PropertyListFormat::Xml) {
    plist_to_xml(node.get(), &raw, &length);
    std::unique_ptr<char, XmlFree> buffer(raw);
    if (!buffer) return std::nullopt;
    return Data(raw, raw + length);
  }
  plist_to_bin(node.get(), &raw, &length);
  std::unique_ptr<char, BinFree> buffer(raw);
  if (!buffer) return std::nullopt;
  return Data(raw, raw + length);
}

}  // namespace

std::optional<Value> PropertyList::parse(std::span<const std::uint8_t> bytes,
                                         PropertyListFormat* format) {
  try {
    if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max())
      return std::nullopt;
    const auto* chars = reinterpret_cast<const char*>(bytes.data());
    auto length = static_cast<std::uint32_t>(bytes.size());
    const bool binary = bytes.size() >= kBinaryMagic.size() &&
                        std::memcmp(chars, kBinaryMagic.data(), kBinaryMagic.size()) == 0;
    plist_t raw = nullptr;
    if (binary) {
      if (!binaryGraphIsSafe(bytes)) return std::nullopt;
      plist_from_bin(chars, length, &raw);
    } else {
      // XML has no place for NUL, yet libplist would copy one into a key and
      // then assert on it. A C-style terminator at the end is forgiven.
      while (length > 0 && chars[length - 1] == 0) --length;
      if (length == 0 || std::memchr(chars, 0, length)) return std::nullopt;
      // The <plist> element itself adds one level around the value.
      if (!xmlNestingWithin(bytes.first(length), kMaxNesting + 1)) return std::nullopt;
      plist_from_xml(chars, length, &raw);
    }
    PlistPtr root(raw);
    if (!root) return std::nullopt;
    Value value;
    if (!fromPlist(root.get(), 0, value)) return std::nullopt;
    if (format) *format = binary ? PropertyListFormat::BinaryV1_0 : PropertyListFormat::Xml;
    return value;
  } catch (...) {
    return std::nullopt;
  }
}

std::optional<Data> PropertyList::serialize(const Value& value, PropertyListFormat format) {
  try {
    return write(value, format);
  } catch (...) {
    return std::nullopt;
  }
}

Result<Dictionary> PropertyList::dictionaryWithContentsOfFile(const std::string& path,
                                                              FollowLinks follow) {
  try {
    auto bytes = FileManager::contentsAtPath(path, follow);
    if (!bytes) return bytes.error();
    auto value = parse(*bytes);
    if (!value || !value->asDictionary()) return SystemError{EBADMSG, path};
    return std::move(*value->asDictionary());
  } catch (...) {
    return SystemError{ENOMEM, path};
  }
}

Result<void> PropertyList::writeToFile(const Dictionary& dict, const std::string& path) {
  try {
    auto bytes = write(dict, PropertyListFormat::Xml);
    if (!bytes) return SystemError{EINVAL, path};
    return FileManager::writeAtomically(path, *bytes);
  } catch (...) {
    return SystemError{ENOMEM, path};
  }
}

}  // namespace nimb
