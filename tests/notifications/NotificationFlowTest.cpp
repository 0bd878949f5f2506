// Push payloads delivered through the facade, shown by the freedesktop
// centre on a private session bus to a notification server of the test,
// in-app messages fetched from the sandbox over TLS and handed to a
// recording page presenter, and the events the sandbox receives.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "NotificationServer.h"
#include "PrivateSessionBus.h"
#include "SandboxFixture.h"
#include "notifications/OVNotificationUtil.h"
#include "platform/FreedesktopNotifications.h"
#include "velquin/MainQueue.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;

constexpr const char* kEvent = "ev_clicked_notification";

// Waits on a condition that other threads change.
class Signal {
 public:
  void bump() {
    std::lock_guard lock(mutex_);
    ++count_;
    cv_.notify_all();
  }
  bool waitFor(int count, std::chrono::milliseconds limit = 20s) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [&] { return count_ >= count; });
  }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  int count_ = 0;
};

class RecordingPresenter final : public PagePresenter {
 public:
  bool presentPaywall(const std::string&, PaywallCompletion) override { return false; }
  bool presentInAppMessage(const std::string& html) override {
    {
      std::lock_guard lock(mutex_);
      pages_.push_back(html);
    }
    shown.bump();
    return true;
  }
  std::vector<std::string> pages() {
    std::lock_guard lock(mutex_);
    return pages_;
  }
  Signal shown;

 private:
  std::mutex mutex_;
  std::vector<std::string> pages_;
};

// Stands between the centre and the SDK's delegate, so a test knows when a
// click has reached the SDK.
class ObservingDelegate final : public UserNotificationCenterDelegate {
 public:
  explicit ObservingDelegate(std::shared_ptr<UserNotificationCenterDelegate> inner)
      : inner_(std::move(inner)) {}
  void willPresent(const UserNotification& notification,
                   std::function<void(unsigned)> completion) override {
    inner_->willPresent(notification, std::move(completion));
  }
  void didReceive(const UserNotification& notification,
                  std::function<void()> completion) override {
    inner_->didReceive(notification, [this, completion] {
      completion();
      completed.bump();
    });
    received.bump();
  }
  Signal received;
  Signal completed;

 private:
  std::shared_ptr<UserNotificationCenterDelegate> inner_;
};

class NotificationFlowTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    // The token file first: the SDK's objects read it when they are made.
    writeWorkingTokenFile();
    bus = std::make_unique<PrivateSessionBus>(env.root() / "bus");
    ASSERT_TRUE(bus->ok()) << bus->error();
    auto base = MainQueue::Clock::now();
    MainQueue::shared().setNowFunction(
        [this, base] { return base + std::chrono::milliseconds(elapsedMs.load()); });
    Velquin::shared().setUserNotificationCenter(platform::createFreedesktopNotificationCenter(
        3s, [shown = shownSignal, failed = failedSignal](bool ok) { (ok ? shown : failed)->bump(); }));
    presenter = std::make_shared<RecordingPresenter>();
    Velquin::shared().setPagePresenter(presenter);
    ASSERT_TRUE(configureAndWait());
  }

  // Every event sent before the sandbox stops, so no call is still
  // reconnecting while the process exits.
  void TearDown() override {
    if (server && Velquin::shared().analytics().canSendEvents()) drainEvents();
    SandboxTest::TearDown();
  }

  void startNotificationServer() {
    notifications = std::make_unique<NotificationServer>(bus->address());
    ASSERT_TRUE(notifications->ok());
  }

  // Moves the main queue's clock forward and runs what became due.
  void advance(std::chrono::milliseconds by) {
    elapsedMs += by.count();
    MainQueue::shared().fireDueTimers();
    MainQueue::shared().sync([] {});
  }

  // Sends the cached events and answers the notification events the
  // sandbox received once `count` arrived (or the limit passed).
  std::vector<nlohmann::json> deliveredEvents(std::size_t count) {
    std::vector<nlohmann::json> found;
    auto deadline = std::chrono::steady_clock::now() + 20s;
    do {
      Velquin::shared().analytics().uploadCachedEvents();
      found.clear();
      for (const auto& event : server->events()) {
        if (event.name == kEvent) found.push_back(nlohmann::json::parse(event.value, nullptr, false));
      }
      if (found.size() >= count) break;
      std::this_thread::sleep_for(50ms);
    } while (std::chrono::steady_clock::now() < deadline);
    return found;
  }

  // Waits until every cached event was sent.
  void drainEvents() {
    auto& analytics = Velquin::shared().analytics();
    auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline) {
      analytics.uploadCachedEvents();
      if (analytics.cachedEventCount() == 0 && analytics.isDeliveryIdle()) return;
      std::this_thread::sleep_for(50ms);
    }
    ADD_FAILURE() << "events still cached";
  }

  std::unique_ptr<PrivateSessionBus> bus;
  std::unique_ptr<NotificationServer> notifications;
  std::shared_ptr<RecordingPresenter> presenter;
  std::atomic<std::int64_t> elapsedMs{0};
  // Shared with the centre, which outlives the test.
  std::shared_ptr<Signal> shownSignal = std::make_shared<Signal>();
  std::shared_ptr<Signal> failedSignal = std::make_shared<Signal>();
};

