#include <NimbFoundation/Platform/Location/GeoClueLocationSource.h>

#include <gio/gio.h>

#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <NimbFoundation/Internal/DBusConnection.h>
#include <NimbFoundation/Internal/GLibThread.h>
#include <NimbFoundation/Platform/Env/Env.h>

namespace nimb {

namespace {

constexpr const char* kService = "org.freedesktop.GeoClue2";
constexpr const char* kManagerPath = "/org/freedesktop/GeoClue2/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.GeoClue2.Manager";
constexpr const char* kClientInterface = "org.freedesktop.GeoClue2.Client";
constexpr const char* kLocationInterface = "org.freedesktop.GeoClue2.Location";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kStandardSystemBus = "unix:path=/var/run/dbus/system_bus_socket";
constexpr int kAvailabilityTimeoutMs = 2000;
constexpr int kCallTimeoutMs = 5000;

// GeoClue's accuracy levels (GClueAccuracyLevel).
constexpr guint32 kLevelCity = 4;
constexpr guint32 kLevelNeighborhood = 5;
constexpr guint32 kLevelStreet = 6;
constexpr guint32 kLevelExact = 8;

// The level asked of GeoClue for a desired accuracy: EXACT for the two
// "best" markers and anything finer than 100 m, STREET below 1 km,
// NEIGHBORHOOD below 3 km, CITY for the rest (and for NaN).
guint32 accuracyLevel(double desired) {
  if (desired == kLocationAccuracyBest || desired == kLocationAccuracyBestForNavigation ||
      desired < 100) {
    return kLevelExact;
  }
  if (desired < 1000) return kLevelStreet;
  if (desired < 3000) return kLevelNeighborhood;
  return kLevelCity;
}

// DistanceThreshold: whole meters, 0 (every fix) when the filter is off.
guint32 distanceThreshold(double filter) {
  if (!(filter > 0)) return 0;
  if (filter >= static_cast<double>(std::numeric_limits<guint32>::max())) {
    return std::numeric_limits<guint32>::max();
  }
  return static_cast<guint32>(std::floor(filter));
}

std::string systemBusAddress() {
  auto address = Env::current()->environmentVariable("DBUS_SYSTEM_BUS_ADDRESS");
  if (address && !address->empty()) return *address;
  return kStandardSystemBus;
}

// A refusal by the service is kCLErrorDenied; any other failure means the
// service cannot be reached.
Error errorForCall(GError* error, const char* what) {
  std::string message = error->message;
  bool denied = false;
  if (gchar* remote = g_dbus_error_get_remote_error(error)) {
    denied = std::string(remote) == "org.freedesktop.DBus.Error.AccessDenied";
    g_free(remote);
    g_dbus_error_strip_remote_error(error);
    message = error->message;
  } else if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
    denied = true;
  }
  return locationError(denied ? kCLErrorDenied : kCLErrorNetwork,
                       std::string("GeoClue ") + what + ": " + message);
}

double doubleIn(GVariant* properties, const char* name, double fallback) {
  double value = fallback;
  if (!g_variant_lookup(properties, name, "d", &value)) return fallback;
  return value;
}

}  // namespace

// One run from start() to stop(). The owner's thread sets `live` false
// under `lock`; the GLib thread delivers only under `lock` while `live`,
// so nothing is delivered once stop() has returned. The rest belongs to
// the GLib thread.
struct GeoClueSession {
  std::recursive_mutex lock;
  bool live = true;
  LocationSourceEvents events;

  LocationRequest request;
  std::string address;
  GCancellable* cancellable = g_cancellable_new();
  GDBusConnection* connection = nullptr;
  std::string clientPath;
  guint ownerSubscription = 0;
  guint locationSubscription = 0;
  gulong closedHandler = 0;
  GSource* connectTimeout = nullptr;  // until the connection is open
  bool started = false;               // Start answered
  bool over = false;                  // a failure ended the run

  ~GeoClueSession() {
    g_object_unref(cancellable);
    if (connection) g_object_unref(connection);
  }

