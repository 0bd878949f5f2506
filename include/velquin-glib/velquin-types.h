/* The error domain, enumerations and model objects of the Velquin C API.
 *
 * Plain C99. Models are immutable GObjects: every property is read-only and
 * set once when the SDK hands the object over, so they may be read from any
 * thread and shared freely. */
#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

#if defined(VELQUIN_GLIB_COMPILATION)
#define VELQUIN_GLIB_API __attribute__((visibility("default")))
#else
#define VELQUIN_GLIB_API
#endif

/**
 * VELQUIN_ERROR:
 *
 * The error domain of every #GError the Velquin C API reports.
 */
#define VELQUIN_ERROR (velquin_error_quark ())

/**
 * VelquinError:
 * @VELQUIN_ERROR_FAILED: an error of a domain with no code of its own here;
 *   the message starts with the original domain and code
 * @VELQUIN_ERROR_CANCELLED: the user cancelled the payment in the store
 * @VELQUIN_ERROR_INVALID_ARGUMENT: an argument that is not what the call
 *   takes (JSON text that does not parse or is not an object, text that is
 *   not UTF-8, a missing value)
 * @VELQUIN_ERROR_SUPERSEDED: a later call of the same kind (purchase,
 *   purchase with receipt, restore) replaced this one before it ended
 * @VELQUIN_ERROR_PAYWALL_FAILED: the paywall could not be shown
 * @VELQUIN_ERROR_EVENT_REFUSED: the analytics event was refused (its name or
 *   parameters cannot be sent)
 * @VELQUIN_ERROR_STORE_UNKNOWN: the store failed for an unknown reason
 * @VELQUIN_ERROR_STORE_CLIENT_INVALID: the store does not let this client pay
 * @VELQUIN_ERROR_STORE_PAYMENT_INVALID: the store found the payment invalid
 * @VELQUIN_ERROR_STORE_PAYMENT_NOT_ALLOWED: this user may not pay
 * @VELQUIN_ERROR_STORE_PRODUCT_NOT_AVAILABLE: the store does not sell the product
 * @VELQUIN_ERROR_STORE_INVALID_OFFER_IDENTIFIER: no such promotional offer
 * @VELQUIN_ERROR_STORE_INVALID_SIGNATURE: the offer signature does not verify
 * @VELQUIN_ERROR_STORE_MISSING_OFFER_PARAMS: the offer lacks parameters
 * @VELQUIN_ERROR_STORE_INVALID_OFFER_PRICE: the offer's price is invalid
 * @VELQUIN_ERROR_NO_RECEIPT: there is no receipt, and refreshing gave none
 * @VELQUIN_ERROR_PRODUCT_NOT_FOUND: the store knows none of the products asked for
 * @VELQUIN_ERROR_INVALID_USER_ID: a user id that is empty or not UTF-8
 * @VELQUIN_ERROR_INVALID_TEXT: an argument that is not UTF-8
 * @VELQUIN_ERROR_RESTORE_TIMED_OUT: the store did not answer a restore in time
 * @VELQUIN_ERROR_BACKEND_CANCELLED: backend call: cancelled
 * @VELQUIN_ERROR_BACKEND_UNKNOWN: backend call: unknown error
 * @VELQUIN_ERROR_BACKEND_INVALID_ARGUMENT: backend call: invalid argument
 * @VELQUIN_ERROR_BACKEND_DEADLINE_EXCEEDED: backend call: no answer before the deadline
 * @VELQUIN_ERROR_BACKEND_NOT_FOUND: backend call: not found
 * @VELQUIN_ERROR_BACKEND_ALREADY_EXISTS: backend call: already exists
 * @VELQUIN_ERROR_BACKEND_PERMISSION_DENIED: backend call: permission denied
 * @VELQUIN_ERROR_BACKEND_RESOURCE_EXHAUSTED: backend call: resource exhausted
 * @VELQUIN_ERROR_BACKEND_FAILED_PRECONDITION: backend call: failed precondition
 * @VELQUIN_ERROR_BACKEND_ABORTED: backend call: aborted
 * @VELQUIN_ERROR_BACKEND_OUT_OF_RANGE: backend call: out of range
 * @VELQUIN_ERROR_BACKEND_UNIMPLEMENTED: backend call: not implemented
 * @VELQUIN_ERROR_BACKEND_INTERNAL: backend call: internal error
 * @VELQUIN_ERROR_BACKEND_UNAVAILABLE: backend call: the backend cannot be reached
 * @VELQUIN_ERROR_BACKEND_DATA_LOSS: backend call: data loss
 * @VELQUIN_ERROR_BACKEND_UNAUTHENTICATED: backend call: not authenticated
 *
 * The codes of %VELQUIN_ERROR. The SDK's own errors keep their numbers
 * (101 to 104); a store error is 200 plus the store's code, except that a
 * cancelled payment (store code 2) is %VELQUIN_ERROR_CANCELLED; a backend
 * call's error is 300 plus its gRPC status code. Any other error becomes
 * %VELQUIN_ERROR_FAILED with "domain code: " before its message.
 */
