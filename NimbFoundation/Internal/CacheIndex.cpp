#include <NimbFoundation/Internal/CacheIndex.h>

#include <algorithm>

namespace nimb::detail {

void CacheIndex::append(std::string_view key, Date expiry) {
  if (!base_.empty() && !(keyOf(base_.back()) < key)) baseSorted_ = false;
  base_.push_back({keys_.size(), static_cast<std::uint32_t>(key.size()), expiry});
  keys_.append(key);
}

void CacheIndex::shrinkToFit() {
  keys_.shrink_to_fit();
  base_.shrink_to_fit();
}

void CacheIndex::finish() {
  if (baseSorted_) return;
  std::stable_sort(base_.begin(), base_.end(),
                   [this](const Entry& a, const Entry& b) { return keyOf(a) < keyOf(b); });
  // Of equal keys, stable order leaves the last one given at the end.
  std::vector<Entry> unique;
  unique.reserve(base_.size());
  for (std::size_t i = 0; i < base_.size(); ++i) {
    if (i + 1 < base_.size() && keyOf(base_[i]) == keyOf(base_[i + 1])) continue;
    unique.push_back(base_[i]);
  }
  base_ = std::move(unique);
  baseSorted_ = true;
}

const CacheIndex::Entry* CacheIndex::findInBase(std::string_view key) const {
  auto it = std::lower_bound(base_.begin(), base_.end(), key,
                             [this](const Entry& e, std::string_view k) { return keyOf(e) < k; });
  return it != base_.end() && keyOf(*it) == key ? &*it : nullptr;
}

std::optional<Date> CacheIndex::find(std::string_view key) const {
  if (auto change = changes_.find(key); change != changes_.end()) return change->second;
  if (const Entry* entry = findInBase(key)) return entry->expiry;
  return std::nullopt;
}

void CacheIndex::set(std::string_view key, Date expiry) {
  if (auto change = changes_.find(key); change != changes_.end()) {
    change->second = expiry;
  } else {
    changes_.emplace(std::string(key), expiry);
  }
  foldWhenLarge();
}

void CacheIndex::erase(std::string_view key) {
  if (auto change = changes_.find(key); change != changes_.end()) {
    change->second = std::nullopt;
  } else if (findInBase(key)) {
    changes_.emplace(std::string(key), std::nullopt);
  }
  foldWhenLarge();
}

void CacheIndex::foldWhenLarge() {
  // Folding costs one pass over the whole index; waiting for an eighth of
  // it keeps a long run of changes linear overall.
  if (changes_.size() <= std::max<std::size_t>(1024, base_.size() / 8)) return;
  CacheIndex folded;
  folded.keys_.reserve(keys_.size());
  folded.base_.reserve(base_.size() + changes_.size());
  forEach([&folded](std::string_view key, Date expiry) { folded.append(key, expiry); });
  *this = std::move(folded);
}

std::map<std::string, Date> CacheIndex::toMap() const {
  std::map<std::string, Date> map;
  forEach([&map](std::string_view key, Date expiry) { map.emplace_hint(map.end(), key, expiry); });
  return map;
}

}  // namespace nimb::detail
