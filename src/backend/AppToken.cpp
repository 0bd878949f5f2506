#include "backend/AppToken.h"

#include <charconv>

#include "platform/PropertyList.h"
#include "velquin/Bundle.h"

namespace velquin {
namespace {

constexpr const char* kFileName = "velquin-app-token.plist";

std::string describe(platform::PropertyList::LoadError error) {
  using LoadError = platform::PropertyList::LoadError;
  switch (error) {
    case LoadError::missing:
      return "does not exist";
    case LoadError::unreadable:
      return "cannot be read (not a regular file of at most " +
             std::to_string(platform::PropertyList::kMaxFileBytes) + " bytes)";
    case LoadError::malformed:
      return "is not a property list";
    case LoadError::notDictionary:
      return "is not a dictionary";
  }
  return "cannot be read";
}

}  // namespace

bool hasValidPort(const std::string& address) {
  auto colon = address.rfind(':');
  auto bracket = address.rfind(']');
  if (colon == std::string::npos || (bracket != std::string::npos && colon < bracket)) return true;
  // A bare IPv6 address has more than one colon and no port.
  if (bracket == std::string::npos && address.find(':') != colon) return true;
  const char* first = address.data() + colon + 1;
  const char* last = address.data() + address.size();
  unsigned long port = 0;
  auto [end, error] = std::from_chars(first, last, port);
  return first != last && error == std::errc() && end == last && port >= 1 && port <= 65535;
}

AppToken AppToken::load(const Bundle& bundle) {
  AppToken token;
  auto file = bundle.pathForResource(kAppTokenResource, "plist");
  if (!file) {
    token.problems.push_back(std::string(kFileName) + " is not in the bundle folder " +
                             bundle.path().string() + "; start-up reaches no backend");
    return token;
  }
  platform::PropertyList::LoadError error{};
  auto list = platform::PropertyList::load(*file, &error);
  if (!list) {
    token.problems.push_back(file->string() + " " + describe(error) +
                             "; start-up reaches no backend");
    return token;
  }
  auto text = [&](const char* key) {
    auto value = list->string(key);
    if (!value && list->find(key)) {
      token.problems.push_back(file->string() + ": \"" + key + "\" is not text; ignored");
    }
    return value;
  };
  token.accessToken = text("access_token");
  token.appId = text("app_id");
  token.apiAddress = text("api_address");
  token.rootCertificates = text("api_root_certificates");
  token.ipLookupAddress = text("ip_lookup_address");
  if (token.apiAddress && !hasValidPort(*token.apiAddress)) {
    token.problems.push_back(file->string() + ": \"api_address\" " + *token.apiAddress +
                             " has no port from 1 to 65535; the file is refused");
    token.apiAddress.reset();
    token.accessToken.reset();
  }
  return token;
}

}  // namespace velquin
