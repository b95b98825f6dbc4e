#include <NimbFoundation/Platform/Runtime/MessageSend.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include <NimbFoundation/Internal/RuntimeMethods.h>
#include <NimbFoundation/Platform/Env/SystemLog.h>

namespace nimb {

// The runtime's state, behind one lock. Nothing here is ever freed: classes,
// methods, implementations and caches stay valid for the life of the
// process, so lock-free readers never see freed memory.
struct RuntimeAccess {
  struct ClassRecord {
    Class* cls;
    std::unordered_map<const Selector::Info*, Method*> methods;
  };

  std::mutex mutex;
  std::map<std::string, Class*, std::less<>> classes;
  std::unordered_map<const Class*, ClassRecord> records;  // classes and metaclasses
  std::map<std::pair<void (*)(), const char*>, const IMP*> imps;
  std::deque<IMP> impStorage;
  std::unordered_map<const Method*, const Class*> owners;
  std::set<std::string, std::less<>> encodings;
  std::uintptr_t emptyCache = 0;

  static RuntimeAccess& shared() {
    static RuntimeAccess* const instance = new RuntimeAccess();
    return *instance;
  }

  RuntimeAccess() { emptyCache = makeCache(0); }

  // A cache word for 2^sizeLog2 empty entries. Never freed: readers may
  // still hold a replaced cache. `caches` keeps every one reachable (a
  // deliberate cost of a few hundred bytes per class for each change to a
  // method table, which is why changes belong to start-up).
  std::vector<Class::CacheEntry*> caches;
  std::uintptr_t makeCache(unsigned sizeLog2) {
    auto* entries = new (std::align_val_t{64}) Class::CacheEntry[std::size_t{1} << sizeLog2];
    caches.push_back(entries);
    return reinterpret_cast<std::uintptr_t>(entries) | sizeLog2;
  }
  static Class::CacheEntry* entriesOf(std::uintptr_t word) {
    return reinterpret_cast<Class::CacheEntry*>(word & ~Class::kCacheSizeBits);
  }
  static std::size_t sizeOf(std::uintptr_t word) {
    return std::size_t{1} << (word & Class::kCacheSizeBits);
  }

  // The one stored copy of `imp`, so Method entries can swap pointers.
  const IMP* intern(IMP imp) {
    if (!imp) return nullptr;
    auto key = std::make_pair(imp.function(), imp.typeEncoding());
    if (auto found = imps.find(key); found != imps.end()) return found->second;
    const IMP* stored = &impStorage.emplace_back(imp);
    imps.emplace(key, stored);
    return stored;
  }

  static Class* newClass(std::string name, Class* superclass, bool isMeta) {
    return new Class(std::move(name), superclass, isMeta);
  }
  static void setClassOf(Object* object, Class* cls) { object->isa_ = cls; }
  static std::atomic<std::uintptr_t>& cacheOf(Class* cls) { return cls->cache_; }
  static Method* newMethod(Selector selector, const IMP* imp) { return new Method(selector, imp); }
  static std::atomic<const IMP*>& impOf(Method* method) { return method->imp_; }
  static const std::atomic<const IMP*>& impOf(const Method* method) { return method->imp_; }
  static Selector nameOf(const Method* method) { return method->name_; }

  // The caches of `changed` and of every class inheriting from it become
  // the empty one: what they hold may name a replaced implementation.
  void flushCaches(const Class* changed) {
    for (auto& [cls, record] : records) {
      if (cls->isSubclassOfClass(changed)) {
        cacheOf(const_cast<Class*>(cls)).store(emptyCache, std::memory_order_release);
      }
    }
  }

  Method* ownMethod(const Class* cls, Selector selector) {
    auto record = records.find(cls);
    if (record == records.end()) return nullptr;
    auto found = record->second.methods.find(selector.info());
    return found == record->second.methods.end() ? nullptr : found->second;
  }

  Method* findMethod(const Class* cls, Selector selector) {
    for (; cls; cls = cls->superclass()) {
      if (Method* method = ownMethod(cls, selector)) return method;
    }
    return nullptr;
  }

  Class* registerClass(std::string_view name, Class* superclass, bool byKit) {
    if (name.empty()) return nullptr;
    if (auto found = classes.find(name); found != classes.end()) {
      return found->second->superclass() == superclass ? found->second : nullptr;
    }
    if (!byKit && std::find(std::begin(detail::kKitClassNames), std::end(detail::kKitClassNames),
                            name) != std::end(detail::kKitClassNames)) {
      return nullptr;
    }
    if (superclass && (superclass->isMetaClass() || !records.count(superclass))) return nullptr;
    // The metaclass inherits the superclass's metaclass; the root's
    // metaclass has no superclass. Every metaclass is an instance of the
    // root metaclass.
    Class* meta =
        newClass(std::string(name), superclass ? object_getClass(superclass) : nullptr, true);
    Class* cls = newClass(std::string(name), superclass, false);
    setClassOf(cls, meta);
    Class* rootMeta = meta;
    while (Class* up = rootMeta->superclass()) rootMeta = up;
    setClassOf(meta, rootMeta);
    for (Class* c : {meta, cls}) {
      cacheOf(c).store(emptyCache, std::memory_order_release);
      records.emplace(c, ClassRecord{c, {}});
    }
    classes.emplace(std::string(name), cls);
    return cls;
  }

