// velquin-sandbox: serves the local backend, or prints what it recorded.
#include <pthread.h>
#include <signal.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <google/protobuf/util/json_util.h>

#include "Config.h"
#include "Database.h"
#include "SandboxServer.h"
#include "Subscribers.h"

namespace {

using velquin::sandbox::Database;
using velquin::sandbox::SandboxOptions;
using velquin::sandbox::SandboxServer;

constexpr const char* kUsage = R"(Usage:
  velquin-sandbox --data-dir D [--config F] [--host H] [--port P]
                  [--write-bundle DIR] [--bundle-id ID]
                  [--receipt-public-key FILE]...
                  [--fail-rate METHOD=R]... [--fail-first N] [--delay-ms N]
                  [--seed N] [serve]
  velquin-sandbox --data-dir D events [--json]
  velquin-sandbox --data-dir D calls [--method M] [--json]
  velquin-sandbox --data-dir D [--config F] subscriber USER [--json]
  velquin-sandbox --data-dir D transactions [--user USER] [--json]
  velquin-sandbox --data-dir D products [--json]
  velquin-sandbox --data-dir D [--config F] push-payload MESSAGE_ID
  velquin-sandbox --help

serve (the default) answers every backend service over TLS on H:P
(127.0.0.1, any free port by default) until SIGINT or SIGTERM. It prints
"velquin-sandbox listening on <address>" and writes the port to D/port.
--write-bundle writes velquin-app-token.plist and Info.plist for a client.
--fail-rate answers a share R (0..1) of METHOD's calls ("*" for all) with
UNAVAILABLE; --fail-first fails the first N calls; --delay-ms delays each.
--receipt-public-key trusts receipts signed with that Ed25519 key (PEM),
besides the configuration's "receipt_public_keys".
events, calls, transactions (purchases from verified receipts) and products
(prices sent with receipts) print what the sandbox recorded in D, without
serving. subscriber prints what USER is entitled to now, computed with the
configuration's "entitlements" and "refunded_transactions", as JSON
(indented; one line with --json). push-payload prints, on one line, the push
payload announcing the configuration's in-app message MESSAGE_ID, ready for
a client (velquin notify PAYLOAD_JSON).
)";

struct Arguments {
  SandboxOptions options;
  std::string command = "serve";
  std::optional<std::string> bundleDir;
  std::string bundleId = "com.velquin.demo";
  std::string method;
  std::string user;       // subscriber's USER, or transactions' --user
  std::string messageId;  // push-payload's MESSAGE_ID
  bool userFlag = false;  // --user was given
  bool json = false;
  bool help = false;
};

struct UsageError {
  std::string message;
};

template <class Number>
Number parseNumber(const std::string& option, const std::string& text, Number low, Number high) {
  Number value{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < low || value > high) {
    throw UsageError{option + ": \"" + text + "\" is not a number from " + std::to_string(low) +
                     " to " + std::to_string(high)};
  }
  return value;
}

