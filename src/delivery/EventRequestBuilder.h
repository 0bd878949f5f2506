// Turns an envelope's parameters into the EventRequest the backend reads.
// Stateless; any thread.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "EventRoot.pb.h"

namespace velquin {

// What an event's extra information carries about the device and the app.
struct DeviceFacts {
  std::string osVersion;
  std::string packageName;         // CFBundleIdentifier
  std::string packageVersion;      // CFBundleShortVersionString
  std::string packageVersionCode;  // CFBundleVersion
  std::string carrier;             // "Nocarrier" when no provider names one
  std::string deviceModel;         // uname machine, e.g. "x86_64"
  std::string deviceBrand;         // firmware vendor; may be empty
  std::string locale;
  std::string timeZone;
  std::string timeZoneAbv;
  std::int32_t screenWidth = 0;  // 0 until the host reports its screen
  std::int32_t screenHeight = 0;
  double screenDensity = 0;
  std::int32_t extStorageSize = 0;        // MiB of the file system of the data folder
  std::int32_t availableStorageSize = 0;  // MiB free there
};

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
