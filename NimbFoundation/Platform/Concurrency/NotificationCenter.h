// NotificationCenter: the platform's named-notification centre. A sender
// posts a Notification (a name, the sender's identity and a dictionary of
// details); every registration whose name and sender match is called.
//
// The image loader announces its progress here (several names per URL, for
// thousands of URLs), so finding the registrations for a name does not scan
// the others. defaultCenter() is the process-wide centre; tests and hosts
// may make independent ones.
//
// Thread rule: every member may be called from any thread. Delivery is
// synchronous on the posting thread, in registration order, and no lock is
// held while a handler runs: a handler may post, add or remove freely. A
// registration removed while a post is delivering (by a handler or by
// another thread) is not called afterwards by that post; one added during a
// post waits for the next. Removal does not wait for a handler already
// running on another thread. A handler that throws is reported on standard
// error; the others still run and postNotification returns normally.
#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

using UserInfo = std::map<std::string, std::any, std::less<>>;

struct Notification {
  std::string name;
  const void* object = nullptr;  // the sender, compared by identity only
  UserInfo userInfo;

  // The value under `key` when it holds a T, else nullptr.
  template <typename T>
  const T* get(std::string_view key) const {
    auto it = userInfo.find(key);
    if (it == userInfo.end()) return nullptr;
    return std::any_cast<T>(&it->second);
  }
};

class NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  // The process-wide centre; never destroyed, so posts during exit are safe.
  static NotificationCenter& defaultCenter();

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Registers `handler` for notifications named `name` ("" = any name)
  // posted by `sender` (nullptr = any sender). `observer` is an identity
  // used only for removal (nullptr is an identity like any other). The same
  // observer may register many times; each registration delivers
  // separately. An empty handler registers nothing.
  void addObserver(const void* observer, std::string name, const void* sender, Handler handler);
  // Removes every registration of `observer`.
  void removeObserver(const void* observer);
  // Removes the registrations of `observer` for `name` ("" = any name) and
  // `sender` (nullptr = any sender).
  void removeObserver(const void* observer, std::string_view name, const void* sender);

  void postNotification(const Notification& notification);
  void postNotificationName(std::string name, const void* sender, UserInfo userInfo = {});

  // Live registrations, for tests and diagnostics.
  std::size_t observerCount() const;

 private:
  struct Registration;
  using RegistrationPtr = std::shared_ptr<Registration>;
  // Registrations keyed by sequence number, which is their global order.
  using Bucket = std::map<std::uint64_t, RegistrationPtr>;

  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept {
      return std::hash<std::string_view>{}(name);
    }
  };

  // Takes `reg` out of the name indexes (not byObserver_) and marks it
  // removed; the caller holds the lock.
  void retire(Registration& reg);

  mutable std::mutex mutex_;
  std::unordered_map<std::string, Bucket, NameHash, std::equal_to<>> byName_;
  Bucket anyName_;
  std::unordered_map<const void*, Bucket> byObserver_;
  std::uint64_t nextSequence_ = 0;
  std::size_t count_ = 0;
};

}  // namespace nimb
