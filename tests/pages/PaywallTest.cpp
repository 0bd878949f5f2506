// The paywall end to end: a real web view under the test's display, the
// local store, and the sandbox over TLS.
#include <webkit/webkit.h>

#include <atomic>

#include "PageFixture.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::testing {
namespace {

using gtk::VelQuinOVPPaywallviewController;

// A page that records what the SDK tells it and exposes ask() and buy().
constexpr const char* kBridgePage = R"html(<!DOCTYPE html>
<html><head><meta charset="utf-8"><title>bridge</title>
<style>body{font-family:sans-serif;padding:2em} li{margin:.5em 0}</style></head>
<body><h1>Bridge test</h1><ul id="list"></ul><p id="outcome"></p>
<script>
window.skus = []; window.purchases = [];
function getSkuDetailsCallback(text) {
  window.skus.push(text);
  const list = document.getElementById('list'); list.textContent = '';
  for (const p of JSON.parse(text)) {
    const li = document.createElement('li');
    li.textContent = p.title + ' — ' + p.price;
    list.appendChild(li);
  }
}
function purchaseCallback(record, ok) {
  window.purchases.push([record, ok]);
  document.getElementById('outcome').textContent = 'bought: ' + ok;
}
function ask(ids) { window.webkit.messageHandlers.getSkuDetails.postMessage(JSON.stringify(ids)); }
function buy(id) { window.webkit.messageHandlers.purchase.postMessage(id); }
window.ready = true;
</script></body></html>)html";

constexpr const char* kMonthly = "com.velquin.demo.monthly";
constexpr const char* kYearly = "com.velquin.demo.yearly";
// A title that breaks naive quoting: quotes, a backslash, a line break, U+2028.
const std::string kHostileTitle = "It's \"ok\" \\ done\nnext\u2028line";

class PaywallTest : public PagesTest {
 protected:
  nlohmann::json sandboxConfig() override { return {{"paywall_page", kBridgePage}}; }
  nlohmann::json storeConfig() override {
    auto config = PagesTest::storeConfig();
    config["products"].push_back({{"type", "auto-renewable"}, {"id", "a"}, {"title", "Plan A"},
                                  {"description", "first"}, {"price", "4.99"}, {"group", "g"},
                                  {"locale", "de_DE"}, {"currency", "EUR"},
                                  {"subscription_period", {{"unit", "week"}, {"count", 1}}}});
    config["products"].push_back({{"type", "non-consumable"}, {"id", "c"},
                                  {"title", kHostileTitle}, {"description", "third"},
                                  {"price", "1.50"}, {"currency", ""}});
    return config;
  }

  // Presents the bridge page over a host window and waits until it runs.
  std::shared_ptr<VelQuinOVPPaywallviewController> presentBridge() {
    host = openHostWindow();
    auto paywall = VelQuinOVPPaywallviewController::create(kBridgePage);
    paywall->presentOver(host);
    EXPECT_TRUE(waitForPage(paywall->webView(), "window.ready"));
    return paywall;
  }
  // The i-th text the page received through getSkuDetailsCallback.
  std::string skuText(WebKitWebView* view, int i) {
    EXPECT_TRUE(iterateUntil([&] {
      return evaluate(view, "window.skus.length > " + std::to_string(i)) == "true";
    }));
    return nlohmann::json::parse(evaluate(view, "window.skus[" + std::to_string(i) + "]"))
        .get<std::string>();
  }
  // Buys `id` from the page, after asking for it, and waits for the alert.
  void askAndBuy(const std::shared_ptr<VelQuinOVPPaywallviewController>& paywall,
                 const std::string& id) {
    evaluate(paywall->webView(), "ask(['" + id + "'])");
    skuText(paywall->webView(), 0);
    evaluate(paywall->webView(), "buy('" + id + "')");
    ASSERT_TRUE(iterateUntil([&] { return paywall->alert().has_value(); }));
  }
  nlohmann::json purchaseCall(WebKitWebView* view) {
    EXPECT_TRUE(iterateUntil([&] { return evaluate(view, "window.purchases.length") == "1"; }));
    return nlohmann::json::parse(evaluate(view, "window.purchases[0]"));
  }

  GtkWindow* host = nullptr;
};

