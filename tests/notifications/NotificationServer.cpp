#include "NotificationServer.h"

#include <gio/gio.h>

namespace velquin::testing {
namespace {

constexpr const char* kIntrospection = R"(
<node>
  <interface name="org.freedesktop.Notifications">
    <method name="Notify">
      <arg type="s" direction="in"/><arg type="u" direction="in"/>
      <arg type="s" direction="in"/><arg type="s" direction="in"/>
      <arg type="s" direction="in"/><arg type="as" direction="in"/>
      <arg type="a{sv}" direction="in"/><arg type="i" direction="in"/>
      <arg type="u" direction="out"/>
    </method>
    <signal name="ActionInvoked"><arg type="u"/><arg type="s"/></signal>
    <signal name="NotificationClosed"><arg type="u"/><arg type="u"/></signal>
  </interface>
</node>)";

void onMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                  const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                  gpointer data) {
  if (g_strcmp0(method, "Notify") != 0) {
    g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.UnknownMethod",
                                               "unknown method");
    return;
  }
  const gchar *app = nullptr, *icon = nullptr, *summary = nullptr, *body = nullptr;
  guint32 replaces = 0;
  gint32 timeout = 0;
  GVariantIter* actions = nullptr;
  GVariantIter* hints = nullptr;
  g_variant_get(parameters, "(&su&s&s&sasa{sv}i)", &app, &replaces, &icon, &summary, &body,
                &actions, &hints, &timeout);
  NotifyCall call;
  call.sender = g_dbus_method_invocation_get_sender(invocation);
  call.appName = app;
  call.summary = summary;
  call.body = body;
  const gchar* action = nullptr;
  while (g_variant_iter_next(actions, "&s", &action)) call.actions.emplace_back(action);
  const gchar* key = nullptr;
  GVariant* value = nullptr;
  while (g_variant_iter_next(hints, "{&sv}", &key, &value)) {
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
      call.stringHints[key] = g_variant_get_string(value, nullptr);
    }
    g_variant_unref(value);
  }
  g_variant_iter_free(actions);
  g_variant_iter_free(hints);
  static_cast<NotificationServer*>(data)->handle(std::move(call), invocation);
}

}  // namespace

NotificationServer::NotificationServer(const std::string& busAddress, bool answer)
    : answer_(answer) {
  context_ = g_main_context_new();
  loop_ = g_main_loop_new(context_, FALSE);
  thread_ = std::thread([this, busAddress] { run(busAddress); });
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return started_; });
}

NotificationServer::~NotificationServer() {
  g_main_context_invoke(context_, [](gpointer loop) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
  }, loop_);
  thread_.join();
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

void NotificationServer::run(const std::string& busAddress) {
  g_main_context_push_thread_default(context_);
  GError* error = nullptr;
  connection_ = g_dbus_connection_new_for_address_sync(
      busAddress.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  bool owned = false;
  if (connection_) {
    g_signal_connect(connection_, "closed",
                     G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer data) {
                       auto* server = static_cast<NotificationServer*>(data);
                       {
                         std::lock_guard lock(server->mutex_);
                         server->closed_ = true;
                       }
                       server->changed_.notify_all();
                     }),
                     this);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    static const GDBusInterfaceVTable vtable = {onMethodCall, nullptr, nullptr, {}};
    g_dbus_connection_register_object(connection_, "/org/freedesktop/Notifications",
                                      node->interfaces[0], &vtable, this, nullptr, nullptr);
    g_dbus_node_info_unref(node);
    GVariant* reply = g_dbus_connection_call_sync(
        connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "org.freedesktop.Notifications", 4u),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    if (reply) {
      guint32 result = 0;
      g_variant_get(reply, "(u)", &result);
      owned = result == 1;  // primary owner
      g_variant_unref(reply);
    }
  }
  g_clear_error(&error);
  {
    std::lock_guard lock(mutex_);
    ok_ = owned;
    started_ = true;
  }
  changed_.notify_all();
  g_main_loop_run(loop_);
  for (auto* invocation : held_) {
    g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.Failed",
                                               "server stopped");
  }
  held_.clear();
  if (connection_) {
    g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
  }
  g_main_context_pop_thread_default(context_);
}

void NotificationServer::handle(NotifyCall call, GDBusMethodInvocation* invocation) {
  std::uint32_t id = 0;
  {
    std::lock_guard lock(mutex_);
    id = call.id = static_cast<std::uint32_t>(calls_.size() + 1);
    calls_.push_back(std::move(call));
  }
  changed_.notify_all();
  if (answer_) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", id));
  } else {
    held_.push_back(invocation);  // the reference dispatch handed over
  }
}

std::vector<NotifyCall> NotificationServer::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

bool NotificationServer::waitForCalls(std::size_t count, std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, limit, [&] { return calls_.size() >= count || closed_; });
  return calls_.size() >= count;
}

bool NotificationServer::closed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

void NotificationServer::invokeAction(std::uint32_t id, const std::string& action) {
  g_dbus_connection_emit_signal(connection_, nullptr, "/org/freedesktop/Notifications",
                                "org.freedesktop.Notifications", "ActionInvoked",
                                g_variant_new("(us)", id, action.c_str()), nullptr);
  g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
}

}  // namespace velquin::testing

namespace velquin::testing {

bool NotificationServer::roundTrip(const std::string& peer) {
  GVariant* reply = g_dbus_connection_call_sync(connection_, peer.c_str(), "/",
                                                "org.freedesktop.DBus.Peer", "Ping", nullptr,
                                                nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                                                nullptr);
  if (reply) g_variant_unref(reply);
  return reply != nullptr;
}

}  // namespace velquin::testing
