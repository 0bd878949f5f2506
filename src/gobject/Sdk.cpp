// VelquinSdk: converts the C API's arguments, forwards to velquin::Velquin
// and hands the SDK's answers back as GTask results, GErrors and signals.
#define VELQUIN_GLIB_COMPILATION
#include <gio/gio.h>

#include <map>
#include <mutex>
#include <set>

#include "Call.h"
#include "Private.h"
#include "velquin/Bundle.h"
#include "velquin/NotificationCenter.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

using velquin::Velquin;
using namespace velquin::glib;

enum {
  SIGNAL_APP_CONFIG_HANDLED,
  SIGNAL_WELCOME_PAGE_STORED,
  SIGNAL_REACHABILITY_CHANGED,
  SIGNAL_PROMOTED_PURCHASE,
  SIGNAL_TRANSACTION_VERIFIED,
  N_SIGNALS
};
static guint signals[N_SIGNALS];

namespace {

class PromotingObserver;

// The calls whose completion the SDK keeps in a one-completion slot.
enum class Slot { purchase, fetchReceipt, restore };

}  // namespace

struct _VelquinSdk {
  GObject parent_instance;
  GMainContext* context;  // where signals are emitted; immutable
  std::mutex* mutex;
  // The waiting call of each slot. GUARDED_BY mutex.
  std::map<Slot, std::weak_ptr<Call>>* slots;
  // Held for the process: the SDK holds it weakly. GUARDED_BY mutex.
  std::shared_ptr<PromotingObserver>* promotingObserver;
};

G_DEFINE_FINAL_TYPE(VelquinSdk, velquin_sdk, G_TYPE_OBJECT)

namespace {

// Emits `signal` on the SDK's context with the given arguments (each owned
// and released after the emission).
struct Emission {
  guint signal;
  std::vector<GValue> args;
};

void emitOnContext(VelquinSdk* self, guint signal, std::vector<GValue> args = {}) {
  auto* emission = new Emission{signal, std::move(args)};
  g_main_context_invoke_full(
      self->context, G_PRIORITY_DEFAULT,
      [](gpointer data) -> gboolean {
        auto* e = static_cast<Emission*>(data);
        std::vector<GValue> values(e->args.size() + 1);
        values[0] = G_VALUE_INIT;
        g_value_init(&values[0], VELQUIN_TYPE_SDK);
        g_value_set_object(&values[0], velquin_sdk_get_default());
        for (std::size_t i = 0; i < e->args.size(); ++i) values[i + 1] = e->args[i];
        g_signal_emitv(values.data(), signals[e->signal], 0, nullptr);
        for (auto& value : values) g_value_unset(&value);
        return G_SOURCE_REMOVE;
      },
      emission, [](gpointer data) { delete static_cast<Emission*>(data); });
}

GValue objectValue(GType type, gpointer object) {  // takes the reference
  GValue value = G_VALUE_INIT;
  g_value_init(&value, type);
  g_value_take_object(&value, object);
  return value;
}

class PromotingObserver : public velquin::OVPromotingObserverProtocol {
 public:
  explicit PromotingObserver(VelquinSdk* sdk) : sdk_(sdk) {}
  void ovPromotingAddStorePaymentWithStatus(velquin::OVPromotingInAppPurchaseStatus status,
                                            const velquin::SKPayment& /*payment*/,
                                            const velquin::SKProductPtr& product) override {
    std::vector<GValue> args(2);
    args[0] = G_VALUE_INIT;
    g_value_init(&args[0], VELQUIN_TYPE_PROMOTING_STATUS);
    g_value_set_enum(&args[0], static_cast<gint>(status));
    args[1] = objectValue(VELQUIN_TYPE_PRODUCT, product ? wrapProduct(product) : nullptr);
    emitOnContext(sdk_, SIGNAL_PROMOTED_PURCHASE, std::move(args));
  }

