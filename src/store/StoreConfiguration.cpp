#include "store/StoreConfiguration.h"

#include <nlohmann/json.hpp>
#include <set>

#include "store/StoreCrypto.h"
#include "store/StoreFiles.h"

namespace velquin::store {
namespace {

using nlohmann::json;

// Thrown inside the parser only; loadStoreConfiguration turns it into an Error.
struct Problem {
  std::string where;
  std::string what;
};

std::string typeName(const json& value) {
  switch (value.type()) {
    case json::value_t::null: return "null";
    case json::value_t::boolean: return "a boolean";
    case json::value_t::string: return "text";
    case json::value_t::array: return "an array";
    case json::value_t::object: return "an object";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float: return "a number";
    default: return "an unsupported value";
  }
}

[[noreturn]] void wrongType(const std::string& where, const char* expected, const json& value) {
  throw Problem{where, std::string("expected ") + expected + ", found " + typeName(value)};
}

// Reads one object's members, naming each by its path for messages.
class Fields {
 public:
  Fields(const json& object, std::string path) : object_(object), path_(std::move(path)) {
    if (!object_.is_object()) wrongType(path_.empty() ? "(top level)" : path_, "an object", object_);
  }

  std::string at(const std::string& key) const { return path_.empty() ? key : path_ + "." + key; }
  const json* find(const std::string& key) const {
    auto it = object_.find(key);
    return it == object_.end() ? nullptr : &*it;
  }
  const json& require(const std::string& key) const {
    const json* value = find(key);
    if (!value) throw Problem{at(key), "missing"};
    return *value;
  }

  std::optional<std::string> text(const std::string& key) const {
    const json* value = find(key);
    if (!value) return std::nullopt;
    if (!value->is_string()) wrongType(at(key), "text", *value);
    return value->get<std::string>();
  }
  std::string requiredText(const std::string& key) const {
    require(key);
    auto value = *text(key);
    if (value.empty()) throw Problem{at(key), "must not be empty"};
    return value;
  }
  std::optional<bool> boolean(const std::string& key) const {
    const json* value = find(key);
    if (!value) return std::nullopt;
    if (!value->is_boolean()) wrongType(at(key), "true or false", *value);
    return value->get<bool>();
  }
  std::optional<std::int64_t> integer(const std::string& key) const {
    const json* value = find(key);
    if (!value) return std::nullopt;
    if (!value->is_number_integer()) wrongType(at(key), "a whole number", *value);
    return value->get<std::int64_t>();
  }

