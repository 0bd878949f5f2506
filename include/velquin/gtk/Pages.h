// libvelquin-gtk: the SDK's pages on GTK 4 + WebKitGTK 6.0 — the paywall with
// its script bridge, the welcome page and in-app message pages.
//
//   gtk_init();                      // or inside GtkApplication::startup
//   velquin::gtk::install();         // before anything else of the SDK
//   velquin::Velquin::shared().configure();
//
// Threads: every function and class here is used on the GTK main thread,
// which after install() is also the SDK's main queue. The SDK calls back into
// these pages only through that queue, and every completion and delegate
// call the pages make runs there too.
//
// Ownership: GTK widgets belong to their GTK parents as usual. A paywall or an
// in-app message page keeps itself alive while it is on screen and frees
// itself when it is closed; hold a std::weak_ptr to watch it.
#pragma once

#include <gtk/gtk.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velquin/Error.h"
#include "velquin/PagePresenter.h"
#include "velquin/StoreKit.h"
#include "velquin/Subscriber.h"

typedef struct _WebKitWebView WebKitWebView;

namespace velquin::gtk {
namespace detail {
class Fade;
}

// Puts the SDK's main queue on GTK's default main context and installs the
// page presenter into the facade, so loadPaywallToPurachase() shows the
// paywall and in-app messages can be shown. Returns false (and installs
// nothing) when the SDK's main queue was already running on its own thread,
// that is when something of the SDK was used before install().
bool install();

// What the paywall tells its host. Every call comes on the main thread, in
// this order per paywall: presented, then any number of purchase started /
// purchase finished pairs, then closed. Failures that are not a purchase's
// (no products, a page that could not be fetched) come as failed. Every
// method has an empty default, so a host overrides only what it needs.
class PaywallDelegate {
 public:
  virtual ~PaywallDelegate() = default;
  // The paywall window is on screen.
  virtual void paywallPresented() {}
  // The page asked to buy `productId` and the store payment has started.
  virtual void paywallPurchaseStarted(const std::string& productId) { (void)productId; }
  // A purchase through the page ended. On success `error` is empty and
  // `subscriber` is the backend's answer; otherwise `error` is the real
  // reason (a cancel has code 2), whatever alert text the page shows.
  virtual void paywallPurchaseFinished(const std::string& productId,
                                       const std::optional<OVSubscriber>& subscriber,
                                       const std::optional<Error>& error) {
    (void)productId;
    (void)subscriber;
    (void)error;
  }
  // Something the page needed failed: the products could not be looked up,
  // the page could not be fetched.
  virtual void paywallFailed(const Error& error) { (void)error; }
  // The paywall is off the screen (close button, Escape, or the alert that
  // closes it after a purchase).
  virtual void paywallClosed() {}
};

// Sets the delegate every paywall reports to; null removes it. Held by the
// pages until replaced. Main thread only.
void setPaywallDelegate(std::shared_ptr<PaywallDelegate> delegate);
// The delegate set last, or null.
std::shared_ptr<PaywallDelegate> paywallDelegate();

// Opens an address a page wanted to navigate to (a link, window.open,
// target=_blank) outside the page: by default GTK's URI launcher, which goes
// through the desktop portal inside a sandbox. A host (or a test) may set its
// own; null restores the default. `parent` is the page's window, or null.
// Main thread only.
using UriLauncher = std::function<void(GtkWindow* parent, const std::string& uri)>;
void setUriLauncher(UriLauncher launcher);
// Opens `uri` through the launcher set last.
void openUri(GtkWindow* parent, const std::string& uri);

// The page presenter install() puts in place; exposed for hosts that wrap it.
std::shared_ptr<PagePresenter> makePagePresenter();

// Finds the window the SDK presents on: the host's active toplevel window,
// then repeatedly its last visible transient child (a modal dialog or a page
// shown over it). Null when no toplevel window is active.
class VelQuinOVPTopViewController {
 public:
  static GtkWindow* topWindow();
};

// One paywall page in a window of its own over the host's window, covering it.
// The page talks to the SDK through window.webkit.messageHandlers
// .getSkuDetails / .purchase and is answered by getSkuDetailsCallback('…') and
// purchaseCallback('…','true'|'false').
//
// Only the top frame of the document the paywall loaded can post those
// messages: subframes have no handlers, navigation away from the document
// (links, redirects, window.open, target=_blank) goes to the URI launcher,
// local schemes are refused, and the page runs in an ephemeral network
// session of the pages' own. One purchase runs at a time; "purchase" messages
// while one is pending are ignored. Every getSkuDetails message with a string
// body is answered, with an empty list when nothing could be found. What
// happened is told to the paywall delegate. Escape closes the paywall; a
// paywall opened over a dialog stays when the dialog goes.
class VelQuinOVPPaywallviewController
    : public std::enable_shared_from_this<VelQuinOVPPaywallviewController> {
 public:
  // The alert the paywall shows after a purchase.
  struct Alert {
    std::string title;
    std::string message;
    GtkWindow* window = nullptr;  // owned by GTK; gone after pressAlertOK()
  };

  // With no htmlString the page is fetched from the backend.
  static std::shared_ptr<VelQuinOVPPaywallviewController> create(
      std::optional<std::string> htmlString);
  ~VelQuinOVPPaywallviewController();
  VelQuinOVPPaywallviewController(const VelQuinOVPPaywallviewController&) = delete;
  VelQuinOVPPaywallviewController& operator=(const VelQuinOVPPaywallviewController&) = delete;

  // Builds the views, loads the page and presents the window over `parent`.
  // `shown` is called once the window is on screen, on the main queue (after
  // the delegate heard paywallPresented).
  void presentOver(GtkWindow* parent, PagePresenter::PaywallCompletion shown = nullptr);
  // The close button: takes the paywall off the screen.
  void closeAction();

  GtkWindow* window() const { return window_; }
  WebKitWebView* webView() const { return webView_; }
  // The close button, the progress bar and the spinner (for hosts' styling).
  GtkWidget* closeButton() const { return closeButton_; }
  GtkWidget* progressView() const { return progressView_; }
  GtkWidget* activityIndicator() const { return activityIndicator_; }
  bool isBusy() const;
  bool isPresented() const { return window_ != nullptr; }

  std::optional<Alert> alert() const { return alert_; }
  // Presses the alert's "OK" button.
  void pressAlertOK();

  // Called after a script was handed to the page for evaluation.
  void setScriptObserver(std::function<void(const std::string& script)> observer) {
    scriptObserver_ = std::move(observer);
  }

  // The paywalls on screen, oldest first.
  static std::vector<std::shared_ptr<VelQuinOVPPaywallviewController>> presented();

 private:
  explicit VelQuinOVPPaywallviewController(std::optional<std::string> htmlString);
  struct Signals;
  void buildViews(GtkWindow* parent);
  void loadPage();
  void onGetSkuDetails(const std::string& body);
  void onPurchase(const std::string& productId);
  class DeferredWatch;
  void coverWindow(GtkWindow* parent);
  void purchaseFinished(const std::string& productId, const OVSubscriber& subscriber,
                        const std::optional<Error>& error);
  void sendProductList();
  void sendPurchaseResult(const std::string& productId, bool success);
  void evaluate(const std::string& script);
  void showAlert(const std::string& title, const std::string& message, bool closeAfter);
  void setBusy(bool busy);
  void onProgress(double progress);
  void tearDownViews();

  // Every field below is used on the main thread only.
  std::optional<std::string> htmlString_;
  GtkWindow* coveredWindow_ = nullptr;  // the host window it is over; a GObject weak pointer
  GtkWindow* coveredOwner_ = nullptr;   // the window coveredWindow_ is over; a weak pointer
  GtkWindow* window_ = nullptr;
  WebKitWebView* webView_ = nullptr;
  GtkWidget* progressView_ = nullptr;
  GtkWidget* activityIndicator_ = nullptr;
  GtkWidget* closeButton_ = nullptr;
  std::optional<std::vector<std::string>> productId_array_;
  std::optional<std::map<std::string, SKProductPtr>> productSKProduct_;
  std::optional<Alert> alert_;
  std::uint64_t progressTimer_ = 0;
  std::function<void(const std::string&)> scriptObserver_;
  std::unique_ptr<Signals> signals_;
  std::optional<std::string> pendingPurchase_;    // the product of the payment under way
  bool toldPurchasePending_ = false;              // the ignored-message log line was written
  std::shared_ptr<DeferredWatch> deferredWatch_;  // observes the payment queue while alive
};

// The welcome page: a widget the host lays over its start screen (for
// example as a GtkOverlay overlay). It shows the stored welcome page at once,
// or a spinner until the backend's page arrives, fades out 2 s after a page
// is shown (1 s, ease-out) and removes itself from its parent (from overlay
// layers, boxes, grids, fixed and stacks; in any other container it is only
// hidden, and the host may remove it when it likes); after
// waitingTime seconds it removes itself whatever happened. Timers run on the
// SDK's main queue (and so follow its clock).
class VelquinWelcomePage : public std::enable_shared_from_this<VelquinWelcomePage> {
 public:
  static std::shared_ptr<VelquinWelcomePage> create(double waitingTime = 30.0);
  ~VelquinWelcomePage();
  VelquinWelcomePage(const VelquinWelcomePage&) = delete;
  VelquinWelcomePage& operator=(const VelquinWelcomePage&) = delete;

