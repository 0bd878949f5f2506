// PNG snapshots of what a widget shows, web content included.
#include <webkit/webkit.h>

#include "velquin/gtk/Pages.h"

namespace velquin::gtk {
namespace {

void collectWebViews(GtkWidget* widget, std::vector<WebKitWebView*>& out) {
  if (WEBKIT_IS_WEB_VIEW(widget)) out.push_back(WEBKIT_WEB_VIEW(widget));
  for (GtkWidget* child = gtk_widget_get_first_child(widget); child;
       child = gtk_widget_get_next_sibling(child)) {
    collectWebViews(child, out);
  }
}

// Iterates the default context until `done` holds or `deadline` passes.
bool iterateUntil(const std::function<bool()>& done, gint64 deadline) {
  while (!done()) {
    if (g_get_monotonic_time() > deadline) return false;
    g_main_context_iteration(nullptr, FALSE);
  }
  return true;
}

}  // namespace

bool saveSnapshot(GtkWidget* widget, const std::string& pngPath, std::chrono::milliseconds limit) {
  if (!widget || !gtk_widget_get_mapped(widget)) return false;
  gint64 deadline = g_get_monotonic_time() +
                    std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
  // A web view's own snapshot completes once its content has been painted.
  std::vector<WebKitWebView*> views;
  collectWebViews(widget, views);
  int pending = static_cast<int>(views.size());
  for (auto* view : views) {
    webkit_web_view_get_snapshot(
        view, WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
          GdkTexture* texture =
              webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), result, nullptr);
          if (texture) g_object_unref(texture);
          --*static_cast<int*>(data);
        },
        &pending);
  }
  // Every snapshot callback must have run before `pending` leaves scope.
  while (pending > 0) g_main_context_iteration(nullptr, TRUE);
  // Then two frames of the widget's own drawing.
  int frames = 0;
  guint tick = gtk_widget_add_tick_callback(
      widget,
      +[](GtkWidget*, GdkFrameClock*, gpointer data) -> gboolean {
        ++*static_cast<int*>(data);
        return G_SOURCE_CONTINUE;
      },
      &frames, nullptr);
  iterateUntil([&] { return frames >= 3; }, deadline);
  gtk_widget_remove_tick_callback(widget, tick);

  int width = gtk_widget_get_width(widget);
  int height = gtk_widget_get_height(widget);
  GtkNative* native = gtk_widget_get_native(widget);
  if (width <= 0 || height <= 0 || !native) return false;
  GdkPaintable* paintable = gtk_widget_paintable_new(widget);
  GtkSnapshot* snapshot = gtk_snapshot_new();
  gdk_paintable_snapshot(paintable, snapshot, width, height);
  GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
  g_object_unref(paintable);
  if (!node) return false;
  graphene_rect_t bounds = GRAPHENE_RECT_INIT(0, 0, static_cast<float>(width),
                                              static_cast<float>(height));
  GdkTexture* texture = gsk_renderer_render_texture(gtk_native_get_renderer(native), node, &bounds);
  gsk_render_node_unref(node);
  bool saved = texture && gdk_texture_save_to_png(texture, pngPath.c_str());
  if (texture) g_object_unref(texture);
  return saved;
}

}  // namespace velquin::gtk
