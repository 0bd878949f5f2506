// Process-wide flags held in memory only (never written to user defaults),
// and the SDK's log line.
//
// Ownership and threads: one instance for the process (shared()). Flags are
// atomics; the tag and its listener sit behind one mutex. Any thread.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "support/Mutex.h"
#include "velquin/Models.h"

namespace velquin {

class OVUtils {
 public:
  static OVUtils& shared();

  // The tag of the last Init reply; absent until an Init answered (or failed).
  std::optional<std::string> velquinSDkInit_tag() const;
  // Stores the tag and hands it to the tag listener (the composition root
  // forwards it to the event client's headers).
  void setVelquinSDkInit_tag(const std::string& tag);
  using TagListener = std::function<void(const std::string& tag)>;
  void setTagListener(TagListener listener);

  static void enableLogs(bool isEnable) { shared().isLogEnable = isEnable; }

  std::atomic<OVPromotingInAppPurchaseStatus> promotingStatus{
      OVPromotingInAppPurchaseStatus::proceed};
  std::atomic<bool> isLogEnable{false};
  // Written only by the subscriber conversion (a reply with entitlements).
  std::atomic<bool> isActive{false};

 private:
  mutable support::Mutex tagMutex_;
  std::optional<std::string> tag_ GUARDED_BY(tagMutex_);
  TagListener tagListener_ GUARDED_BY(tagMutex_);
};

// The SDK's log line: "[<local time>] [OrventPurchase] <message>" on stdout,
// only while OVUtils::isLogEnable is true.
void log(std::string_view message);

}  // namespace velquin
