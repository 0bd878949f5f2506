#include "support/OVCFunctionToolHelper.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>

#include "support/Console.h"

namespace velquin {

std::optional<std::string> OVCFunctionToolHelper::stringMD5(
    const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(text->data(), text->size(), digest.data(), &length, EVP_md5(), nullptr) != 1) {
    return std::nullopt;
  }
  std::string hex;
  hex.reserve(length * 2);
  char byte[3];
  for (unsigned int i = 0; i < length; ++i) {
    std::snprintf(byte, sizeof byte, "%02x", digest[i]);
    hex.append(byte, 2);
  }
  return hex;
}

std::optional<std::string> OVCFunctionToolHelper::DataTOjsonString(const nlohmann::json& object) {
  try {
    return object.dump();
  } catch (const nlohmann::json::exception& error) {
    support::printLine(error.what());
    return std::nullopt;
  }
}

}  // namespace velquin
