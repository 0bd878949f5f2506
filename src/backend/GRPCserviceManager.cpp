#include "backend/GRPCserviceManager.h"

#include <openssl/evp.h>

#include "backend/AppToken.h"
#include "backend/BackendChannel.h"
#include "backend/DeviceSource.h"
#include "platform/Env.h"
#include "support/OVCFunctionToolHelper.h"
#include "support/OVUtils.h"
#include "velquin/Bundle.h"
#include "velquin/Models.h"

namespace velquin {
namespace {

constexpr const char* kSdkVersion = "1.0.15";
constexpr const char* kDeviceBrand = "Apple";
constexpr const char* kOperatingSystem = "ios";

std::string base64(const std::vector<std::uint8_t>& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                               static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

// Adapts a reply completion to the success-flag form.
template <class Reply>
ReplyCompletion<Reply> successOnly(SuccessCompletion completion) {
  return [completion = std::move(completion)](std::optional<Reply>, std::optional<Error> error) {
    if (completion) completion(!error.has_value(), std::move(error));
  };
}

}  // namespace

const char* defaultGatewayAddress() {
  return VELQUIN_GATEWAY;
}

GRPCserviceManager::GRPCserviceManager(const Bundle& bundle, DeviceSource& device,
                                       platform::Env& env)
    : deviceInfo_(device), env_(env), timeout_(kCallTimeout) {
  AppToken token = AppToken::load(bundle);
  app_id_ = token.appId.value_or("");
  serverUrl_ = token.apiAddress.value_or(defaultGatewayAddress());
  auto channel = backendChannel(serverUrl_, token.rootCertificates.value_or(""));
  client_ = iap::IAPService::NewStub(channel);
  pushNotificationClient_ = push_notification::PushNotificationService::NewStub(channel);
  attributionClient_ = attribution::AttributionService::NewStub(channel);
}

std::string GRPCserviceManager::appKey() const {
  support::MutexLock lock(appKeyMutex_);
  return appKey_;
}

void GRPCserviceManager::setAppKey(const std::string& appKey) {
  support::MutexLock lock(appKeyMutex_);
  appKey_ = appKey;
}

template <class Request, class Response>
void GRPCserviceManager::call(typename UnaryCall<Request, Response>::Invoke invoke, Request request,
                              Headers headers, ReplyCompletion<Response> completion) {
  auto prepared = std::make_unique<UnaryCall<Request, Response>>(
      std::move(invoke), std::move(request), std::move(completion), timeout_);
  // Sent even when the key is still empty ("Bearer ").
  prepared->addHeader("authorization", "Bearer " + appKey());
  if (headers == Headers::authorizationAndExperiment) {
    if (auto tag = OVUtils::shared().velquinSDkInit_tag()) {
      prepared->addHeader("x-vq-experiment", *tag);
    }
  }
  UnaryCall<Request, Response>::start(std::move(prepared));
}

void GRPCserviceManager::verifyReceipt(const std::vector<std::uint8_t>& receipt,
                                       const std::string& appUserId,
                                       const std::vector<iap::ProductInfo>& productInfo,
                                       ReplyCompletion<iap::Subscriber> completion) {
  iap::ReceiptRequest request;
  request.set_app_user_id(appUserId);
  request.set_receipt(base64(receipt));
  for (const auto& info : productInfo) *request.add_product_info() = info;
  call<iap::ReceiptRequest, iap::Subscriber>(
      [stub = client_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->VerifyReceipt(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorizationAndExperiment, std::move(completion));
}

void GRPCserviceManager::getSubscriber(const std::string& appUserId,
                                       SubscriberCompletion completion) {
  iap::SubscriberRequest request;
  request.set_app_user_id(appUserId);
  call<iap::SubscriberRequest, iap::Subscriber>(
      [stub = client_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->GetSubscriber(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorizationAndExperiment,
      [completion = std::move(completion)](std::optional<iap::Subscriber> reply,
                                           std::optional<Error> error) {
        if (!completion) return;
        std::int64_t code = error ? error->code : 0;
        completion(std::move(reply), std::move(error), code);
      });
}

void GRPCserviceManager::uploadUserInfo(const std::string& appUserId,
                                        const std::string& extraAttribute,
                                        SuccessCompletion completion) {
  iap::UploadUserInfoRequest request;
  request.set_app_user_id(appUserId);
  std::string advertiser = deviceInfo_.idfa();
  if (advertiser.empty()) {
    advertiser = deviceInfo_.advertisingIdentifier().value_or(DeviceSource::kZeroAdvertisingId);
  }
  request.set_advertiser_id(advertiser);
  const std::string deviceId = deviceInfo_.deviceIdentifier();
  request.set_vendor_id(deviceId);
  request.set_device_id(deviceId);
  request.set_extra_attribute(extraAttribute);
  log("appUserId = " + request.app_user_id() + "\n advertiserId = " + request.advertiser_id() +
      "\n vendorId = " + request.vendor_id());
  call<iap::UploadUserInfoRequest, google::protobuf::Empty>(
      [stub = client_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->UploadUserInfo(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorizationAndExperiment,
      successOnly<google::protobuf::Empty>(std::move(completion)));
}

void GRPCserviceManager::getAppConfig(ReplyCompletion<iap::GetAppConfigResponse> completion) {
  call<iap::GetAppConfigRequest, iap::GetAppConfigResponse>(
      [stub = client_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->GetAppConfig(context, req, resp, std::move(done));
      },
      iap::GetAppConfigRequest(), Headers::authorizationAndExperiment, std::move(completion));
}

void GRPCserviceManager::init(const std::string& userId,
                              ReplyCompletion<iap::GetInitInfoResponse> completion) {
  iap::GetInitInfoRequest request;
  request.set_user_id(userId);
  request.set_language(env_.localeIdentifier());
  request.set_device_model(env_.hardwareMachine());
  request.set_device_brand(kDeviceBrand);
  request.set_os(kOperatingSystem);
  // Crosswise on purpose: the backend reads the abbreviation from `timezone`
  // and the zone name from `tz_abv`.
  request.set_timezone(env_.timeZoneAbbreviation());
  request.set_tz_abv(env_.timeZoneName());
  request.set_device_id(deviceInfo_.deviceIdentifier());
  request.set_package_name(Bundle::main().bundleIdentifier());
  request.set_sdk_version(kSdkVersion);
  log("\n👌👌👌Purchase Request address = " + serverUrl_ + " \n userId = " + request.user_id() +
      " \n deviceModel = " + request.device_model() + " \n tzAbv = " + request.tz_abv() +
      " \n deviceId = " + request.device_id());
  call<iap::GetInitInfoRequest, iap::GetInitInfoResponse>(
      [stub = client_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->Init(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorization, std::move(completion));
}

void GRPCserviceManager::getCurrencyRate(const std::string& currencyCode,
                                         ReplyCompletion<iap::CurrencyRate> completion) {
  iap::GetCurrencyRateRequest request;
  request.set_currency_code(currencyCode);
  call<iap::GetCurrencyRateRequest, iap::CurrencyRate>(
      [stub = client_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->GetCurrencyRate(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorization, std::move(completion));
}

void GRPCserviceManager::uploadDeviceToken(const std::string& deviceId,
                                           const std::string& deviceToken,
                                           SuccessCompletion completion) {
  push_notification::UploadDeviceTokenRequest request;
  request.set_device_id(deviceId);
  request.set_device_token(deviceToken);
  call<push_notification::UploadDeviceTokenRequest, push_notification::UploadDeviceTokenResponse>(
      [stub = pushNotificationClient_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->UploadDeviceToken(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorization,
      successOnly<push_notification::UploadDeviceTokenResponse>(std::move(completion)));
}

void GRPCserviceManager::getInAppMessage(
    const std::string& messageId, ReplyCompletion<push_notification::InAppMessage> completion) {
  push_notification::GetInAppMessageRequest request;
  request.set_id(messageId);
  call<push_notification::GetInAppMessageRequest, push_notification::InAppMessage>(
      [stub = pushNotificationClient_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->GetInAppMessage(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorization, std::move(completion));
}

void GRPCserviceManager::generatePromotionalOfferSignature(
    const std::string& appUserId, const std::string& productId, const std::string& offerId,
    ReplyCompletion<iap::GeneratePromotionalOfferSignatureResponse> completion) {
  iap::GeneratePromotionalOfferSignatureRequest request;
  request.set_app_user_id(appUserId);
  request.set_product_id(productId);
  request.set_offer_id(offerId);
  call<iap::GeneratePromotionalOfferSignatureRequest,
       iap::GeneratePromotionalOfferSignatureResponse>(
      [stub = client_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->GeneratePromotionalOfferSignature(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorizationAndExperiment, std::move(completion));
}

void GRPCserviceManager::getAttribution(
    std::uint32_t network, const std::string& data, const std::optional<std::string>& networkUserId,
    ReplyCompletion<attribution::GetAttributionResponse> completion) {
  const Bundle& bundle = Bundle::main();
  attribution::GetAttributionRequest request;
  request.set_app_id(app_id_);
  request.set_advertiser_id(deviceInfo_.advertisingIdentifier().value_or(deviceInfo_.idfa()));
  request.set_app_user_id(deviceInfo_.userId());
  request.set_attribution_source(attributionSourceName(static_cast<AttributionNetwork>(network)));
  request.set_data(data);
  request.set_network_user_id(networkUserId.value_or(""));
  request.set_os(kOperatingSystem);
  request.set_os_version(env_.osVersion());
  request.set_package_name(bundle.bundleIdentifier());
  request.set_package_version(bundle.shortVersionString());
  request.set_device_model(env_.hardwareMachine());
  request.set_locale(env_.localeIdentifier());
  request.set_time_zone_abv(env_.timeZoneAbbreviation());
  request.set_time_zone(env_.timeZoneName());
  request.set_carrier(deviceInfo_.carrierName().value_or(DeviceSource::kNoCarrier));
  request.set_device_brand(kDeviceBrand);
  request.set_device_id(deviceInfo_.deviceIdentifier());
  call<attribution::GetAttributionRequest, attribution::GetAttributionResponse>(
      [stub = attributionClient_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->GetAttribution(context, req, resp, std::move(done));
      },
      std::move(request), Headers::authorizationAndExperiment, std::move(completion));
}

}  // namespace velquin
