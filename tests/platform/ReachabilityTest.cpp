// Reachability: the flag rules, notifications from fed flags, and the real
// GNetworkMonitor behind the internet, host and address watchers.
#include "support/Reachability.h"

#include <arpa/inet.h>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

#include "analytics/OVDeviceInfoManagerHelper.h"
#include "support/OVUtils.h"
#include "velquin/MainQueue.h"
#include "velquin/NotificationCenter.h"

namespace velquin {
namespace {

using Clock = std::chrono::steady_clock;

TEST(NetworkStatusForFlags, FollowsTheFlagRules) {
  struct Case {
    ReachabilityFlags flags;
    NetworkStatus status;
  };
  const Case cases[] = {
      {0x0, NotReachable},
      {0x2, ReachableViaWiFi},
      {0x40002, ReachableViaWWAN},
      {0x40000, NotReachable},      // cellular but not reachable
      {0x6, NotReachable},          // connection required, no way to make it
      {0xE, ReachableViaWiFi},      // ... made on traffic
      {0x26, ReachableViaWiFi},     // ... made on demand
      {0x1E, NotReachable},         // ... but the user must intervene
      {0x36, NotReachable},
      {0x40006, ReachableViaWWAN},  // cellular wins over connection required
      {0x30003, ReachableViaWiFi},  // transient, local, direct
      {0x4, NotReachable},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Reachability::networkStatusForFlags(c.flags), c.status) << std::hex << c.flags;
  }
}

TEST(NetworkStatusForFlags, LogsEveryBitInOrder) {
  OVUtils::enableLogs(true);
  ::testing::internal::CaptureStdout();
  Reachability::networkStatusForFlags(0x40006);
  Reachability::networkStatusForFlags(0x7003F);
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("] [OrventPurchase] Reachability Flag Status: WR -c----- networkStatusForFlags\n"),
            std::string::npos) << out;
  EXPECT_NE(out.find("Reachability Flag Status: WR tcCiDld networkStatusForFlags"),
            std::string::npos) << out;
}

// Flags the test sets by hand.
struct FedFlags {
  std::mutex mutex;
  std::optional<ReachabilityFlags> flags;  // guarded by mutex
  std::function<void()> changed;          // guarded by mutex
  bool canWatch = true;                   // guarded by mutex

  // Sets the flags and reports the change from the calling thread.
  void feed(std::optional<ReachabilityFlags> value) {
    std::function<void()> report;
    {
      std::lock_guard lock(mutex);
      flags = value;
      report = changed;
    }
    if (report) report();
  }
};

class FedSource final : public ReachabilityFlagSource {
 public:
  explicit FedSource(std::shared_ptr<FedFlags> fed) : fed_(std::move(fed)) {}
  std::optional<ReachabilityFlags> flags() override {
    std::lock_guard lock(fed_->mutex);
    return fed_->flags;
  }
  bool watch(std::function<void()> changed) override {
    std::lock_guard lock(fed_->mutex);
    if (!fed_->canWatch) return false;
    fed_->changed = std::move(changed);
    return true;
  }
  void unwatch() override {
    std::lock_guard lock(fed_->mutex);
    fed_->changed = nullptr;
  }

 private:
  std::shared_ptr<FedFlags> fed_;
};

// Records change notifications: the object, its status then, and whether
// they arrived on the main queue.
struct Recorder {
  struct Seen {
    std::shared_ptr<Reachability> object;
    NetworkStatus status;
    bool onMainQueue;
  };
  Recorder() {
    token = NotificationCenter::defaultCenter().addObserver(
        kNetworkReachabilityChangedNotification, [this](const Notification& note) {
          auto object = std::any_cast<std::shared_ptr<Reachability>>(note.object);
          Seen seen{object, object->currentReachabilityStatus(), MainQueue::shared().isCurrent()};
          std::lock_guard lock(mutex);
          notes.push_back(seen);
          cv.notify_all();
        });
  }
  ~Recorder() { NotificationCenter::defaultCenter().removeObserver(token); }
  bool waitFor(size_t count) {
    std::unique_lock lock(mutex);
    return cv.wait_for(lock, std::chrono::seconds(5), [&] { return notes.size() >= count; });
  }
  size_t count() {
    std::lock_guard lock(mutex);
    return notes.size();
  }

