// Velquin: the one object a host application talks to.
//
//   velquin::Bundle::setMainBundlePath("/opt/myapp/share/myapp");  // optional
//   auto& sdk = velquin::Velquin::shared();
//   sdk.configure();
//
// Ownership and threads: a process-wide singleton created on first use of
// shared() and never torn down. Every operation may be called from any
// thread and returns at once; completions run on gRPC's callback threads
// unless an operation says otherwise. Every completion is called exactly
// once. No exception leaves the library.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velquin/Error.h"
#include "velquin/Models.h"

namespace velquin {
namespace attribution {
class GetAttributionResponse;
}
class OVPurchase;
class OVAnalytics;

class Velquin {
 public:
  static Velquin& shared();

  OVPurchase& purchases() { return purchases_; }
  OVAnalytics& analytics() { return *analytics_; }

  // Start-up from the bundle's token file: Init, analytics, GetSubscriber,
  // GetAppConfig. Repeating it repeats the whole chain.
  void configure();
  void setPurchasesLogs(bool enabled);
  // Note the inversion: the delivery log switch is set to !enabled.
  void setAnalyticsLogs(bool enabled);

  // The user id held by the device information (empty before start-up set one).
  std::string getAppUserId() const;
  void uploadUserInfo();
  void uploadUserInfo(const std::optional<std::string>& userId,
                      const nlohmann::json& extraAttribute,
                      std::function<void(bool, std::optional<Error>)> completion);

  void uploadDeviceInfo(const std::string& deviceToken,
                        std::function<void(bool, std::optional<Error>)> completion);

  using AttributionCompletion = std::function<void(
      std::optional<attribution::GetAttributionResponse>, std::optional<Error>)>;
  // `data` is sent as compact JSON text.
  void updateAttribution(const nlohmann::json& data, AttributionNetwork source,
                         const std::optional<std::string>& networkUserId,
                         AttributionCompletion completion);
  void updateCustomAttribution(const std::string& channel,
                               const std::optional<std::string>& campaign,
                               const std::optional<std::string>& adGroup,
                               const std::optional<std::string>& creative,
                               const std::optional<std::string>& clickID,
                               AttributionCompletion completion);

  void createASignature(
      const std::string& productId, const std::string& offerId, const std::string& userid,
      std::function<void(std::optional<OVOfferSignatureDetail>, std::optional<Error>)> completion);
  // The host's own event: the name and its parameters (compact JSON in the
  // event's value), delivered durably. Returns the request id.
  std::string uploadBigDataWithType(const std::string& eventName,
                                    const nlohmann::json& params = nlohmann::json::object());

  void getCurrencyRate(const std::string& currencyCode,
                       std::function<void(std::optional<double>, std::optional<Error>)> completion);

 private:
  Velquin();
  OVPurchase& purchases_;
  std::unique_ptr<OVAnalytics> analytics_;
};

}  // namespace velquin