 private:
  VelquinSdk* const sdk_;  // lives for the process
};

// Makes `call` the waiting call of `slot`; the call it replaces (whose SDK
// completion will never come) returns VELQUIN_ERROR_SUPERSEDED.
void occupySlot(VelquinSdk* self, Slot slot, const CallPtr& call) {
  std::shared_ptr<Call> replaced;
  {
    std::lock_guard lock(*self->mutex);
    replaced = (*self->slots)[slot].lock();
    (*self->slots)[slot] = call;
  }
  if (replaced) {
    replaced->returnError(g_error_new_literal(VELQUIN_ERROR, VELQUIN_ERROR_SUPERSEDED,
                                              "a later call of the same kind replaced this one"));
  }
}

void returnSubscriber(const CallPtr& call, const velquin::OVSubscriber& subscriber,
                      const std::optional<velquin::Error>& error) {
  if (error) return call->returnError(toGError(*error));
  call->returnPointer(wrapSubscriber(subscriber), g_object_unref);
}

void returnDone(const CallPtr& call, bool success, const std::optional<velquin::Error>& error) {
  if (error) return call->returnError(toGError(*error));
  if (!success) {
    return call->returnError(
        g_error_new_literal(VELQUIN_ERROR, VELQUIN_ERROR_FAILED, "the backend did not take it"));
  }
  call->returnBoolean(TRUE);
}

void returnAttribution(const CallPtr& call, const std::optional<velquin::OVAttribution>& reply,
                       const std::optional<velquin::Error>& error) {
  if (error) return call->returnError(toGError(*error));
  if (!reply) {
    return call->returnError(
        g_error_new_literal(VELQUIN_ERROR, VELQUIN_ERROR_FAILED, "the backend sent no attribution"));
  }
  call->returnPointer(wrapAttribution(*reply), g_object_unref);
}

bool checkResult(VelquinSdk* self, GAsyncResult* result, gpointer tag) {
  return g_task_is_valid(result, self) && g_task_get_source_tag(G_TASK(result)) == tag;
}

// An argument that is not text the SDK can take: the call returns at once.
bool refuseArgument(const CallPtr& call, GError* problem) {
  if (problem == nullptr) return false;
  call->returnError(problem);
  return true;
}

void onTransactionVerified(const velquin::SKPaymentTransactionPtr& transaction,
                           const std::optional<velquin::ReceiptData>& receipt,
                           const std::optional<velquin::Error>& error) {
  std::vector<GValue> args(3);
  args[0] = objectValue(VELQUIN_TYPE_TRANSACTION,
                        transaction ? wrapTransaction(transaction) : nullptr);
  args[1] = G_VALUE_INIT;
  g_value_init(&args[1], G_TYPE_BYTES);
  if (receipt) g_value_take_boxed(&args[1], g_bytes_new(receipt->data(), receipt->size()));
  args[2] = G_VALUE_INIT;
  g_value_init(&args[2], G_TYPE_ERROR);
  if (error) g_value_take_boxed(&args[2], toGError(*error));
  emitOnContext(velquin_sdk_get_default(), SIGNAL_TRANSACTION_VERIFIED, std::move(args));
}

}  // namespace

static void velquin_sdk_class_init(VelquinSdkClass* klass) {
  /**
   * VelquinSdk::app-config-handled:
   * @self: the SDK
   *
   * An answer (or error) of the app configuration has been handled.
   */
  signals[SIGNAL_APP_CONFIG_HANDLED] =
      g_signal_new("app-config-handled", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0,
                   nullptr, nullptr, nullptr, G_TYPE_NONE, 0);
  /**
   * VelquinSdk::welcome-page-stored:
   * @self: the SDK
   *
   * The app configuration stored a welcome page.
   */
  signals[SIGNAL_WELCOME_PAGE_STORED] =
      g_signal_new("welcome-page-stored", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0,
                   nullptr, nullptr, nullptr, G_TYPE_NONE, 0);
  /**
   * VelquinSdk::reachability-changed:
   * @self: the SDK
   *
   * The network's reachability changed.
   */
  signals[SIGNAL_REACHABILITY_CHANGED] =
      g_signal_new("reachability-changed", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0,
                   nullptr, nullptr, nullptr, G_TYPE_NONE, 0);
  /**
   * VelquinSdk::promoted-purchase:
   * @self: the SDK
   * @status: the promoting status in force
   * @product: (nullable): the product the store front started to buy
   *
   * The store front started a purchase of one of the app's products.
   */
  signals[SIGNAL_PROMOTED_PURCHASE] =
      g_signal_new("promoted-purchase", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, nullptr,
                   nullptr, nullptr, G_TYPE_NONE, 2, VELQUIN_TYPE_PROMOTING_STATUS,
                   VELQUIN_TYPE_PRODUCT);
  /**
   * VelquinSdk::transaction-verified:
   * @self: the SDK
   * @transaction: (nullable): the transaction
   * @receipt: (nullable): the receipt file's bytes
   * @error: (nullable): why verification failed
   *
   * After velquin_sdk_start_transaction_monitor(): a transaction was verified.
   */
  signals[SIGNAL_TRANSACTION_VERIFIED] =
      g_signal_new("transaction-verified", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0,
                   nullptr, nullptr, nullptr, G_TYPE_NONE, 3, VELQUIN_TYPE_TRANSACTION,
                   G_TYPE_BYTES, G_TYPE_ERROR);
}

