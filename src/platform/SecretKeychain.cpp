#include "platform/SecretKeychain.h"

#include <gio/gio.h>
#include <libsecret/secret.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "support/Console.h"

namespace velquin::platform {
namespace {

const SecretSchema* keychainSchema() {
  static const SecretSchema schema = [] {
    SecretSchema s{};
    s.name = SecretKeychain::kSchemaName;
    s.flags = SECRET_SCHEMA_NONE;
    s.attributes[0].name = SecretKeychain::kAttribute;
    s.attributes[0].type = SECRET_SCHEMA_ATTRIBUTE_STRING;
    return s;
  }();
  return &schema;
}

// Where the completion of one operation lands. Heap-allocated and left
// behind (not freed) when an operation has to be abandoned, so a late
// completion never writes to a dead frame.
struct Completion {
  GAsyncResult* result = nullptr;  // owned reference once set
};

using StartFunction = std::function<void(GCancellable*, GAsyncReadyCallback, gpointer)>;

// Runs one asynchronous GIO operation on a private main context pushed as
// the thread default, and waits at most `timeout` for it; then, with
// `cancel`, cancels it and waits a little for the cancellation to land.
// Returns the operation's result (the caller unrefs it), or null when it
// never completed. libsecret's operations are never cancelled: its portal
// road disconnects from the cancellable inside the cancellation handler,
// which blocks the cancelling thread for good; they are abandoned instead.
GAsyncResult* runBounded(std::chrono::milliseconds timeout, const StartFunction& start,
                         bool cancel = true) {
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  GCancellable* cancellable = g_cancellable_new();
  auto* completion = new Completion();
  start(
      cancellable,
      [](GObject*, GAsyncResult* result, gpointer data) {
        static_cast<Completion*>(data)->result = G_ASYNC_RESULT(g_object_ref(result));
      },
      completion);

  auto iterateUntil = [&](std::chrono::milliseconds limit) {
    bool expired = false;
    GSource* timer = g_timeout_source_new(static_cast<guint>(limit.count()));
    g_source_set_callback(
        timer,
        [](gpointer data) -> gboolean {
          *static_cast<bool*>(data) = true;
          return G_SOURCE_REMOVE;
        },
        &expired, nullptr);
    g_source_attach(timer, context);
    while (!completion->result && !expired) g_main_context_iteration(context, TRUE);
    g_source_destroy(timer);
    g_source_unref(timer);
  };
  iterateUntil(timeout);
  if (!completion->result && cancel) {
    g_cancellable_cancel(cancellable);
    iterateUntil(std::chrono::milliseconds(500));
  }
  GAsyncResult* result = completion->result;
  if (result) delete completion;  // otherwise abandoned with the operation
  g_object_unref(cancellable);
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
  return result;
}

// The shared session bus connection, or null. The connection is told not to
// end the process when the bus goes away: a library must not do that to its
// host.
GDBusConnection* sessionBus(std::chrono::milliseconds timeout) {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (!address || !*address) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::error_code ec;
    if (!runtime || !*runtime ||
        !std::filesystem::exists(std::filesystem::path(runtime) / "bus", ec)) {
      return nullptr;  // GLib would try to autolaunch a bus; never do that
    }
  }
  GAsyncResult* result =
      runBounded(timeout, [](GCancellable* c, GAsyncReadyCallback cb, gpointer d) {
        g_bus_get(G_BUS_TYPE_SESSION, c, cb, d);
      });
  if (!result) return nullptr;
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_finish(result, &error);
  g_object_unref(result);
  if (error) g_error_free(error);
  if (bus) g_dbus_connection_set_exit_on_close(bus, FALSE);
  return bus;
}

// Calls one method of the bus itself; the reply or null.
GVariant* callBus(GDBusConnection* bus, const char* method, GVariant* parameters,
                  const GVariantType* replyType, std::chrono::milliseconds timeout) {
  GAsyncResult* result = runBounded(timeout, [&](GCancellable* c, GAsyncReadyCallback cb,
                                                 gpointer d) {
    g_dbus_connection_call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", method, parameters, replyType,
                           G_DBUS_CALL_FLAGS_NONE, static_cast<gint>(timeout.count()), c, cb, d);
  });
  if (!result) return nullptr;
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(bus, result, &error);
  g_object_unref(result);
  if (error) g_error_free(error);
  return reply;
}

}  // namespace

