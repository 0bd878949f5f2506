// The application token file ("velquin-app-token.plist" in the bundle).
// Every key is optional; a value that is not text counts as missing.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velquin {
class Bundle;

struct AppToken {
  std::optional<std::string> accessToken;       // "access_token": the app key
  std::optional<std::string> appId;             // "app_id"
  std::optional<std::string> apiAddress;        // "api_address": host:port
  std::optional<std::string> rootCertificates;  // "api_root_certificates": extra PEM roots
  std::optional<std::string> ipLookupAddress;   // "ip_lookup_address": public-address lookup host
  // What is wrong with the file, one sentence each, for the developer: a
  // missing or unreadable file, a value that is not text, an address whose
  // port is outside 1 to 65535. Empty when the file is fine.
  std::vector<std::string> problems;

  // Reads the bundle's token file; a missing or unreadable file gives all
  // keys absent. An address with a port outside 1 to 65535 is refused with
  // the whole file: the key is then absent as well, so nothing is sent to an
  // address the developer did not mean.
  static AppToken load(const Bundle& bundle);
};

inline constexpr const char* kAppTokenResource = "velquin-app-token";

// Whether `address` ("host", "host:port", "[v6]:port") names no port or a
// port from 1 to 65535.
bool hasValidPort(const std::string& address);

}  // namespace velquin