  // Puts (selector, imp) in the class's cache, growing it when 3/4 full,
  // and returns its entry.
  const Class::CacheEntry* fillCache(Class* cls, Selector selector, const IMP* imp) {
    auto& slot = cacheOf(cls);
    std::uintptr_t word = slot.load(std::memory_order_relaxed);
    std::size_t size = sizeOf(word), used = 0;
    for (std::size_t i = 0; i < size; ++i) {
      if (entriesOf(word)[i].key.load(std::memory_order_relaxed)) ++used;
    }
    if (word != emptyCache && (used + 1) * 4 <= size * 3) {
      return insert(word, selector.info(), imp ? imp->function() : nullptr,
                    imp ? imp->typeEncoding() : nullptr);
    }
    unsigned sizeLog2 = word == emptyCache ? 3 : (word & Class::kCacheSizeBits) + 1;
    std::uintptr_t bigger = makeCache(sizeLog2);
    for (std::size_t i = 0; i < size; ++i) {
      const Class::CacheEntry& old = entriesOf(word)[i];
      if (const auto* key = old.key.load(std::memory_order_relaxed)) {
        insert(bigger, key, old.function.load(std::memory_order_relaxed),
               old.types.load(std::memory_order_relaxed));
      }
    }
    const Class::CacheEntry* entry =
        insert(bigger, selector.info(), imp ? imp->function() : nullptr,
               imp ? imp->typeEncoding() : nullptr);
    slot.store(bigger, std::memory_order_release);
    return entry;
  }

  static const Class::CacheEntry* insert(std::uintptr_t word, const Selector::Info* key,
                                         void (*function)(), const char* types) {
    Class::CacheEntry* entries = entriesOf(word);
    std::size_t mask = sizeOf(word) - 1;
    std::size_t i = Class::cacheSlot(key, mask);
    while (entries[i].key.load(std::memory_order_relaxed)) i = (i + 1) & mask;
    // The implementation first: a reader that sees the key sees it too.
    entries[i].function.store(function, std::memory_order_relaxed);
    entries[i].types.store(types, std::memory_order_relaxed);
    entries[i].key.store(key, std::memory_order_release);
    return &entries[i];
  }

  Method* addMethod(Class* cls, Selector selector, const IMP* imp) {
    Method* method = newMethod(selector, imp);
    records.at(cls).methods.emplace(selector.info(), method);
    owners.emplace(method, cls);
    flushCaches(cls);
    return method;
  }

