#include "Config.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "SandboxServer.h"

namespace velquin::sandbox {
namespace {

constexpr const char* kWelcomePage = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Welcome</title>
<style>
body { font-family: sans-serif; margin: 0; padding: 2em; text-align: center; }
h1 { font-size: 1.6em; }
</style>
</head>
<body>
<h1>Welcome to Velquin Demo</h1>
<p>This page comes from the local sandbox backend.</p>
</body>
</html>
)html";

constexpr const char* kPaywallPage = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Go premium</title>
<style>
body { font-family: sans-serif; margin: 0; padding: 2em; text-align: center; }
.plan { border: 1px solid #ccc; border-radius: 8px; margin: 1em auto; max-width: 20em; padding: 1em; }
</style>
</head>
<body>
<h1>Go premium</h1>
<div class="plan" id="monthly">Monthly plan</div>
<div class="plan" id="yearly">Yearly plan</div>
<p>Served by the local sandbox backend.</p>
</body>
</html>
)html";

constexpr const char* kOfferPage = R"html(<!DOCTYPE html>
<html lang="en">
<head><meta charset="utf-8"><title>A welcome offer</title></head>
<body style="font-family: sans-serif; text-align: center; padding: 2em;">
<h1>A welcome offer</h1>
<p>Your first month of premium costs half the price.</p>
</body>
</html>
)html";

bool expectString(const nlohmann::json& config, const char* key, std::string* error) {
  if (config.contains(key) && !config[key].is_string()) {
    if (error) *error = std::string("\"") + key + "\" must be a string";
    return false;
  }
  return true;
}

bool isStringList(const nlohmann::json& value) {
  return value.is_array() &&
         std::all_of(value.begin(), value.end(), [](const auto& item) { return item.is_string(); });
}

bool expectStringList(const nlohmann::json& config, const char* key, std::string* error) {
  if (config.contains(key) && !isStringList(config[key])) {
    if (error) *error = std::string("\"") + key + "\" must be an array of strings";
    return false;
  }
  return true;
}

}  // namespace

nlohmann::json defaultConfig() {
  return {
      {"access_token", "sandbox-access-token"},
      {"app_id", "sandbox-app"},
      {"bundle_id", "com.velquin.demo"},
      {"experiment_tag", "exp-a"},
      {"welcome_page", kWelcomePage},
      {"paywall_page", kPaywallPage},
      {"product_ids", {"com.velquin.demo.monthly", "com.velquin.demo.yearly"}},
      {"in_app_messages",
       {{"welcome-offer",
         {{"title", "A welcome offer"},
          {"content", "Your first month of premium costs half the price."},
          {"html", kOfferPage}}}}},
      {"currency_rates", {{"USD", 1.0}, {"EUR", 0.92}, {"GBP", 0.79}, {"JPY", 151.2}}},
      {"receipt_public_keys", nlohmann::json::array()},
      {"entitlements",
       {{"pro", {"com.velquin.demo.monthly", "com.velquin.demo.yearly"}},
        {"lifetime", {"com.velquin.demo.lifetime"}}}},
      {"refunded_transactions", nlohmann::json::array()},
  };
}

bool validateConfig(const nlohmann::json& config, std::string* error) {
  if (!config.is_object()) {
    if (error) *error = "the configuration must be a JSON object";
    return false;
  }
  for (const char* key : {"access_token", "app_id", "bundle_id", "experiment_tag", "welcome_page",
                          "paywall_page"}) {
    if (!expectString(config, key, error)) return false;
  }
  for (const char* key : {"product_ids", "receipt_public_keys", "refunded_transactions"}) {
    if (!expectStringList(config, key, error)) return false;
  }
  if (config.contains("entitlements")) {
    const auto& entitlements = config["entitlements"];
    if (!entitlements.is_object()) {
      if (error) *error = "\"entitlements\" must be an object of product id lists";
      return false;
    }
    for (const auto& [id, products] : entitlements.items()) {
      if (!isStringList(products)) {
        if (error) *error = "entitlement \"" + id + "\" must be an array of product ids";
        return false;
      }
    }
  }
  if (config.contains("in_app_messages")) {
    const auto& messages = config["in_app_messages"];
    if (!messages.is_object()) {
      if (error) *error = "\"in_app_messages\" must be an object keyed by message id";
      return false;
    }
    for (const auto& [id, message] : messages.items()) {
      if (!message.is_object()) {
        if (error) *error = "in-app message \"" + id + "\" must be an object";
        return false;
      }
      for (const char* field : {"title", "content", "html"}) {
        if (message.contains(field) && !message[field].is_string()) {
          if (error) *error = "in-app message \"" + id + "\": \"" + field + "\" must be a string";
          return false;
        }
      }
    }
  }
  if (config.contains("currency_rates")) {
    const auto& rates = config["currency_rates"];
    if (!rates.is_object()) {
      if (error) *error = "\"currency_rates\" must be an object of numbers";
      return false;
    }
    for (const auto& [code, rate] : rates.items()) {
      if (!rate.is_number()) {
        if (error) *error = "currency rate \"" + code + "\" must be a number";
        return false;
      }
    }
  }
  return true;
}

std::optional<nlohmann::json> loadConfig(const std::optional<std::filesystem::path>& file,
                                         std::string* error) {
  nlohmann::json config = defaultConfig();
  if (file) {
    std::ifstream in(*file, std::ios::binary);
    if (!in) {
      if (error) *error = "cannot read configuration file " + file->string();
      return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    nlohmann::json patch = nlohmann::json::parse(text.str(), nullptr, /*allow_exceptions=*/false);
    if (patch.is_discarded()) {
      if (error) *error = "configuration file " + file->string() + " is not valid JSON";
      return std::nullopt;
    }
    if (!patch.is_object()) {
      if (error) *error = "configuration file " + file->string() + " must hold a JSON object";
      return std::nullopt;
    }
    config.merge_patch(patch);
  }
  std::string problem;
  if (!validateConfig(config, &problem)) {
    if (error) {
      *error = "bad configuration" + (file ? " in " + file->string() : std::string()) + ": " +
               problem;
    }
    return std::nullopt;
  }
  return config;
}

}  // namespace velquin::sandbox
