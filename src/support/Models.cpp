#include "velquin/Models.h"

namespace velquin {

std::optional<OVPromotingInAppPurchaseStatus> promotingStatusFromRaw(std::int32_t raw) {
  if (raw < 0 || raw > 2) return std::nullopt;
  return static_cast<OVPromotingInAppPurchaseStatus>(raw);
}

std::string attributionSourceName(AttributionNetwork network) {
  switch (network) {
    case AttributionNetwork::adjust: return "adjust";
    case AttributionNetwork::appsflyer: return "appsflyer";
    case AttributionNetwork::branch: return "branch";
    case AttributionNetwork::appleSearchAds: return "apple_search_ads";
    case AttributionNetwork::facebook: return "facebookads";
    case AttributionNetwork::custom: return "custom";
  }
  return "";
}

}  // namespace velquin
