// VelquinGtkPaywall and the other pages: forward to velquin::gtk and turn
// the paywall delegate's calls into GObject signals. Main thread only.
#define VELQUIN_GTK_GLIB_COMPILATION
#include "velquin-gtk-glib/velquin-gtk-glib.h"

#include <memory>

#include "../gobject/Private.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace {

enum { PRESENTED, PURCHASE_STARTED, PURCHASE_FINISHED, FAILED, CLOSED, N_SIGNALS };
guint signals[N_SIGNALS];

// Tells the paywall object of what every paywall did; held by the pages.
class Delegate : public velquin::gtk::PaywallDelegate {
 public:
  explicit Delegate(VelquinGtkPaywall* owner) : owner_(owner) {}
  // The owner is going; later calls are dropped.
  void forget() { owner_ = nullptr; }

  void paywallPresented() override {
    if (owner_) g_signal_emit(owner_, signals[PRESENTED], 0);
  }
  void paywallPurchaseStarted(const std::string& productId) override {
    if (owner_) g_signal_emit(owner_, signals[PURCHASE_STARTED], 0, productId.c_str());
  }
  void paywallPurchaseFinished(const std::string& productId,
                               const std::optional<velquin::OVSubscriber>& subscriber,
                               const std::optional<velquin::Error>& error) override {
    if (!owner_) return;
    VelquinSubscriber* made = subscriber ? velquin::glib::wrapSubscriber(*subscriber) : nullptr;
    GError* failure = error ? velquin::glib::toGError(*error) : nullptr;
    g_signal_emit(owner_, signals[PURCHASE_FINISHED], 0, productId.c_str(), made, failure);
    g_clear_object(&made);
    g_clear_error(&failure);
  }
  void paywallFailed(const velquin::Error& error) override {
    if (!owner_) return;
    GError* failure = velquin::glib::toGError(error);
    g_signal_emit(owner_, signals[FAILED], 0, failure);
    g_error_free(failure);
  }
  void paywallClosed() override {
    if (owner_) g_signal_emit(owner_, signals[CLOSED], 0);
  }

 private:
  VelquinGtkPaywall* owner_;  // main thread only; null once the owner is finalized
};

}  // namespace

struct _VelquinGtkPaywall {
  GObject parent_instance;
  std::shared_ptr<Delegate>* delegate;  // made with the object, immutable
};

G_DEFINE_FINAL_TYPE(VelquinGtkPaywall, velquin_gtk_paywall, G_TYPE_OBJECT)

static void velquin_gtk_paywall_finalize(GObject* object) {
  auto* self = VELQUIN_GTK_PAYWALL(object);
  (*self->delegate)->forget();
  if (velquin::gtk::paywallDelegate() == *self->delegate) velquin::gtk::setPaywallDelegate(nullptr);
  delete self->delegate;
  G_OBJECT_CLASS(velquin_gtk_paywall_parent_class)->finalize(object);
}

