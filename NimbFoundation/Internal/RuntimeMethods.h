// Helpers for the kit's classes to register their methods in the object
// runtime from captureless lambdas:
//   addMethod<View>(cls, selector, [](View& v, bool b) { ... });
//   addClassMethod(metaclass, selector, [](std::string s) { return ...; });
// Each becomes an IMP of the signature R (*)(Object*, Selector, Args...).
// An instance method checks that the receiver is a T before it casts (an
// implementation moved to an unrelated class answers R() and logs instead
// of misbehaving).
#pragma once

#include <cstddef>
#include <string_view>
#include <type_traits>
#include <utility>

#include <NimbFoundation/Platform/Env/SystemLog.h>
#include <NimbFoundation/Platform/Runtime/Object.h>

namespace nimb::detail {

// The names of the kit's own runtime classes. objc_registerClass refuses
// them until the kit has registered them itself through registerKitClass,
// so an application cannot take one first and leave the kit without its
// classes.
inline constexpr std::string_view kKitClassNames[] = {"Object", "View", "ImageView", "VQImageView",
                                                      "NimbKit"};
// objc_registerClass for the kit's own classes.
Class* registerKitClass(std::string_view name, Class* superclass);

// A selector name as a template argument: selectorNamed<"setImage:">() is
// made on first use and then answered from a static.
template <std::size_t N>
struct SelectorName {
  char text[N];
  constexpr SelectorName(const char (&name)[N]) {  // NOLINT: implicit on purpose
    for (std::size_t i = 0; i < N; ++i) text[i] = name[i];
  }
};

template <SelectorName name>
const Selector& selectorNamed() {
  static const Selector selector = sel_registerName(name.text);
  return selector;
}

template <typename T, typename Lambda, typename R, typename... Args>
struct InstanceThunk {
  static R call(Object* self, Selector selector, Args... args) {
    if (!object_isKindOfClass(self, T::classObject())) {
      SystemLog::log("%s %s: receiver is not a %s", class_getName(object_getClass(self)),
                     selector.name(), class_getName(T::classObject()));
      return R();
    }
    return Lambda{}(static_cast<T&>(*self), std::move(args)...);
  }
};

template <typename Lambda, typename R, typename... Args>
struct ClassThunk {
  static R call(Object*, Selector, Args... args) { return Lambda{}(std::move(args)...); }
};

template <typename T, typename Lambda, typename R, typename... Args>
IMP instanceImp(R (Lambda::*)(T&, Args...) const) {
  return IMP(&InstanceThunk<T, Lambda, R, Args...>::call);
}

template <typename Lambda, typename R, typename... Args>
IMP classImp(R (Lambda::*)(Args...) const) {
  return IMP(&ClassThunk<Lambda, R, Args...>::call);
}

template <typename T, typename Lambda>
bool addMethod(Class* cls, Selector selector, Lambda) {
  static_assert(std::is_empty_v<Lambda>, "the implementation must not capture");
  return class_addMethod(cls, selector, instanceImp<T, Lambda>(&Lambda::operator()));
}

template <typename Lambda>
bool addClassMethod(Class* metaclass, Selector selector, Lambda) {
  static_assert(std::is_empty_v<Lambda>, "the implementation must not capture");
  return class_addMethod(metaclass, selector, classImp<Lambda>(&Lambda::operator()));
}

}  // namespace nimb::detail
