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
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin/MainQueue.h"
#include "velquin/StoreKit.h"

typedef struct _WebKitWebView WebKitWebView;
typedef struct _WebKitNetworkSession WebKitNetworkSession;
typedef struct _WebKitUserContentManager WebKitUserContentManager;

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

// A web view with the page's settings in the pages' own ephemeral network
// session (no cookies or cache shared with the host, nothing kept on disk);
// `userContentManager` may be null. Navigation is kept on the document the
// page loads itself (see keepOnOwnDocument).
WebKitWebView* makeWebView(GObject* userContentManager);
// The network session every page view uses: ephemeral, made on first use.
WebKitNetworkSession* pagesNetworkSession();
// Refuses every navigation of the view's main frame away from the document
// the SDK loaded (HTML strings, a reload) and every new window; links with
// an http, https or mailto address go to the URI launcher instead. Subframes
// may load, but never local schemes. Connected by makeWebView.
void keepOnOwnDocument(WebKitWebView* view);
// Whether `uri` is what a view shows after loading an HTML string with no
// base address (the only document the pages load themselves).
bool isOwnDocument(const char* uri);
// Hands `uri` to the URI launcher (the host's browser) on behalf of `view`.
void launchUri(GtkWidget* view, const std::string& uri);

// Makes `name`s the only script messages of the view's top frame: the
// handlers live in a script world of our own, and a script injected into
// the top frame only gives the page window.webkit.messageHandlers.<name>
// .postMessage(body), forwarding string bodies. Subframes get nothing and
// cannot reach the top frame's handlers across origins.
void installBridge(WebKitUserContentManager* manager, const std::vector<std::string>& names);
// The script world the bridge's handlers are registered in.
extern const char* const kBridgeWorld;

// The close button "✖️": 44×44, its left edge 50 px from the right edge,
// named "Close" for assistive technologies, dark on the white page in light
// and dark themes.
GtkWidget* makeCloseButton();
// A spinner that stays dark on the white page in light and dark themes.
GtkWidget* makeSpinner();
// Escape in `window` runs `close`.
void closeOnEscape(GtkWindow* window, std::function<void()> close);
// Gives the widget a white background.
void paintWhite(GtkWidget* widget);
// Takes `widget` off the screen: hides it, and takes it out of containers
// that have a call for that (overlay layers, boxes, grids, fixed, stacks).
// Elsewhere it stays, hidden, in its parent: never unparented behind a
// container's back.
void removeFromParent(GtkWidget* widget);
// The active toplevel window, or null.
GtkWindow* activeToplevel();

}  // namespace velquin::gtk::detail
