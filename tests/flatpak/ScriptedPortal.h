// A desktop portal for tests, owning org.freedesktop.portal.Desktop on a
// given bus with two interfaces, each answering as the real portal does:
//  - Notification: records AddNotification; click() activates the
//    notification's default action in the application through
//    org.freedesktop.Application.ActivateAction on its bus name, as the
//    portal does for an application D-Bus can start;
//  - NetworkMonitor (version 3): network available, not metered, full
//    connectivity; every CanReach fails with an error;
//
// Ownership and threads: runs its own thread and GLib main context until
// destroyed. Every member may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GMainContext GMainContext;
typedef struct _GMainLoop GMainLoop;
typedef struct _GVariant GVariant;
typedef struct _GDBusMethodInvocation GDBusMethodInvocation;

namespace velquin::testing {

struct PortalNotification {
  std::string id;
  std::string title;
  std::string body;
  std::string defaultAction;  // e.g. "app.velquin-notification-clicked"
  std::string target;         // the action's string target
};

class ScriptedPortal {
 public:
  // `appId` is the application the portal believes is calling.
  ScriptedPortal(const std::string& busAddress, std::string appId);
  ~ScriptedPortal();
  ScriptedPortal(const ScriptedPortal&) = delete;
  ScriptedPortal& operator=(const ScriptedPortal&) = delete;

  bool ok() const { return ok_; }
  std::vector<PortalNotification> notifications() const;
  bool waitForNotifications(std::size_t count,
                            std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
  // Activates the notification's default action; false when the
  // application did not answer.
  bool click(const PortalNotification& notification);
  int reachChecks() const;

  // Called by the D-Bus dispatch on the portal's thread.
  void handle(const std::string& interface, const std::string& method, GVariant* parameters,
              GDBusMethodInvocation* invocation);

 private:
  void run(const std::string& busAddress);

  const std::string appId_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<PortalNotification> notifications_;  // guarded by mutex_
  int reachChecks_ = 0;                             // guarded by mutex_
  bool started_ = false;                            // guarded by mutex_
  bool ok_ = false;                                 // written before started_ is set
  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  GDBusConnection* connection_ = nullptr;  // set by the portal's thread before started_

  std::thread thread_;
};

}  // namespace velquin::testing
