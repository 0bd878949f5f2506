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
  html, body { height: 100%; margin: 0; }
  body {
    font-family: system-ui, -apple-system, "Segoe UI", Cantarell, sans-serif;
    color: #fff; text-align: center;
    background: linear-gradient(160deg, #3a0ca3 0%, #4361ee 55%, #4cc9f0 100%);
    display: flex; flex-direction: column; align-items: center; justify-content: center;
  }
  .logo {
    width: 96px; height: 96px; border-radius: 24px; background: rgba(255,255,255,.18);
    display: flex; align-items: center; justify-content: center; font-size: 48px;
    box-shadow: 0 8px 24px rgba(0,0,0,.18);
  }
  h1 { font-size: 1.7em; margin: .8em 1em .2em; letter-spacing: .01em; }
  p { margin: 0 2em; opacity: .9; line-height: 1.5; }
  .dots { margin-top: 2.5em; }
  .dots span {
    display: inline-block; width: 8px; height: 8px; margin: 0 4px; border-radius: 50%;
    background: #fff; opacity: .4; animation: pulse 1.2s infinite;
  }
  .dots span:nth-child(2) { animation-delay: .2s; }
  .dots span:nth-child(3) { animation-delay: .4s; }
  @keyframes pulse { 50% { opacity: 1; } }
</style>
</head>
<body>
  <div class="logo">✦</div>
  <h1>Welcome to Velquin Demo</h1>
  <p>Everything you need, ready in a moment.</p>
  <div class="dots"><span></span><span></span><span></span></div>
</body>
</html>
)html";

// The paywall asks the app for its products through the script bridge
// (getSkuDetails), shows what getSkuDetailsCallback returns, buys through
// "purchase" and shows purchaseCallback's outcome.
constexpr const char* kPaywallPage = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Go premium</title>
<style>
  body {
    margin: 0; padding: 3.5em 1.5em 2em;
    font-family: system-ui, -apple-system, "Segoe UI", Cantarell, sans-serif;
    background: #f6f7fb; color: #1b1f3b; text-align: center;
  }
  h1 { font-size: 1.9em; margin: 0 0 .2em; }
  .lead { color: #5a607f; margin: 0 0 1.6em; }
  ul.perks { list-style: none; padding: 0; margin: 0 auto 1.6em; max-width: 22em; text-align: left; }
  ul.perks li { margin: .45em 0; }
  ul.perks li::before { content: "✓"; color: #2a9d8f; font-weight: bold; margin-right: .6em; }
  .plan {
    background: #fff; border-radius: 14px; margin: .8em auto; max-width: 22em; padding: 1em 1.2em;
    box-shadow: 0 2px 10px rgba(27,31,59,.08); display: flex; align-items: center; text-align: left;
  }
  .plan .info { flex: 1; }
  .plan .title { font-weight: 600; }
  .plan .period { color: #5a607f; font-size: .9em; margin-top: .2em; }
  .plan .price { font-size: 1.25em; font-weight: 700; margin: 0 .8em; white-space: nowrap; }
  .plan button {
    border: 0; border-radius: 10px; padding: .6em 1.1em; font-size: 1em; font-weight: 600;
    background: #4361ee; color: #fff; cursor: pointer;
  }
  .plan button:disabled { background: #a5b0e8; }
  #status { min-height: 1.5em; margin-top: 1.2em; font-weight: 600; }
  #status.ok { color: #2a9d8f; }
  #status.bad { color: #e63946; }
  .loading { color: #5a607f; }
  .footnote { color: #8a90ad; font-size: .8em; margin-top: 2em; }
</style>
</head>
<body>
<h1>Go premium</h1>
<p class="lead">Unlock every feature.</p>
<ul class="perks">
  <li>No limits on projects</li>
  <li>Sync across your devices</li>
  <li>Priority support</li>
</ul>
<div id="plans"><p class="loading">Loading plans…</p></div>
<p id="status"></p>
<p class="footnote">Served by the local sandbox backend. Subscriptions renew until cancelled.</p>
<script>
  // The products this page sells; the app answers with what its store knows.
  var productIds = ["com.velquin.demo.monthly", "com.velquin.demo.yearly", "com.velquin.demo.lifetime"];
  var bridge = window.webkit && window.webkit.messageHandlers;

  function getSkuDetailsCallback(text) {
    var plans = document.getElementById("plans");
    plans.textContent = "";
    JSON.parse(text).forEach(function (product) {
      var plan = document.createElement("div");
      plan.className = "plan";
      plan.id = "plan-" + product.productId;
      var info = document.createElement("div");
      info.className = "info";
      var title = document.createElement("div");
      title.className = "title";
      title.textContent = product.title;
      var period = document.createElement("div");
      period.className = "period";
      period.textContent = product.type === "subs" ? product.description : "One payment, yours for good";
      info.appendChild(title);
      info.appendChild(period);
      var price = document.createElement("div");
      price.className = "price";
      price.textContent = product.price;
      var buy = document.createElement("button");
      buy.textContent = product.isActive ? "Active" : "Buy";
      buy.disabled = product.isActive;
      buy.onclick = function () {
        document.getElementById("status").textContent = "";
        bridge.purchase.postMessage(product.productId);
      };
      plan.appendChild(info);
      plan.appendChild(price);
      plan.appendChild(buy);
      plans.appendChild(plan);
    });
    if (!plans.firstChild) plans.innerHTML = '<p class="loading">No plans available.</p>';
  }

  function purchaseCallback(text, success) {
    var product = JSON.parse(text);
    var status = document.getElementById("status");
    if (success === "true") {
      status.className = "ok";
      status.textContent = product.title + " is yours. Thank you!";
    } else {
      status.className = "bad";
      status.textContent = "The purchase of " + product.title + " did not go through.";
    }
  }

  if (bridge && bridge.getSkuDetails) {
    bridge.getSkuDetails.postMessage(JSON.stringify(productIds));
  } else {
    document.getElementById("plans").innerHTML = '<p class="loading">Open this page in the app to see the plans.</p>';
  }
</script>
</body>
</html>
)html";

constexpr const char* kOfferPage = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>A welcome offer</title>
<style>
  html, body { height: 100%; margin: 0; }
  body {
    font-family: system-ui, -apple-system, "Segoe UI", Cantarell, sans-serif;
    background: linear-gradient(180deg, #fff3e0 0%, #ffe0b2 100%); color: #3e2723;
    display: flex; flex-direction: column; align-items: center; justify-content: center;
    text-align: center; padding: 0 1.5em; box-sizing: border-box;
  }
  .badge {
    background: #ff6f00; color: #fff; font-weight: 700; border-radius: 999px;
    padding: .35em 1em; letter-spacing: .06em; font-size: .85em;
  }
  h1 { font-size: 2em; margin: .6em 0 .3em; }
  p { line-height: 1.5; max-width: 22em; }
  .price { font-size: 2.6em; font-weight: 800; margin: .3em 0 0; }
  .price s { font-size: .45em; color: #8d6e63; font-weight: 400; margin-left: .3em; }
</style>
</head>
<body>
  <span class="badge">-50%</span>
  <h1>A welcome offer</h1>
  <p>Your first month of premium costs half the price.</p>
  <p class="price">$2.49<s>$4.99</s></p>
  <p>Open the paywall to take it.</p>
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
