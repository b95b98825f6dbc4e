// Feeds arbitrary bytes to KeyedArchive::unarchiveObjectWithData. Whatever
// reads must archive again and read back as the same value (a NaN equal to a
// NaN, reals keeping the sign of zero).
//
// The seeds in corpus/KeyedArchiveFuzz are small archives written by
// KeyedArchive::archivedDataWithRootObject (a device record of strings and a
// date; an array of every value type; nested empty containers), plus one laid
// out by hand with PropertyList the way the platform's archiver writes it
// (mutable classes, shared class and string objects, NSString and NSData
// objects), all from a throwaway program linked against the library.
#include <NimbFoundation/Platform/Storage/KeyedArchive.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <span>

namespace {

using nimb::Value;

bool sameReal(double x, double y) {
  if (std::isnan(x) || std::isnan(y)) return std::isnan(x) && std::isnan(y);
  return x == y && std::signbit(x) == std::signbit(y);
}

bool same(const Value& a, const Value& b) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Value::Type::Real:
      return sameReal(*a.asReal(), *b.asReal());
    case Value::Type::Date:
      return sameReal(a.asDate()->timeIntervalSince1970(), b.asDate()->timeIntervalSince1970());
    case Value::Type::Array: {
      const auto &x = *a.asArray(), &y = *b.asArray();
      if (x.size() != y.size()) return false;
      for (std::size_t i = 0; i < x.size(); ++i)
        if (!same(x[i], y[i])) return false;
      return true;
    }
    case Value::Type::Dictionary: {
      const auto &x = *a.asDictionary(), &y = *b.asDictionary();
      if (x.size() != y.size()) return false;
      for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j)
        if (i->first != j->first || !same(i->second, j->second)) return false;
      return true;
    }
    default:
      return a == b;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto first = nimb::KeyedArchive::unarchiveObjectWithData(std::span(data, size));
  if (!first) return 0;
  const auto bytes = nimb::KeyedArchive::archivedDataWithRootObject(*first);
  if (!bytes) std::abort();  // everything read must archive again
  const auto second = nimb::KeyedArchive::unarchiveObjectWithData(*bytes);
  if (!second || !same(*first, *second)) std::abort();
  return 0;
}
