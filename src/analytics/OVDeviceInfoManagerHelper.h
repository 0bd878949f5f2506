// Holds the app key and the experiment tag that every FireEvent call carries,
// read at the moment an event call is prepared, and answers the low-level
// device queries (hardware address, reachability, memory, battery, network
// addresses) from Linux sources.
//
// Ownership and threads: one instance for the process (sharedManager()); any
// thread. The texts and the reachability object sit behind one mutex; the
// queries read the system afresh on each call.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "support/Mutex.h"

namespace velquin {
namespace platform {
class Env;
}
class Reachability;

class OVDeviceInfoManagerHelper {
 public:
  // Over Env::standard().
  static OVDeviceInfoManagerHelper& sharedManager();
  // `env` answers the device queries and must outlive the helper.
  explicit OVDeviceInfoManagerHelper(platform::Env& env);

  std::string appKey() const;
  std::string tag() const;
  void setNewAppKey(const std::string& appKey);
  void setTag(const std::string& tag);

  // "%02X:%02X:%02X:%02X:%02X:%02X" of the first non-loopback interface;
  // empty when the machine has none.
  std::string getMacAddress() const;
  // The reachability test the delivery consults: the internet connection's
  // status is not "not reachable".
  bool isReachable();
  // The reachability object behind isReachable(); the internet connection's
  // by default (made at first use). Replaceable, e.g. by a test.
  std::shared_ptr<Reachability> reachability();
  void setReachability(std::shared_ptr<Reachability> reachability);
  // Physical memory and memory available to new work, in bytes.
  std::uint64_t getTotalMemorySize() const;
  std::uint64_t getAvailableMemory() const;
  // Battery charge from 0.0 to 1.0; -1 when the machine reports no battery.
  double getCurrentBatteryLevel() const;
  // The device's address: a global address of the preferred family first,
  // then the other family, then link-local ones; "0.0.0.0" when none.
  std::string getIPAddress(bool preferIPv4) const;
  // "<ifname>/ipv4" or "<ifname>/ipv6" -> address, for interfaces that are up.
  std::map<std::string, std::string> getIPAddresses() const;
  // The kind of network in use, from reachability: "none" when not
  // reachable, "cellular" on a metered connection, otherwise "wifi" when a
  // wireless interface is up and "wired" when not.
  std::string getDataNetworkItemView();

 private:
  platform::Env& env_;
  mutable support::Mutex mutex_;
  std::string appKey_ GUARDED_BY(mutex_);
  std::string tag_ GUARDED_BY(mutex_);
  std::shared_ptr<Reachability> reachability_ GUARDED_BY(mutex_);
};

}  // namespace velquin
