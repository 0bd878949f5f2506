// Errors handed to completions. Plain values: copy freely, any thread.
#pragma once

#include <cstdint>
#include <string>

#include "velquin/Export.h"

namespace velquin {

struct VELQUIN_EXPORT Error {
  std::string domain;   // "io.grpc" for backend calls, the store's domain for store errors, ...
  std::int64_t code = 0;
  std::string message;  // human-readable; what the platform calls the localized description

  const std::string& localizedDescription() const { return message; }
};

// Domains the library reports itself.
inline constexpr const char* kGrpcErrorDomain = "io.grpc";
inline constexpr const char* kVelquinErrorDomain = "Velquin";

}  // namespace velquin
