// CacheIndex: VQCache's index in memory, key to expiry date, laid out to
// stay small and cheap to build with hundreds of thousands of entries.
//
// What was read from disk lives in one sorted array over one buffer of key
// bytes, with no allocation per entry; the sets and removals made since sit
// in a small ordered overlay that is folded into the array once it grows
// past an eighth of it. Lookups, changes and walks in key order all see the
// overlay over the array. VQCache guards it with its own locks.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <NimbFoundation/Platform/Core/Date.h>

namespace nimb::detail {

class CacheIndex {
 public:
  // Building: entries in any order, a key given again keeps its last date;
  // finish() after the last one.
  void append(std::string_view key, Date expiry);
  void finish();
  // Gives back the room that appending left spare (it grows by doubling).
  // Best called once the source of the entries is gone, so that the copy
  // does not add to the peak.
  void shrinkToFit();

  std::optional<Date> find(std::string_view key) const;
  void set(std::string_view key, Date expiry);
  void erase(std::string_view key);

  // Calls `visit(std::string_view key, Date expiry)` for every entry, in
  // key order (bytes compared unsigned, as std::string does).
  template <typename Visit>
  void forEach(Visit&& visit) const {
    auto change = changes_.begin();
    for (const Entry& entry : base_) {
      const std::string_view key = keyOf(entry);
      for (; change != changes_.end() && std::string_view(change->first) < key; ++change) {
        if (change->second) visit(std::string_view(change->first), *change->second);
      }
      if (change != changes_.end() && std::string_view(change->first) == key) {
        if (change->second) visit(key, *change->second);
        ++change;
      } else {
        visit(key, entry.expiry);
      }
    }
    for (; change != changes_.end(); ++change) {
      if (change->second) visit(std::string_view(change->first), *change->second);
    }
  }
  std::map<std::string, Date> toMap() const;

 private:
  struct Entry {
    std::uint64_t offset;
    std::uint32_t length;
    Date expiry;
  };
  std::string_view keyOf(const Entry& entry) const {
    return {keys_.data() + entry.offset, entry.length};
  }
  const Entry* findInBase(std::string_view key) const;
  void foldWhenLarge();

  std::string keys_;
  std::vector<Entry> base_;  // sorted by key, each key once
  bool baseSorted_ = true;
  // Newer than base_: a date, or nullopt for a removed key.
  std::map<std::string, std::optional<Date>, std::less<>> changes_;
};

}  // namespace nimb::detail
