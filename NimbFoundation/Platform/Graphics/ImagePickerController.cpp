#include <NimbFoundation/Platform/Graphics/ImagePickerController.h>

#include <gio/gio.h>

#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <NimbFoundation/Internal/DBusConnection.h>
#include <NimbFoundation/Internal/GLibThread.h>
#include <NimbFoundation/Internal/RuntimeMethods.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Env/Env.h>
#include <NimbFoundation/Platform/Env/SystemLog.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>

namespace nimb {

// One OpenFile call and its answer. Made and dropped on the main thread;
// the kit's GLib thread fills in the connection, the subscription and the
// request handle, and reads `closed` to learn that nobody waits any more.
struct ImagePickerController::Request {
  std::weak_ptr<ImagePickerController> owner;  // main thread only
  std::string address;
  std::string token;
  std::string folder;
  std::atomic<bool> closed{false};
  // GLib thread only.
  GDBusConnection* connection = nullptr;
  guint subscription = 0;
  std::string predictedHandle;
  std::string handle;
  bool answered = false;

  ~Request() {
    if (connection) g_object_unref(connection);
  }
};

namespace {

constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kFileChooser = "org.freedesktop.portal.FileChooser";
constexpr const char* kRequestInterface = "org.freedesktop.portal.Request";
constexpr int kAvailabilityTimeoutMs = 2000;
constexpr int kCallTimeoutMs = 5000;

// The portal's answers: 0 a pick, 1 cancelled, 2 ended otherwise.
constexpr guint32 kResponseOther = 2;

using RequestPtr = std::shared_ptr<ImagePickerController::Request>;

std::optional<std::string> sessionBusAddress() {
  auto env = Env::current();
  if (auto address = env->environmentVariable("DBUS_SESSION_BUS_ADDRESS");
      address && !address->empty()) {
    return address;
  }
  if (auto dir = env->environmentVariable("XDG_RUNTIME_DIR"); dir && !dir->empty()) {
    std::string socket = *dir + "/bus";
    if (env->fileInfo(socket, FollowLinks::Yes)) return "unix:path=" + socket;
  }
  return std::nullopt;
}

// A connection to the bus at `address`, shared while the address stays the
// same and the connection open; a new reference, or nullptr when the bus
// has not answered within the availability limit.
GDBusConnection* connectTo(const std::string& address) {
  static std::mutex lock;
  static std::string cachedAddress;
  static GDBusConnection* cached = nullptr;
  std::lock_guard guard(lock);
  if (cached && (cachedAddress != address || g_dbus_connection_is_closed(cached))) {
    g_object_unref(cached);
    cached = nullptr;
  }
  if (!cached) {
    std::string message;
    cached = detail::openBusConnection(address, kAvailabilityTimeoutMs, message);
    if (!cached) return nullptr;
    cachedAddress = address;
  }
  return G_DBUS_CONNECTION(g_object_ref(cached));
}

std::string picturesFolder() {
  auto env = Env::current();
  auto output = env->outputOfProgram({"xdg-user-dir", "PICTURES"});
  if (!output) return {};
  while (!output->empty() && (output->back() == '\n' || output->back() == '\r')) {
    output->pop_back();
  }
  if (output->empty() || output->front() != '/') return {};
  auto info = env->fileInfo(*output, FollowLinks::Yes);
  if (!info || info->kind != FileInfo::Kind::kDirectory) return {};
  return *output;
}

ImagePickerMediaInfo mediaInfoFor(const std::string& uri) {
  ImagePickerMediaInfo info;
  info.mediaType = "public.image";
  info.mediaURL = URL::withString(uri);
  info.referenceURL = info.mediaURL;
  if (gchar* path = g_filename_from_uri(uri.c_str(), nullptr, nullptr)) {
    info.path = path;
    g_free(path);
    info.originalImage = Image::withContentsOfFile(info.path);
  }
  return info;
}

// Hands the portal's answer to the picker, on the main run loop.
void deliver(const RequestPtr& request, guint32 response, std::vector<std::string> uris) {
  auto picker = request->owner.lock();
  if (!picker || request->closed) return;  // dismissed meanwhile
  Object* delegate = picker->delegate();
  if (response == 0 && !uris.empty()) {
    ImagePickerMediaInfo info = mediaInfoFor(uris.front());
    const Selector& selector =
        detail::selectorNamed<"imagePickerController:didFinishPickingMediaWithInfo:">();
    if (delegate && class_respondsToSelector(object_getClass(delegate), selector)) {
      msgSend<void>(delegate, selector, picker.get(), std::move(info));
    }
    return;
  }
  picker->dismiss();
  const Selector& selector = detail::selectorNamed<"imagePickerControllerDidCancel:">();
  if (delegate && class_respondsToSelector(object_getClass(delegate), selector)) {
    msgSend<void>(delegate, selector, picker.get());
  }
}

void answer(const RequestPtr& request, guint32 response, std::vector<std::string> uris) {
  if (request->answered) return;
  request->answered = true;
  if (request->subscription) {
    g_dbus_connection_signal_unsubscribe(request->connection, request->subscription);
    request->subscription = 0;
  }
  RunLoop::main().perform([request, response, uris = std::move(uris)]() mutable {
    deliver(request, response, std::move(uris));
  });
}

void onResponse(GDBusConnection*, const gchar*, const gchar* path, const gchar*, const gchar*,
                GVariant* parameters, gpointer data) {
  const RequestPtr& request = *static_cast<RequestPtr*>(data);
  if (path != request->handle && path != request->predictedHandle) return;
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ua{sv})"))) return;
  guint32 response = kResponseOther;
  GVariant* results = nullptr;
  g_variant_get(parameters, "(u@a{sv})", &response, &results);
  std::vector<std::string> uris;
  if (GVariant* list = g_variant_lookup_value(results, "uris", G_VARIANT_TYPE_STRING_ARRAY)) {
    gsize count = 0;
    const gchar** strings = g_variant_get_strv(list, &count);
    for (gsize i = 0; i < count; ++i) uris.emplace_back(strings[i]);
    g_free(strings);
    g_variant_unref(list);
  }
  g_variant_unref(results);
  answer(request, response, std::move(uris));
}

void closeOnPortalThread(const RequestPtr& request) {
  // An answered request is gone at the portal already.
  const bool open = !request->answered;
  request->answered = true;
  if (request->subscription) {
    g_dbus_connection_signal_unsubscribe(request->connection, request->subscription);
    request->subscription = 0;
  }
  if (open && request->connection && !request->handle.empty()) {
    g_dbus_connection_call(request->connection, kPortalName, request->handle.c_str(),
                           kRequestInterface, "Close", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE,
                           kCallTimeoutMs, nullptr, nullptr, nullptr);
  }
}

void openOnPortalThread(const RequestPtr& request) {
  if (request->closed) return;
  request->connection = connectTo(request->address);
  if (!request->connection) {
    answer(request, kResponseOther, {});
    return;
  }
  // The portal names the request object after our unique name and the
  // token; listening before the call means no answer can be missed.
  std::string sender = g_dbus_connection_get_unique_name(request->connection);
  if (!sender.empty() && sender.front() == ':') sender.erase(0, 1);
  for (char& c : sender) {
    if (c == '.') c = '_';
  }
  request->predictedHandle = std::string(kPortalPath) + "/request/" + sender + "/" + request->token;
  request->subscription = g_dbus_connection_signal_subscribe(
      request->connection, kPortalName, kRequestInterface, "Response", nullptr, nullptr,
      G_DBUS_SIGNAL_FLAGS_NONE, onResponse, new RequestPtr(request),
      [](gpointer data) { delete static_cast<RequestPtr*>(data); });

  GVariantBuilder options;
  g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&options, "{sv}", "handle_token",
                        g_variant_new_string(request->token.c_str()));
  g_variant_builder_add(&options, "{sv}", "filters",
                        g_variant_new_parsed("[('Images', [(uint32 1, 'image/*')])]"));
  if (!request->folder.empty()) {
    // A byte string with its terminating NUL, as the portal expects.
    g_variant_builder_add(&options, "{sv}", "current_folder",
                          g_variant_new_bytestring(request->folder.c_str()));
  }
  g_variant_builder_add(&options, "{sv}", "modal", g_variant_new_boolean(TRUE));
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      request->connection, kPortalName, kPortalPath, kFileChooser, "OpenFile",
      g_variant_new("(ssa{sv})", "", "Choose a photo", &options), G_VARIANT_TYPE("(o)"),
      G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
  if (!reply) {
    SystemLog::log("ImagePickerController: OpenFile failed: %s", error->message);
    g_error_free(error);
    answer(request, kResponseOther, {});
    return;
  }
  const gchar* handle = nullptr;
  g_variant_get(reply, "(&o)", &handle);
  request->handle = handle;
  g_variant_unref(reply);
  if (request->closed) closeOnPortalThread(request);
}

