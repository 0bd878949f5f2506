// The sandbox's SQLite database (WAL) in its data directory: every call
// answered, the users seen, Init calls, device tokens, attribution and user
// info uploads, the analytics events received, the purchases of verified
// receipts and the product prices clients sent with them.
//
// Ownership and threads: one connection guarded by mutex_. Writes happen in
// write(), which runs the caller's work inside one transaction with the lock
// held; the inserts, and the reads that must see them, are only reachable
// through the Batch it hands over.
// Reads take the same lock. Nothing here throws to the caller.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "AttributionRoot.pb.h"
#include "EventRoot.pb.h"
#include "NotificationRoot.pb.h"
#include "SandboxServer.h"
#include "SubscriberRoot.pb.h"
#include "Subscribers.h"

namespace SQLite {
class Database;
class Statement;
}  // namespace SQLite

namespace velquin::sandbox {

struct CallRow {
  std::string method;
  std::optional<std::string> authorization;
  std::optional<std::string> experiment;
  std::string requestJson;
  int status = 0;
  std::int64_t atMs = 0;
};

class Database {
 public:
  enum class Mode { readWrite, readOnly };
  static constexpr const char* kFileName = "sandbox.sqlite";

  // Opens (and in readWrite mode creates) the database file.
  static std::unique_ptr<Database> open(const std::filesystem::path& file, Mode mode,
                                        std::string* error);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // The inserts of one transaction. Only write() makes one.
  class Batch {
   public:
    void addCall(const CallRow& call);
    void touchUser(const std::string& appUserId, std::int64_t atMs);
    void addInit(const iap::GetInitInfoRequest& request, std::int64_t atMs);
    void addDeviceToken(const push_notification::UploadDeviceTokenRequest& request,
                        std::int64_t atMs);
    void addAttribution(const attribution::GetAttributionRequest& request,
                        const std::string& requestJson, std::int64_t atMs);
    void addUserInfo(const iap::UploadUserInfoRequest& request, std::int64_t atMs);
    void addEvent(const protocol::EventRequest& request, const std::optional<std::string>& authorization,
                  const std::optional<std::string>& experiment, std::int64_t atMs);
    // Stores a purchase once per transaction id. A transaction shown again
    // by another user moves to that user (a restore after a new user id);
    // its other fields keep their first values.
    void recordPurchase(const std::string& appUserId, const Purchase& purchase, std::int64_t atMs);
    // Keeps the latest prices sent for a product.
    void addProductInfo(const std::string& appUserId, const iap::ProductInfo& info,
                        std::int64_t atMs);
    // The user's purchases, this transaction's writes included.
    std::vector<Purchase> purchasesOf(const std::string& appUserId);

   private:
    friend class Database;
    explicit Batch(Database& db) : db_(db) {}
    Database& db_;
  };

  // Runs `work(batch)` in one transaction under the lock; false (and
  // nothing stored) when SQLite fails or the work throws.
  template <class Work>
  bool write(Work&& work) {
    std::lock_guard lock(mutex_);
    if (!begin()) return false;
    try {
      Batch batch(*this);
      work(batch);
    } catch (...) {
      rollback();
      return false;
    }
    return commit();
  }

  std::vector<RecordedCall> calls(const std::string& method = "") const;
  std::vector<ReceivedEvent> events() const;
  // Recorded purchases, every user's when `appUserId` is empty, in the
  // order they were first recorded.
  std::vector<RecordedPurchase> purchases(const std::string& appUserId = "") const;
  // The latest prices per product: [{"product_id", "currency",
  // "regular_price", "introductory_price", "discounts": [{"discount_id",
  // "discount_price"}], "app_user_id", "at_ms"}], by product id.
  nlohmann::json productInfos() const;
  // Row count of one of the tables (0 for unknown names).
  std::int64_t count(const std::string& table) const;

 private:
  struct Statements;
  Database();
  bool begin();
  bool commit();
  void rollback();

  mutable std::mutex mutex_;
  std::unique_ptr<SQLite::Database> db_;      // guarded by mutex_
  std::unique_ptr<Statements> statements_;  // guarded by mutex_; null when read-only
};

}  // namespace velquin::sandbox