static void velquin_sdk_init(VelquinSdk* self) {
  self->context = g_main_context_ref_thread_default();
  self->mutex = new std::mutex();
  self->slots = new std::map<Slot, std::weak_ptr<Call>>();
  self->promotingObserver = new std::shared_ptr<PromotingObserver>();
}

void velquin_set_bundle_path(const gchar* path) {
  g_return_if_fail(path != nullptr);
  velquin::Bundle::setMainBundlePath(path);
}

void velquin_set_purchases_logs(gboolean enabled) { Velquin::setPurchasesLogs(enabled); }

VelquinSdk* velquin_sdk_get_default(void) {
  static VelquinSdk* sdk = nullptr;
  if (g_once_init_enter(&sdk)) {
    auto* made = static_cast<VelquinSdk*>(g_object_new(VELQUIN_TYPE_SDK, nullptr));
    auto& center = velquin::NotificationCenter::defaultCenter();
    center.addObserver(velquin::OVPurchase::kAppConfigHandledNotification,
                       [made](const velquin::Notification&) {
                         emitOnContext(made, SIGNAL_APP_CONFIG_HANDLED);
                       });
    center.addObserver("VelQuinWelcomPageDateName", [made](const velquin::Notification&) {
      emitOnContext(made, SIGNAL_WELCOME_PAGE_STORED);
    });
    center.addObserver("kNetworkReachabilityChangedNotification",
                       [made](const velquin::Notification&) {
                         emitOnContext(made, SIGNAL_REACHABILITY_CHANGED);
                       });
    g_once_init_leave(&sdk, made);
  }
  return sdk;
}

void velquin_sdk_configure(VelquinSdk* self) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  Velquin::shared().configure();
}

void velquin_sdk_set_analytics_logs(VelquinSdk* self, gboolean enabled) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  Velquin::shared().setAnalyticsLogs(enabled);
}

gchar* velquin_sdk_get_app_user_id(VelquinSdk* self) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), nullptr);
  return g_strdup(Velquin::shared().getAppUserId().c_str());
}

gchar* velquin_sdk_get_user_id(VelquinSdk* self) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), nullptr);
  return g_strdup(Velquin::shared().purchases().appUserId().c_str());
}

gchar* velquin_sdk_get_experiment_tag(VelquinSdk* self) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), nullptr);
  auto tag = Velquin::shared().experimentTag();
  return tag ? g_strdup(tag->c_str()) : nullptr;
}

gchar* velquin_sdk_get_stored_welcome_page(VelquinSdk* self) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), nullptr);
  auto page = Velquin::shared().storedWelcomePage();
  return page ? g_strdup(page->c_str()) : nullptr;
}

