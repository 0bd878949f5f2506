#include "PageFixture.h"

#include <adwaita.h>
#include <webkit/webkit.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "velquin/MainQueue.h"
#include "velquin/NotificationCenter.h"
#include "velquin/OVPurchase.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::testing {

void PagesTest::SetUp() {
  ASSERT_TRUE(gtk_init_check()) << "no display: run the page tests under xvfb-run";
  // Before anything of the SDK: the main queue is GTK's.
  ASSERT_TRUE(MainQueue::useHostContext(g_main_context_default()));
  SandboxTest::SetUp();
  if (HasFatalFailure()) return;

  auto storePath = env.root() / "store-config.json";
  LocalStore::setConfigurationPath(storePath);
  store = LocalStore::createDefault();
  StoreKit::install(store);
  Error error;
  auto key = store->receiptPublicKeyPem(&error);
  ASSERT_TRUE(key) << error.message;
  auto keyPath = env.root() / "receipt-public-key.pem";
  std::ofstream(keyPath) << *key;
  auto configPath = env.root() / "sandbox-config.json";
  std::ofstream(configPath) << sandboxConfig().dump();

  // Start the sandbox again with the test's pages and the store's key.
  server->stop();
  sandbox::SandboxOptions options;
  options.dataDir = env.root() / "sandbox";
  options.configFile = configPath;
  options.receiptPublicKeyFiles = {keyPath};
  server = std::make_unique<sandbox::SandboxServer>(options);
  std::string problem;
  ASSERT_TRUE(server->start(&problem)) << problem;
  std::ofstream(storePath) << storeConfig().dump(2);
  writeWorkingTokenFile();
  beforeSdk();
  if (HasFatalFailure()) return;
  ASSERT_TRUE(gtk::install());
}

void PagesTest::TearDown() {
  for (auto& paywall : gtk::VelQuinOVPPaywallviewController::presented()) paywall->closeAction();
  for (auto& page : gtk::OVInAppMessagePage::shownPages()) page->closeAction();
  // One answered call: the backend channel, connecting since the SDK was
  // made, must not still be setting up TLS while the process exits.
  if (server) {
    auto answered = std::make_shared<std::atomic<bool>>(false);
    Velquin::shared().getCurrencyRate(
        "USD", [answered](std::optional<double>, std::optional<Error>) { *answered = true; });
    iterateUntil([&] { return answered->load(); });
  }
  // Let calls still in flight land before the sandbox goes.
  std::size_t seen = server ? server->calls().size() : 0;
  for (int round = 0; server && round < 8; ++round) {
    iterateUntil([] { return false; }, std::chrono::milliseconds(150));
    std::size_t now = server->calls().size();
    if (now == seen) break;
    seen = now;
  }
  SandboxTest::TearDown();
}

nlohmann::json PagesTest::storeConfig() {
  return {{"bundle_id", server->config().value("bundle_id", "")},
          {"currency", "USD"},
          {"locale", "en_US"},
          {"products",
           {{{"type", "auto-renewable"}, {"id", "com.velquin.demo.monthly"},
             {"title", "Monthly"}, {"description", "Premium, every month"},
             {"price", "4.99"}, {"group", "premium"},
             {"subscription_period", {{"unit", "month"}, {"count", 1}}}},
            {{"type", "auto-renewable"}, {"id", "com.velquin.demo.yearly"},
             {"title", "Yearly"}, {"description", "Premium, every year"},
             {"price", "39.99"}, {"group", "premium"},
             {"subscription_period", {{"unit", "year"}, {"count", 1}}}}}}};
}

bool PagesTest::iterateUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds limit) {
  auto until = std::chrono::steady_clock::now() + limit;
  // Wakes the context now and then, so conditions set on other threads are seen.
  guint wake = g_timeout_add(10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool held = true;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) {
      held = false;
      break;
    }
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(wake);
  return held;
}

bool PagesTest::configureAndIterate() {
  auto handled = std::make_shared<std::atomic<bool>>(false);
  auto token = NotificationCenter::defaultCenter().addObserver(
      OVPurchase::kAppConfigHandledNotification, [handled](const Notification&) { *handled = true; });
  Velquin::shared().configure();
  bool ok = iterateUntil([&] { return handled->load(); });
  NotificationCenter::defaultCenter().removeObserver(token);
  return ok;
}

