// Purchases end to end: the local store sells, the sandbox verifies the
// signed receipt over TLS, the host's completion hears the outcome.
#include <fstream>

#include "PurchaseFixture.h"
#include "support/OVUtils.h"
#include "purchases/OVDataCache.h"
#include "purchases/OVPurchaseImpl.h"
#include "store/StoreCrypto.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;
using State = SKPaymentTransactionState;

TEST_F(SandboxPurchase, ABoughtSubscriptionIsVerifiedFinishedAndReported) {
  ASSERT_TRUE(configureAndWait());
  // Start-up fetched the server's products into the cache.
  auto& cache = OVPurchaseImpl::shared().dataCache();
  EXPECT_TRUE(eventually([&] { return cache.productIDs().size() == 2; }));

  auto bought = buy(kMonthly);
  ASSERT_TRUE(bought.transaction);
  EXPECT_FALSE(bought.error) << bought.error->message;
  EXPECT_EQ(bought.transaction->transactionState, State::purchased);
  EXPECT_EQ(bought.subscriber.ovEntitlements.at(0).id, "pro");
  EXPECT_EQ(bought.subscriber.ovSubscriptions.at(0).status, OVSubscriberStatus::ActiveAutoRenOn);
  EXPECT_TRUE(Velquin::shared().purchases().getUserIsActive());
  EXPECT_TRUE(eventually([&] { return store->transactions().empty(); }));

  // The receipt went with this user's id and the cached product prices.
  auto verify = server->calls("VerifyReceipt").at(0).request;
  EXPECT_EQ(verify.value("app_user_id", ""), Velquin::shared().getAppUserId());
  EXPECT_NE(verify.dump().find("intro-offer"), std::string::npos);
  EXPECT_TRUE(waitForCalls("UploadUserInfo", 1));

  Velquin::shared().analytics().runDeferredStart();
  EXPECT_TRUE(eventually([&] {
    auto events = server->events();
    return std::any_of(events.begin(), events.end(), [&](const auto& event) {
      return event.name == "ev_in_app_purchases" &&
             event.value.find(bought.transaction->transactionIdentifier) != std::string::npos;
    });
  }));
}

TEST_F(SandboxPurchase, ACancelReportsUserCancelledAndEmptiesTheSlotOtherFailuresDoNot) {
  auto log = watchQueue();
  auto item = product(kYearly);
  ASSERT_TRUE(item);
  Await<Bought> bought;
  store->setNextOutcome({LocalStore::Outcome::cancel});
  Velquin::shared().purchaseSKProduct(*item, into(bought));
  auto answer = bought.wait();
  ASSERT_TRUE(answer && answer->error);
  EXPECT_EQ(answer->error->code, 2);
  EXPECT_TRUE(answer->userCancelled);
  EXPECT_FALSE(answer->subscriber.isActive);
  EXPECT_TRUE(answer->subscriber.ovEntitlements.empty());

  // A second failure the store reports later finds the slot empty.
  store->setNextOutcome({LocalStore::Outcome::cancel});
  store->addPayment(SKPayment(*item));
  ASSERT_TRUE(eventually([&] { return log->count(State::failed) == 2; }));
  EXPECT_EQ(bought.reports(), 1);
  EXPECT_TRUE(eventually([&] { return store->transactions().empty(); }));
  EXPECT_TRUE(server->calls("VerifyReceipt").empty());

  // Any other failure is no cancel.
  store->setOutcome(kYearly, {LocalStore::Outcome::fail, 0ms, 4});
  auto failed = buy(kYearly);
  ASSERT_TRUE(failed.error);
  EXPECT_EQ(failed.error->code, 4);
  EXPECT_FALSE(failed.userCancelled);
}

