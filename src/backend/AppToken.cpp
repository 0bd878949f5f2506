#include "backend/AppToken.h"

#include "platform/PropertyList.h"
#include "velquin/Bundle.h"

namespace velquin {

AppToken AppToken::load(const Bundle& bundle) {
  AppToken token;
  auto file = bundle.pathForResource(kAppTokenResource, "plist");
  if (!file) return token;
  auto list = platform::PropertyList::load(*file);
  if (!list) return token;
  token.accessToken = list->string("access_token");
  token.appId = list->string("app_id");
  token.apiAddress = list->string("api_address");
  token.rootCertificates = list->string("api_root_certificates");
  token.ipLookupAddress = list->string("ip_lookup_address");
  return token;
}

}  // namespace velquin
