// The local store's JSON configuration: products, the bundle id, the key that
// checks promotional-offer signatures and scripted outcomes. See
// examples/store-config.json for the format.
//
// Ownership and threads: a plain value, read-only after loading; share it
// freely. Loading is stateless and may run on any thread.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "velquin/LocalStore.h"
#include "velquin/StoreKit.h"

namespace velquin::store {

struct StoreConfiguration {
  std::filesystem::path file;
  std::string bundleIdentifier;  // empty when the file names none
  bool canMakePayments = true;
  std::string offerPublicKeyPem;  // empty when none; otherwise a P-256 public key
  std::vector<SKProductPtr> products;  // in file order, ids unique
  std::map<std::string, LocalStore::ScriptedOutcome> outcomes;
  std::optional<LocalStore::RestoreBehaviour> restoreBehaviour;
  std::chrono::milliseconds restoreDelay{0};

  SKProductPtr product(const std::string& productIdentifier) const;
};

// Reads and checks the whole file. Any problem (missing file, bad JSON, a
// missing or wrongly-typed value) gives an error in kSKErrorDomain whose
// message names the file and the offending value.
std::optional<StoreConfiguration> loadStoreConfiguration(const std::filesystem::path& file,
                                                         Error* error);
// The same checks over text already read; `file` only names it in messages.
std::optional<StoreConfiguration> parseStoreConfiguration(const std::string& text,
                                                          const std::filesystem::path& file,
                                                          Error* error);

// "auto-renewable", "non-renewing", "consumable", "non-consumable".
const char* productTypeName(SKProductType type);
std::optional<SKProductType> productTypeFromName(const std::string& name);

}  // namespace velquin::store