TEST_F(PaywallTest, PageReceivesTheKnownProductsInItsOrderWithExactRecords) {
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  // The store knows "a" and "c", not "b".
  evaluate(view, "ask(['c','b','a'])");
  auto text = skuText(view, 0);
  auto records = nlohmann::json::parse(text);
  ASSERT_EQ(records.size(), 2u) << text;
  EXPECT_EQ(text.rfind(R"([{"description":"third","freeTrialPeriod":"","isActive":false,)", 0), 0u)
      << text;

  const auto& c = records[0];
  EXPECT_EQ(c["productId"], "c");
  EXPECT_EQ(c["title"], kHostileTitle);
  EXPECT_EQ(c["type"], "other");
  EXPECT_FALSE(c.contains("subscriptionPeriod"));
  EXPECT_FALSE(c.contains("price_currency_code"));
  EXPECT_EQ(c["price"], "1.50");
  EXPECT_EQ(c["price_amount_micros"], "");

  const auto& a = records[1];
  EXPECT_EQ(a["productId"], "a");
  EXPECT_EQ(a["type"], "subs");
  EXPECT_EQ(a["subscriptionPeriod"], 0);
  EXPECT_EQ(a["price_currency_code"], "EUR");
  EXPECT_EQ(a["price"], "4,99\u00a0€");
  EXPECT_EQ(a["freeTrialPeriod"], "");
  EXPECT_EQ(a["isActive"], false);
  EXPECT_FALSE(paywall->isBusy());
  screenshot(GTK_WIDGET(paywall->window()), "paywall-bridge");
}

TEST_F(PaywallTest, MessagesOfTheWrongShapeAreIgnored) {
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  // Bodies that are not strings, and a name nobody registered.
  evaluate(view, "window.webkit.messageHandlers.getSkuDetails.postMessage(['a'])");
  evaluate(view, "window.webkit.messageHandlers.purchase.postMessage({id: 'a'})");
  EXPECT_EQ(evaluate(view, "typeof window.webkit.messageHandlers.restore"), "\"undefined\"");
  // A string that is not a list of ids asks for nothing.
  evaluate(view, "window.webkit.messageHandlers.getSkuDetails.postMessage('{\"a\":1}')");
  // Messages are handled in order: once this answer is in, the others were seen.
  evaluate(view, "ask(['a'])");
  EXPECT_EQ(nlohmann::json::parse(skuText(view, 0))[0]["productId"], "a");
  EXPECT_EQ(evaluate(view, "window.skus.length"), "1");
  EXPECT_EQ(evaluate(view, "window.purchases.length"), "0");
  EXPECT_TRUE(store->transactions().empty());
}

TEST_F(PaywallTest, BuyingAProductThePageNeverFetchedDoesNothing) {
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  evaluate(view, std::string("buy('") + kYearly + "')");
  evaluate(view, std::string("ask(['") + kMonthly + "'])");
  skuText(view, 0);
  EXPECT_EQ(evaluate(view, "window.purchases.length"), "0");
  EXPECT_TRUE(store->transactions().empty());
  EXPECT_FALSE(paywall->alert());
  EXPECT_FALSE(paywall->isBusy());
}

TEST_F(PaywallTest, SuccessfulPurchaseAnswersTrueAndOkClosesThePaywall) {
  ASSERT_TRUE(configureAndIterate());
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  auto subscriberCalls = server->calls("GetSubscriber").size();
  askAndBuy(paywall, kMonthly);

  EXPECT_EQ(paywall->alert()->title, "Success");
  EXPECT_EQ(paywall->alert()->message, "purchases success!");
  auto call = purchaseCall(view);
  EXPECT_EQ(call[1], "true");
  EXPECT_EQ(nlohmann::json::parse(call[0].get<std::string>())["productId"], kMonthly);
  // The subscriber is asked for again.
  EXPECT_TRUE(iterateUntil([&] { return server->calls("GetSubscriber").size() > subscriberCalls; }));
  screenshot(GTK_WIDGET(paywall->window()), "paywall-after-purchase");
  screenshot(GTK_WIDGET(paywall->alert()->window), "paywall-success-alert");

  std::weak_ptr<VelQuinOVPPaywallviewController> weak = paywall;
  paywall->pressAlertOK();
  paywall.reset();
  EXPECT_TRUE(iterateUntil([&] { return weak.expired(); }));
  EXPECT_TRUE(VelQuinOVPPaywallviewController::presented().empty());
}

TEST_F(PaywallTest, CancelledPurchaseAnswersFalseAndOkLeavesThePaywallOpen) {
  ASSERT_TRUE(configureAndIterate());
  store->setOutcome(kMonthly, {LocalStore::Outcome::cancel});
  auto paywall = presentBridge();
  askAndBuy(paywall, kMonthly);

  EXPECT_EQ(paywall->alert()->title, "Error");
  EXPECT_EQ(paywall->alert()->message, "purchases error!");
  EXPECT_EQ(purchaseCall(paywall->webView())[1], "false");
  screenshot(GTK_WIDGET(paywall->alert()->window), "paywall-error-alert");
  paywall->pressAlertOK();
  EXPECT_FALSE(paywall->alert());
  EXPECT_TRUE(paywall->isPresented());
  EXPECT_EQ(VelQuinOVPPaywallviewController::presented().size(), 1u);
}