gchar* velquin_sdk_track_event(VelquinSdk* self, const gchar* name, const gchar* params_json,
                               GError** error) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), nullptr);
  g_return_val_if_fail(error == nullptr || *error == nullptr, nullptr);
  if (name == nullptr) {
    setInvalidArgument(error, "the event name is missing");
    return nullptr;
  }
  auto params = parseObject(params_json, true, "the event parameters", error);
  if (!params) return nullptr;
  // A refused event is reported synchronously, before the call returns; a
  // later report is a delivery failure, which durable delivery retries.
  struct Refusal {
    std::mutex mutex;
    bool returned = false;                 // GUARDED_BY mutex
    std::optional<velquin::Error> error;   // GUARDED_BY mutex
  };
  auto refusal = std::make_shared<Refusal>();
  std::string requestId = Velquin::shared().analytics().uploadBigDataWithEvent(
      std::string(name), *params, nullptr, [refusal](const velquin::Error& e) {
        std::lock_guard lock(refusal->mutex);
        if (!refusal->returned) refusal->error = e;
      });
  std::lock_guard lock(refusal->mutex);
  refusal->returned = true;
  if (refusal->error) {
    g_set_error_literal(error, VELQUIN_ERROR, VELQUIN_ERROR_EVENT_REFUSED,
                        refusal->error->message.c_str());
    return nullptr;
  }
  return g_strdup(requestId.c_str());
}

void velquin_sdk_write_log(VelquinSdk* self, const gchar* message) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  g_return_if_fail(message != nullptr);
  Velquin::shared().writeLog(message);
}

// ---- Subscriber, products, purchases

void velquin_sdk_has_active_subscription(VelquinSdk* self, GCancellable* cancellable,
                                         GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_has_active_subscription));
  if (!call) return;
  Velquin::shared().hasActiveSubscription(
      [call](velquin::OVSubscriber subscriber, std::optional<velquin::Error> error) {
        returnSubscriber(call, subscriber, error);
      });
}

VelquinSubscriber* velquin_sdk_has_active_subscription_finish(VelquinSdk* self, GAsyncResult* result,
                                                              GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_has_active_subscription)),
      nullptr);
  return static_cast<VelquinSubscriber*>(g_task_propagate_pointer(G_TASK(result), error));
}

void velquin_sdk_get_purchase_product_ids(VelquinSdk* self, GCancellable* cancellable,
                                          GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_get_purchase_product_ids));
  if (!call) return;
  Velquin::shared().getPurchaseProductIds(
      [call](std::optional<std::vector<std::string>> ids, std::optional<velquin::Error> error) {
        if (error) return call->returnError(toGError(*error));
        GStrvBuilder* builder = g_strv_builder_new();
        if (ids) {
          for (const auto& id : *ids) g_strv_builder_add(builder, id.c_str());
        }
        call->returnPointer(g_strv_builder_end(builder), reinterpret_cast<GDestroyNotify>(g_strfreev));
        g_strv_builder_unref(builder);
      });
}

gchar** velquin_sdk_get_purchase_product_ids_finish(VelquinSdk* self, GAsyncResult* result,
                                                    GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_get_purchase_product_ids)),
      nullptr);
  return static_cast<gchar**>(g_task_propagate_pointer(G_TASK(result), error));
}

static void freeProducts(gpointer list) {
  g_list_free_full(static_cast<GList*>(list), g_object_unref);
}

void velquin_sdk_get_products(VelquinSdk* self, const gchar* const* product_ids,
                              GCancellable* cancellable, GAsyncReadyCallback callback,
                              gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_get_products));
  if (!call) return;
  std::vector<std::string> order;
  for (auto id = product_ids; id != nullptr && *id != nullptr; ++id) order.emplace_back(*id);
  std::set<std::string> ids(order.begin(), order.end());
  Velquin::shared().getSkuDetails(
      ids, [call, order](std::optional<std::map<std::string, velquin::SKProductPtr>> products,
                         std::optional<velquin::Error> error) {
        if (error) return call->returnError(toGError(*error));
        GList* list = nullptr;
        std::set<std::string> listed;
        if (products) {
          for (const auto& id : order) {
            auto found = products->find(id);
            if (found == products->end() || !found->second || !listed.insert(id).second) continue;
            list = g_list_prepend(list, wrapProduct(found->second));
          }
        }
        call->returnPointer(g_list_reverse(list), freeProducts);
      });
}

GList* velquin_sdk_get_products_finish(VelquinSdk* self, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_get_products)), nullptr);
  return static_cast<GList*>(g_task_propagate_pointer(G_TASK(result), error));
}

