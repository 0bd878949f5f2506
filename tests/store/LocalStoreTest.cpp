// The local store seen through the store interface: purchases and their
// scripted outcomes, restores, receipts, offers, promoted purchases, product
// requests and configuration errors.
#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "StoreTestSupport.h"
#include "velquin/MainQueue.h"

namespace velquin::testing {
namespace {

using State = SKPaymentTransactionState;
using Outcome = LocalStore::Outcome;
using namespace std::chrono_literals;

nlohmann::json readJson(const std::filesystem::path& file) {
  std::ifstream in(file);
  return nlohmann::json::parse(in);
}

// Lets queued main-queue work run, for checks that something did not happen.
void settle() {
  for (int i = 0; i < 3; ++i) MainQueue::shared().sync([] {});
  std::this_thread::sleep_for(50ms);
}

class PurchaseTest : public StoreTest {
 protected:
  void buy(const std::string& productId) {
    SKMutablePayment payment(productId);
    store_->addPayment(payment);
  }
  std::shared_ptr<LocalStore> store_ = makeStore();
  std::shared_ptr<Recorder> observer_ = observe(store_);
};

TEST_F(PurchaseTest, SuccessfulPurchaseStaysQueuedUntilFinishedAndIsRecorded) {
  SKMutablePayment payment("pro.monthly");
  payment.setApplicationUsername("account-1");
  store_->addPayment(payment);

  auto purchased = observer_->waitForState("pro.monthly", State::purchased);
  ASSERT_TRUE(purchased);
  auto updates = observer_->updates();
  ASSERT_EQ(updates.size(), 2u);
  EXPECT_EQ(updates[0]->transactionState, State::purchasing);
  EXPECT_EQ(updates[0]->transactionIdentifier, purchased->transactionIdentifier);
  EXPECT_TRUE(observer_->allOnMainQueue());
  ASSERT_EQ(store_->transactions().size(), 1u);
  EXPECT_EQ(store_->transactions()[0]->transactionState, State::purchased);

  store_->finishTransaction(purchased);
  EXPECT_TRUE(store_->transactions().empty());
  settle();
  auto history = readJson(storeDirectory() / "transactions.json")["transactions"];
  ASSERT_EQ(history.size(), 1u);
  EXPECT_EQ(history[0]["product_id"], "pro.monthly");
  EXPECT_EQ(history[0]["app_account_token"], "account-1");
  EXPECT_TRUE(history[0]["finished"].get<bool>());
}

TEST_F(PurchaseTest, CancelFailAndDeferFollowTheScript) {
  store_->setOutcome("lifetime", {.outcome = Outcome::cancel});
  store_->setOutcome("coins", {.outcome = Outcome::fail, .errorCode = 5});
  store_->setOutcome("season", {.outcome = Outcome::defer});
  buy("lifetime");
  buy("coins");
  buy("season");

  auto cancelled = observer_->waitForState("lifetime", State::failed);
  ASSERT_TRUE(cancelled && cancelled->error);
  EXPECT_EQ(cancelled->error->domain, kSKErrorDomain);
  EXPECT_EQ(cancelled->error->code, 2);
  auto failed = observer_->waitForState("coins", State::failed);
  ASSERT_TRUE(failed && failed->error);
  EXPECT_EQ(failed->error->code, 5);
  ASSERT_TRUE(observer_->waitForState("season", State::deferred));
  settle();
  int seasonUpdates = 0;
  for (const auto& t : observer_->updates()) seasonUpdates += t->payment.productIdentifier() == "season";
  EXPECT_EQ(seasonUpdates, 2);  // purchasing, deferred; nothing more
  EXPECT_FALSE(std::filesystem::exists(receiptPath()));  // nothing was bought
}

TEST_F(PurchaseTest, NextOutcomeWinsOnceOverTheConfiguredOne) {
  auto config = standardConfiguration();
  config["outcomes"] = {{"coins", "cancel"}};
  writeConfiguration(config);
  store_->setNextOutcome({.outcome = Outcome::success});
  buy("coins");
  ASSERT_TRUE(observer_->waitForState("coins", State::purchased));
  buy("coins");
  ASSERT_TRUE(observer_->waitForState("coins", State::failed));
}

TEST_F(PurchaseTest, AskToBuyWaitsForTheParent) {
  store_->setOutcome("lifetime", {.outcome = Outcome::askToBuy});
  SKMutablePayment asked("season");
  asked.setSimulatesAskToBuyInSandbox(true);
  buy("lifetime");
  store_->addPayment(asked);
  auto deferred = observer_->waitForState("lifetime", State::deferred);
  ASSERT_TRUE(deferred);
  ASSERT_TRUE(observer_->waitForState("season", State::deferred));

  store_->approveAskToBuy("lifetime");
  auto approved = observer_->waitForState("lifetime", State::purchased);
  ASSERT_TRUE(approved);
  EXPECT_EQ(approved->transactionIdentifier, deferred->transactionIdentifier);
  store_->declineAskToBuy("season");
  auto declined = observer_->waitForState("season", State::failed);
  ASSERT_TRUE(declined && declined->error);
  EXPECT_NE(declined->error->code, 2);
}

TEST_F(PurchaseTest, PaymentsThatCannotGoThroughFail) {
  buy("no.such.product");
  auto unknown = observer_->waitForState("no.such.product", State::failed);
  ASSERT_TRUE(unknown && unknown->error);
  EXPECT_EQ(unknown->error->code, static_cast<std::int64_t>(SKErrorCode::storeProductNotAvailable));

  auto config = standardConfiguration();
  config["can_make_payments"] = false;
  writeConfiguration(config);
  EXPECT_FALSE(store_->canMakePayments());
  buy("coins");
  auto refused = observer_->waitForState("coins", State::failed);
  ASSERT_TRUE(refused && refused->error);
  EXPECT_EQ(refused->error->code, static_cast<std::int64_t>(SKErrorCode::paymentNotAllowed));
}

TEST_F(PurchaseTest, UnfinishedPurchasesComeBackToLaterObserversAndLaterRuns) {
  buy("lifetime");
  auto purchased = observer_->waitForState("lifetime", State::purchased);
  ASSERT_TRUE(purchased);

  auto late = observe(store_);
  auto again = late->waitForState("lifetime", State::purchased);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->transactionIdentifier, purchased->transactionIdentifier);
  EXPECT_EQ(late->updates().size(), 1u);

