// Restores, the restore time-out, a broken store configuration, and the
// command-line host selling from the same store in separate processes.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "../purchases/StoreFakes.h"
#include "PurchaseFixture.h"
#include "velquin/Velquin.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;

TEST_F(SandboxPurchase, ARestoreBringsBackWhatWasBought) {
  ASSERT_TRUE(configureAndWait());
  ASSERT_FALSE(buy(kLifetime).error);
  Await<Restored> first, second;
  Velquin::shared().restorePurchases(into(first));
  Velquin::shared().restorePurchases(into(second));  // replaces the first
  auto restored = second.wait();
  ASSERT_TRUE(restored);
  EXPECT_FALSE(restored->error);
  EXPECT_TRUE(restored->subscriber.isActive);
  EXPECT_EQ(restored->subscriber.ovEntitlements.at(0).id, "lifetime");
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(first.reports(), 0);
  EXPECT_EQ(second.reports(), 1);
  EXPECT_TRUE(eventually([&] { return store->transactions().empty(); }));
}

TEST_F(SandboxPurchase, ARestoreWithNothingToRestoreStillAnswersWithTheSubscriber) {
  ASSERT_TRUE(configureAndWait());
  ASSERT_FALSE(buy(kCoins).error);  // consumables are not restored
  Await<Restored> restored;
  Velquin::shared().restorePurchases(into(restored));
  auto answer = restored.wait();
  ASSERT_TRUE(answer);
  EXPECT_FALSE(answer->error);
  EXPECT_FALSE(answer->subscriber.isActive);
  EXPECT_TRUE(waitForCalls("GetSubscriber", 2));  // start-up's and the restore's
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(restored.reports(), 1);
}

TEST_F(SandboxPurchase, ARestoreTheStoreDoesNotAnswerTimesOutOnce) {
  auto log = watchQueue();
  ManualClock clock;
  store->setRestoreBehaviour(LocalStore::RestoreBehaviour::normal, 31s);
  Await<Restored> restored;
  Velquin::shared().restorePurchases(into(restored));
  MainQueue::shared().sync([] {});  // the store has scheduled its answer
  clock.advanceTo(29s);
  EXPECT_EQ(restored.reports(), 0);
  clock.advanceTo(30s);
  auto answer = restored.wait(1s);
  ASSERT_TRUE(answer && answer->error);
  EXPECT_EQ(answer->error->domain, "com.apple.restore");
  EXPECT_EQ(answer->error->code, 113);
  EXPECT_EQ(answer->error->message, "restore request timed out");
  EXPECT_TRUE(answer->subscriber.ovEntitlements.empty());

  // The store's late answer reaches nobody.
  clock.advanceTo(31s);
  ASSERT_TRUE(eventually([&] { return log->restoresFinished == 1; }));
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(restored.reports(), 1);
}

class BrokenStoreConfiguration : public SandboxPurchase,
                                 public ::testing::WithParamInterface<const char*> {};

TEST_P(BrokenStoreConfiguration, EveryCompletionGetsAClearError) {
  auto item = product(kMonthly);
  ASSERT_TRUE(item);
  std::string kind = GetParam();
  if (kind == "missing") {
    std::filesystem::remove(storeConfigPath);
  } else if (kind == "malformed") {
    writeStoreConfig("{\"products\": [");
  } else {
    auto config = storeConfig();
    config["products"][0]["price"] = true;
    writeStoreConfig(config.dump());
  }
  auto mentionsTheFile = [&](const std::optional<Error>& error) {
    return error && error->message.find(storeConfigPath.string()) != std::string::npos;
  };

  Await<std::optional<Error>> lookup;
  Velquin::shared().getSkuDetails({kYearly}, [&](auto products, std::optional<Error> error) {
    EXPECT_FALSE(products);
    lookup.set(std::move(error));
  });
  auto lookupError = lookup.wait();
  ASSERT_TRUE(lookupError);
  EXPECT_TRUE(mentionsTheFile(*lookupError)) << (*lookupError ? (*lookupError)->message : "");

  Await<Bought> bought;
  Velquin::shared().purchaseSKProduct(*item, into(bought));
  auto purchase = bought.wait();
  ASSERT_TRUE(purchase);
  EXPECT_TRUE(mentionsTheFile(purchase->error));
  EXPECT_FALSE(purchase->userCancelled);

  Await<Restored> restored;
  Velquin::shared().restorePurchases(into(restored));
  auto restore = restored.wait();
  ASSERT_TRUE(restore);
  EXPECT_TRUE(mentionsTheFile(restore->error));
  EXPECT_FALSE(restore->subscriber.isActive);
}

INSTANTIATE_TEST_SUITE_P(Each, BrokenStoreConfiguration,
                         ::testing::Values("missing", "malformed", "wrongType"));

// The command-line host, one process per command, sharing the store's
// folder with this test.
class PurchaseCli : public SandboxPurchase {
 protected:
  // `args` are words separated by blanks.
  nlohmann::json run(const std::string& args, int expectedStatus = 0) {
    std::vector<std::string> words;
    std::istringstream in(args);
    for (std::string word; in >> word;) words.push_back(word);
    int status = -1;
    auto result = runHost(words, &status);
    EXPECT_EQ(status, expectedStatus) << args << "\n" << result.dump();
    return result;
  }
};

TEST_F(PurchaseCli, EachCommandIsAFreshProcessOverTheSameStore) {
  std::string config = " --store-config " + storeConfigPath.string() + " ";
  auto bought = run(config + "purchase " + kMonthly);
  EXPECT_EQ(bought["transaction"]["state"], "purchased");
  EXPECT_EQ(bought["subscriber"]["isActive"], true);
  EXPECT_EQ(bought["subscriber"]["entitlements"][0]["id"], "pro");

  auto restored = run(config + "restore");
  EXPECT_EQ(restored["subscriber"]["isActive"], true);
  EXPECT_EQ(run(config + "is-active")["isActive"], true);

  // Without a store configuration the demo products are for sale.
  auto products = run("products com.velquin.demo.monthly com.velquin.demo.lifetime");
  ASSERT_EQ(products["products"].size(), 2u);
  EXPECT_EQ(products["products"][1]["period"], "P1M");

  auto cancelled = run(config + "purchase " + kYearly + " --outcome cancel", 1);
  EXPECT_EQ(cancelled["error"]["code"], 2) << cancelled.dump();

  // Bad words get a usage error, never a library's exception text.
  for (const char* bad : {"configure --wait -1", "configure --wait nan", "configure --wait inf",
                          "promote x --status abc", "promote x --status 7"}) {
    auto refused = run(bad, 1);
    EXPECT_EQ(refused["error"]["code"], 2) << bad << ": " << refused.dump();
    EXPECT_EQ(refused.dump().find("bad argument"), std::string::npos) << refused.dump();
  }
}

}  // namespace
}  // namespace velquin::testing
