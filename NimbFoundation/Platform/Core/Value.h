// Value: the one dynamic value of the kit, the counterpart of the platform's
// property-list objects (numbers, strings, dates, data, the null marker,
// arrays and dictionaries) plus the UID reference used by keyed archives.
//
// Property lists, user defaults, keyed archives and the dictionary accessors
// all speak Value. It is a plain value type: copies are deep and independent,
// and a Value may be handed between threads like any std container.
#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Date.h>

namespace NIMB_EXPORT nimb {

// A byte buffer.
using Data = std::vector<std::uint8_t>;

// The platform's null marker, distinct from "no value".
struct Null {
  friend constexpr bool operator==(Null, Null) { return true; }
};

// A keyed-archive object reference.
struct Uid {
  std::uint64_t value = 0;
  friend constexpr bool operator==(Uid, Uid) = default;
};

class Value;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value, std::less<>>;

class Value {
 public:
  enum class Type { Null, Boolean, Integer, Real, String, Data, Date, Array, Dictionary, Uid };

  Value() = default;  // the null marker
  Value(Null) {}
  Value(bool b) : v_(b) {}
  template <std::integral I>
  requires(!std::same_as<I, bool>) Value(I i) : v_(static_cast<std::int64_t>(i)) {}
  Value(double d) : v_(d) {}
  Value(float f) : v_(static_cast<double>(f)) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(nimb::Data d) : v_(std::move(d)) {}
  Value(nimb::Date d) : v_(d) {}
  Value(nimb::Array a) : v_(std::move(a)) {}
  Value(nimb::Dictionary d) : v_(std::move(d)) {}
  Value(nimb::Uid u) : v_(u) {}

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isNumber() const {
    return type() == Type::Boolean || type() == Type::Integer || type() == Type::Real;
  }

  // Typed views: a pointer to the held value when it has that type, else nullptr.
  const bool* asBool() const { return std::get_if<bool>(&v_); }
  const std::int64_t* asInteger() const { return std::get_if<std::int64_t>(&v_); }
  const double* asReal() const { return std::get_if<double>(&v_); }
  const std::string* asString() const { return std::get_if<std::string>(&v_); }
  const nimb::Data* asData() const { return std::get_if<nimb::Data>(&v_); }
  const nimb::Date* asDate() const { return std::get_if<nimb::Date>(&v_); }
  const nimb::Array* asArray() const { return std::get_if<nimb::Array>(&v_); }
  const nimb::Dictionary* asDictionary() const { return std::get_if<nimb::Dictionary>(&v_); }
  const nimb::Uid* asUid() const { return std::get_if<nimb::Uid>(&v_); }
  nimb::Array* asArray() { return std::get_if<nimb::Array>(&v_); }
  nimb::Dictionary* asDictionary() { return std::get_if<nimb::Dictionary>(&v_); }

  // Any number (boolean, integer or real) as a double; 0 for anything else.
  double numberValue() const;

  // The value under `key` when this is a dictionary holding it, else nullptr.
  const Value* find(std::string_view key) const;

  // The platform's description, the text "%@" gives: strings as they are,
  // numbers in shortest form ("5", "7.9", booleans "1" and "0"), dates as
  // "2001-01-01 00:00:00 +0000", data as "<61626364 65>", the null marker as
  // "<null>", and arrays and dictionaries in the old property-list style,
  // indented by four spaces per level, with strings quoted and non-ASCII
  // characters written "\Uxxxx" inside them.
  std::string description() const;

  friend bool operator==(const Value&, const Value&) = default;

 private:
  std::variant<Null, bool, std::int64_t, double, std::string, nimb::Data, nimb::Date, nimb::Array,
               nimb::Dictionary, nimb::Uid>
      v_;
};

}  // namespace nimb