  auto nextRun = makeStore();
  auto fresh = observe(nextRun);
  auto redelivered = fresh->waitForState("lifetime", State::purchased);
  ASSERT_TRUE(redelivered);
  EXPECT_EQ(redelivered->transactionIdentifier, purchased->transactionIdentifier);
  nextRun->finishTransaction(redelivered);
  settle();

  auto thirdRun = makeStore();
  EXPECT_TRUE(thirdRun->transactions().empty());
}

TEST_F(PurchaseTest, ScriptedDelaysFollowTheMainQueueClock) {
  static std::atomic<std::int64_t> nowMs{0};
  static const auto epoch = MainQueue::Clock::now();
  MainQueue::shared().setNowFunction([] { return epoch + std::chrono::milliseconds(nowMs.load()); });
  store_->setOutcome("coins", {.outcome = Outcome::success, .delay = 5s});
  buy("coins");
  ASSERT_TRUE(observer_->waitForState("coins", State::purchasing));
  settle();  // the payment task has armed its timer

  nowMs = 4000;
  MainQueue::shared().fireDueTimers();
  settle();
  EXPECT_EQ(observer_->updates().size(), 1u) << "not due yet";

  nowMs = 5000;
  MainQueue::shared().fireDueTimers();
  EXPECT_TRUE(observer_->waitForState("coins", State::purchased));
  MainQueue::shared().setNowFunction(nullptr);
}

// ---------------------------------------------------------------------------

TEST_F(PurchaseTest, RestoreWithNothingToRestoreJustFinishes) {
  buy("coins");  // consumables are not restored
  ASSERT_TRUE(observer_->waitForState("coins", State::purchased));
  store_->restoreCompletedTransactions();
  ASSERT_TRUE(observer_->waitForRestoreAnswer());
  EXPECT_EQ(observer_->restoreFinished(), 1);
  for (const auto& t : observer_->updates()) EXPECT_NE(t->transactionState, State::restored);
}

TEST_F(PurchaseTest, RestoreBringsBackPurchasesOfAnEarlierStore) {
  buy("lifetime");
  buy("pro.monthly");
  buy("coins");
  auto lifetime = observer_->waitForState("lifetime", State::purchased);
  auto monthly = observer_->waitForState("pro.monthly", State::purchased);
  ASSERT_TRUE(lifetime && monthly && observer_->waitForState("coins", State::purchased));
  for (const auto& t : store_->transactions()) store_->finishTransaction(t);
  settle();
  store_.reset();

  auto later = makeStore();
  auto recorder = observe(later);
  later->restoreCompletedTransactions();
  ASSERT_TRUE(recorder->waitForRestoreAnswer());
  EXPECT_EQ(recorder->restoreFinished(), 1);
  auto batches = recorder->batches();
  ASSERT_EQ(batches.size(), 1u);
  std::map<std::string, SKPaymentTransactionPtr> restored;
  for (const auto& t : batches[0]) restored[t->payment.productIdentifier()] = t;
  ASSERT_EQ(restored.size(), 2u);
  for (const auto& [id, original] : {std::pair{"lifetime", lifetime}, {"pro.monthly", monthly}}) {
    const auto& t = restored[id];
    ASSERT_TRUE(t) << id;
    EXPECT_EQ(t->transactionState, State::restored);
    ASSERT_TRUE(t->originalTransaction);
    EXPECT_EQ(t->originalTransaction->transactionIdentifier, original->transactionIdentifier);
    EXPECT_NE(t->transactionIdentifier, original->transactionIdentifier);
  }
}

TEST_F(PurchaseTest, RestoreCanBeMadeToFailOrHang) {
  store_->setRestoreBehaviour(LocalStore::RestoreBehaviour::fail);
  store_->restoreCompletedTransactions();
  ASSERT_TRUE(observer_->waitForRestoreAnswer());
  EXPECT_EQ(observer_->restoreErrors().size(), 1u);

  auto config = standardConfiguration();
  config["restore"] = "hang";
  writeConfiguration(config);
  auto hanging = makeStore();
  auto recorder = observe(hanging);
  hanging->restoreCompletedTransactions();
  EXPECT_FALSE(recorder->waitForRestoreAnswer(500ms)) << "hung restores answer nothing";
}

// ---------------------------------------------------------------------------

TEST_F(PurchaseTest, ReceiptIsSignedWithTheExportedKeyAndListsTheTransactions) {
  SKMutablePayment payment("pro.monthly");
  payment.setApplicationUsername("acct");
  store_->addPayment(payment);
  auto purchased = observer_->waitForState("pro.monthly", State::purchased);
  ASSERT_TRUE(purchased);

  auto pem = store_->receiptPublicKeyPem();
  ASSERT_TRUE(pem);
  std::ifstream keyFile(storeDirectory() / "receipt-public-key.pem");
  std::stringstream keyText;
  keyText << keyFile.rdbuf();
  EXPECT_EQ(keyText.str(), *pem);

  auto receipt = readJson(receiptPath());
  std::string payload = unbase64(receipt["payload"].get<std::string>());
  std::string signature = unbase64(receipt["signature"].get<std::string>());
  EXPECT_TRUE(ed25519Verifies(*pem, payload, signature));
  std::string tampered = payload;
  tampered[tampered.find("pro.monthly")] = 'P';
  EXPECT_FALSE(ed25519Verifies(*pem, tampered, signature));

  auto content = nlohmann::json::parse(payload);
  EXPECT_EQ(content["bundle_id"], "com.example.velquintest");
  ASSERT_EQ(content["transactions"].size(), 1u);
  const auto& entry = content["transactions"][0];
  EXPECT_EQ(entry["transaction_id"], purchased->transactionIdentifier);
  EXPECT_EQ(entry["original_transaction_id"], purchased->transactionIdentifier);
  EXPECT_EQ(entry["app_account_token"], "acct");
  auto days = (entry["expires_date_ms"].get<std::int64_t>() -
               entry["purchase_date_ms"].get<std::int64_t>()) / 86'400'000;
  EXPECT_GE(days, 28);
  EXPECT_LE(days, 31);

  // A second subscription purchase in the group keeps the original id; the
  // key is reused across store instances.
  auto other = makeStore();
  auto recorder = observe(other);
  other->addPayment(SKMutablePayment("pro.monthly"));
  // The first purchase, still unfinished, comes back too.
  ASSERT_EQ(recorder->waitForAll("pro.monthly", State::purchased, 2).size(), 2u);
  EXPECT_EQ(other->receiptPublicKeyPem(), pem);
  auto second = nlohmann::json::parse(unbase64(readJson(receiptPath())["payload"]));
  ASSERT_EQ(second["transactions"].size(), 2u);
  EXPECT_EQ(second["transactions"][1]["original_transaction_id"], purchased->transactionIdentifier);
}

TEST_F(PurchaseTest, AccountTokenThatIsNotUtf8IsStoredWithoutHarm) {
  SKMutablePayment payment("lifetime");
  payment.setApplicationUsername(std::string("bad\xff\xfe"));
  store_->addPayment(payment);
  ASSERT_TRUE(observer_->waitForState("lifetime", State::purchased));
  auto receipt = readJson(receiptPath());
  EXPECT_TRUE(ed25519Verifies(*store_->receiptPublicKeyPem(),
                              unbase64(receipt["payload"].get<std::string>()),
                              unbase64(receipt["signature"].get<std::string>())));
}

class RefreshDelegate : public SKRequestDelegate, public Waitable {
 public:
  void requestDidFinish(SKRequest&) override { record([&] { ++finished; }); }
  void requestDidFailWithError(SKRequest&, const Error& e) override { record([&] { error = e; }); }
  bool wait() { return waitUntil([&] { return finished > 0 || error; }); }
  int finished = 0;            // guarded by mutex_
  std::optional<Error> error;  // guarded by mutex_
};

TEST_F(StoreTest, ReceiptRefreshWritesAReceiptForTheActiveStore) {
  LocalStore::setConfigurationPath(configPath());
  auto delegate = std::make_shared<RefreshDelegate>();
  auto request = SKReceiptRefreshRequest::create();
  request->setDelegate(delegate);
  request->start();
  ASSERT_TRUE(delegate->wait());
  EXPECT_EQ(delegate->finished, 1);
  ASSERT_EQ(StoreKit::appStoreReceiptPath(), receiptPath());
  auto payload = nlohmann::json::parse(unbase64(readJson(receiptPath())["payload"]));
  EXPECT_TRUE(payload["transactions"].empty());
}

// ---------------------------------------------------------------------------

class OfferTest : public PurchaseTest {
 protected:
  OfferTest() {
    auto config = standardConfiguration();
    config["offer_public_key"] = key_.publicKeyPem();
    writeConfiguration(config);
  }
  SKMutablePayment offerPayment(const std::string& offerId, const OfferSigningKey& signer) {
    SKPaymentDiscount discount{.identifier = offerId, .keyIdentifier = "KEY1",
                               .nonce = "6B9E5E1A-0C0B-4C36-A0F3-2E3D2C1B0A99",
                               .signature = {}, .timestamp = 1700000000000};
    const std::string sep = "\xE2\x81\xA3";
    discount.signature = signer.sign("com.example.velquintest" + sep + "KEY1" + sep +
                                     "pro.monthly" + sep + offerId + sep + "user-7" + sep +
                                     "6b9e5e1a-0c0b-4c36-a0f3-2e3d2c1b0a99" + sep +
                                     "1700000000000");
    SKMutablePayment payment("pro.monthly");
    payment.setApplicationUsername("USER-7");
    payment.setPaymentDiscount(discount);
    return payment;
  }
  OfferSigningKey key_;
};

TEST_F(OfferTest, ValidSignatureBuysWithTheOffer) {
  store_->addPayment(offerPayment("winback", key_));
  ASSERT_TRUE(observer_->waitForState("pro.monthly", State::purchased));
  auto payload = nlohmann::json::parse(unbase64(readJson(receiptPath())["payload"]));
  EXPECT_EQ(payload["transactions"][0]["offer_id"], "winback");
}

TEST_F(OfferTest, ForgedAlteredOrUnknownOffersFail) {
  OfferSigningKey forger;
  auto altered = offerPayment("winback", key_);
  auto discount = *altered.paymentDiscount();
  discount.timestamp += 1;
  altered.setPaymentDiscount(discount);
  store_->addPayment(offerPayment("winback", forger));
  store_->addPayment(altered);
  store_->addPayment(offerPayment("no-such-offer", key_));

  auto failed = observer_->waitForAll("pro.monthly", State::failed, 3);
  ASSERT_EQ(failed.size(), 3u);
  std::vector<std::int64_t> codes;
  for (const auto& t : failed) codes.push_back(t->error ? t->error->code : -1);
  EXPECT_EQ(codes, (std::vector<std::int64_t>{12, 12, 11}));
  EXPECT_FALSE(std::filesystem::exists(receiptPath()));
}

// ---------------------------------------------------------------------------

TEST_F(PurchaseTest, PromotedPurchaseProceedsOnlyWhenAnObserverAgrees) {
  auto second = observe(store_);
  store_->promote("lifetime");
  ASSERT_TRUE(second->waitForPromotions(1));
  settle();
  EXPECT_EQ(second->promotedProducts(), std::vector<std::string>{"lifetime/lifetime"});
  EXPECT_TRUE(observer_->updates().empty()) << "nobody agreed, so no payment";

  second->answerPromotion = true;
  store_->promote("lifetime");
  ASSERT_TRUE(observer_->waitForState("lifetime", State::purchased));
  EXPECT_EQ(observer_->promotedProducts().size(), 2u);
}

// ---------------------------------------------------------------------------

TEST_F(PurchaseTest, ProductRequestsAnswerEachCallerWithItsOwnProducts) {
  StoreKit::install(store_);
  auto first = std::make_shared<ProductsDelegate>();
  auto second = std::make_shared<ProductsDelegate>();
  auto firstRequest = SKProductsRequest::create({"pro.monthly", "nope"});
  auto secondRequest = SKProductsRequest::create({"lifetime"});
  firstRequest->setDelegate(first);
  secondRequest->setDelegate(second);
  firstRequest->start();
  secondRequest->start();
  ASSERT_TRUE(first->waitForAnswer() && second->waitForAnswer());

  EXPECT_EQ(first->answeredRequest(), firstRequest.get());
  auto response = first->response();
  ASSERT_TRUE(response);
  ASSERT_EQ(response->products.size(), 1u);
  const SKProduct& monthly = *response->products[0];
  EXPECT_EQ(monthly.price.stringValue(), "9.99");
  EXPECT_DOUBLE_EQ(monthly.price.doubleValue(), 9.99);
  EXPECT_EQ(monthly.subscriptionPeriod, (SKProductSubscriptionPeriod{1, SKProductPeriodUnit::month}));
  ASSERT_TRUE(monthly.introductoryPrice);
  EXPECT_EQ(monthly.introductoryPrice->paymentMode, SKProductDiscountPaymentMode::freeTrial);
  ASSERT_EQ(monthly.discounts.size(), 1u);
  EXPECT_EQ(monthly.discounts[0].identifier, "winback");
  EXPECT_EQ(response->invalidProductIdentifiers, std::vector<std::string>{"nope"});
  EXPECT_EQ(first->finishes(), 1);

  auto other = second->response();
  ASSERT_TRUE(other);
  ASSERT_EQ(other->products.size(), 1u);
  EXPECT_EQ(other->products[0]->priceLocale.currencyCode, "EUR");
  EXPECT_TRUE(other->invalidProductIdentifiers.empty());
}

TEST_F(PurchaseTest, CancelledProductRequestStaysSilent) {
  StoreKit::install(store_);
  auto delegate = std::make_shared<ProductsDelegate>();
  auto request = SKProductsRequest::create({"coins"});
  request->setDelegate(delegate);
  // Both on the main queue, so the store's answer cannot come in between.
  MainQueue::shared().sync([&] {
    request->start();
    request->cancel();
  });
  EXPECT_FALSE(delegate->waitForAnswer(300ms));
}

// ---------------------------------------------------------------------------

class BrokenConfigurationTest : public PurchaseTest,
                                public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(BrokenConfigurationTest, EveryCallbackReportsTheProblem) {
  const auto& [text, expected] = GetParam();
  if (std::string(text) == "<missing>") {
    std::filesystem::remove(configPath());
  } else {
    writeConfigurationText(text);
  }
  StoreKit::install(store_);
  auto delegate = std::make_shared<ProductsDelegate>();
  auto request = SKProductsRequest::create({"coins"});
  request->setDelegate(delegate);
  request->start();
  ASSERT_TRUE(delegate->waitForAnswer());
  auto error = delegate->error();
  ASSERT_TRUE(error);
  EXPECT_NE(error->message.find(configPath().string()), std::string::npos) << error->message;
  EXPECT_NE(error->message.find(expected), std::string::npos) << error->message;

  buy("coins");
  auto failed = observer_->waitForState("coins", State::failed);
  ASSERT_TRUE(failed && failed->error);
  EXPECT_EQ(failed->error->message, error->message);

  store_->restoreCompletedTransactions();
  ASSERT_TRUE(observer_->waitForRestoreAnswer());
  ASSERT_EQ(observer_->restoreErrors().size(), 1u);
  EXPECT_FALSE(store_->canMakePayments());
}

std::string brokenFileName(
    const ::testing::TestParamInfo<BrokenConfigurationTest::ParamType>& param) {
  const char* kinds[] = {"Missing", "Malformed", "WrongType", "WrongValueType"};
  return kinds[param.index];
}

INSTANTIATE_TEST_SUITE_P(
    Files, BrokenConfigurationTest,
    ::testing::Values(std::pair{"<missing>", "cannot open"},
                      std::pair{"{\"products\": [", "not valid JSON"},
                      std::pair{"{\"products\": {}}", "products: expected an array"},
                      std::pair{R"({"products": [{"type": "consumable", "id": "coins", "price": true}]})",
                                "products[0].price: expected a number or decimal text"}),
    brokenFileName);

}  // namespace
}  // namespace velquin::testing
