// What a host may tell the SDK about the device that Linux itself cannot:
// the advertising identifier, the carrier and the main screen. Installed
// with the Velquin facade's setters; none by default.
//
// Threads: providers are called on whatever thread builds a request (a gRPC
// callback thread, the SDK's queues or the caller's), so they must be safe
// to call from any thread and quick. The SDK keeps a copy for the process.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "velquin/Export.h"

namespace velquin {

// The advertising identifier, when the user has authorised tracking; absent
// (or the all-zero text) when not.
using AdvertisingIdProvider = std::function<std::optional<std::string>()>;
// The cellular carrier's name; absent when there is none ("Nocarrier" is
// then sent).
using CarrierProvider = std::function<std::optional<std::string>()>;

// The main screen in points and its scale, as events report it.
struct VELQUIN_EXPORT ScreenFacts {
  std::int32_t width = 0;
  std::int32_t height = 0;
  double density = 0;
};

}  // namespace velquin