double parseRate(const std::string& text) {
  std::size_t used = 0;
  double rate = -1;
  try {
    rate = std::stod(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used != text.size() || !(rate >= 0 && rate <= 1)) {
    throw UsageError{"--fail-rate: \"" + text + "\" is not a share from 0 to 1"};
  }
  return rate;
}

Arguments parse(int argc, char** argv) {
  Arguments args;
  bool sawCommand = false;
  std::vector<std::string> words(argv + 1, argv + argc);
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::string word = words[i];
    std::optional<std::string> inlineValue;
    if (word.rfind("--", 0) == 0) {
      if (auto eq = word.find('='); eq != std::string::npos) {
        inlineValue = word.substr(eq + 1);
        word.resize(eq);
      }
    }
    auto value = [&]() -> std::string {
      if (inlineValue) return *inlineValue;
      if (i + 1 >= words.size()) throw UsageError{word + " needs a value"};
      return words[++i];
    };
    auto flag = [&] {
      if (inlineValue) throw UsageError{word + " takes no value"};
    };
    if (word == "--help" || word == "-h") {
      flag();
      args.help = true;
    } else if (word == "--data-dir") {
      args.options.dataDir = value();
    } else if (word == "--config") {
      args.options.configFile = value();
    } else if (word == "--host") {
      args.options.host = value();
    } else if (word == "--port") {
      args.options.port = parseNumber(word, value(), 0, 65535);
    } else if (word == "--write-bundle") {
      args.bundleDir = value();
    } else if (word == "--bundle-id") {
      args.bundleId = value();
    } else if (word == "--fail-rate") {
      std::string setting = value();
      auto eq = setting.find('=');
      if (eq == std::string::npos || eq == 0) {
        throw UsageError{"--fail-rate expects METHOD=R, got \"" + setting + "\""};
      }
      args.options.faults.failureRate[setting.substr(0, eq)] = parseRate(setting.substr(eq + 1));
    } else if (word == "--fail-first") {
      args.options.faults.failFirst = parseNumber(word, value(), 0, 1'000'000'000);
    } else if (word == "--delay-ms") {
      args.options.faults.delayMs = parseNumber(word, value(), 0, 60'000);
    } else if (word == "--seed") {
      args.options.faults.seed =
          parseNumber<std::uint64_t>(word, value(), 0, UINT64_MAX);
    } else if (word == "--receipt-public-key") {
      args.options.receiptPublicKeyFiles.emplace_back(value());
    } else if (word == "--method") {
      args.method = value();
    } else if (word == "--user") {
      args.user = value();
      args.userFlag = true;
    } else if (word == "--json") {
      flag();
      args.json = true;
    } else if (word.rfind("-", 0) == 0) {
      throw UsageError{"unknown option " + word};
    } else if (!sawCommand && (word == "serve" || word == "events" || word == "calls" ||
                               word == "subscriber" || word == "transactions" ||
                               word == "products" || word == "push-payload")) {
      args.command = word;
      sawCommand = true;
      if (word == "subscriber") {
        if (i + 1 >= words.size() || words[i + 1].rfind("-", 0) == 0) {
          throw UsageError{"subscriber needs a USER"};
        }
        args.user = words[++i];
      }
      if (word == "push-payload") {
        if (i + 1 >= words.size() || words[i + 1].rfind("-", 0) == 0) {
          throw UsageError{"push-payload needs a MESSAGE_ID"};
        }
        args.messageId = words[++i];
      }
    } else {
      throw UsageError{"unexpected argument \"" + word + "\""};
    }
  }
  if (args.help) return args;
  if (args.options.dataDir.empty()) throw UsageError{"--data-dir is required"};
  if (args.json && args.command == "serve") throw UsageError{"--json does not go with serve"};
  if (!args.method.empty() && args.command != "calls") throw UsageError{"--method goes with calls"};
  if (args.userFlag && args.command != "transactions") {
    throw UsageError{"--user goes with transactions"};
  }
  return args;
}

nlohmann::json optionalJson(const std::optional<std::string>& text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

std::string subscriberJson(const velquin::iap::Subscriber& subscriber, bool oneLine) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;  // show false, 0 and StandardSub too
  options.add_whitespace = !oneLine;
  std::string out;
  if (!google::protobuf::util::MessageToJsonString(subscriber, &out, options).ok()) return "{}";
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

int printPurchases(const Database& database, const Arguments& args) {
  auto rows = database.purchases(args.user);
  if (args.json) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& row : rows) {
      const auto& p = row.purchase;
      list.push_back({{"app_user_id", row.appUserId},
                      {"transaction_id", p.transactionId},
                      {"original_transaction_id", p.originalTransactionId},
                      {"product_id", p.productId},
                      {"product_type", velquin::sandbox::productTypeName(p.productType)},
                      {"purchase_date_ms", p.purchaseMs},
                      {"expires_date_ms", p.expiresMs ? nlohmann::json(*p.expiresMs) : nullptr},
                      {"offer_id", optionalJson(p.offerId)},
                      {"recorded_ms", row.recordedMs}});
    }
    std::cout << nlohmann::json{{"count", rows.size()}, {"transactions", list}}.dump(
                     -1, ' ', false, nlohmann::json::error_handler_t::replace)
              << '\n';
  } else {
    std::cout << rows.size() << " transactions\n";
    for (const auto& row : rows) {
      const auto& p = row.purchase;
      std::cout << row.appUserId << '\t' << p.transactionId << '\t' << p.originalTransactionId
                << '\t' << p.productId << '\t' << velquin::sandbox::productTypeName(p.productType)
                << '\t' << p.purchaseMs << '\t'
                << (p.expiresMs ? std::to_string(*p.expiresMs) : "-") << '\t'
                << p.offerId.value_or("-") << '\n';
    }
  }
  return 0;
}

int printProducts(const Database& database, const Arguments& args) {
  auto products = database.productInfos();
  if (args.json) {
    std::cout << nlohmann::json{{"count", products.size()}, {"products", products}}.dump(
                     -1, ' ', false, nlohmann::json::error_handler_t::replace)
              << '\n';
  } else {
    std::cout << products.size() << " products\n";
    for (const auto& p : products) {
      std::cout << p["product_id"].get<std::string>() << '\t' << p["currency"].get<std::string>()
                << '\t' << p["regular_price"].get<double>() << '\t'
                << p["introductory_price"].get<double>() << '\t'
                << p["discounts"].dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                << '\n';
    }
  }
  return 0;
}

// An event value in the listing: its first line after the other columns,
// then up to five more lines indented (a crash report is long), each cut at
// 160 characters.
void printValueHead(const std::string& value) {
  constexpr std::size_t kLines = 6;
  constexpr std::size_t kWidth = 160;
  std::size_t start = 0;
  std::size_t shown = 0;
  while (start <= value.size()) {
    std::size_t end = value.find('\n', start);
    if (end == std::string::npos) end = value.size();
    if (shown == kLines) {
      std::size_t rest = 1;
      for (std::size_t i = start; i < value.size(); ++i) rest += value[i] == '\n';
      std::cout << "    ... (" << rest << " more lines)\n";
      return;
    }
    std::string line = value.substr(start, std::min(end - start, kWidth));
    if (end - start > kWidth) line += " ...";
    std::cout << (shown == 0 ? "" : "    ") << line << '\n';
    ++shown;
    start = end + 1;
  }
}

int printSubscriber(const Database& database, const Arguments& args) {
  std::string error;
  auto config = velquin::sandbox::loadConfig(args.options.configFile, &error);
  if (!config) {
    std::cerr << "velquin-sandbox: " << error << '\n';
    return 1;
  }
  std::vector<velquin::sandbox::Purchase> purchases;
  for (auto& row : database.purchases(args.user)) purchases.push_back(std::move(row.purchase));
  auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                 std::chrono::system_clock::now().time_since_epoch())
                 .count();
  auto subscriber = velquin::sandbox::buildSubscriber(
      purchases, velquin::sandbox::subscriberRulesFromConfig(*config), now);
  std::cout << subscriberJson(subscriber, args.json) << '\n';
  return 0;
}

