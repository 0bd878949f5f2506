#include "store/TransactionHistory.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/SafeFile.h"
#include "store/StoreConfiguration.h"
#include "store/StoreFiles.h"
#include "support/Console.h"

namespace velquin::store {
namespace {

using nlohmann::json;

json toJson(const StoredTransaction& t) {
  json entry = receiptEntry(t);
  entry["finished"] = t.finished;
  if (t.ownerPid != 0) entry["owner_pid"] = t.ownerPid;
  if (!t.subscriptionGroup.empty()) entry["subscription_group"] = t.subscriptionGroup;
  return entry;
}

// Throws on wrongly-typed entries; loadHistory catches.
StoredTransaction fromJson(const json& entry) {
  StoredTransaction t;
  t.transactionId = entry.at("transaction_id").get<std::string>();
  t.originalTransactionId = entry.at("original_transaction_id").get<std::string>();
  t.productId = entry.at("product_id").get<std::string>();
  auto type = productTypeFromName(entry.at("product_type").get<std::string>());
  if (!type) throw std::runtime_error("unknown product_type");
  t.productType = *type;
  t.quantity = entry.value("quantity", std::int64_t{1});
  t.purchaseDateMs = entry.at("purchase_date_ms").get<std::int64_t>();
  if (entry.contains("expires_date_ms")) t.expiresDateMs = entry["expires_date_ms"].get<std::int64_t>();
  t.subscriptionGroup = entry.value("subscription_group", std::string());
  if (entry.contains("offer_id")) t.offerId = entry["offer_id"].get<std::string>();
  if (entry.contains("app_account_token")) {
    t.appAccountToken = entry["app_account_token"].get<std::string>();
  }
  t.finished = entry.value("finished", false);
  t.ownerPid = entry.value("owner_pid", std::int64_t{0});
  return t;
}

}  // namespace

HistoryLock::HistoryLock(const std::filesystem::path& historyFile) {
  std::string problem;
  if (historyFile.has_parent_path() &&
      !platform::makePrivateDirectories(historyFile.parent_path(), &problem)) {
    support::warn("[local store] " + problem);
    return;
  }
  const auto lockFile = historyFile.string() + ".lock";
  fd_ = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd_ < 0) {
    support::warn("[local store] cannot open the lock file " + lockFile + ": " +
                  std::strerror(errno) + "; the history is changed without it");
    return;
  }
  while (::flock(fd_, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    ::close(fd_);
    fd_ = -1;
    return;
  }
}

HistoryLock::~HistoryLock() {
  if (fd_ >= 0) ::close(fd_);  // releases the lock
}

bool belongsToThisProcess(const StoredTransaction& transaction) {
  const auto pid = transaction.ownerPid;
  if (pid <= 0 || pid == ::getpid()) return true;
  return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

std::vector<StoredTransaction> loadHistory(const std::filesystem::path& file) {
  std::error_code ec;
  if (!std::filesystem::exists(file, ec)) return {};
  std::string problem;
  auto text = readFile(file, &problem);
  if (!text) {
    support::warn("[local store] " + problem + "; starting with no transactions");
    return {};
  }
  try {
    json root = json::parse(*text);
    std::vector<StoredTransaction> history;
    for (const auto& entry : root.at("transactions")) history.push_back(fromJson(entry));
    return history;
  } catch (const std::exception& e) {
    auto aside = moveAside(file);
    support::warn("[local store] transaction file " + file.string() + " is damaged (" + e.what() +
                  "); kept as " + aside.string() + ", starting with no transactions");
    return {};
  }
}

bool saveHistory(const std::filesystem::path& file, const std::vector<StoredTransaction>& history,
                 std::string* error) {
  json entries = json::array();
  for (const auto& t : history) entries.push_back(toJson(t));
  json root = {{"version", 1}, {"transactions", std::move(entries)}};
  // Account tokens come from the app; replace invalid UTF-8 rather than throw.
  return writeFileAtomically(file, root.dump(2, ' ', false, json::error_handler_t::replace), 0600,
                             error);
}

json receiptEntry(const StoredTransaction& t) {
  json entry = {{"transaction_id", t.transactionId},
                {"original_transaction_id", t.originalTransactionId},
                {"product_id", t.productId},
                {"product_type", productTypeName(t.productType)},
                {"quantity", t.quantity},
                {"purchase_date_ms", t.purchaseDateMs}};
  if (t.expiresDateMs) entry["expires_date_ms"] = *t.expiresDateMs;
  if (t.offerId) entry["offer_id"] = *t.offerId;
  if (t.appAccountToken) entry["app_account_token"] = *t.appAccountToken;
  return entry;
}

std::int64_t addPeriods(std::int64_t startMs, const SKProductSubscriptionPeriod& period,
                        std::uint32_t count) {
  using namespace std::chrono;
  const sys_time<milliseconds> start{milliseconds(startMs)};
  const auto day = floor<days>(start);
  const auto timeOfDay = start - day;
  const std::int64_t n = std::int64_t{period.numberOfUnits} * count;
  sys_days result = day;
  switch (period.unit) {
    case SKProductPeriodUnit::day: result = day + days(n); break;
    case SKProductPeriodUnit::week: result = day + weeks(n); break;
    case SKProductPeriodUnit::month:
    case SKProductPeriodUnit::year: {
      year_month_day ymd{day};
      year_month ym = ymd.year() / ymd.month();
      ym = period.unit == SKProductPeriodUnit::month ? ym + months(n) : ym + years(n);
      auto last = year_month_day_last(ym.year(), month_day_last(ym.month())).day();
      result = sys_days(ym / std::min(ymd.day(), last));
      break;
    }
  }
  return duration_cast<milliseconds>((result + timeOfDay).time_since_epoch()).count();
}

}  // namespace velquin::store
