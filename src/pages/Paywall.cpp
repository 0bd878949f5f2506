// The paywall: a window over the host's top window holding the server's page
// in a web view, with the getSkuDetails / purchase script bridge.
#include <webkit/webkit.h>

#include <set>

#include "PageSupport.h"
#include "velquin/MainQueue.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::gtk {
namespace {

constexpr const char* kGetSkuDetails = "getSkuDetails";
constexpr const char* kPurchase = "purchase";

// The paywalls on screen; each keeps itself here from presentation until its
// window goes away. Main thread only.
std::vector<std::shared_ptr<VelQuinOVPPaywallviewController>>& presentedList() {
  static auto* list = new std::vector<std::shared_ptr<VelQuinOVPPaywallviewController>>();
  return *list;
}

using Weak = std::weak_ptr<VelQuinOVPPaywallviewController>;

void freeWeak(gpointer data, GClosure*) { delete static_cast<Weak*>(data); }

// Connects `handler` to `signal` of `instance` with a weak reference to the
// controller as its data.
template <class Handler>
gulong connectWeak(gpointer instance, const char* signal, Handler handler,
                   const std::shared_ptr<VelQuinOVPPaywallviewController>& self) {
  return g_signal_connect_data(instance, signal, G_CALLBACK(handler), new Weak(self), freeWeak,
                               GConnectFlags(0));
}

std::shared_ptr<VelQuinOVPPaywallviewController> lock(gpointer data) {
  return static_cast<Weak*>(data)->lock();
}

}  // namespace

// The content manager of the page's view and our handlers on it, undone
// when the views go away.
struct VelQuinOVPPaywallviewController::Signals {
  WebKitUserContentManager* userContentManager = nullptr;  // our reference
  std::vector<gulong> managerHandlers;
};

// Tells the paywall when its pending payment was deferred (ask to buy, a
// payment waiting for approval): the orchestrator answers only once the
// transaction ends, and the page must not spin meanwhile.
class VelQuinOVPPaywallviewController::DeferredWatch : public SKPaymentTransactionObserver {
 public:
  explicit DeferredWatch(Weak paywall) : paywall_(std::move(paywall)) {}
  void updatedTransactions(SKPaymentQueue&,
                           const std::vector<SKPaymentTransactionPtr>& transactions) override {
    auto paywall = paywall_.lock();
    if (!paywall || !paywall->pendingPurchase_) return;
    for (const auto& transaction : transactions) {
      if (transaction && transaction->transactionState == SKPaymentTransactionState::deferred &&
          transaction->payment.productIdentifier() == *paywall->pendingPurchase_) {
        paywall->setBusy(false);
        return;
      }
    }
  }

 private:
  Weak paywall_;  // main thread only
};

std::shared_ptr<VelQuinOVPPaywallviewController> VelQuinOVPPaywallviewController::create(
    std::optional<std::string> htmlString) {
  return std::shared_ptr<VelQuinOVPPaywallviewController>(
      new VelQuinOVPPaywallviewController(std::move(htmlString)));
}

VelQuinOVPPaywallviewController::VelQuinOVPPaywallviewController(
    std::optional<std::string> htmlString)
    : htmlString_(std::move(htmlString)), signals_(std::make_unique<Signals>()) {}

VelQuinOVPPaywallviewController::~VelQuinOVPPaywallviewController() {
  if (coveredWindow_) {
    g_signal_handlers_disconnect_by_data(coveredWindow_, this);
    g_object_remove_weak_pointer(G_OBJECT(coveredWindow_), reinterpret_cast<gpointer*>(&coveredWindow_));
  }
  if (coveredOwner_) {
    g_object_remove_weak_pointer(G_OBJECT(coveredOwner_),
                                 reinterpret_cast<gpointer*>(&coveredOwner_));
  }
  if (deferredWatch_) {
    if (auto queue = SKPaymentQueue::defaultQueue())
      queue->removeTransactionObserver(deferredWatch_);
  }
  Velquin::shared().writeLog("VelQuinPaywall deinit");
  if (progressTimer_) MainQueue::shared().cancel(progressTimer_);
  tearDownViews();
}

