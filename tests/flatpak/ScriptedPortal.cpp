#include "ScriptedPortal.h"

#include <gio/gio.h>

#include <algorithm>

namespace velquin::testing {
namespace {

constexpr const char* kPath = "/org/freedesktop/portal/desktop";

constexpr const char* kIntrospection = R"(
<node>
  <interface name="org.freedesktop.portal.Notification">
    <method name="AddNotification"><arg type="s" direction="in"/><arg type="a{sv}" direction="in"/></method>
    <method name="RemoveNotification"><arg type="s" direction="in"/></method>
    <signal name="ActionInvoked"><arg type="s"/><arg type="s"/><arg type="av"/></signal>
    <property name="version" type="u" access="read"/>
  </interface>
  <interface name="org.freedesktop.portal.NetworkMonitor">
    <method name="GetAvailable"><arg type="b" direction="out"/></method>
    <method name="GetMetered"><arg type="b" direction="out"/></method>
    <method name="GetConnectivity"><arg type="u" direction="out"/></method>
    <method name="GetStatus"><arg type="a{sv}" direction="out"/></method>
    <method name="CanReach"><arg type="s" direction="in"/><arg type="u" direction="in"/><arg type="b" direction="out"/></method>
    <signal name="changed"/>
    <property name="version" type="u" access="read"/>
  </interface>
</node>)";

std::string lookupString(GVariant* dictionary, const char* key) {
  const gchar* value = nullptr;
  if (g_variant_lookup(dictionary, key, "&s", &value)) return value;
  return "";
}

void onMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar* interface,
                  const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                  gpointer data) {
  static_cast<ScriptedPortal*>(data)->handle(interface, method, parameters, invocation);
}

GVariant* onGetProperty(GDBusConnection*, const gchar*, const gchar*, const gchar* interface,
                        const gchar*, GError**, gpointer) {
  return g_variant_new_uint32(g_str_has_suffix(interface, "NetworkMonitor") ? 3 : 1);
}

}  // namespace

ScriptedPortal::ScriptedPortal(const std::string& busAddress, std::string appId)
    : appId_(std::move(appId)) {
  context_ = g_main_context_new();
  loop_ = g_main_loop_new(context_, FALSE);
  thread_ = std::thread([this, busAddress] { run(busAddress); });
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return started_; });
}

ScriptedPortal::~ScriptedPortal() {
  g_main_context_invoke(context_, [](gpointer loop) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
  }, loop_);
  thread_.join();
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

void ScriptedPortal::run(const std::string& busAddress) {
  g_main_context_push_thread_default(context_);
  connection_ = g_dbus_connection_new_for_address_sync(
      busAddress.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  bool owned = false;
  if (connection_) {
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    static const GDBusInterfaceVTable vtable = {onMethodCall, onGetProperty, nullptr, {}};
    for (int i = 0; node->interfaces[i]; ++i) {
      g_dbus_connection_register_object(connection_, kPath, node->interfaces[i], &vtable, this,
                                        nullptr, nullptr);
    }
    g_dbus_node_info_unref(node);
    GVariant* reply = g_dbus_connection_call_sync(
        connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "org.freedesktop.portal.Desktop", 4u),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    if (reply) {
      guint32 result = 0;
      g_variant_get(reply, "(u)", &result);
      owned = result == 1;
      g_variant_unref(reply);
    }
  }
  {
    std::lock_guard lock(mutex_);
    ok_ = owned;
    started_ = true;
  }
  changed_.notify_all();
  g_main_loop_run(loop_);
  if (connection_) {
    g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
  }
  g_main_context_pop_thread_default(context_);
}

void ScriptedPortal::handle(const std::string& interface, const std::string& method,
                            GVariant* parameters,
                            GDBusMethodInvocation* invocation) {
  if (method == "AddNotification") {
    const gchar* id = nullptr;
    GVariant* content = nullptr;
    g_variant_get(parameters, "(&s@a{sv})", &id, &content);
    PortalNotification added{id, lookupString(content, "title"), lookupString(content, "body"),
                             lookupString(content, "default-action"), ""};
    if (GVariant* target = g_variant_lookup_value(content, "default-action-target", nullptr)) {
      if (g_variant_is_of_type(target, G_VARIANT_TYPE_STRING)) {
        added.target = g_variant_get_string(target, nullptr);
      }
      g_variant_unref(target);
    }
    g_variant_unref(content);
    {
      std::lock_guard lock(mutex_);
      notifications_.push_back(std::move(added));
    }
    changed_.notify_all();
    g_dbus_method_invocation_return_value(invocation, nullptr);
  } else if (method == "RemoveNotification") {
    g_dbus_method_invocation_return_value(invocation, nullptr);
  } else if (method == "GetAvailable" || method == "GetMetered") {
    g_dbus_method_invocation_return_value(invocation,
                                          g_variant_new("(b)", method == "GetAvailable"));
  } else if (method == "GetConnectivity") {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", 4u));
  } else if (method == "GetStatus") {
    GVariantBuilder status;
    g_variant_builder_init(&status, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&status, "{sv}", "available", g_variant_new_boolean(TRUE));
    g_variant_builder_add(&status, "{sv}", "metered", g_variant_new_boolean(FALSE));
    g_variant_builder_add(&status, "{sv}", "connectivity", g_variant_new_uint32(4));
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(a{sv})", &status));
  } else if (method == "CanReach") {
    {
      std::lock_guard lock(mutex_);
      ++reachChecks_;
    }
    g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.portal.Error.Failed",
                                               "Could not reach the host");
  } else {
    g_dbus_method_invocation_return_dbus_error(
        invocation, "org.freedesktop.DBus.Error.UnknownMethod", (interface + "." + method).c_str());
  }
}

std::vector<PortalNotification> ScriptedPortal::notifications() const {
  std::lock_guard lock(mutex_);
  return notifications_;
}

bool ScriptedPortal::waitForNotifications(std::size_t count, std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return notifications_.size() >= count; });
}

bool ScriptedPortal::click(const PortalNotification& notification) {
  std::string action = notification.defaultAction;
  if (action.rfind("app.", 0) != 0) return false;
  action = action.substr(4);
  std::string path = "/" + appId_;
  std::replace(path.begin(), path.end(), '.', '/');
  GVariantBuilder parameter;
  g_variant_builder_init(&parameter, G_VARIANT_TYPE("av"));
  g_variant_builder_add(&parameter, "v", g_variant_new_string(notification.target.c_str()));
  GVariant* reply = g_dbus_connection_call_sync(
      connection_, appId_.c_str(), path.c_str(), "org.freedesktop.Application", "ActivateAction",
      g_variant_new("(sava{sv})", action.c_str(), &parameter, nullptr), nullptr,
      G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
  if (!reply) return false;
  g_variant_unref(reply);
  return true;
}

int ScriptedPortal::reachChecks() const {
  std::lock_guard lock(mutex_);
  return reachChecks_;
}

}  // namespace velquin::testing
