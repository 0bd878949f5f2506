// Network reachability with the flag bits and status values of the phone's
// reachability service, fed on Linux by GIO's GNetworkMonitor.
//
// GNetworkMonitor maps to the flags as follows: network available ->
// reachable (0x2); metered -> cellular (0x40000); connectivity LIMITED or
// PORTAL -> connection required (0x4). Host names and addresses are checked
// with g_network_monitor_can_reach; no other bits are ever set.
//
// Ownership and threads: Reachability objects are shared (std::shared_ptr);
// every member may be called from any thread. The monitor's signals are
// received on the main queue's GLib context (MainQueue::shared().context()),
// and the change notification kNetworkReachabilityChangedNotification is
// posted on the main queue with the Reachability object (a
// std::shared_ptr<Reachability>) as the notification's object. Checks of host
// names and addresses never block the caller longer than reachTimeout(); on
// the main queue itself they never block and give the last known answer.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace velquin {

using ReachabilityFlags = std::uint32_t;

namespace reachability_flags {
inline constexpr ReachabilityFlags kTransientConnection = 0x1;
inline constexpr ReachabilityFlags kReachable = 0x2;
inline constexpr ReachabilityFlags kConnectionRequired = 0x4;
inline constexpr ReachabilityFlags kConnectionOnTraffic = 0x8;
inline constexpr ReachabilityFlags kInterventionRequired = 0x10;
inline constexpr ReachabilityFlags kConnectionOnDemand = 0x20;
inline constexpr ReachabilityFlags kIsLocalAddress = 0x10000;
inline constexpr ReachabilityFlags kIsDirect = 0x20000;
inline constexpr ReachabilityFlags kIsWWAN = 0x40000;
}  // namespace reachability_flags

enum NetworkStatus : int {
  NotReachable = 0,
  ReachableViaWiFi = 1,  // also wired
  ReachableViaWWAN = 2,
};

inline constexpr const char* kNetworkReachabilityChangedNotification =
    "kNetworkReachabilityChangedNotification";

// Where a Reachability reads its flags. The GNetworkMonitor source is the
// real one; tests feed flags through their own.
class ReachabilityFlagSource {
 public:
  virtual ~ReachabilityFlagSource() = default;
  // The current flags; nothing when they cannot be read.
  virtual std::optional<ReachabilityFlags> flags() = 0;
  // Calls `changed` whenever the flags may have changed, until unwatch().
  // False when watching cannot start.
  virtual bool watch(std::function<void()> changed) = 0;
  virtual void unwatch() = 0;
};

class Reachability : public std::enable_shared_from_this<Reachability> {
 public:
  // Any internet route: the zero IPv4 address.
  static std::shared_ptr<Reachability> reachabilityForInternetConnection();
  // Nothing for an empty name or one that is not UTF-8.
  static std::shared_ptr<Reachability> reachabilityWithHostName(const std::string& name);
  // IPv4 and IPv6 addresses; nothing for other families or a null address.
  // The zero IPv4 address is the internet connection.
  static std::shared_ptr<Reachability> reachabilityWithAddress(const sockaddr* address);
  static std::shared_ptr<Reachability> reachabilityWithSource(
      std::unique_ptr<ReachabilityFlagSource> source);

  explicit Reachability(std::unique_ptr<ReachabilityFlagSource> source);
  ~Reachability();
  Reachability(const Reachability&) = delete;
  Reachability& operator=(const Reachability&) = delete;

  // Starts posting kNetworkReachabilityChangedNotification on changes.
  // False when the flag source cannot be watched.
  bool startNotifier();
  void stopNotifier();

  // True when the flags can be read and "connection required" is set.
  bool connectionRequired();
  // NotReachable when the flags cannot be read.
  NetworkStatus currentReachabilityStatus();
  std::optional<ReachabilityFlags> flags();

  // Logs the flags as "Reachability Flag Status: ..." and maps them:
  // not reachable -> 0; cellular -> 2; connection required with intervention
  // required, or with neither on-traffic nor on-demand -> 0; otherwise 1.
  static NetworkStatus networkStatusForFlags(ReachabilityFlags flags);

  // The longest a host or address check may block its caller.
  static constexpr std::chrono::milliseconds reachTimeout() { return std::chrono::milliseconds(2000); }

 private:
  const std::unique_ptr<ReachabilityFlagSource> source_;  // set once, then read-only
  std::mutex mutex_;
  bool notifying_ = false;  // guarded by mutex_
};

// The flag source over GNetworkMonitor for the internet connection (target
// absent) or for a host or address. Exposed for tests and for the factories.
std::unique_ptr<ReachabilityFlagSource> makeNetworkMonitorSource();
std::unique_ptr<ReachabilityFlagSource> makeNetworkMonitorSourceForHost(const std::string& name);
std::unique_ptr<ReachabilityFlagSource> makeNetworkMonitorSourceForAddress(const sockaddr* address);

}  // namespace velquin
