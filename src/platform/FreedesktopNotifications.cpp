#include "platform/FreedesktopNotifications.h"

#include <gio/gio.h>

#include <cstdint>
#include <map>
#include <string>

#include "support/Console.h"
#include "support/Mutex.h"
#include "velquin/MainQueue.h"

namespace velquin::platform {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";

class FreedesktopCenter;

// What a pending Notify call needs once the server answered.
struct PendingShow {
  std::weak_ptr<FreedesktopCenter> center;
  UserNotification notification;
};

class FreedesktopCenter final : public DesktopNotificationCenter {
 public:
  FreedesktopCenter(std::chrono::milliseconds timeout, ShowObserver observer)
      : timeout_(timeout), observer_(std::move(observer)) {}

 private:
  // Main queue only.
  void show(const UserNotification& notification, unsigned options) override {
    if (!connect()) {
      if (observer_) observer_(false);
      return;
    }
    GVariantBuilder actions;
    g_variant_builder_init(&actions, G_VARIANT_TYPE("as"));
    g_variant_builder_add(&actions, "s", "default");
    g_variant_builder_add(&actions, "s", "Open");
    GVariantBuilder hints;
    g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
    if (options & NotificationPresentationOptions::sound) {
      g_variant_builder_add(&hints, "{sv}", "sound-name",
                            g_variant_new_string("message-new-instant"));
    }
    const char* appName = g_get_application_name();
    GVariant* parameters = g_variant_new(
        "(susssasa{sv}i)", appName ? appName : "", 0u, "", notification.title.c_str(),
        notification.body.c_str(), &actions, &hints, -1);
    g_dbus_connection_call(connection_, kService, kPath, kInterface, "Notify", parameters,
                           G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
                           static_cast<int>(timeout_.count()), nullptr, &onNotifyReply,
                           new PendingShow{weakSelf<FreedesktopCenter>(), notification});
  }

  // Main queue only. Opens the session bus, follows which connection owns
  // the service's name and listens for the server's signals; false (after a
  // warning) when there is no bus.
  bool connect() {
    if (connection_) return true;
    GError* error = nullptr;
    connection_ = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!connection_) {
      support::warn(std::string("Velquin: desktop notification not shown: no session bus (") +
                    (error ? error->message : "unknown error") + ")");
      g_clear_error(&error);
      return false;
    }
    // The bus going away must not end the host.
    g_dbus_connection_set_exit_on_close(connection_, FALSE);
    // Signals carry the sender's unique name; only the connection that owns
    // the service's name may report a click, so a client that emits
    // ActionInvoked itself is ignored. A new owner is a new server whose ids
    // mean nothing to the notifications shown before.
    g_bus_watch_name_on_connection_with_closures(
        connection_, kService, G_BUS_NAME_WATCHER_FLAGS_NONE,
        g_cclosure_new(G_CALLBACK(+[](GDBusConnection*, const gchar*, const gchar* owner,
                                      gpointer data) {
                         if (auto center = static_cast<std::weak_ptr<FreedesktopCenter>*>(data)->lock()) {
                           center->ownerChanged(owner ? owner : "");
                         }
                       }),
                       new std::weak_ptr<FreedesktopCenter>(weakSelf<FreedesktopCenter>()), &deleteWeak),
        g_cclosure_new(G_CALLBACK(+[](GDBusConnection*, const gchar*, gpointer data) {
                         if (auto center = static_cast<std::weak_ptr<FreedesktopCenter>*>(data)->lock()) {
                           center->ownerChanged("");
                         }
                       }),
                       new std::weak_ptr<FreedesktopCenter>(weakSelf<FreedesktopCenter>()), &deleteWeak));
    g_dbus_connection_signal_subscribe(
        connection_, nullptr, kInterface, nullptr, kPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        &onSignal, new std::weak_ptr<FreedesktopCenter>(weakSelf<FreedesktopCenter>()),
        [](gpointer data) { delete static_cast<std::weak_ptr<FreedesktopCenter>*>(data); });
    return true;
  }

