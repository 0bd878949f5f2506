// Helpers shared by the pages: product records and script quoting for the
// paywall's bridge, fades on the main queue, and small GTK utilities.
// Everything here runs on the main thread.
#pragma once

#include <gtk/gtk.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velquin/MainQueue.h"
#include "velquin/StoreKit.h"

typedef struct _WebKitWebView WebKitWebView;

namespace velquin::gtk::detail {

// The price as currency in the product's price locale (ICU); the plain
// decimal text when the locale has no currency or formatting gives nothing.
std::string formatPrice(const SKProduct& product);

// The record the paywall page receives for one product, keys in the order
// they are built.
nlohmann::ordered_json productRecord(const SKProduct& product, bool isActive);

// `text` as the body of a single-quoted JavaScript string literal: \, ',
// line breaks, U+2028 and U+2029 escaped, so the page reads exactly `text`.
std::string javaScriptQuoted(const std::string& text);

// Compact JSON text; absent (and the reason in *error) when it cannot be
// serialised (invalid UTF-8).
std::optional<std::string> serialise(const nlohmann::ordered_json& value, std::string* error);

// A fade of a widget's opacity to 0 with the ease-out curve, driven by the
// main queue's timers (so tests can move its clock). `done` runs at the end
// unless the fade was cancelled first.
class Fade : public std::enable_shared_from_this<Fade> {
 public:
  static constexpr std::chrono::milliseconds kStep{20};
  static std::shared_ptr<Fade> start(GtkWidget* widget, std::chrono::milliseconds duration,
                                     std::chrono::milliseconds delay, std::function<void()> done);
  ~Fade();
  void cancel();

 private:
  Fade() = default;
  void tick();

  // Main thread only.
  GtkWidget* widget_ = nullptr;  // a reference we hold until the fade ends
  int steps_ = 1;
  int step_ = 0;
  MainQueue::TimerId delayTimer_ = 0;
  MainQueue::TimerId stepTimer_ = 0;
  std::function<void()> done_;
};

// A web view with the page's settings; `userContentManager` may be null.
WebKitWebView* makeWebView(GObject* userContentManager);
// The close button "✖️": 44×44, its left edge 50 px from the right edge.
GtkWidget* makeCloseButton();
// Gives the widget a white background.
void paintWhite(GtkWidget* widget);
// Takes `widget` out of its parent, whatever kind of container that is.
void removeFromParent(GtkWidget* widget);
// The active toplevel window, or null.
GtkWindow* activeToplevel();

}  // namespace velquin::gtk::detail