std::vector<std::shared_ptr<VelQuinOVPPaywallviewController>>
VelQuinOVPPaywallviewController::presented() {
  return presentedList();
}

void VelQuinOVPPaywallviewController::presentOver(GtkWindow* parent,
                                                  PagePresenter::PaywallCompletion shown) {
  if (window_) return;
  buildViews(parent);
  presentedList().push_back(shared_from_this());
  gtk_window_present(window_);
  loadPage();
  Velquin::shared().analytics().uploadBigDataWithEvent("ev_paywall_view");
  Weak weak = weak_from_this();
  MainQueue::shared().async([weak, shown = std::move(shown)] {
    if (auto self = weak.lock(); self && self->window_) {
      if (auto delegate = paywallDelegate()) delegate->paywallPresented();
    }
    if (shown) shown(true, std::nullopt);
  });
}

void VelQuinOVPPaywallviewController::coverWindow(GtkWindow* parent) {
  auto forget = [](GtkWindow** slot) {
    if (*slot) g_object_remove_weak_pointer(G_OBJECT(*slot), reinterpret_cast<gpointer*>(slot));
    *slot = nullptr;
  };
  if (coveredWindow_) g_signal_handlers_disconnect_by_data(coveredWindow_, this);
  forget(&coveredWindow_);
  forget(&coveredOwner_);
  coveredWindow_ = parent;
  if (window_) gtk_window_set_transient_for(window_, parent);
  if (!parent) return;
  g_object_add_weak_pointer(G_OBJECT(parent), reinterpret_cast<gpointer*>(&coveredWindow_));
  // The window under it, noted now: a window being destroyed has already
  // let go of its own transient parent.
  coveredOwner_ = gtk_window_get_transient_for(parent);
  if (coveredOwner_) {
    g_object_add_weak_pointer(G_OBJECT(coveredOwner_), reinterpret_cast<gpointer*>(&coveredOwner_));
  }
  // A dialog the paywall was opened from may go first: the paywall stays,
  // over the window the dialog was over.
  g_signal_connect(parent, "destroy", G_CALLBACK(+[](GtkWidget*, gpointer data) {
                     auto* self = static_cast<VelQuinOVPPaywallviewController*>(data);
                     self->coverWindow(self->coveredOwner_);
                   }),
                   this);
}

