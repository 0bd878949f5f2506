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
)sql";

const std::set<std::string>& tableNames() {
  static const std::set<std::string> names = {"calls",        "users",      "init_calls",
                                              "device_tokens", "attributions", "user_infos",
                                              "events"};
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
        begin(db, "BEGIN"),
        commit(db, "COMMIT"),
        rollback(db, "ROLLBACK") {}

  SQLite::Statement call, user, init, deviceToken, attribution, userInfo, event;
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
