#include <NimbFoundation/Internal/DBusConnection.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace nimb::detail {

GDBusConnection* openBusConnection(const std::string& address, int timeoutMs,
                                   std::string& message) {
  GCancellable* cancellable = g_cancellable_new();
  std::mutex lock;
  std::condition_variable changed;
  bool done = false;
  std::thread watchdog([&] {
    std::unique_lock guard(lock);
    if (!changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&] { return done; })) {
      g_cancellable_cancel(cancellable);
    }
  });
  GError* error = nullptr;
  GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
      address.c_str(), kBusClientFlags, nullptr, cancellable, &error);
  {
    std::lock_guard guard(lock);
    done = true;
  }
  changed.notify_all();
  watchdog.join();
  g_object_unref(cancellable);
  if (!connection) {
    message = error ? error->message : "unknown error";
    if (error) g_error_free(error);
    return nullptr;
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  return connection;
}

}  // namespace nimb::detail