  void deliverFix(const Location& fix) {
    std::lock_guard guard(lock);
    if (live && !over && events.fix) events.fix(fix);
  }
  // Reports the failure that ends this run; only the first is reported.
  void fail(const Error& error) {
    if (over) return;
    over = true;
    std::lock_guard guard(lock);
    if (live && events.failure) events.failure(error);
  }
};

namespace {

using SessionPtr = std::shared_ptr<GeoClueSession>;

// User data for GDBus callbacks: a strong reference, dropped with the call.
gpointer hold(const SessionPtr& session) {
  return new SessionPtr(session);
}
void release(gpointer data) {
  delete static_cast<SessionPtr*>(data);
}

void onLocationProperties(GObject* source, GAsyncResult* result, gpointer data) {
  SessionPtr session = *static_cast<SessionPtr*>(data);
  release(data);
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
  if (!reply) {
    g_error_free(error);  // a location that is gone already; the next one will do
    return;
  }
  GVariant* properties = nullptr;
  g_variant_get(reply, "(@a{sv})", &properties);
  const double latitude =
      doubleIn(properties, "Latitude", std::numeric_limits<double>::quiet_NaN());
  const double longitude =
      doubleIn(properties, "Longitude", std::numeric_limits<double>::quiet_NaN());
  const double accuracy = doubleIn(properties, "Accuracy", -1);
  // GeoClue gives -DBL_MAX for an unknown altitude, -1 for an unknown
  // speed or heading.
  double altitude = doubleIn(properties, "Altitude", -std::numeric_limits<double>::max());
  double verticalAccuracy = -1;
  if (altitude <= -std::numeric_limits<double>::max() || !std::isfinite(altitude)) {
    altitude = 0;
  } else {
    verticalAccuracy = accuracy >= 0 ? accuracy : -1;
  }
  const double speed = doubleIn(properties, "Speed", -1);
  const double heading = doubleIn(properties, "Heading", -1);
  guint64 seconds = 0, microseconds = 0;
  Date timestamp = Date::now();
  if (g_variant_lookup(properties, "Timestamp", "(tt)", &seconds, &microseconds)) {
    timestamp = Date::fromTimeIntervalSince1970(static_cast<double>(seconds) +
                                                static_cast<double>(microseconds) / 1e6);
  }
  g_variant_unref(properties);
  g_variant_unref(reply);
  if (std::isnan(latitude) || std::isnan(longitude)) return;
  session->deliverFix(Location({latitude, longitude}, altitude, accuracy, verticalAccuracy,
                               heading < 0 ? -1 : heading, speed < 0 ? -1 : speed, timestamp));
}

void onLocationUpdated(GDBusConnection* connection, const gchar*, const gchar*, const gchar*,
                       const gchar*, GVariant* parameters, gpointer data) {
  const SessionPtr& session = *static_cast<SessionPtr*>(data);
  if (session->over || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(oo)"))) return;
  const gchar* newPath = nullptr;
  g_variant_get(parameters, "(&o&o)", nullptr, &newPath);
  g_dbus_connection_call(connection, kService, newPath, kProperties, "GetAll",
                         g_variant_new("(s)", kLocationInterface), G_VARIANT_TYPE("(a{sv})"),
                         G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, session->cancellable,
                         onLocationProperties, hold(session));
}

void onNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                        GVariant* parameters, gpointer data) {
  const SessionPtr& session = *static_cast<SessionPtr*>(data);
  const gchar* newOwner = "";
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)"))) return;
  g_variant_get(parameters, "(&s&s&s)", nullptr, nullptr, &newOwner);
  if (newOwner[0] == '\0' && session->started) {
    session->fail(locationError(kCLErrorNetwork, "GeoClue left the system bus"));
  }
}

void onClosed(GDBusConnection*, gboolean, GError*, gpointer data) {
  const SessionPtr& session = *static_cast<SessionPtr*>(data);
  session->fail(locationError(kCLErrorNetwork, "the system bus closed the connection"));
}