 private:
  const json& object_;
  std::string path_;
};

// Digits a double keeps exactly (DBL_DIG).
constexpr std::size_t kMaxPriceDigits = 15;

SKDecimalNumber readPrice(const json& value, const std::string& where) {
  std::optional<SKDecimalNumber> price;
  if (value.is_number_integer()) {
    price = SKDecimalNumber::fromString(std::to_string(value.get<std::int64_t>()));
  } else if (value.is_number_unsigned()) {
    price = SKDecimalNumber::fromString(std::to_string(value.get<std::uint64_t>()));
  } else if (value.is_number_float()) {
    price = SKDecimalNumber::fromDouble(value.get<double>());
  } else if (value.is_string()) {
    price = SKDecimalNumber::fromString(value.get<std::string>());
    if (!price) throw Problem{where, "\"" + value.get<std::string>() + "\" is not a decimal number"};
  } else {
    wrongType(where, "a number or decimal text", value);
  }
  if (price->doubleValue() < 0) throw Problem{where, "must not be negative"};
  // Prices travel as doubles: more significant digits than a double holds
  // would arrive as another price (or as 0 once out of range).
  const std::string& text = price->stringValue();
  const auto point = text.find('.');
  std::string whole = text.substr(text[0] == '-' ? 1 : 0, point == std::string::npos
                                                                ? std::string::npos
                                                                : point - (text[0] == '-' ? 1 : 0));
  std::string fraction = point == std::string::npos ? std::string() : text.substr(point + 1);
  whole.erase(0, std::min(whole.find_first_not_of('0'), whole.size()));
  fraction.erase(fraction.find_last_not_of('0') + 1);
  if (whole.size() + fraction.size() > kMaxPriceDigits) {
    throw Problem{where, "has more than " + std::to_string(kMaxPriceDigits) +
                             " significant digits, more than a price can hold"};
  }
  return *price;
}

SKProductSubscriptionPeriod readPeriod(const json& value, const std::string& where) {
  Fields fields(value, where);
  static const std::map<std::string, SKProductPeriodUnit> units = {
      {"day", SKProductPeriodUnit::day},
      {"week", SKProductPeriodUnit::week},
      {"month", SKProductPeriodUnit::month},
      {"year", SKProductPeriodUnit::year}};
  SKProductSubscriptionPeriod period;
  std::string unit = fields.requiredText("unit");
  auto found = units.find(unit);
  if (found == units.end()) {
    throw Problem{fields.at("unit"), "\"" + unit + "\" is not one of day, week, month, year"};
  }
  period.unit = found->second;
  auto count = fields.integer("count").value_or(1);
  if (count < 1 || count > 1000) throw Problem{fields.at("count"), "must be between 1 and 1000"};
  period.numberOfUnits = static_cast<std::uint32_t>(count);
  return period;
}

SKProductDiscount readOffer(const json& value, const std::string& where, const SKProduct& product,
                            SKProductDiscountType type) {
  Fields fields(value, where);
  SKProductDiscount offer;
  offer.type = type;
  if (type == SKProductDiscountType::subscription) offer.identifier = fields.requiredText("id");
  offer.price = readPrice(fields.require("price"), fields.at("price"));
  offer.priceLocale = product.priceLocale;
  static const std::map<std::string, SKProductDiscountPaymentMode> modes = {
      {"pay_as_you_go", SKProductDiscountPaymentMode::payAsYouGo},
      {"pay_up_front", SKProductDiscountPaymentMode::payUpFront},
      {"free_trial", SKProductDiscountPaymentMode::freeTrial}};
  if (auto mode = fields.text("payment_mode")) {
    auto found = modes.find(*mode);
    if (found == modes.end()) {
      throw Problem{fields.at("payment_mode"),
                    "\"" + *mode + "\" is not one of pay_as_you_go, pay_up_front, free_trial"};
    }
    offer.paymentMode = found->second;
  }
  if (const json* period = fields.find("period")) {
    offer.subscriptionPeriod = readPeriod(*period, fields.at("period"));
  } else {
    offer.subscriptionPeriod = *product.subscriptionPeriod;
  }
  auto periods = fields.integer("periods").value_or(1);
  if (periods < 1 || periods > 1000) throw Problem{fields.at("periods"), "must be between 1 and 1000"};
  offer.numberOfPeriods = static_cast<std::uint32_t>(periods);
  return offer;
}

SKProductPtr readProduct(const json& value, const std::string& where,
                         const std::string& defaultLocale, const std::string& defaultCurrency) {
  Fields fields(value, where);
  auto product = std::make_shared<SKProduct>();
  std::string typeText = fields.requiredText("type");
  auto type = productTypeFromName(typeText);
  if (!type) {
    throw Problem{fields.at("type"), "\"" + typeText +
                                         "\" is not one of auto-renewable, non-renewing, "
                                         "consumable, non-consumable"};
  }
  product->productType = *type;
  product->productIdentifier = fields.requiredText("id");
  product->localizedTitle = fields.text("title").value_or("");
  product->localizedDescription = fields.text("description").value_or("");
  product->price = readPrice(fields.require("price"), fields.at("price"));
  product->priceLocale.localeIdentifier = fields.text("locale").value_or(defaultLocale);
  product->priceLocale.currencyCode = fields.text("currency").value_or(defaultCurrency);

  bool renewable = *type == SKProductType::autoRenewable;
  for (const char* key : {"group", "introductory_offer", "promotional_offers"}) {
    if (!renewable && fields.find(key)) {
      throw Problem{fields.at(key), "only auto-renewable products have this"};
    }
  }
  if (const json* period = fields.find("subscription_period")) {
    if (!renewable) {
      throw Problem{fields.at("subscription_period"), "only auto-renewable products have this"};
    }
    product->subscriptionPeriod = readPeriod(*period, fields.at("subscription_period"));
  } else if (renewable) {
    throw Problem{fields.at("subscription_period"), "missing (auto-renewable products need one)"};
  }
  if (!renewable) return product;

  product->subscriptionGroupIdentifier = fields.text("group").value_or("");
  if (const json* intro = fields.find("introductory_offer")) {
    product->introductoryPrice = readOffer(*intro, fields.at("introductory_offer"), *product,
                                           SKProductDiscountType::introductory);
  }
  if (const json* offers = fields.find("promotional_offers")) {
    std::string offersAt = fields.at("promotional_offers");
    if (!offers->is_array()) wrongType(offersAt, "an array", *offers);
    std::set<std::string> seen;
    for (size_t i = 0; i < offers->size(); ++i) {
      std::string offerAt = offersAt + "[" + std::to_string(i) + "]";
      auto offer = readOffer((*offers)[i], offerAt, *product, SKProductDiscountType::subscription);
      if (!seen.insert(offer.identifier).second) {
        throw Problem{offerAt + ".id", "\"" + offer.identifier + "\" appears twice"};
      }
      product->discounts.push_back(std::move(offer));
    }
  }
  return product;
}

std::optional<LocalStore::Outcome> outcomeFromName(const std::string& name) {
  if (name == "success") return LocalStore::Outcome::success;
  if (name == "cancel") return LocalStore::Outcome::cancel;
  if (name == "fail") return LocalStore::Outcome::fail;
  if (name == "defer") return LocalStore::Outcome::defer;
  if (name == "ask_to_buy") return LocalStore::Outcome::askToBuy;
  return std::nullopt;
}

std::chrono::milliseconds readDelay(const Fields& fields) {
  auto delay = fields.integer("delay_ms").value_or(0);
  if (delay < 0) throw Problem{fields.at("delay_ms"), "must not be negative"};
  return std::chrono::milliseconds(delay);
}

LocalStore::ScriptedOutcome readOutcome(const json& value, const std::string& where) {
  LocalStore::ScriptedOutcome scripted;
  std::string name;
  const char* expected = "one of success, cancel, fail, defer, ask_to_buy";
  if (value.is_string()) {
    name = value.get<std::string>();
  } else if (value.is_object()) {
    Fields fields(value, where);
    name = fields.requiredText("outcome");
    scripted.delay = readDelay(fields);
    scripted.errorCode = fields.integer("error_code").value_or(scripted.errorCode);
  } else {
    wrongType(where, "outcome text or an object with \"outcome\"", value);
  }
  auto outcome = outcomeFromName(name);
  if (!outcome) throw Problem{where, "\"" + name + "\" is not " + expected};
  scripted.outcome = *outcome;
  return scripted;
}

StoreConfiguration readConfiguration(const json& root, const std::filesystem::path& file) {
  Fields top(root, "");
  StoreConfiguration config;
  config.file = file;
  config.bundleIdentifier = top.text("bundle_id").value_or("");
  config.canMakePayments = top.boolean("can_make_payments").value_or(true);
  if (auto pem = top.text("offer_public_key"); pem && !pem->empty()) {
    EvpKey key = readPublicKeyPem(*pem);
    if (!isP256(key.get())) {
      throw Problem{"offer_public_key", "not a PEM public key on the P-256 curve"};
    }
    config.offerPublicKeyPem = *pem;
  }
  std::string locale = top.text("locale").value_or("");
  std::string currency = top.text("currency").value_or("");

  const json& products = top.require("products");
  if (!products.is_array()) wrongType("products", "an array", products);
  std::set<std::string> ids;
  for (size_t i = 0; i < products.size(); ++i) {
    std::string where = "products[" + std::to_string(i) + "]";
    auto product = readProduct(products[i], where, locale, currency);
    if (!ids.insert(product->productIdentifier).second) {
      throw Problem{where + ".id", "\"" + product->productIdentifier + "\" appears twice"};
    }
    config.products.push_back(std::move(product));
  }

  if (const json* outcomes = top.find("outcomes")) {
    Fields byProduct(*outcomes, "outcomes");
    for (const auto& [id, value] : outcomes->items()) {
      std::string where = byProduct.at(id);
      if (!ids.count(id)) throw Problem{where, "no product has this id"};
      config.outcomes[id] = readOutcome(value, where);
    }
  }

  if (const json* restore = top.find("restore")) {
    std::string name;
    if (restore->is_string()) {
      name = restore->get<std::string>();
    } else {
      Fields fields(*restore, "restore");
      name = fields.requiredText("outcome");
      config.restoreDelay = readDelay(fields);
    }
    if (name == "normal") {
      config.restoreBehaviour = LocalStore::RestoreBehaviour::normal;
    } else if (name == "fail") {
      config.restoreBehaviour = LocalStore::RestoreBehaviour::fail;
    } else if (name == "hang") {
      config.restoreBehaviour = LocalStore::RestoreBehaviour::hang;
    } else {
      throw Problem{"restore", "\"" + name + "\" is not one of normal, fail, hang"};
    }
  }
  return config;
}

Error configurationError(const std::filesystem::path& file, const std::string& problem) {
  return makeSKError(SKErrorCode::unknown,
                     "store configuration " + file.string() + ": " + problem);
}

}  // namespace

SKProductPtr StoreConfiguration::product(const std::string& productIdentifier) const {
  for (const auto& candidate : products) {
    if (candidate->productIdentifier == productIdentifier) return candidate;
  }
  return nullptr;
}

std::optional<StoreConfiguration> loadStoreConfiguration(const std::filesystem::path& file,
                                                         Error* error) {
  if (file.empty()) {
    if (error) *error = configurationError("(none)", "no configuration file was named");
    return std::nullopt;
  }
  std::string readProblem;
  auto text = readFile(file, &readProblem);
  if (!text) {
    if (error) *error = configurationError(file, readProblem);
    return std::nullopt;
  }
  return parseStoreConfiguration(*text, file, error);
}

std::optional<StoreConfiguration> parseStoreConfiguration(const std::string& text,
                                                          const std::filesystem::path& file,
                                                          Error* error) {
  try {
    json root = json::parse(text);
    return readConfiguration(root, file);
  } catch (const json::parse_error& e) {
    if (error) *error = configurationError(file, std::string("not valid JSON: ") + e.what());
  } catch (const Problem& problem) {
    if (error) *error = configurationError(file, problem.where + ": " + problem.what);
  } catch (const std::exception& e) {
    if (error) *error = configurationError(file, e.what());
  }
  return std::nullopt;
}

const char* productTypeName(SKProductType type) {
  switch (type) {
    case SKProductType::consumable: return "consumable";
    case SKProductType::nonConsumable: return "non-consumable";
    case SKProductType::autoRenewable: return "auto-renewable";
    case SKProductType::nonRenewing: return "non-renewing";
  }
  return "non-consumable";
}

std::optional<SKProductType> productTypeFromName(const std::string& name) {
  for (auto type : {SKProductType::consumable, SKProductType::nonConsumable,
                    SKProductType::autoRenewable, SKProductType::nonRenewing}) {
    if (name == productTypeName(type)) return type;
  }
  return std::nullopt;
}

}  // namespace velquin::store
