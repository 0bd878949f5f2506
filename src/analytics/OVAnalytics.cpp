#include "velquin/OVAnalytics.h"

#include <chrono>
#include <mutex>

#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/AppToken.h"
#include "velquin/Bundle.h"
#include "velquin/MainQueue.h"

namespace velquin {
namespace {
std::mutex deferredMutex;
std::function<void()> deferredStart;  // guarded by deferredMutex
}  // namespace

void OVAnalytics::setDeferredStart(std::function<void()> work) {
  std::lock_guard lock(deferredMutex);
  deferredStart = std::move(work);
}

void OVAnalytics::registerBigDataWitInfoPlist() {
  auto token = AppToken::load(Bundle::main()).accessToken;
  if (!token) return;
  OVDeviceInfoManagerHelper::sharedManager().setNewAppKey(*token);
  MainQueue::shared().after(std::chrono::milliseconds(5000), [] {
    std::function<void()> work;
    {
      std::lock_guard lock(deferredMutex);
      work = deferredStart;
    }
    if (work) work();
  });
}

}  // namespace velquin