void onStarted(GObject* source, GAsyncResult* result, gpointer data) {
  SessionPtr session = *static_cast<SessionPtr*>(data);
  release(data);
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
  if (!reply) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
      session->fail(errorForCall(error, "refused to start"));
    }
    g_error_free(error);
    return;
  }
  g_variant_unref(reply);
  session->started = true;
}

void setClientProperty(const SessionPtr& session, const char* name, GVariant* value) {
  g_dbus_connection_call(session->connection, kService, session->clientPath.c_str(), kProperties,
                         "Set", g_variant_new("(ssv)", kClientInterface, name, value), nullptr,
                         G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, session->cancellable, nullptr,
                         nullptr);
}

// Configures the client and starts it. The bus keeps one connection's
// messages in order, so the properties are set before Start arrives.
void startClient(const SessionPtr& session) {
  const LocationRequest& request = session->request;
  setClientProperty(session, "DesktopId", g_variant_new_string(request.desktopId.c_str()));
  setClientProperty(session, "RequestedAccuracyLevel",
                    g_variant_new_uint32(accuracyLevel(request.desiredAccuracy)));
  setClientProperty(session, "DistanceThreshold",
                    g_variant_new_uint32(distanceThreshold(request.distanceFilter)));
  session->locationSubscription = g_dbus_connection_signal_subscribe(
      session->connection, kService, kClientInterface, "LocationUpdated",
      session->clientPath.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onLocationUpdated,
      hold(session), release);
  g_dbus_connection_call(session->connection, kService, session->clientPath.c_str(),
                         kClientInterface, "Start", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE,
                         kCallTimeoutMs, session->cancellable, onStarted, hold(session));
}

void onClient(GObject* source, GAsyncResult* result, gpointer data);

void askForClient(const SessionPtr& session, const char* method) {
  g_dbus_connection_call(
      session->connection, kService, kManagerPath, kManagerInterface, method, nullptr,
      G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, session->cancellable, onClient,
      new std::pair<SessionPtr, bool>(session, method == std::string("GetClient")));
}

// GetClient's answer; when it fails for another reason than a refusal,
// CreateClient (the newer name) is tried once.
void onClient(GObject* source, GAsyncResult* result, gpointer data) {
  auto* pair = static_cast<std::pair<SessionPtr, bool>*>(data);
  SessionPtr session = std::move(pair->first);
  const bool wasGetClient = pair->second;
  delete pair;
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
  if (!reply) {
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
      g_error_free(error);
      return;
    }
    Error failure = errorForCall(error, "gave no client");
    g_error_free(error);
    if (wasGetClient && failure.code != kCLErrorDenied) {
      askForClient(session, "CreateClient");
    } else {
      session->fail(failure);
    }
    return;
  }
  const gchar* path = nullptr;
  g_variant_get(reply, "(&o)", &path);
  session->clientPath = path;
  g_variant_unref(reply);
  startClient(session);
}

// The bus connection of a run has arrived: listen for the service leaving
// and ask for a client.
void onConnected(GObject*, GAsyncResult* result, gpointer data) {
  SessionPtr session = *static_cast<SessionPtr*>(data);
  release(data);
  if (session->connectTimeout) {
    g_source_destroy(session->connectTimeout);
    g_source_unref(session->connectTimeout);
    session->connectTimeout = nullptr;
  }
  GError* error = nullptr;
  GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &error);
  if (!connection) {
    // A cancel comes from stop() or from the time limit, which reported it.
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
      session->fail(locationError(kCLErrorNetwork,
                                  std::string("cannot reach the system bus: ") + error->message));
    }
    g_error_free(error);
    return;
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  session->connection = connection;
  if (session->over) {
    g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
    return;
  }
  session->closedHandler = g_signal_connect_data(
      session->connection, "closed", G_CALLBACK(onClosed), hold(session),
      [](gpointer data, GClosure*) { release(data); }, GConnectFlags(0));
  session->ownerSubscription = g_dbus_connection_signal_subscribe(
      session->connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
      "/org/freedesktop/DBus", kService, G_DBUS_SIGNAL_FLAGS_NONE, onNameOwnerChanged,
      hold(session), release);
  askForClient(session, "GetClient");
}

