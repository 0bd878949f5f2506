// The user-notification centre of a host that is a GApplication (every GTK
// application): notifications are GNotifications sent through the host's
// default GApplication, so GLib picks the desktop's way of showing them
// (the notification portal inside a Flatpak sandbox, the desktop's own
// service outside). Each notification's default action is the application
// action kClickAction with the notification's identifier as its string
// target; the centre adds that action to the application, and its
// activation is the delegate's didReceive.
//
// createDesktopNotificationCenter() is the centre the SDK uses by default:
// for each notification it takes this road when the process has a default
// GApplication that is registered, and the org.freedesktop.Notifications
// road (FreedesktopNotifications.h) otherwise. Both share one delegate.
//
// Ownership and threads: made by the functions below and shared; showing a
// notification and every delegate call run on the main queue. The action
// may be activated on any thread; it only hands the click to the main
// queue. Identifiers are random, so another process cannot guess one to
// fake a click.
#pragma once

#include <chrono>
#include <memory>

#include "platform/FreedesktopNotifications.h"
#include "velquin/NotificationCenterProvider.h"

namespace velquin::platform {

// The application action that brings a click back (without the "app." prefix).
inline constexpr const char* kClickAction = "velquin-notification-clicked";

// Shows through g_application_get_default(); without a registered one,
// each attempt writes a warning and reports not shown.
std::shared_ptr<UserNotificationCenter> createGApplicationNotificationCenter(
    ShowObserver observer = nullptr);

std::shared_ptr<UserNotificationCenter> createDesktopNotificationCenter(
    std::chrono::milliseconds callTimeout = std::chrono::seconds(3),
    ShowObserver observer = nullptr);

}  // namespace velquin::platform
