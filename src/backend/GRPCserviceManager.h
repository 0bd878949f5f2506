// The purchase side's client of the backend: one unary call per operation,
// with the authorization and experiment headers, a 60 s deadline, over the
// one TLS channel. Calls are not stored or retried.
//
// Ownership and threads: owned by OVPurchase (its networkManager) for the
// process. Calls may start on any thread; completions run on gRPC's
// callback threads and are called exactly once.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "AttributionRoot.grpc.pb.h"
#include "NotificationRoot.grpc.pb.h"
#include "SubscriberRoot.grpc.pb.h"
#include "backend/UnaryCall.h"
#include "support/Mutex.h"
#include "velquin/Error.h"

namespace velquin {
class Bundle;
class DeviceSource;
namespace platform {
class Env;
}

template <class Reply>
using ReplyCompletion = std::function<void(std::optional<Reply>, std::optional<Error>)>;
using SuccessCompletion = std::function<void(bool success, std::optional<Error>)>;
using SubscriberCompletion = std::function<void(std::optional<iap::Subscriber>,
                                                std::optional<Error>, std::int64_t errorCode)>;

class GRPCserviceManager {
 public:
  // Reads "app_id", "api_address" and "api_root_certificates" from the
  // bundle's token file and builds the three stubs on one channel.
  // `device` and `env` (the system facts requests carry) must outlive the
  // client.
  GRPCserviceManager(const Bundle& bundle, DeviceSource& device, platform::Env& env);

  std::string appKey() const;
  void setAppKey(const std::string& appKey);
  const std::string& app_id() const { return app_id_; }
  const std::string& serverUrl() const { return serverUrl_; }
  // Shortens the per-call deadline (tests of slow backends).
  void setCallTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

  void verifyReceipt(const std::vector<std::uint8_t>& receipt, const std::string& appUserId,
                     const std::vector<iap::ProductInfo>& productInfo,
                     ReplyCompletion<iap::Subscriber> completion);
  void getSubscriber(const std::string& appUserId, SubscriberCompletion completion);
  void uploadUserInfo(const std::string& appUserId, const std::string& extraAttribute,
                      SuccessCompletion completion);
  void getAppConfig(ReplyCompletion<iap::GetAppConfigResponse> completion);
  void init(const std::string& userId, ReplyCompletion<iap::GetInitInfoResponse> completion);
  void getCurrencyRate(const std::string& currencyCode,
                       ReplyCompletion<iap::CurrencyRate> completion);
  void uploadDeviceToken(const std::string& deviceId, const std::string& deviceToken,
                         SuccessCompletion completion);
  void getInAppMessage(const std::string& messageId,
                       ReplyCompletion<push_notification::InAppMessage> completion);
  void generatePromotionalOfferSignature(
      const std::string& appUserId, const std::string& productId, const std::string& offerId,
      ReplyCompletion<iap::GeneratePromotionalOfferSignatureResponse> completion);
  // `network` is the raw AttributionNetwork value; past 5 no source is sent.
  void getAttribution(std::uint32_t network, const std::string& data,
                      const std::optional<std::string>& networkUserId,
                      ReplyCompletion<attribution::GetAttributionResponse> completion);

 private:
  enum class Headers { authorization, authorizationAndExperiment };
  template <class Request, class Response>
  void call(typename UnaryCall<Request, Response>::Invoke invoke, Request request, Headers headers,
            ReplyCompletion<Response> completion);

  DeviceSource& deviceInfo_;
  platform::Env& env_;
  mutable support::Mutex appKeyMutex_;
  std::string appKey_ GUARDED_BY(appKeyMutex_);
  std::string app_id_;     // set in the constructor, then read-only
  std::string serverUrl_;  // set in the constructor, then read-only
  std::atomic<std::chrono::milliseconds> timeout_;
  std::unique_ptr<iap::IAPService::Stub> client_;
  std::unique_ptr<push_notification::PushNotificationService::Stub> pushNotificationClient_;
  std::unique_ptr<attribution::AttributionService::Stub> attributionClient_;
};

// The gateway used when the token file names no address (a build setting).
const char* defaultGatewayAddress();

}  // namespace velquin
