// The product catalogue, the receipt refresher and the product cache, over a
// store that answers when and how the test says.
#include <gtest/gtest.h>

#include <fstream>

#include "StoreFakes.h"
#include "facade/OVUtils.h"
#include "platform/UserDefaults.h"
#include "purchases/OVDataCache.h"
#include "purchases/OVProductRequest.h"
#include "purchases/OVReceiptRequest.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {
namespace {

struct Answer {
  std::vector<std::string> ids;
  std::optional<Error> error;
};

std::vector<std::string> idsOf(const std::vector<SKProductPtr>& products) {
  std::vector<std::string> ids;
  for (const auto& product : products) ids.push_back(product->localizedTitle);
  return ids;
}

class Catalogue : public ::testing::Test {
 protected:
  void SetUp() override {
    env.installAsMainBundle();
    store->receipt = env.root() / "receipt";
    StoreKit::install(store);
  }
  void TearDown() override { OVUtils::enableLogs(false); }

  ProductsCompletion into(std::vector<Answer>& answers) {
    return [&answers](std::vector<SKProductPtr> products, std::optional<Error> error) {
      answers.push_back({idsOf(products), std::move(error)});
    };
  }
  StoreBackend::ProductsHandler lookup(std::size_t i) {
    std::lock_guard lock(store->mutex);
    return store->lookups.at(i).second;
  }

  TempEnvironment env;
  std::shared_ptr<FakeStore> store = std::make_shared<FakeStore>();
  std::shared_ptr<OVProductRequest> catalogue = OVProductRequest::create();
};

SKProductPtr titled(const std::string& id, const std::string& title) {
  auto product = std::const_pointer_cast<SKProduct>(makeProduct(id));
  product->localizedTitle = title;
  return product;
}

TEST_F(Catalogue, ConcurrentFetchesEachGetTheirOwnAnswer) {
  std::vector<Answer> first, second;
  catalogue->fetchProducts({"a"}, into(first));
  catalogue->fetchProducts({"a"}, into(second));
  ASSERT_EQ(store->lookups.size(), 2u);  // never merged
  EXPECT_EQ(catalogue->pendingCount(), 2u);

  lookup(1)({{titled("a", "second answer")}, {}}, std::nullopt);
  lookup(0)({{titled("a", "first answer")}, {}}, std::nullopt);
  ASSERT_EQ(first.size(), 1u);
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(first[0].ids, std::vector<std::string>{"first answer"});
  EXPECT_EQ(second[0].ids, std::vector<std::string>{"second answer"});
  EXPECT_EQ(catalogue->pendingCount(), 0u);
}

TEST_F(Catalogue, UnknownIdsAreOnlyLogged) {
  for (bool logging : {true, false}) {
    OVUtils::enableLogs(logging);
    std::vector<Answer> answers;
    catalogue->fetchProducts({"a", "b"}, into(answers));
    ::testing::internal::CaptureStdout();
    lookup(store->lookups.size() - 1)({{titled("a", "a")}, {"b"}}, std::nullopt);
    std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].ids, std::vector<std::string>{"a"});
    EXPECT_FALSE(answers[0].error);
    if (logging) {
      EXPECT_NE(out.find("] [OrventPurchase] Found invalid product: b\n"), std::string::npos) << out;
    } else {
      EXPECT_EQ(out, "");
    }
  }
}

TEST_F(Catalogue, AFailureAnswersWithAnEmptyListAndTheStoreError) {
  std::vector<Answer> answers;
  catalogue->fetchProducts({"a"}, into(answers));
  lookup(0)({}, makeSKError(SKErrorCode::unknown, "store offline"));
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(answers[0].ids.empty());
  ASSERT_TRUE(answers[0].error);
  EXPECT_EQ(answers[0].error->message, "store offline");
  EXPECT_EQ(catalogue->pendingCount(), 0u);
}