const nlohmann::json kAnnouncement = {
    {"aps", {{"alert", {{"title", "Spring sale"}, {"body", "Open to see"}}}}},
    {"velquin_alert_type", "ALERT_TYPE_IN_APP"},
    {"velquin_id", "welcome-offer"},
    {"velquin_notification_id", "n-2"}};

TEST_F(NotificationFlowTest, InFrontWithoutAlertTypeIsShownWithSoundAndReportsTextKeys) {
  startNotificationServer();
  Velquin::shared().setInAppMesssageAutoShow(true);
  Velquin::shared().receivePushNotification(
      {{"aps", {{"alert", {{"title", "Hello"}, {"body", "World"}}}}},
       {"velquin_notification_id", "n-1"},
       {"velquin_trigger_type", 7},  // not text: left out
       {"velquin_trigger_at", "2026-11-23T10:00:00Z"}},
      true);
  ASSERT_TRUE(notifications->waitForCalls(1));
  auto call = notifications->calls().at(0);
  EXPECT_EQ(call.summary, "Hello");
  EXPECT_EQ(call.body, "World");
  EXPECT_EQ(call.stringHints.count("sound-name"), 1u);
  EXPECT_NE(std::find(call.actions.begin(), call.actions.end(), "default"), call.actions.end());

  auto events = deliveredEvents(1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].value("velquin_notification_id", ""), "n-1");
  EXPECT_EQ(events[0].value("velquin_trigger_at", ""), "2026-11-23T10:00:00Z");
  EXPECT_FALSE(events[0].contains("velquin_trigger_type"));
  EXPECT_TRUE(server->calls("GetInAppMessage").empty());
}

TEST_F(NotificationFlowTest, AnnouncementInFrontIsFetchedOnlyAfterTheClickAndTheDelay) {
  startNotificationServer();
  Velquin::shared().setInAppMesssageAutoShow(false);
  auto center = Velquin::shared().userNotificationCenter();
  auto observing = std::make_shared<ObservingDelegate>(center->delegate());
  center->setDelegate(observing);

  Velquin::shared().receivePushNotification(kAnnouncement, true);
  ASSERT_TRUE(notifications->waitForCalls(1));
  ASSERT_TRUE(shownSignal->waitFor(1));
  EXPECT_EQ(notifications->calls().at(0).summary, "Spring sale");
  EXPECT_EQ(deliveredEvents(1).size(), 1u);  // reported on arrival in front
  EXPECT_TRUE(server->calls("GetInAppMessage").empty());

  notifications->invokeAction(notifications->calls().at(0).id);
  ASSERT_TRUE(observing->received.waitFor(1));
  EXPECT_EQ(observing->completed.count(), 1);  // completed at once, before the delay
  advance(1499ms);
  EXPECT_TRUE(server->calls("GetInAppMessage").empty());
  EXPECT_TRUE(presenter->pages().empty());

  advance(1ms);
  ASSERT_TRUE(presenter->shown.waitFor(1));
  auto fetches = server->calls("GetInAppMessage");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0].request.value("id", ""), "welcome-offer");
  EXPECT_FALSE(presenter->pages().at(0).empty());
  auto events = deliveredEvents(2);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[1].value("velquin_notification_id", ""), "n-2");
}

TEST_F(NotificationFlowTest, AutoShownAnnouncementInFrontIsPresentedWithoutBannerOrEvent) {
  startNotificationServer();
  Velquin::shared().setInAppMesssageAutoShow(true);
  Velquin::shared().receivePushNotification(kAnnouncement, true);
  ASSERT_TRUE(presenter->shown.waitFor(1));
  EXPECT_EQ(server->calls("GetInAppMessage").size(), 1u);
  // The answer (no options) came before the fetch started, so any banner
  // would have been asked for by now.
  MainQueue::shared().sync([] {});
  EXPECT_EQ(shownSignal->count() + failedSignal->count(), 0);
  drainEvents();
  for (const auto& event : server->events()) EXPECT_NE(event.name, kEvent);
}

