#include "notifications/OVNotificationUtil.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "backend/GRPCserviceManager.h"
#include "support/OVUtils.h"
#include "velquin/MainQueue.h"

namespace velquin {
namespace {

constexpr const char* kAlertType = "velquin_alert_type";
constexpr const char* kInAppAlert = "ALERT_TYPE_IN_APP";
constexpr const char* kMessageId = "velquin_id";
constexpr const char* kEventName = "ev_clicked_notification";
constexpr const char* kEventKeys[] = {"velquin_notification_id", "velquin_trigger_type",
                                      "velquin_trigger_at"};

// The text under `key`, if the payload is a map holding text there.
std::optional<std::string> textValue(const nlohmann::json& userInfo, const char* key) {
  if (!userInfo.is_object() || !userInfo.contains(key)) return std::nullopt;
  const auto& value = userInfo.at(key);
  if (!value.is_string()) return std::nullopt;
  return value.get<std::string>();
}

}  // namespace

OVNotificationUtil::OVNotificationUtil(Dependencies dependencies)
    : dependencies_(std::move(dependencies)) {}

bool OVNotificationUtil::handleInAppMessage(const nlohmann::json& userInfo) {
  auto alertType = textValue(userInfo, kAlertType);
  if (!alertType || *alertType != kInAppAlert) return false;
  auto messageId = textValue(userInfo, kMessageId);
  if (!messageId) return false;
  auto present = dependencies_.presentInAppMessage;
  dependencies_.backend().getInAppMessage(
      *messageId, [present, id = *messageId](std::optional<push_notification::InAppMessage> message,
                                             std::optional<Error> error) {
        if (!message) {
          log("in-app message " + id + " not fetched: " + (error ? error->message : "no reply"));
          return;
        }
        MainQueue::shared().async([present, id, html = message->html()] {
          auto shown = present ? present(html) : std::nullopt;
          if (!shown) {
            log("in-app message " + id + " not shown: no page presenter installed");
          } else if (!*shown) {
            log("in-app message " + id + " not shown: no active window");
          }
        });
      });
  return true;
}

std::string OVNotificationUtil::reportNotification(const nlohmann::json& userInfo) {
  nlohmann::json params = nlohmann::json::object();
  for (const char* key : kEventKeys) {
    if (auto value = textValue(userInfo, key)) params[key] = *value;
  }
  return dependencies_.recordEvent(kEventName, params);
}

void OVNotificationUtil::willPresent(const UserNotification& notification,
                                     std::function<void(unsigned options)> completion) {
  // A handled announcement is shown as a page instead of a banner, and is
  // not reported.
  if (isAutoShow.load() && handleInAppMessage(notification.userInfo)) {
    if (completion) completion(NotificationPresentationOptions::none);
    return;
  }
  // Reported as a click although nothing was tapped yet, as the backend expects.
  reportNotification(notification.userInfo);
  if (completion) {
    completion(NotificationPresentationOptions::sound | NotificationPresentationOptions::alert);
  }
}

void OVNotificationUtil::didReceive(const UserNotification& notification,
                                    std::function<void()> completion) {
  double seconds = delayTime.load();
  // Nonsense delays run at once; absurd ones are capped at a day.
  if (!std::isfinite(seconds) || seconds < 0) seconds = 0;
  seconds = std::min(seconds, 86400.0);
  auto delay = std::chrono::milliseconds(std::llround(seconds * 1000));
  MainQueue::shared().after(delay, [weak = weak_from_this(), userInfo = notification.userInfo] {
    auto self = weak.lock();
    if (!self) return;
    self->handleInAppMessage(userInfo);
    self->reportNotification(userInfo);
  });
  if (completion) completion();
}

}  // namespace velquin