std::string newToken() {
  static std::atomic<unsigned> counter{0};
  return "nimb" + std::to_string(static_cast<unsigned long>(::getpid())) + "_" +
         std::to_string(++counter);
}

}  // namespace

std::shared_ptr<ImagePickerController> ImagePickerController::create() {
  return std::shared_ptr<ImagePickerController>(new ImagePickerController());
}

ImagePickerController::~ImagePickerController() {
  dismiss();
}

bool ImagePickerController::isSourceTypeAvailable(ImagePickerSourceType type) {
  if (type == ImagePickerSourceType::kCamera) return false;
  auto address = sessionBusAddress();
  if (!address) return false;
  GDBusConnection* connection = connectTo(*address);
  if (!connection) return false;
  GVariant* reply = g_dbus_connection_call_sync(
      connection, kPortalName, kPortalPath, "org.freedesktop.DBus.Properties", "Get",
      g_variant_new("(ss)", kFileChooser, "version"), G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE,
      kAvailabilityTimeoutMs, nullptr, nullptr);
  g_object_unref(connection);
  if (!reply) return false;
  g_variant_unref(reply);
  return true;
}

bool ImagePickerController::present() {
  if (request_ || !isSourceTypeAvailable(sourceType_)) return false;
  auto address = sessionBusAddress();
  if (!address) return false;
  auto request = std::make_shared<Request>();
  request->owner = weak_from_this();
  request->address = std::move(*address);
  request->token = newToken();
  request->folder = picturesFolder();
  request_ = request;
  detail::runOnGLibThread([request] { openOnPortalThread(request); });
  return true;
}

void ImagePickerController::dismiss() {
  if (!request_) return;
  auto request = std::move(request_);
  request_ = nullptr;
  request->closed = true;
  detail::runOnGLibThread([request] { closeOnPortalThread(request); });
}

}  // namespace nimb