GtkWindow* PagesTest::openHostWindow(bool adwaita) {
  GtkWidget* content = gtk_label_new("The host's start screen");
  GtkWindow* window = nullptr;
  if (adwaita) {
    adw_init();
    window = GTK_WINDOW(g_object_new(ADW_TYPE_APPLICATION_WINDOW, nullptr));
    adw_application_window_set_content(ADW_APPLICATION_WINDOW(window), content);
  } else {
    window = GTK_WINDOW(gtk_window_new());
    gtk_window_set_child(window, content);
  }
  gtk_window_set_title(window, "Host");
  gtk_window_set_default_size(window, 480, 720);
  gtk_window_present(window);
  iterateUntil([&] { return gtk_window_is_active(window); }, std::chrono::seconds(10));
  return window;
}

bool PagesTest::pressEscape(GtkWindow* window) {
  GListModel* controllers = gtk_widget_observe_controllers(GTK_WIDGET(window));
  bool ran = false;
  for (guint i = 0, n = g_list_model_get_n_items(controllers); i < n && !ran; ++i) {
    auto* controller = G_OBJECT(g_list_model_get_item(controllers, i));
    if (GTK_IS_SHORTCUT_CONTROLLER(controller)) {
      auto* shortcuts = G_LIST_MODEL(controller);
      for (guint j = 0, m = g_list_model_get_n_items(shortcuts); j < m && !ran; ++j) {
        auto* shortcut = GTK_SHORTCUT(g_list_model_get_item(shortcuts, j));
        GtkShortcutTrigger* trigger = gtk_shortcut_get_trigger(shortcut);
        if (GTK_IS_KEYVAL_TRIGGER(trigger) &&
            gtk_keyval_trigger_get_keyval(GTK_KEYVAL_TRIGGER(trigger)) == GDK_KEY_Escape &&
            gtk_keyval_trigger_get_modifiers(GTK_KEYVAL_TRIGGER(trigger)) == 0) {
          ran = gtk_shortcut_action_activate(gtk_shortcut_get_action(shortcut),
                                             GTK_SHORTCUT_ACTION_EXCLUSIVE, GTK_WIDGET(window),
                                             nullptr);
        }
        g_object_unref(shortcut);
      }
    }
    g_object_unref(controller);
  }
  g_object_unref(controllers);
  return ran;
}

std::string PagesTest::evaluate(WebKitWebView* view, const std::string& script) {
  struct Result {
    bool done = false;
    std::string json;
  };
  auto result = std::make_shared<Result>();
  webkit_web_view_evaluate_javascript(
      view, script.c_str(), static_cast<gssize>(script.size()), nullptr, nullptr, nullptr,
      +[](GObject* source, GAsyncResult* res, gpointer data) {
        auto* out = static_cast<std::shared_ptr<Result>*>(data);
        JSCValue* value =
            webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(source), res, nullptr);
        if (value) {
          char* json = jsc_value_to_json(value, 0);
          (*out)->json = json ? json : "";
          g_free(json);
          g_object_unref(value);
        }
        (*out)->done = true;
        delete out;
      },
      new std::shared_ptr<Result>(result));
  iterateUntil([&] { return result->done; });
  return result->json;
}

bool PagesTest::waitForPage(WebKitWebView* view, const std::string& script) {
  return iterateUntil(
      [&] {
        return !webkit_web_view_is_loading(view) &&
               evaluate(view, "document.readyState === 'complete' && !!(" + script + ")") ==
                   "true";
      },
      std::chrono::seconds(20));
}

std::filesystem::path PagesTest::screenshot(GtkWidget* widget, const std::string& name) {
  auto dir = binDir().parent_path() / "screenshots";
  std::filesystem::create_directories(dir);
  auto path = dir / (name + ".png");
  EXPECT_TRUE(gtk::saveSnapshot(widget, path.string())) << path;
  return path;
}

void PagesTest::useManualClock() {
  manualNow = std::chrono::steady_clock::now().time_since_epoch().count();
  MainQueue::shared().setNowFunction([this] {
    return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(manualNow.load()));
  });
}

void PagesTest::advance(std::chrono::milliseconds by, std::chrono::milliseconds step) {
  using Duration = std::chrono::steady_clock::duration;
  auto target = manualNow.load() + std::chrono::duration_cast<Duration>(by).count();
  while (manualNow.load() < target) {
    manualNow = std::min(target, manualNow.load() + std::chrono::duration_cast<Duration>(step).count());
    MainQueue::shared().fireDueTimers();
    // The due timers run in a task posted before this marker.
    auto ran = std::make_shared<std::atomic<bool>>(false);
    MainQueue::shared().async([ran] { *ran = true; });
    iterateUntil([&] { return ran->load(); }, std::chrono::seconds(10));
  }
}

}  // namespace velquin::testing