TEST_F(NotificationFlowTest, BackgroundPayloadIsShownWithSoundAndReportedOnlyWhenClicked) {
  startNotificationServer();
  Velquin::shared().setAutoUserNotificationBehaviorDataReporting();
  Velquin::shared().setFromBackgroudPointToDelayTime(0.2);
  Velquin::shared().receivePushNotification({{"aps", {{"alert", "Plain text"}}},
                                             {"velquin_notification_id", "n-3"}},
                                            false);
  ASSERT_TRUE(notifications->waitForCalls(1));
  ASSERT_TRUE(shownSignal->waitFor(1));
  EXPECT_EQ(notifications->calls().at(0).body, "Plain text");
  EXPECT_EQ(notifications->calls().at(0).stringHints.count("sound-name"), 1u);
  drainEvents();
  for (const auto& event : server->events()) EXPECT_NE(event.name, kEvent);

  auto center = Velquin::shared().userNotificationCenter();
  auto observing = std::make_shared<ObservingDelegate>(center->delegate());
  center->setDelegate(observing);
  notifications->invokeAction(notifications->calls().at(0).id, "other-action");
  notifications->invokeAction(notifications->calls().at(0).id);
  ASSERT_TRUE(observing->received.waitFor(1));
  advance(200ms);
  auto events = deliveredEvents(1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].value("velquin_notification_id", ""), "n-3");
  EXPECT_EQ(observing->received.count(), 1);  // the other action is not a click
  EXPECT_TRUE(server->calls("GetInAppMessage").empty());
}

TEST_F(NotificationFlowTest, WithoutNotificationServerTheEventIsStillRecorded) {
  // No server owns the name on the bus.
  Velquin::shared().setInAppMesssageAutoShow(false);
  ::testing::internal::CaptureStderr();
  Velquin::shared().receivePushNotification({{"velquin_notification_id", "n-4"}}, true);
  bool failed = failedSignal->waitFor(1);
  auto stderrText = ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(failed);
  EXPECT_NE(stderrText.find("desktop notification not shown"), std::string::npos) << stderrText;
  auto events = deliveredEvents(1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].value("velquin_notification_id", ""), "n-4");
}

TEST_F(NotificationFlowTest, AServerThatNeverAnswersDelaysNothing) {
  notifications = std::make_unique<NotificationServer>(bus->address(), false);
  ASSERT_TRUE(notifications->ok());
  auto failed = std::make_shared<Signal>();
  Velquin::shared().setUserNotificationCenter(platform::createFreedesktopNotificationCenter(
      300ms, [failed](bool ok) {
        if (!ok) failed->bump();
      }));
  Velquin::shared().setInAppMesssageAutoShow(false);
  ::testing::internal::CaptureStderr();
  Velquin::shared().receivePushNotification({{"velquin_notification_id", "n-6"}}, true);
  Velquin::shared().receivePushNotification({{"velquin_notification_id", "n-7"}}, false);
  ASSERT_TRUE(notifications->waitForCalls(2));
  bool gaveUp = failed->waitFor(2);
  auto stderrText = ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(gaveUp);
  EXPECT_NE(stderrText.find("desktop notification not shown"), std::string::npos) << stderrText;
  // The main queue kept running meanwhile.
  MainQueue::shared().sync([] {});
  EXPECT_EQ(deliveredEvents(1).size(), 1u);
}

TEST_F(NotificationFlowTest, WithoutSessionBusTheEventIsStillRecorded) {
  setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (env.root() / "no-bus").string()).c_str(),
         1);
  Velquin::shared().setInAppMesssageAutoShow(false);
  ::testing::internal::CaptureStderr();
  Velquin::shared().receivePushNotification({{"velquin_notification_id", "n-5"}}, true);
  bool failed = failedSignal->waitFor(1);
  auto stderrText = ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(failed);
  EXPECT_NE(stderrText.find("no session bus"), std::string::npos) << stderrText;
  EXPECT_EQ(deliveredEvents(1).size(), 1u);
}