  NotificationCenter::Token token;
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<Seen> notes;  // guarded by mutex
};

TEST(ReachabilityNotifier, PostsFedChangesOnTheMainQueueUntilStopped) {
  auto fed = std::make_shared<FedFlags>();
  fed->flags = 0x2;
  auto reachability = Reachability::reachabilityWithSource(std::make_unique<FedSource>(fed));
  EXPECT_EQ(reachability->currentReachabilityStatus(), ReachableViaWiFi);
  Recorder recorder;

  ASSERT_TRUE(reachability->startNotifier());
  fed->feed(0x40002);
  ASSERT_TRUE(recorder.waitFor(1));
  fed->feed(0x6);
  ASSERT_TRUE(recorder.waitFor(2));
  {
    std::lock_guard lock(recorder.mutex);
    EXPECT_EQ(recorder.notes[0].object, reachability);
    EXPECT_EQ(recorder.notes[0].status, ReachableViaWWAN);
    EXPECT_EQ(recorder.notes[1].status, NotReachable);
    EXPECT_TRUE(recorder.notes[0].onMainQueue);
    EXPECT_TRUE(recorder.notes[1].onMainQueue);
  }
  EXPECT_TRUE(reachability->connectionRequired());

  reachability->stopNotifier();
  fed->feed(0x2);
  MainQueue::shared().sync([] {});  // anything posted before has run
  EXPECT_EQ(recorder.count(), 2u);
}

TEST(ReachabilityNotifier, UnreadableFlagsFailedWatchesAndGoneWatchers) {
  auto fed = std::make_shared<FedFlags>();
  fed->canWatch = false;
  auto unwatchable = Reachability::reachabilityWithSource(std::make_unique<FedSource>(fed));
  EXPECT_EQ(unwatchable->currentReachabilityStatus(), NotReachable);  // flags unreadable
  EXPECT_FALSE(unwatchable->connectionRequired());
  EXPECT_FALSE(unwatchable->startNotifier());

  auto other = std::make_shared<FedFlags>();
  Recorder recorder;
  {
    auto gone = Reachability::reachabilityWithSource(std::make_unique<FedSource>(other));
    ASSERT_TRUE(gone->startNotifier());
  }
  other->feed(0x0);  // a destroyed watcher stopped watching
  MainQueue::shared().sync([] {});
  EXPECT_EQ(recorder.count(), 0u);
}

TEST(ReachabilityHelper, IsReachableAndNetworkKindFollowTheFlags) {
  auto fed = std::make_shared<FedFlags>();
  auto& helper = OVDeviceInfoManagerHelper::sharedManager();
  helper.setReachability(Reachability::reachabilityWithSource(std::make_unique<FedSource>(fed)));
  fed->feed(0x0);
  EXPECT_FALSE(helper.isReachable());
  EXPECT_EQ(helper.getDataNetworkItemView(), "none");
  fed->feed(0x40002);
  EXPECT_TRUE(helper.isReachable());
  EXPECT_EQ(helper.getDataNetworkItemView(), "cellular");
  fed->feed(0x2);
  EXPECT_TRUE(helper.isReachable());
  auto kind = helper.getDataNetworkItemView();
  EXPECT_TRUE(kind == "wifi" || kind == "wired") << kind;
}

