#include <NimbFoundation/Platform/Concurrency/NotificationCenter.h>

#include <NimbFoundation/Internal/GuardedCall.h>

#include <atomic>
#include <utility>
#include <vector>

namespace nimb {

struct NotificationCenter::Registration {
  Registration(const void* observer, std::string name, const void* sender, Handler handler)
      : observer(observer), name(std::move(name)), sender(sender), handler(std::move(handler)) {}

  std::uint64_t sequence = 0;
  const void* const observer;
  const std::string name;
  const void* const sender;
  const Handler handler;
  // Set under the centre's lock; read without it by posts already under way,
  // so that a removed registration is skipped even by them.
  std::atomic<bool> removed{false};
};

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed: objects torn down during exit may still post or remove.
  static auto* center = new NotificationCenter;
  return *center;
}

NotificationCenter::NotificationCenter() = default;
NotificationCenter::~NotificationCenter() = default;

void NotificationCenter::addObserver(const void* observer, std::string name, const void* sender,
                                     Handler handler) {
  if (!handler) return;
  auto reg = std::make_shared<Registration>(observer, std::move(name), sender, std::move(handler));
  std::lock_guard lock(mutex_);
  reg->sequence = nextSequence_++;
  if (reg->name.empty()) {
    anyName_.emplace(reg->sequence, reg);
  } else {
    byName_.try_emplace(reg->name).first->second.emplace(reg->sequence, reg);
  }
  byObserver_[observer].emplace(reg->sequence, std::move(reg));
  ++count_;
}

void NotificationCenter::retire(Registration& reg) {
  reg.removed.store(true, std::memory_order_release);
  --count_;
  if (reg.name.empty()) {
    anyName_.erase(reg.sequence);
    return;
  }
  auto it = byName_.find(reg.name);
  if (it == byName_.end()) return;
  it->second.erase(reg.sequence);
  // Names come and go with the URLs they are about; keep no empty buckets.
  if (it->second.empty()) byName_.erase(it);
}

void NotificationCenter::removeObserver(const void* observer) {
  Bucket dropped;
  {
    std::lock_guard lock(mutex_);
    auto it = byObserver_.find(observer);
    if (it == byObserver_.end()) return;
    dropped.swap(it->second);
    byObserver_.erase(it);
    for (auto& [sequence, reg] : dropped) retire(*reg);
  }
  // The handlers (and what they capture) are released here, outside the lock.
}

void NotificationCenter::removeObserver(const void* observer, std::string_view name,
                                        const void* sender) {
  std::vector<RegistrationPtr> dropped;
  {
    std::lock_guard lock(mutex_);
    auto found = byObserver_.find(observer);
    if (found == byObserver_.end()) return;
    Bucket& bucket = found->second;
    for (auto it = bucket.begin(); it != bucket.end();) {
      Registration& reg = *it->second;
      if ((name.empty() || reg.name == name) && (!sender || reg.sender == sender)) {
        retire(reg);
        dropped.push_back(std::move(it->second));
        it = bucket.erase(it);
      } else {
        ++it;
      }
    }
    if (bucket.empty()) byObserver_.erase(found);
  }
}

void NotificationCenter::postNotification(const Notification& notification) {
  // A snapshot taken under the lock: registrations added from now on wait
  // for the next post; the handlers run after the lock is released.
  std::vector<RegistrationPtr> targets;
  {
    std::lock_guard lock(mutex_);
    static const Bucket kNone;
    const Bucket* named = &kNone;
    if (!notification.name.empty()) {
      auto it = byName_.find(notification.name);
      if (it != byName_.end()) named = &it->second;
    }
    // Both buckets are ordered by sequence; merging them keeps the global
    // registration order.
    auto a = anyName_.begin();
    auto b = named->begin();
    while (a != anyName_.end() || b != named->end()) {
      const RegistrationPtr* next;
      if (b == named->end() || (a != anyName_.end() && a->first < b->first)) {
        next = &(a++)->second;
      } else {
        next = &(b++)->second;
      }
      const void* sender = (*next)->sender;
      if (!sender || sender == notification.object) targets.push_back(*next);
    }
  }
  if (targets.empty()) return;
  std::string what = "NotificationCenter: a handler for \"" + notification.name + "\"";
  for (const auto& reg : targets) {
    if (reg->removed.load(std::memory_order_acquire)) continue;
    auto call = [&] { reg->handler(notification); };
    detail::callReportingExceptions(what.c_str(), call);
  }
}

void NotificationCenter::postNotificationName(std::string name, const void* sender,
                                              UserInfo userInfo) {
  postNotification(Notification{std::move(name), sender, std::move(userInfo)});
}

std::size_t NotificationCenter::observerCount() const {
  std::lock_guard lock(mutex_);
  return count_;
}

}  // namespace nimb
