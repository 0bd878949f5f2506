// Push payloads delivered as the platform would, and what the SDK made of
// them.
#include <memory>

#include "Cli.h"
#include "velquin/MainQueue.h"
#include "velquin/NotificationCenterProvider.h"
#include "velquin/PagePresenter.h"
#include "velquin/Velquin.h"

namespace velquin::cli {
namespace {

// Records the in-app message page the SDK asks for; a terminal has no window.
class RecordingPresenter final : public PagePresenter {
 public:
  bool presentPaywall(const std::string&, PaywallCompletion) override { return false; }
  bool presentInAppMessage(const std::string& html) override {
    page.set(html);
    return true;
  }
  Pending<std::string> page;
};

// Sits between the centre and the SDK's delegate to see its answers.
class RecordingDelegate final : public UserNotificationCenterDelegate {
 public:
  explicit RecordingDelegate(std::shared_ptr<UserNotificationCenterDelegate> inner)
      : inner_(std::move(inner)) {}
  void willPresent(const UserNotification& notification,
                   std::function<void(unsigned)> completion) override {
    inner_->willPresent(notification, [this, completion](unsigned value) {
      options.set(value);
      if (completion) completion(value);
    });
  }
  void didReceive(const UserNotification& notification,
                  std::function<void()> completion) override {
    inner_->didReceive(notification, std::move(completion));
  }
  Pending<unsigned> options;

 private:
  std::shared_ptr<UserNotificationCenterDelegate> inner_;
};

Outcome notify(const Context&, const std::vector<std::string>& words) {
  Arguments args(words, {"--wait"}, {"--in-front", "--auto-show", "--click"});
  if (args.problem()) return failure(*args.problem());
  if (args.positional().size() != 1) {
    return failure("usage: notify PAYLOAD_JSON [--in-front] [--auto-show] [--click] [--wait S]");
  }
  auto payload = nlohmann::json::parse(args.positional()[0], nullptr, false);
  if (!payload.is_object()) return failure("PAYLOAD_JSON must be a JSON object");
  std::chrono::milliseconds wait{};
  if (auto problem = waitOption(args, 5, wait)) return failure(*problem);
  bool inFront = args.has("--in-front");

  auto& sdk = Velquin::shared();
  auto presenter = std::make_shared<RecordingPresenter>();
  sdk.setPagePresenter(presenter);
  sdk.setInAppMesssageAutoShow(args.has("--auto-show"));
  auto center = sdk.userNotificationCenter();
  auto delegate = std::make_shared<RecordingDelegate>(center->delegate());
  center->setDelegate(delegate);

  Outcome outcome;
  sdk.receivePushNotification(payload, inFront);
  if (inFront) {
    auto options = delegate->options.wait(wait);
    outcome.result["presentationOptions"] = options ? nlohmann::json(*options) : nullptr;
    outcome.result["desktopNotificationRequested"] =
        options && (*options & NotificationPresentationOptions::alert) != 0;
  } else {
    outcome.result["presentationOptions"] = nullptr;
    outcome.result["desktopNotificationRequested"] = true;
  }
  if (args.has("--click")) {
    // What the centre does when the user activates the notification.
    auto clicked = std::make_shared<Pending<bool>>();
    UserNotification notification;
    notification.userInfo = payload;
    MainQueue::shared().async([delegate, notification, clicked] {
      delegate->didReceive(notification, [clicked] { clicked->set(true); });
    });
    outcome.result["clicked"] = clicked->wait(wait).has_value();
  }
  auto page = presenter->page.wait(wait);
  outcome.result["inAppMessageShown"] = page.has_value();
  outcome.result["inAppMessageBytes"] = page ? page->size() : 0;
  return outcome;
}

}  // namespace

std::vector<Command> notifyCommands() {
  return {
      {"notify", "PAYLOAD_JSON [--in-front] [--auto-show] [--click] [--wait SECONDS]",
       "deliver a push payload as the platform would and print what happened", true, notify},
  };
}

}  // namespace velquin::cli
