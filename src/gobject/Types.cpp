// The error domain, the enumerations and the immutable model objects.
#define VELQUIN_GLIB_COMPILATION
#include <glib-object.h>

#include <utility>

#include "Private.h"

// ---------------------------------------------------------------------------
// Errors

G_DEFINE_QUARK(velquin-error-quark, velquin_error)

namespace {

// Registers an enumeration once; `values` ends with a zeroed entry.
GType registerEnum(GType* type, const char* name, const GEnumValue* values) {
  if (g_once_init_enter(type)) {
    GType made = g_enum_register_static(g_intern_static_string(name), values);
    g_once_init_leave(type, made);
  }
  return *type;
}

}  // namespace

#define VQ_VALUE(v, nick) {v, #v, nick}

GType velquin_error_get_type(void) {
  static GType type = 0;
  static const GEnumValue values[] = {
      VQ_VALUE(VELQUIN_ERROR_FAILED, "failed"),
      VQ_VALUE(VELQUIN_ERROR_CANCELLED, "cancelled"),
      VQ_VALUE(VELQUIN_ERROR_INVALID_ARGUMENT, "invalid-argument"),
      VQ_VALUE(VELQUIN_ERROR_SUPERSEDED, "superseded"),
      VQ_VALUE(VELQUIN_ERROR_PAYWALL_FAILED, "paywall-failed"),
      VQ_VALUE(VELQUIN_ERROR_EVENT_REFUSED, "event-refused"),
      VQ_VALUE(VELQUIN_ERROR_NO_RECEIPT, "no-receipt"),
      VQ_VALUE(VELQUIN_ERROR_PRODUCT_NOT_FOUND, "product-not-found"),
      VQ_VALUE(VELQUIN_ERROR_INVALID_USER_ID, "invalid-user-id"),
      VQ_VALUE(VELQUIN_ERROR_INVALID_TEXT, "invalid-text"),
      VQ_VALUE(VELQUIN_ERROR_RESTORE_TIMED_OUT, "restore-timed-out"),
      VQ_VALUE(VELQUIN_ERROR_STORE_UNKNOWN, "store-unknown"),
      VQ_VALUE(VELQUIN_ERROR_STORE_CLIENT_INVALID, "store-client-invalid"),
      VQ_VALUE(VELQUIN_ERROR_STORE_PAYMENT_INVALID, "store-payment-invalid"),
      VQ_VALUE(VELQUIN_ERROR_STORE_PAYMENT_NOT_ALLOWED, "store-payment-not-allowed"),
      VQ_VALUE(VELQUIN_ERROR_STORE_PRODUCT_NOT_AVAILABLE, "store-product-not-available"),
      VQ_VALUE(VELQUIN_ERROR_STORE_INVALID_OFFER_IDENTIFIER, "store-invalid-offer-identifier"),
      VQ_VALUE(VELQUIN_ERROR_STORE_INVALID_SIGNATURE, "store-invalid-signature"),
      VQ_VALUE(VELQUIN_ERROR_STORE_MISSING_OFFER_PARAMS, "store-missing-offer-params"),
      VQ_VALUE(VELQUIN_ERROR_STORE_INVALID_OFFER_PRICE, "store-invalid-offer-price"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_CANCELLED, "backend-cancelled"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_UNKNOWN, "backend-unknown"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_INVALID_ARGUMENT, "backend-invalid-argument"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_DEADLINE_EXCEEDED, "backend-deadline-exceeded"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_NOT_FOUND, "backend-not-found"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_ALREADY_EXISTS, "backend-already-exists"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_PERMISSION_DENIED, "backend-permission-denied"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_RESOURCE_EXHAUSTED, "backend-resource-exhausted"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_FAILED_PRECONDITION, "backend-failed-precondition"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_ABORTED, "backend-aborted"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_OUT_OF_RANGE, "backend-out-of-range"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_UNIMPLEMENTED, "backend-unimplemented"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_INTERNAL, "backend-internal"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_UNAVAILABLE, "backend-unavailable"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_DATA_LOSS, "backend-data-loss"),
      VQ_VALUE(VELQUIN_ERROR_BACKEND_UNAUTHENTICATED, "backend-unauthenticated"),
      {0, nullptr, nullptr}};
  return registerEnum(&type, "VelquinError", values);
}

