// A GTK host built the way an application builds one: public headers only,
// linked against the installed libvelquin and libvelquin-gtk. It starts the
// SDK against the bundle it is given, opens the paywall over its window,
// presses the page's first "Buy" button and waits for the purchase to give an
// active subscription.
//   consumer_gtk_host BUNDLE_DIR STORE_CONFIG
// Prints "consumer gtk host: bought PRODUCT, active" and exits 0, or names
// the step that failed and exits 1 (after 90 s at the latest).
#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include <velquin/Bundle.h>
#include <velquin/LocalStore.h>
#include <velquin/MainQueue.h>
#include <velquin/NotificationCenter.h>
#include <velquin/OVPurchase.h>
#include <velquin/Velquin.h>
#include <velquin/gtk/Pages.h>

namespace {

GMainLoop* loop = nullptr;
int status = 1;
std::string step = "start-up";

void finish(int code, const std::string& message) {
  std::printf("consumer gtk host: %s\n", message.c_str());
  std::fflush(stdout);
  status = code;
  g_main_loop_quit(loop);
}

// Calls `next` every 100 ms on the main loop until it returns true.
void poll(std::function<bool()> next) {
  g_timeout_add_full(
      G_PRIORITY_DEFAULT, 100,
      [](gpointer data) -> gboolean {
        return (*static_cast<std::function<bool()>*>(data))() ? G_SOURCE_REMOVE
                                                              : G_SOURCE_CONTINUE;
      },
      new std::function<bool()>(std::move(next)),
      [](gpointer data) { delete static_cast<std::function<bool()>*>(data); });
}

// Runs `script` in the view; `done` gets the result as JSON text.
void evaluate(WebKitWebView* view, const char* script, std::function<void(std::string)> done) {
  webkit_web_view_evaluate_javascript(
      view, script, -1, nullptr, nullptr, nullptr,
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

void awaitActiveSubscription() {
  step = "the subscriber after the purchase";
  velquin::Velquin::shared().hasActiveSubscription(
      [](velquin::OVSubscriber subscriber, std::optional<velquin::Error> error) {
        velquin::MainQueue::shared().async([subscriber, error] {
          if (error) return finish(1, "subscriber error: " + error->message);
          if (!subscriber.isActive) return finish(1, "the purchase left no active subscription");
          finish(0, "bought " + subscriber.productId + ", active");
        });
      });
}

void buyThroughThePage() {
  using velquin::gtk::VelQuinOVPPaywallviewController;
  step = "the paywall's plans";
  auto checking = std::make_shared<bool>(false);
  auto clicked = std::make_shared<bool>(false);
  poll([checking, clicked] {
    auto presented = VelQuinOVPPaywallviewController::presented();
    if (presented.empty()) return false;
    auto paywall = presented.back();
    if (*clicked) {
      auto alert = paywall->alert();
      if (!alert) return false;
      if (alert->title != "Success") {
        finish(1, "the page's purchase ended with the alert \"" + alert->title + "\"");
        return true;
      }
      paywall->pressAlertOK();
      awaitActiveSubscription();
      return true;
    }
    if (*checking) return false;
    *checking = true;
    std::weak_ptr<VelQuinOVPPaywallviewController> weak = paywall;
    evaluate(paywall->webView(), "document.querySelectorAll('.plan button').length",
             [weak, checking, clicked](std::string count) {
               *checking = false;
               auto page = weak.lock();
               if (!page || *clicked || count.empty() || count == "0") return;
               *clicked = true;
               step = "the purchase through the page";
               evaluate(page->webView(), "document.querySelector('.plan button').click()",
                        [](std::string) {});
             });
    return false;
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s BUNDLE_DIR STORE_CONFIG\n", argv[0]);
    return 2;
  }
  // The bundle and the store configuration are named before anything of the
  // SDK is used: install() creates the SDK's objects, which read the bundle.
  velquin::Bundle::setMainBundlePath(argv[1]);
  velquin::LocalStore::setConfigurationPath(argv[2]);
  gtk_init();
  if (!velquin::gtk::install()) {
    std::fprintf(stderr, "consumer gtk host: velquin::gtk::install() refused\n");
    return 1;
  }
  loop = g_main_loop_new(nullptr, FALSE);

  GtkWindow* window = GTK_WINDOW(gtk_window_new());
  gtk_window_set_title(window, "Velquin consumer");
  gtk_window_set_default_size(window, 480, 720);
  gtk_window_present(window);

  auto& sdk = velquin::Velquin::shared();
  auto token = velquin::NotificationCenter::defaultCenter().addObserver(
      velquin::OVPurchase::kAppConfigHandledNotification, [](const velquin::Notification&) {
        // Posted on a gRPC thread.
        velquin::MainQueue::shared().async([] {
          if (step != "start-up") return;
          step = "presenting the paywall";
          velquin::Velquin::shared().loadPaywallToPurachase(
              [](bool shown, std::optional<std::string> message) {
                velquin::MainQueue::shared().async([shown, message] {
                  if (!shown) return finish(1, "paywall not shown: " + message.value_or(""));
                  buyThroughThePage();
                });
              });
        });
      });
  sdk.configure();
  g_timeout_add_seconds(90, [](gpointer) -> gboolean {
    finish(1, "timed out at " + step);
    return G_SOURCE_REMOVE;
  }, nullptr);
  g_main_loop_run(loop);
  velquin::NotificationCenter::defaultCenter().removeObserver(token);
  for (auto& paywall : velquin::gtk::VelQuinOVPPaywallviewController::presented()) {
    paywall->closeAction();
  }
  gtk_window_destroy(window);
  return status;
}