TEST_F(SandboxPurchase, DeferredPurchasesWaitAndAnApprovedAskToBuyCompletes) {
  ASSERT_TRUE(configureAndWait());
  auto log = watchQueue();
  auto item = product(kLifetime);
  ASSERT_TRUE(item);
  Await<Bought> bought;
  store->setNextOutcome({LocalStore::Outcome::defer});
  Velquin::shared().purchaseSKProduct(*item, into(bought));
  ASSERT_TRUE(eventually([&] { return log->count(State::deferred) == 1; }));

  store->setNextOutcome({LocalStore::Outcome::askToBuy});
  Velquin::shared().purchaseSKProduct(*item, into(bought));
  ASSERT_TRUE(eventually([&] { return log->count(State::deferred) == 2; }));
  EXPECT_EQ(bought.reports(), 0);

  store->approveAskToBuy(kLifetime);
  auto answer = bought.wait();
  ASSERT_TRUE(answer);
  EXPECT_FALSE(answer->error);
  EXPECT_EQ(answer->transaction->transactionState, State::purchased);
  EXPECT_EQ(answer->subscriber.ovEntitlements.at(0).id, "lifetime");
}

TEST_F(SandboxPurchase, AMonitorLeavesTransactionsUnfinishedUntilTheHostFinishesThem) {
  ASSERT_TRUE(configureAndWait());
  Await<std::vector<SKPaymentTransactionPtr>> monitored;
  Velquin::shared().addMonitorTransationCompletionHandler(
      [&](SKPaymentTransactionPtr, std::vector<SKPaymentTransactionPtr> transactions,
          std::optional<ReceiptData> receipt, std::optional<Error> error) {
        EXPECT_TRUE(receipt && !receipt->empty());
        EXPECT_FALSE(error);
        monitored.set(std::move(transactions));
      });
  auto bought = buy(kMonthly);
  EXPECT_FALSE(bought.error);
  auto transactions = monitored.wait();
  ASSERT_TRUE(transactions);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(store->transactions().size(), 1u);

  Velquin::shared().finishTransactions(*transactions);
  EXPECT_TRUE(store->transactions().empty());
}

TEST_F(SandboxPurchase, OffersSignedByTheBackendAreAcceptedAndForgedOnesRefused) {
  ASSERT_TRUE(configureAndWait());
  auto item = product(kMonthly);
  ASSERT_TRUE(item);
  auto& sdk = Velquin::shared();
  std::string user = sdk.getAppUserId();
  Await<OVOfferSignatureDetail> signature;
  sdk.createASignature(kMonthly, "intro-offer", user,
                       [&](std::optional<OVOfferSignatureDetail> detail, std::optional<Error> e) {
                         if (e) ADD_FAILURE() << e->message;
                         signature.set(detail.value_or(OVOfferSignatureDetail{}));
                       });
  auto detail = signature.wait();
  ASSERT_TRUE(detail);
  SKPaymentDiscount offer{"intro-offer", detail->keyIdentifier, detail->nonce, detail->signature,
                          detail->timestamp};

  // Forged: the same signature presented for another account.
  Await<Bought> forged;
  sdk.purchaseSKProductWithDiscount(*item, offer, "someone-else", into(forged));
  auto refused = forged.wait();
  ASSERT_TRUE(refused && refused->error);
  EXPECT_EQ(refused->error->code, static_cast<std::int64_t>(SKErrorCode::invalidSignature));
  EXPECT_FALSE(refused->userCancelled);

  Await<Bought> genuine;
  sdk.purchaseSKProductWithDiscount(*item, offer, user, into(genuine));
  auto accepted = genuine.wait();
  ASSERT_TRUE(accepted);
  EXPECT_FALSE(accepted->error) << accepted->error->message;
  EXPECT_TRUE(accepted->subscriber.isActive);
  auto recorded = server->purchases(user);
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_EQ(recorded[0].purchase.offerId.value_or(""), "intro-offer");
}

class Promotion final : public OVPromotingObserverProtocol {
 public:
  void ovPromotingAddStorePaymentWithStatus(OVPromotingInAppPurchaseStatus status,
                                            const SKPayment&, const SKProductPtr& product) override {
    told.set({status, product});
  }
  Await<std::pair<OVPromotingInAppPurchaseStatus, SKProductPtr>> told;
};

class PromotedPurchase : public SandboxPurchase,
                         public ::testing::WithParamInterface<OVPromotingInAppPurchaseStatus> {};

