// What the backend client reads about the device and its user when it
// builds a request. The device-information manager implements it; the
// composition root hands it to the client, so the client needs nothing
// from the layers above it.
//
// Threads: every member may be called from any thread (a gRPC callback
// thread or the caller's).
#pragma once

#include <optional>
#include <string>

namespace velquin {

class DeviceSource {
 public:
  static constexpr const char* kZeroAdvertisingId = "00000000-0000-0000-0000-000000000000";
  static constexpr const char* kNoCarrier = "Nocarrier";

  virtual ~DeviceSource() = default;

  // The app user id the requests carry; empty before start-up set one.
  virtual std::string userId() const = 0;
  // The advertising id the host set directly (may be empty).
  virtual std::string idfa() const = 0;
  // The advertising id from the host's provider, when tracking is allowed.
  virtual std::optional<std::string> advertisingIdentifier() const = 0;
  // One stable text per installation.
  virtual std::string deviceIdentifier() = 0;
  // The carrier name from the host's provider; absent when none is known.
  virtual std::optional<std::string> carrierName() const = 0;
};

}  // namespace velquin