GType velquin_attribution_network_get_type(void) {
  static GType type = 0;
  static const GEnumValue values[] = {
      VQ_VALUE(VELQUIN_ATTRIBUTION_NETWORK_ADJUST, "adjust"),
      VQ_VALUE(VELQUIN_ATTRIBUTION_NETWORK_APPSFLYER, "appsflyer"),
      VQ_VALUE(VELQUIN_ATTRIBUTION_NETWORK_BRANCH, "branch"),
      VQ_VALUE(VELQUIN_ATTRIBUTION_NETWORK_APPLE_SEARCH_ADS, "apple-search-ads"),
      VQ_VALUE(VELQUIN_ATTRIBUTION_NETWORK_FACEBOOK, "facebook"),
      VQ_VALUE(VELQUIN_ATTRIBUTION_NETWORK_CUSTOM, "custom"),
      {0, nullptr, nullptr}};
  return registerEnum(&type, "VelquinAttributionNetwork", values);
}

GType velquin_promoting_status_get_type(void) {
  static GType type = 0;
  static const GEnumValue values[] = {
      VQ_VALUE(VELQUIN_PROMOTING_STATUS_PROCEED, "proceed"),
      VQ_VALUE(VELQUIN_PROMOTING_STATUS_DEFERRED, "deferred"),
      VQ_VALUE(VELQUIN_PROMOTING_STATUS_DEFERRED_TO_OBSERVER, "deferred-to-observer"),
      {0, nullptr, nullptr}};
  return registerEnum(&type, "VelquinPromotingStatus", values);
}

GType velquin_transaction_state_get_type(void) {
  static GType type = 0;
  static const GEnumValue values[] = {
      VQ_VALUE(VELQUIN_TRANSACTION_STATE_PURCHASING, "purchasing"),
      VQ_VALUE(VELQUIN_TRANSACTION_STATE_PURCHASED, "purchased"),
      VQ_VALUE(VELQUIN_TRANSACTION_STATE_FAILED, "failed"),
      VQ_VALUE(VELQUIN_TRANSACTION_STATE_RESTORED, "restored"),
      VQ_VALUE(VELQUIN_TRANSACTION_STATE_DEFERRED, "deferred"),
      {0, nullptr, nullptr}};
  return registerEnum(&type, "VelquinTransactionState", values);
}

GType velquin_outcome_get_type(void) {
  static GType type = 0;
  static const GEnumValue values[] = {
      VQ_VALUE(VELQUIN_OUTCOME_SUCCESS, "success"),
      VQ_VALUE(VELQUIN_OUTCOME_CANCEL, "cancel"),
      VQ_VALUE(VELQUIN_OUTCOME_FAIL, "fail"),
      VQ_VALUE(VELQUIN_OUTCOME_DEFER, "defer"),
      VQ_VALUE(VELQUIN_OUTCOME_ASK_TO_BUY, "ask-to-buy"),
      {0, nullptr, nullptr}};
  return registerEnum(&type, "VelquinOutcome", values);
}

GType velquin_restore_behaviour_get_type(void) {
  static GType type = 0;
  static const GEnumValue values[] = {
      VQ_VALUE(VELQUIN_RESTORE_BEHAVIOUR_NORMAL, "normal"),
      VQ_VALUE(VELQUIN_RESTORE_BEHAVIOUR_FAIL, "fail"),
      VQ_VALUE(VELQUIN_RESTORE_BEHAVIOUR_HANG, "hang"),
      {0, nullptr, nullptr}};
  return registerEnum(&type, "VelquinRestoreBehaviour", values);
}

