// msgSend: sends a message through the object runtime. The receiver's class
// (object_getClass) is searched for the selector, superclasses included,
// through the class's method cache, and the implementation found is called
// with the receiver, the selector and the arguments.
//
//   msgSend<void>(view, sel_registerName("setHidden:"), true);
//   // NimbKit's "md5:" takes a std::optional<std::string>: pass exactly that
//   // (a std::string or a literal is another signature and is refused).
//   auto text = msgSend<std::string>(NimbKit::classObject(), sel_registerName("md5:"),
//                                    std::optional<std::string>(s));
//
// The signature is R (*)(Object*, Selector, Args...) with Args the decayed
// types of the arguments as written (pass a std::string, not a literal, to a
// method taking a std::string). It must be exactly the implementation's:
// the type encodings are compared before the call, so a mismatch never
// calls a function through the wrong type.
//
// A message to nullptr answers R() and does nothing. A selector the class
// does not answer, or an implementation of another signature, is a
// programming error: it is logged on the system log (naming the class, the
// selector and both encodings) and answers R(); a debug build of the library
// (built without NDEBUG) aborts instead, whatever the caller's own flags.
// Use class_respondsToSelector / IMP::as to ask first.
//
// Argument types with internal linkage (declared in an anonymous namespace)
// are told apart by their type_info, so they cannot be confused with a type
// of the same name in another file. Types other than the built-in ones need
// RTTI (typeid) in the sender's build.
//
// Thread rule: any thread; lock-free once the class's cache holds the
// selector.
#pragma once

#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Runtime/Object.h>

namespace NIMB_EXPORT nimb {

// What msgSend calls when it cannot dispatch: logs the failure, then aborts
// when the library was built without NDEBUG. `imp` is what the lookup found
// (nullptr: none), `expected` the encoding the sender asked for.
void msgSendFailed(const Object* receiver, Selector selector, const IMP* imp, const char* expected);

template <typename R, typename... Args>
R msgSend(Object* receiver, Selector selector, Args... args) {
  static_assert(std::is_void_v<R> || std::is_default_constructible_v<R>,
                "msgSend answers R() on failure, so R must be default-constructible");
  if (!receiver) return R();
  const Class::CacheEntry* entry = object_getClass(receiver)->lookUp(selector);
  const char* expected = typeEncoding<R, Args...>();
  if (entry && entry->types.load(std::memory_order_relaxed) == expected) [[likely]] {
    auto function = reinterpret_cast<R (*)(Object*, Selector, Args...)>(
        entry->function.load(std::memory_order_relaxed));
    return function(receiver, selector, std::move(args)...);
  }
  IMP found = entry ? IMP::fromParts(entry->function.load(std::memory_order_relaxed),
                                     entry->types.load(std::memory_order_relaxed))
                    : IMP();
  msgSendFailed(receiver, selector, found ? &found : nullptr, expected);
  return R();
}

// The same for a receiver held by a shared pointer.
template <typename R, typename T, typename... Args>
R msgSend(const std::shared_ptr<T>& receiver, Selector selector, Args... args) {
  return msgSend<R>(static_cast<Object*>(const_cast<std::remove_const_t<T>*>(receiver.get())),
                    selector, std::move(args)...);
}

}  // namespace nimb
