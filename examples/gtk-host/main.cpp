// velquin-gtk-demo: a small GTK host written only against the public API.
// Its start screen shows the subscription state and a "Go premium" button
// that opens the server's paywall; the welcome page lies over it at start.
//
//   velquin-gtk-demo --bundle DIR [--store-config FILE] [--paywall] [--push FILE]
//                    [--screenshots DIR] [--quit-after SECONDS] [--log]
//
// --paywall opens the paywall as soon as start-up has the page.
// --push FILE reads a push payload (JSON) from FILE and, once start-up has
// handled the app config, turns in-app message auto-show on and delivers
// the payload as one arriving in front; an in-app message it announces is
// shown over the window. With --screenshots the payload is delivered once
// the welcome page is saved (the message would cover it), and the message
// page is saved as in-app-message.png and closed before the paywall is
// driven.
// --screenshots DIR drives the app without a person: it saves the welcome
// page, opens the paywall, saves it once its prices are shown, buys the first
// plan, saves the success alert, presses "OK" and saves the start screen.
// With --quit-after the program ends after that many seconds, or as soon as
// the screenshots are done.
#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velquin/Bundle.h"
#include "velquin/MainQueue.h"
#include "velquin/NotificationCenter.h"
#include "velquin/OVPurchase.h"
#include "velquin/LocalStore.h"
#include "velquin/StoreKit.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace {

using velquin::Velquin;
using velquin::gtk::OVInAppMessagePage;
using velquin::gtk::VelQuinOVPPaywallviewController;
using velquin::gtk::VelquinWelcomePage;

struct Options {
  std::string bundle;
  std::optional<std::string> storeConfig;
  bool paywall = false;
  std::optional<std::filesystem::path> push;
  std::optional<std::filesystem::path> screenshots;
  std::optional<double> quitAfter;
  bool log = false;
};

void usage() {
  std::fprintf(stderr,
               "usage: velquin-gtk-demo --bundle DIR [--store-config FILE] [--paywall] [--push FILE]\n"
               "                        [--screenshots DIR] [--quit-after SECONDS] [--log]\n");
}

std::optional<Options> parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string(argv[++i]);
    };
    if (arg == "--bundle") {
      auto v = value();
      if (!v) return std::nullopt;
      options.bundle = *v;
    } else if (arg == "--store-config") {
      options.storeConfig = value();
      if (!options.storeConfig) return std::nullopt;
    } else if (arg == "--paywall") {
      options.paywall = true;
    } else if (arg == "--push") {
      auto v = value();
      if (!v) return std::nullopt;
      options.push = *v;
    } else if (arg == "--screenshots") {
      auto v = value();
      if (!v) return std::nullopt;
      options.screenshots = *v;
    } else if (arg == "--quit-after") {
      auto v = value();
      char* end = nullptr;
      double seconds = v ? std::strtod(v->c_str(), &end) : -1;
      if (!v || end == v->c_str() || *end || seconds <= 0) return std::nullopt;
      options.quitAfter = seconds;
    } else if (arg == "--log") {
      options.log = true;
    } else {
      return std::nullopt;
    }
  }
  if (options.bundle.empty()) return std::nullopt;
  return options;
}

// Calls `step` every 100 ms on the main loop until it returns true.
void poll(std::function<bool()> step) {
  auto* held = new std::function<bool()>(std::move(step));
  g_timeout_add_full(
      G_PRIORITY_DEFAULT, 100,
      [](gpointer data) -> gboolean {
        return (*static_cast<std::function<bool()>*>(data))() ? G_SOURCE_REMOVE
                                                              : G_SOURCE_CONTINUE;
      },
      held, [](gpointer data) { delete static_cast<std::function<bool()>*>(data); });
}

// Runs `script` in the view and hands its result, as JSON text, to `done`.
void evaluate(WebKitWebView* view, const std::string& script,
              std::function<void(std::string)> done) {
  webkit_web_view_evaluate_javascript(
      view, script.c_str(), -1, nullptr, nullptr, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer data) {
        std::unique_ptr<std::function<void(std::string)>> callback(
            static_cast<std::function<void(std::string)>*>(data));
        std::string json;
        if (JSCValue* value =
                webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(source), result, nullptr)) {
          char* text = jsc_value_to_json(value, 0);
          json = text ? text : "";
          g_free(text);
          g_object_unref(value);
        }
        (*callback)(json);
      },
      new std::function<void(std::string)>(std::move(done)));
}

// True (as JSON text) once a page's document has loaded and has content:
// right after a page is handed to a view, the view may not have started
// loading it yet.
constexpr const char* kPageReadyScript =
    "document.readyState === 'complete' && document.body !== null && "
    "document.body.childElementCount > 0";

