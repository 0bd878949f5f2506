// The SDK's delegate of the user-notification centre: records the
// "ev_clicked_notification" event for the notifications that reach it and,
// for in-app message announcements, fetches the message from the backend
// and has the page presenter show it.
//
// Ownership and threads: one process-wide object (shared(), made by the
// composition root) that lives for the process. The centre calls the
// delegate members on the main queue; the other members may be called from
// any thread. The flags are atomics.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velquin/NotificationCenterProvider.h"

namespace velquin {
class GRPCserviceManager;

class OVNotificationUtil final : public UserNotificationCenterDelegate,
                                 public std::enable_shared_from_this<OVNotificationUtil> {
 public:
  struct Dependencies {
    // The backend client in-app messages are fetched with.
    std::function<GRPCserviceManager&()> backend;
    // Shows an in-app message page; called on the main queue. Answers
    // whether the page was shown, or nothing when no presenter is installed.
    std::function<std::optional<bool>(const std::string& html)> presentInAppMessage;
    // Records an analytics event; answers its request id.
    std::function<std::string(const std::string& name, const nlohmann::json& params)> recordEvent;
  };

  static OVNotificationUtil& shared();
  static std::shared_ptr<OVNotificationUtil> sharedPointer();

  explicit OVNotificationUtil(Dependencies dependencies);

  std::atomic<bool> isAutoShow{false};
  // Seconds between a tap on a notification and its handling.
  std::atomic<double> delayTime{1.5};
  // Set once the SDK made this object the centre's delegate.
  std::atomic<bool> isFinishStart{false};

  // When the payload announces an in-app message ("velquin_alert_type" is
  // "ALERT_TYPE_IN_APP" and "velquin_id" is text), starts fetching it (the
  // page is shown on the main queue once it arrives) and answers true.
  bool handleInAppMessage(const nlohmann::json& userInfo);
  // Records "ev_clicked_notification" with the payload's text values of
  // "velquin_notification_id", "velquin_trigger_type", "velquin_trigger_at";
  // answers the event's request id.
  std::string reportNotification(const nlohmann::json& userInfo);

  void willPresent(const UserNotification& notification,
                   std::function<void(unsigned options)> completion) override;
  void didReceive(const UserNotification& notification,
                  std::function<void()> completion) override;

 private:
  const Dependencies dependencies_;
};

}  // namespace velquin
