// In-app message pages: each in an undecorated window of its own, transient
// for the host's top window and covering it. The host's widget tree is never
// touched, so any kind of window (libadwaita's included) can carry them.
#include <webkit/webkit.h>

#include "PageSupport.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::gtk {
namespace {

// The pages on screen, bottom first; each keeps itself here until closed.
// Main thread only.
std::vector<std::shared_ptr<OVInAppMessagePage>>& shownList() {
  static auto* list = new std::vector<std::shared_ptr<OVInAppMessagePage>>();
  return *list;
}

using Weak = std::weak_ptr<OVInAppMessagePage>;

// The window a message's window is over (a reference held by the message's window).
constexpr const char* kBelowKey = "velquin-message-below";

}  // namespace

std::shared_ptr<OVInAppMessagePage> OVInAppMessagePage::show(const std::string& htmlString) {
  // Over the top window, so a second message stacks over the first.
  GtkWindow* window = VelQuinOVPTopViewController::topWindow();
  if (!window) return nullptr;
  std::shared_ptr<OVInAppMessagePage> page(new OVInAppMessagePage(htmlString));
  page->build(window);
  shownList().push_back(page);
  gtk_window_present(page->window_);
  return page;
}

OVInAppMessagePage::OVInAppMessagePage(std::string htmlString)
    : htmlString_(std::move(htmlString)) {}

OVInAppMessagePage::~OVInAppMessagePage() {
  if (window_) {
    g_signal_handlers_disconnect_by_data(window_, this);
    gtk_window_destroy(window_);
  }
  Velquin::shared().writeLog("InAppMessagePage deinit");
}

std::vector<std::shared_ptr<OVInAppMessagePage>> OVInAppMessagePage::shownPages() {
  return shownList();
}

void OVInAppMessagePage::build(GtkWindow* over) {
  window_ = GTK_WINDOW(gtk_window_new());
  gtk_window_set_title(window_, "Message");
  gtk_window_set_decorated(window_, FALSE);
  gtk_window_set_transient_for(window_, over);
  // Noted apart: a window being destroyed has already let go of it.
  g_object_set_data_full(G_OBJECT(window_), kBelowKey, g_object_ref(over), g_object_unref);
  gtk_window_set_modal(window_, TRUE);
  gtk_window_set_destroy_with_parent(window_, TRUE);
  int width = gtk_widget_get_width(GTK_WIDGET(over));
  int height = gtk_widget_get_height(GTK_WIDGET(over));
  if (width <= 0 || height <= 0) gtk_window_get_default_size(over, &width, &height);
  gtk_window_set_default_size(window_, width > 0 ? width : 400, height > 0 ? height : 700);

  root_ = gtk_overlay_new();
  detail::paintWhite(root_);
  gtk_window_set_child(window_, root_);
  webView_ = detail::makeWebView(nullptr);
  gtk_overlay_set_child(GTK_OVERLAY(root_), GTK_WIDGET(webView_));
  webkit_web_view_load_html(webView_, htmlString_.c_str(), nullptr);

  closeButton_ = detail::makeCloseButton();
  gtk_overlay_add_overlay(GTK_OVERLAY(root_), closeButton_);
  g_signal_connect_data(
      closeButton_, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
        if (auto self = static_cast<Weak*>(data)->lock()) self->closeAction();
      }),
      new Weak(weak_from_this()), [](gpointer data, GClosure*) { delete static_cast<Weak*>(data); },
      GConnectFlags(0));
  Weak weak = weak_from_this();
  detail::closeOnEscape(window_, [weak] {
    if (auto self = weak.lock()) self->closeAction();
  });
  // The window going by other ways (its host window destroyed) ends the
  // page as well. Destroying a window hides it at once but may free it
  // later, while others hold it: the page ends when it is hidden.
  g_signal_connect(window_, "hide", G_CALLBACK(+[](GtkWidget*, gpointer data) {
                     static_cast<OVInAppMessagePage*>(data)->closeAction();
                   }),
                   this);
}

void OVInAppMessagePage::closeAction() {
  auto keep = shared_from_this();
  if (GtkWindow* window = std::exchange(window_, nullptr)) {
    root_ = nullptr;
    webView_ = nullptr;
    closeButton_ = nullptr;
    g_signal_handlers_disconnect_by_data(window, this);
    // The window below becomes the active one again (after this one is
    // gone, or the focus would come back here), so the next page can be
    // shown over it.
    if (auto* below = static_cast<GtkWindow*>(g_object_get_data(G_OBJECT(window), kBelowKey))) {
      g_idle_add_full(
          G_PRIORITY_DEFAULT_IDLE,
          [](gpointer held) -> gboolean {
            if (gtk_widget_get_visible(GTK_WIDGET(held))) gtk_window_present(GTK_WINDOW(held));
            return G_SOURCE_REMOVE;
          },
          g_object_ref(below), g_object_unref);
    }
    // Hidden and let go of here; GTK frees it once nothing else holds it.
    gtk_window_destroy(window);
  }
  std::erase(shownList(), keep);
}

}  // namespace velquin::gtk
