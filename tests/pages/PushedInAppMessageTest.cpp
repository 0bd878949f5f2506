// A push payload announcing an in-app message, delivered in front with
// auto-show on: the message is fetched from the sandbox and shown over the
// host's window by the GTK presenter, with no desktop notification and no
// click event.
#include <webkit/webkit.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "PageFixture.h"
#include "platform/FreedesktopNotifications.h"
#include "velquin/MainQueue.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::testing {
namespace {

using gtk::OVInAppMessagePage;

// Stands between the centre and the SDK's delegate and records the
// presentation options the SDK answers for a notification in front.
class AnswerRecorder final : public UserNotificationCenterDelegate {
 public:
  explicit AnswerRecorder(std::shared_ptr<UserNotificationCenterDelegate> inner)
      : inner_(std::move(inner)) {}
  void willPresent(const UserNotification& notification,
                   std::function<void(unsigned)> completion) override {
    inner_->willPresent(notification, [this, completion](unsigned options) {
      answers.push_back(options);
      completion(options);
    });
  }
  void didReceive(const UserNotification& notification,
                  std::function<void()> completion) override {
    inner_->didReceive(notification, std::move(completion));
  }
  // Written and read on the main queue, which is the test's thread here.
  std::vector<unsigned> answers;

 private:
  std::shared_ptr<UserNotificationCenterDelegate> inner_;
};

class PushedInAppMessageTest : public PagesTest {};

TEST_F(PushedInAppMessageTest, AutoShownAnnouncementInFrontIsShownOverTheHostsWindow) {
  GtkWindow* host = openHostWindow();
  ASSERT_TRUE(configureAndIterate());
  // Counts every attempt to show a desktop notification, taken or not (the
  // centre outlives the test, so the counter is shared with it).
  auto attempts = std::make_shared<std::atomic<int>>(0);
  Velquin::shared().setUserNotificationCenter(platform::createFreedesktopNotificationCenter(
      std::chrono::seconds(3), [attempts](bool) { ++*attempts; }));
  Velquin::shared().setInAppMesssageAutoShow(true);
  auto center = Velquin::shared().userNotificationCenter();
  auto recorder = std::make_shared<AnswerRecorder>(center->delegate());
  center->setDelegate(recorder);

  Velquin::shared().receivePushNotification(
      {{"aps", {{"alert", {{"title", "A welcome offer"}, {"body", "Open to see"}}}}},
       {"velquin_alert_type", "ALERT_TYPE_IN_APP"},
       {"velquin_id", "welcome-offer"},
       {"velquin_notification_id", "n-page"}},
      /*inFront=*/true);
  ASSERT_TRUE(iterateUntil([] { return !OVInAppMessagePage::shownPages().empty(); }));
  auto fetches = server->calls("GetInAppMessage");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0].request.value("id", ""), "welcome-offer");

  auto pages = OVInAppMessagePage::shownPages();
  ASSERT_EQ(pages.size(), 1u);
  auto page = pages[0];
  EXPECT_EQ(gtk_window_get_transient_for(page->window()), host);
  // The sandbox's offer page, with the text it is configured with.
  EXPECT_TRUE(waitForPage(page->webView(), "document.body.innerText.includes('A welcome offer')"));
  EXPECT_TRUE(iterateUntil([&] {
    return gtk_widget_get_width(page->widget()) == gtk_widget_get_width(GTK_WIDGET(host));
  }));
  screenshot(GTK_WIDGET(page->window()), "pushed-in-app-message");

  // Will-present answered (with no options) before the fetch began, so a
  // notification, and the event, would have been asked for by now.
  auto ran = std::make_shared<std::atomic<bool>>(false);
  MainQueue::shared().async([ran] { *ran = true; });
  ASSERT_TRUE(iterateUntil([&] { return ran->load(); }));
  EXPECT_EQ(recorder->answers, std::vector<unsigned>{NotificationPresentationOptions::none});
  EXPECT_EQ(attempts->load(), 0);
  auto& analytics = Velquin::shared().analytics();
  ASSERT_TRUE(analytics.canSendEvents());
  analytics.uploadCachedEvents();
  EXPECT_TRUE(iterateUntil(
      [&] { return analytics.cachedEventCount() == 0 && analytics.isDeliveryIdle(); }));
  for (const auto& event : server->events()) EXPECT_NE(event.name, "ev_clicked_notification");
}

}  // namespace
}  // namespace velquin::testing