namespace velquin::glib {

GError* toGError(const Error& error) {
  const std::string& domain = error.domain;
  const std::int64_t code = error.code;
  int mapped = 0;
  if (domain == kVelquinErrorDomain && code >= 101 && code <= 104) {
    mapped = static_cast<int>(code);
  } else if (domain == kSKErrorDomain) {
    if (code == static_cast<std::int64_t>(SKErrorCode::paymentCancelled)) {
      mapped = VELQUIN_ERROR_CANCELLED;
    } else if (code >= 0 && code <= 14 && code != 2 && !(code > 5 && code < 11)) {
      mapped = 200 + static_cast<int>(code);
    }
  } else if (domain == kGrpcErrorDomain && code >= 1 && code <= 16) {
    mapped = 300 + static_cast<int>(code);
  } else if (domain == "com.apple.restore" && code == 113) {
    mapped = VELQUIN_ERROR_RESTORE_TIMED_OUT;
  }
  if (mapped != 0) {
    return g_error_new_literal(VELQUIN_ERROR, mapped, error.message.c_str());
  }
  // The original domain and code stay readable in the message.
  return g_error_new(VELQUIN_ERROR, VELQUIN_ERROR_FAILED, "%s %lld: %s", domain.c_str(),
                     static_cast<long long>(code), error.message.c_str());
}

void setInvalidArgument(GError** error, const std::string& message) {
  g_set_error_literal(error, VELQUIN_ERROR, VELQUIN_ERROR_INVALID_ARGUMENT, message.c_str());
}

std::optional<nlohmann::json> parseObject(const char* text, bool nullable, const char* what,
                                          GError** error) {
  if (text == nullptr) {
    if (nullable) return nlohmann::json::object();
    setInvalidArgument(error, std::string(what) + " is missing");
    return std::nullopt;
  }
  // The parser rejects invalid UTF-8 inside strings; the depth of nesting is
  // the SDK's to check once the value is handed over.
  nlohmann::json value = nlohmann::json::parse(text, nullptr, false);
  if (value.is_discarded()) {
    setInvalidArgument(error, std::string(what) + " is not valid JSON text");
    return std::nullopt;
  }
  if (!value.is_object()) {
    setInvalidArgument(error, std::string(what) + " is not a JSON object");
    return std::nullopt;
  }
  return value;
}

}  // namespace velquin::glib

// ---------------------------------------------------------------------------
// Models. Each holds one C++ value, set when it is made and never changed;
// its properties read that value.