// The purchase completion: a cancel the store reports is VELQUIN_ERROR_CANCELLED.
static velquin::OVPurchase::TransactionCompletion purchaseCompletion(const CallPtr& call) {
  return [call](velquin::SKPaymentTransactionPtr, velquin::OVSubscriber subscriber,
                std::optional<velquin::Error> error, bool userCancelled) {
    if (userCancelled) {
      return call->returnError(g_error_new_literal(
          VELQUIN_ERROR, VELQUIN_ERROR_CANCELLED,
          error ? error->message.c_str() : "the user cancelled the payment"));
    }
    returnSubscriber(call, subscriber, error);
  };
}

void velquin_sdk_purchase_product(VelquinSdk* self, VelquinProduct* product,
                                  GCancellable* cancellable, GAsyncReadyCallback callback,
                                  gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  g_return_if_fail(VELQUIN_IS_PRODUCT(product));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_purchase_product));
  if (!call) return;
  occupySlot(self, Slot::purchase, call);
  Velquin::shared().purchaseSKProduct(*productValue(product), purchaseCompletion(call));
}

void velquin_sdk_purchase_product_with_discount(VelquinSdk* self, VelquinProduct* product,
                                                const gchar* offer_id,
                                                VelquinOfferSignature* signature,
                                                const gchar* application_username,
                                                GCancellable* cancellable,
                                                GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  g_return_if_fail(VELQUIN_IS_PRODUCT(product));
  g_return_if_fail(offer_id != nullptr);
  g_return_if_fail(VELQUIN_IS_OFFER_SIGNATURE(signature));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_purchase_product));
  if (!call) return;
  const auto& signed_ = offerSignatureValue(signature);
  velquin::SKPaymentDiscount discount{offer_id, signed_.keyIdentifier, signed_.nonce,
                                      signed_.signature, signed_.timestamp};
  occupySlot(self, Slot::purchase, call);
  Velquin::shared().purchaseSKProductWithDiscount(*productValue(product), discount,
                                                  optionalText(application_username),
                                                  purchaseCompletion(call));
}

VelquinSubscriber* velquin_sdk_purchase_product_finish(VelquinSdk* self, GAsyncResult* result,
                                                       GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_purchase_product)),
      nullptr);
  return static_cast<VelquinSubscriber*>(g_task_propagate_pointer(G_TASK(result), error));
}

namespace {
// The result of a purchase with its receipt.
struct FetchedReceipt {
  VelquinTransaction* transaction;  // owned
  GList* transactions;              // owned, of VelquinTransaction
  GBytes* receipt;                  // owned, or null
};
void freeFetchedReceipt(gpointer data) {
  auto* fetched = static_cast<FetchedReceipt*>(data);
  g_clear_object(&fetched->transaction);
  g_list_free_full(fetched->transactions, g_object_unref);
  if (fetched->receipt) g_bytes_unref(fetched->receipt);
  delete fetched;
}
}  // namespace

void velquin_sdk_purchase_fetch_receipt(VelquinSdk* self, VelquinProduct* product,
                                        GCancellable* cancellable, GAsyncReadyCallback callback,
                                        gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  g_return_if_fail(VELQUIN_IS_PRODUCT(product));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_purchase_fetch_receipt));
  if (!call) return;
  occupySlot(self, Slot::fetchReceipt, call);
  Velquin::shared().purchaseFetchReceiptSKProduct(
      *productValue(product),
      [call](velquin::SKPaymentTransactionPtr transaction,
             std::vector<velquin::SKPaymentTransactionPtr> transactions,
             std::optional<velquin::ReceiptData> receipt, std::optional<velquin::Error> error) {
        if (error) return call->returnError(toGError(*error));
        auto* fetched = new FetchedReceipt{
            transaction ? wrapTransaction(transaction) : nullptr, wrapTransactions(transactions),
            receipt ? g_bytes_new(receipt->data(), receipt->size()) : nullptr};
        call->returnPointer(fetched, freeFetchedReceipt);
      });
}

