// Feeds arbitrary bytes to the disk cache's index reader. Whatever it takes
// must read exactly as the generic property-list reader reads it: the same
// keys with the same dates, and nothing but dates. Whatever it declines is
// left to that generic reader, so no index reads differently for it.
#include <NimbFoundation/Internal/CacheIndexParser.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

#include <cstdint>
#include <cstdlib>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  auto fast = nimb::detail::parseCacheIndexXml(bytes);
  if (!fast) return 0;
  auto generic = nimb::PropertyList::parse(bytes);
  const nimb::Dictionary* index = generic ? generic->asDictionary() : nullptr;
  if (!index) std::abort();
  const auto entries = fast->toMap();
  if (entries.size() != index->size()) std::abort();
  auto entry = entries.begin();
  for (const auto& [key, value] : *index) {
    const nimb::Date* date = value.asDate();
    if (!date || entry->first != key || !(entry->second == *date)) std::abort();
    ++entry;
  }
  return 0;
}