namespace {

template <class T>
struct Property {
  const char* name;
  GParamSpec* (*spec)(const char* name);
  void (*get)(const T& value, GValue* out);
};

GParamSpec* stringSpec(const char* name) {
  return g_param_spec_string(name, nullptr, nullptr, nullptr,
                             static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
}
GParamSpec* boolSpec(const char* name) {
  return g_param_spec_boolean(name, nullptr, nullptr, FALSE,
                              static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
}
GParamSpec* int64Spec(const char* name) {
  return g_param_spec_int64(name, nullptr, nullptr, G_MININT64, G_MAXINT64, 0,
                            static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
}
GParamSpec* intSpec(const char* name) {
  return g_param_spec_int(name, nullptr, nullptr, G_MININT, G_MAXINT, 0,
                          static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
}
GParamSpec* stateSpec(const char* name) {
  return g_param_spec_enum(name, nullptr, nullptr, VELQUIN_TYPE_TRANSACTION_STATE,
                           VELQUIN_TRANSACTION_STATE_PURCHASING,
                           static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
}

template <class T, std::size_t N>
void installProperties(GObjectClass* klass, const Property<T> (&table)[N]) {
  for (std::size_t i = 0; i < N; ++i) {
    g_object_class_install_property(klass, static_cast<guint>(i + 1), table[i].spec(table[i].name));
  }
}

template <class T, std::size_t N>
void readProperty(const Property<T> (&table)[N], const T& value, guint id, GValue* out,
                  GObject* object, GParamSpec* pspec) {
  if (id >= 1 && id <= N) {
    table[id - 1].get(value, out);
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

}  // namespace

// Defines a final model type holding a `Cpp` value, read through `TABLE`.
#define VQ_MODEL(TypeName, type_name, Cpp, TABLE)                                             \
  struct _##TypeName {                                                                         \
    GObject parent_instance;                                                                   \
    Cpp* value;                                                                                \
  };                                                                                           \
  G_DEFINE_FINAL_TYPE(TypeName, type_name, G_TYPE_OBJECT)                                      \
  static void type_name##_finalize(GObject* object) {                                          \
    delete reinterpret_cast<TypeName*>(object)->value;                                         \
    G_OBJECT_CLASS(type_name##_parent_class)->finalize(object);                                \
  }                                                                                            \
  static void type_name##_get_property(GObject* object, guint id, GValue* out,                 \
                                       GParamSpec* pspec) {                                    \
    readProperty(TABLE, *reinterpret_cast<TypeName*>(object)->value, id, out, object, pspec);  \
  }                                                                                            \
  static void type_name##_class_init(TypeName##Class* klass) {                                 \
    GObjectClass* object_class = G_OBJECT_CLASS(klass);                                        \
    object_class->finalize = type_name##_finalize;                                             \
    object_class->get_property = type_name##_get_property;                                     \
    installProperties(object_class, TABLE);                                                    \
  }                                                                                            \
  static void type_name##_init(TypeName* self) { self->value = new Cpp(); }                    \
  static TypeName* type_name##_wrap(Cpp value) {                                               \
    auto* object = static_cast<TypeName*>(g_object_new(type_name##_get_type(), nullptr));      \
    *object->value = std::move(value);                                                         \
    return object;                                                                             \
  }

#define VQ_STR(field) [](const auto& v, GValue* out) { g_value_set_string(out, v.field.c_str()); }
#define VQ_BOOL(field) [](const auto& v, GValue* out) { g_value_set_boolean(out, v.field); }
#define VQ_INT64(field) [](const auto& v, GValue* out) { g_value_set_int64(out, v.field); }
#define VQ_INT(field) \
  [](const auto& v, GValue* out) { g_value_set_int(out, static_cast<gint>(v.field)); }

using velquin::OVAttribution;
using velquin::OVEntitlement;
using velquin::OVOfferSignatureDetail;
using velquin::OVSubscriber;
using velquin::OVSubscription;
using velquin::OVSubscriptionOriginalTransaction;
using velquin::SKPaymentTransactionPtr;
using velquin::SKProductPtr;

/**
 * VelquinEntitlement:id: the entitlement's id
 * VelquinEntitlement:product-id: the product that grants it
 * VelquinEntitlement:is-active: whether it is active now
 * VelquinEntitlement:expire-at: when it ends, in the backend's unit
 */
static const Property<OVEntitlement> kEntitlementProperties[] = {
    {"id", stringSpec, VQ_STR(id)},
    {"product-id", stringSpec, VQ_STR(productId)},
    {"is-active", boolSpec, VQ_BOOL(isActive)},
    {"expire-at", int64Spec, VQ_INT64(expireAt)},
};
VQ_MODEL(VelquinEntitlement, velquin_entitlement, OVEntitlement, kEntitlementProperties)

static const Property<OVSubscriptionOriginalTransaction> kOriginalTransactionProperties[] = {
    {"original-txid", stringSpec, VQ_STR(originalTxid)},
    {"start-at", int64Spec, VQ_INT64(startAt)},
    {"expire-at", int64Spec, VQ_INT64(expireAt)},
};
VQ_MODEL(VelquinOriginalTransaction, velquin_original_transaction,
         OVSubscriptionOriginalTransaction, kOriginalTransactionProperties)

static const Property<OVSubscription> kSubscriptionProperties[] = {
    {"product-id", stringSpec, VQ_STR(productId)},
    {"status", intSpec, VQ_INT(status)},
    {"sub-status", intSpec, VQ_INT(subStatus)},
    {"expire-at", int64Spec, VQ_INT64(expireAt)},
    {"cancel-at", int64Spec, VQ_INT64(cancelAt)},
    {"will-renew-to", stringSpec, VQ_STR(willRenewTo)},
};
VQ_MODEL(VelquinSubscription, velquin_subscription, OVSubscription, kSubscriptionProperties)

static const Property<OVSubscriber> kSubscriberProperties[] = {
    {"is-active", boolSpec, VQ_BOOL(isActive)},
    {"product-id", stringSpec, VQ_STR(productId)},
    {"expire-at", int64Spec, VQ_INT64(expireAt)},
};
VQ_MODEL(VelquinSubscriber, velquin_subscriber, OVSubscriber, kSubscriberProperties)

// The product's fields, read through the shared store product.
struct ProductValue {
  SKProductPtr product = std::make_shared<const velquin::SKProduct>();
};
static const Property<ProductValue> kProductProperties[] = {
    {"product-id", stringSpec, VQ_STR(product->productIdentifier)},
    {"title", stringSpec, VQ_STR(product->localizedTitle)},
    {"description", stringSpec, VQ_STR(product->localizedDescription)},
    {"price", stringSpec, VQ_STR(product->price.stringValue())},
    {"currency-code", stringSpec, VQ_STR(product->priceLocale.currencyCode)},
    {"locale-identifier", stringSpec, VQ_STR(product->priceLocale.localeIdentifier)},
};
VQ_MODEL(VelquinProduct, velquin_product, ProductValue, kProductProperties)

// An object made without a transaction (by a binding) reads as an empty one.
static SKPaymentTransactionPtr emptyTransaction() {
  return std::make_shared<const velquin::SKPaymentTransaction>(velquin::SKPaymentTransaction{
      {}, velquin::SKPaymentTransactionState::purchasing, std::nullopt,
      velquin::SKPayment(velquin::SKProduct{}), std::nullopt, nullptr});
}
struct TransactionValue {
  SKPaymentTransactionPtr transaction = emptyTransaction();
};
static const Property<TransactionValue> kTransactionProperties[] = {
    {"transaction-id", stringSpec, VQ_STR(transaction->transactionIdentifier)},
    {"product-id", stringSpec, VQ_STR(transaction->payment.productIdentifier())},
    {"state", stateSpec,
     [](const TransactionValue& v, GValue* out) {
       g_value_set_enum(out, static_cast<gint>(v.transaction->transactionState));
     }},
    {"date", int64Spec,
     [](const TransactionValue& v, GValue* out) {
       const auto& date = v.transaction->transactionDate;
       g_value_set_int64(out, date ? std::chrono::duration_cast<std::chrono::seconds>(
                                         date->time_since_epoch())
                                         .count()
                                   : 0);
     }},
};
VQ_MODEL(VelquinTransaction, velquin_transaction, TransactionValue, kTransactionProperties)

static const Property<OVOfferSignatureDetail> kOfferSignatureProperties[] = {
    {"key-identifier", stringSpec, VQ_STR(keyIdentifier)},
    {"nonce", stringSpec, VQ_STR(nonce)},
    {"signature", stringSpec, VQ_STR(signature)},
    {"timestamp", int64Spec, VQ_INT64(timestamp)},
};
VQ_MODEL(VelquinOfferSignature, velquin_offer_signature, OVOfferSignatureDetail,
         kOfferSignatureProperties)

static const Property<OVAttribution> kAttributionProperties[] = {
    {"app-id", stringSpec, VQ_STR(appId)},
    {"advertiser-id", stringSpec, VQ_STR(advertiserId)},
    {"app-user-id", stringSpec, VQ_STR(appUserId)},
    {"attribution-source", stringSpec, VQ_STR(attributionSource)},
    {"acquisition-source", stringSpec, VQ_STR(acquisitionSource)},
    {"acquisition-campaign", stringSpec, VQ_STR(acquisitionCampaign)},
    {"acquisition-lander", stringSpec, VQ_STR(acquisitionLander)},
    {"acquisition-country", stringSpec, VQ_STR(acquisitionCountry)},
    {"acquisition-var1", stringSpec, VQ_STR(acquisitionVar1)},
    {"acquisition-var2", stringSpec, VQ_STR(acquisitionVar2)},
    {"acquisition-var3", stringSpec, VQ_STR(acquisitionVar3)},
    {"ad-event-id", stringSpec, VQ_STR(adEventId)},
    {"tracker-id", stringSpec, VQ_STR(trackerId)},
    {"click-time", int64Spec, VQ_INT64(clickTime)},
};
VQ_MODEL(VelquinAttribution, velquin_attribution, OVAttribution, kAttributionProperties)

template <class T, class Wrap>
static GList* wrapAll(const std::vector<T>& values, Wrap wrap) {
  GList* list = nullptr;
  for (auto it = values.rbegin(); it != values.rend(); ++it) list = g_list_prepend(list, wrap(*it));
  return list;
}

// The lists below are owned by the model (unreffed with it): a transfer
// container list of the model's own children, made once.
static GList* childList(GObject* owner, const char* key, GList* (*make)(GObject*)) {
  auto* list = static_cast<GList*>(g_object_get_data(owner, key));
  if (list == nullptr) {
    list = make(owner);
    g_object_set_data_full(owner, key, list,
                           [](gpointer data) { g_list_free_full(static_cast<GList*>(data), g_object_unref); });
  }
  return g_list_copy(list);
}

GList* velquin_subscriber_get_entitlements(VelquinSubscriber* self) {
  g_return_val_if_fail(VELQUIN_IS_SUBSCRIBER(self), nullptr);
  return childList(G_OBJECT(self), "velquin-entitlements", [](GObject* owner) {
    return wrapAll(reinterpret_cast<VelquinSubscriber*>(owner)->value->ovEntitlements,
                   [](const OVEntitlement& e) { return G_OBJECT(velquin_entitlement_wrap(e)); });
  });
}

GList* velquin_subscriber_get_subscriptions(VelquinSubscriber* self) {
  g_return_val_if_fail(VELQUIN_IS_SUBSCRIBER(self), nullptr);
  return childList(G_OBJECT(self), "velquin-subscriptions", [](GObject* owner) {
    return wrapAll(reinterpret_cast<VelquinSubscriber*>(owner)->value->ovSubscriptions,
                   [](const OVSubscription& s) { return G_OBJECT(velquin_subscription_wrap(s)); });
  });
}

GList* velquin_subscription_get_original_transactions(VelquinSubscription* self) {
  g_return_val_if_fail(VELQUIN_IS_SUBSCRIPTION(self), nullptr);
  return childList(G_OBJECT(self), "velquin-original-transactions", [](GObject* owner) {
    return wrapAll(reinterpret_cast<VelquinSubscription*>(owner)->value->originalTransactions,
                   [](const OVSubscriptionOriginalTransaction& t) {
                     return G_OBJECT(velquin_original_transaction_wrap(t));
                   });
  });
}

namespace velquin::glib {

VelquinSubscriber* wrapSubscriber(const OVSubscriber& value) { return velquin_subscriber_wrap(value); }
VelquinProduct* wrapProduct(const SKProductPtr& value) {
  return velquin_product_wrap(ProductValue{value});
}
VelquinTransaction* wrapTransaction(const SKPaymentTransactionPtr& value) {
  return velquin_transaction_wrap(TransactionValue{value});
}
VelquinOfferSignature* wrapOfferSignature(const OVOfferSignatureDetail& value) {
  return velquin_offer_signature_wrap(value);
}
VelquinAttribution* wrapAttribution(const OVAttribution& value) {
  return velquin_attribution_wrap(value);
}
const SKProductPtr& productValue(VelquinProduct* product) { return product->value->product; }
const SKPaymentTransactionPtr& transactionValue(VelquinTransaction* transaction) {
  return transaction->value->transaction;
}
const OVOfferSignatureDetail& offerSignatureValue(VelquinOfferSignature* signature) {
  return *signature->value;
}
GList* wrapTransactions(const std::vector<SKPaymentTransactionPtr>& values) {
  return wrapAll(values, [](const SKPaymentTransactionPtr& t) { return wrapTransaction(t); });
}

}  // namespace velquin::glib
