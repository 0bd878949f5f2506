#include "delivery/EventEnvelope.h"

#include <cstdio>

namespace velquin {
namespace {

std::string wholeNumberText(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.f", value);
  return text;
}

}  // namespace

std::shared_ptr<OVRequest> makeEventEnvelope(const EventEnvelopeFields& fields) {
  using namespace std::chrono;
  const double seconds = duration<double>(fields.now.time_since_epoch()).count();
  nlohmann::json params = nlohmann::json::object();
  if (fields.eventName) params["eventName"] = *fields.eventName;
  if (fields.eventValue) params["eventValue"] = *fields.eventValue;
  params["timestamp"] = wholeNumberText(seconds * 1000.0);
  if (!fields.userId.empty()) params["userId"] = fields.userId;

  auto request = std::make_shared<OVRequest>();
  request->setParams(std::move(params));
  request->setRequestId(wholeNumberText(seconds + static_cast<double>(fields.requestNumber)));
  request->setReliability(1);
  return request;
}

}  // namespace velquin