TEST_P(PromotedPurchase, TheObserverIsToldAndOnlyStatusZeroBuysAtOnce) {
  ASSERT_TRUE(configureAndWait());
  auto log = watchQueue();
  auto observer = std::make_shared<Promotion>();
  Velquin::shared().setInAppPurchasePromotingStatus(GetParam(), observer);
  // Shared with the monitor, which stays installed after the test body.
  auto verified = std::make_shared<Await<SKPaymentTransactionPtr>>();
  Velquin::shared().addMonitorTransationCompletionHandler(
      [verified](SKPaymentTransactionPtr transaction, std::vector<SKPaymentTransactionPtr> all,
                 std::optional<ReceiptData>, std::optional<Error>) {
        Velquin::shared().finishTransactions(all);
        verified->set(std::move(transaction));
      });

  store->promote(kYearly);
  auto told = observer->told.wait();
  ASSERT_TRUE(told);
  EXPECT_EQ(told->first, GetParam());
  if (GetParam() != OVPromotingInAppPurchaseStatus::proceed) {
    // The app adds the payment itself, later.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(log->count(State::purchasing), 0);
    Velquin::shared().purchaseSKProduct(*told->second, nullptr);
  }
  auto transaction = verified->wait();
  ASSERT_TRUE(transaction);
  EXPECT_EQ((*transaction)->payment.productIdentifier(), kYearly);
  EXPECT_TRUE(eventually([&] { return store->transactions().empty(); }));
}

INSTANTIATE_TEST_SUITE_P(EachStatus, PromotedPurchase,
                         ::testing::Values(OVPromotingInAppPurchaseStatus::proceed,
                                           OVPromotingInAppPurchaseStatus::deferred,
                                           OVPromotingInAppPurchaseStatus::deferredToObserver));

TEST_F(SandboxPurchase, ATamperedReceiptIsRefusedAndTheHostGetsTheEmptySubscriber) {
  // Registered before the SDK's observer: it rewrites the receipt between
  // the store's write and the SDK's read.
  auto receiptPath = *StoreKit::appStoreReceiptPath();
  auto log = watchQueue([&](const SKPaymentTransaction& transaction) {
    if (transaction.transactionState != State::purchased) return;
    std::ifstream in(receiptPath);
    auto receipt = nlohmann::json::parse(in);
    auto payload = nlohmann::json::parse(*store::base64Decode(receipt["payload"].get<std::string>()));
    payload["bundle_id"] = payload["bundle_id"].get<std::string>();  // same text, re-serialised
    payload["transactions"][0]["product_id"] = kLifetime;
    receipt["payload"] = store::base64Encode(payload.dump());
    std::ofstream(receiptPath, std::ios::trunc) << receipt.dump();
  });
  ASSERT_TRUE(configureAndWait());
  auto bought = buy(kMonthly);
  ASSERT_TRUE(bought.error);
  EXPECT_EQ(bought.error->domain, kGrpcErrorDomain);
  EXPECT_NE(bought.error->message.find("sandbox"), std::string::npos) << bought.error->message;
  EXPECT_FALSE(bought.subscriber.isActive);
  EXPECT_TRUE(bought.subscriber.ovEntitlements.empty() && bought.subscriber.productId.empty());
  EXPECT_TRUE(server->purchases(Velquin::shared().getAppUserId()).empty());
}

// Says the paywall was shown when the page is the sandbox's paywall.
class AcceptingPresenter final : public PagePresenter {
 public:
  bool presentPaywall(const std::string& html, PaywallCompletion done) override {
    done(html.find("Go premium") != std::string::npos, std::nullopt);
    return true;
  }
  bool presentInAppMessage(const std::string&) override { return false; }
};

TEST_F(SandboxPurchase, ThePaywallNeedsAPresenter) {
  ASSERT_TRUE(configureAndWait());
  for (bool installed : {false, true}) {
    if (installed) {
      Velquin::shared().setPagePresenter(std::make_shared<AcceptingPresenter>());
    }
    Await<std::pair<bool, std::string>> shown;
    Velquin::shared().loadPaywallToPurachase([&](bool ok, std::optional<std::string> message) {
      shown.set({ok, message.value_or("")});
    });
    auto answer = shown.wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, installed ? std::make_pair(true, std::string())
                                 : std::make_pair(false, std::string("paywall show failed")));
  }
}

}  // namespace
}  // namespace velquin::testing
