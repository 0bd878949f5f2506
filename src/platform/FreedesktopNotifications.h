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

#include "velquin/NotificationCenterProvider.h"

namespace velquin::platform {

// Called on the main queue after each attempt to show a notification, with
// whether the server took it.
using ShowObserver = std::function<void(bool shown)>;

std::shared_ptr<UserNotificationCenter> createFreedesktopNotificationCenter(
    std::chrono::milliseconds callTimeout = std::chrono::seconds(3),
    ShowObserver observer = nullptr);

}  // namespace velquin::platform
