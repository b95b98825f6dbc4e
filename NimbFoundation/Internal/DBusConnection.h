// DBusConnection: how the kit opens its own D-Bus connections (the photo
// picker's session bus, GeoClue's system bus): private message-bus
// connections, never GLib's process-wide singletons, that do not end the
// process when the bus closes them.
//
// Thread rule: any thread.
#pragma once

#include <gio/gio.h>

#include <string>

namespace nimb::detail {

// The flags of a client connection to a message bus.
inline constexpr GDBusConnectionFlags kBusClientFlags = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

// A new private connection to the bus at `address`, opened within
// `timeoutMs` (a socket whose daemon accepts but never answers would
// otherwise hold the caller for good), or nullptr with `message` saying why.
GDBusConnection* openBusConnection(const std::string& address, int timeoutMs, std::string& message);

}  // namespace nimb::detail