  // The widget to place (floating until the host adds it). The widget holds
  // the page object, so the page lives as long as the widget does.
  GtkWidget* widget() const { return root_; }
  WebKitWebView* webView() const { return webView_; }
  GtkWidget* loader() const { return loader_; }
  double waitingTime() const { return waitingTime_; }
  // The page text shown last (empty while none).
  const std::string& shownPage() const { return shownPage_; }
  bool isLoaderSpinning() const;
  // Whether the widget is still shown in a parent.
  bool isOnScreen() const;
  // Takes the page off its parent; harmless when already gone.
  void removeFromSuperview();

 private:
  explicit VelquinWelcomePage(double waitingTime);
  void setUp();
  void refresh();
  bool showStoredPage();
  void fadeOut(std::chrono::milliseconds duration, std::chrono::milliseconds delay);

  // Main thread only.
  double waitingTime_;
  GtkWidget* root_ = nullptr;  // a GtkOverlay; a weak pointer, null once it is disposed
  WebKitWebView* webView_ = nullptr;  // child of root_
  GtkWidget* loader_ = nullptr;       // child of root_ until the refresh removes it
  std::string shownPage_;
  std::uint64_t observerToken_ = 0;
  std::vector<std::uint64_t> timers_;
  std::shared_ptr<detail::Fade> fade_;
};

// An in-app message page: a web view and a close button in an undecorated
// window of its own, transient for the host's top window and covering it (the
// host's widgets are never moved). Pages stack; closing the top one reveals
// the one below. Escape closes it. No script bridge; links open in the
// user's browser through the URI launcher.
class OVInAppMessagePage : public std::enable_shared_from_this<OVInAppMessagePage> {
 public:
  // Shows the page over the active host window (and whatever is shown over
  // it); null when no window is active.
  static std::shared_ptr<OVInAppMessagePage> show(const std::string& htmlString);
  ~OVInAppMessagePage();
  OVInAppMessagePage(const OVInAppMessagePage&) = delete;
  OVInAppMessagePage& operator=(const OVInAppMessagePage&) = delete;

