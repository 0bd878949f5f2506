/* The Velquin pages for GTK 4 hosts written in C or a language that binds
 * it: the paywall, the welcome page and in-app message pages.
 *
 * Threads: everything here is used on the GTK main thread, after
 * velquin_gtk_install(). Plain C99. */
#pragma once

#include <gtk/gtk.h>

#include <velquin-glib/velquin-glib.h>

G_BEGIN_DECLS

#if defined(VELQUIN_GTK_GLIB_COMPILATION)
#define VELQUIN_GTK_GLIB_API __attribute__((visibility("default")))
#else
#define VELQUIN_GTK_GLIB_API
#endif

/**
 * velquin_gtk_install:
 *
 * Puts the SDK's main queue on GTK's default main context and installs the
 * page presenter, so that the paywall and in-app messages can be shown.
 * Call it after gtk_init() and velquin_set_bundle_path(), before anything
 * else of the SDK.
 *
 * Returns: %FALSE (installing nothing) when the SDK was used before
 */
VELQUIN_GTK_GLIB_API gboolean velquin_gtk_install (void);

/**
 * VelquinGtkPaywall:
 *
 * Shows the server's paywall page over a window and tells what happened on
 * it through signals: #VelquinGtkPaywall::presented, then any number of
 * #VelquinGtkPaywall::purchase-started / #VelquinGtkPaywall::purchase-finished
 * pairs, then #VelquinGtkPaywall::closed; #VelquinGtkPaywall::failed when
 * something the page needed failed.
 *
 * The paywalls of a process report to one listener: the #VelquinGtkPaywall
 * made last (until it is finalized). #VelquinGtkPaywall::closed comes when
 * the paywall's window is disposed, so a host must not keep references to
 * that window or its children (a binding's variables included).
 */
#define VELQUIN_GTK_TYPE_PAYWALL (velquin_gtk_paywall_get_type ())
VELQUIN_GTK_GLIB_API G_DECLARE_FINAL_TYPE (VelquinGtkPaywall, velquin_gtk_paywall, VELQUIN_GTK, PAYWALL, GObject)

/**
 * velquin_gtk_paywall_new:
 *
 * Returns: (transfer full): a paywall that hears every paywall of the process
 */
VELQUIN_GTK_GLIB_API VelquinGtkPaywall *velquin_gtk_paywall_new (void);

/**
 * velquin_gtk_paywall_present:
 * @self: the paywall
 * @parent: (nullable): the window to cover; %NULL for the host's active window
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called once the paywall is on screen or could not be shown
 * @user_data: (closure): data for @callback
 *
 * Fetches the paywall page and presents it.
 */
VELQUIN_GTK_GLIB_API void velquin_gtk_paywall_present (VelquinGtkPaywall *self, GtkWindow *parent,
                                                       GCancellable *cancellable, GAsyncReadyCallback callback,
                                                       gpointer user_data);

/**
 * velquin_gtk_paywall_present_finish:
 * @self: the paywall
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: %TRUE when the paywall is on screen; %FALSE with
 *   %VELQUIN_ERROR_PAYWALL_FAILED otherwise
 */
VELQUIN_GTK_GLIB_API gboolean velquin_gtk_paywall_present_finish (VelquinGtkPaywall *self, GAsyncResult *result,
                                                                  GError **error);

/**
 * velquin_gtk_paywall_close:
 * @self: the paywall
 *
 * Takes every paywall of the process off the screen, as the close button does.
 */
VELQUIN_GTK_GLIB_API void velquin_gtk_paywall_close (VelquinGtkPaywall *self);

/**
 * velquin_gtk_welcome_page_new:
 * @waiting_time: seconds after which the page removes itself whatever happened
 *
 * The welcome page, to lay over the start screen (for example as a
 * #GtkOverlay overlay). It shows the stored welcome page, or a spinner until
 * the backend's page arrives, fades out and removes itself from its parent.
 *
 * Returns: (transfer floating): the page's widget
 */
VELQUIN_GTK_GLIB_API GtkWidget *velquin_gtk_welcome_page_new (gdouble waiting_time);

/**
 * velquin_gtk_show_in_app_message:
 * @html: the page's HTML
 *
 * Shows an in-app message page over the host's active window.
 *
 * Returns: %FALSE when no window is active
 */
VELQUIN_GTK_GLIB_API gboolean velquin_gtk_show_in_app_message (const gchar *html);

G_END_DECLS