typedef enum {
  VELQUIN_ERROR_FAILED = 1,
  VELQUIN_ERROR_CANCELLED = 2,
  VELQUIN_ERROR_INVALID_ARGUMENT = 3,
  VELQUIN_ERROR_SUPERSEDED = 4,
  VELQUIN_ERROR_PAYWALL_FAILED = 5,
  VELQUIN_ERROR_EVENT_REFUSED = 6,
  VELQUIN_ERROR_NO_RECEIPT = 101,
  VELQUIN_ERROR_PRODUCT_NOT_FOUND = 102,
  VELQUIN_ERROR_INVALID_USER_ID = 103,
  VELQUIN_ERROR_INVALID_TEXT = 104,
  VELQUIN_ERROR_RESTORE_TIMED_OUT = 113,
  VELQUIN_ERROR_STORE_UNKNOWN = 200,
  VELQUIN_ERROR_STORE_CLIENT_INVALID = 201,
  VELQUIN_ERROR_STORE_PAYMENT_INVALID = 203,
  VELQUIN_ERROR_STORE_PAYMENT_NOT_ALLOWED = 204,
  VELQUIN_ERROR_STORE_PRODUCT_NOT_AVAILABLE = 205,
  VELQUIN_ERROR_STORE_INVALID_OFFER_IDENTIFIER = 211,
  VELQUIN_ERROR_STORE_INVALID_SIGNATURE = 212,
  VELQUIN_ERROR_STORE_MISSING_OFFER_PARAMS = 213,
  VELQUIN_ERROR_STORE_INVALID_OFFER_PRICE = 214,
  VELQUIN_ERROR_BACKEND_CANCELLED = 301,
  VELQUIN_ERROR_BACKEND_UNKNOWN = 302,
  VELQUIN_ERROR_BACKEND_INVALID_ARGUMENT = 303,
  VELQUIN_ERROR_BACKEND_DEADLINE_EXCEEDED = 304,
  VELQUIN_ERROR_BACKEND_NOT_FOUND = 305,
  VELQUIN_ERROR_BACKEND_ALREADY_EXISTS = 306,
  VELQUIN_ERROR_BACKEND_PERMISSION_DENIED = 307,
  VELQUIN_ERROR_BACKEND_RESOURCE_EXHAUSTED = 308,
  VELQUIN_ERROR_BACKEND_FAILED_PRECONDITION = 309,
  VELQUIN_ERROR_BACKEND_ABORTED = 310,
  VELQUIN_ERROR_BACKEND_OUT_OF_RANGE = 311,
  VELQUIN_ERROR_BACKEND_UNIMPLEMENTED = 312,
  VELQUIN_ERROR_BACKEND_INTERNAL = 313,
  VELQUIN_ERROR_BACKEND_UNAVAILABLE = 314,
  VELQUIN_ERROR_BACKEND_DATA_LOSS = 315,
  VELQUIN_ERROR_BACKEND_UNAUTHENTICATED = 316
} VelquinError;

VELQUIN_GLIB_API GQuark velquin_error_quark (void);
VELQUIN_GLIB_API GType velquin_error_get_type (void);
#define VELQUIN_TYPE_ERROR (velquin_error_get_type ())

