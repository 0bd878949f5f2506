#include "Faults.h"

#include <algorithm>

namespace velquin::sandbox {

FaultInjector::FaultInjector(FaultOptions options) { set(std::move(options)); }

void FaultInjector::set(FaultOptions options) {
  for (auto& [method, rate] : options.failureRate) {
    rate = (rate > 0) ? std::min(rate, 1.0) : 0.0;  // NaN lands on 0 as well
  }
  options.failFirst = std::max(options.failFirst, 0);
  options.delayMs = std::clamp(options.delayMs, 0, kMaxDelayMs);
  std::lock_guard lock(mutex_);
  failFirstLeft_ = options.failFirst;
  generator_.seed(options.seed);
  options_ = std::move(options);
}

FaultInjector::Decision FaultInjector::decide(const std::string& method) {
  std::lock_guard lock(mutex_);
  Decision decision;
  decision.delayMs = options_.delayMs;
  if (failFirstLeft_ > 0) {
    --failFirstLeft_;
    decision.fail = true;
    return decision;
  }
  double rate = 0;
  if (auto found = options_.failureRate.find(method); found != options_.failureRate.end()) {
    rate = found->second;
  } else if (auto any = options_.failureRate.find("*"); any != options_.failureRate.end()) {
    rate = any->second;
  }
  if (rate > 0) {
    std::uniform_real_distribution<double> draw(0.0, 1.0);
    decision.fail = draw(generator_) < rate;
  }
  return decision;
}

}  // namespace velquin::sandbox
