// The two roads a notification takes to the desktop, on a private session
// bus: org.freedesktop.Notifications for a host without a GApplication
// (clicks only from the service's owner; the server started on demand), and
// GNotification through the host's registered GApplication (clicks back
// through the application action).
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <fstream>
#include <mutex>

#include "NotificationServer.h"
#include "PrivateSessionBus.h"
#include "platform/GApplicationNotifications.h"
#include "support/TempEnvironment.h"
#include "velquin/MainQueue.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;

// Records what the centre tells its delegate; in front it answers `options`.
class RecordingDelegate final : public UserNotificationCenterDelegate {
 public:
  explicit RecordingDelegate(unsigned options = NotificationPresentationOptions::alert)
      : options_(options) {}
  void willPresent(const UserNotification&, std::function<void(unsigned)> completion) override {
    completion(options_);
  }
  void didReceive(const UserNotification& notification, std::function<void()> completion) override {
    {
      std::lock_guard lock(mutex_);
      received_.push_back(notification);
    }
    cv_.notify_all();
    completion();
  }
  bool waitForReceived(std::size_t count) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, 20s, [&] { return received_.size() >= count; });
  }
  std::vector<UserNotification> received() {
    std::lock_guard lock(mutex_);
    return received_;
  }

 private:
  const unsigned options_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<UserNotification> received_;
};

UserNotification makeNotification(const std::string& title, const std::string& id) {
  return UserNotification{id, title, "Body of " + title, {{"velquin_notification_id", id}}};
}

GDBusConnection* openConnection(const std::string& address) {
  return g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
}

// Waits until everything `from` sent before reached this process's session
// bus connection and its signal handlers ran on the main queue: a ping from
// `from` to that connection is answered after the messages before it were
// read, and their handlers were queued to the main queue before it.
void settle(GDBusConnection* from) {
  GDBusConnection* own = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  ASSERT_NE(own, nullptr);
  GVariant* reply = g_dbus_connection_call_sync(
      from, g_dbus_connection_get_unique_name(own), "/", "org.freedesktop.DBus.Peer", "Ping",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
  ASSERT_NE(reply, nullptr);
  g_variant_unref(reply);
  g_object_unref(own);
  MainQueue::shared().sync([] {});
}

TEST(FreedesktopRoad, OnlyTheServiceOwnerCanReportAClick) {
  TempEnvironment env;
  PrivateSessionBus bus(env.root() / "bus");
  ASSERT_TRUE(bus.ok()) << bus.error();
  NotificationServer server(bus.address());
  ASSERT_TRUE(server.ok());
  auto center = platform::createFreedesktopNotificationCenter();
  auto delegate = std::make_shared<RecordingDelegate>();
  center->setDelegate(delegate);

  center->deliver(makeNotification("First", "n-1"), false);
  center->deliver(makeNotification("Second", "n-2"), true);
  ASSERT_TRUE(server.waitForCalls(2));
  auto calls = server.calls();
  // Both Notify answers taken in before anything is clicked.
  GDBusConnection* own = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  ASSERT_TRUE(server.roundTrip(g_dbus_connection_get_unique_name(own)));
  g_object_unref(own);
  MainQueue::shared().sync([] {});

  // Another client imitates the server's click signal for both.
  GDBusConnection* forger = openConnection(bus.address());
  ASSERT_NE(forger, nullptr);
  for (const auto& call : calls) {
    g_dbus_connection_emit_signal(forger, nullptr, "/org/freedesktop/Notifications",
                                  "org.freedesktop.Notifications", "ActionInvoked",
                                  g_variant_new("(us)", call.id, "default"), nullptr);
  }
  settle(forger);
  EXPECT_TRUE(delegate->received().empty());

  server.invokeAction(calls.at(1).id);
  ASSERT_TRUE(delegate->waitForReceived(1));
  settle(forger);
  auto received = delegate->received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].title, "Second");
  EXPECT_EQ(received[0].userInfo.value("velquin_notification_id", ""), "n-2");
  g_object_unref(forger);
}

