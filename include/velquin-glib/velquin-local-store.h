/* VelquinLocalStore: the local store (the store the SDK uses on Linux unless
 * the host installs another), its configuration and scripted outcomes.
 *
 * Threads: every function may be called from any thread; the store's own
 * work and its answers happen on the SDK's main queue. */
#pragma once

#include <glib-object.h>

#include "velquin-types.h"

G_BEGIN_DECLS

/**
 * VelquinOutcome:
 * @VELQUIN_OUTCOME_SUCCESS: the payment is bought
 * @VELQUIN_OUTCOME_CANCEL: the user cancels the payment
 * @VELQUIN_OUTCOME_FAIL: the payment fails with the given store error code
 * @VELQUIN_OUTCOME_DEFER: the payment is deferred and nothing more happens
 * @VELQUIN_OUTCOME_ASK_TO_BUY: deferred until approved or declined
 *
 * What a payment in the local store does.
 */
typedef enum {
  VELQUIN_OUTCOME_SUCCESS = 0,
  VELQUIN_OUTCOME_CANCEL = 1,
  VELQUIN_OUTCOME_FAIL = 2,
  VELQUIN_OUTCOME_DEFER = 3,
  VELQUIN_OUTCOME_ASK_TO_BUY = 4
} VelquinOutcome;
VELQUIN_GLIB_API GType velquin_outcome_get_type (void);
#define VELQUIN_TYPE_OUTCOME (velquin_outcome_get_type ())

/**
 * VelquinRestoreBehaviour:
 * @VELQUIN_RESTORE_BEHAVIOUR_NORMAL: restores the bought transactions
 * @VELQUIN_RESTORE_BEHAVIOUR_FAIL: the restore fails
 * @VELQUIN_RESTORE_BEHAVIOUR_HANG: the store never answers
 *
 * What a restore in the local store does.
 */
typedef enum {
  VELQUIN_RESTORE_BEHAVIOUR_NORMAL = 0,
  VELQUIN_RESTORE_BEHAVIOUR_FAIL = 1,
  VELQUIN_RESTORE_BEHAVIOUR_HANG = 2
} VelquinRestoreBehaviour;
VELQUIN_GLIB_API GType velquin_restore_behaviour_get_type (void);
#define VELQUIN_TYPE_RESTORE_BEHAVIOUR (velquin_restore_behaviour_get_type ())

/**
 * VelquinLocalStore:
 *
 * A local store. Products come from a JSON store configuration read afresh
 * for each operation; bought transactions are kept in its folder, so restores
 * work across runs.
 */
#define VELQUIN_TYPE_LOCAL_STORE (velquin_local_store_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinLocalStore, velquin_local_store, VELQUIN, LOCAL_STORE, GObject)

/**
 * velquin_local_store_set_configuration_path:
 * @path: (type filename): the JSON store configuration of the default store
 *
 * Without it the default store reads store-config.json in the bundle folder.
 * Takes effect at the next operation of the default store.
 */
VELQUIN_GLIB_API void velquin_local_store_set_configuration_path (const gchar *path);

/**
 * velquin_local_store_get_default:
 *
 * Returns: (transfer full) (nullable): the store the SDK uses when it is a
 *   local store (the default), %NULL when the host installed another
 */
VELQUIN_GLIB_API VelquinLocalStore *velquin_local_store_get_default (void);

/**
 * velquin_local_store_new:
 * @configuration_path: (type filename): the JSON store configuration
 * @store_directory: (type filename): where transactions and signing keys are kept
 * @receipt_path: (type filename): where the receipt is written
 * @bundle_id: (nullable): used when the configuration names no "bundle_id"
 *
 * Returns: (transfer full): a new local store; velquin_local_store_install()
 *   makes it the SDK's store
 */
VELQUIN_GLIB_API VelquinLocalStore *velquin_local_store_new (const gchar *configuration_path,
                                                             const gchar *store_directory,
                                                             const gchar *receipt_path,
                                                             const gchar *bundle_id);

/**
 * velquin_local_store_install:
 * @self: the store
 *
 * Makes @self the store the SDK uses (before its first purchase or lookup).
 */
VELQUIN_GLIB_API void velquin_local_store_install (VelquinLocalStore *self);

/**
 * velquin_local_store_set_configuration_file:
 * @self: the store
 * @path: (type filename): the JSON store configuration
 */
VELQUIN_GLIB_API void velquin_local_store_set_configuration_file (VelquinLocalStore *self, const gchar *path);

/**
 * velquin_local_store_set_outcome:
 * @self: the store
 * @product_id: the product
 * @outcome: what its payments do
 * @delay_ms: milliseconds before the outcome is reported
 * @error_code: the store error code for %VELQUIN_OUTCOME_FAIL
 *
 * Scripts every payment of @product_id; wins over the configuration's outcomes.
 */
VELQUIN_GLIB_API void velquin_local_store_set_outcome (VelquinLocalStore *self, const gchar *product_id,
                                                       VelquinOutcome outcome, guint delay_ms, gint error_code);

/**
 * velquin_local_store_clear_outcome:
 * @self: the store
 * @product_id: the product
 */
VELQUIN_GLIB_API void velquin_local_store_clear_outcome (VelquinLocalStore *self, const gchar *product_id);

/**
 * velquin_local_store_set_next_outcome:
 * @self: the store
 * @outcome: what the next payment does
 * @delay_ms: milliseconds before the outcome is reported
 * @error_code: the store error code for %VELQUIN_OUTCOME_FAIL
 */
VELQUIN_GLIB_API void velquin_local_store_set_next_outcome (VelquinLocalStore *self, VelquinOutcome outcome,
                                                            guint delay_ms, gint error_code);

/**
 * velquin_local_store_set_restore_behaviour:
 * @self: the store
 * @behaviour: what restores do
 * @delay_ms: milliseconds before the answer
 */
VELQUIN_GLIB_API void velquin_local_store_set_restore_behaviour (VelquinLocalStore *self,
                                                                 VelquinRestoreBehaviour behaviour, guint delay_ms);

/**
 * velquin_local_store_approve_ask_to_buy:
 * @self: the store
 * @product_id: the product whose oldest waiting purchase is approved
 */
VELQUIN_GLIB_API void velquin_local_store_approve_ask_to_buy (VelquinLocalStore *self, const gchar *product_id);

/**
 * velquin_local_store_decline_ask_to_buy:
 * @self: the store
 * @product_id: the product whose oldest waiting purchase is declined
 */
VELQUIN_GLIB_API void velquin_local_store_decline_ask_to_buy (VelquinLocalStore *self, const gchar *product_id);

/**
 * velquin_local_store_promote:
 * @self: the store
 * @product_id: the product
 *
 * A purchase started from the store front (see #VelquinSdk::promoted-purchase).
 */
VELQUIN_GLIB_API void velquin_local_store_promote (VelquinLocalStore *self, const gchar *product_id);

/**
 * velquin_local_store_get_receipt_public_key_pem:
 * @self: the store
 * @error: return location for a #GError
 *
 * Returns: (transfer full): the public half of the receipt signing key as
 *   PEM, or %NULL with @error set
 */
VELQUIN_GLIB_API gchar *velquin_local_store_get_receipt_public_key_pem (VelquinLocalStore *self, GError **error);

G_END_DECLS