/**
 * VelquinAttributionNetwork:
 * @VELQUIN_ATTRIBUTION_NETWORK_ADJUST: Adjust
 * @VELQUIN_ATTRIBUTION_NETWORK_APPSFLYER: AppsFlyer
 * @VELQUIN_ATTRIBUTION_NETWORK_BRANCH: Branch
 * @VELQUIN_ATTRIBUTION_NETWORK_APPLE_SEARCH_ADS: Apple Search Ads
 * @VELQUIN_ATTRIBUTION_NETWORK_FACEBOOK: Facebook
 * @VELQUIN_ATTRIBUTION_NETWORK_CUSTOM: the app's own channel
 *
 * The attribution networks an attribution update may name.
 */
typedef enum {
  VELQUIN_ATTRIBUTION_NETWORK_ADJUST = 0,
  VELQUIN_ATTRIBUTION_NETWORK_APPSFLYER = 1,
  VELQUIN_ATTRIBUTION_NETWORK_BRANCH = 2,
  VELQUIN_ATTRIBUTION_NETWORK_APPLE_SEARCH_ADS = 3,
  VELQUIN_ATTRIBUTION_NETWORK_FACEBOOK = 4,
  VELQUIN_ATTRIBUTION_NETWORK_CUSTOM = 5
} VelquinAttributionNetwork;
VELQUIN_GLIB_API GType velquin_attribution_network_get_type (void);
#define VELQUIN_TYPE_ATTRIBUTION_NETWORK (velquin_attribution_network_get_type ())

/**
 * VelquinPromotingStatus:
 * @VELQUIN_PROMOTING_STATUS_PROCEED: the store goes on with the payment at once
 * @VELQUIN_PROMOTING_STATUS_DEFERRED: the app adds the payment itself later
 * @VELQUIN_PROMOTING_STATUS_DEFERRED_TO_OBSERVER: the app's handler of
 *   #VelquinSdk::promoted-purchase decides, then adds the payment
 *
 * How a purchase that the store promotes is handled.
 */
typedef enum {
  VELQUIN_PROMOTING_STATUS_PROCEED = 0,
  VELQUIN_PROMOTING_STATUS_DEFERRED = 1,
  VELQUIN_PROMOTING_STATUS_DEFERRED_TO_OBSERVER = 2
} VelquinPromotingStatus;
VELQUIN_GLIB_API GType velquin_promoting_status_get_type (void);
#define VELQUIN_TYPE_PROMOTING_STATUS (velquin_promoting_status_get_type ())

/**
 * VelquinTransactionState:
 * @VELQUIN_TRANSACTION_STATE_PURCHASING: the store is working on it
 * @VELQUIN_TRANSACTION_STATE_PURCHASED: bought
 * @VELQUIN_TRANSACTION_STATE_FAILED: failed or cancelled
 * @VELQUIN_TRANSACTION_STATE_RESTORED: restored from an earlier purchase
 * @VELQUIN_TRANSACTION_STATE_DEFERRED: waiting (for example for a parent)
 *
 * The state of a store transaction.
 */
typedef enum {
  VELQUIN_TRANSACTION_STATE_PURCHASING = 0,
  VELQUIN_TRANSACTION_STATE_PURCHASED = 1,
  VELQUIN_TRANSACTION_STATE_FAILED = 2,
  VELQUIN_TRANSACTION_STATE_RESTORED = 3,
  VELQUIN_TRANSACTION_STATE_DEFERRED = 4
} VelquinTransactionState;
VELQUIN_GLIB_API GType velquin_transaction_state_get_type (void);
#define VELQUIN_TYPE_TRANSACTION_STATE (velquin_transaction_state_get_type ())

/**
 * VelquinEntitlement:
 *
 * What the backend says the user is entitled to. Properties: #VelquinEntitlement:id,
 * #VelquinEntitlement:product-id, #VelquinEntitlement:is-active and
 * #VelquinEntitlement:expire-at.
 */
#define VELQUIN_TYPE_ENTITLEMENT (velquin_entitlement_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinEntitlement, velquin_entitlement, VELQUIN, ENTITLEMENT, GObject)

