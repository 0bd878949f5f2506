// Small text tools: MD5 hex digests (OpenSSL) and compact JSON text
// (nlohmann::json). Stateless; any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace velquin {

class OVCFunctionToolHelper {
 public:
  // 32 lower-case hex characters; absent for an absent string.
  static std::optional<std::string> stringMD5(const std::optional<std::string>& text);
  // Compact JSON (no added whitespace), UTF-8. Text that is not valid UTF-8
  // cannot be serialised: the error is logged and nothing is returned.
  static std::optional<std::string> DataTOjsonString(const nlohmann::json& object);
};

}  // namespace velquin