  void closeAction();
  GtkWindow* window() const { return window_; }
  GtkWidget* widget() const { return root_; }
  WebKitWebView* webView() const { return webView_; }
  GtkWidget* closeButton() const { return closeButton_; }
  const std::string& htmlString() const { return htmlString_; }

  // The pages on screen, bottom first.
  static std::vector<std::shared_ptr<OVInAppMessagePage>> shownPages();

 private:
  explicit OVInAppMessagePage(std::string htmlString);
  void build(GtkWindow* over);

  // Main thread only. The widgets belong to window_; all are null once it
  // is destroyed.
  std::string htmlString_;
  GtkWindow* window_ = nullptr;
  GtkWidget* root_ = nullptr;
  WebKitWebView* webView_ = nullptr;
  GtkWidget* closeButton_ = nullptr;
};

// Saves what `widget` shows (GTK widgets and web content) as a PNG file. The
// web content comes from WebKit's snapshots of the views, waited for by
// iterating the default main context for at most `limit` (which also covers a
// window just presented getting mapped). Returns false when the widget is not
// on screen or the file cannot be written.
bool saveSnapshot(GtkWidget* widget, const std::string& pngPath,
                  std::chrono::milliseconds limit = std::chrono::seconds(5));

}  // namespace velquin::gtk
