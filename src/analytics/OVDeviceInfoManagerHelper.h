// Holds the app key and the experiment tag that every FireEvent call carries,
// read at the moment an event call is prepared.
//
// Ownership and threads: one instance for the process (sharedManager()); any
// thread (one mutex).
#pragma once

#include <mutex>
#include <string>

namespace velquin {

class OVDeviceInfoManagerHelper {
 public:
  static OVDeviceInfoManagerHelper& sharedManager();

  std::string appKey() const;
  std::string tag() const;
  void setNewAppKey(const std::string& appKey);
  void setTag(const std::string& tag);

 private:
  mutable std::mutex mutex_;
  std::string appKey_;  // guarded by mutex_
  std::string tag_;     // guarded by mutex_
};

}  // namespace velquin
