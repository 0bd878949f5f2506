#include "platform/GApplicationNotifications.h"

#include <gio/gio.h>

#include <deque>
#include <map>
#include <string>

#include "support/Console.h"
#include "support/Mutex.h"
#include "support/Uuid.h"
#include "velquin/MainQueue.h"

namespace velquin::platform {
namespace {

// Notifications a centre remembers for clicks; older ones are forgotten
// (GLib never reports that a notification went away).
constexpr std::size_t kRemembered = 64;

class GApplicationCenter;

// Which centre showed which notification, for the one application action
// every centre of the process shares (a centre made later must not cut off
// the clicks of one made before).
struct ClickRoutes {
  support::Mutex mutex;
  std::map<std::string, std::weak_ptr<GApplicationCenter>> routes GUARDED_BY(mutex);

  static ClickRoutes& shared() {
    static auto* routes = new ClickRoutes();  // lives for the process
    return *routes;
  }
};

void onClickAction(GSimpleAction*, GVariant* parameter, gpointer);

class GApplicationCenter final : public DesktopNotificationCenter {
 public:
  explicit GApplicationCenter(ShowObserver observer) : observer_(std::move(observer)) {}

  ~GApplicationCenter() override {
    auto& routes = ClickRoutes::shared();
    support::MutexLock lock(routes.mutex);
    for (const auto& id : order_) routes.routes.erase(id);
  }

  // Main queue only: a click on the notification `id` this centre showed.
  void clicked(const std::string& id) {
    auto found = shown_.find(id);
    if (found == shown_.end()) return;
    if (auto delegate = this->delegate()) delegate->didReceive(found->second, [] {});
  }

 private:
  // Main queue only. The desktop decides on sound for a GNotification.
  void show(const UserNotification& notification, unsigned) override {
    GApplication* app = g_application_get_default();
    if (!app || !g_application_get_is_registered(app)) {
      support::warn("Velquin: desktop notification not shown: the application is not registered");
      if (observer_) observer_(false);
      return;
    }
    if (!g_action_map_lookup_action(G_ACTION_MAP(app), kClickAction)) {
      GSimpleAction* action = g_simple_action_new(kClickAction, G_VARIANT_TYPE_STRING);
      g_signal_connect(action, "activate", G_CALLBACK(onClickAction), nullptr);
      g_action_map_add_action(G_ACTION_MAP(app), G_ACTION(action));
      g_object_unref(action);
    }
    const std::string id = "velquin-" + support::randomUuid(support::UuidCase::lower);
    remember(id, notification);

    const char* fallbackTitle = g_get_application_name();
    GNotification* shown = g_notification_new(
        !notification.title.empty() ? notification.title.c_str()
                                    : (fallbackTitle ? fallbackTitle : ""));
    if (!notification.body.empty()) g_notification_set_body(shown, notification.body.c_str());
    const std::string action = std::string("app.") + kClickAction;
    g_notification_set_default_action_and_target(shown, action.c_str(), "s", id.c_str());
    g_application_send_notification(app, id.c_str(), shown);
    g_object_unref(shown);
    if (observer_) observer_(true);
  }

  // Main queue only.
  void remember(const std::string& id, const UserNotification& notification) {
    auto& routes = ClickRoutes::shared();
    support::MutexLock lock(routes.mutex);
    routes.routes[id] = weakSelf<GApplicationCenter>();
    shown_[id] = notification;
    order_.push_back(id);
    if (order_.size() > kRemembered) {
      routes.routes.erase(order_.front());
      shown_.erase(order_.front());
      order_.pop_front();
    }
  }

  const ShowObserver observer_;
  // Main queue only (the destructor aside): the notifications shown, by
  // identifier, and their identifiers oldest first.
  std::map<std::string, UserNotification> shown_;
  std::deque<std::string> order_;
};

// On whatever thread GLib activates the action.
void onClickAction(GSimpleAction*, GVariant* parameter, gpointer) {
  if (!parameter || !g_variant_is_of_type(parameter, G_VARIANT_TYPE_STRING)) return;
  std::string id = g_variant_get_string(parameter, nullptr);
  std::weak_ptr<GApplicationCenter> center;
  {
    auto& routes = ClickRoutes::shared();
    support::MutexLock lock(routes.mutex);
    auto found = routes.routes.find(id);
    if (found == routes.routes.end()) return;  // not ours, or forgotten
    center = found->second;
  }
  MainQueue::shared().async([center, id] {
    if (auto self = center.lock()) self->clicked(id);
  });
}

// Takes the GApplication road while the process has a registered default
// application, the org.freedesktop.Notifications road otherwise.
class DesktopCenter final : public UserNotificationCenter,
                            public std::enable_shared_from_this<DesktopCenter> {
 public:
  DesktopCenter(std::shared_ptr<UserNotificationCenter> application,
                std::shared_ptr<UserNotificationCenter> freedesktop)
      : application_(std::move(application)), freedesktop_(std::move(freedesktop)) {}

  void setDelegate(std::shared_ptr<UserNotificationCenterDelegate> delegate) override {
    support::MutexLock lock(mutex_);
    application_->setDelegate(delegate);
    freedesktop_->setDelegate(delegate);
    delegate_ = std::move(delegate);
  }

  std::shared_ptr<UserNotificationCenterDelegate> delegate() const override {
    support::MutexLock lock(mutex_);
    return delegate_;
  }

  void deliver(const UserNotification& notification, bool inFront) override {
    // The choice is made on the main queue, where the host's application
    // is registered (GTK hosts) or at least not changing under us.
    MainQueue::shared().async([self = shared_from_this(), notification, inFront] {
      GApplication* app = g_application_get_default();
      bool useApplication = app && g_application_get_is_registered(app);
      (useApplication ? self->application_ : self->freedesktop_)->deliver(notification, inFront);
    });
  }

 private:
  const std::shared_ptr<UserNotificationCenter> application_;
  const std::shared_ptr<UserNotificationCenter> freedesktop_;
  mutable support::Mutex mutex_;
  std::shared_ptr<UserNotificationCenterDelegate> delegate_ GUARDED_BY(mutex_);
};

}  // namespace

std::shared_ptr<UserNotificationCenter> createGApplicationNotificationCenter(ShowObserver observer) {
  return std::make_shared<GApplicationCenter>(std::move(observer));
}

std::shared_ptr<UserNotificationCenter> createDesktopNotificationCenter(
    std::chrono::milliseconds callTimeout, ShowObserver observer) {
  return std::make_shared<DesktopCenter>(createGApplicationNotificationCenter(observer),
                                         createFreedesktopNotificationCenter(callTimeout, observer));
}

}  // namespace velquin::platform