// Opens the run's connection without blocking the GLib thread; a bus that
// has not answered within the availability limit fails the run.
void beginOnGLibThread(const SessionPtr& session) {
  session->connectTimeout = g_timeout_source_new(kAvailabilityTimeoutMs);
  g_source_set_callback(
      session->connectTimeout,
      [](gpointer data) -> gboolean {
        const SessionPtr& session = *static_cast<SessionPtr*>(data);
        session->fail(locationError(kCLErrorNetwork, "the system bus did not answer in time"));
        g_cancellable_cancel(session->cancellable);
        return G_SOURCE_REMOVE;
      },
      hold(session), release);
  g_source_attach(session->connectTimeout, detail::glibContext());
  g_dbus_connection_new_for_address(session->address.c_str(), detail::kBusClientFlags, nullptr,
                                    session->cancellable, onConnected, hold(session));
}

// Ends the run at the service: Stop on the client (best effort), then the
// connection closes once Stop has been sent.
void endOnGLibThread(const SessionPtr& session) {
  session->over = true;
  g_cancellable_cancel(session->cancellable);
  if (session->connectTimeout) {
    g_source_destroy(session->connectTimeout);
    g_source_unref(session->connectTimeout);
    session->connectTimeout = nullptr;
  }
  GDBusConnection* connection = session->connection;
  if (!connection) return;
  if (session->closedHandler) g_signal_handler_disconnect(connection, session->closedHandler);
  session->closedHandler = 0;
  for (guint* subscription : {&session->ownerSubscription, &session->locationSubscription}) {
    if (*subscription) g_dbus_connection_signal_unsubscribe(connection, *subscription);
    *subscription = 0;
  }
  if (session->clientPath.empty()) {
    g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
    return;
  }
  g_dbus_connection_call(
      connection, kService, session->clientPath.c_str(), kClientInterface, "Stop", nullptr, nullptr,
      G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer) {
        GDBusConnection* connection = G_DBUS_CONNECTION(source);
        if (GVariant* reply = g_dbus_connection_call_finish(connection, result, nullptr)) {
          g_variant_unref(reply);
        }
        g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
      },
      nullptr);
}

}  // namespace

struct GeoClueLocationSource::Impl {
  std::mutex lock;  // one caller at a time, as LocationSource asks
  SessionPtr session;
};

GeoClueLocationSource::GeoClueLocationSource() : impl_(std::make_unique<Impl>()) {}

GeoClueLocationSource::~GeoClueLocationSource() {
  stop();
}

bool GeoClueLocationSource::isAvailable() {
  std::string message;
  GDBusConnection* connection =
      detail::openBusConnection(systemBusAddress(), kAvailabilityTimeoutMs, message);
  if (!connection) return false;
  GVariant* reply = g_dbus_connection_call_sync(
      connection, kService, kManagerPath, kProperties, "Get",
      g_variant_new("(ss)", kManagerInterface, "AvailableAccuracyLevel"), G_VARIANT_TYPE("(v)"),
      G_DBUS_CALL_FLAGS_NONE, kAvailabilityTimeoutMs, nullptr, nullptr);
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  g_object_unref(connection);
  if (!reply) return false;
  g_variant_unref(reply);
  return true;
}

void GeoClueLocationSource::start(const LocationRequest& request, LocationSourceEvents events) {
  stop();
  auto session = std::make_shared<GeoClueSession>();
  session->request = request;
  session->events = std::move(events);
  session->address = systemBusAddress();
  {
    std::lock_guard guard(impl_->lock);
    impl_->session = session;
  }
  detail::runOnGLibThread([session] {
    if (!session->over) beginOnGLibThread(session);
  });
}

void GeoClueLocationSource::stop() {
  SessionPtr session;
  {
    std::lock_guard guard(impl_->lock);
    session = std::move(impl_->session);
    impl_->session = nullptr;
  }
  if (!session) return;
  {
    // Waits for a delivery in progress; none starts after this.
    std::lock_guard guard(session->lock);
    session->live = false;
  }
  detail::runOnGLibThreadAndWait([session] { endOnGLibThread(session); });
}

}  // namespace nimb