TEST_F(NotificationFlowTest, FacadeStartsHandlingOnceAndAnswersTheMessageCheck) {
  auto& util = OVNotificationUtil::shared();
  EXPECT_FALSE(util.isFinishStart);
  EXPECT_DOUBLE_EQ(Velquin::shared().fromBackgroudPointToDelayTime(), 1.5);
  Velquin::setPurchasesLogs(true);
  ::testing::internal::CaptureStdout();
  Velquin::shared().setInAppMesssageAutoShow(false);
  Velquin::shared().setInAppMesssageAutoShow(true);
  Velquin::shared().setAutoUserNotificationBehaviorDataReporting();
  auto out = ::testing::internal::GetCapturedStdout();
  Velquin::setPurchasesLogs(false);
  auto first = out.find("startServer");
  ASSERT_NE(first, std::string::npos) << out;
  EXPECT_EQ(out.find("startServer", first + 1), std::string::npos) << out;
  EXPECT_TRUE(util.isFinishStart);
  EXPECT_TRUE(util.isAutoShow);
  EXPECT_EQ(Velquin::shared().userNotificationCenter()->delegate(),
            OVNotificationUtil::sharedPointer());

  // A centre the host installs after handling started gets the delegate too.
  struct HostCentre final : UserNotificationCenter {
    void setDelegate(std::shared_ptr<UserNotificationCenterDelegate> d) override { held = d; }
    std::shared_ptr<UserNotificationCenterDelegate> delegate() const override { return held; }
    void deliver(const UserNotification&, bool) override {}
    std::shared_ptr<UserNotificationCenterDelegate> held;
  };
  auto original = Velquin::shared().userNotificationCenter();
  auto hostCentre = std::make_shared<HostCentre>();
  Velquin::shared().setUserNotificationCenter(hostCentre);
  EXPECT_EQ(hostCentre->delegate(), OVNotificationUtil::sharedPointer());
  Velquin::shared().setUserNotificationCenter(original);

  Velquin::shared().setFromBackgroudPointToDelayTime(2.5);
  EXPECT_DOUBLE_EQ(util.delayTime, 2.5);

  // Wrong-type or missing values: not an announcement, nothing fetched, no crash.
  util.isAutoShow = false;
  for (const nlohmann::json& payload :
       {nlohmann::json(), nlohmann::json(42), nlohmann::json::array({"velquin_id"}),
        nlohmann::json{{"velquin_alert_type", "ALERT_TYPE_IN_APP"}},
        nlohmann::json{{"velquin_alert_type", "ALERT_TYPE_IN_APP"}, {"velquin_id", 12}},
        nlohmann::json{{"velquin_alert_type", {{"nested", true}}}, {"velquin_id", "welcome-offer"}},
        nlohmann::json{{"velquin_alert_type", "ALERT_TYPE_OTHER"}, {"velquin_id", "x"}},
        nlohmann::json{{"aps", 5}, {"velquin_alert_type", 1}, {"velquin_id", nullptr},
                       {"velquin_notification_id", {1, 2}}, {"velquin_trigger_type", 2.5},
                       {"velquin_trigger_at", {{"at", 1}}}},
        nlohmann::json{{"aps", {{"alert", 3}}}, {"velquin_alert_type", "ALERT_TYPE_IN_APP"},
                       {"velquin_id", {{"id", "welcome-offer"}}}}}) {
    EXPECT_FALSE(Velquin::shared().sendUserNotificationCenterMessage(payload)) << payload;
    EXPECT_TRUE(util.isAutoShow);
    Velquin::shared().sendNotificationUserInfoToBehaviorDataReporting(payload);
    Velquin::shared().receivePushNotification(payload, true);
    Velquin::shared().receivePushNotification(payload, false);
  }
  EXPECT_TRUE(Velquin::shared().sendUserNotificationCenterMessage(kAnnouncement));
  ASSERT_TRUE(presenter->shown.waitFor(1));
  EXPECT_EQ(server->calls("GetInAppMessage").size(), 1u);
}

TEST_F(NotificationFlowTest, CommandLineHostDeliversAPayloadAndReportsWhatHappened) {
  startNotificationServer();
  nlohmann::json payload = kAnnouncement;
  int status = -1;
  auto shownAtOnce = runHost({"notify", payload.dump(), "--in-front", "--auto-show"}, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(shownAtOnce.value("presentationOptions", -1), 0);
  EXPECT_EQ(shownAtOnce.value("desktopNotificationRequested", true), false);
  EXPECT_EQ(shownAtOnce.value("inAppMessageShown", false), true);

  auto clicked = runHost({"notify", payload.dump(), "--click", "--wait", "10"}, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(clicked.value("desktopNotificationRequested", false), true);
  EXPECT_EQ(clicked.value("clicked", false), true);
  EXPECT_EQ(clicked.value("inAppMessageShown", false), true);
  EXPECT_TRUE(notifications->waitForCalls(1));
  EXPECT_EQ(server->calls("GetInAppMessage").size(), 2u);
}

}  // namespace
}  // namespace velquin::testing