/**
 * VelquinOriginalTransaction:
 *
 * One original store transaction of a subscription: #VelquinOriginalTransaction:original-txid,
 * #VelquinOriginalTransaction:start-at and #VelquinOriginalTransaction:expire-at.
 */
#define VELQUIN_TYPE_ORIGINAL_TRANSACTION (velquin_original_transaction_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinOriginalTransaction, velquin_original_transaction, VELQUIN, ORIGINAL_TRANSACTION, GObject)

/**
 * VelquinSubscription:
 *
 * A store subscription as the backend sees it. #VelquinSubscription:status is
 * the backend's raw status (negative: ended, positive: live or in grace,
 * zero: no purchase information), #VelquinSubscription:sub-status 0 standard,
 * 1 free trial, 2 introductory, 3 offer.
 */
#define VELQUIN_TYPE_SUBSCRIPTION (velquin_subscription_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinSubscription, velquin_subscription, VELQUIN, SUBSCRIPTION, GObject)

/**
 * velquin_subscription_get_original_transactions:
 * @self: a #VelquinSubscription
 *
 * Returns: (transfer container) (element-type VelquinOriginalTransaction): the
 *   subscription's original transactions
 */
VELQUIN_GLIB_API GList *velquin_subscription_get_original_transactions (VelquinSubscription *self);

/**
 * VelquinSubscriber:
 *
 * What the backend says of the user: #VelquinSubscriber:is-active,
 * #VelquinSubscriber:product-id and #VelquinSubscriber:expire-at are those of
 * the first entitlement. A failed call hands over no subscriber.
 */
#define VELQUIN_TYPE_SUBSCRIBER (velquin_subscriber_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinSubscriber, velquin_subscriber, VELQUIN, SUBSCRIBER, GObject)

/**
 * velquin_subscriber_get_entitlements:
 * @self: a #VelquinSubscriber
 *
 * Returns: (transfer container) (element-type VelquinEntitlement): the entitlements
 */
VELQUIN_GLIB_API GList *velquin_subscriber_get_entitlements (VelquinSubscriber *self);

/**
 * velquin_subscriber_get_subscriptions:
 * @self: a #VelquinSubscriber
 *
 * Returns: (transfer container) (element-type VelquinSubscription): the subscriptions
 */
VELQUIN_GLIB_API GList *velquin_subscriber_get_subscriptions (VelquinSubscriber *self);

/**
 * VelquinProduct:
 *
 * A product of the store: #VelquinProduct:product-id, #VelquinProduct:title,
 * #VelquinProduct:description, #VelquinProduct:price (exact decimal text such
 * as "9.99"), #VelquinProduct:currency-code and #VelquinProduct:locale-identifier.
 */
#define VELQUIN_TYPE_PRODUCT (velquin_product_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinProduct, velquin_product, VELQUIN, PRODUCT, GObject)

/**
 * VelquinTransaction:
 *
 * A store transaction: #VelquinTransaction:transaction-id,
 * #VelquinTransaction:product-id, #VelquinTransaction:state and
 * #VelquinTransaction:date (seconds since the epoch, 0 when none).
 */
#define VELQUIN_TYPE_TRANSACTION (velquin_transaction_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinTransaction, velquin_transaction, VELQUIN, TRANSACTION, GObject)

/**
 * VelquinOfferSignature:
 *
 * The signed parameters of a promotional offer, as the backend made them:
 * #VelquinOfferSignature:key-identifier, #VelquinOfferSignature:nonce,
 * #VelquinOfferSignature:signature and #VelquinOfferSignature:timestamp.
 */
#define VELQUIN_TYPE_OFFER_SIGNATURE (velquin_offer_signature_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinOfferSignature, velquin_offer_signature, VELQUIN, OFFER_SIGNATURE, GObject)

/**
 * VelquinAttribution:
 *
 * The backend's answer to an attribution update: what it attributed the
 * install to. Text properties are empty when the backend sent none.
 */
#define VELQUIN_TYPE_ATTRIBUTION (velquin_attribution_get_type ())
VELQUIN_GLIB_API G_DECLARE_FINAL_TYPE (VelquinAttribution, velquin_attribution, VELQUIN, ATTRIBUTION, GObject)

G_END_DECLS
