// Page tests: GTK on the display of the test (Xvfb under ctest), the SDK's
// main queue on GTK's context, a sandbox that trusts the local store's
// receipts and serves the pages the test gives it, and helpers that iterate
// the main context until something holds (always bounded).
#pragma once

#include <gtk/gtk.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "SandboxFixture.h"
#include "velquin/LocalStore.h"
#include "velquin/StoreKit.h"

typedef struct _WebKitWebView WebKitWebView;

namespace velquin::testing {

class PagesTest : public SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Merged over the sandbox's defaults before it starts (pages, product ids).
  virtual nlohmann::json sandboxConfig() { return nlohmann::json::object(); }
  // Runs once the sandbox serves and the bundle is written, before the SDK's
  // singletons exist (they are made by gtk::install()).
  virtual void beforeSdk() {}
  // The local store's products; the defaults sell the demo products.
  virtual nlohmann::json storeConfig();

  // Iterates GTK's context until `condition` holds; false after `limit`.
  bool iterateUntil(const std::function<bool()>& condition,
                    std::chrono::milliseconds limit = std::chrono::seconds(20));
  // Runs start-up and iterates until GetAppConfig's answer was handled.
  bool configureAndIterate();
  // A visible, active host window of 480×720; with `adwaita` a libadwaita
  // application window (whose child cannot be replaced with gtk_window_set_child).
  GtkWindow* openHostWindow(bool adwaita = false);
  // Runs what Escape is bound to in `window`'s shortcut controllers; false
  // when nothing is bound.
  bool pressEscape(GtkWindow* window);
  // Evaluates `script` in the view; its value as JSON text ("" on error).
  std::string evaluate(WebKitWebView* view, const std::string& script);
  // Iterates until the page's document has finished loading and `script`
  // evaluates to true.
  bool waitForPage(WebKitWebView* view, const std::string& script = "true");
  // Saves a screenshot of `widget` into the build tree and returns its path.
  std::filesystem::path screenshot(GtkWidget* widget, const std::string& name);

  // The SDK's main queue runs on a manual clock; advance() moves it in
  // steps of `step`, letting due timers run after each.
  void useManualClock();
  void advance(std::chrono::milliseconds by,
               std::chrono::milliseconds step = std::chrono::milliseconds(20));

  std::shared_ptr<LocalStore> store;
  // The manual clock's time in steady-clock ticks; read by the main queue on
  // any thread, moved by the test's thread.
  std::atomic<std::chrono::steady_clock::rep> manualNow{0};
};

}  // namespace velquin::testing
