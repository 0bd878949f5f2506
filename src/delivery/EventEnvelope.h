// The one maker of event envelopes: analytics events and the fatal-crash
// record are built here, so both carry the same keys and id format.
//
// Stateless; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "delivery/OVRequest.h"

namespace velquin {

struct EventEnvelopeFields {
  std::optional<std::string> eventName;   // "eventName", left out when absent
  std::optional<std::string> eventValue;  // "eventValue", left out when absent
  std::string userId;                     // "userId", left out when empty
  std::int64_t requestNumber = 0;         // the device's request counter, already advanced
  std::chrono::system_clock::time_point now = std::chrono::system_clock::now();
};

// params {"eventName", "eventValue", "timestamp" (milliseconds since 1970,
// "%.f"), "userId"}; requestId "%.f" of (seconds since 1970 + number);
// reliability 1.
std::shared_ptr<OVRequest> makeEventEnvelope(const EventEnvelopeFields& fields);

}  // namespace velquin
