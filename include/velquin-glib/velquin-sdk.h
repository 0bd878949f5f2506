/* VelquinSdk: the SDK's facade for C and the languages that bind it.
 *
 * Threads: every function may be called from any thread. An asynchronous
 * call delivers its result on the thread-default main context of the thread
 * that started it (captured at the call), so that context must be iterated.
 * Each one reports exactly once: with its result, with an error, with
 * G_IO_ERROR_CANCELLED once its #GCancellable is cancelled, or with
 * %VELQUIN_ERROR_SUPERSEDED when a later call of the same kind replaced it.
 * Signals are emitted on the thread-default main context of the thread that
 * first called velquin_sdk_get_default().
 *
 * Ownership: the default #VelquinSdk lives for the process. JSON arguments
 * are JSON text; text that does not parse, is not an object or is not
 * UTF-8 gives %VELQUIN_ERROR_INVALID_ARGUMENT. */
#pragma once

#include <gio/gio.h>

#include "velquin-types.h"

G_BEGIN_DECLS

/**
 * VelquinSdk:
 *
 * The one object a host talks to. Get it with velquin_sdk_get_default().
 */
#define VELQUIN_TYPE_SDK (velquin_sdk_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinSdk, velquin_sdk, VELQUIN, SDK, GObject)

/**
 * velquin_set_bundle_path:
 * @path: (type filename): the folder holding velquin-app-token.plist and Info.plist
 *
 * Names the application bundle. Call it before anything else of the SDK;
 * without it the bundle is the folder of the running program.
 */
VELQUIN_GLIB_API void velquin_set_bundle_path (const gchar *path);

/**
 * velquin_set_purchases_logs:
 * @enabled: whether the purchase log lines are written
 *
 * May be called before velquin_sdk_get_default(), so that the lines of the
 * SDK's creation show too.
 */
VELQUIN_GLIB_API void velquin_set_purchases_logs (gboolean enabled);

/**
 * velquin_sdk_get_default:
 *
 * Returns: (transfer none): the process's SDK, created on first use
 */
VELQUIN_GLIB_API VelquinSdk *velquin_sdk_get_default (void);

/**
 * velquin_sdk_configure:
 * @self: the SDK
 *
 * Start-up from the bundle's token file: the backend's Init, analytics, the
 * subscriber and the app configuration. #VelquinSdk::app-config-handled is
 * emitted when the configuration's answer has been handled.
 */
VELQUIN_GLIB_API void velquin_sdk_configure (VelquinSdk *self);

/**
 * velquin_sdk_set_analytics_logs:
 * @self: the SDK
 * @enabled: whether the event delivery log lines are written
 */
VELQUIN_GLIB_API void velquin_sdk_set_analytics_logs (VelquinSdk *self, gboolean enabled);

/**
 * velquin_sdk_get_app_user_id:
 * @self: the SDK
 *
 * The user id held by the device information: empty until a user id was
 * made current (velquin_sdk_upload_user_info() with a user id).
 *
 * Returns: (transfer full): the user id
 */
VELQUIN_GLIB_API gchar *velquin_sdk_get_app_user_id (VelquinSdk *self);

/**
 * velquin_sdk_get_user_id:
 * @self: the SDK
 *
 * The user id the SDK reports to the backend: made at the first start-up
 * and kept across runs (empty before start-up).
 *
 * Returns: (transfer full): the user id
 */
VELQUIN_GLIB_API gchar *velquin_sdk_get_user_id (VelquinSdk *self);

/**
 * velquin_sdk_get_experiment_tag:
 * @self: the SDK
 *
 * Returns: (transfer full) (nullable): the experiment tag of the last Init answer
 */
VELQUIN_GLIB_API gchar *velquin_sdk_get_experiment_tag (VelquinSdk *self);

/**
 * velquin_sdk_get_stored_welcome_page:
 * @self: the SDK
 *
 * Returns: (transfer full) (nullable): the welcome page the last app
 *   configuration stored (HTML text)
 */
VELQUIN_GLIB_API gchar *velquin_sdk_get_stored_welcome_page (VelquinSdk *self);

/**
 * velquin_sdk_track_event:
 * @self: the SDK
 * @name: the event's name
 * @params_json: (nullable): the event's parameters, a JSON object as text
 * @error: return location for a #GError
 *
 * Stores the host's own event for durable delivery to the backend.
 *
 * Returns: (transfer full): the request id, or %NULL with @error set
 */
