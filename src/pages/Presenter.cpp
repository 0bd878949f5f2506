// install(): the main queue on GTK's context and the page presenter.
#include "PageSupport.h"

#include <utility>

#include "velquin/MainQueue.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::gtk {
namespace {

// How long a page asked for while no host window is active waits for one
// (an app in the background, a notification clicked before the window is
// up), and how often it looks.
constexpr std::chrono::milliseconds kWindowWait{10000};
constexpr std::chrono::milliseconds kWindowPoll{100};

// Runs `show` with the window to present on as soon as there is one, at once
// when there is; `none` when kWindowWait passes without one. Main thread.
void whenWindowActive(std::function<void(GtkWindow*)> show, std::function<void()> none) {
  if (GtkWindow* top = VelQuinOVPTopViewController::topWindow()) {
    show(top);
    return;
  }
  struct Wait {
    std::function<void(GtkWindow*)> show;
    std::function<void()> none;
    MainQueue::TimerId poll = 0;
    MainQueue::TimerId limit = 0;
  };
  auto wait = std::make_shared<Wait>(Wait{std::move(show), std::move(none)});
  wait->poll = MainQueue::shared().every(kWindowPoll, [wait] {
    GtkWindow* top = VelQuinOVPTopViewController::topWindow();
    if (!top || !wait->show) return;
    MainQueue::shared().cancel(wait->poll);
    MainQueue::shared().cancel(wait->limit);
    auto present = std::exchange(wait->show, nullptr);
    wait->none = nullptr;
    present(top);
  });
  wait->limit = MainQueue::shared().after(kWindowWait, [wait] {
    if (!wait->none) return;
    MainQueue::shared().cancel(wait->poll);
    wait->show = nullptr;
    auto giveUp = std::exchange(wait->none, nullptr);
    giveUp();
  });
}

class GtkPagePresenter final : public PagePresenter {
 public:
  bool presentPaywall(const std::string& html, PaywallCompletion completion) override {
    auto shared = std::make_shared<PaywallCompletion>(std::move(completion));
    whenWindowActive(
        [html, shared](GtkWindow* top) {
          VelQuinOVPPaywallviewController::create(html)->presentOver(top, std::move(*shared));
        },
        [shared] {
          Velquin::shared().writeLog("paywall: no host window became active");
          if (*shared) (*shared)(false, "paywall show failed");
        });
    return true;
  }
  bool presentInAppMessage(const std::string& html) override {
    whenWindowActive(
        [html](GtkWindow*) { OVInAppMessagePage::show(html); },
        [] { Velquin::shared().writeLog("in-app message: no host window became active"); });
    return true;
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

namespace {
// Main thread only.
UriLauncher& launcherSlot() {
  static UriLauncher slot;
  return slot;
}
}  // namespace

void setUriLauncher(UriLauncher launcher) {
  launcherSlot() = std::move(launcher);
}

void openUri(GtkWindow* parent, const std::string& uri) {
  if (auto& launcher = launcherSlot()) {
    launcher(parent, uri);
    return;
  }
  gtk_show_uri(parent, uri.c_str(), GDK_CURRENT_TIME);
}

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
