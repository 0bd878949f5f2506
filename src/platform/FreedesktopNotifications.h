// The user-notification centre of a Linux desktop: notifications become
// desktop notifications through org.freedesktop.Notifications on the
// session bus, and activating one (its "default" action) is the delegate's
// didReceive. The server may be started on demand by D-Bus activation. A
// click counts only when it comes from the connection that owns
// org.freedesktop.Notifications at that moment.
//
// Ownership and threads: made with create() and shared; every D-Bus call and
// every delegate call runs on the main queue. Without a session bus or a
// notification server it writes one warning line per failed attempt and
// shows nothing; D-Bus calls are bounded by a timeout, so nothing waits on
// an unresponsive server.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "support/Mutex.h"
#include "velquin/NotificationCenterProvider.h"

namespace velquin::platform {

// Called on the main queue after each attempt to show a notification, with
// whether the server took it.
using ShowObserver = std::function<void(bool shown)>;

// What the desktop's centres (this one and the GApplication one) share: one
// delegate, and the rule of deliver(): in the background a notification is
// shown with sound; in front only when the delegate's willPresent asks for
// an alert, with the options it gave. Subclasses put it on the desktop.
// Threads: any for the public calls; show() runs on the main queue.
class DesktopNotificationCenter : public UserNotificationCenter,
                                  public std::enable_shared_from_this<DesktopNotificationCenter> {
 public:
  void setDelegate(std::shared_ptr<UserNotificationCenterDelegate> delegate) override;
  std::shared_ptr<UserNotificationCenterDelegate> delegate() const override;
  void deliver(const UserNotification& notification, bool inFront) override;

 protected:
  // Main queue only.
  virtual void show(const UserNotification& notification, unsigned options) = 0;
  // This centre as its own type, for callbacks that must not keep it alive.
  template <class Derived>
  std::weak_ptr<Derived> weakSelf() {
    return std::static_pointer_cast<Derived>(weak_from_this().lock());
  }

 private:
  mutable support::Mutex mutex_;
  std::shared_ptr<UserNotificationCenterDelegate> delegate_ GUARDED_BY(mutex_);
};

std::shared_ptr<UserNotificationCenter> createFreedesktopNotificationCenter(
    std::chrono::milliseconds callTimeout = std::chrono::seconds(3),
    ShowObserver observer = nullptr);

}  // namespace velquin::platform