VELQUIN_GLIB_API gchar *velquin_sdk_track_event (VelquinSdk *self, const gchar *name,
                                                 const gchar *params_json, GError **error);

/**
 * velquin_sdk_write_log:
 * @self: the SDK
 * @message: the line
 *
 * Writes the SDK's purchase log line; only while purchase logs are on.
 */
VELQUIN_GLIB_API void velquin_sdk_write_log (VelquinSdk *self, const gchar *message);

/**
 * velquin_sdk_has_active_subscription:
 * @self: the SDK
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Asks the backend for the user's subscriber.
 */
VELQUIN_GLIB_API void velquin_sdk_has_active_subscription (VelquinSdk *self, GCancellable *cancellable,
                                                           GAsyncReadyCallback callback, gpointer user_data);
/**
 * velquin_sdk_has_active_subscription_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: (transfer full): the subscriber, or %NULL with @error set
 */
VELQUIN_GLIB_API VelquinSubscriber *velquin_sdk_has_active_subscription_finish (VelquinSdk *self, GAsyncResult *result,
                                                                                GError **error);

/**
 * velquin_sdk_get_purchase_product_ids:
 * @self: the SDK
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * The product ids configured on the server (cached after start-up).
 */
VELQUIN_GLIB_API void velquin_sdk_get_purchase_product_ids (VelquinSdk *self, GCancellable *cancellable,
                                                            GAsyncReadyCallback callback, gpointer user_data);
/**
 * velquin_sdk_get_purchase_product_ids_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: (transfer full) (array zero-terminated=1): the ids, or %NULL with @error set
 */
VELQUIN_GLIB_API gchar **velquin_sdk_get_purchase_product_ids_finish (VelquinSdk *self, GAsyncResult *result,
                                                                      GError **error);

/**
 * velquin_sdk_get_products:
 * @self: the SDK
 * @product_ids: (array zero-terminated=1): the ids to look up
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Looks the products up in the store. Unknown ids are left out; when none is
 * known the result is %VELQUIN_ERROR_PRODUCT_NOT_FOUND.
 */
VELQUIN_GLIB_API void velquin_sdk_get_products (VelquinSdk *self, const gchar *const *product_ids,
                                                GCancellable *cancellable, GAsyncReadyCallback callback,
                                                gpointer user_data);
/**
 * velquin_sdk_get_products_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: (transfer full) (element-type VelquinProduct): the products found,
 *   in the order of the ids asked for; %NULL with @error set on failure
 */
VELQUIN_GLIB_API GList *velquin_sdk_get_products_finish (VelquinSdk *self, GAsyncResult *result, GError **error);

/**
 * velquin_sdk_purchase_product:
 * @self: the SDK
 * @product: the product to buy
 * @cancellable: (nullable): a #GCancellable; cancelling stops waiting, the
 *   store's payment itself goes on
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Buys @product in the store and verifies the purchase with the backend.
 */
VELQUIN_GLIB_API void velquin_sdk_purchase_product (VelquinSdk *self, VelquinProduct *product,
                                                    GCancellable *cancellable, GAsyncReadyCallback callback,
                                                    gpointer user_data);
/**
 * velquin_sdk_purchase_product_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: (transfer full): the backend's subscriber after the purchase, or
 *   %NULL with @error set (%VELQUIN_ERROR_CANCELLED when the user cancelled)
 */
VELQUIN_GLIB_API VelquinSubscriber *velquin_sdk_purchase_product_finish (VelquinSdk *self, GAsyncResult *result,
                                                                         GError **error);

/**
 * velquin_sdk_purchase_product_with_discount:
 * @self: the SDK
 * @product: the product to buy
 * @offer_id: the promotional offer's id
 * @signature: the offer's signature (see velquin_sdk_create_signature())
 * @application_username: (nullable): the app's opaque account token
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Buys @product with a promotional offer. Finish with
 * velquin_sdk_purchase_product_finish().
 */