VelquinTransaction* velquin_sdk_purchase_fetch_receipt_finish(VelquinSdk* self, GAsyncResult* result,
                                                              GList** transactions,
                                                              GBytes** receipt, GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_purchase_fetch_receipt)),
      nullptr);
  auto* fetched = static_cast<FetchedReceipt*>(g_task_propagate_pointer(G_TASK(result), error));
  if (fetched == nullptr) return nullptr;
  VelquinTransaction* transaction = fetched->transaction;
  fetched->transaction = nullptr;
  if (transaction == nullptr) {
    freeFetchedReceipt(fetched);
    g_set_error_literal(error, VELQUIN_ERROR, VELQUIN_ERROR_FAILED, "the store named no transaction");
    return nullptr;
  }
  if (transactions) {
    *transactions = fetched->transactions;
    fetched->transactions = nullptr;
  }
  if (receipt) {
    *receipt = fetched->receipt;
    fetched->receipt = nullptr;
  }
  freeFetchedReceipt(fetched);
  return transaction;
}

void velquin_sdk_start_transaction_monitor(VelquinSdk* self) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  Velquin::shared().addMonitorTransationCompletionHandler(
      [](velquin::SKPaymentTransactionPtr transaction, std::vector<velquin::SKPaymentTransactionPtr>,
         std::optional<velquin::ReceiptData> receipt, std::optional<velquin::Error> error) {
        onTransactionVerified(transaction, receipt, error);
      });
}

void velquin_sdk_finish_transactions(VelquinSdk* self, GList* transactions) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  std::vector<velquin::SKPaymentTransactionPtr> values;
  for (GList* item = transactions; item != nullptr; item = item->next) {
    if (VELQUIN_IS_TRANSACTION(item->data)) {
      values.push_back(transactionValue(VELQUIN_TRANSACTION(item->data)));
    }
  }
  Velquin::shared().finishTransactions(values);
}

gboolean velquin_sdk_can_make_payment(VelquinSdk* self) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), FALSE);
  return Velquin::shared().canMakePayment();
}

void velquin_sdk_restore_purchases(VelquinSdk* self, GCancellable* cancellable,
                                   GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_restore_purchases));
  if (!call) return;
  occupySlot(self, Slot::restore, call);
  Velquin::shared().restorePurchases(
      [call](velquin::OVSubscriber subscriber, std::optional<velquin::Error> error) {
        returnSubscriber(call, subscriber, error);
      });
}

VelquinSubscriber* velquin_sdk_restore_purchases_finish(VelquinSdk* self, GAsyncResult* result,
                                                        GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_restore_purchases)), nullptr);
  return static_cast<VelquinSubscriber*>(g_task_propagate_pointer(G_TASK(result), error));
}

// ---- User, device, attribution, offers, currency

void velquin_sdk_upload_user_info(VelquinSdk* self, const gchar* user_id,
                                  const gchar* attributes_json, GCancellable* cancellable,
                                  GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_upload_user_info));
  if (!call) return;
  GError* problem = nullptr;
  auto attributes = parseObject(attributes_json, true, "the user attributes", &problem);
  if (refuseArgument(call, problem)) return;
  Velquin::shared().uploadUserInfo(optionalText(user_id), *attributes,
                                   [call](bool success, std::optional<velquin::Error> error) {
                                     returnDone(call, success, error);
                                   });
}

gboolean velquin_sdk_upload_user_info_finish(VelquinSdk* self, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_upload_user_info)), FALSE);
  return g_task_propagate_boolean(G_TASK(result), error);
}

void velquin_sdk_upload_device_info(VelquinSdk* self, const gchar* device_token,
                                    GCancellable* cancellable, GAsyncReadyCallback callback,
                                    gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  g_return_if_fail(device_token != nullptr);
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_upload_device_info));
  if (!call) return;
  Velquin::shared().uploadDeviceInfo(device_token,
                                     [call](bool success, std::optional<velquin::Error> error) {
                                       returnDone(call, success, error);
                                     });
}

gboolean velquin_sdk_upload_device_info_finish(VelquinSdk* self, GAsyncResult* result,
                                               GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_upload_device_info)), FALSE);
  return g_task_propagate_boolean(G_TASK(result), error);
}

