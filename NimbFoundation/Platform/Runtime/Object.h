// The object runtime: classes with method tables that can be changed while
// the program runs, the counterpart of the platform's runtime. NimbKit's
// Runtime extension exchanges method implementations through it, and the
// kit's own classes (View, ImageView, VQImageView, NimbKit) send their
// overridable operations through it (msgSend, MessageSend.h), so an
// exchange changes what those operations do.
//
//   Object   the root of every object the runtime dispatches on. It knows
//            its class (object_getClass).
//   Class    a registered class: a name, a superclass, a metaclass (whose
//            methods are the class methods) and a table of methods. A Class
//            is itself an Object whose class is its metaclass.
//   Method   one entry of a table: a selector and an implementation.
//   IMP      an implementation: a plain function
//            R (*)(Object* self, Selector cmd, Args...) with the type
//            encoding of its signature (TypeEncoding.h).
//
// A C++ class joins the runtime by registering a Class for itself (once,
// objc_registerClass), adding its methods, and having its constructor set
// that class on the object (Object(Class*) or setRuntimeClass). A C++
// subclass that registers nothing keeps the class of its nearest registered
// base and dispatches as that class does.
//
// Thread rule: any thread. Registering classes and adding methods take the
// runtime's lock. Replacing and exchanging implementations are meant for
// start-up, before other threads send the messages concerned: nothing then
// breaks (every table entry is read and written atomically) but a message
// sent meanwhile may run either implementation. Lookups go through a
// per-class cache that is read without a lock and emptied on every change.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Runtime/Selector.h>
#include <NimbFoundation/Platform/Runtime/TypeEncoding.h>

namespace NIMB_EXPORT nimb {

class Class;
class Method;

// An implementation and the encoding of its signature. Empty by default.
class IMP {
 public:
  constexpr IMP() = default;
  template <typename R, typename... Args>
  IMP(R (*function)(Object*, Selector, Args...))  // NOLINT: implicit on purpose
  : function_(function ? reinterpret_cast<void (*)()>(function) : nullptr),
    types_(function ? nimb::typeEncoding<R, Args...>() : nullptr) {}

  explicit operator bool() const { return function_ != nullptr; }
  // The interned type encoding; nullptr for an empty IMP.
  const char* typeEncoding() const { return types_; }
  // The function as R (*)(Object*, Selector, Args...), or nullptr when that
  // is not its signature.
  template <typename R, typename... Args>
  R (*as() const)
  (Object*, Selector, Args...) {
    if (!function_ || types_ != nimb::typeEncoding<R, Args...>()) return nullptr;
    return reinterpret_cast<R (*)(Object*, Selector, Args...)>(function_);
  }
  bool operator==(const IMP&) const = default;
  // The function as stored, for tables that key on it.
  void (*function() const)() { return function_; }
  // An IMP of a function and its interned encoding, as tables store them.
  static IMP fromParts(void (*function)(), const char* types) {
    IMP imp;
    if (function && types) {
      imp.function_ = function;
      imp.types_ = types;
    }
    return imp;
  }

 private:
  void (*function_)() = nullptr;
  const char* types_ = nullptr;
};

class Object {
 public:
  // The root class, named "Object". Its instances answer "description"
  // with "<ClassName: 0x...>".
  static Class* classObject();

  // Sends "description": one line that names the object.
  std::string description() const;

 protected:
  // The object belongs to `cls` (the root class when null).
  explicit Object(Class* cls = nullptr);
  ~Object() = default;
  Object(const Object&) = default;
  Object& operator=(const Object&) { return *this; }  // the class stays
  // Called by a registered subclass's constructor, after its base's.
  void setRuntimeClass(Class* cls) { isa_ = cls; }

 private:
  friend Class* object_getClass(const Object* object);
  friend struct RuntimeAccess;
  Class* isa_;
};

class Class : public Object {
 public:
  Class(const Class&) = delete;
  Class& operator=(const Class&) = delete;

  const std::string& name() const { return name_; }
  Class* superclass() const { return superclass_; }
  bool isMetaClass() const { return isMeta_; }
  // Whether this class is `other` or inherits from it.
  bool isSubclassOfClass(const Class* other) const;

  // The method cache: open addressing on the selector's address. An entry
  // is written once, under the runtime's lock (the implementation, then the
  // key with release order), and read without a lock; a full cache is
  // replaced by a larger copy, and a change to a method table replaces the
  // caches of the class and its subclasses by an empty one. Replaced caches
  // are kept (never freed), so a reader never sees freed memory.
  struct alignas(32) CacheEntry {
    std::atomic<const Selector::Info*> key{nullptr};
    // Null with a key: the class has no method for it.
    std::atomic<void (*)()> function{nullptr};
    std::atomic<const char*> types{nullptr};
  };
  // The cache word: the entries' address (aligned to 64 bytes) with the
  // base-2 logarithm of their count in the low 6 bits.
  static constexpr std::uintptr_t kCacheSizeBits = 63;
  static std::size_t cacheSlot(const Selector::Info* key, std::size_t mask) {
    return (reinterpret_cast<std::uintptr_t>(key) >> 3) & mask;
  }

