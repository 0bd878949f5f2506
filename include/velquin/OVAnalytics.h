// The analytics side: start-of-session events and the host's own events,
// delivered durably.
//
// Ownership and threads: made by the Velquin facade, lives for the process;
// any thread.
#pragma once

#include <functional>

namespace velquin {

class OVAnalytics {
 public:
  // Start-up hook: reads "access_token" from the token file and, when there
  // is one, hands it to the event client and schedules the deferred start
  // (5 s later, on the main queue).
  void registerBigDataWitInfoPlist();

  // Work run by the deferred start; the delivery engine installs it.
  static void setDeferredStart(std::function<void()> work);
};

}  // namespace velquin
