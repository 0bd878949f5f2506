// The in-memory cache the orchestrator owns: the server-configured product
// ids and the paywall and welcome pages (products arrive with the store).
// Only the welcome page also goes to disk, under "VelQuinWelcomHtmlData".
//
// Ownership and threads: owned by OVPurchase (its dataCache). Written from
// gRPC callback threads and the main queue, read from anywhere: every field
// sits behind one mutex.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace velquin {
namespace platform {
class UserDefaults;
}

class OVDataCache {
 public:
  static constexpr const char* kWelcomePageKey = "VelQuinWelcomHtmlData";
  static constexpr const char* kWelcomePageNotification = "VelQuinWelcomPageDateName";

  explicit OVDataCache(platform::UserDefaults& defaults);

  static constexpr double cacheTimeInSeconds = 300;

  std::optional<std::vector<std::string>> productIdsArray() const;
  void setProductIdsArray(std::optional<std::vector<std::string>> ids);
  std::optional<std::string> paywallPage() const;
  void setPaywallPage(std::optional<std::string> page);
  std::optional<std::string> welcomePage() const;
  // Stores the page; a text that differs from the stored one is written to
  // user defaults and announced with "VelQuinWelcomPageDateName".
  void setWelcomePage(std::optional<std::string> page);

 private:
  platform::UserDefaults& defaults_;
  mutable std::mutex mutex_;
  std::optional<std::vector<std::string>> productIdsArray_;  // guarded by mutex_
  std::optional<std::string> paywallPage_;                   // guarded by mutex_
  std::optional<std::string> welcomePage_;                   // guarded by mutex_
};

}  // namespace velquin