// The flags GNetworkMonitor gives, read on the main queue where it lives.
ReachabilityFlags monitorFlags() {
  ReachabilityFlags flags = 0;
  MainQueue::shared().sync([&] {
    GNetworkMonitor* monitor = g_network_monitor_get_default();
    if (g_network_monitor_get_network_available(monitor)) flags |= 0x2;
    if (g_network_monitor_get_network_metered(monitor)) flags |= 0x40000;
    auto connectivity = g_network_monitor_get_connectivity(monitor);
    if (connectivity == G_NETWORK_CONNECTIVITY_LIMITED ||
        connectivity == G_NETWORK_CONNECTIVITY_PORTAL) {
      flags |= 0x4;
    }
  });
  return flags;
}

TEST(NetworkMonitorReachability, InternetStatusIsTheMonitors) {
  auto reachability = Reachability::reachabilityForInternetConnection();
  ASSERT_NE(reachability, nullptr);
  auto flags = reachability->flags();
  ASSERT_TRUE(flags.has_value());
  EXPECT_EQ(*flags, monitorFlags());
  EXPECT_EQ(reachability->currentReachabilityStatus(), Reachability::networkStatusForFlags(*flags));
  EXPECT_EQ(OVDeviceInfoManagerHelper::sharedManager().isReachable(),
            Reachability::networkStatusForFlags(*flags) != NotReachable);

  // The zero IPv4 address is the internet connection.
  sockaddr_in zero{};
  zero.sin_family = AF_INET;
  auto viaAddress = Reachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&zero));
  ASSERT_NE(viaAddress, nullptr);
  EXPECT_EQ(viaAddress->flags(), flags);
}

TEST(NetworkMonitorReachability, MonitorSignalsArriveOnTheMainQueue) {
  auto reachability = Reachability::reachabilityForInternetConnection();
  Recorder recorder;
  ASSERT_TRUE(reachability->startNotifier());
  MainQueue::shared().sync([] {
    g_signal_emit_by_name(g_network_monitor_get_default(), "network-changed", TRUE);
  });
  ASSERT_TRUE(recorder.waitFor(1));
  std::lock_guard lock(recorder.mutex);
  EXPECT_EQ(recorder.notes[0].object, reachability);
  EXPECT_TRUE(recorder.notes[0].onMainQueue);
}

TEST(NetworkMonitorReachability, RefusesBadTargets) {
  EXPECT_EQ(Reachability::reachabilityWithHostName(""), nullptr);
  EXPECT_EQ(Reachability::reachabilityWithHostName("\xff\xfe"), nullptr);
  EXPECT_EQ(Reachability::reachabilityWithAddress(nullptr), nullptr);
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  EXPECT_EQ(Reachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&local)), nullptr);
}

// Looking the name up must not leave the machine: ctest runs this case on
// its own in a network namespace with no way out, and skips it elsewhere.
TEST(NetworkMonitorReachability, HostAndAddressChecksAreBounded) {
  if (!std::getenv("VELQUIN_ISOLATED_NETWORK")) {
    GTEST_SKIP() << "runs only in its own network namespace";
  }
  sockaddr_in6 loopback{};
  loopback.sin6_family = AF_INET6;
  loopback.sin6_addr = in6addr_loopback;
  auto address = Reachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&loopback));
  auto host = Reachability::reachabilityWithHostName("nowhere.velquin.invalid");  // never resolves
  ASSERT_TRUE(address && host);
  const auto limit = Reachability::reachTimeout() + std::chrono::seconds(1);
  for (const auto& watcher : {address, host}) {
    auto start = Clock::now();
    auto flags = watcher->flags();
    EXPECT_LT(Clock::now() - start, limit);
    // Only the reachable bit may differ from the internet connection's.
    if (flags) {
      EXPECT_EQ(*flags & ~0x2u, monitorFlags() & ~0x2u);
    }
  }
  EXPECT_EQ(host->currentReachabilityStatus(), NotReachable);

  // On the main queue the answer never waits for the check.
  MainQueue::shared().sync([&] {
    auto start = Clock::now();
    host->currentReachabilityStatus();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(200));
  });
}

}  // namespace
}  // namespace velquin
