// The local store's record of bought transactions, kept in one JSON file
// (<store folder>/transactions.json) so restores and receipts outlive the
// process.
//
// Ownership and threads: plain values and stateless functions. The store
// calls them on the main queue only, which serialises the read-modify-write
// cycles of one process; a HistoryLock serialises those of processes
// sharing the folder.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin/StoreKit.h"

namespace velquin::store {

struct StoredTransaction {
  std::string transactionId;
  std::string originalTransactionId;
  std::string productId;
  SKProductType productType = SKProductType::nonConsumable;
  std::int64_t quantity = 1;
  std::int64_t purchaseDateMs = 0;
  std::optional<std::int64_t> expiresDateMs;  // auto-renewable only
  std::string subscriptionGroup;              // auto-renewable only
  std::optional<std::string> offerId;
  std::optional<std::string> appAccountToken;  // the payment's applicationUsername
  bool finished = false;
  // The process that bought it (0: unknown). Left unfinished, it goes back
  // to the queue only of that process, or of any once that process is gone.
  std::int64_t ownerPid = 0;
};

// Holds the history's lock between processes (flock on "<file>.lock", made
// 0600, never through a link) from construction to destruction. Without a
// lock file (unwritable folder) it holds nothing and says so.
class HistoryLock {
 public:
  explicit HistoryLock(const std::filesystem::path& historyFile);
  ~HistoryLock();
  HistoryLock(const HistoryLock&) = delete;
  HistoryLock& operator=(const HistoryLock&) = delete;
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Whether an unfinished transaction is this process's to be told of again.
bool belongsToThisProcess(const StoredTransaction& transaction);

// Every stored transaction, oldest first. A missing file is an empty history;
// a damaged one is renamed aside (with a warning) and read as empty.
std::vector<StoredTransaction> loadHistory(const std::filesystem::path& file);
bool saveHistory(const std::filesystem::path& file, const std::vector<StoredTransaction>& history,
                 std::string* error);

// The entry as it appears in the receipt.
nlohmann::json receiptEntry(const StoredTransaction& transaction);

// `startMs` plus `count` periods, in UTC calendar terms: a month after 31
// January is the last day of February.
std::int64_t addPeriods(std::int64_t startMs, const SKProductSubscriptionPeriod& period,
                        std::uint32_t count = 1);

}  // namespace velquin::store
