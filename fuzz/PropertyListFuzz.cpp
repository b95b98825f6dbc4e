// Feeds arbitrary bytes to PropertyList::parse. Whatever parses must write
// back in the binary form and read back as the same value; the XML form must
// agree too, within what it can carry (whole-second dates, no UIDs, reals
// without the sign of zero).
#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <span>

namespace {

using nimb::Value;

bool same(const Value& a, const Value& b, bool viaXml) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Value::Type::Real: {
      const double x = *a.asReal(), y = *b.asReal();
      if (std::isnan(x) || std::isnan(y)) return std::isnan(x) && std::isnan(y);
      return x == y && (viaXml || std::signbit(x) == std::signbit(y));
    }
    case Value::Type::Date:
      if (viaXml) return std::fabs(a.asDate()->timeIntervalSince(*b.asDate())) < 1.0;
      return *a.asDate() == *b.asDate();
    case Value::Type::Array: {
      const auto &x = *a.asArray(), &y = *b.asArray();
      if (x.size() != y.size()) return false;
      for (std::size_t i = 0; i < x.size(); ++i)
        if (!same(x[i], y[i], viaXml)) return false;
      return true;
    }
    case Value::Type::Dictionary: {
      const auto &x = *a.asDictionary(), &y = *b.asDictionary();
      if (x.size() != y.size()) return false;
      for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j)
        if (i->first != j->first || !same(i->second, j->second, viaXml)) return false;
      return true;
    }
    default:
      return a == b;
  }
}

bool holdsUid(const Value& v) {
  if (v.asUid()) return true;
  if (auto* array = v.asArray())
    for (const Value& item : *array)
      if (holdsUid(item)) return true;
  if (auto* dict = v.asDictionary())
    for (const auto& [key, item] : *dict)
      if (holdsUid(item)) return true;
  return false;
}

void check(const Value& first, nimb::PropertyListFormat format) {
  const bool viaXml = format == nimb::PropertyListFormat::Xml;
  auto bytes = nimb::PropertyList::serialize(first, format);
  if (!bytes) {
    if (viaXml && holdsUid(first)) return;
    std::abort();  // everything parse returns must be writable
  }
  nimb::PropertyListFormat seen{};
  auto second = nimb::PropertyList::parse(*bytes, &seen);
  if (!second || seen != format || !same(first, *second, viaXml)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto first = nimb::PropertyList::parse(std::span(data, size));
  if (!first) return 0;
  check(*first, nimb::PropertyListFormat::BinaryV1_0);
  check(*first, nimb::PropertyListFormat::Xml);
  return 0;
}