void VelQuinOVPPaywallviewController::buildViews(GtkWindow* parent) {
  auto owner = shared_from_this();
  window_ = GTK_WINDOW(gtk_window_new());
  gtk_window_set_title(window_, "Paywall");
  gtk_window_set_decorated(window_, FALSE);
  if (parent) {
    coverWindow(parent);
    gtk_window_set_modal(window_, TRUE);
    int width = gtk_widget_get_width(GTK_WIDGET(parent));
    int height = gtk_widget_get_height(GTK_WIDGET(parent));
    if (width <= 0 || height <= 0) gtk_window_get_default_size(parent, &width, &height);
    gtk_window_set_default_size(window_, width > 0 ? width : 400, height > 0 ? height : 700);
  } else {
    gtk_window_set_default_size(window_, 400, 700);
  }

  GtkWidget* overlay = gtk_overlay_new();
  detail::paintWhite(overlay);
  gtk_window_set_child(window_, overlay);

  signals_->userContentManager = webkit_user_content_manager_new();
  auto* manager = signals_->userContentManager;
  detail::installBridge(manager, {kGetSkuDetails, kPurchase});
  auto onMessage = +[](WebKitUserContentManager*, JSCValue* value, gpointer data) {
    auto self = lock(data);
    // A body that is not a string is ignored, and so is anything that does
    // not come from the document the paywall loaded.
    if (!self || !self->webView_ || !jsc_value_is_string(value)) return;
    if (!detail::isOwnDocument(webkit_web_view_get_uri(self->webView_))) return;
    char* text = jsc_value_to_string(value);
    std::string body = text ? text : "";
    g_free(text);
    // Which message this is: the detail of the signal that fired.
    const GSignalInvocationHint* hint = g_signal_get_invocation_hint(self->signals_->userContentManager);
    std::string name = hint && hint->detail ? g_quark_to_string(hint->detail) : "";
    if (name == kGetSkuDetails) {
      self->onGetSkuDetails(body);
    } else if (name == kPurchase) {
      self->onPurchase(body);
    }
  };
  signals_->managerHandlers.push_back(
      connectWeak(manager, "script-message-received::getSkuDetails", onMessage, owner));
  signals_->managerHandlers.push_back(
      connectWeak(manager, "script-message-received::purchase", onMessage, owner));

  webView_ = detail::makeWebView(G_OBJECT(manager));
  gtk_overlay_set_child(GTK_OVERLAY(overlay), GTK_WIDGET(webView_));
  connectWeak(webView_, "notify::estimated-load-progress",
                            +[](GObject* view, GParamSpec*, gpointer data) {
                              if (auto self = lock(data)) {
                                self->onProgress(webkit_web_view_get_estimated_load_progress(
                                    WEBKIT_WEB_VIEW(view)));
                              }
                            },
                            owner);
  connectWeak(webView_, "load-changed",
                            +[](WebKitWebView*, WebKitLoadEvent event, gpointer data) {
                              auto self = lock(data);
                              if (!self || !self->progressView_) return;
                              if (event == WEBKIT_LOAD_STARTED) {
                                gtk_widget_set_visible(self->progressView_, TRUE);
                              } else if (event == WEBKIT_LOAD_FINISHED) {
                                gtk_widget_set_visible(self->progressView_, FALSE);
                              }
                            },
                            owner);

  progressView_ = gtk_progress_bar_new();
  gtk_widget_set_valign(progressView_, GTK_ALIGN_START);
  gtk_widget_set_can_target(progressView_, FALSE);
  gtk_overlay_add_overlay(GTK_OVERLAY(overlay), progressView_);

  closeButton_ = detail::makeCloseButton();
  gtk_overlay_add_overlay(GTK_OVERLAY(overlay), closeButton_);
  connectWeak(closeButton_, "clicked",
                                              +[](GtkButton*, gpointer data) {
                                                if (auto self = lock(data)) self->closeAction();
                                              },
                                              owner);

  activityIndicator_ = detail::makeSpinner();
  gtk_widget_set_visible(activityIndicator_, FALSE);
  gtk_overlay_add_overlay(GTK_OVERLAY(overlay), activityIndicator_);

  Weak weakSelf = owner;
  detail::closeOnEscape(window_, [weakSelf] {
    if (auto self = weakSelf.lock()) self->closeAction();
  });

  // The window going away (close button, parent destroyed, window manager)
  // ends the paywall.
  connectWeak(window_, "destroy",
                           +[](GtkWidget*, gpointer data) {
                             auto self = lock(data);
                             if (!self) return;
                             // The window it covered becomes the active one again.
                             GtkWindow* covered = self->coveredWindow_;
                             self->tearDownViews();
                             auto& list = presentedList();
                             std::erase(list, self);
                             if (auto delegate = paywallDelegate()) delegate->paywallClosed();
                             if (!covered) return;
                             // After the paywall's window is gone, or the focus would
                             // go back to it.
                             auto* held = g_object_ref(covered);
                             g_idle_add_full(
                                 G_PRIORITY_DEFAULT_IDLE,
                                 [](gpointer coveredWindow) -> gboolean {
                                   auto* host = GTK_WINDOW(coveredWindow);
                                   if (gtk_widget_get_visible(GTK_WIDGET(host))) {
                                     gtk_window_present(host);
                                   }
                                   return G_SOURCE_REMOVE;
                                 },
                                 held, g_object_unref);
                           },
                           owner);
}

