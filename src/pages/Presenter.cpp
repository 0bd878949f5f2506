// install(): the main queue on GTK's context and the page presenter.
#include "PageSupport.h"
#include "velquin/MainQueue.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::gtk {
namespace {

class GtkPagePresenter final : public PagePresenter {
 public:
  bool presentPaywall(const std::string& html, PaywallCompletion completion) override {
    GtkWindow* top = VelQuinOVPTopViewController::topWindow();
    if (!top) return false;
    VelQuinOVPPaywallviewController::create(html)->presentOver(top, std::move(completion));
    return true;
  }
  bool presentInAppMessage(const std::string& html) override {
    return OVInAppMessagePage::show(html) != nullptr;
  }
};

}  // namespace

namespace {
// Main thread only.
std::shared_ptr<PaywallDelegate>& delegateSlot() {
  static std::shared_ptr<PaywallDelegate> slot;
  return slot;
}
}  // namespace

void setPaywallDelegate(std::shared_ptr<PaywallDelegate> delegate) {
  delegateSlot() = std::move(delegate);
}

std::shared_ptr<PaywallDelegate> paywallDelegate() { return delegateSlot(); }

std::shared_ptr<PagePresenter> makePagePresenter() { return std::make_shared<GtkPagePresenter>(); }

bool install() {
  if (!MainQueue::useHostContext(g_main_context_default())) return false;
  Velquin::shared().setPagePresenter(makePagePresenter());
  return true;
}

GtkWindow* VelQuinOVPTopViewController::topWindow() {
  GtkWindow* top = detail::activeToplevel();
  if (!top) return nullptr;
  // Descend into the last visible window that is transient for the current one.
  for (int depth = 0; depth < 32; ++depth) {
    GListModel* toplevels = gtk_window_get_toplevels();
    GtkWindow* child = nullptr;
    for (guint i = 0, n = g_list_model_get_n_items(toplevels); i < n; ++i) {
      auto* window = GTK_WINDOW(g_list_model_get_item(toplevels, i));
      if (window != top && gtk_window_get_transient_for(window) == top &&
          gtk_widget_get_visible(GTK_WIDGET(window))) {
        child = window;
      }
      g_object_unref(window);
    }
    if (!child) break;
    top = child;
  }
  return top;
}

}  // namespace velquin::gtk