static void velquin_gtk_paywall_class_init(VelquinGtkPaywallClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = velquin_gtk_paywall_finalize;
  GType type = G_TYPE_FROM_CLASS(klass);
  /**
   * VelquinGtkPaywall::presented:
   * @self: the paywall
   *
   * The paywall window is on screen.
   */
  signals[PRESENTED] = g_signal_new("presented", type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr,
                                    nullptr, G_TYPE_NONE, 0);
  /**
   * VelquinGtkPaywall::purchase-started:
   * @self: the paywall
   * @product_id: the product the page asked to buy
   *
   * The store payment of a purchase through the page has started.
   */
  signals[PURCHASE_STARTED] = g_signal_new("purchase-started", type, G_SIGNAL_RUN_LAST, 0, nullptr,
                                           nullptr, nullptr, G_TYPE_NONE, 1, G_TYPE_STRING);
  /**
   * VelquinGtkPaywall::purchase-finished:
   * @self: the paywall
   * @product_id: the product
   * @subscriber: (nullable): the backend's subscriber after a purchase that succeeded
   * @error: (nullable): why it failed (%VELQUIN_ERROR_CANCELLED for a cancel)
   *
   * A purchase through the page ended.
   */
  signals[PURCHASE_FINISHED] =
      g_signal_new("purchase-finished", type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr,
                   G_TYPE_NONE, 3, G_TYPE_STRING, VELQUIN_TYPE_SUBSCRIBER, G_TYPE_ERROR);
  /**
   * VelquinGtkPaywall::failed:
   * @self: the paywall
   * @error: what failed
   *
   * Something the page needed failed (its products, its page).
   */
  signals[FAILED] = g_signal_new("failed", type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr,
                                 G_TYPE_NONE, 1, G_TYPE_ERROR);
  /**
   * VelquinGtkPaywall::closed:
   * @self: the paywall
   *
   * The paywall is off the screen.
   */
  signals[CLOSED] = g_signal_new("closed", type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr,
                                 G_TYPE_NONE, 0);
}

static void velquin_gtk_paywall_init(VelquinGtkPaywall* self) {
  self->delegate = new std::shared_ptr<Delegate>(std::make_shared<Delegate>(self));
}

gboolean velquin_gtk_install(void) { return velquin::gtk::install(); }

VelquinGtkPaywall* velquin_gtk_paywall_new(void) {
  auto* self = static_cast<VelquinGtkPaywall*>(g_object_new(VELQUIN_GTK_TYPE_PAYWALL, nullptr));
  velquin::gtk::setPaywallDelegate(*self->delegate);
  return self;
}

void velquin_gtk_paywall_present(VelquinGtkPaywall* self, GtkWindow* parent,
                                 GCancellable* cancellable, GAsyncReadyCallback callback,
                                 gpointer user_data) {
  g_return_if_fail(VELQUIN_GTK_IS_PAYWALL(self));
  g_return_if_fail(parent == nullptr || GTK_IS_WINDOW(parent));
  GTask* task = g_task_new(self, cancellable, callback, user_data);
  g_task_set_source_tag(task, reinterpret_cast<gpointer>(velquin_gtk_paywall_present));
  if (g_task_return_error_if_cancelled(task)) {
    g_object_unref(task);
    return;
  }
  // The task is returned once, by the presenter's completion.
  auto shown = [task](bool presented, std::optional<std::string> message) {
    if (presented) {
      g_task_return_boolean(task, TRUE);
    } else {
      g_task_return_new_error(task, VELQUIN_ERROR, VELQUIN_ERROR_PAYWALL_FAILED, "%s",
                              message ? message->c_str() : "paywall show failed");
    }
    g_object_unref(task);
  };
  if (parent == nullptr) {
    velquin::Velquin::shared().loadPaywallToPurachase(std::move(shown));
  } else {
    velquin::gtk::VelQuinOVPPaywallviewController::create(std::nullopt)
        ->presentOver(parent, std::move(shown));
  }
}

gboolean velquin_gtk_paywall_present_finish(VelquinGtkPaywall* self, GAsyncResult* result,
                                            GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, self), FALSE);
  return g_task_propagate_boolean(G_TASK(result), error);
}

void velquin_gtk_paywall_close(VelquinGtkPaywall* self) {
  g_return_if_fail(VELQUIN_GTK_IS_PAYWALL(self));
  for (const auto& paywall : velquin::gtk::VelQuinOVPPaywallviewController::presented()) {
    paywall->closeAction();
  }
}

GtkWidget* velquin_gtk_welcome_page_new(gdouble waiting_time) {
  return velquin::gtk::VelquinWelcomePage::create(waiting_time)->widget();
}

gboolean velquin_gtk_show_in_app_message(const gchar* html) {
  g_return_val_if_fail(html != nullptr, FALSE);
  return velquin::gtk::OVInAppMessagePage::show(html) != nullptr;
}
