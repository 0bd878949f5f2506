// Nothing paid for is lost: a purchase whose verification gets no answer
// from the backend stays unfinished and is verified again at the next start
// and when the network comes back, until the backend answers; purchases of
// processes sharing the store's folder each keep their own transaction.
#include <fstream>
#include <set>

#include "PurchaseFixture.h"
#include "analytics/OVDeviceInfoManager.h"
#include "analytics/OVDeviceInfoManagerHelper.h"
#include "support/ChildProcess.h"
#include "support/Reachability.h"
#include "velquin/Bundle.h"
#include "velquin/Velquin.h"

namespace velquin::testing {
namespace {

// Network flags the test sets, with a way to say they changed.
class SwitchedNetwork final : public ReachabilityFlagSource {
 public:
  std::optional<ReachabilityFlags> flags() override { return reachability_flags::kReachable; }
  bool watch(std::function<void()> changed) override {
    std::lock_guard lock(mutex_);
    changed_ = std::move(changed);
    return true;
  }
  void unwatch() override {
    std::lock_guard lock(mutex_);
    changed_ = nullptr;
  }
  bool watched() {
    std::lock_guard lock(mutex_);
    return static_cast<bool>(changed_);
  }
  // False while nobody watches.
  bool comeBack() {
    std::function<void()> changed;
    {
      std::lock_guard lock(mutex_);
      changed = changed_;
    }
    if (changed) changed();
    return static_cast<bool>(changed);
  }

 private:
  std::mutex mutex_;
  std::function<void()> changed_;  // guarded by mutex_
};

class StoreFolder : public SandboxPurchase {
 protected:
  // The local store's record of each transaction: id -> finished.
  std::map<std::string, bool> storedTransactions() const {
    std::ifstream in(Bundle::main().dataDirectory() / "StoreKit" / "transactions.json");
    auto root = nlohmann::json::parse(in, nullptr, false);
    std::map<std::string, bool> stored;
    if (!root.is_object()) return stored;
    for (const auto& entry : root.value("transactions", nlohmann::json::array())) {
      stored[entry.value("transaction_id", "")] = entry.value("finished", false);
    }
    return stored;
  }
  bool allFinished() const {
    auto stored = storedTransactions();
    return !stored.empty() &&
           std::all_of(stored.begin(), stored.end(), [](const auto& t) { return t.second; });
  }
};

class UnansweredVerification : public StoreFolder {
 protected:
  sandbox::FaultOptions initialFaults() override {
    sandbox::FaultOptions faults;
    faults.failureRate["VerifyReceipt"] = 1.0;
    return faults;
  }
};

TEST_F(UnansweredVerification, ThePurchaseIsVerifiedAtTheNextStartWithoutTheUserActing) {
  int status = -1;
  auto bought = runHost(
      {"--store-config", storeConfigPath.string(), "purchase", std::string(kLifetime)}, &status);
  EXPECT_EQ(status, 1) << bought.dump();
  EXPECT_EQ(bought["error"]["code"], 14) << bought.dump();
  auto stored = storedTransactions();
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_FALSE(stored.begin()->second);
  EXPECT_TRUE(server->purchases().empty());

  // The backend is back. This process is the app's next start: its store
  // hands the unfinished purchase to the SDK, which verifies and finishes it.
  server->setFaults({});
  store = LocalStore::createDefault();
  StoreKit::install(store);
  ASSERT_TRUE(configureAndWait());
  EXPECT_TRUE(eventually([&] { return allFinished(); }));
  EXPECT_EQ(storedTransactions().size(), 1u);
  ASSERT_EQ(server->purchases().size(), 1u);

  EXPECT_EQ(runHost({"--store-config", storeConfigPath.string(), "is-active"})["isActive"], true);
}

TEST_F(UnansweredVerification, ThePurchaseIsVerifiedWhenTheNetworkComesBack) {
  auto network = std::make_unique<SwitchedNetwork>();
  SwitchedNetwork& switched = *network;
  OVDeviceInfoManager::shared().objcHelper().setReachability(
      Reachability::reachabilityWithSource(std::move(network)));
  ASSERT_TRUE(configureAndWait());

  auto bought = buy(kMonthly);
  ASSERT_TRUE(bought.error);
  EXPECT_EQ(bought.error->code, 14);
  EXPECT_FALSE(bought.subscriber.isActive);
  // The SDK keeps the transaction and watches the network (after the
  // completion has returned).
  ASSERT_TRUE(eventually([&] { return switched.watched(); }));
  ASSERT_EQ(store->transactions().size(), 1u);
  EXPECT_FALSE(allFinished());

  server->setFaults({});
  ASSERT_TRUE(switched.comeBack());
  EXPECT_TRUE(eventually([&] { return store->transactions().empty() && allFinished(); }));
  EXPECT_TRUE(Velquin::shared().purchases().getUserIsActive());
  EXPECT_EQ(server->purchases().size(), 1u);
}

TEST_F(StoreFolder, FourPurchasesAtOnceKeepFourTransactionsEachWithItsOwnId) {
  const std::vector<std::string> words{"--bundle", env.bundleDir().string(), "--store-config",
                                       storeConfigPath.string(), "purchase", kCoins};
  std::vector<std::unique_ptr<ChildProcess>> hosts;
  for (int i = 0; i < 4; ++i) {
    hosts.push_back(std::make_unique<ChildProcess>((binDir() / "velquin").string(), words));
  }
  std::set<std::string> reported;
  for (auto& host : hosts) {
    std::string output = host->read(std::chrono::seconds(120));
    EXPECT_EQ(host->wait(std::chrono::seconds(120)).exitCode, 0) << output;
    while (!output.empty() && output.back() == '\n') output.pop_back();
    auto result = nlohmann::json::parse(output.substr(output.find_last_of('\n') + 1), nullptr,
                                        false);
    ASSERT_TRUE(result.is_object()) << output;
    reported.insert(result["transaction"].value("id", ""));
  }
  EXPECT_EQ(reported.size(), 4u);
  auto stored = storedTransactions();
  EXPECT_EQ(stored.size(), 4u);
  for (const auto& id : reported) EXPECT_EQ(stored.count(id), 1u) << id;
  EXPECT_TRUE(allFinished());
}

}  // namespace
}  // namespace velquin::testing