TEST_F(Catalogue, ACompletionMayStartTheNextFetch) {
  std::vector<Answer> answers;
  catalogue->fetchProducts({"a"}, [&](std::vector<SKProductPtr>, std::optional<Error>) {
    catalogue->fetchProducts({"b"}, into(answers));
  });
  lookup(0)({{makeProduct("a")}, {}}, std::nullopt);
  EXPECT_EQ(store->lookups.size(), 2u);
  EXPECT_EQ(catalogue->pendingCount(), 1u);
}

TEST_F(Catalogue, RefreshesJoinAndReportTheFileOrTheError) {
  auto refresher = OVReceiptRequest::create();
  std::vector<std::pair<std::optional<ReceiptData>, std::optional<Error>>> answers;
  auto record = [&](std::optional<ReceiptData> receipt, std::optional<Error> error) {
    answers.emplace_back(std::move(receipt), std::move(error));
  };

  // A finish that leaves no file: (none, no error), to both waiting callers.
  refresher->refresh(record);
  refresher->refresh(record);
  ASSERT_EQ(store->refreshes.size(), 1u);
  store->refreshes[0](std::nullopt);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_FALSE(answers[0].first || answers[0].second || answers[1].first);
  EXPECT_FALSE(refresher->isRefreshing());

  std::ofstream(store->receipt, std::ios::binary) << "fresh";
  refresher->refresh(record);
  store->refreshes[1](std::nullopt);
  ASSERT_EQ(answers.size(), 3u);
  ASSERT_TRUE(answers[2].first);
  EXPECT_EQ(std::string(answers[2].first->begin(), answers[2].first->end()), "fresh");

  OVUtils::enableLogs(true);
  refresher->refresh(record);
  ::testing::internal::CaptureStdout();
  store->refreshes[2](makeSKError(SKErrorCode::unknown, "no account"));
  std::string out = ::testing::internal::GetCapturedStdout();
  ASSERT_EQ(answers.size(), 4u);
  EXPECT_FALSE(answers[3].first);
  EXPECT_EQ(answers[3].second->message, "no account");
  EXPECT_NE(out.find("Receipt refresh failed with error:\nno account"), std::string::npos);
}

TEST_F(Catalogue, TheCacheKeepsOneEntryPerProductAndItsProductInformation) {
  OVDataCache cache(platform::UserDefaults::standard());
  cache.storeProducts({makeProduct("m", "4.99", {"intro", "winback"}), makeProduct("y", "39")});
  cache.storeProducts({makeProduct("m", "5.49", {"intro", "winback"})});
  cache.storeProducts({});

  ASSERT_EQ(cache.skProducts().size(), 2u);
  EXPECT_EQ(cache.skProducts()[0]->price.stringValue(), "5.49");
  EXPECT_EQ(cache.productIDs(), (std::set<std::string>{"m", "y"}));
  auto info = cache.productInfo();
  ASSERT_EQ(info.size(), 2u);
  EXPECT_EQ(info["m"].currency(), "USD");
  EXPECT_FLOAT_EQ(info["m"].regular_price(), 5.49f);
  EXPECT_FLOAT_EQ(info["m"].introductory_price(), 5.49f);  // the plain price
  ASSERT_EQ(info["m"].discounts_size(), 2);
  EXPECT_EQ(info["m"].discounts(1).discount_id(), "winback");
  EXPECT_FLOAT_EQ(info["m"].discounts(1).discount_price(), 1.25f);
  EXPECT_EQ(info["y"].discounts_size(), 0);

  cache.setProductIMProduct(OVProduct{"m", makeProduct("m")});
  cache.setLastProductUpdateTime(std::chrono::system_clock::now());
  cache.invalidateCache();
  EXPECT_FALSE(cache.productIMProduct() || cache.lastProductUpdateTime());
  EXPECT_EQ(cache.productInfoList().size(), 2u);  // still sent with the next receipt
}

}  // namespace
}  // namespace velquin::testing
