// The local store's record of bought transactions, kept in one JSON file
// (<store folder>/transactions.json) so restores and receipts outlive the
// process.
//
// Ownership and threads: plain values and stateless functions. The store
// calls them on the main queue only, which serialises the read-modify-write
// cycles of one process.
#pragma once

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
};

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
