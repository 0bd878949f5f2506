// The paywall end to end: a real web view under the test's display, the
// local store, and the sandbox over TLS.
#include <libsoup/soup.h>
#include <webkit/webkit.h>

#include <atomic>
#include <map>
#include <thread>

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

// What the paywall told its host, in order.
struct RecordingDelegate : gtk::PaywallDelegate {
  std::vector<std::string> calls;
  std::vector<std::optional<Error>> purchaseErrors;
  std::vector<std::optional<OVSubscriber>> subscribers;
  std::vector<Error> failures;
  void paywallPresented() override { calls.push_back("presented"); }
  void paywallPurchaseStarted(const std::string& id) override { calls.push_back("started " + id); }
  void paywallPurchaseFinished(const std::string& id, const std::optional<OVSubscriber>& subscriber,
                               const std::optional<Error>& error) override {
    calls.push_back("finished " + id);
    subscribers.push_back(subscriber);
    purchaseErrors.push_back(error);
  }
  void paywallFailed(const Error& error) override {
    calls.push_back("failed");
    failures.push_back(error);
  }
  void paywallClosed() override { calls.push_back("closed"); }
};

// A site on loopback serving fixed pages, on the test's main context.
class LoopbackSite {
 public:
  explicit LoopbackSite(std::map<std::string, std::string> pages) : pages_(std::move(pages)) {
    server_ = soup_server_new(nullptr, nullptr);
    soup_server_add_handler(server_, nullptr, &LoopbackSite::serve, this, nullptr);
    GError* error = nullptr;
    EXPECT_TRUE(soup_server_listen_local(server_, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, &error));
    GSList* uris = soup_server_get_uris(server_);
    if (uris) port_ = g_uri_get_port(static_cast<GUri*>(uris->data));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
  }
  ~LoopbackSite() {
    soup_server_disconnect(server_);
    g_object_unref(server_);
  }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  std::vector<std::string> requested;

 private:
  static void serve(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                    gpointer data) {
    auto* self = static_cast<LoopbackSite*>(data);
    self->requested.push_back(path);
    auto found = self->pages_.find(path);
    if (found == self->pages_.end()) {
      soup_server_message_set_status(message, 404, nullptr);
      return;
    }
    soup_server_message_set_status(message, 200, nullptr);
    soup_server_message_set_response(message, "text/html", SOUP_MEMORY_COPY, found->second.data(),
                                     found->second.size());
  }
  SoupServer* server_ = nullptr;
  std::map<std::string, std::string> pages_;
  int port_ = 0;
};

class PaywallTest : public PagesTest {
 protected:
  void SetUp() override {
    PagesTest::SetUp();
    if (HasFatalFailure()) return;
    gtk::setPaywallDelegate(delegate);
    gtk::setUriLauncher([this](GtkWindow*, const std::string& uri) { launched.push_back(uri); });
  }
  void TearDown() override {
    PagesTest::TearDown();
    gtk::setPaywallDelegate(nullptr);
    gtk::setUriLauncher(nullptr);
  }

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

  // A round trip through the bridge: once it is answered, every message the
  // page posted before it was handled.
  void roundTrip(WebKitWebView* view) {
    int before = std::stoi(evaluate(view, "window.skus.length"));
    evaluate(view, std::string("ask(['") + kMonthly + "'])");
    skuText(view, before);
  }