  // Whether `types` may go with `imp`: not given, or the same text.
  static bool typesFit(const IMP& imp, const char* types) {
    return !types || std::string_view(types) == imp.typeEncoding();
  }
};

namespace {
RuntimeAccess& runtime() {
  return RuntimeAccess::shared();
}
}  // namespace

const char* TypeEncoding::intern(std::string_view types) {
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  return r.encodings.emplace(types).first->c_str();
}

const Class::CacheEntry* Class::lookUpSlow(Selector selector) {
  Class* cls = this;
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  Method* method = r.findMethod(cls, selector);
  const IMP* imp = method ? RuntimeAccess::impOf(method).load(std::memory_order_acquire) : nullptr;
  // Misses are cached too, so asking again stays lock-free. Another thread
  // may have filled the entry since this one looked.
  std::uintptr_t word = RuntimeAccess::cacheOf(cls).load(std::memory_order_relaxed);
  std::size_t mask = RuntimeAccess::sizeOf(word) - 1;
  for (std::size_t i = cacheSlot(selector.info(), mask);; i = (i + 1) & mask) {
    const CacheEntry& entry = RuntimeAccess::entriesOf(word)[i];
    const Selector::Info* key = entry.key.load(std::memory_order_relaxed);
    if (key == selector.info()) return &entry;
    if (!key) break;
  }
  return r.fillCache(cls, selector, imp);
}

void msgSendFailed(const Object* receiver, Selector selector, const IMP* imp,
                   const char* expected) {
  const Class* cls = object_getClass(receiver);
  if (!imp) {
    SystemLog::log("%s %s: unrecognized selector sent to instance %p", class_getName(cls),
                   selector ? selector.name() : "(null selector)",
                   static_cast<const void*>(receiver));
  } else {
    SystemLog::log("%s %s: sent as \"%s\" but its implementation is \"%s\"", class_getName(cls),
                   selector.name(), expected, imp->typeEncoding());
  }
#ifndef NDEBUG
  std::abort();
#endif
}

// --- Object and Class ----------------------------------------------------------

Object::Object(Class* cls) : isa_(cls ? cls : classObject()) {}

Class* Object::classObject() {
  static Class* const cls = [] {
    Class* root = detail::registerKitClass("Object", nullptr);
    class_addMethod(
        root, sel_registerName("description"), +[](Object* self, Selector) -> std::string {
          char address[32];
          std::snprintf(address, sizeof address, "%p", static_cast<void*>(self));
          return "<" + std::string(class_getName(object_getClass(self))) + ": " + address + ">";
        });
    // The class object's own description is its name.
    class_addMethod(
        object_getClass(root), sel_registerName("description"),
        +[](Object* self, Selector) -> std::string { return static_cast<Class*>(self)->name(); });
    return root;
  }();
  return cls;
}

std::string Object::description() const {
  static const Selector selector = sel_registerName("description");
  return msgSend<std::string>(const_cast<Object*>(this), selector);
}

Class::Class(std::string name, Class* superclass, bool isMeta)
    : Object(this), name_(std::move(name)), superclass_(superclass), isMeta_(isMeta) {}

Class::~Class() = default;

bool Class::isSubclassOfClass(const Class* other) const {
  for (const Class* c = this; c; c = c->superclass()) {
    if (c == other) return true;
  }
  return false;
}

// --- Functions -----------------------------------------------------------------

Class* objc_registerClass(std::string_view name, Class* superclass) {
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  return r.registerClass(name, superclass, false);
}

Class* detail::registerKitClass(std::string_view name, Class* superclass) {
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  return r.registerClass(name, superclass, true);
}

Class* objc_getClass(std::string_view name) {
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  auto found = r.classes.find(name);
  return found == r.classes.end() ? nullptr : found->second;
}

const char* class_getName(const Class* cls) {
  return cls ? cls->name().c_str() : "nil";
}
Class* class_getSuperclass(const Class* cls) {
  return cls ? cls->superclass() : nullptr;
}
bool class_isMetaClass(const Class* cls) {
  return cls && cls->isMetaClass();
}

bool object_isKindOfClass(const Object* object, const Class* cls) {
  const Class* own = object_getClass(object);
  return own && cls && own->isSubclassOfClass(cls);
}

Method* class_getInstanceMethod(Class* cls, Selector selector) {
  if (!cls || !selector) return nullptr;
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  return r.findMethod(cls, selector);
}

Method* class_getClassMethod(Class* cls, Selector selector) {
  return class_getInstanceMethod(object_getClass(cls), selector);
}

IMP Class::implementationFor(Selector selector) {
  const CacheEntry* entry = lookUp(selector);
  if (!entry) return IMP();
  return IMP::fromParts(entry->function.load(std::memory_order_relaxed),
                        entry->types.load(std::memory_order_relaxed));
}

bool class_respondsToSelector(Class* cls, Selector selector) {
  return cls && cls->implementationFor(selector);
}

IMP class_getMethodImplementation(Class* cls, Selector selector) {
  return cls ? cls->implementationFor(selector) : IMP();
}

bool class_addMethod(Class* cls, Selector selector, IMP imp, const char* types) {
  if (!cls || !selector || !imp || !RuntimeAccess::typesFit(imp, types)) return false;
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  if (!r.records.count(cls) || r.ownMethod(cls, selector)) return false;
  r.addMethod(cls, selector, r.intern(imp));
  return true;
}

IMP class_replaceMethod(Class* cls, Selector selector, IMP imp, const char* types) {
  if (!cls || !selector || !imp || !RuntimeAccess::typesFit(imp, types)) return IMP();
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  if (!r.records.count(cls)) return IMP();
  const IMP* stored = r.intern(imp);
  if (Method* own = r.ownMethod(cls, selector)) {
    const IMP* previous = RuntimeAccess::impOf(own).exchange(stored, std::memory_order_acq_rel);
    r.flushCaches(cls);
    return previous ? *previous : IMP();
  }
  r.addMethod(cls, selector, stored);
  return IMP();
}

Selector method_getName(const Method* method) {
  return method ? RuntimeAccess::nameOf(method) : Selector();
}

IMP method_getImplementation(const Method* method) {
  if (!method) return IMP();
  const IMP* imp = RuntimeAccess::impOf(method).load(std::memory_order_acquire);
  return imp ? *imp : IMP();
}

const char* method_getTypeEncoding(const Method* method) {
  return method_getImplementation(method).typeEncoding();
}

IMP method_setImplementation(Method* method, IMP imp) {
  if (!method || !imp) return IMP();
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  const IMP* previous = RuntimeAccess::impOf(method).exchange(r.intern(imp));
  r.flushCaches(r.owners.at(method));
  return previous ? *previous : IMP();
}

void method_exchangeImplementations(Method* first, Method* second) {
  if (!first || !second || first == second) return;
  RuntimeAccess& r = runtime();
  std::lock_guard lock(r.mutex);
  const IMP* a = RuntimeAccess::impOf(first).load();
  const IMP* b = RuntimeAccess::impOf(second).load();
  RuntimeAccess::impOf(first).store(b);
  RuntimeAccess::impOf(second).store(a);
  r.flushCaches(r.owners.at(first));
  r.flushCaches(r.owners.at(second));
}

}  // namespace nimb