void velquin_sdk_update_attribution(VelquinSdk* self, const gchar* data_json,
                                    VelquinAttributionNetwork network,
                                    const gchar* network_user_id, GCancellable* cancellable,
                                    GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_update_attribution));
  if (!call) return;
  GError* problem = nullptr;
  auto data = parseObject(data_json, false, "the attribution data", &problem);
  if (refuseArgument(call, problem)) return;
  Velquin::shared().updateAttribution(
      *data, static_cast<velquin::AttributionNetwork>(network), optionalText(network_user_id),
      [call](std::optional<velquin::OVAttribution> reply, std::optional<velquin::Error> error) {
        returnAttribution(call, reply, error);
      });
}

void velquin_sdk_update_custom_attribution(VelquinSdk* self, const gchar* channel,
                                           const gchar* campaign, const gchar* ad_group,
                                           const gchar* creative, const gchar* click_id,
                                           GCancellable* cancellable, GAsyncReadyCallback callback,
                                           gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  g_return_if_fail(channel != nullptr);
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_update_attribution));
  if (!call) return;
  Velquin::shared().updateCustomAttribution(
      channel, optionalText(campaign), optionalText(ad_group), optionalText(creative),
      optionalText(click_id),
      [call](std::optional<velquin::OVAttribution> reply, std::optional<velquin::Error> error) {
        returnAttribution(call, reply, error);
      });
}

VelquinAttribution* velquin_sdk_update_attribution_finish(VelquinSdk* self, GAsyncResult* result,
                                                          GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_update_attribution)),
      nullptr);
  return static_cast<VelquinAttribution*>(g_task_propagate_pointer(G_TASK(result), error));
}

void velquin_sdk_create_signature(VelquinSdk* self, const gchar* product_id, const gchar* offer_id,
                                  const gchar* user_id, GCancellable* cancellable,
                                  GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  g_return_if_fail(product_id != nullptr && offer_id != nullptr && user_id != nullptr);
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_create_signature));
  if (!call) return;
  Velquin::shared().createASignature(
      product_id, offer_id, user_id,
      [call](std::optional<velquin::OVOfferSignatureDetail> detail,
             std::optional<velquin::Error> error) {
        if (error) return call->returnError(toGError(*error));
        if (!detail) {
          return call->returnError(
              g_error_new_literal(VELQUIN_ERROR, VELQUIN_ERROR_FAILED, "the backend sent no signature"));
        }
        call->returnPointer(wrapOfferSignature(*detail), g_object_unref);
      });
}

VelquinOfferSignature* velquin_sdk_create_signature_finish(VelquinSdk* self, GAsyncResult* result,
                                                           GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_create_signature)), nullptr);
  return static_cast<VelquinOfferSignature*>(g_task_propagate_pointer(G_TASK(result), error));
}

void velquin_sdk_get_currency_rate(VelquinSdk* self, const gchar* currency_code,
                                   GCancellable* cancellable, GAsyncReadyCallback callback,
                                   gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  g_return_if_fail(currency_code != nullptr);
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_get_currency_rate));
  if (!call) return;
  Velquin::shared().getCurrencyRate(
      currency_code, [call](std::optional<double> rate, std::optional<velquin::Error> error) {
        if (error) return call->returnError(toGError(*error));
        if (!rate) {
          return call->returnError(
              g_error_new_literal(VELQUIN_ERROR, VELQUIN_ERROR_FAILED, "the backend sent no rate"));
        }
        call->returnDouble(*rate);
      });
}

gdouble velquin_sdk_get_currency_rate_finish(VelquinSdk* self, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_get_currency_rate)), 0);
  GValue value = G_VALUE_INIT;
  if (!g_task_propagate_value(G_TASK(result), &value, error)) return 0;
  double rate = g_value_get_double(&value);
  g_value_unset(&value);
  return rate;
}

// ---- Pages