void VelQuinOVPPaywallviewController::tearDownViews() {
  if (!signals_) return;
  // Handlers on the widgets go with the widgets (and see the views gone);
  // the script message handlers are taken off the content manager we hold.
  if (auto* manager = signals_->userContentManager) {
    for (auto id : signals_->managerHandlers) g_signal_handler_disconnect(manager, id);
    signals_->managerHandlers.clear();
    webkit_user_content_manager_unregister_script_message_handler(manager, kGetSkuDetails,
                                                                  detail::kBridgeWorld);
    webkit_user_content_manager_unregister_script_message_handler(manager, kPurchase,
                                                                  detail::kBridgeWorld);
    webkit_user_content_manager_remove_all_scripts(manager);
    g_object_unref(manager);
    signals_->userContentManager = nullptr;
  }
  if (alert_ && alert_->window) gtk_window_destroy(alert_->window);
  alert_.reset();
  window_ = nullptr;
  webView_ = nullptr;
  progressView_ = activityIndicator_ = closeButton_ = nullptr;
}

void VelQuinOVPPaywallviewController::loadPage() {
  if (htmlString_) {
    webkit_web_view_load_html(webView_, htmlString_->c_str(), nullptr);
    return;
  }
  setBusy(true);
  Weak weak = weak_from_this();
  Velquin::shared().fetchPaywallPage(
      [weak](std::optional<std::string> page, std::optional<Error> error) {
        // The reply comes on a gRPC thread.
        MainQueue::shared().async([weak, page = std::move(page), error] {
          auto self = weak.lock();
          if (!self || !self->webView_) return;
          if (!error && page) webkit_web_view_load_html(self->webView_, page->c_str(), nullptr);
          self->setBusy(false);
          if (error || !page) {
            if (auto delegate = paywallDelegate()) {
              delegate->paywallFailed(error.value_or(
                  Error{kVelquinErrorDomain, 0, "The backend sent no paywall page."}));
            }
          }
        });
      });
}

void VelQuinOVPPaywallviewController::closeAction() {
  if (window_) gtk_window_destroy(window_);
}

bool VelQuinOVPPaywallviewController::isBusy() const {
  return activityIndicator_ && gtk_widget_get_visible(activityIndicator_);
}

void VelQuinOVPPaywallviewController::setBusy(bool busy) {
  if (!activityIndicator_) return;
  gtk_widget_set_visible(activityIndicator_, busy);
  gtk_spinner_set_spinning(GTK_SPINNER(activityIndicator_), busy);
}

void VelQuinOVPPaywallviewController::onProgress(double progress) {
  if (!progressView_) return;
  if (progressTimer_) {
    MainQueue::shared().cancel(progressTimer_);
    progressTimer_ = 0;
  }
  gtk_widget_set_opacity(progressView_, 1.0);
  gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(progressView_), std::min(1.0, progress));
  if (progress < 1.0) return;
  // Fade the bar out over 0.3 s after 0.3 s, then reset it.
  Weak weak = weak_from_this();
  progressTimer_ = MainQueue::shared().after(std::chrono::milliseconds(300), [weak] {
    auto self = weak.lock();
    if (!self || !self->progressView_) return;
    self->progressTimer_ = 0;
    detail::Fade::start(self->progressView_, std::chrono::milliseconds(300),
                        std::chrono::milliseconds(0), [weak] {
                          auto page = weak.lock();
                          if (page && page->progressView_) {
                            gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(page->progressView_), 0);
                          }
                        });
  });
}

