// The product catalogue and the receipt refresher over a store that answers
// when and how the test says; the product cache.
#include <gtest/gtest.h>

#include <fstream>

#include "StoreFakes.h"
#include "platform/Env.h"
#include "platform/UserDefaults.h"
#include "purchases/OVDataCache.h"
#include "purchases/OVPurchaseImpl.h"
#include "purchases/OVProductRequest.h"
#include "purchases/OVReceiptRequest.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {
namespace {

class Catalogue : public ::testing::Test {
 protected:
  void SetUp() override {
    env.installAsMainBundle();
    store->receipt = env.root() / "receipt";
    StoreKit::install(store);
  }
  TempEnvironment env;
  std::shared_ptr<FakeStore> store = std::make_shared<FakeStore>();
  std::shared_ptr<OVProductRequest> catalogue = OVProductRequest::create();
};

TEST_F(Catalogue, ConcurrentFetchesEachGetTheirOwnAnswer) {
  std::vector<std::string> titles;
  auto into = [&](std::vector<SKProductPtr> products, std::optional<Error> error) {
    titles.push_back(error ? error->message : products.at(0)->localizedTitle);
    if (titles.size() == 1) catalogue->fetchProducts({"c"}, nullptr);  // may fetch again
  };
  catalogue->fetchProducts({"a"}, into);
  catalogue->fetchProducts({"a"}, into);
  ASSERT_EQ(store->lookups.size(), 2u);  // never merged

  store->lookups[1].second({{makeProduct("a", "second")}, {"b"}}, std::nullopt);
  store->lookups[0].second({}, makeSKError(SKErrorCode::unknown, "first failed"));
  EXPECT_EQ(titles, (std::vector<std::string>{"second", "first failed"}));
  EXPECT_EQ(store->lookups.size(), 3u);
  EXPECT_EQ(catalogue->pendingCount(), 1u);
}

TEST_F(Catalogue, RefreshesJoinAndReportTheFileOrTheError) {
  auto refresher = OVReceiptRequest::create();
  std::vector<std::pair<std::optional<ReceiptData>, std::optional<Error>>> answers;
  auto record = [&](std::optional<ReceiptData> receipt, std::optional<Error> error) {
    answers.emplace_back(std::move(receipt), std::move(error));
  };
  refresher->refresh(record);
  refresher->refresh(record);  // joins the running refresh
  std::ofstream(store->receipt, std::ios::binary) << "fresh";
  ASSERT_EQ(store->refreshes.size(), 1u);
  store->refreshes[0](std::nullopt);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_EQ(std::string(answers[1].first->begin(), answers[1].first->end()), "fresh");

  refresher->refresh(record);
  store->refreshes[1](makeSKError(SKErrorCode::unknown, "no account"));
  EXPECT_FALSE(answers.at(2).first);
  EXPECT_EQ(answers.at(2).second->message, "no account");
  EXPECT_FALSE(refresher->isRefreshing());
}

TEST_F(Catalogue, TheCacheKeepsOneEntryPerProductWithItsOffers) {
  OVDataCache cache(platform::UserDefaults::standard());
  auto offered = std::const_pointer_cast<SKProduct>(makeProduct("m", "new"));
  SKProductDiscount winback;
  winback.identifier = "winback";
  offered->discounts = {winback};
  cache.storeProducts({makeProduct("m", "old"), makeProduct("y")});
  cache.storeProducts({offered});
  ASSERT_EQ(cache.skProducts().size(), 2u);
  EXPECT_EQ(cache.skProducts()[0]->localizedTitle, "new");
  auto info = cache.productInfo();
  EXPECT_FLOAT_EQ(info["m"].introductory_price(), 4.99f);  // the plain price
  EXPECT_EQ(info["m"].discounts(0).discount_id(), "winback");
  EXPECT_EQ(info["y"].discounts_size(), 0);
  cache.invalidateCache();
  EXPECT_EQ(cache.productInfoList().size(), 2u);  // still sent with the next receipt
}

TEST_F(Catalogue, SandboxIsTheInstalledStoresReceiptLocation) {
  auto orchestrator = OVPurchaseImpl::create(platform::Env::standard(), nullptr);
  EXPECT_FALSE(orchestrator->isSandbox());
  store->receipt = env.root() / "elsewhere" / "sandboxReceipt";
  EXPECT_TRUE(orchestrator->isSandbox());
}

}  // namespace
}  // namespace velquin::testing
