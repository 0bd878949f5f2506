// What the purchase orchestrator reports to analytics: the start of the
// event pipeline once Init answered, and each purchase. The composition
// root implements it over the facade's OVAnalytics.
//
// Threads: called from gRPC callback threads and the main queue.
#pragma once

#include <nlohmann/json.hpp>

namespace velquin {

class AnalyticsSink {
 public:
  virtual ~AnalyticsSink() = default;
  // Analytics start after Init: the app key, the deferred start, the timer.
  virtual void startAnalytics() = 0;
  // "ev_in_app_purchases" with the purchase's parameters.
  virtual void recordPurchase(const nlohmann::json& params) = 0;
};

}  // namespace velquin
