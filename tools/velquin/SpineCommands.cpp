// Start-up, identity and the direct backend calls.
#include "Cli.h"
#include "velquin/NotificationCenter.h"
#include "velquin/OVPurchase.h"
#include "velquin/Velquin.h"

namespace velquin::cli {
namespace {

using Reply = std::pair<nlohmann::json, std::optional<Error>>;

// Waits for a completion that reports a JSON result or an error.
Outcome await(Pending<Reply>& pending, const Context& context, const std::string& what) {
  auto reply = pending.wait(context.timeout);
  if (!reply) return timedOut(what);
  if (reply->second) return Outcome{{}, reply->second};
  return Outcome{reply->first, std::nullopt};
}

std::function<void(bool, std::optional<Error>)> successInto(Pending<Reply>& pending) {
  return [&pending](bool success, std::optional<Error> error) {
    pending.set({{{"success", success}}, std::move(error)});
  };
}

Velquin::AttributionCompletion attributionInto(Pending<Reply>& pending) {
  return [&pending](std::optional<OVAttribution> reply, std::optional<Error> error) {
    pending.set({reply ? attributionJson(*reply) : nlohmann::json::object(), std::move(error)});
  };
}

Outcome configure(const Context&, const std::vector<std::string>& words) {
  Arguments args(words, {"--wait"});
  if (args.problem()) return failure(*args.problem());
  std::chrono::milliseconds wait{};
  if (auto problem = waitOption(args, 10, wait)) return failure(*problem, 2);

  auto& sdk = Velquin::shared();
  Pending<bool> handled;
  auto token = NotificationCenter::defaultCenter().addObserver(
      OVPurchase::kAppConfigHandledNotification, [&](const Notification&) { handled.set(true); });
  sdk.configure();
  bool done = handled.wait(wait).has_value();
  NotificationCenter::defaultCenter().removeObserver(token);

  auto& purchases = sdk.purchases();
  auto tag = sdk.experimentTag();
  auto paywall = purchases.cachedPaywallPage();
  auto welcome = purchases.cachedWelcomePage();
  Outcome outcome;
  outcome.result = {
      {"userId", sdk.purchases().appUserId()},
      {"tag", tag ? nlohmann::json(*tag) : nlohmann::json(nullptr)},
      {"productIds", purchases.cachedProductIds().value_or(std::vector<std::string>{})},
      {"hasPaywall", paywall && !paywall->empty()},
      {"hasWelcomePage", welcome && !welcome->empty()},
      {"appConfigHandled", done},
  };
  return outcome;
}

Outcome userId(const Context&, const std::vector<std::string>&) {
  return Outcome{{{"userId", Velquin::shared().purchases().appUserId()}}, std::nullopt};
}

Outcome currencyRate(const Context& context, const std::vector<std::string>& words) {
  if (words.size() != 1) return failure("usage: currency-rate CODE");
  Pending<Reply> pending;
  Velquin::shared().getCurrencyRate(
      words[0], [&](std::optional<double> rate, std::optional<Error> error) {
        pending.set(
            {{{"currencyCode", words[0]}, {"currencyRate", rate.value_or(0)}}, std::move(error)});
      });
  return await(pending, context, "GetCurrencyRate");
}

Outcome offerSignature(const Context& context, const std::vector<std::string>& words) {
  if (words.size() != 3) return failure("usage: offer-signature PRODUCT OFFER USER");
  Pending<Reply> pending;
  Velquin::shared().createASignature(
      words[0], words[1], words[2],
      [&](std::optional<OVOfferSignatureDetail> detail, std::optional<Error> error) {
        nlohmann::json result = nlohmann::json::object();
        if (detail) {
          result = {{"keyIdentifier", detail->keyIdentifier},
                    {"nonce", detail->nonce},
                    {"signature", detail->signature},
                    {"timestamp", detail->timestamp}};
        }
        pending.set({result, std::move(error)});
      });
  return await(pending, context, "GeneratePromotionalOfferSignature");
}

Outcome deviceToken(const Context& context, const std::vector<std::string>& words) {
  if (words.size() != 1) return failure("usage: device-token TOKEN");
  Pending<Reply> pending;
  Velquin::shared().uploadDeviceInfo(words[0], successInto(pending));
  return await(pending, context, "UploadDeviceToken");
}

Outcome userInfo(const Context& context, const std::vector<std::string>& words) {
  Arguments args(words, {"--user-id", "--attr"});
  if (args.problem()) return failure(*args.problem());
  if (!args.positional().empty()) return failure("usage: user-info [--user-id U] [--attr JSON]");
  auto attributes = nlohmann::json::parse(args.option("--attr").value_or("{}"), nullptr, false);
  if (!attributes.is_object()) return failure("--attr must be a JSON object");
  Pending<Reply> pending;
  Velquin::shared().uploadUserInfo(args.option("--user-id"), attributes, successInto(pending));
  auto outcome = await(pending, context, "UploadUserInfo");
  if (!outcome.error) outcome.result["userId"] = Velquin::shared().purchases().appUserId();
  return outcome;
}

Outcome attribution(const Context& context, const std::vector<std::string>& words) {
  Arguments args(words, {"--network-user-id"});
  if (args.problem()) return failure(*args.problem());
  if (args.positional().size() != 2) {
    return failure("usage: attribution NETWORK_NUMBER DATA_JSON [--network-user-id X]");
  }
  auto network = parseInteger(args.positional()[0], 0, 5);
  if (!network) return failure("NETWORK_NUMBER must be a number from 0 to 5");
  auto data = nlohmann::json::parse(args.positional()[1], nullptr, false);
  if (data.is_discarded()) return failure("DATA_JSON is not valid JSON");
  Pending<Reply> pending;
  Velquin::shared().updateAttribution(data, static_cast<AttributionNetwork>(*network),
                                      args.option("--network-user-id"), attributionInto(pending));
  return await(pending, context, "GetAttribution");
}

Outcome customAttribution(const Context& context, const std::vector<std::string>& words) {
  Arguments args(words, {"--campaign", "--ad-group", "--creative", "--click-id"});
  if (args.problem()) return failure(*args.problem());
  if (args.positional().size() != 1) {
    return failure(
        "usage: custom-attribution CHANNEL [--campaign C] [--ad-group G] [--creative R] "
        "[--click-id K]");
  }
  Pending<Reply> pending;
  Velquin::shared().updateCustomAttribution(args.positional()[0], args.option("--campaign"),
                                            args.option("--ad-group"), args.option("--creative"),
                                            args.option("--click-id"), attributionInto(pending));
  return await(pending, context, "GetAttribution");
}

}  // namespace

std::vector<Command> spineCommands() {
  return {
      {"configure", "[--wait SECONDS]",
       "run start-up and wait for the app configuration (default 10 s)", false, configure},
      {"user-id", "", "print the user id reported to the backend", false, userId},
      {"currency-rate", "CODE", "the backend's rate for a currency", true, currencyRate},
      {"offer-signature", "PRODUCT OFFER USER", "a promotional-offer signature", true,
       offerSignature},
      {"device-token", "TOKEN", "upload a push token", true, deviceToken},
      {"user-info", "[--user-id U] [--attr JSON]", "upload user info (optionally set the user id)",
       true, userInfo},
      {"attribution", "NETWORK_NUMBER DATA_JSON [--network-user-id X]",
       "upload attribution data for a network (0 adjust ... 5 custom)", true, attribution},
      {"custom-attribution", "CHANNEL [--campaign C] [--ad-group G] [--creative R] [--click-id K]",
       "upload custom attribution", true, customAttribution},
  };
}

}  // namespace velquin::cli
