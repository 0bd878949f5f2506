// The composition root's own entry points (see CompositionRoot.cpp).
#pragma once

#include <memory>

#include "velquin/NotificationCenterProvider.h"

namespace velquin {

// Connects the process flags to the objects that follow them (the tag to
// the event headers). Idempotent; any thread.
void wireProcessFlags();

// The process's user-notification centre: the freedesktop one, made on
// first use, unless one was installed. Any thread.
std::shared_ptr<UserNotificationCenter> currentUserNotificationCenter();
void installUserNotificationCenter(std::shared_ptr<UserNotificationCenter> center);

}  // namespace velquin
