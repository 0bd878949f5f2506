// Conversions between the C++ API and the C API's GObjects and GErrors,
// shared by the C API's sources. Nothing here holds state.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin-glib/velquin-glib.h"
#include "velquin/Error.h"
#include "velquin/Models.h"
#include "velquin/OVPurchase.h"
#include "velquin/StoreKit.h"
#include "velquin/Subscriber.h"

// Marks the conversions libvelquin-gtk-glib also uses (C++ symbols, in no
// public header).
#define VELQUIN_GLIB_SHARED __attribute__((visibility("default")))

namespace velquin::glib {

// The GError for an SDK error (see VelquinError for the mapping).
VELQUIN_GLIB_SHARED GError* toGError(const Error& error);
// Sets *error (when error is not null) to VELQUIN_ERROR_INVALID_ARGUMENT.
void setInvalidArgument(GError** error, const std::string& message);

// JSON text that must be an object; absent with *error set otherwise.
// A null text is the empty object when `nullable` is true.
std::optional<nlohmann::json> parseObject(const char* text, bool nullable, const char* what,
                                          GError** error);
// Text, or empty for null.
inline std::string text(const char* value) { return value ? std::string(value) : std::string(); }
inline std::optional<std::string> optionalText(const char* value) {
  return value ? std::optional<std::string>(value) : std::nullopt;
}

// Model objects: new references wrapping a copy of the value.
VELQUIN_GLIB_SHARED VelquinSubscriber* wrapSubscriber(const OVSubscriber& value);
VelquinProduct* wrapProduct(const SKProductPtr& value);
VelquinTransaction* wrapTransaction(const SKPaymentTransactionPtr& value);
VelquinOfferSignature* wrapOfferSignature(const OVOfferSignatureDetail& value);
VelquinAttribution* wrapAttribution(const OVAttribution& value);
// The values inside.
const SKProductPtr& productValue(VelquinProduct* product);
const SKPaymentTransactionPtr& transactionValue(VelquinTransaction* transaction);
const OVOfferSignatureDetail& offerSignatureValue(VelquinOfferSignature* signature);
// A GList (transfer full) of wrapped transactions.
GList* wrapTransactions(const std::vector<SKPaymentTransactionPtr>& values);

}  // namespace velquin::glib