VELQUIN_GLIB_API void velquin_sdk_purchase_product_with_discount (VelquinSdk *self, VelquinProduct *product,
                                                                  const gchar *offer_id,
                                                                  VelquinOfferSignature *signature,
                                                                  const gchar *application_username,
                                                                  GCancellable *cancellable,
                                                                  GAsyncReadyCallback callback, gpointer user_data);

/**
 * velquin_sdk_purchase_fetch_receipt:
 * @self: the SDK
 * @product: the product to buy
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Buys @product and hands back the transaction and the receipt; the host then
 * finishes the transactions with velquin_sdk_finish_transactions().
 */
VELQUIN_GLIB_API void velquin_sdk_purchase_fetch_receipt (VelquinSdk *self, VelquinProduct *product,
                                                          GCancellable *cancellable, GAsyncReadyCallback callback,
                                                          gpointer user_data);
/**
 * velquin_sdk_purchase_fetch_receipt_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @transactions: (out) (optional) (transfer full) (element-type VelquinTransaction):
 *   the transactions of the batch
 * @receipt: (out) (optional) (nullable) (transfer full): the receipt file's bytes
 * @error: return location for a #GError
 *
 * Returns: (transfer full): the transaction, or %NULL with @error set
 */
VELQUIN_GLIB_API VelquinTransaction *velquin_sdk_purchase_fetch_receipt_finish (VelquinSdk *self,
                                                                                GAsyncResult *result,
                                                                                GList **transactions,
                                                                                GBytes **receipt, GError **error);

/**
 * velquin_sdk_start_transaction_monitor:
 * @self: the SDK
 *
 * From now on #VelquinSdk::transaction-verified is emitted for every
 * verified transaction, and the SDK no longer finishes transactions itself:
 * the host calls velquin_sdk_finish_transactions().
 */
VELQUIN_GLIB_API void velquin_sdk_start_transaction_monitor (VelquinSdk *self);

/**
 * velquin_sdk_finish_transactions:
 * @self: the SDK
 * @transactions: (element-type VelquinTransaction): the transactions to finish
 *
 * Finishes every transaction given that is not purchasing.
 */
VELQUIN_GLIB_API void velquin_sdk_finish_transactions (VelquinSdk *self, GList *transactions);

/**
 * velquin_sdk_can_make_payment:
 * @self: the SDK
 *
 * Returns: whether the store lets this user pay
 */
VELQUIN_GLIB_API gboolean velquin_sdk_can_make_payment (VelquinSdk *self);

/**
 * velquin_sdk_restore_purchases:
 * @self: the SDK
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Asks the store to restore the user's purchases and the backend to verify them.
 */
VELQUIN_GLIB_API void velquin_sdk_restore_purchases (VelquinSdk *self, GCancellable *cancellable,
                                                     GAsyncReadyCallback callback, gpointer user_data);
/**
 * velquin_sdk_restore_purchases_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: (transfer full): the subscriber after the restore, or %NULL with @error set
 */
VELQUIN_GLIB_API VelquinSubscriber *velquin_sdk_restore_purchases_finish (VelquinSdk *self, GAsyncResult *result,
                                                                          GError **error);

/**
 * velquin_sdk_upload_user_info:
 * @self: the SDK
 * @user_id: (nullable): a user id to make current first
 * @attributes_json: (nullable): the user's attributes, a JSON object as text
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async) (nullable): called with the result
 * @user_data: (closure): data for @callback
 *
 * Sends the user's information to the backend.
 */
VELQUIN_GLIB_API void velquin_sdk_upload_user_info (VelquinSdk *self, const gchar *user_id,
                                                    const gchar *attributes_json, GCancellable *cancellable,
                                                    GAsyncReadyCallback callback, gpointer user_data);
/**
 * velquin_sdk_upload_user_info_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: %TRUE when the backend took it, %FALSE with @error set
 */
VELQUIN_GLIB_API gboolean velquin_sdk_upload_user_info_finish (VelquinSdk *self, GAsyncResult *result,
                                                               GError **error);

/**
 * velquin_sdk_upload_device_info:
 * @self: the SDK
 * @device_token: the push token
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 */
VELQUIN_GLIB_API void velquin_sdk_upload_device_info (VelquinSdk *self, const gchar *device_token,
                                                      GCancellable *cancellable, GAsyncReadyCallback callback,
                                                      gpointer user_data);
/**
 * velquin_sdk_upload_device_info_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: %TRUE when the backend took it, %FALSE with @error set
 */
