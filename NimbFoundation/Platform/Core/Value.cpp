#include <NimbFoundation/Platform/Core/Value.h>

#include <unicode/utf8.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace nimb {

double Value::numberValue() const {
  if (auto* b = asBool()) return *b ? 1.0 : 0.0;
  if (auto* i = asInteger()) return static_cast<double>(*i);
  if (auto* r = asReal()) return *r;
  return 0.0;
}

const Value* Value::find(std::string_view key) const {
  auto* dict = asDictionary();
  if (!dict) return nullptr;
  auto it = dict->find(key);
  return it == dict->end() ? nullptr : &it->second;
}

namespace {

std::string indentation(int level) {
  return std::string(static_cast<std::size_t>(level) * 4, ' ');
}

bool needsQuotes(const std::string& s) {
  if (s.empty()) return true;
  for (char c : s) {
    const bool plain =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    if (!plain) return true;
  }
  return false;
}

// A string inside a collection: bare when it is a plain word, else quoted
// with escapes, non-ASCII as UTF-16 units.
std::string quoted(const std::string& s) {
  if (!needsQuotes(s)) return s;
  std::string out = "\"";
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(s.data());
  const auto length = static_cast<std::int32_t>(s.size());
  std::int32_t i = 0;
  char unit[16];
  while (i < length) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) c = 0xFFFD;
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else if (c < 0x10000) {
      std::snprintf(unit, sizeof unit, "\\U%04x", static_cast<unsigned>(c));
      out += unit;
    } else {
      const auto v = static_cast<unsigned>(c - 0x10000);
      std::snprintf(unit, sizeof unit, "\\U%04x", 0xD800 + (v >> 10));
      out += unit;
      std::snprintf(unit, sizeof unit, "\\U%04x", 0xDC00 + (v & 0x3FF));
      out += unit;
    }
  }
  out.push_back('"');
  return out;
}

std::string describeReal(double r) {
  if (std::isnan(r)) return "nan";
  if (std::isinf(r)) return r > 0 ? "inf" : "-inf";
  char buffer[64];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, r);
  return ec == std::errc() ? std::string(buffer, end) : std::string("0");
}

std::string describeDate(const Date& date) {
  const auto seconds = static_cast<std::time_t>(std::floor(date.timeIntervalSince1970()));
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char buffer[64];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &parts);
  return buffer;
}

std::string describeData(const Data& data) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "<";
  for (std::size_t i = 0; i < data.size(); ++i) {
    if (i > 0 && i % 4 == 0) out.push_back(' ');
    out.push_back(kHex[data[i] >> 4]);
    out.push_back(kHex[data[i] & 15]);
  }
  out.push_back('>');
  return out;
}

// `level` is the nesting depth of `value`; a nested collection opens with
// the indentation of its own level, which gives the platform's familiar
// "key =     {" layout.
std::string describe(const Value& value, int level) {
  if (const auto* array = value.asArray()) {
    std::string out = (level > 0 ? indentation(level) : "") + "(\n";
    for (std::size_t i = 0; i < array->size(); ++i) {
      const Value& element = (*array)[i];
      out += indentation(level + 1);
      out += element.asString() ? quoted(*element.asString()) : describe(element, level + 1);
      out += i + 1 < array->size() ? ",\n" : "\n";
    }
    return out + indentation(level) + ")";
  }
  if (const auto* dictionary = value.asDictionary()) {
    std::string out = (level > 0 ? indentation(level) : "") + "{\n";
    for (const auto& [key, element] : *dictionary) {
      out += indentation(level + 1) + quoted(key) + " = ";
      out += element.asString() ? quoted(*element.asString()) : describe(element, level + 1);
      out += ";\n";
    }
    return out + indentation(level) + "}";
  }
  switch (value.type()) {
    case Value::Type::Null:
      return "<null>";
    case Value::Type::Boolean:
      return *value.asBool() ? "1" : "0";
    case Value::Type::Integer:
      return std::to_string(*value.asInteger());
    case Value::Type::Real:
      return describeReal(*value.asReal());
    case Value::Type::String:
      return *value.asString();
    case Value::Type::Data:
      return describeData(*value.asData());
    case Value::Type::Date:
      return describeDate(*value.asDate());
    case Value::Type::Uid:
      return "<CFKeyedArchiverUID>{value = " + std::to_string(value.asUid()->value) + "}";
    default:
      return "";
  }
}

}  // namespace

std::string Value::description() const {
  return describe(*this, 0);
}

}  // namespace nimb