// What the paywall tells the host: printed, and the state label read again
// once the paywall is gone.
class PaywallReport : public velquin::gtk::PaywallDelegate {
 public:
  explicit PaywallReport(std::function<void()> closed) : closed_(std::move(closed)) {}
  void paywallPurchaseStarted(const std::string& productId) override {
    std::printf("paywall: buying %s\n", productId.c_str());
    std::fflush(stdout);
  }
  void paywallPurchaseFinished(const std::string& productId,
                               const std::optional<velquin::OVSubscriber>& subscriber,
                               const std::optional<velquin::Error>& error) override {
    if (error) {
      std::printf("paywall: %s not bought: %s\n", productId.c_str(), error->message.c_str());
    } else {
      std::printf("paywall: %s bought, subscription active: %s\n", productId.c_str(),
                  subscriber && subscriber->isActive ? "yes" : "no");
    }
    std::fflush(stdout);
  }
  void paywallFailed(const velquin::Error& error) override {
    std::printf("paywall: %s\n", error.message.c_str());
    std::fflush(stdout);
  }
  void paywallClosed() override { closed_(); }

 private:
  std::function<void()> closed_;
};

class DemoApp {
 public:
  DemoApp(Options options, std::optional<nlohmann::json> payload)
      : options_(std::move(options)), payload_(std::move(payload)) {}

  int run() {
    loop_ = g_main_loop_new(nullptr, FALSE);
    buildWindow();
    auto& sdk = Velquin::shared();
    sdk.setPurchasesLogs(options_.log);
    velquin::gtk::setPaywallDelegate(std::make_shared<PaywallReport>([this] { refreshState(); }));
    appConfigToken_ = velquin::NotificationCenter::defaultCenter().addObserver(
        velquin::OVPurchase::kAppConfigHandledNotification, [this](const velquin::Notification&) {
          // Posted on a gRPC thread.
          velquin::MainQueue::shared().async([this] { startUpDone(); });
        });
    sdk.configure();
    if (options_.screenshots) {
      std::filesystem::create_directories(*options_.screenshots);
      shootWelcomePage();
    }
    if (options_.quitAfter) {
      g_timeout_add(static_cast<guint>(*options_.quitAfter * 1000), [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      }, loop_);
    }
    g_main_loop_run(loop_);
    velquin::gtk::setPaywallDelegate(nullptr);
    velquin::NotificationCenter::defaultCenter().removeObserver(appConfigToken_);
    for (auto& paywall : VelQuinOVPPaywallviewController::presented()) paywall->closeAction();
    for (auto& page : OVInAppMessagePage::shownPages()) page->closeAction();
    gtk_window_destroy(window_);
    g_main_loop_unref(loop_);
    return failed_ ? 1 : 0;
  }