// The payload a push announcing an in-app message carries: the alert
// shown, and the keys the client reads.
int printPushPayload(const Arguments& args) {
  std::string error;
  auto config = velquin::sandbox::loadConfig(args.options.configFile, &error);
  if (!config) {
    std::cerr << "velquin-sandbox: " << error << '\n';
    return 1;
  }
  const auto& messages = config->value("in_app_messages", nlohmann::json::object());
  if (!messages.is_object() || !messages.contains(args.messageId) ||
      !messages.at(args.messageId).is_object()) {
    std::cerr << "velquin-sandbox: no in-app message \"" << args.messageId << "\"\n";
    return 1;
  }
  const auto& message = messages.at(args.messageId);
  auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  char at[32];
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::strftime(at, sizeof at, "%Y-%m-%dT%H:%M:%SZ", &utc);
  nlohmann::json payload = {
      {"aps",
       {{"alert",
         {{"title", message.value("title", std::string())},
          {"body", message.value("content", std::string())}}},
        {"sound", "default"}}},
      {"velquin_alert_type", "ALERT_TYPE_IN_APP"},
      {"velquin_id", args.messageId},
      {"velquin_notification_id", "sandbox-" + args.messageId},
      {"velquin_trigger_type", "manual"},
      {"velquin_trigger_at", at}};
  std::cout << payload.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
  return 0;
}