  static void deleteWeak(gpointer data, GClosure*) {
    delete static_cast<std::weak_ptr<FreedesktopCenter>*>(data);
  }

  // Main queue only. The first owner seen may be reported after the answers
  // to the first notifications (it was learnt concurrently), so only a
  // server that goes away takes its notifications with it.
  void ownerChanged(const std::string& owner) {
    if (owner == owner_) return;
    if (!owner_.empty()) shown_.clear();
    owner_ = owner;
  }

  static void onNotifyReply(GObject* source, GAsyncResult* result, gpointer data) {
    std::unique_ptr<PendingShow> pending(static_cast<PendingShow*>(data));
    auto center = pending->center.lock();
    GError* error = nullptr;
    GVariant* reply =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (!reply) {
      support::warn(std::string("Velquin: desktop notification not shown: ") +
                    (error ? error->message : "unknown error"));
      g_clear_error(&error);
      if (center && center->observer_) center->observer_(false);
      return;
    }
    std::uint32_t id = 0;
    g_variant_get(reply, "(u)", &id);
    g_variant_unref(reply);
    if (!center) return;
    center->shown_[id] = std::move(pending->notification);
    if (center->observer_) center->observer_(true);
  }

  static void onSignal(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                       const gchar* member, GVariant* parameters, gpointer data) {
    auto center = static_cast<std::weak_ptr<FreedesktopCenter>*>(data)->lock();
    if (!center) return;
    if (center->owner_.empty() || center->owner_ != (sender ? sender : "")) return;
    std::string name = member ? member : "";
    if (name == "NotificationClosed" && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(uu)"))) {
      std::uint32_t id = 0, reason = 0;
      g_variant_get(parameters, "(uu)", &id, &reason);
      center->shown_.erase(id);
      return;
    }
    if (name != "ActionInvoked" || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(us)"))) {
      return;
    }
    std::uint32_t id = 0;
    const gchar* action = nullptr;
    g_variant_get(parameters, "(u&s)", &id, &action);
    if (std::string(action ? action : "") != "default") return;
    auto found = center->shown_.find(id);
    if (found == center->shown_.end()) return;
    if (auto delegate = center->delegate()) delegate->didReceive(found->second, [] {});
  }

  const std::chrono::milliseconds timeout_;
  const ShowObserver observer_;
  // Owned by the main queue: the bus connection (kept for the process once
  // open), the unique name that owns the service (empty while none does)
  // and the notifications shown, by the server's id.
  GDBusConnection* connection_ = nullptr;
  std::string owner_;
  std::map<std::uint32_t, UserNotification> shown_;
};

}  // namespace

void DesktopNotificationCenter::setDelegate(std::shared_ptr<UserNotificationCenterDelegate> delegate) {
  support::MutexLock lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<UserNotificationCenterDelegate> DesktopNotificationCenter::delegate() const {
  support::MutexLock lock(mutex_);
  return delegate_;
}

void DesktopNotificationCenter::deliver(const UserNotification& notification, bool inFront) {
  std::weak_ptr<DesktopNotificationCenter> weak = weak_from_this();
  MainQueue::shared().async([weak, notification, inFront] {
    auto self = weak.lock();
    if (!self) return;
    if (!inFront) {
      self->show(notification, NotificationPresentationOptions::sound |
                                   NotificationPresentationOptions::alert);
      return;
    }
    // In front, only what the delegate asks for is shown; without a
    // delegate nothing is.
    auto delegate = self->delegate();
    if (!delegate) return;
    delegate->willPresent(notification, [weak, notification](unsigned options) {
      if ((options & NotificationPresentationOptions::alert) == 0) return;
      MainQueue::shared().async([weak, notification, options] {
        if (auto center = weak.lock()) center->show(notification, options);
      });
    });
  });
}

std::shared_ptr<UserNotificationCenter> createFreedesktopNotificationCenter(
    std::chrono::milliseconds callTimeout, ShowObserver observer) {
  return std::make_shared<FreedesktopCenter>(callTimeout, std::move(observer));
}

}  // namespace velquin::platform