 private:
  void buildWindow() {
    window_ = GTK_WINDOW(gtk_window_new());
    gtk_window_set_title(window_, "Velquin GTK demo");
    gtk_window_set_default_size(window_, 480, 720);
    g_signal_connect(window_, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer loop) -> gboolean {
                       g_main_loop_quit(static_cast<GMainLoop*>(loop));
                       return FALSE;
                     }),
                     loop_);

    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 18);
    gtk_widget_set_valign(box, GTK_ALIGN_CENTER);
    gtk_widget_set_margin_start(box, 32);
    gtk_widget_set_margin_end(box, 32);
    GtkWidget* title = gtk_label_new(nullptr);
    gtk_label_set_markup(GTK_LABEL(title), "<span size='xx-large' weight='bold'>Velquin demo</span>");
    gtk_box_append(GTK_BOX(box), title);
    state_ = gtk_label_new("Subscription: checking…");
    gtk_box_append(GTK_BOX(box), state_);
    GtkWidget* premium = gtk_button_new_with_label("Go premium");
    gtk_widget_add_css_class(premium, "suggested-action");
    g_signal_connect(premium, "clicked", G_CALLBACK(+[](GtkButton*, gpointer self) {
                       static_cast<DemoApp*>(self)->openPaywall();
                     }),
                     this);
    gtk_box_append(GTK_BOX(box), premium);

    GtkWidget* overlay = gtk_overlay_new();
    gtk_overlay_set_child(GTK_OVERLAY(overlay), box);
    welcome_ = VelquinWelcomePage::create();
    gtk_overlay_add_overlay(GTK_OVERLAY(overlay), welcome_->widget());
    gtk_window_set_child(window_, overlay);
    gtk_window_present(window_);
  }

  void startUpDone() {
    refreshState();
    if (startedUp_) return;
    startedUp_ = true;
    // An app configuration without a welcome page: nothing to wait for.
    auto welcome = Velquin::shared().storedWelcomePage();
    if (options_.screenshots && !shotWelcome_ && (!welcome || welcome->empty())) {
      std::printf("screenshot: no welcome page in the app configuration, none saved\n");
      std::fflush(stdout);
      shotWelcome_ = true;
    }
    // With screenshots, the pages come one after the other: the push (whose
    // message would cover the welcome page) waits for the welcome shot.
    if (options_.screenshots && !shotWelcome_) return;
    afterWelcome();
  }

  // What follows start-up (and, with screenshots, the welcome shot): the
  // push, then the paywall.
  void afterWelcome() {
    if (startUpFollowed_ || !startedUp_) return;
    startUpFollowed_ = true;
    if (payload_) {
      Velquin::shared().setInAppMesssageAutoShow(true);
      Velquin::shared().receivePushNotification(*payload_, /*inFront=*/true);
      // The paywall follows once the message page is saved.
      if (options_.screenshots) return shootInAppMessage();
    }
    if (options_.paywall || options_.screenshots) openPaywall();
  }

  // Saves the in-app message page the payload brought, closes it and goes
  // on with the paywall.
  void shootInAppMessage() {
    poll([this] {
      if (shotMessage_) return true;
      auto pages = OVInAppMessagePage::shownPages();
      bool placed =
          !pages.empty() && pages.back()->window() && gtk_widget_get_mapped(pages.back()->widget());
      // The fetch is bounded by the SDK's call timeouts; 30 s is only a guard.
      if (!placed) {
        if (++messageWaits_ < 300) return false;
        std::fprintf(stderr, "velquin-gtk-demo: no in-app message was shown for the payload\n");
        failed_ = true;
        openPaywall();
        return true;
      }
      if (checking_) return false;
      checking_ = true;
      std::weak_ptr<OVInAppMessagePage> weak = pages.back();
      evaluate(pages.back()->webView(), kPageReadyScript, [this, weak](std::string ready) {
        checking_ = false;
        auto page = weak.lock();
        if (!page || shotMessage_ || ready.find("true") != 0) return;
        shotMessage_ = true;
        save(GTK_WIDGET(page->window()), "in-app-message",
             "the in-app message the push announced, in its window over the start screen");
        for (auto& shown : OVInAppMessagePage::shownPages()) shown->closeAction();
        openPaywall();
      });
      return false;
    });
  }

  void refreshState() {
    Velquin::shared().hasActiveSubscription([this](velquin::OVSubscriber subscriber,
                                                   std::optional<velquin::Error> error) {
      // Called on the main queue, that is GTK's loop.
      std::string text;
      if (error) {
        text = "Subscription: unknown (" + error->message + ")";
      } else if (subscriber.isActive) {
        text = "Subscription: active (" + subscriber.productId + ")";
      } else {
        text = "Subscription: none";
      }
      gtk_label_set_text(GTK_LABEL(state_), text.c_str());
    });
  }

  void openPaywall() {
    // Answered on the main queue, that is GTK's loop.
    Velquin::shared().loadPaywallToPurachase(
        [this](bool shown, std::optional<std::string> message) {
          if (!shown) {
            std::fprintf(stderr, "velquin-gtk-demo: paywall not shown: %s\n",
                         message.value_or("").c_str());
            if (options_.screenshots) finish(false);
            return;
          }
          if (options_.screenshots) drivePaywall();
        });
  }

  void save(GtkWidget* widget, const std::string& name, const std::string& what) {
    auto path = *options_.screenshots / (name + ".png");
    if (velquin::gtk::saveSnapshot(widget, path.string())) {
      std::printf("screenshot: %s (%s)\n", path.c_str(), what.c_str());
    } else {
      std::fprintf(stderr, "velquin-gtk-demo: could not save %s\n", path.c_str());
      failed_ = true;
    }
    std::fflush(stdout);
  }

  void shootWelcomePage() {
    poll([this] {
      if (shotWelcome_) return true;
      if (startedUp_ && welcome_->shownPage().empty()) {
        auto stored = Velquin::shared().storedWelcomePage();
        if (!stored || stored->empty()) return true;  // startUpDone() moved on
      }
      if (welcome_->shownPage().empty() || !welcome_->isOnScreen()) {
        // The page comes with the app config; 30 s is only a guard.
        if (++welcomeWaits_ < 300) return false;
        std::fprintf(stderr, "velquin-gtk-demo: no welcome page was shown\n");
        failed_ = true;
        shotWelcome_ = true;  // nothing to wait for any more
        afterWelcome();
        return true;
      }
      if (checkingWelcome_) return false;
      checkingWelcome_ = true;
      evaluate(welcome_->webView(), kPageReadyScript, [this](std::string ready) {
        checkingWelcome_ = false;
        if (shotWelcome_ || ready.find("true") != 0 || !welcome_->isOnScreen()) return;
        shotWelcome_ = true;
        save(GTK_WIDGET(window_), "welcome-page", "the welcome page over the start screen");
        afterWelcome();
      });
      return false;
    });
  }

  void drivePaywall() {
    auto presented = VelQuinOVPPaywallviewController::presented();
    if (presented.empty()) return finish(false);
    std::weak_ptr<VelQuinOVPPaywallviewController> weak = presented.back();
    // Once the page shows its plans, save it and buy the first one.
    poll([this, weak] {
      auto paywall = weak.lock();
      if (!paywall) return true;
      if (checking_) return false;
      checking_ = true;
      evaluate(paywall->webView(), "document.querySelectorAll('.plan button').length",
               [this, weak](std::string count) {
                 checking_ = false;
                 auto page = weak.lock();
                 if (!page || shotPaywall_ || count.empty() || count == "0") return;
                 shotPaywall_ = true;
                 save(GTK_WIDGET(page->window()), "paywall", "the paywall with the store's prices");
                 evaluate(page->webView(), "document.querySelector('.plan button').click()",
                          [](std::string) {});
                 awaitAlert(weak);
               });
      return shotPaywall_;
    });
  }

  void awaitAlert(std::weak_ptr<VelQuinOVPPaywallviewController> weak) {
    poll([this, weak] {
      auto paywall = weak.lock();
      if (!paywall) return true;
      auto alert = paywall->alert();
      if (!alert || !gtk_widget_get_mapped(GTK_WIDGET(alert->window))) return false;
      save(GTK_WIDGET(alert->window), alert->title == "Success" ? "success-alert" : "error-alert",
           "the alert after buying the first plan: " + alert->title);
      bool success = alert->title == "Success";
      paywall->pressAlertOK();
      // Let the state label catch up and the welcome page fade, then save
      // the start screen.
      poll([this, success] {
        std::string state = gtk_label_get_text(GTK_LABEL(state_));
        bool settled = (!success || state.find("active") != std::string::npos) &&
                       !welcome_->isOnScreen();
        if (!settled && ++waits_ < 150) {
          if (waits_ % 10 == 0) refreshState();
          return false;
        }
        save(GTK_WIDGET(window_), "start-screen", "the start screen after the purchase: " + state);
        finish(success);
        return true;
      });
      return true;
    });
  }

  void finish(bool ok) {
    if (!ok) failed_ = true;
    if (options_.quitAfter) g_main_loop_quit(loop_);
  }

  Options options_;
  std::optional<nlohmann::json> payload_;
  GMainLoop* loop_ = nullptr;
  GtkWindow* window_ = nullptr;
  GtkWidget* state_ = nullptr;
  std::shared_ptr<VelquinWelcomePage> welcome_;
  velquin::NotificationCenter::Token appConfigToken_ = 0;
  bool startedUp_ = false;
  bool startUpFollowed_ = false;  // afterWelcome() ran
  bool shotMessage_ = false;
  bool checking_ = false;
  bool shotPaywall_ = false;
  bool checkingWelcome_ = false;
  bool shotWelcome_ = false;
  int waits_ = 0;
  int messageWaits_ = 0;
  int welcomeWaits_ = 0;
  bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  auto options = parse(argc, argv);
  if (!options) {
    usage();
    return 2;
  }
  std::optional<nlohmann::json> payload;
  if (options->push) {
    std::ifstream in(*options->push);
    auto parsed = nlohmann::json::parse(in, nullptr, false);
    if (!in.is_open() || !parsed.is_object()) {
      std::fprintf(stderr, "velquin-gtk-demo: %s is not a readable JSON object\n",
                   options->push->c_str());
      return 2;
    }
    payload = std::move(parsed);
  }
  if (!gtk_init_check()) {
    std::fprintf(stderr, "velquin-gtk-demo: no display (try xvfb-run)\n");
    return 1;
  }
  velquin::Bundle::setMainBundlePath(options->bundle);
  if (options->storeConfig) velquin::LocalStore::setConfigurationPath(*options->storeConfig);
  if (!velquin::gtk::install()) {
    std::fprintf(stderr, "velquin-gtk-demo: the SDK was used before velquin::gtk::install()\n");
    return 1;
  }
  return DemoApp(std::move(*options), std::move(payload)).run();
}