  // The cache entry for `selector`, found in this class or its
  // superclasses (a null function: none has it); nullptr for the null
  // selector. The entry stays valid for the life of the process.
  const CacheEntry* lookUp(Selector selector) {
    const Selector::Info* key = selector.info();
    if (!key) [[unlikely]]
      return nullptr;
    std::uintptr_t word = cache_.load(std::memory_order_acquire);
    const auto* entries = reinterpret_cast<const CacheEntry*>(word & ~kCacheSizeBits);
    std::size_t mask = (std::size_t{1} << (word & kCacheSizeBits)) - 1;
    for (std::size_t i = cacheSlot(key, mask);; i = (i + 1) & mask) {
      const Selector::Info* found = entries[i].key.load(std::memory_order_acquire);
      if (found == key) [[likely]]
        return &entries[i];
      if (!found) return lookUpSlow(selector);
    }
  }
  // The implementation instances of this class run for `selector`; empty
  // when none.
  IMP implementationFor(Selector selector);

 private:
  friend struct RuntimeAccess;
  Class(std::string name, Class* superclass, bool isMeta);
  ~Class();
  // Searches the tables and fills the cache.
  const CacheEntry* lookUpSlow(Selector selector);

  // First, so inline lookups find it at the same place whatever the
  // caller's standard library ABI.
  std::atomic<std::uintptr_t> cache_{0};
  std::string name_;
  Class* superclass_;
  bool isMeta_;
};

// A method of a class's own table. Owned by its class, never freed.
class Method {
 public:
  Method(const Method&) = delete;
  Method& operator=(const Method&) = delete;

 private:
  friend struct RuntimeAccess;
  Method(Selector name, const IMP* imp) : name_(name), imp_(imp) {}
  Selector name_;
  std::atomic<const IMP*> imp_;  // interned, never freed
};

// --- Classes ---------------------------------------------------------------
// Registers a class named `name` under `superclass` (nullptr: a new root)
// with its metaclass, and returns it. Registering the same name again with
// the same superclass returns the class already registered; nullptr when the
// name is empty or taken by a class with another superclass. The kit's own
// names (Object, View, ImageView, VQImageView, NimbKit) are its alone: until
// the kit has registered one, registering it here answers nullptr.
Class* objc_registerClass(std::string_view name, Class* superclass);
// The class registered under `name`; nullptr when none.
Class* objc_getClass(std::string_view name);
// The object's class (for a Class, its metaclass); nullptr for nullptr.
inline Class* object_getClass(const Object* object) {
  return object ? object->isa_ : nullptr;
}
// The class's name; "nil" for nullptr.
const char* class_getName(const Class* cls);
Class* class_getSuperclass(const Class* cls);
bool class_isMetaClass(const Class* cls);
// Whether the object's class is `cls` or inherits from it.
bool object_isKindOfClass(const Object* object, const Class* cls);

// --- Methods -----------------------------------------------------------------
// The method for `selector` of the class or its nearest superclass that has
// one; nullptr when none does.
Method* class_getInstanceMethod(Class* cls, Selector selector);
// The same on the class's metaclass: its class methods.
Method* class_getClassMethod(Class* cls, Selector selector);
// Whether instances of the class answer `selector` (inherited included).
bool class_respondsToSelector(Class* cls, Selector selector);
// The implementation instances of the class run for `selector`; empty when
// none (or for a null class).
IMP class_getMethodImplementation(Class* cls, Selector selector);
// Adds a method to the class's own table. Fails (false), changing nothing,
// when the class already has its own method for `selector` (an inherited
// one does not count), when an argument is null or empty, or when `types`
// is given and differs from the implementation's encoding.
bool class_addMethod(Class* cls, Selector selector, IMP imp, const char* types = nullptr);
// Sets the implementation of the class's own method for `selector` and
// returns the one it had; adds the method when the class has none of its
// own and returns an empty IMP. Returns an empty IMP, changing nothing,
// when an argument is null or empty or `types` differs from the encoding.
IMP class_replaceMethod(Class* cls, Selector selector, IMP imp, const char* types = nullptr);

Selector method_getName(const Method* method);
IMP method_getImplementation(const Method* method);
// The encoding of the method's current implementation.
const char* method_getTypeEncoding(const Method* method);
// Sets the implementation and returns the previous one; an empty IMP or a
// null method changes nothing and returns an empty IMP.
IMP method_setImplementation(Method* method, IMP imp);
// Exchanges the two methods' implementations (each keeps its selector). The
// encodings travel with the implementations, so a message sent with the old
// signature afterwards fails the dispatch check rather than misbehaving.
void method_exchangeImplementations(Method* first, Method* second);

}  // namespace nimb