TEST_F(PaywallTest, ClosingRemovesTheBridgeAndFreesThePaywall) {
  auto paywall = presentBridge();
  std::weak_ptr<VelQuinOVPPaywallviewController> weak = paywall;
  g_signal_emit_by_name(paywall->closeButton(), "clicked");
  EXPECT_FALSE(paywall->isPresented());
  paywall.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_TRUE(VelQuinOVPPaywallviewController::presented().empty());
  // The host is the active window again, so the next paywall can be shown over it.
  EXPECT_TRUE(iterateUntil([&] { return gtk_window_is_active(host); }));
  EXPECT_EQ(gtk::VelQuinOVPTopViewController::topWindow(), host);
}

TEST_F(PaywallTest, WithoutAPageTheControllerFetchesItFromTheBackend) {
  ASSERT_TRUE(configureAndIterate());
  host = openHostWindow();
  auto paywall = VelQuinOVPPaywallviewController::create(std::nullopt);
  paywall->presentOver(host);
  EXPECT_TRUE(paywall->isBusy());
  EXPECT_TRUE(waitForPage(paywall->webView(), "window.ready"));
  EXPECT_TRUE(iterateUntil([&] { return !paywall->isBusy(); }));
}

struct Shown {
  std::atomic<int> calls{0};
  bool shown = false;
  std::optional<std::string> message;
};

PagePresenter::PaywallCompletion into(const std::shared_ptr<Shown>& out) {
  return [out](bool shown, std::optional<std::string> message) {
    out->shown = shown;
    out->message = std::move(message);
    ++out->calls;
  };
}

TEST_F(PaywallTest, LoadPaywallShowsTheCachedPageOverTheActiveWindow) {
  ASSERT_TRUE(configureAndIterate());
  host = openHostWindow();
  auto appConfigCalls = server->calls("GetAppConfig").size();
  auto out = std::make_shared<Shown>();
  Velquin::shared().loadPaywallToPurachase(into(out));
  ASSERT_TRUE(iterateUntil([&] { return out->calls > 0; }));
  EXPECT_TRUE(out->shown);
  EXPECT_FALSE(out->message);
  auto presented = VelQuinOVPPaywallviewController::presented();
  ASSERT_EQ(presented.size(), 1u);
  EXPECT_EQ(gtk_window_get_transient_for(presented[0]->window()), host);
  EXPECT_TRUE(waitForPage(presented[0]->webView(), "window.ready"));
  EXPECT_EQ(server->calls("GetAppConfig").size(), appConfigCalls);
  // Loading the page is an analytics event.
  EXPECT_TRUE(iterateUntil([&] {
    for (const auto& event : server->events()) {
      if (event.name == "ev_paywall_view") return true;
    }
    return false;
  }));
  EXPECT_EQ(out->calls, 1);
}

TEST_F(PaywallTest, LoadPaywallWithoutAWindowFails) {
  ASSERT_TRUE(configureAndIterate());
  auto out = std::make_shared<Shown>();
  Velquin::shared().loadPaywallToPurachase(into(out));
  ASSERT_TRUE(iterateUntil([&] { return out->calls > 0; }));
  EXPECT_FALSE(out->shown);
  EXPECT_EQ(out->message, "paywall show failed");
  EXPECT_TRUE(VelQuinOVPPaywallviewController::presented().empty());
}

class EmptyPaywallTest : public PagesTest {
 protected:
  nlohmann::json sandboxConfig() override { return {{"paywall_page", ""}}; }
};

TEST_F(EmptyPaywallTest, AnEmptyCachedPageIsReportedWithoutABackendCall) {
  ASSERT_TRUE(configureAndIterate());
  openHostWindow();
  auto appConfigCalls = server->calls("GetAppConfig").size();
  auto out = std::make_shared<Shown>();
  Velquin::shared().loadPaywallToPurachase(into(out));
  ASSERT_TRUE(iterateUntil([&] { return out->calls > 0; }));
  EXPECT_FALSE(out->shown);
  EXPECT_EQ(out->message, "No paywall data configured");
  EXPECT_EQ(server->calls("GetAppConfig").size(), appConfigCalls);
  EXPECT_TRUE(VelQuinOVPPaywallviewController::presented().empty());
}

}  // namespace
}  // namespace velquin::testing
