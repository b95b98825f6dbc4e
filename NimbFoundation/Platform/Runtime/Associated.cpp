#include <NimbFoundation/Platform/Runtime/Associated.h>

#include <map>
#include <mutex>
#include <utility>

namespace nimb {

namespace {

using Values = std::map<const void*, std::any>;

struct Table {
  std::mutex lock;
  std::map<const Object*, Values> objects;
};

Table& table() {
  // Never destroyed, so objects may drop their values from destructors that
  // run at exit.
  static Table* const instance = new Table();
  return *instance;
}

}  // namespace

void objc_setAssociatedObject(const Object* object, const void* key, std::any value) {
  if (!object || !key) return;
  std::any previous;  // destroyed after the lock is released
  Table& t = table();
  std::lock_guard guard(t.lock);
  auto found = t.objects.find(object);
  if (!value.has_value()) {
    if (found == t.objects.end()) return;
    auto entry = found->second.find(key);
    if (entry == found->second.end()) return;
    previous = std::move(entry->second);
    found->second.erase(entry);
    if (found->second.empty()) t.objects.erase(found);
    return;
  }
  std::any& slot = t.objects[object][key];
  previous = std::exchange(slot, std::move(value));
}

std::any objc_getAssociatedObject(const Object* object, const void* key) {
  if (!object || !key) return {};
  Table& t = table();
  std::lock_guard guard(t.lock);
  auto found = t.objects.find(object);
  if (found == t.objects.end()) return {};
  auto entry = found->second.find(key);
  return entry == found->second.end() ? std::any() : entry->second;
}

void objc_removeAssociatedObjects(const Object* object) {
  Values removed;  // destroyed after the lock is released
  Table& t = table();
  {
    std::lock_guard guard(t.lock);
    auto found = t.objects.find(object);
    if (found == t.objects.end()) return;
    removed = std::move(found->second);
    t.objects.erase(found);
  }
}

}  // namespace nimb
