// The SDK as GLib runs it inside a Flatpak sandbox, against a
// scripted portal on a private session bus: notifications through the
// notification portal with clicks coming back as the application's action,
// and the network portal's errors taken as unreachable. GTK_USE_PORTAL
// makes GLib take its sandbox road outside one; each test runs in a process
// of its own, as GLib reads it once.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "PrivateSessionBus.h"
#include "ScriptedPortal.h"
#include "platform/GApplicationNotifications.h"
#include "support/Reachability.h"
#include "support/TempEnvironment.h"
#include "velquin/MainQueue.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;

constexpr const char* kAppId = "com.example.VelquinPortal";

class Clicks final : public UserNotificationCenterDelegate {
 public:
  void willPresent(const UserNotification&, std::function<void(unsigned)> completion) override {
    completion(NotificationPresentationOptions::alert | NotificationPresentationOptions::sound);
  }
  void didReceive(const UserNotification& notification, std::function<void()> completion) override {
    {
      std::lock_guard lock(mutex_);
      received_.push_back(notification);
    }
    cv_.notify_all();
    completion();
  }
  std::vector<UserNotification> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    cv_.wait_for(lock, 20s, [&] { return received_.size() >= count; });
    return received_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<UserNotification> received_;
};

class PortalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("GTK_USE_PORTAL", "1", 1);
    bus = std::make_unique<PrivateSessionBus>(env.root() / "bus");
    ASSERT_TRUE(bus->ok()) << bus->error();
    portal = std::make_unique<ScriptedPortal>(bus->address(), kAppId);
    ASSERT_TRUE(portal->ok());
  }

  TempEnvironment env;
  std::unique_ptr<PrivateSessionBus> bus;
  std::unique_ptr<ScriptedPortal> portal;
};

TEST_F(PortalTest, NotificationsGoThroughThePortalAndItsClicksComeBackAsTheAction) {
  // The host keeps its bus connection from ending the process when the
  // test's bus goes away at the end.
  GDBusConnection* hostBus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  ASSERT_NE(hostBus, nullptr);
  g_dbus_connection_set_exit_on_close(hostBus, FALSE);
  GApplication* app = g_application_new(kAppId, G_APPLICATION_DEFAULT_FLAGS);
  bool registered = false;
  MainQueue::shared().sync([&] { registered = g_application_register(app, nullptr, nullptr); });
  ASSERT_TRUE(registered);
  auto center = platform::createDesktopNotificationCenter();
  auto clicks = std::make_shared<Clicks>();
  center->setDelegate(clicks);

  center->deliver({"a", "In front", "Shown because the delegate asks", {{"velquin_id", "m-1"}}},
                  true);
  center->deliver({"b", "Behind", "Shown in the background", {{"velquin_id", "m-2"}}}, false);
  ASSERT_TRUE(portal->waitForNotifications(2));
  // The one in front waits for the delegate's answer, so either may come first.
  auto shown = portal->notifications();
  if (shown[0].title != "Behind") std::swap(shown[0], shown[1]);
  EXPECT_EQ(shown[0].body, "Shown in the background");
  EXPECT_EQ(shown[1].title, "In front");
  for (const auto& notification : shown) {
    EXPECT_EQ(notification.defaultAction, std::string("app.") + platform::kClickAction);
    EXPECT_EQ(notification.target, notification.id);
  }
  EXPECT_NE(shown[0].id, shown[1].id);

  ASSERT_TRUE(portal->click(shown[0]));
  auto received = clicks->waitFor(1);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].title, "Behind");
  EXPECT_EQ(received[0].userInfo.value("velquin_id", ""), "m-2");
  MainQueue::shared().sync([&] { g_object_unref(app); });
  g_object_unref(hostBus);
}

TEST_F(PortalTest, NetworkPortalErrorsCountAsUnreachableAndTheBusGoingAwayEndsNothing) {
  auto internet = Reachability::reachabilityForInternetConnection();
  ASSERT_NE(internet, nullptr);
  // The portal monitor learns the network state from its first answer.
  auto deadline = std::chrono::steady_clock::now() + 20s;
  while (internet->currentReachabilityStatus() != ReachableViaWiFi &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_EQ(internet->currentReachabilityStatus(), ReachableViaWiFi);
  // Without the portal this would be reachable: the loopback route exists.
  auto host = Reachability::reachabilityWithHostName("localhost");
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(host->currentReachabilityStatus(), NotReachable);
  EXPECT_GE(portal->reachChecks(), 1);
  EXPECT_TRUE(host->startNotifier());
  host->stopNotifier();

  // GLib ends a process whose session bus closes unless told otherwise; it
  // does so on the main queue, where the connection was opened.
  GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  ASSERT_NE(connection, nullptr);
  portal.reset();
  bus.reset();
  deadline = std::chrono::steady_clock::now() + 20s;
  while (!g_dbus_connection_is_closed(connection) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(g_dbus_connection_is_closed(connection));
  MainQueue::shared().sync([] {});
  MainQueue::shared().sync([] {});
  g_object_unref(connection);
  EXPECT_EQ(host->currentReachabilityStatus(), NotReachable);
}

}  // namespace
}  // namespace velquin::testing
