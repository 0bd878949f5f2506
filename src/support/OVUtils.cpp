#include "support/OVUtils.h"

#include <ctime>

#include "support/Console.h"

namespace velquin {

OVUtils& OVUtils::shared() {
  static OVUtils* utils = new OVUtils();  // lives for the process
  return *utils;
}

std::optional<std::string> OVUtils::velquinSDkInit_tag() const {
  support::MutexLock lock(tagMutex_);
  return tag_;
}

void OVUtils::setVelquinSDkInit_tag(const std::string& tag) {
  TagListener listener;
  {
    support::MutexLock lock(tagMutex_);
    tag_ = tag;
    listener = tagListener_;
  }
  if (listener) listener(tag);  // outside the lock: the listener takes its own
}

void OVUtils::setTagListener(TagListener listener) {
  support::MutexLock lock(tagMutex_);
  tagListener_ = std::move(listener);
}

void log(std::string_view message) {
  if (!OVUtils::shared().isLogEnable) return;
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[64];
  // The medium time style with no date part.
  std::strftime(stamp, sizeof stamp, "%X", &local);
  std::string line;
  line.reserve(message.size() + 40);
  line.append("[").append(stamp).append("] [OrventPurchase] ").append(message);
  support::printLine(line);
}

}  // namespace velquin