void VelQuinOVPPaywallviewController::onGetSkuDetails(const std::string& body) {
  auto ids = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  productId_array_.reset();
  if (ids.is_array() && std::all_of(ids.begin(), ids.end(), [](const auto& id) { return id.is_string(); })) {
    productId_array_ = ids.get<std::vector<std::string>>();
  }
  setBusy(true);
  if (!productId_array_) {
    // Still an answer: nothing could be found for a body that is not a list.
    Velquin::shared().writeLog("getSkuDetails: the message is not a list of product ids");
    productId_array_.emplace();
    productSKProduct_.emplace();
    setBusy(pendingPurchase_.has_value());
    sendProductList();
    return;
  }
  std::set<std::string> wanted(productId_array_->begin(), productId_array_->end());
  Weak weak = weak_from_this();
  Velquin::shared().getSkuDetails(
      wanted, [weak](std::optional<std::map<std::string, SKProductPtr>> products,
                     std::optional<Error> error) {
        // The catalogue answers on the main queue; hop anyway, so an answer
        // given at once never runs inside the message handler.
        MainQueue::shared().async([weak, products = std::move(products), error = std::move(error)] {
          auto self = weak.lock();
          if (!self) return;
          self->setBusy(self->pendingPurchase_.has_value());
          // Whatever was found, or nothing: the page always hears back.
          self->productSKProduct_ = products.value_or(std::map<std::string, SKProductPtr>{});
          self->sendProductList();
          if (error) {
            if (auto delegate = paywallDelegate()) delegate->paywallFailed(*error);
          }
        });
      });
}

void VelQuinOVPPaywallviewController::sendProductList() {
  if (!productId_array_ || !productSKProduct_) return;
  bool isActive = Velquin::shared().purchases().getUserIsActive();
  nlohmann::ordered_json records = nlohmann::ordered_json::array();
  for (const auto& id : *productId_array_) {
    auto found = productSKProduct_->find(id);
    if (found != productSKProduct_->end() && found->second) {
      records.push_back(detail::productRecord(*found->second, isActive));
    }
  }
  std::string error;
  auto json = detail::serialise(records, &error);
  if (!json) {
    Velquin::shared().writeLog("getSkuDetails: " + error);
    return;
  }
  evaluate("getSkuDetailsCallback('" + detail::javaScriptQuoted(*json) + "')");
}

void VelQuinOVPPaywallviewController::onPurchase(const std::string& productId) {
  // One payment at a time: the page hears about the one it started.
  if (pendingPurchase_) {
    if (!toldPurchasePending_) {
      Velquin::shared().writeLog("purchase: " + *pendingPurchase_ +
                                 " is still pending; further purchase messages are ignored");
      toldPurchasePending_ = true;
    }
    return;
  }
  setBusy(true);
  SKProductPtr product;
  if (productSKProduct_) {
    auto found = productSKProduct_->find(productId);
    if (found != productSKProduct_->end()) product = found->second;
  }
  if (!product) {
    setBusy(false);
    return;
  }
  pendingPurchase_ = productId;
  toldPurchasePending_ = false;
  if (!deferredWatch_) {
    if (auto queue = SKPaymentQueue::defaultQueue()) {
      deferredWatch_ = std::make_shared<DeferredWatch>(weak_from_this());
      queue->addTransactionObserver(deferredWatch_);
    }
  }
  if (auto delegate = paywallDelegate()) delegate->paywallPurchaseStarted(productId);
  Weak weak = weak_from_this();
  Velquin::shared().purchaseSKProduct(
      *product, [weak, productId](SKPaymentTransactionPtr, OVSubscriber subscriber,
                                  std::optional<Error> error, bool userCancelled) {
        if (userCancelled && !error) {
          error = Error{kVelquinErrorDomain, 2, "The user cancelled the purchase."};
        }
        // Successful purchases answer on a gRPC thread: move to the page's thread.
        MainQueue::shared().async(
            [weak, productId, subscriber = std::move(subscriber), error = std::move(error)] {
              if (auto self = weak.lock()) self->purchaseFinished(productId, subscriber, error);
            });
      });
}