VELQUIN_GLIB_API gboolean velquin_sdk_upload_device_info_finish (VelquinSdk *self, GAsyncResult *result,
                                                                 GError **error);

/**
 * velquin_sdk_update_attribution:
 * @self: the SDK
 * @data_json: the attribution data, a JSON object as text
 * @network: the network it comes from
 * @network_user_id: (nullable): the user's id at the network
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 */
VELQUIN_GLIB_API void velquin_sdk_update_attribution (VelquinSdk *self, const gchar *data_json,
                                                      VelquinAttributionNetwork network,
                                                      const gchar *network_user_id, GCancellable *cancellable,
                                                      GAsyncReadyCallback callback, gpointer user_data);
/**
 * velquin_sdk_update_attribution_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Finishes velquin_sdk_update_attribution() and
 * velquin_sdk_update_custom_attribution().
 *
 * Returns: (transfer full): the backend's attribution, or %NULL with @error set
 */
VELQUIN_GLIB_API VelquinAttribution *velquin_sdk_update_attribution_finish (VelquinSdk *self, GAsyncResult *result,
                                                                            GError **error);

/**
 * velquin_sdk_update_custom_attribution:
 * @self: the SDK
 * @channel: the channel
 * @campaign: (nullable): the campaign
 * @ad_group: (nullable): the ad group
 * @creative: (nullable): the creative
 * @click_id: (nullable): the click id
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Finish with velquin_sdk_update_attribution_finish().
 */
VELQUIN_GLIB_API void velquin_sdk_update_custom_attribution (VelquinSdk *self, const gchar *channel,
                                                             const gchar *campaign, const gchar *ad_group,
                                                             const gchar *creative, const gchar *click_id,
                                                             GCancellable *cancellable,
                                                             GAsyncReadyCallback callback, gpointer user_data);

/**
 * velquin_sdk_create_signature:
 * @self: the SDK
 * @product_id: the product
 * @offer_id: the promotional offer
 * @user_id: the app's account token for the user
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Asks the backend to sign a promotional offer.
 */
VELQUIN_GLIB_API void velquin_sdk_create_signature (VelquinSdk *self, const gchar *product_id,
                                                    const gchar *offer_id, const gchar *user_id,
                                                    GCancellable *cancellable, GAsyncReadyCallback callback,
                                                    gpointer user_data);
/**
 * velquin_sdk_create_signature_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: (transfer full): the signature, or %NULL with @error set
 */
VELQUIN_GLIB_API VelquinOfferSignature *velquin_sdk_create_signature_finish (VelquinSdk *self, GAsyncResult *result,
                                                                             GError **error);

/**
 * velquin_sdk_get_currency_rate:
 * @self: the SDK
 * @currency_code: the currency, such as "EUR"
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 */
VELQUIN_GLIB_API void velquin_sdk_get_currency_rate (VelquinSdk *self, const gchar *currency_code,
                                                     GCancellable *cancellable, GAsyncReadyCallback callback,
                                                     gpointer user_data);
/**
 * velquin_sdk_get_currency_rate_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: the rate (units of the currency per US dollar), or 0 with @error set
 */
VELQUIN_GLIB_API gdouble velquin_sdk_get_currency_rate_finish (VelquinSdk *self, GAsyncResult *result,
                                                               GError **error);

/**
 * velquin_sdk_fetch_paywall_page:
 * @self: the SDK
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called with the result
 * @user_data: (closure): data for @callback
 *
 * Asks the backend for the paywall page (the app configuration, handled as
 * at start-up).
 */
VELQUIN_GLIB_API void velquin_sdk_fetch_paywall_page (VelquinSdk *self, GCancellable *cancellable,
                                                      GAsyncReadyCallback callback, gpointer user_data);
/**
 * velquin_sdk_fetch_paywall_page_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: (transfer full) (nullable): the page's HTML; %NULL without an
 *   error when the answer has none
 */
VELQUIN_GLIB_API gchar *velquin_sdk_fetch_paywall_page_finish (VelquinSdk *self, GAsyncResult *result,
                                                               GError **error);

/**
 * velquin_sdk_load_paywall_to_purachase:
 * @self: the SDK
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called once the paywall is shown or could not be
 * @user_data: (closure): data for @callback
 *
 * Shows the server's paywall through the installed page presenter (see
 * velquin_gtk_install()); without one it fails.
 */