TEST(FreedesktopRoad, AServerThatIsNotRunningIsStartedOnDemand) {
  TempEnvironment env;
  auto services = env.root() / "services";
  std::filesystem::create_directories(services);
  std::ofstream(services / "org.freedesktop.Notifications.service")
      << "[D-BUS Service]\nName=org.freedesktop.Notifications\nExec="
      << (binDir() / "velquin-test-notification-server").string() << "\n";
  PrivateSessionBus bus(env.root() / "bus", services);
  ASSERT_TRUE(bus.ok()) << bus.error();

  std::mutex mutex;
  std::condition_variable cv;
  int shown = 0, failed = 0;
  auto center = platform::createFreedesktopNotificationCenter(20s, [&](bool ok) {
    std::lock_guard lock(mutex);
    ++(ok ? shown : failed);
    cv.notify_all();
  });
  auto delegate = std::make_shared<RecordingDelegate>();
  center->setDelegate(delegate);
  center->deliver(makeNotification("Started", "n-3"), false);
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, 30s, [&] { return shown + failed > 0; }));
    EXPECT_EQ(shown, 1);
  }
  // The started server clicks what it shows.
  ASSERT_TRUE(delegate->waitForReceived(1));
  EXPECT_EQ(delegate->received().at(0).title, "Started");
}

TEST(GApplicationRoad, NotificationsGoThroughTheApplicationAndClicksComeBackAsItsAction) {
  TempEnvironment env;
  PrivateSessionBus bus(env.root() / "bus");
  ASSERT_TRUE(bus.ok()) << bus.error();
  NotificationServer server(bus.address());
  ASSERT_TRUE(server.ok());
  // The host's application, registered on the main queue's context so its
  // D-Bus work is dispatched there.
  // The host keeps its bus connection from ending the process when the
  // test's bus goes away at the end.
  GDBusConnection* hostBus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  ASSERT_NE(hostBus, nullptr);
  g_dbus_connection_set_exit_on_close(hostBus, FALSE);
  GApplication* app = g_application_new("com.example.VelquinNotify", G_APPLICATION_DEFAULT_FLAGS);
  bool registered = false;
  MainQueue::shared().sync([&] { registered = g_application_register(app, nullptr, nullptr); });
  ASSERT_TRUE(registered);

  auto center = platform::createDesktopNotificationCenter();
  auto delegate = std::make_shared<RecordingDelegate>(NotificationPresentationOptions::none);
  center->setDelegate(delegate);
  center->deliver(makeNotification("Suppressed", "n-4"), true);  // the delegate answers none
  center->deliver(makeNotification("Shown", "n-5"), false);
  ASSERT_TRUE(server.waitForCalls(1));
  // GLib took the Notify answer in before anything is clicked.
  ASSERT_TRUE(server.roundTrip(g_dbus_connection_get_unique_name(hostBus)));
  MainQueue::shared().sync([] {});
  auto calls = server.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].summary, "Shown");
  EXPECT_EQ(calls[0].body, "Body of Shown");
  ASSERT_TRUE(g_action_group_has_action(G_ACTION_GROUP(app), platform::kClickAction));

  // An activation with an identifier the SDK never gave out is no click.
  MainQueue::shared().sync([&] {
    g_action_group_activate_action(G_ACTION_GROUP(app), platform::kClickAction,
                                   g_variant_new_string("velquin-forged"));
  });
  MainQueue::shared().sync([] {});
  EXPECT_TRUE(delegate->received().empty());

  server.invokeAction(calls[0].id);
  ASSERT_TRUE(delegate->waitForReceived(1));
  auto received = delegate->received();
  EXPECT_EQ(received.at(0).title, "Shown");
  EXPECT_EQ(received.at(0).userInfo.value("velquin_notification_id", ""), "n-5");
  MainQueue::shared().sync([&] { g_object_unref(app); });
  g_object_unref(hostBus);
}

}  // namespace
}  // namespace velquin::testing