void velquin_sdk_fetch_paywall_page(VelquinSdk* self, GCancellable* cancellable,
                                    GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_fetch_paywall_page));
  if (!call) return;
  Velquin::shared().fetchPaywallPage(
      [call](std::optional<std::string> page, std::optional<velquin::Error> error) {
        if (error) return call->returnError(toGError(*error));
        call->returnPointer(page ? g_strdup(page->c_str()) : nullptr, g_free);
      });
}

gchar* velquin_sdk_fetch_paywall_page_finish(VelquinSdk* self, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_fetch_paywall_page)), nullptr);
  return static_cast<gchar*>(g_task_propagate_pointer(G_TASK(result), error));
}

void velquin_sdk_load_paywall_to_purachase(VelquinSdk* self, GCancellable* cancellable,
                                           GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto call = Call::start(self, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(velquin_sdk_load_paywall_to_purachase));
  if (!call) return;
  Velquin::shared().loadPaywallToPurachase(
      [call](bool shown, std::optional<std::string> message) {
        if (shown) return call->returnBoolean(TRUE);
        call->returnError(g_error_new_literal(VELQUIN_ERROR, VELQUIN_ERROR_PAYWALL_FAILED,
                                              message ? message->c_str() : "paywall show failed"));
      });
}

gboolean velquin_sdk_load_paywall_to_purachase_finish(VelquinSdk* self, GAsyncResult* result,
                                                      GError** error) {
  g_return_val_if_fail(
      checkResult(self, result, reinterpret_cast<gpointer>(velquin_sdk_load_paywall_to_purachase)),
      FALSE);
  return g_task_propagate_boolean(G_TASK(result), error);
}

// ---- Promoted purchases and notifications

void velquin_sdk_set_in_app_purchase_promoting_status(VelquinSdk* self,
                                                      VelquinPromotingStatus status) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  auto raw = velquin::promotingStatusFromRaw(static_cast<std::int32_t>(status));
  g_return_if_fail(raw.has_value());
  std::shared_ptr<PromotingObserver> observer;
  {
    std::lock_guard lock(*self->mutex);
    if (!*self->promotingObserver) {
      *self->promotingObserver = std::make_shared<PromotingObserver>(self);
    }
    observer = *self->promotingObserver;
  }
  Velquin::shared().setInAppPurchasePromotingStatus(*raw, observer);
}

void velquin_sdk_set_in_app_messsage_auto_show(VelquinSdk* self, gboolean auto_show) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  Velquin::shared().setInAppMesssageAutoShow(auto_show);
}

void velquin_sdk_set_auto_user_notification_behavior_data_reporting(VelquinSdk* self) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  Velquin::shared().setAutoUserNotificationBehaviorDataReporting();
}

gboolean velquin_sdk_send_user_notification_center_message(VelquinSdk* self,
                                                           const gchar* user_info_json,
                                                           GError** error) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), FALSE);
  auto info = parseObject(user_info_json, false, "the user info", error);
  if (!info) return FALSE;
  return Velquin::shared().sendUserNotificationCenterMessage(*info);
}

gboolean velquin_sdk_send_notification_user_info_to_behavior_data_reporting(
    VelquinSdk* self, const gchar* user_info_json, GError** error) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), FALSE);
  auto info = parseObject(user_info_json, false, "the user info", error);
  if (!info) return FALSE;
  Velquin::shared().sendNotificationUserInfoToBehaviorDataReporting(*info);
  return TRUE;
}

gboolean velquin_sdk_receive_push_notification(VelquinSdk* self, const gchar* payload_json,
                                               gboolean in_front, GError** error) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), FALSE);
  auto payload = parseObject(payload_json, false, "the push payload", error);
  if (!payload) return FALSE;
  Velquin::shared().receivePushNotification(*payload, in_front);
  return TRUE;
}

void velquin_sdk_set_from_backgroud_point_to_delay_time(VelquinSdk* self, gdouble delay_time) {
  g_return_if_fail(VELQUIN_IS_SDK(self));
  Velquin::shared().setFromBackgroudPointToDelayTime(delay_time);
}

gdouble velquin_sdk_get_from_backgroud_point_to_delay_time(VelquinSdk* self) {
  g_return_val_if_fail(VELQUIN_IS_SDK(self), 0);
  return Velquin::shared().fromBackgroudPointToDelayTime();
}