SecretKeychain::SecretKeychain(std::unique_ptr<Keychain> fallback,
                               std::chrono::milliseconds timeout)
    : fallback_(std::move(fallback)), timeout_(timeout), bus_(sessionBus(timeout_)) {
  // libsecret shares this connection (GLib's shared session bus connection,
  // which lives only while someone holds it), so it is held here with its
  // exit-on-close settled before libsecret asks for it.
}

SecretKeychain::~SecretKeychain() {
  if (bus_) g_object_unref(bus_);
}

bool SecretKeychain::serviceAvailable(std::chrono::milliseconds timeout) {
  GDBusConnection* bus = sessionBus(timeout);
  if (!bus) return false;
  // Inside a Flatpak sandbox libsecret keeps the secrets in a file of the
  // application's own, encrypted with a key the Secret portal hands out; the
  // Secret Service itself is out of reach there.
  std::error_code ec;
  const char* service = std::filesystem::exists("/.flatpak-info", ec)
                            ? "org.freedesktop.portal.Desktop"
                            : "org.freedesktop.secrets";
  bool available = false;
  if (GVariant* reply = callBus(bus, "NameHasOwner", g_variant_new("(s)", service),
                                G_VARIANT_TYPE("(b)"), timeout)) {
    gboolean owned = FALSE;
    g_variant_get(reply, "(b)", &owned);
    available = owned != FALSE;
    g_variant_unref(reply);
  }
  if (!available) {
    if (GVariant* reply =
            callBus(bus, "ListActivatableNames", nullptr, G_VARIANT_TYPE("(as)"), timeout)) {
      GVariantIter* names = nullptr;
      g_variant_get(reply, "(as)", &names);
      const gchar* name = nullptr;
      while (g_variant_iter_next(names, "&s", &name)) {
        if (g_strcmp0(name, service) == 0) available = true;
      }
      g_variant_iter_free(names);
      g_variant_unref(reply);
    }
  }
  g_object_unref(bus);
  return available;
}

SecretKeychain::Outcome SecretKeychain::lookup(const std::string& key, std::string* value) {
  GAsyncResult* result =
      runBounded(timeout_, [&](GCancellable* c, GAsyncReadyCallback cb, gpointer d) {
        secret_password_lookup(keychainSchema(), c, cb, d, kAttribute, key.c_str(), nullptr);
      },
      false);
  if (!result) {
    warnOnce("the Secret Service did not answer");
    return Outcome::failed;
  }
  GError* error = nullptr;
  gchar* secret = secret_password_lookup_finish(result, &error);
  g_object_unref(result);
  if (error) {
    warnOnce(std::string("the Secret Service failed: ") + error->message);
    g_error_free(error);
    return Outcome::failed;
  }
  if (!secret) return Outcome::missing;
  *value = secret;
  secret_password_free(secret);
  return Outcome::found;
}

bool SecretKeychain::store(const std::string& key, const std::string& value) {
  const std::string label = "Velquin " + key;
  GAsyncResult* result =
      runBounded(timeout_, [&](GCancellable* c, GAsyncReadyCallback cb, gpointer d) {
        secret_password_store(keychainSchema(), SECRET_COLLECTION_DEFAULT, label.c_str(),
                              value.c_str(), c, cb, d, kAttribute, key.c_str(), nullptr);
      },
      false);
  if (!result) {
    warnOnce("the Secret Service did not answer");
    return false;
  }
  GError* error = nullptr;
  gboolean stored = secret_password_store_finish(result, &error);
  g_object_unref(result);
  if (error) {
    warnOnce(std::string("the Secret Service failed: ") + error->message);
    g_error_free(error);
    return false;
  }
  return stored != FALSE;
}

std::optional<std::string> SecretKeychain::load(const std::string& key) {
  support::MutexLock lock(mutex_);
  std::string value;
  if (lookup(key, &value) == Outcome::found) return value;
  // Missing or failed: a value saved while the service was away is in the file.
  if (fallback_) return fallback_->load(key);
  return std::nullopt;
}

bool SecretKeychain::save(const std::string& key, const std::string& value) {
  support::MutexLock lock(mutex_);
  if (store(key, value)) return true;
  return fallback_ && fallback_->save(key, value);
}

void SecretKeychain::warnOnce(const std::string& why) {
  if (warned_) return;
  warned_ = true;
  support::warn("keychain: " + why + (fallback_ ? "; the keychain file is used" : ""));
}

}  // namespace velquin::platform
