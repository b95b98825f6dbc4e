// TypeEncoding: the text that names a method's C++ signature in the object
// runtime, such as "v@:" (returns nothing; takes the receiver and the
// selector) or "B@:{string}" (returns bool; takes a std::string).
//
// The first code is the return type, then "@" for the receiver (Object*),
// ":" for the selector, then one code per argument:
//   v void  B bool  c char  C unsigned char  s short  S unsigned short
//   i int  I unsigned  l long  L unsigned long  q long long
//   Q unsigned long long  f float  d double  D long double
//   @ Object*  # Class*  : Selector  {string} std::string
//   ^T pointer to T  rT const T  &T lvalue reference  %T rvalue reference
//   {mangled name} any other type (the compiler's name for it)
// Distinct C++ types get distinct texts, so two implementations with the
// same text can be called through the same function type. The runtime
// interns every text: equal texts are the same pointer in every module of
// the process, which is what makes a dispatch check one comparison.
//
// Thread rule: any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Runtime/Selector.h>

namespace NIMB_EXPORT nimb {

class Object;
class Class;

// Builds the texts; typeEncoding<R, Args...>() below is what callers use.
struct TypeEncoding {
  // The interned copy of `types`: the same pointer for equal texts.
  static const char* intern(std::string_view types);

  template <typename T>
  static void append(std::string& out);

  template <typename R, typename... Args>
  static std::string method() {
    std::string out;
    append<R>(out);
    out += "@:";
    (append<Args>(out), ...);
    return out;
  }
};

template <typename T>
void TypeEncoding::append(std::string& out) {
  using U = std::remove_cv_t<T>;
  if constexpr (std::is_lvalue_reference_v<T>) {
    out += '&';
    append<std::remove_reference_t<T>>(out);
  } else if constexpr (std::is_rvalue_reference_v<T>) {
    out += '%';
    append<std::remove_reference_t<T>>(out);
  } else if constexpr (std::is_const_v<T> || std::is_volatile_v<T>) {
    out += std::is_volatile_v<T> ? "V" : "";
    out += std::is_const_v<T> ? "r" : "";
    append<U>(out);
  } else if constexpr (std::is_same_v<T, Object*>) {
    out += '@';
  } else if constexpr (std::is_same_v<T, Class*>) {
    out += '#';
  } else if constexpr (std::is_pointer_v<T>) {
    out += '^';
    append<std::remove_pointer_t<T>>(out);
  } else if constexpr (std::is_same_v<T, void>) {
    out += 'v';
  } else if constexpr (std::is_same_v<T, bool>) {
    out += 'B';
  } else if constexpr (std::is_same_v<T, char>) {
    out += 'c';
  } else if constexpr (std::is_same_v<T, unsigned char>) {
    out += 'C';
  } else if constexpr (std::is_same_v<T, short>) {
    out += 's';
  } else if constexpr (std::is_same_v<T, unsigned short>) {
    out += 'S';
  } else if constexpr (std::is_same_v<T, int>) {
    out += 'i';
  } else if constexpr (std::is_same_v<T, unsigned>) {
    out += 'I';
  } else if constexpr (std::is_same_v<T, long>) {
    out += 'l';
  } else if constexpr (std::is_same_v<T, unsigned long>) {
    out += 'L';
  } else if constexpr (std::is_same_v<T, long long>) {
    out += 'q';
  } else if constexpr (std::is_same_v<T, unsigned long long>) {
    out += 'Q';
  } else if constexpr (std::is_same_v<T, float>) {
    out += 'f';
  } else if constexpr (std::is_same_v<T, double>) {
    out += 'd';
  } else if constexpr (std::is_same_v<T, long double>) {
    out += 'D';
  } else if constexpr (std::is_same_v<T, Selector>) {
    out += ':';
  } else if constexpr (std::is_same_v<T, std::string>) {
#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
    out += "{string(old ABI)}";
#else
    out += "{string}";
#endif
  } else {
    out += '{';
    out += typeid(T).name();
    // A type of an anonymous namespace has the same name as its namesakes
    // in other files; its type_info object is its own.
    if (std::string_view(typeid(T).name()).find("_GLOBAL__N") != std::string_view::npos) {
      out += '@';
      out += std::to_string(reinterpret_cast<std::uintptr_t>(&typeid(T)));
    }
    out += '}';
  }
}

// The interned type encoding of a method returning R and taking Args after
// the receiver and the selector.
template <typename R, typename... Args>
[[gnu::always_inline]] inline const char* typeEncoding() {
  static const char* const types = TypeEncoding::intern(TypeEncoding::method<R, Args...>());
  return types;
}

}  // namespace nimb
