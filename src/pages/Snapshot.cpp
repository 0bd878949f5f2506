// PNG snapshots of what a widget shows, web content included. GTK draws the
// widgets; each web view's content comes from WebKit's own snapshot (which
// waits for the page to be painted) and is laid in at the view's place,
// followed by everything drawn above the view.
#include <webkit/webkit.h>

#include "velquin/gtk/Pages.h"

namespace velquin::gtk {
namespace {

void collectWebViews(GtkWidget* widget, std::vector<WebKitWebView*>& out) {
  if (!gtk_widget_get_mapped(widget)) return;
  if (WEBKIT_IS_WEB_VIEW(widget)) out.push_back(WEBKIT_WEB_VIEW(widget));
  for (GtkWidget* child = gtk_widget_get_first_child(widget); child;
       child = gtk_widget_get_next_sibling(child)) {
    collectWebViews(child, out);
  }
}

// WebKit's pictures of the views, filled in by their callbacks; shared with
// callbacks that may come after the caller gave up waiting.
struct Pictures {
  std::vector<GdkTexture*> textures;  // null until (or unless) taken
  int pending = 0;
  ~Pictures() {
    for (auto* texture : textures) {
      if (texture) g_object_unref(texture);
    }
  }
};

struct PictureRequest {
  std::shared_ptr<Pictures> pictures;
  std::size_t index;
};

// Draws `widget` translated to where it is inside `root`.
void drawAt(GtkSnapshot* snapshot, GtkWidget* widget, GtkWidget* root) {
  graphene_rect_t bounds;
  if (!gtk_widget_get_mapped(widget) || !gtk_widget_compute_bounds(widget, root, &bounds)) return;
  GdkPaintable* paintable = gtk_widget_paintable_new(widget);
  gtk_snapshot_save(snapshot);
  gtk_snapshot_translate(snapshot, &bounds.origin);
  gdk_paintable_snapshot(paintable, snapshot, bounds.size.width, bounds.size.height);
  gtk_snapshot_restore(snapshot);
  g_object_unref(paintable);
}

}  // namespace

bool saveSnapshot(GtkWidget* widget, const std::string& pngPath, std::chrono::milliseconds limit) {
  if (!widget || !gtk_widget_get_visible(widget)) return false;
  gint64 deadline = g_get_monotonic_time() +
                    std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
  // A window that was just shown is mapped and sized a few events later.
  while ((!gtk_widget_get_mapped(widget) || gtk_widget_get_width(widget) <= 0 ||
          gtk_widget_get_height(widget) <= 0) &&
         g_get_monotonic_time() < deadline) {
    g_main_context_iteration(nullptr, FALSE);
  }
  if (!gtk_widget_get_mapped(widget)) return false;
  // A change made just before (a label's new text, a page taken away) is
  // laid out in the next frame, and until then the widget's paintable draws
  // nothing: wait for a frame painted after the call.
  if (GdkFrameClock* clock = gtk_widget_get_frame_clock(widget)) {
    bool painted = false;
    gulong handler = g_signal_connect(
        clock, "after-paint",
        G_CALLBACK(+[](GdkFrameClock*, gpointer flag) { *static_cast<bool*>(flag) = true; }),
        &painted);
    gtk_widget_queue_draw(widget);
    while (!painted && g_get_monotonic_time() < deadline) g_main_context_iteration(nullptr, FALSE);
    g_signal_handler_disconnect(clock, handler);
  }
  int width = gtk_widget_get_width(widget);
  int height = gtk_widget_get_height(widget);
  GtkNative* native = gtk_widget_get_native(widget);
  if (width <= 0 || height <= 0 || !native) return false;

  std::vector<WebKitWebView*> views;
  collectWebViews(widget, views);
  auto pictures = std::make_shared<Pictures>();
  pictures->textures.assign(views.size(), nullptr);
  pictures->pending = static_cast<int>(views.size());
  for (std::size_t i = 0; i < views.size(); ++i) {
    webkit_web_view_get_snapshot(
        views[i], WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
          std::unique_ptr<PictureRequest> request(static_cast<PictureRequest*>(data));
          request->pictures->textures[request->index] =
              webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), result, nullptr);
          --request->pictures->pending;
        },
        new PictureRequest{pictures, i});
  }
  while (pictures->pending > 0 && g_get_monotonic_time() < deadline) {
    g_main_context_iteration(nullptr, FALSE);
  }

  GtkSnapshot* snapshot = gtk_snapshot_new();
  GdkPaintable* paintable = gtk_widget_paintable_new(widget);
  gdk_paintable_snapshot(paintable, snapshot, width, height);
  g_object_unref(paintable);
  for (std::size_t i = 0; i < views.size(); ++i) {
    GdkTexture* texture = pictures->textures[i];
    graphene_rect_t bounds;
    if (!texture || !gtk_widget_compute_bounds(GTK_WIDGET(views[i]), widget, &bounds)) continue;
    gtk_snapshot_append_texture(snapshot, texture, &bounds);
    // What GTK draws after the view lies above it: draw that again.
    for (GtkWidget* level = GTK_WIDGET(views[i]); level && level != widget;
         level = gtk_widget_get_parent(level)) {
      for (GtkWidget* above = gtk_widget_get_next_sibling(level); above;
           above = gtk_widget_get_next_sibling(above)) {
        drawAt(snapshot, above, widget);
      }
    }
  }
  GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
  if (!node) return false;
  graphene_rect_t bounds;
  graphene_rect_init(&bounds, 0, 0, static_cast<float>(width), static_cast<float>(height));
  GdkTexture* texture = gsk_renderer_render_texture(gtk_native_get_renderer(native), node, &bounds);
  gsk_render_node_unref(node);
  bool saved = texture && gdk_texture_save_to_png(texture, pngPath.c_str());
  if (texture) g_object_unref(texture);
  return saved;
}

}  // namespace velquin::gtk
