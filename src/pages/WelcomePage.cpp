// The welcome page over the host's start screen.
#include <webkit/webkit.h>

#include "PageSupport.h"
#include "velquin/MainQueue.h"
#include "velquin/NotificationCenter.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::gtk {
namespace {
constexpr const char* kWelcomePageNotification = "VelQuinWelcomPageDateName";
constexpr std::chrono::milliseconds kFadeDuration{1000};
constexpr std::chrono::milliseconds kFadeDelay{2000};
}  // namespace

std::shared_ptr<VelquinWelcomePage> VelquinWelcomePage::create(double waitingTime) {
  std::shared_ptr<VelquinWelcomePage> page(new VelquinWelcomePage(waitingTime));
  page->setUp();
  return page;
}

VelquinWelcomePage::VelquinWelcomePage(double waitingTime) : waitingTime_(waitingTime) {}

VelquinWelcomePage::~VelquinWelcomePage() {
  NotificationCenter::defaultCenter().removeObserver(observerToken_);
  for (auto id : timers_) MainQueue::shared().cancel(id);
  if (fade_) fade_->cancel();
  if (root_) g_object_remove_weak_pointer(G_OBJECT(root_), reinterpret_cast<gpointer*>(&root_));
  Velquin::shared().writeLog("Welcomepage deinit");
}

void VelquinWelcomePage::setUp() {
  root_ = gtk_overlay_new();
  g_object_add_weak_pointer(G_OBJECT(root_), reinterpret_cast<gpointer*>(&root_));
  detail::paintWhite(root_);
  gtk_widget_set_hexpand(root_, TRUE);
  gtk_widget_set_vexpand(root_, TRUE);
  // The widget keeps the page object alive while it is in a parent.
  g_object_set_data_full(G_OBJECT(root_), "velquin-welcome-page",
                         new std::shared_ptr<VelquinWelcomePage>(shared_from_this()),
                         [](gpointer data) { delete static_cast<std::shared_ptr<VelquinWelcomePage>*>(data); });
  webView_ = detail::makeWebView(nullptr);
  gtk_overlay_set_child(GTK_OVERLAY(root_), GTK_WIDGET(webView_));

  showStoredPage();

  loader_ = detail::makeSpinner();
  gtk_spinner_start(GTK_SPINNER(loader_));
  gtk_overlay_add_overlay(GTK_OVERLAY(root_), loader_);

  std::weak_ptr<VelquinWelcomePage> weak = shared_from_this();
  // Posted on whatever thread stored the page: move to the main queue.
  observerToken_ = NotificationCenter::defaultCenter().addObserver(
      kWelcomePageNotification, [weak](const Notification&) {
        MainQueue::shared().async([weak] {
          if (auto self = weak.lock()) self->refresh();
        });
      });
  timers_.push_back(MainQueue::shared().after(
      std::chrono::milliseconds(static_cast<long long>(waitingTime_ * 1000)), [weak] {
        if (auto self = weak.lock()) self->removeFromSuperview();
      }));
}

bool VelquinWelcomePage::showStoredPage() {
  if (!root_) return false;
  auto page = Velquin::shared().storedWelcomePage();
  if (!page || page->empty()) return false;
  shownPage_ = *page;
  webkit_web_view_load_html(webView_, page->c_str(), nullptr);
  fadeOut(kFadeDuration, kFadeDelay);
  return true;
}

void VelquinWelcomePage::refresh() {
  if (!root_) return;
  if (loader_) {
    gtk_spinner_stop(GTK_SPINNER(loader_));
    detail::removeFromParent(loader_);
    loader_ = nullptr;
  }
  showStoredPage();
}

void VelquinWelcomePage::fadeOut(std::chrono::milliseconds duration,
                                 std::chrono::milliseconds delay) {
  if (fade_) fade_->cancel();
  if (!root_) return;
  std::weak_ptr<VelquinWelcomePage> weak = shared_from_this();
  fade_ = detail::Fade::start(root_, duration, delay, [weak] {
    if (auto self = weak.lock()) self->removeFromSuperview();
  });
}

bool VelquinWelcomePage::isLoaderSpinning() const {
  if (!root_ || !loader_) return false;
  gboolean spinning = FALSE;
  g_object_get(loader_, "spinning", &spinning, nullptr);
  return spinning && gtk_widget_get_parent(loader_);
}

bool VelquinWelcomePage::isOnScreen() const {
  return root_ && gtk_widget_get_parent(root_) && gtk_widget_get_visible(root_);
}

void VelquinWelcomePage::removeFromSuperview() {
  // Taking the widget from its parent may free it, and with it this page.
  auto keep = shared_from_this();
  if (!root_) return;
  if (loader_) {
    gtk_spinner_stop(GTK_SPINNER(loader_));
    detail::removeFromParent(loader_);
    loader_ = nullptr;
  }
  if (root_) detail::removeFromParent(root_);
}

}  // namespace velquin::gtk
