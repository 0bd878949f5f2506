#include "Database.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <iostream>
#include <set>

namespace velquin::sandbox {
namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS calls (
  id INTEGER PRIMARY KEY,
  method TEXT NOT NULL,
  authorization TEXT,
  experiment TEXT,
  request TEXT NOT NULL,
  status INTEGER NOT NULL,
  at_ms INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS calls_by_method ON calls(method);
CREATE TABLE IF NOT EXISTS users (
  app_user_id TEXT PRIMARY KEY,
  first_seen_ms INTEGER NOT NULL,
  last_seen_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS init_calls (
  id INTEGER PRIMARY KEY,
  user_id TEXT, language TEXT, device_model TEXT, device_brand TEXT, os TEXT,
  timezone TEXT, tz_abv TEXT, device_id TEXT, package_name TEXT, sdk_version TEXT,
  at_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS device_tokens (
  id INTEGER PRIMARY KEY,
  device_id TEXT, device_token TEXT,
  at_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS attributions (
  id INTEGER PRIMARY KEY,
  app_id TEXT, app_user_id TEXT, advertiser_id TEXT, attribution_source TEXT,
  network_user_id TEXT, data TEXT, device_id TEXT, request TEXT NOT NULL,
  at_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS user_infos (
  id INTEGER PRIMARY KEY,
  app_user_id TEXT, advertiser_id TEXT, vendor_id TEXT, device_id TEXT, extra_attribute TEXT,
  at_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS events (
  id INTEGER PRIMARY KEY,
  request_id TEXT,
  name TEXT, value TEXT, param TEXT, user_id TEXT,
  timestamp INTEGER,
  authorization TEXT, experiment TEXT,
  received_ms INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS events_by_request_id ON events(request_id);
CREATE TABLE IF NOT EXISTS purchases (
  id INTEGER PRIMARY KEY,
  transaction_id TEXT NOT NULL UNIQUE,
  app_user_id TEXT NOT NULL,
  original_transaction_id TEXT NOT NULL,
  product_id TEXT NOT NULL,
  product_type TEXT NOT NULL,
  purchase_ms INTEGER NOT NULL,
  expires_ms INTEGER,
  offer_id TEXT,
  recorded_ms INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS purchases_by_user ON purchases(app_user_id);
CREATE TABLE IF NOT EXISTS product_infos (
  product_id TEXT PRIMARY KEY,
  currency TEXT NOT NULL,
  regular_price REAL NOT NULL,
  introductory_price REAL NOT NULL,
  discounts TEXT NOT NULL,
  app_user_id TEXT NOT NULL,
  at_ms INTEGER NOT NULL);
)sql";

const std::set<std::string>& tableNames() {
  static const std::set<std::string> names = {
      "calls",      "users",  "init_calls", "device_tokens", "attributions",
      "user_infos", "events", "purchases",  "product_infos"};
  return names;
}

// The "requestId" of an event value holding a JSON object, as text.
std::optional<std::string> requestIdOf(const std::string& value) {
  auto parsed = nlohmann::json::parse(value, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) return std::nullopt;
  auto found = parsed.find("requestId");
  if (found == parsed.end() || found->is_null()) return std::nullopt;
  if (found->is_string()) return found->get<std::string>();
  return found->dump();
}

void bindOptional(SQLite::Statement& statement, int index, const std::optional<std::string>& value) {
  if (value) {
    statement.bind(index, *value);
  } else {
    statement.bind(index);  // NULL
  }
}

std::optional<std::string> optionalText(const SQLite::Column& column) {
  if (column.isNull()) return std::nullopt;
  return column.getString();
}

void bindOptional(SQLite::Statement& statement, int index, const std::optional<std::int64_t>& value) {
  if (value) {
    statement.bind(index, static_cast<int64_t>(*value));
  } else {
    statement.bind(index);  // NULL
  }
}

constexpr const char* kPurchaseColumns =
    "app_user_id, transaction_id, original_transaction_id, product_id, product_type, purchase_ms, "
    "expires_ms, offer_id, recorded_ms";

// One row selected with kPurchaseColumns; false for a product type this
// version does not know.
bool readPurchase(SQLite::Statement& query, RecordedPurchase& out) {
  auto type = productTypeFromName(query.getColumn(4).getString());
  if (!type) return false;
  out.appUserId = query.getColumn(0).getString();
  Purchase& p = out.purchase;
  p.transactionId = query.getColumn(1).getString();
  p.originalTransactionId = query.getColumn(2).getString();
  p.productId = query.getColumn(3).getString();
  p.productType = *type;
  p.purchaseMs = query.getColumn(5).getInt64();
  if (!query.getColumn(6).isNull()) p.expiresMs = query.getColumn(6).getInt64();
  p.offerId = optionalText(query.getColumn(7));
  out.recordedMs = query.getColumn(8).getInt64();
  return true;
}

// Runs a prepared insert once and leaves it ready for the next use.
void run(SQLite::Statement& statement) {
  statement.exec();
  statement.reset();
  statement.clearBindings();
}

}  // namespace

struct Database::Statements {
  explicit Statements(SQLite::Database& db)
      : call(db,
             "INSERT INTO calls (method, authorization, experiment, request, status, at_ms) "
             "VALUES (?, ?, ?, ?, ?, ?)"),
        user(db,
             "INSERT INTO users (app_user_id, first_seen_ms, last_seen_ms) VALUES (?1, ?2, ?2) "
             "ON CONFLICT(app_user_id) DO UPDATE SET last_seen_ms = excluded.last_seen_ms"),
        init(db,
             "INSERT INTO init_calls (user_id, language, device_model, device_brand, os, timezone, "
             "tz_abv, device_id, package_name, sdk_version, at_ms) "
             "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
        deviceToken(db, "INSERT INTO device_tokens (device_id, device_token, at_ms) VALUES (?, ?, ?)"),
        attribution(db,
                    "INSERT INTO attributions (app_id, app_user_id, advertiser_id, "
                    "attribution_source, network_user_id, data, device_id, request, at_ms) "
                    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"),
        userInfo(db,
                 "INSERT INTO user_infos (app_user_id, advertiser_id, vendor_id, device_id, "
                 "extra_attribute, at_ms) VALUES (?, ?, ?, ?, ?, ?)"),
        event(db,
              "INSERT INTO events (request_id, name, value, param, user_id, timestamp, "
              "authorization, experiment, received_ms) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"),
        purchase(db,
                 "INSERT INTO purchases (transaction_id, app_user_id, original_transaction_id, "
                 "product_id, product_type, purchase_ms, expires_ms, offer_id, recorded_ms) "
                 "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?) "
                 "ON CONFLICT(transaction_id) DO UPDATE SET app_user_id = excluded.app_user_id"),
        productInfo(db,
                    "INSERT OR REPLACE INTO product_infos (product_id, currency, regular_price, "
                    "introductory_price, discounts, app_user_id, at_ms) "
                    "VALUES (?, ?, ?, ?, ?, ?, ?)"),
        purchasesOf(db, std::string("SELECT ") + kPurchaseColumns +
                            " FROM purchases WHERE app_user_id = ? ORDER BY id"),
        begin(db, "BEGIN"),
        commit(db, "COMMIT"),
        rollback(db, "ROLLBACK") {}

  SQLite::Statement call, user, init, deviceToken, attribution, userInfo, event, purchase,
      productInfo, purchasesOf;
  SQLite::Statement begin, commit, rollback;
};

Database::Database() = default;

Database::~Database() {
  std::lock_guard lock(mutex_);
  statements_.reset();  // statements go before their connection
  db_.reset();
}

std::unique_ptr<Database> Database::open(const std::filesystem::path& file, Mode mode,
                                         std::string* error) {
  std::unique_ptr<Database> database(new Database());
  try {
    if (mode == Mode::readOnly) {
      database->db_ = std::make_unique<SQLite::Database>(file.string(), SQLite::OPEN_READONLY);
      database->db_->setBusyTimeout(5000);
    } else {
      database->db_ = std::make_unique<SQLite::Database>(
          file.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
      database->db_->setBusyTimeout(5000);
      database->db_->exec("PRAGMA journal_mode=WAL");
      database->db_->exec("PRAGMA synchronous=NORMAL");
      database->db_->exec(kSchema);
      database->statements_ = std::make_unique<Statements>(*database->db_);
    }
  } catch (const std::exception& e) {
    if (error) *error = "cannot open database " + file.string() + ": " + e.what();
    return nullptr;
  }
  return database;
}

bool Database::begin() {
  if (!statements_) return false;
  try {
    run(statements_->begin);
    return true;
  } catch (const std::exception& e) {
    std::cerr << "velquin-sandbox: database: " << e.what() << '\n';
    return false;
  }
}

bool Database::commit() {
  try {
    run(statements_->commit);
    return true;
  } catch (const std::exception& e) {
    std::cerr << "velquin-sandbox: database: " << e.what() << '\n';
    rollback();
    return false;
  }
}

void Database::rollback() {
  try {
    // A failed insert leaves its statement mid-step; reset them all first.
    for (SQLite::Statement* statement :
         {&statements_->call, &statements_->user, &statements_->init, &statements_->deviceToken,
          &statements_->attribution, &statements_->userInfo, &statements_->event,
          &statements_->purchase, &statements_->productInfo, &statements_->purchasesOf,
          &statements_->commit}) {
      statement->reset();
      statement->clearBindings();
    }
    if (db_->getHandle() && !sqlite3_get_autocommit(db_->getHandle())) run(statements_->rollback);
  } catch (const std::exception& e) {
    std::cerr << "velquin-sandbox: database rollback: " << e.what() << '\n';
  }
}

void Database::Batch::addCall(const CallRow& call) {
  auto& s = db_.statements_->call;
  s.bind(1, call.method);
  bindOptional(s, 2, call.authorization);
  bindOptional(s, 3, call.experiment);
  s.bind(4, call.requestJson);
  s.bind(5, call.status);
  s.bind(6, static_cast<int64_t>(call.atMs));
  run(s);
}

void Database::Batch::touchUser(const std::string& appUserId, std::int64_t atMs) {
  if (appUserId.empty()) return;
  auto& s = db_.statements_->user;
  s.bind(1, appUserId);
  s.bind(2, static_cast<int64_t>(atMs));
  run(s);
}

void Database::Batch::addInit(const iap::GetInitInfoRequest& r, std::int64_t atMs) {
  auto& s = db_.statements_->init;
  int i = 0;
  for (const std::string* text :
       {&r.user_id(), &r.language(), &r.device_model(), &r.device_brand(), &r.os(), &r.timezone(),
        &r.tz_abv(), &r.device_id(), &r.package_name(), &r.sdk_version()}) {
    s.bind(++i, *text);
  }
  s.bind(++i, static_cast<int64_t>(atMs));
  run(s);
}

void Database::Batch::addDeviceToken(const push_notification::UploadDeviceTokenRequest& r,
                                     std::int64_t atMs) {
  auto& s = db_.statements_->deviceToken;
  s.bind(1, r.device_id());
  s.bind(2, r.device_token());
  s.bind(3, static_cast<int64_t>(atMs));
  run(s);
}

void Database::Batch::addAttribution(const attribution::GetAttributionRequest& r,
                                     const std::string& requestJson, std::int64_t atMs) {
  auto& s = db_.statements_->attribution;
  int i = 0;
  for (const std::string* text : {&r.app_id(), &r.app_user_id(), &r.advertiser_id(),
                                  &r.attribution_source(), &r.network_user_id(), &r.data(),
                                  &r.device_id(), &requestJson}) {
    s.bind(++i, *text);
  }
  s.bind(++i, static_cast<int64_t>(atMs));
  run(s);
}

void Database::Batch::addUserInfo(const iap::UploadUserInfoRequest& r, std::int64_t atMs) {
  auto& s = db_.statements_->userInfo;
  int i = 0;
  for (const std::string* text : {&r.app_user_id(), &r.advertiser_id(), &r.vendor_id(),
                                  &r.device_id(), &r.extra_attribute()}) {
    s.bind(++i, *text);
  }
  s.bind(++i, static_cast<int64_t>(atMs));
  run(s);
}

void Database::Batch::addEvent(const protocol::EventRequest& r,
                               const std::optional<std::string>& authorization,
                               const std::optional<std::string>& experiment, std::int64_t atMs) {
  auto& s = db_.statements_->event;
  bindOptional(s, 1, requestIdOf(r.event().value()));
  s.bind(2, r.event().name());
  s.bind(3, r.event().value());
  s.bind(4, r.event().param());
  s.bind(5, r.app_user_id());
  s.bind(6, static_cast<int64_t>(r.timestamp()));
  bindOptional(s, 7, authorization);
  bindOptional(s, 8, experiment);
  s.bind(9, static_cast<int64_t>(atMs));
  run(s);
}

void Database::Batch::recordPurchase(const std::string& appUserId, const Purchase& p,
                                     std::int64_t atMs) {
  auto& s = db_.statements_->purchase;
  s.bind(1, p.transactionId);
  s.bind(2, appUserId);
  s.bind(3, p.originalTransactionId);
  s.bind(4, p.productId);
  s.bind(5, productTypeName(p.productType));
  s.bind(6, static_cast<int64_t>(p.purchaseMs));
  bindOptional(s, 7, p.expiresMs);
  bindOptional(s, 8, p.offerId);
  s.bind(9, static_cast<int64_t>(atMs));
  run(s);
}

void Database::Batch::addProductInfo(const std::string& appUserId, const iap::ProductInfo& info,
                                     std::int64_t atMs) {
  nlohmann::json discounts = nlohmann::json::array();
  for (const auto& discount : info.discounts()) {
    discounts.push_back({{"discount_id", discount.discount_id()},
                         {"discount_price", static_cast<double>(discount.discount_price())}});
  }
  auto& s = db_.statements_->productInfo;
  s.bind(1, info.product_id());
  s.bind(2, info.currency());
  s.bind(3, static_cast<double>(info.regular_price()));
  s.bind(4, static_cast<double>(info.introductory_price()));
  // Ids come from the client; never throw on bad UTF-8.
  s.bind(5, discounts.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  s.bind(6, appUserId);
  s.bind(7, static_cast<int64_t>(atMs));
  run(s);
}

std::vector<Purchase> Database::Batch::purchasesOf(const std::string& appUserId) {
  auto& query = db_.statements_->purchasesOf;
  std::vector<Purchase> out;
  query.bind(1, appUserId);
  while (query.executeStep()) {
    RecordedPurchase row;
    if (readPurchase(query, row)) out.push_back(std::move(row.purchase));
  }
  query.reset();
  query.clearBindings();
  return out;
}

std::vector<RecordedCall> Database::calls(const std::string& method) const {
  std::vector<RecordedCall> out;
  std::lock_guard lock(mutex_);
  try {
    SQLite::Statement query(*db_,
                            method.empty()
                                ? "SELECT id, method, authorization, experiment, request, status, "
                                  "at_ms FROM calls ORDER BY id"
                                : "SELECT id, method, authorization, experiment, request, status, "
                                  "at_ms FROM calls WHERE method = ? ORDER BY id");
    if (!method.empty()) query.bind(1, method);
    while (query.executeStep()) {
      RecordedCall call;
      call.id = query.getColumn(0).getInt64();
      call.method = query.getColumn(1).getString();
      call.authorization = optionalText(query.getColumn(2));
      call.experiment = optionalText(query.getColumn(3));
      call.request = nlohmann::json::parse(query.getColumn(4).getString(), nullptr, false);
      if (call.request.is_discarded()) call.request = nullptr;
      call.status = query.getColumn(5).getInt();
      call.atMs = query.getColumn(6).getInt64();
      out.push_back(std::move(call));
    }
  } catch (const std::exception& e) {
    std::cerr << "velquin-sandbox: reading calls: " << e.what() << '\n';
  }
  return out;
}

std::vector<ReceivedEvent> Database::events() const {
  std::vector<ReceivedEvent> out;
  std::lock_guard lock(mutex_);
  try {
    SQLite::Statement query(*db_,
                            "SELECT request_id, name, value, user_id, timestamp, authorization, "
                            "experiment FROM events ORDER BY id");
    while (query.executeStep()) {
      ReceivedEvent event;
      event.requestId = query.getColumn(0).getString();  // NULL reads as ""
      event.name = query.getColumn(1).getString();
      event.value = query.getColumn(2).getString();
      event.userId = query.getColumn(3).getString();
      event.timestamp = query.getColumn(4).getInt64();
      event.authorization = query.getColumn(5).getString();
      event.experiment = query.getColumn(6).getString();
      out.push_back(std::move(event));
    }
  } catch (const std::exception& e) {
    std::cerr << "velquin-sandbox: reading events: " << e.what() << '\n';
  }
  return out;
}

std::vector<RecordedPurchase> Database::purchases(const std::string& appUserId) const {
  std::vector<RecordedPurchase> out;
  std::lock_guard lock(mutex_);
  try {
    std::string sql = std::string("SELECT ") + kPurchaseColumns + " FROM purchases" +
                      (appUserId.empty() ? "" : " WHERE app_user_id = ?") + " ORDER BY id";
    SQLite::Statement query(*db_, sql);
    if (!appUserId.empty()) query.bind(1, appUserId);
    while (query.executeStep()) {
      RecordedPurchase row;
      if (readPurchase(query, row)) out.push_back(std::move(row));
    }
  } catch (const std::exception& e) {
    // A data folder written before purchases were kept has no such table.
    std::cerr << "velquin-sandbox: reading purchases: " << e.what() << '\n';
  }
  return out;
}

nlohmann::json Database::productInfos() const {
  nlohmann::json out = nlohmann::json::array();
  std::lock_guard lock(mutex_);
  try {
    SQLite::Statement query(*db_,
                            "SELECT product_id, currency, regular_price, introductory_price, "
                            "discounts, app_user_id, at_ms FROM product_infos ORDER BY product_id");
    while (query.executeStep()) {
      auto discounts = nlohmann::json::parse(query.getColumn(4).getString(), nullptr, false);
      out.push_back({{"product_id", query.getColumn(0).getString()},
                     {"currency", query.getColumn(1).getString()},
                     {"regular_price", query.getColumn(2).getDouble()},
                     {"introductory_price", query.getColumn(3).getDouble()},
                     {"discounts", discounts.is_array() ? discounts : nlohmann::json::array()},
                     {"app_user_id", query.getColumn(5).getString()},
                     {"at_ms", query.getColumn(6).getInt64()}});
    }
  } catch (const std::exception& e) {
    std::cerr << "velquin-sandbox: reading product prices: " << e.what() << '\n';
  }
  return out;
}

std::int64_t Database::count(const std::string& table) const {
  if (!tableNames().count(table)) return 0;
  std::lock_guard lock(mutex_);
  try {
    // The name comes from the fixed list above, never from outside text.
    return db_->execAndGet("SELECT COUNT(*) FROM " + table).getInt64();
  } catch (const std::exception& e) {
    std::cerr << "velquin-sandbox: counting " << table << ": " << e.what() << '\n';
    return 0;
  }
}

}  // namespace velquin::sandbox