VELQUIN_GLIB_API void velquin_sdk_load_paywall_to_purachase (VelquinSdk *self, GCancellable *cancellable,
                                                             GAsyncReadyCallback callback, gpointer user_data);
/**
 * velquin_sdk_load_paywall_to_purachase_finish:
 * @self: the SDK
 * @result: the #GAsyncResult
 * @error: return location for a #GError
 *
 * Returns: %TRUE when the paywall is shown; %FALSE with
 *   %VELQUIN_ERROR_PAYWALL_FAILED and the reason otherwise
 */
VELQUIN_GLIB_API gboolean velquin_sdk_load_paywall_to_purachase_finish (VelquinSdk *self, GAsyncResult *result,
                                                                        GError **error);

/**
 * velquin_sdk_set_in_app_purchase_promoting_status:
 * @self: the SDK
 * @status: how promoted purchases are handled
 *
 * Sets the status; #VelquinSdk::promoted-purchase tells of each promoted purchase.
 */
VELQUIN_GLIB_API void velquin_sdk_set_in_app_purchase_promoting_status (VelquinSdk *self,
                                                                        VelquinPromotingStatus status);

/**
 * velquin_sdk_set_in_app_messsage_auto_show:
 * @self: the SDK
 * @auto_show: whether an in-app message announced while the app is in front
 *   is shown at once as a page
 *
 * Starts notification handling the first time.
 */
VELQUIN_GLIB_API void velquin_sdk_set_in_app_messsage_auto_show (VelquinSdk *self, gboolean auto_show);

/**
 * velquin_sdk_set_auto_user_notification_behavior_data_reporting:
 * @self: the SDK
 *
 * Starts notification handling (once), leaving the auto-show flag as it is.
 */
VELQUIN_GLIB_API void velquin_sdk_set_auto_user_notification_behavior_data_reporting (VelquinSdk *self);

/**
 * velquin_sdk_send_user_notification_center_message:
 * @self: the SDK
 * @user_info_json: a push payload's user info, a JSON object as text
 * @error: return location for a #GError
 *
 * Turns auto-show on and handles the payload as an in-app message announcement.
 *
 * Returns: %TRUE when it was one; %FALSE when not, or with @error set
 */
VELQUIN_GLIB_API gboolean velquin_sdk_send_user_notification_center_message (VelquinSdk *self,
                                                                             const gchar *user_info_json,
                                                                             GError **error);

/**
 * velquin_sdk_send_notification_user_info_to_behavior_data_reporting:
 * @self: the SDK
 * @user_info_json: a push payload's user info, a JSON object as text
 * @error: return location for a #GError
 *
 * Records the notification-clicked event for the payload.
 *
 * Returns: %TRUE, or %FALSE with @error set
 */
VELQUIN_GLIB_API gboolean velquin_sdk_send_notification_user_info_to_behavior_data_reporting (VelquinSdk *self,
                                                                                              const gchar *user_info_json,
                                                                                              GError **error);

/**
 * velquin_sdk_receive_push_notification:
 * @self: the SDK
 * @payload_json: the push payload, a JSON object as text
 * @in_front: whether the app is in front
 * @error: return location for a #GError
 *
 * Hands the SDK a push payload the host received on its own channel.
 *
 * Returns: %TRUE, or %FALSE with @error set
 */
VELQUIN_GLIB_API gboolean velquin_sdk_receive_push_notification (VelquinSdk *self, const gchar *payload_json,
                                                                 gboolean in_front, GError **error);

/**
 * velquin_sdk_set_from_backgroud_point_to_delay_time:
 * @self: the SDK
 * @delay_time: seconds between a tap on a notification and its handling
 */
VELQUIN_GLIB_API void velquin_sdk_set_from_backgroud_point_to_delay_time (VelquinSdk *self, gdouble delay_time);

/**
 * velquin_sdk_get_from_backgroud_point_to_delay_time:
 * @self: the SDK
 *
 * Returns: the delay in seconds (1.5 unless set)
 */
VELQUIN_GLIB_API gdouble velquin_sdk_get_from_backgroud_point_to_delay_time (VelquinSdk *self);

G_END_DECLS