  GtkWindow* host = nullptr;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::vector<std::string> launched;  // what the URI launcher was asked to open
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

TEST_F(PaywallTest, MessagesOfTheWrongShapeAreIgnoredOrAnsweredEmpty) {
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  // Bodies that are not strings, and a name nobody registered.
  evaluate(view, "window.webkit.messageHandlers.getSkuDetails.postMessage(['a'])");
  evaluate(view, "window.webkit.messageHandlers.purchase.postMessage({id: 'a'})");
  EXPECT_EQ(evaluate(view, "typeof window.webkit.messageHandlers.restore"), "\"undefined\"");
  // A string that is not a list of ids finds nothing, and the page hears so.
  evaluate(view, "window.webkit.messageHandlers.getSkuDetails.postMessage('{\"a\":1}')");
  EXPECT_EQ(skuText(view, 0), "[]");
  EXPECT_FALSE(paywall->isBusy());
  // Messages are handled in order: once this answer is in, the others were seen.
  evaluate(view, "ask(['a'])");
  EXPECT_EQ(nlohmann::json::parse(skuText(view, 1))[0]["productId"], "a");
  EXPECT_EQ(evaluate(view, "window.skus.length"), "2");
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

  // The host heard all of it, with the backend's subscriber.
  EXPECT_EQ(delegate->calls,
            (std::vector<std::string>{"presented", std::string("started ") + kMonthly,
                                      std::string("finished ") + kMonthly, "closed"}));
  ASSERT_EQ(delegate->subscribers.size(), 1u);
  ASSERT_TRUE(delegate->subscribers[0]);
  EXPECT_TRUE(delegate->subscribers[0]->isActive);
  EXPECT_EQ(delegate->subscribers[0]->productId, kMonthly);
  EXPECT_FALSE(delegate->purchaseErrors[0]);
}

TEST_F(PaywallTest, ADoubleClickBuysOnceAndThePageHearsOnceForItsProduct) {
  ASSERT_TRUE(configureAndIterate());
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  evaluate(view, std::string("ask(['") + kMonthly + "','" + kYearly + "'])");
  skuText(view, 0);
  // Two clicks before any answer, the second on another plan.
  evaluate(view, std::string("buy('") + kMonthly + "'); buy('" + kYearly + "'); true");
  auto call = purchaseCall(view);
  EXPECT_EQ(call[1], "true");
  EXPECT_EQ(nlohmann::json::parse(call[0].get<std::string>())["productId"], kMonthly);
  roundTrip(view);
  EXPECT_EQ(evaluate(view, "window.purchases.length"), "1");
  EXPECT_EQ(server->calls("VerifyReceipt").size(), 1u);
  EXPECT_EQ(std::count(delegate->calls.begin(), delegate->calls.end(),
                       std::string("started ") + kMonthly),
            1);
  EXPECT_EQ(
      std::count(delegate->calls.begin(), delegate->calls.end(), std::string("started ") + kYearly),
      0);
  // Once it is over, the next purchase goes through again.
  paywall->pressAlertOK();
  EXPECT_FALSE(paywall->isBusy());
}

TEST_F(PaywallTest, ADeferredPaymentStopsTheSpinnerAndKeepsThePageWaitingForItsAnswer) {
  ASSERT_TRUE(configureAndIterate());
  store->setOutcome(kMonthly, {LocalStore::Outcome::askToBuy});
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  evaluate(view, std::string("ask(['") + kMonthly + "'])");
  skuText(view, 0);
  evaluate(view, std::string("buy('") + kMonthly + "'); true");
  ASSERT_TRUE(iterateUntil([&] { return delegate->calls.size() >= 2; }));
  EXPECT_TRUE(iterateUntil([&] { return !paywall->isBusy(); }));
  // Still pending: a second click starts nothing, and no answer came yet.
  evaluate(view, std::string("buy('") + kMonthly + "'); true");
  roundTrip(view);
  EXPECT_EQ(evaluate(view, "window.purchases.length"), "0");
  EXPECT_EQ(delegate->calls,
            (std::vector<std::string>{"presented", std::string("started ") + kMonthly}));
}

TEST_F(PaywallTest, HostilePagesNeverReachTheBridge) {
  const std::string attempt =
      std::string("<script>const id = '") + kMonthly +
      "'; const got = [];\n"
      "try { window.webkit.messageHandlers.purchase.postMessage(id); got.push('own'); } catch (e) "
      "{}\n"
      "try { parent.webkit.messageHandlers.purchase.postMessage(id); got.push('parent'); } catch "
      "(e) {}\n"
      "try { parent.document.dispatchEvent(new CustomEvent('velquin-bridge', {detail:"
      " JSON.stringify(['purchase', id])})); got.push('event'); } catch (e) {}\n"
      "parent.postMessage('tried:' + got.join(','), '*');</script>";
  LoopbackSite site({{"/frame", attempt}, {"/away", attempt}});
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  evaluate(view, std::string("ask(['") + kMonthly + "'])");
  skuText(view, 0);

  // A frame of another site inside the page.
  evaluate(view,
           "window.addEventListener('message', e => { window.frameSaid = e.data; });"
           "const f = document.createElement('iframe'); f.src = '" +
               site.url("/frame") + "'; document.body.appendChild(f); true");
  ASSERT_TRUE(iterateUntil([&] { return evaluate(view, "window.frameSaid || ''") != "\"\""; }));
  EXPECT_EQ(evaluate(view, "window.frameSaid"), "\"tried:\"");

  // The page sends itself elsewhere: the browser gets the address, the page stays.
  evaluate(view, "location.href = '" + site.url("/away") + "'; true");
  ASSERT_TRUE(iterateUntil([&] { return !launched.empty(); }));
  EXPECT_EQ(launched, std::vector<std::string>{site.url("/away")});
  EXPECT_STREQ(webkit_web_view_get_uri(view), "about:blank");
  EXPECT_EQ(evaluate(view, "window.ready === true"), "true");

  roundTrip(view);
  EXPECT_EQ(evaluate(view, "window.purchases.length"), "0");
  EXPECT_TRUE(server->calls("VerifyReceipt").empty());
  EXPECT_EQ(delegate->calls, std::vector<std::string>{"presented"});
}

TEST_F(PaywallTest, NewWindowsGoToTheLauncherAndLocalFilesStayOut) {
  auto paywall = presentBridge();
  auto* view = paywall->webView();
  // Its own ephemeral session: nothing of the host's cookies or cache.
  WebKitNetworkSession* session = webkit_web_view_get_network_session(view);
  EXPECT_NE(session, webkit_network_session_get_default());
  EXPECT_TRUE(webkit_network_session_is_ephemeral(session));
  guint windows = g_list_model_get_n_items(gtk_window_get_toplevels());

  // (A script's click on a target=_blank link opens nothing in WebKit
  // without a user's gesture; window.open takes the same way out.)
  evaluate(
      view,
      "window.open('https://127.0.0.1:9/terms'); window.open('mailto:help@example.com'); true");
  evaluate(view,
           "fetch('file:///etc/hostname').then(r => r.text()).then("
           "t => { window.fileRead = 'read'; }, e => { window.fileRead = 'refused'; }); true");
  evaluate(view, "location.href = 'file:///etc/hostname'; true");
  ASSERT_TRUE(waitForPage(view, "window.fileRead"));
  EXPECT_EQ(evaluate(view, "window.fileRead"), "\"refused\"");
  ASSERT_TRUE(iterateUntil([&] { return launched.size() >= 2; }))
      << ::testing::PrintToString(launched);
  roundTrip(view);
  EXPECT_EQ(launched,
            (std::vector<std::string>{"https://127.0.0.1:9/terms", "mailto:help@example.com"}));
  EXPECT_STREQ(webkit_web_view_get_uri(view), "about:blank");
  EXPECT_EQ(g_list_model_get_n_items(gtk_window_get_toplevels()), windows);
}

TEST_F(PaywallTest, CancelledPurchaseAnswersFalseAndOkLeavesThePaywallOpen) {
  ASSERT_TRUE(configureAndIterate());
  store->setOutcome(kMonthly, {LocalStore::Outcome::cancel});
  auto paywall = presentBridge();
  askAndBuy(paywall, kMonthly);

  EXPECT_EQ(paywall->alert()->title, "Error");
  EXPECT_EQ(paywall->alert()->message, "purchases error!");
  EXPECT_EQ(purchaseCall(paywall->webView())[1], "false");
  ASSERT_EQ(delegate->purchaseErrors.size(), 1u);
  ASSERT_TRUE(delegate->purchaseErrors[0]);
  EXPECT_EQ(delegate->purchaseErrors[0]->code, 2);
  EXPECT_FALSE(delegate->subscribers[0]);
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

TEST_F(PaywallTest, LoadPaywallWaitsForAWindowAndFailsWhenNoneComes) {
  ASSERT_TRUE(configureAndIterate());
  useManualClock();
  auto out = std::make_shared<Shown>();
  Velquin::shared().loadPaywallToPurachase(into(out));
  advance(std::chrono::seconds(9), std::chrono::milliseconds(500));
  EXPECT_EQ(out->calls, 0);
  advance(std::chrono::seconds(2), std::chrono::milliseconds(500));
  ASSERT_TRUE(iterateUntil([&] { return out->calls > 0; }));
  EXPECT_FALSE(out->shown);
  EXPECT_EQ(out->message, "paywall show failed");
  EXPECT_TRUE(VelQuinOVPPaywallviewController::presented().empty());

  // Asked again before the window is up: shown once it is.
  auto later = std::make_shared<Shown>();
  Velquin::shared().loadPaywallToPurachase(into(later));
  advance(std::chrono::seconds(1), std::chrono::milliseconds(500));
  host = openHostWindow(/*adwaita=*/true);
  advance(std::chrono::milliseconds(500), std::chrono::milliseconds(100));
  ASSERT_TRUE(iterateUntil([&] { return later->calls > 0; }));
  EXPECT_TRUE(later->shown);
  ASSERT_EQ(VelQuinOVPPaywallviewController::presented().size(), 1u);
  EXPECT_EQ(gtk_window_get_transient_for(VelQuinOVPPaywallviewController::presented()[0]->window()),
            host);
}

TEST_F(PaywallTest, LoadPaywallAnswersOnTheMainThreadWhenTheBackendIsDown) {
  // Nothing cached: the page must be fetched, and the backend is gone.
  server->stop();
  auto thread = std::make_shared<std::thread::id>();
  auto out = std::make_shared<Shown>();
  Velquin::shared().loadPaywallToPurachase([out, thread](bool shown, std::optional<std::string> m) {
    *thread = std::this_thread::get_id();
    into(out)(shown, std::move(m));
  });
  ASSERT_TRUE(iterateUntil([&] { return out->calls > 0; }, std::chrono::seconds(60)));
  EXPECT_EQ(*thread, std::this_thread::get_id());
  EXPECT_FALSE(out->shown);
  EXPECT_EQ(out->message, "Data error for re-request paywall");
  server.reset();
}

TEST_F(PaywallTest, EscapeClosesAndAPaywallOpenedFromADialogOutlivesIt) {
  host = openHostWindow();
  GtkWindow* dialog = GTK_WINDOW(gtk_window_new());
  gtk_window_set_transient_for(dialog, host);
  gtk_window_set_modal(dialog, TRUE);
  gtk_window_present(dialog);
  ASSERT_TRUE(iterateUntil([&] { return gtk_window_is_active(dialog); }));
  ASSERT_EQ(gtk::VelQuinOVPTopViewController::topWindow(), dialog);
  auto paywall = VelQuinOVPPaywallviewController::create(kBridgePage);
  paywall->presentOver(dialog);
  ASSERT_TRUE(waitForPage(paywall->webView(), "window.ready"));

  gtk_window_destroy(dialog);
  EXPECT_TRUE(paywall->isPresented());
  EXPECT_EQ(gtk_window_get_transient_for(paywall->window()), host);
  // Still working: the bridge answers.
  evaluate(paywall->webView(), std::string("ask(['") + kMonthly + "'])");
  skuText(paywall->webView(), 0);

  ASSERT_TRUE(pressEscape(paywall->window()));
  EXPECT_FALSE(paywall->isPresented());
  EXPECT_EQ(delegate->calls.back(), "closed");
}

TEST_F(PaywallTest, CloseButtonAndSpinnerAreDarkOnTheWhitePageInBothThemes) {
  for (bool dark : {false, true}) {
    SCOPED_TRACE(dark ? "dark" : "light");
    g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", dark, nullptr);
    auto paywall = presentBridge();
    for (GtkWidget* widget : {paywall->closeButton(), paywall->activityIndicator()}) {
      GdkRGBA colour;
      G_GNUC_BEGIN_IGNORE_DEPRECATIONS
      gtk_style_context_get_color(gtk_widget_get_style_context(widget), &colour);
      G_GNUC_END_IGNORE_DEPRECATIONS
      // Dark enough to read on white.
      EXPECT_LT(0.2126 * colour.red + 0.7152 * colour.green + 0.0722 * colour.blue, 0.35);
    }
    screenshot(GTK_WIDGET(paywall->window()), dark ? "paywall-dark-theme" : "paywall-light-theme");
    paywall->closeAction();
  }
  g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", FALSE, nullptr);
}

class NoStorePaywallTest : public PaywallTest {
 protected:
  void beforeSdk() override { std::filesystem::remove(env.root() / "store-config.json"); }
};

TEST_F(NoStorePaywallTest, WithoutAStoreConfigurationThePageGetsAnEmptyListAndTheHostTheReason) {
  auto paywall = presentBridge();
  evaluate(paywall->webView(), std::string("ask(['") + kMonthly + "'])");
  EXPECT_EQ(skuText(paywall->webView(), 0), "[]");
  EXPECT_FALSE(paywall->isBusy());
  ASSERT_EQ(delegate->failures.size(), 1u);
  EXPECT_NE(delegate->failures[0].message.find("store-config.json"), std::string::npos)
      << delegate->failures[0].message;
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
