// Turns an envelope's parameters into the EventRequest the backend reads.
// Stateless; any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "EventRoot.pb.h"
#include "analytics/OVDeviceInfoManager.h"

namespace velquin {

struct EventIdentity {
  std::string deviceId;
  std::string advertiserId;
  std::string acquisitionSource;
  std::string acquisitionCampaign;
};

// params: "eventName", "eventValue" (text), "timestamp" (ms as text or
// number), "userId". Missing or mistyped entries leave their fields empty.
protocol::EventRequest buildEventRequest(const nlohmann::json& params, const DeviceFacts& facts,
                                         const EventIdentity& identity);

}  // namespace velquin
