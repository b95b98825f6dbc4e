// Selector: the name of a method in the object runtime, interned so that two
// selectors of the same name are the same value and compare in one step.
// sel_registerName() makes (or finds) one; the kit keeps its own in
// function-local statics, so sending a message never looks a name up.
//
// Selectors are never freed: a selector made once stays valid for the life
// of the process.
//
// Thread rule: any thread. sel_registerName takes a reader-writer lock (a
// writer only for a name seen for the first time).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class Selector {
 public:
  // One interned name. `index` numbers selectors in the order they were
  // made; method caches hash on it.
  struct Info {
    std::string name;
    std::uint32_t index = 0;
  };

  // The null selector: names no method.
  constexpr Selector() = default;

  // The name, "" for the null selector.
  const char* name() const { return info_ ? info_->name.c_str() : ""; }
  explicit operator bool() const { return info_ != nullptr; }
  bool operator==(const Selector&) const = default;

  // For the runtime's tables.
  const Info* info() const { return info_; }
  std::uint32_t index() const { return info_ ? info_->index : 0; }

 private:
  friend Selector sel_registerName(std::string_view name);
  explicit Selector(const Info* info) : info_(info) {}
  const Info* info_ = nullptr;
};

// The selector named `name` ("layoutSubviews", "setImage:",
// "swizzleClassMethod:originalSelector:swizzledSelector:"), made on first
// use. The empty name gives the null selector.
Selector sel_registerName(std::string_view name);
// The selector's name; "" for the null selector.
inline const char* sel_getName(Selector selector) {
  return selector.name();
}

}  // namespace nimb

template <>
struct std::hash<nimb::Selector> {
  std::size_t operator()(nimb::Selector selector) const noexcept { return selector.index(); }
};
