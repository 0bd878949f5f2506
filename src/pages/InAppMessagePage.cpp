// In-app message pages: layers over the whole host window.
#include <webkit/webkit.h>

#include "PageSupport.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::gtk {
namespace {

constexpr const char* kLayerKey = "velquin-message-layer";

// The pages on screen, bottom first; each keeps itself here until closed.
// Main thread only.
std::vector<std::shared_ptr<OVInAppMessagePage>>& shownList() {
  static auto* list = new std::vector<std::shared_ptr<OVInAppMessagePage>>();
  return *list;
}

// The overlay the pages of `window` stack in: made on first use by moving
// the window's content into a GtkOverlay, so the pages cover all of it.
GtkOverlay* layerOf(GtkWindow* window) {
  if (auto* layer = static_cast<GtkOverlay*>(g_object_get_data(G_OBJECT(window), kLayerKey))) {
    if (gtk_widget_get_root(GTK_WIDGET(layer)) == GTK_ROOT(window)) return layer;
  }
  GtkWidget* content = gtk_window_get_child(window);
  if (content) {
    g_object_ref(content);
    gtk_window_set_child(window, nullptr);
  }
  GtkWidget* layer = gtk_overlay_new();
  gtk_overlay_set_child(GTK_OVERLAY(layer), content);
  if (content) g_object_unref(content);
  gtk_window_set_child(window, layer);
  g_object_set_data(G_OBJECT(window), kLayerKey, layer);
  return GTK_OVERLAY(layer);
}

}  // namespace

std::shared_ptr<OVInAppMessagePage> OVInAppMessagePage::show(const std::string& htmlString) {
  GtkWindow* window = detail::activeToplevel();
  if (!window) return nullptr;
  std::shared_ptr<OVInAppMessagePage> page(new OVInAppMessagePage(htmlString));
  page->build(window);
  shownList().push_back(page);
  return page;
}

OVInAppMessagePage::OVInAppMessagePage(std::string htmlString)
    : htmlString_(std::move(htmlString)) {}

OVInAppMessagePage::~OVInAppMessagePage() {
  if (root_) {
    detail::removeFromParent(root_);
    g_object_unref(root_);
  }
  Velquin::shared().writeLog("InAppMessagePage deinit");
}

std::vector<std::shared_ptr<OVInAppMessagePage>> OVInAppMessagePage::shownPages() {
  return shownList();
}

void OVInAppMessagePage::build(GtkWindow* window) {
  root_ = gtk_overlay_new();
  g_object_ref_sink(root_);
  detail::paintWhite(root_);
  webView_ = detail::makeWebView(nullptr);
  gtk_overlay_set_child(GTK_OVERLAY(root_), GTK_WIDGET(webView_));
  webkit_web_view_load_html(webView_, htmlString_.c_str(), nullptr);

  closeButton_ = detail::makeCloseButton();
  gtk_overlay_add_overlay(GTK_OVERLAY(root_), closeButton_);
  g_signal_connect_data(
      closeButton_, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
        if (auto self = static_cast<std::weak_ptr<OVInAppMessagePage>*>(data)->lock()) {
          self->closeAction();
        }
      }),
      new std::weak_ptr<OVInAppMessagePage>(weak_from_this()),
      [](gpointer data, GClosure*) { delete static_cast<std::weak_ptr<OVInAppMessagePage>*>(data); },
      GConnectFlags(0));

  gtk_overlay_add_overlay(layerOf(window), root_);
}

void OVInAppMessagePage::closeAction() {
  auto keep = shared_from_this();
  if (root_) detail::removeFromParent(root_);
  std::erase(shownList(), keep);
}

}  // namespace velquin::gtk
