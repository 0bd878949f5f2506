// The application token file ("velquin-app-token.plist" in the bundle).
// Every key is optional; a value that is not text counts as missing.
#pragma once

#include <optional>
#include <string>

namespace velquin {
class Bundle;

struct AppToken {
  std::optional<std::string> accessToken;       // "access_token": the app key
  std::optional<std::string> appId;             // "app_id"
  std::optional<std::string> apiAddress;        // "api_address": host:port
  std::optional<std::string> rootCertificates;  // "api_root_certificates": extra PEM roots
  std::optional<std::string> ipLookupAddress;   // "ip_lookup_address": public-address lookup host

  // Reads the bundle's token file; a missing or unreadable file gives all
  // keys absent.
  static AppToken load(const Bundle& bundle);
};

inline constexpr const char* kAppTokenResource = "velquin-app-token";

}  // namespace velquin
