// A GTK application host for the sandbox test: it registers as the
// application id it is given, starts the SDK over a bundle folder, delivers
// one push payload in the background, and waits until the click on that
// notification (made by the desktop's notification server) came back as the
// in-app message page. It keeps running until its events were delivered,
// then prints one JSON line with what happened and quits. Exit status 0 when the page was
// shown.
//
// usage: velquin-test-gtk-host APP_ID BUNDLE_DIR PAYLOAD_JSON
#include <gtk/gtk.h>

#include <cstdio>
#include <memory>

#include "velquin/Bundle.h"
#include "velquin/MainQueue.h"
#include "velquin/OVAnalytics.h"
#include "velquin/PagePresenter.h"
#include "velquin/Velquin.h"

namespace {

struct Host {
  GtkApplication* app = nullptr;
  std::string bundle;
  nlohmann::json payload;
  nlohmann::json result = nlohmann::json::object();
  bool shown = false;
};

// Keeps the application going, and with it the SDK's main queue (which runs
// on its context), until every event has been delivered, then quits. After
// the application's loop has ended nothing runs that queue, so the SDK could
// no longer tell whether the backend is reachable. The bound set at
// activation still ends a run that never gets there.
void quitOnceDelivered(Host* running) {
  g_timeout_add(50, [](gpointer data) -> gboolean {
    auto* host = static_cast<Host*>(data);
    auto& analytics = velquin::Velquin::shared().analytics();
    analytics.uploadCachedEvents();
    if (analytics.cachedEventCount() != 0 || !analytics.isDeliveryIdle()) return G_SOURCE_CONTINUE;
    host->result["eventsDelivered"] = true;
    g_application_quit(G_APPLICATION(host->app));
    return G_SOURCE_REMOVE;
  }, running);
}

class PagePresenterOfHost final : public velquin::PagePresenter {
 public:
  explicit PagePresenterOfHost(Host* host) : host_(host) {}
  bool presentPaywall(const std::string&, PaywallCompletion) override { return false; }
  bool presentInAppMessage(const std::string& html) override {
    // On the main queue, which runs on GTK's context here.
    host_->shown = true;
    host_->result["inAppMessageBytes"] = html.size();
    quitOnceDelivered(host_);
    return true;
  }

 private:
  Host* host_;
};

void activate(GtkApplication* app, gpointer data) {
  auto* host = static_cast<Host*>(data);
  g_application_hold(G_APPLICATION(app));
  velquin::MainQueue::useHostContext(g_main_context_default());
  velquin::Bundle::setMainBundlePath(host->bundle);
  auto& sdk = velquin::Velquin::shared();
  sdk.setPagePresenter(std::make_shared<PagePresenterOfHost>(host));
  sdk.setAutoUserNotificationBehaviorDataReporting();
  sdk.setFromBackgroudPointToDelayTime(0.1);
  sdk.configure();
  sdk.receivePushNotification(host->payload, false);
  // Bounded: a click that never comes ends the run as a failure.
  g_timeout_add_seconds(60, [](gpointer running) -> gboolean {
    g_application_quit(G_APPLICATION(running));
    return G_SOURCE_REMOVE;
  }, app);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s APP_ID BUNDLE_DIR PAYLOAD_JSON\n", argv[0]);
    return 2;
  }
  Host host;
  host.bundle = argv[2];
  host.payload = nlohmann::json::parse(argv[3], nullptr, false);
  host.app = gtk_application_new(argv[1], G_APPLICATION_DEFAULT_FLAGS);
  g_signal_connect(host.app, "activate", G_CALLBACK(activate), &host);
  char* args[] = {argv[0], nullptr};
  g_application_run(G_APPLICATION(host.app), 1, args);
  host.result["inAppMessageShown"] = host.shown;
  if (!host.result.contains("eventsDelivered")) host.result["eventsDelivered"] = false;
  std::printf("%s\n", host.result.dump().c_str());
  g_object_unref(host.app);
  return host.shown ? 0 : 1;
}