int printRecorded(const Arguments& args) {
  auto file = args.options.dataDir / Database::kFileName;
  std::error_code ec;
  if (!std::filesystem::exists(file, ec)) {
    std::cerr << "velquin-sandbox: no sandbox database in " << args.options.dataDir.string() << '\n';
    return 1;
  }
  std::string error;
  auto database = Database::open(file, Database::Mode::readOnly, &error);
  if (!database) {
    std::cerr << "velquin-sandbox: " << error << '\n';
    return 1;
  }
  if (args.command == "subscriber") return printSubscriber(*database, args);
  if (args.command == "transactions") return printPurchases(*database, args);
  if (args.command == "products") return printProducts(*database, args);
  if (args.command == "events") {
    auto events = database->events();
    if (args.json) {
      nlohmann::json list = nlohmann::json::array();
      for (const auto& e : events) {
        list.push_back({{"requestId", e.requestId},
                        {"name", e.name},
                        {"value", e.value},
                        {"userId", e.userId},
                        {"timestamp", e.timestamp},
                        {"authorization", e.authorization},
                        {"experiment", e.experiment}});
      }
      std::cout << nlohmann::json{{"count", events.size()}, {"events", list}}.dump() << '\n';
    } else {
      std::cout << events.size() << " events\n";
      for (const auto& e : events) {
        std::cout << e.timestamp << '\t' << e.name << '\t' << e.userId << '\t'
                  << (e.requestId.empty() ? "-" : e.requestId) << '\t';
        printValueHead(e.value);
      }
    }
  } else {
    auto calls = database->calls(args.method);
    if (args.json) {
      nlohmann::json list = nlohmann::json::array();
      for (const auto& c : calls) {
        list.push_back({{"id", c.id},
                        {"method", c.method},
                        {"authorization", optionalJson(c.authorization)},
                        {"experiment", optionalJson(c.experiment)},
                        {"request", c.request},
                        {"status", c.status},
                        {"atMs", c.atMs}});
      }
      std::cout << nlohmann::json{{"count", calls.size()}, {"calls", list}}.dump() << '\n';
    } else {
      std::cout << calls.size() << " calls\n";
      for (const auto& c : calls) {
        std::cout << c.id << '\t' << c.atMs << '\t' << c.method << '\t' << c.status << '\t'
                  << c.request.dump() << '\n';
      }
    }
  }
  std::cout.flush();
  return 0;
}

int serve(const Arguments& args) {
  // Every thread, gRPC's included, inherits this mask, so the signals reach
  // only the sigwait below.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  SandboxServer server(args.options);
  std::string error;
  if (!server.start(&error)) {
    std::cerr << "velquin-sandbox: " << error << '\n';
    return 1;
  }
  if (args.bundleDir) {
    std::error_code ec;
    std::filesystem::create_directories(*args.bundleDir, ec);
    if (!server.writeBundle(*args.bundleDir, args.bundleId, &error)) {
      std::cerr << "velquin-sandbox: cannot write the bundle: " << error << '\n';
      server.stop();
      return 1;
    }
  }
  std::cout << "velquin-sandbox listening on " << server.address() << std::endl;

  int received = 0;
  sigwait(&stopSignals, &received);
  server.stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Arguments args;
    try {
      args = parse(argc, argv);
    } catch (const UsageError& e) {
      std::cerr << "velquin-sandbox: " << e.message << "\n\n" << kUsage;
      return 2;
    }
    if (args.help) {
      std::cout << kUsage;
      return 0;
    }
    if (args.command == "serve") return serve(args);
    if (args.command == "push-payload") return printPushPayload(args);
    return printRecorded(args);
  } catch (const std::exception& e) {
    std::cerr << "velquin-sandbox: " << e.what() << '\n';
    return 1;
  }
}
