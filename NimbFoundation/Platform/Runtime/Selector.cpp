#include <NimbFoundation/Platform/Runtime/Selector.h>

#include <deque>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace nimb {

namespace {

struct SelectorTable {
  std::shared_mutex mutex;
  std::deque<Selector::Info> infos;  // stable addresses
  std::unordered_map<std::string_view, const Selector::Info*> byName;
};

SelectorTable& table() {
  // Never destroyed: selectors stay valid in other objects' destructors.
  static SelectorTable* const instance = new SelectorTable();
  return *instance;
}

}  // namespace

Selector sel_registerName(std::string_view name) {
  if (name.empty()) return Selector();
  SelectorTable& t = table();
  {
    std::shared_lock lock(t.mutex);
    if (auto found = t.byName.find(name); found != t.byName.end()) return Selector(found->second);
  }
  std::unique_lock lock(t.mutex);
  if (auto found = t.byName.find(name); found != t.byName.end()) return Selector(found->second);
  // Index 0 stays unused so the null selector hashes apart from every name.
  auto index = static_cast<std::uint32_t>(t.infos.size() + 1);
  const Selector::Info& info = t.infos.emplace_back(Selector::Info{std::string(name), index});
  t.byName.emplace(info.name, &info);
  return Selector(&info);
}

}  // namespace nimb