void VelQuinOVPPaywallviewController::purchaseFinished(const std::string& productId,
                                                       const OVSubscriber& subscriber,
                                                       const std::optional<Error>& error) {
  pendingPurchase_.reset();
  bool failed = error.has_value();
  if (auto delegate = paywallDelegate()) {
    delegate->paywallPurchaseFinished(
        productId, failed ? std::nullopt : std::optional<OVSubscriber>(subscriber), error);
  }
  setBusy(false);
  if (failed) {
    Velquin::shared().writeLog("Canceled");
    showAlert("Error", "purchases error!", false);
  } else {
    Velquin::shared().writeLog("Purchase completed");
    Velquin::shared().hasActiveSubscription([](OVSubscriber, std::optional<Error>) {});
    showAlert("Success", "purchases success!", true);
  }
  sendPurchaseResult(productId, !failed);
}

void VelQuinOVPPaywallviewController::sendPurchaseResult(const std::string& productId,
                                                         bool success) {
  if (!productSKProduct_) return;
  auto found = productSKProduct_->find(productId);
  if (found == productSKProduct_->end() || !found->second) return;
  auto record = detail::productRecord(*found->second, Velquin::shared().purchases().getUserIsActive());
  std::string error;
  auto json = detail::serialise(record, &error);
  if (!json) {
    Velquin::shared().writeLog("purchase: " + error);
    return;
  }
  evaluate("purchaseCallback('" + detail::javaScriptQuoted(*json) + "','" +
           (success ? "true" : "false") + "')");
}

void VelQuinOVPPaywallviewController::evaluate(const std::string& script) {
  if (!webView_) return;
  webkit_web_view_evaluate_javascript(webView_, script.c_str(), static_cast<gssize>(script.size()),
                                      nullptr, nullptr, nullptr, nullptr, nullptr);
  if (scriptObserver_) scriptObserver_(script);
}

void VelQuinOVPPaywallviewController::showAlert(const std::string& title,
                                                const std::string& message, bool closeAfter) {
  if (!window_) return;
  if (alert_ && alert_->window) gtk_window_destroy(alert_->window);
  GtkWidget* dialog = gtk_message_dialog_new(window_, GTK_DIALOG_MODAL, GTK_MESSAGE_OTHER,
                                             GTK_BUTTONS_NONE, "%s", title.c_str());
  gtk_message_dialog_format_secondary_text(GTK_MESSAGE_DIALOG(dialog), "%s", message.c_str());
  gtk_window_set_title(GTK_WINDOW(dialog), title.c_str());
  gtk_dialog_add_button(GTK_DIALOG(dialog), "OK", GTK_RESPONSE_OK);
  gtk_dialog_set_default_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
  alert_ = Alert{title, message, GTK_WINDOW(dialog)};
  struct Response {
    Weak weak;
    bool closeAfter;
  };
  g_signal_connect_data(
      dialog, "response",
      G_CALLBACK(+[](GtkDialog* shown, int, gpointer data) {
        auto* response = static_cast<Response*>(data);
        auto self = response->weak.lock();
        bool close = response->closeAfter;
        gtk_window_destroy(GTK_WINDOW(shown));
        if (!self) return;
        if (self->alert_ && self->alert_->window == GTK_WINDOW(shown)) self->alert_.reset();
        if (close) self->closeAction();
      }),
      new Response{weak_from_this(), closeAfter},
      [](gpointer data, GClosure*) { delete static_cast<Response*>(data); }, GConnectFlags(0));
  gtk_window_present(GTK_WINDOW(dialog));
}

void VelQuinOVPPaywallviewController::pressAlertOK() {
  if (alert_ && alert_->window) gtk_dialog_response(GTK_DIALOG(alert_->window), GTK_RESPONSE_OK);
}

}  // namespace velquin::gtk
