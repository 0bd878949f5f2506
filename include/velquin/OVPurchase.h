// The purchase orchestrator: start-up, the user id, backend queries, and
// (with the store) purchases, restores and receipt verification.
//
// Ownership and threads: one instance for the process (shared()), created by
// Velquin::shared() and never torn down. Calls may come from any thread;
// completions run on gRPC callback threads unless a member says otherwise.
// Backend callbacks hold the orchestrator weakly.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velquin/Error.h"

namespace velquin {
namespace iap {
class GetAppConfigResponse;
}
class GRPCserviceManager;
class OVUserDataManager;
class OVDataCache;

class OVPurchase : public std::enable_shared_from_this<OVPurchase> {
 public:
  // Posted (no object) each time a GetAppConfig answer, reply or error, has
  // been handled by start-up.
  static constexpr const char* kAppConfigHandledNotification = "VelquinAppConfigHandled";

  static OVPurchase& shared();
  static std::shared_ptr<OVPurchase> sharedPointer();
  ~OVPurchase();

  // Both names run start-up from the bundle's token file; without a file or
  // a text "access_token" they return silently.
  void configureInitSDKWithVelQuinPlist();
  void registerBigDataGetAccessToken();
  // Start-up with the caller's app key: Init, analytics start,
  // GetSubscriber and GetAppConfig.
  void configureSDK(const std::string& appKey);

  void enableLog(bool enabled);
  // True when the store receipt location ends in "sandboxReceipt".
  bool isSandbox() const;

  // Optionally makes `userId` current, then sends UploadUserInfo with the
  // attribute map as compact JSON.
  void uploadUserInfo(const std::optional<std::string>& userId,
                      const nlohmann::json& extraAttribute,
                      std::function<void(bool, std::optional<Error>)> completion);

  // The user id the SDK reports to the backend (kept in user defaults).
  std::string appUserId() const;

  GRPCserviceManager& networkManager() { return *networkManager_; }
  OVUserDataManager& userDataManager() { return *userDataManager_; }
  OVDataCache& dataCache() { return *dataCache_; }

  // Stores the pages and product ids of a GetAppConfig answer (or logs the
  // error) and posts kAppConfigHandledNotification.
  void handleAppConfig(const iap::GetAppConfigResponse* reply, const std::optional<Error>& error);

 private:
  OVPurchase();
  std::unique_ptr<GRPCserviceManager> networkManager_;
  std::unique_ptr<OVUserDataManager> userDataManager_;
  std::unique_ptr<OVDataCache> dataCache_;
};

}  // namespace velquin
