// Result: what a platform operation on files or stores returns: a value, or
// the reason it failed (the errno and the path it failed on).
//
// It reads like an optional, so `if (auto bytes = FileManager::contentsAtPath(p))`
// and `*bytes` work as they always did; error() says why when it is empty.
// The kit's own classes (VQCache, VQUtils...) keep their plain return types
// and log or count what a Result tells them.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

// Why a system call failed, and on which path.
struct SystemError {
  int code = 0;      // an errno value
  std::string path;  // the path the call was made on; may be empty

  // "<strerror(code)>: <path>", or only the first part without a path.
  std::string message() const;
  bool operator==(const SystemError&) const = default;
};

template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(SystemError error) : state_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  // Only when ok().
  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T&& operator*() && { return std::move(*this).value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  template <typename U>
  T value_or(U&& fallback) const& {
    return ok() ? value() : static_cast<T>(std::forward<U>(fallback));
  }

  // Replaces what it holds by a value made from `args`, as optional does.
  template <typename... Args>
  T& emplace(Args&&... args) {
    return state_.template emplace<0>(std::forward<Args>(args)...);
  }

  // Only when !ok().
  const SystemError& error() const { return std::get<1>(state_); }

  // Compares like an optional: a failure equals only a failure with the same
  // reason, and std::nullopt.
  friend bool operator==(const Result& a, const Result& b) { return a.state_ == b.state_; }
  friend bool operator==(const Result& r, const T& value) { return r.ok() && r.value() == value; }
  friend bool operator==(const Result& r, std::nullopt_t) { return !r.ok(); }

  // The value as an optional, dropping the reason.
  std::optional<T> optional() && {
    if (!ok()) return std::nullopt;
    return std::move(*this).value();
  }

 private:
  std::variant<T, SystemError> state_;
};

// An operation that yields nothing but may fail.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(SystemError error) : error_(std::move(error)) {}

  bool ok() const { return !error_.has_value(); }
  explicit operator bool() const { return ok(); }
  // Only when !ok().
  const SystemError& error() const { return *error_; }

 private:
  std::optional<SystemError> error_;
};

}  // namespace nimb
