// VelquinLocalStore: forwards to velquin::LocalStore.
#define VELQUIN_GLIB_COMPILATION
#include <glib-object.h>

#include "Private.h"
#include "velquin/LocalStore.h"

using velquin::LocalStore;

struct _VelquinLocalStore {
  GObject parent_instance;
  std::shared_ptr<LocalStore>* store;  // set when made, immutable
};

G_DEFINE_FINAL_TYPE(VelquinLocalStore, velquin_local_store, G_TYPE_OBJECT)

static void velquin_local_store_finalize(GObject* object) {
  delete reinterpret_cast<VelquinLocalStore*>(object)->store;
  G_OBJECT_CLASS(velquin_local_store_parent_class)->finalize(object);
}

static void velquin_local_store_class_init(VelquinLocalStoreClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = velquin_local_store_finalize;
}

static void velquin_local_store_init(VelquinLocalStore* self) {
  self->store = new std::shared_ptr<LocalStore>();
}

static VelquinLocalStore* wrap(std::shared_ptr<LocalStore> store) {
  auto* self = static_cast<VelquinLocalStore*>(g_object_new(VELQUIN_TYPE_LOCAL_STORE, nullptr));
  *self->store = std::move(store);
  return self;
}

static LocalStore::ScriptedOutcome scripted(VelquinOutcome outcome, guint delayMs, gint errorCode) {
  LocalStore::ScriptedOutcome result;
  result.outcome = static_cast<LocalStore::Outcome>(outcome);
  result.delay = std::chrono::milliseconds(delayMs);
  result.errorCode = errorCode;
  return result;
}

void velquin_local_store_set_configuration_path(const gchar* path) {
  g_return_if_fail(path != nullptr);
  LocalStore::setConfigurationPath(path);
}

VelquinLocalStore* velquin_local_store_get_default(void) {
  auto store = std::dynamic_pointer_cast<LocalStore>(velquin::StoreKit::current());
  return store ? wrap(std::move(store)) : nullptr;
}

VelquinLocalStore* velquin_local_store_new(const gchar* configuration_path,
                                           const gchar* store_directory,
                                           const gchar* receipt_path, const gchar* bundle_id) {
  g_return_val_if_fail(configuration_path && store_directory && receipt_path, nullptr);
  LocalStore::Options options;
  options.configurationPath = configuration_path;
  options.storeDirectory = store_directory;
  options.receiptPath = receipt_path;
  options.defaultBundleIdentifier = velquin::glib::text(bundle_id);
  return wrap(LocalStore::create(std::move(options)));
}

void velquin_local_store_install(VelquinLocalStore* self) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  velquin::StoreKit::install(*self->store);
}

void velquin_local_store_set_configuration_file(VelquinLocalStore* self, const gchar* path) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  g_return_if_fail(path != nullptr);
  (*self->store)->setConfigurationFile(path);
}

void velquin_local_store_set_outcome(VelquinLocalStore* self, const gchar* product_id,
                                     VelquinOutcome outcome, guint delay_ms, gint error_code) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  g_return_if_fail(product_id != nullptr);
  (*self->store)->setOutcome(product_id, scripted(outcome, delay_ms, error_code));
}

void velquin_local_store_clear_outcome(VelquinLocalStore* self, const gchar* product_id) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  g_return_if_fail(product_id != nullptr);
  (*self->store)->clearOutcome(product_id);
}

void velquin_local_store_set_next_outcome(VelquinLocalStore* self, VelquinOutcome outcome,
                                          guint delay_ms, gint error_code) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  (*self->store)->setNextOutcome(scripted(outcome, delay_ms, error_code));
}

void velquin_local_store_set_restore_behaviour(VelquinLocalStore* self,
                                               VelquinRestoreBehaviour behaviour, guint delay_ms) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  (*self->store)->setRestoreBehaviour(static_cast<LocalStore::RestoreBehaviour>(behaviour),
                                      std::chrono::milliseconds(delay_ms));
}

void velquin_local_store_approve_ask_to_buy(VelquinLocalStore* self, const gchar* product_id) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  g_return_if_fail(product_id != nullptr);
  (*self->store)->approveAskToBuy(product_id);
}

void velquin_local_store_decline_ask_to_buy(VelquinLocalStore* self, const gchar* product_id) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  g_return_if_fail(product_id != nullptr);
  (*self->store)->declineAskToBuy(product_id);
}

void velquin_local_store_promote(VelquinLocalStore* self, const gchar* product_id) {
  g_return_if_fail(VELQUIN_IS_LOCAL_STORE(self));
  g_return_if_fail(product_id != nullptr);
  (*self->store)->promote(product_id);
}

gchar* velquin_local_store_get_receipt_public_key_pem(VelquinLocalStore* self, GError** error) {
  g_return_val_if_fail(VELQUIN_IS_LOCAL_STORE(self), nullptr);
  velquin::Error problem;
  auto pem = (*self->store)->receiptPublicKeyPem(&problem);
  if (!pem) {
    g_propagate_error(error, velquin::glib::toGError(problem));
    return nullptr;
  }
  return g_strdup(pem->c_str());
}
