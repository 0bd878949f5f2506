// The user-notification centre: what shows the app's notifications on the
// desktop and tells the SDK when one arrives while the app is in front or
// is activated by the user.
//
// Unless the host installs its own with Velquin::setUserNotificationCenter,
// the SDK shows notifications as GNotifications of the host's registered
// default GApplication (clicks come back as its "app.velquin-notification-clicked"
// action), or through org.freedesktop.Notifications on the session bus when
// the process has no GApplication.
//
// Ownership and threads: a centre is shared (std::shared_ptr) between the
// host and the SDK; it holds its delegate strongly. The delegate is called
// on the main queue (MainQueue::shared()). Every completion handed to a
// delegate must be called exactly once, from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "velquin/Export.h"

namespace velquin {

// Presentation options a delegate answers for a notification in front; bits.
struct VELQUIN_EXPORT NotificationPresentationOptions {
  static constexpr unsigned none = 0;
  static constexpr unsigned sound = 2;
  static constexpr unsigned alert = 4;
};

struct VELQUIN_EXPORT UserNotification {
  std::string identifier;
  std::string title;
  std::string body;
  // The push payload's user info; any JSON (the SDK reads text values only).
  nlohmann::json userInfo = nlohmann::json::object();
};

class VELQUIN_EXPORT UserNotificationCenterDelegate {
 public:
  virtual ~UserNotificationCenterDelegate() = default;
  // A notification arrived while the app is in front; the completion
  // receives the presentation options (NotificationPresentationOptions bits).
  virtual void willPresent(const UserNotification& notification,
                           std::function<void(unsigned options)> completion) = 0;
  // The user activated a notification.
  virtual void didReceive(const UserNotification& notification,
                          std::function<void()> completion) = 0;
};

class VELQUIN_EXPORT UserNotificationCenter {
 public:
  virtual ~UserNotificationCenter() = default;
  virtual void setDelegate(std::shared_ptr<UserNotificationCenterDelegate> delegate) = 0;
  virtual std::shared_ptr<UserNotificationCenterDelegate> delegate() const = 0;
  // Delivers a notification as the platform would. In front the delegate's
  // willPresent decides: with the alert option it is shown (with a sound
  // hint when the sound option is set), otherwise not. In the background it
  // is shown with sound and alert. Activating a shown notification calls
  // the delegate's didReceive. Returns at once; any thread.
  virtual void deliver(const UserNotification& notification, bool inFront) = 0;
};

}  // namespace velquin
