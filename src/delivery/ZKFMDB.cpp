#include "delivery/ZKFMDB.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sqlite3.h>

#include <SQLiteCpp/SQLiteCpp.h>
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <ctime>
#include <limits>
#include <optional>

#include "delivery/WalSurvey.h"
#include "support/Console.h"
#include "velquin/Bundle.h"

namespace velquin {
namespace {

constexpr int kBusyTimeoutMs = 1000;
// Hot statements are few (one insert text per table and column set, the
// delete by id, the schema probes); the bound only protects against callers
// that vary statement texts without end.
constexpr std::size_t kMaxCachedStatements = 64;

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

bool isCorruptionCode(int code) {
  const int primary = code & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

std::string hexText(const ZKBlob& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "<";
  for (auto byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xf];
  }
  return text + ">";
}

void bindValue(SQLite::Statement& statement, int index, const ZKValue& value) {
  std::visit(
      [&](const auto& held) {
        using T = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          statement.bind(index);
        } else if constexpr (std::is_same_v<T, std::string>) {
          statement.bindNoCopy(index, held);  // bound as text, not as bytes
        } else if constexpr (std::is_same_v<T, ZKBlob>) {
          statement.bindNoCopy(index, held.data(), static_cast<int>(held.size()));
        } else {
          statement.bind(index, held);
        }
      },
      value);
}

// Reads one column the way its type word says; NULL for unknown words and
// for text or bytes that are NULL.
ZKValue readColumn(const SQLite::Statement& statement, int index, const std::string& type) {
  SQLite::Column column = statement.getColumn(index);
  if (type == "INTEGER") return column.getInt64();
  if (type == "REAL") return column.getDouble();
  if (type == "TEXT") {
    if (column.isNull()) return {};
    const char* text = column.getText();
    return std::string(text, static_cast<std::size_t>(column.getBytes()));
  }
  if (type == "BLOB") {
    if (column.isNull()) return {};
    const auto* bytes = static_cast<const std::uint8_t*>(column.getBlob());
    return ZKBlob(bytes, bytes + column.getBytes());
  }
  return {};
}

// A canonical decimal integer that fits in 64 bits ("0", "42", "-7"; no
// leading zeros or blanks), which SQLite reads back as the same number.
std::optional<std::int64_t> canonicalInteger(const std::string& text) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (std::to_string(value) != text) return std::nullopt;
  return value;
}

// The column of a where format of the exact form "WHERE <column> = %@"
// (any case of WHERE, any blanks), else none.
std::optional<std::string> singleEqualityColumn(const std::string& format) {
  std::size_t i = 0;
  auto skipBlanks = [&] {
    while (i < format.size() && std::isspace(static_cast<unsigned char>(format[i]))) ++i;
  };
  skipBlanks();
  static constexpr std::string_view kWhere = "where";
  if (format.size() < i + kWhere.size()) return std::nullopt;
  for (char expected : kWhere) {
    if (std::tolower(static_cast<unsigned char>(format[i++])) != expected) return std::nullopt;
  }
  std::size_t blanksStart = i;
  skipBlanks();
  if (i == blanksStart) return std::nullopt;
  std::size_t nameStart = i;
  while (i < format.size() &&
         (std::isalnum(static_cast<unsigned char>(format[i])) || format[i] == '_')) {
    ++i;
  }
  if (i == nameStart || std::isdigit(static_cast<unsigned char>(format[nameStart]))) {
    return std::nullopt;
  }
  std::string column = format.substr(nameStart, i - nameStart);
  skipBlanks();
  if (i >= format.size() || format[i++] != '=') return std::nullopt;
  skipBlanks();
  if (format.compare(i, 2, "%@") != 0) return std::nullopt;
  i += 2;
  skipBlanks();
  if (i != format.size()) return std::nullopt;
  return column;
}

std::string timeStamp() {
  auto now = std::chrono::system_clock::now();
  std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
  return text;
}

// Bumped by every schema change made through any instance in this process.
// Column lists are cached per instance against it, so the hot insert path
// needs no schema query. The database file is the SDK's own: schema changes
// from other processes are not expected.
std::atomic<std::uint64_t> schemaGeneration{1};

bool changesSchema(const std::string& sql) {
  std::size_t start = sql.find_first_not_of(" \t\n");
  if (start == std::string::npos) return false;
  for (std::string_view word : {"create", "alter", "drop"}) {
    if (sql.size() - start < word.size()) continue;
    bool same = true;
    for (std::size_t i = 0; i < word.size() && same; ++i) {
      same = std::tolower(static_cast<unsigned char>(sql[start + i])) == word[i];
    }
    if (same) return true;
  }
  return false;
}

std::mutex sharedMutex;
ZKFMDB* sharedInstance = nullptr;  // guarded by sharedMutex; lives for the process

std::filesystem::path defaultFolder() {
  std::filesystem::path folder = Bundle::main().dataDirectory();
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) {
    support::warn("ZKFMDB: can not create the data folder " + folder.string() + ": " +
                  error.message());
  }
  return folder;
}

std::filesystem::path databasePath(const std::optional<std::string>& name,
                                   const std::optional<std::filesystem::path>& folder) {
  return (folder ? *folder : defaultFolder()) / name.value_or(ZKFMDB::kDefaultName);
}

}  // namespace

// ---------------------------------------------------------------- ZKShape

ZKShape ZKShape::named(const std::string& modelName) {
  return ZKShape(ZKModelRegistry::shared().find(modelName));
}

const ZKModelDescription* ZKShape::model() const {
  const auto* model = std::get_if<const ZKModelDescription*>(&value_);
  return model ? *model : nullptr;
}

// ---------------------------------------------------------------- opening

ZKFMDB* ZKFMDB::shareDatabase(const std::optional<std::string>& name,
                              const std::optional<std::filesystem::path>& folder) {
  std::lock_guard lock(sharedMutex);
  if (!sharedInstance) {
    auto instance = std::unique_ptr<ZKFMDB>(new ZKFMDB(databasePath(name, folder)));
    if (instance->open()) sharedInstance = instance.release();
  }
  if (!sharedInstance || !sharedInstance->open()) {
    support::warn("database can not open !");
    return nullptr;
  }
  return sharedInstance;
}

std::unique_ptr<ZKFMDB> ZKFMDB::initWithDBName(const std::optional<std::string>& name,
                                               const std::optional<std::filesystem::path>& folder) {
  auto instance = std::unique_ptr<ZKFMDB>(new ZKFMDB(databasePath(name, folder)));
  if (!instance->open()) return nullptr;
  return instance;
}

ZKFMDB::ZKFMDB(std::filesystem::path path) : dbPath_(std::move(path)) {}

ZKFMDB::~ZKFMDB() {
  {
    std::lock_guard lock(queueMutex_);
    dbQueue_.reset();  // runs what is still queued
  }
  {
    // Not under queueMutex_: a checkpoint still queued runs first.
    std::unique_ptr<support::SerialQueue> checkpoints;
    {
      std::lock_guard lock(queueMutex_);
      checkpoints = std::move(checkpointQueue_);
    }
    checkpoints.reset();
  }
  std::lock_guard lock(mutex_);
  closeLocked();
  if (openLock_ >= 0) ::close(openLock_);
}

support::SerialQueue& ZKFMDB::dbQueue() {
  std::lock_guard lock(queueMutex_);
  if (!dbQueue_) dbQueue_ = std::make_unique<support::SerialQueue>("ZKFMDB " + dbPath_.string());
  return *dbQueue_;
}

bool ZKFMDB::open() {
  std::lock_guard lock(mutex_);
  return openLocked();
}

void ZKFMDB::close() {
  std::lock_guard lock(mutex_);
  closeLocked();
}

void ZKFMDB::closeLocked() {
  statements_.clear();  // statements go before the connection they belong to
  columns_.clear();
  db_.reset();
  // The checkpoint connection follows: the file may be about to be moved
  // aside, and it must not keep checkpointing the old one.
  std::lock_guard lock(checkpointMutex_);
  checkpointDb_.reset();
}

int ZKFMDB::walCommitted(void* self, sqlite3*, const char*, int frames) {
  auto* store = static_cast<ZKFMDB*>(self);
  if (frames < kCheckpointFrames || store->checkpointScheduled_.exchange(true)) return SQLITE_OK;
  store->checkpointQueue().async([store] {
    store->checkpointPassive();
    store->checkpointScheduled_ = false;
  });
  return SQLITE_OK;
}

support::SerialQueue& ZKFMDB::checkpointQueue() {
  std::lock_guard lock(queueMutex_);
  if (!checkpointQueue_) {
    checkpointQueue_ = std::make_unique<support::SerialQueue>("ZKFMDB checkpoint");
  }
  return *checkpointQueue_;
}

void ZKFMDB::checkpointPassive() {
  std::lock_guard lock(checkpointMutex_);
  try {
    if (!checkpointDb_) {
      checkpointDb_ = std::make_unique<SQLite::Database>(dbPath_.string(), SQLite::OPEN_READWRITE,
                                                         kBusyTimeoutMs);
      checkpointDb_->exec("PRAGMA synchronous=NORMAL");
    }
    // Copies what it can without waiting for anyone; writers go on
    // meanwhile, and the log starts over at the first write after it has
    // been copied in full.
    int logFrames = 0;
    {
      SQLite::Statement passive(*checkpointDb_, "PRAGMA wal_checkpoint(PASSIVE)");
      if (passive.executeStep()) logFrames = passive.getColumn(1).getInt();
    }
    // Under a steady stream of commits the log is never copied in full
    // before the next one lands, so it never starts over and grows without
    // end. Past twice the mark, the rest is copied with writers held off
    // for that short copy, and the log is emptied.
    if (logFrames >= 2 * kCheckpointFrames) {
      checkpointDb_->setBusyTimeout(kRestartWaitMs);
      try {
        checkpointDb_->exec("PRAGMA wal_checkpoint(TRUNCATE)");
      } catch (const SQLite::Exception&) {
        // Busy: the next checkpoint tries again.
      }
      checkpointDb_->setBusyTimeout(kBusyTimeoutMs);
    }
  } catch (const SQLite::Exception& error) {
    checkpointDb_.reset();  // opened afresh next time
    support::warn(std::string("ZKFMDB: checkpoint failed: ") + error.what());
  }
}

void ZKFMDB::drainCheckpoints() { checkpointQueue().sync([] {}); }

bool ZKFMDB::openLocked() {
  if (db_) return true;
  // Alone, a write-ahead log left behind is nobody's work in progress:
  // SQLite is about to recover it, and silently drops what lies after a
  // damaged frame. A damaged log is copied aside first.
  const bool alone = lockForOpenLocked();
  WalCheck walCheck;
  if (alone) walCheck = inspectWalLocked();
  bool opened = false;
  bool corrupt = false;
  std::string reason;
  if (openFileLocked(corrupt, reason)) {
    opened = true;
    if (alone) reportWalLocked(walCheck);
  } else if (corrupt) {
    const std::string aside = moveAsideLocked(reason);
    corrupt = false;
    if (openFileLocked(corrupt, reason)) {
      salvageLocked(aside);
      opened = true;
    }
  }
  shareOpenLockLocked();
  if (!opened) support::warn("ZKFMDB: can not open " + dbPath_.string() + ": " + reason);
  return opened;
}

bool ZKFMDB::lockForOpenLocked() {
  if (openLock_ < 0) {
    openLock_ = ::open((dbPath_.string() + ".lock").c_str(),
                       O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  }
  if (openLock_ < 0) return false;  // cannot tell: leave the log to SQLite
  // Open file description locks: held by this instance's descriptor, so
  // instances in one process keep each other out as processes do.
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  return ::fcntl(openLock_, F_OFD_SETLK, &lock) == 0;
}

void ZKFMDB::shareOpenLockLocked() {
  if (openLock_ < 0) return;
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  // Waits only while another instance inspects its log at open.
  while (::fcntl(openLock_, F_OFD_SETLKW, &lock) != 0 && errno == EINTR) {
  }
}

ZKFMDB::WalCheck ZKFMDB::inspectWalLocked() {
  WalCheck check;
  const std::filesystem::path wal = dbPath_.string() + "-wal";
  check.survey = surveyWal(wal);
  if (!check.survey.damaged()) return check;
  const std::string original = dbPath_.string();
  std::string aside = original + ".wal-damaged-" + timeStamp();
  std::error_code error;
  for (int n = 1; std::filesystem::exists(aside, error); ++n) {
    aside = original + ".wal-damaged-" + timeStamp() + "-" + std::to_string(n);
  }
  if (std::filesystem::copy_file(wal, aside, error)) {
    check.copy = aside;
  } else {
    check.copyError = error.message();
  }
  return check;
}

void ZKFMDB::reportWalLocked(const WalCheck& check) {
  // The survey replays recovery; a log it finds whole costs nothing more
  // here (a checkpoint at every start after an unclean exit would).
  if (!check.survey.damaged()) return;
  // What recovery kept: the log's frame count, from a passive checkpoint.
  std::uint32_t kept = check.survey.recoverable;
  try {
    SQLite::Statement checkpoint(*db_, "PRAGMA wal_checkpoint");
    if (checkpoint.executeStep() && checkpoint.getColumn(1).getInt64() >= 0) {
      kept = static_cast<std::uint32_t>(checkpoint.getColumn(1).getInt64());
    }
  } catch (const SQLite::Exception&) {
  }
  if (check.survey.lastIntactCommit <= kept) {
    // Nothing committed was dropped (at most a transaction cut short by
    // the end of the process): a copy made on a wrong guess goes again.
    std::error_code ignored;
    if (!check.copy.empty()) std::filesystem::remove(check.copy, ignored);
    return;
  }
  std::string where;
  if (!check.copy.empty()) {
    where = "; the damaged log is kept as " + check.copy;
  } else {
    where = "; the damaged log could not be copied aside" +
            (check.copyError.empty() ? std::string() : " (" + check.copyError + ")");
  }
  support::warn("ZKFMDB: the write-ahead log of " + dbPath_.string() + " is damaged: " +
                std::to_string(check.survey.framesAfter(kept)) + " frame(s) after frame " +
                std::to_string(kept) + " were lost with the rows written in them" + where);
}

bool ZKFMDB::openFileLocked(bool& corrupt, std::string& reason) {
  // Events carry user ids: the file is the user's alone, like the keychain
  // file and the defaults. SQLite gives the WAL and shared-memory files the
  // database file's mode.
  // Never through a symbolic link: a link in our folder would have us
  // chmod, and SQLite write, a file that is not ours.
  const int fd = ::open(dbPath_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0 && errno == ELOOP) {
    reason = dbPath_.string() + " is a symbolic link; it is not followed";
    return false;
  }
  if (fd >= 0) {
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & 077) != 0) {
      ::fchmod(fd, info.st_mode & 0700);
    }
    ::close(fd);
  }
  try {
    auto db = std::make_unique<SQLite::Database>(
        dbPath_.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_NOFOLLOW,
        kBusyTimeoutMs);
    // The first statements read the header: a file that is no database
    // fails here with SQLITE_NOTADB.
    db->exec("PRAGMA journal_mode=WAL");
    db->exec("PRAGMA synchronous=NORMAL");
    // A log that grew while readers held it back is cut back to about twice
    // the checkpoint mark when a writer next starts it over, instead of
    // keeping its largest size on disk.
    db->exec("PRAGMA journal_size_limit=" + std::to_string(2 * kCheckpointFrames * 4096));
    // No checkpoint inside a commit: the hook replaces SQLite's automatic
    // one and hands the work to the checkpoint thread.
    sqlite3_wal_hook(db->getHandle(), &ZKFMDB::walCommitted, this);
    {
      SQLite::Statement check(*db, "PRAGMA quick_check");
      if (check.executeStep()) {
        std::string verdict = check.getColumn(0).getString();
        if (verdict != "ok") {
          corrupt = true;
          reason = "quick check: " + verdict;
          return false;
        }
      }
    }
    db_ = std::move(db);
    return true;
  } catch (const SQLite::Exception& error) {
    corrupt = isCorruptionCode(error.getErrorCode()) || isCorruptionCode(error.getExtendedErrorCode());
    reason = error.what();
  } catch (const std::exception& error) {
    reason = error.what();
  }
  return false;
}

std::string ZKFMDB::moveAsideLocked(const std::string& reason) {
  closeLocked();
  const std::string original = dbPath_.string();
  std::string aside = original + ".corrupt-" + timeStamp();
  std::error_code error;
  for (int n = 1; std::filesystem::exists(aside, error); ++n) {
    aside = original + ".corrupt-" + timeStamp() + "-" + std::to_string(n);
  }
  std::filesystem::rename(original, aside, error);
  if (error) {
    support::warn("ZKFMDB: database " + original + " is corrupt (" + reason +
                  ") and can not be moved aside: " + error.message());
    return {};
  }
  for (const char* suffix : {"-wal", "-shm"}) {
    std::error_code sideError;
    if (std::filesystem::exists(original + suffix, sideError)) {
      std::filesystem::rename(original + suffix, aside + suffix, sideError);
    }
  }
  support::warn("ZKFMDB: database " + original + " is corrupt (" + reason + "); kept as " +
                aside + ", starting a fresh one");
  return aside;
}

void ZKFMDB::salvageLocked(const std::string& aside) {
  if (aside.empty() || !db_) return;
  std::size_t rows = 0;
  std::size_t unreadable = 0;
  try {
    SQLite::Database damaged(aside, SQLite::OPEN_READONLY);
    std::vector<std::pair<std::string, std::string>> tables;  // name, CREATE statement
    {
      SQLite::Statement query(damaged,
                              "SELECT name, sql FROM sqlite_master WHERE type = 'table' AND "
                              "name NOT LIKE 'sqlite_%'");
      while (query.executeStep()) {
        tables.emplace_back(query.getColumn(0).getString(), query.getColumn(1).getString());
      }
    }
    for (const auto& [table, create] : tables) {
      try {
        db_->exec(create);
      } catch (const SQLite::Exception&) {
        continue;  // a name or statement the fresh file does not take
      }
      // Rows in rowid order; past an unreadable stretch, reading resumes
      // further on (a bad leaf page hides only the rows it holds).
      std::int64_t after = std::numeric_limits<std::int64_t>::min();
      std::int64_t skip = 1;
      int attempts = 0;
      db_->exec("BEGIN");
      while (attempts < 64) {
        try {
          SQLite::Statement read(damaged, "SELECT rowid, * FROM \"" + table +
                                              "\" WHERE rowid > ? ORDER BY rowid");
          read.bind(1, after);
          std::optional<SQLite::Statement> write;
          while (read.executeStep()) {
            const int columns = read.getColumnCount() - 1;
            if (!write) {
              std::string sql = "INSERT OR IGNORE INTO \"" + table + "\" VALUES (";
              for (int c = 0; c < columns; ++c) sql += c ? ",?" : "?";
              write.emplace(*db_, sql + ")");
            }
            write->reset();
            for (int c = 0; c < columns; ++c) {
              const SQLite::Column value = read.getColumn(c + 1);
              if (value.isInteger()) {
                write->bind(c + 1, value.getInt64());
              } else if (value.isFloat()) {
                write->bind(c + 1, value.getDouble());
              } else if (value.isText()) {
                write->bind(c + 1, value.getString());
              } else if (value.isBlob()) {
                write->bind(c + 1, value.getBlob(), value.getBytes());
              } else {
                write->bind(c + 1);
              }
            }
            write->exec();
            after = read.getColumn(0).getInt64();
            ++rows;
            skip = 1;
          }
          break;  // read to the end
        } catch (const SQLite::Exception&) {
          ++unreadable;
          ++attempts;
          if (after == std::numeric_limits<std::int64_t>::min()) after = 0;
          after += skip;
          skip = std::min<std::int64_t>(skip * 2, std::int64_t{1} << 40);
        }
      }
      db_->exec("COMMIT");
    }
  } catch (const SQLite::Exception& error) {
    support::warn("ZKFMDB: nothing could be carried over from " + aside + ": " + error.what());
    return;
  }
  support::warn("ZKFMDB: carried " + std::to_string(rows) + " readable row(s) from " + aside +
                " into the fresh database" +
                (unreadable ? " (some rows could not be read)" : ""));
}

// ---------------------------------------------------------------- plumbing

template <class Result, class Body>
Result ZKFMDB::guarded(const char* what, Result failure, Body&& body) {
  std::lock_guard lock(mutex_);
  if (!openLocked()) return failure;
  bool corrupt = false;
  try {
    return body();
  } catch (const SQLite::Exception& error) {
    reportLocked(what, error, corrupt);
  } catch (const std::exception& error) {
    support::warn(std::string("ZKFMDB: ") + what + " failed: " + error.what());
    statements_.clear();
  }
  if (corrupt) {
    // The statements of `body` are gone by now, so the connection can close.
    const std::string aside = moveAsideLocked("SQLite reported corruption");
    if (openLocked()) salvageLocked(aside);
  }
  return failure;
}

void ZKFMDB::reportLocked(const char* what, const SQLite::Exception& error, bool& corrupt) {
  support::warn(std::string("ZKFMDB: ") + what + " failed: " + error.what());
  // A failed statement may still hold its error, and a failure may come
  // from a changed schema: prepare and read afresh next time.
  statements_.clear();
  columns_.clear();
  corrupt = isCorruptionCode(error.getErrorCode()) || isCorruptionCode(error.getExtendedErrorCode());
}

SQLite::Statement& ZKFMDB::cachedLocked(const std::string& sql) {
  auto it = statements_.find(sql);
  if (it == statements_.end()) {
    if (statements_.size() >= kMaxCachedStatements) statements_.clear();
    it = statements_.emplace(sql, std::make_unique<SQLite::Statement>(*db_, sql)).first;
  } else {
    it->second->tryReset();
    it->second->clearBindings();
  }
  return *it->second;
}

const std::vector<std::string>& ZKFMDB::columnsLocked(const std::string& table) {
  const std::uint64_t current = schemaGeneration.load();
  if (current != columnsGeneration_) {
    columns_.clear();
    columnsGeneration_ = current;
  }
  auto it = columns_.find(table);
  if (it != columns_.end()) return it->second;
  std::vector<std::string> names;
  SQLite::Statement schema(*db_, "pragma table_info('" + table + "')");
  while (schema.executeStep()) names.push_back(schema.getColumn("name").getString());
  return columns_.emplace(table, std::move(names)).first->second;
}

bool ZKFMDB::executeLocked(const std::string& sql, const ZKArgs& args) {
  SQLite::Statement statement(*db_, sql);
  for (std::size_t i = 0; i < args.size(); ++i) {
    bindValue(statement, static_cast<int>(i + 1), args[i]);
  }
  const bool schema = changesSchema(sql);
  if (schema) ++schemaGeneration;  // also when it fails: a failed step may have done part
  while (statement.executeStep()) {
  }
  if (schema) ++schemaGeneration;
  return true;
}

bool ZKFMDB::execute(const char* what, const std::string& sql, const ZKArgs& args) {
  return guarded(what, false, [&] { return executeLocked(sql, args); });
}

std::string ZKFMDB::formatWhere(const std::string& format, const ZKArgs& args) {
  std::string text;
  text.reserve(format.size() + 16);
  std::size_t next = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size()) {
      if (format[i + 1] == '%') {
        text += '%';
        ++i;
        continue;
      }
      if (format[i + 1] == '@' && next < args.size()) {
        const ZKValue& value = args[next++];
        if (zkIsNull(value)) {
          text += "(null)";
        } else if (const auto* bytes = std::get_if<ZKBlob>(&value)) {
          text += hexText(*bytes);
        } else {
          text += zkToText(value).value_or("");
        }
        ++i;
        continue;
      }
    }
    text += format[i];
  }
  return text;
}

// ---------------------------------------------------------------- model mapping

std::optional<std::string> ZKFMDB::propertTypeConvert(const std::string& attributes) {
  auto startsWith = [&](std::string_view prefix) { return attributes.starts_with(prefix); };
  if (startsWith("T@\"NSString\"")) return "TEXT";
  if (startsWith("T@\"NSData\"")) return "BLOB";
  for (std::string_view prefix : {"Ti", "TI", "Ts", "TS", "T@\"NSNumber\"", "TB", "Tq", "TQ"}) {
    if (startsWith(prefix)) return "INTEGER";
  }
  if (startsWith("Tf") || startsWith("Td")) return "REAL";
  return std::nullopt;
}

ZKColumns ZKFMDB::modelToDictionary(const ZKModelDescription& model,
                                    const ZKNames& excludePropertyName) {
  ZKColumns columns;
  for (const auto& property : model.properties()) {
    if (contains(excludePropertyName, property.name)) continue;
    if (auto type = propertTypeConvert(property.typeEncoding)) columns[property.name] = *type;
  }
  return columns;
}

ZKRow ZKFMDB::getModelPropertyKeyValue(const ZKModelObject& model, const std::string& /*table*/,
                                       const std::vector<std::string>& clomnArr) {
  ZKRow values;
  for (const auto& property : model.zk_modelDescription().properties()) {
    if (!contains(clomnArr, property.name) || !property.get) continue;
    ZKValue value = property.get(model);
    if (!zkIsNull(value)) values[property.name] = std::move(value);
  }
  return values;
}

// ---------------------------------------------------------------- tables

namespace {
std::string createText(std::string text, const ZKColumns& dictionary, const ZKNames& excludeName) {
  std::size_t position = 0;
  for (const auto& [name, type] : dictionary) {
    ++position;
    if (contains(excludeName, name) || name == "pkid") continue;
    if (position == dictionary.size()) {
      text += " " + name + " " + type + ")";
      break;
    }
    text += " " + name + " " + type + ",";
  }
  return text;
}
}  // namespace

std::string ZKFMDB::createTable(const std::string& table, const ZKColumns& dictionary,
                                const ZKNames& excludeName) const {
  return createText("CREATE TABLE " + table + " (pkid  INTEGER PRIMARY KEY,", dictionary,
                    excludeName);
}

std::string ZKFMDB::createTable(const std::string& table, const ZKModelDescription& model,
                                const ZKNames& excludeName) const {
  return createText("CREATE TABLE " + table + " (pkid INTEGER PRIMARY KEY,",
                    modelToDictionary(model, excludeName), {});
}

bool ZKFMDB::zk_createTable(const std::string& table, const ZKShape& shape,
                            const ZKNames& excludeName) {
  const ZKModelDescription* model = shape.model();
  const ZKColumns dictionary = shape.columns() ? *shape.columns()
                               : model         ? modelToDictionary(*model, excludeName)
                                               : ZKColumns();
  return execute("create table", createTable(table, dictionary, excludeName));
}

bool ZKFMDB::zk_deleteTable(const std::string& table) {
  return execute("drop table", "DROP TABLE " + table);
}

bool ZKFMDB::zk_executeUpdate(const std::string& sql) { return execute("statement", sql); }

bool ZKFMDB::zk_checkpointWithoutWaiting() {
  return guarded("checkpoint", false, [&] {
    // With no busy wait, a checkpoint that meets another connection does
    // what it can at once and reports itself busy.
    db_->setBusyTimeout(0);
    bool busy = true;
    try {
      SQLite::Statement checkpoint(*db_, "PRAGMA wal_checkpoint(TRUNCATE)");
      busy = !checkpoint.executeStep() || checkpoint.getColumn(0).getInt() != 0;
    } catch (...) {
      db_->setBusyTimeout(kBusyTimeoutMs);
      throw;
    }
    db_->setBusyTimeout(kBusyTimeoutMs);
    return !busy;
  });
}

bool ZKFMDB::zk_executePrepared(const std::string& sql, const ZKArgs& args) {
  return executeCached("statement", sql, args);
}

std::vector<std::int64_t> ZKFMDB::zk_queryIntegers(const std::string& sql, const ZKArgs& args) {
  std::vector<std::int64_t> values;
  guarded("query", false, [&] {
    SQLite::Statement& statement = cachedLocked(sql);
    for (std::size_t i = 0; i < args.size(); ++i) {
      bindValue(statement, static_cast<int>(i + 1), args[i]);
    }
    while (statement.executeStep()) values.push_back(statement.getColumn(0).getInt64());
    statement.reset();
    return true;
  });
  return values;
}

std::int64_t ZKFMDB::zk_changes() {
  std::lock_guard lock(mutex_);
  return db_ ? static_cast<std::int64_t>(sqlite3_changes64(db_->getHandle())) : 0;
}

bool ZKFMDB::executeCached(const char* what, const std::string& sql, const ZKArgs& args) {
  return guarded(what, false, [&] {
    SQLite::Statement& statement = cachedLocked(sql);
    for (std::size_t i = 0; i < args.size(); ++i) {
      bindValue(statement, static_cast<int>(i + 1), args[i]);
    }
    while (statement.executeStep()) {
    }
    statement.reset();
    return true;
  });
}

bool ZKFMDB::zk_deleteAllDataFromTable(const std::string& table) {
  return execute("delete all rows", "DELETE FROM " + table);
}

bool ZKFMDB::zk_isExistTable(const std::string& table) {
  return guarded("table lookup", false, [&] {
    SQLite::Statement& query = cachedLocked(
        "SELECT count(*) as 'count' FROM sqlite_master WHERE type ='table' and name = ?");
    query.bind(1, table);
    bool exists = query.executeStep() && query.getColumn("count").getInt64() != 0;
    query.tryReset();
    return exists;
  });
}

std::vector<std::string> ZKFMDB::getColumnArr(const std::string& table) {
  return guarded("table schema", std::vector<std::string>{}, [&] { return columnsLocked(table); });
}

std::vector<std::string> ZKFMDB::zk_columnNameArray(const std::string& table) {
  return getColumnArr(table);
}

std::int64_t ZKFMDB::zk_tableItemCount(const std::string& table) {
  return guarded("row count", std::int64_t{0}, [&] {
    SQLite::Statement query(*db_, "SELECT count(*) as 'count' FROM " + table);
    return query.executeStep() ? query.getColumn("count").getInt64() : std::int64_t{0};
  });
}

std::int64_t ZKFMDB::lastInsertPrimaryKeyId(const std::string& table) {
  return guarded("last primary key", std::int64_t{0}, [&] {
    SQLite::Statement query(
        *db_, "SELECT * FROM " + table + " where pkid = (SELECT max(pkid) FROM " + table + ")");
    return query.executeStep() ? query.getColumn("pkid").getInt64() : std::int64_t{0};
  });
}

std::int64_t ZKFMDB::lastInsertRowId() {
  std::lock_guard lock(mutex_);
  return db_ ? db_->getLastInsertRowid() : 0;
}

bool ZKFMDB::zk_alterTable(const std::string& table, const ZKShape& shape,
                           const ZKNames& excludeName) {
  bool result = false;
  zk_inTransaction([&](bool& rollback) {
    std::vector<std::pair<std::string, std::string>> additions;
    if (const auto* columns = shape.columns()) {
      for (const auto& [name, type] : *columns) {
        if (!contains(excludeName, name)) additions.emplace_back(name, type);
      }
    } else if (const auto* model = shape.model()) {
      std::vector<std::string> existing = getColumnArr(table);
      for (const auto& [name, type] : modelToDictionary(*model, excludeName)) {
        if (!contains(existing, name)) additions.emplace_back(name, type);
      }
    }
    for (const auto& [name, type] : additions) {
      result = execute("alter table", "ALTER TABLE " + table + " ADD COLUMN " + name + " " + type);
      if (!result) {
        rollback = true;
        return;
      }
    }
  });
  return result;
}

// ---------------------------------------------------------------- rows

bool ZKFMDB::insertLocked(const std::string& table, const ZKRow& values) {
  const std::vector<std::string>& columns = columnsLocked(table);
  std::string sql = "INSERT INTO " + table + " (";
  std::string placeholders;
  std::vector<const ZKValue*> bound;
  bound.reserve(values.size());
  for (const auto& [key, value] : values) {
    if (key == "pkid" || !contains(columns, key)) continue;
    sql += key + ",";
    placeholders += "?,";
    bound.push_back(&value);
  }
  sql.pop_back();
  if (!placeholders.empty()) placeholders.pop_back();
  sql += ") values (" + placeholders + ")";

  SQLite::Statement& insert = cachedLocked(sql);
  for (std::size_t i = 0; i < bound.size(); ++i) {
    bindValue(insert, static_cast<int>(i + 1), *bound[i]);
  }
  insert.exec();
  insert.tryReset();
  insert.clearBindings();  // the bound text belongs to the caller
  return true;
}

bool ZKFMDB::insertRecordLocked(const std::string& table, const ZKRecord& record) {
  if (const auto* row = std::get_if<ZKRow>(&record)) return insertLocked(table, *row);
  const auto& model = std::get<std::shared_ptr<ZKModelObject>>(record);
  if (!model) return false;
  return insertLocked(table, getModelPropertyKeyValue(*model, table, columnsLocked(table)));
}

bool ZKFMDB::zk_insertTable(const std::string& table, const ZKRow& dictionary) {
  return guarded("insert", false, [&] { return insertLocked(table, dictionary); });
}

bool ZKFMDB::zk_insertTable(const std::string& table, const ZKModelObject& model) {
  return guarded("insert", false, [&] {
    return insertLocked(table, getModelPropertyKeyValue(model, table, columnsLocked(table)));
  });
}

std::vector<std::size_t> ZKFMDB::zk_insertTable(const std::string& table,
                                                const std::vector<ZKRecord>& dicOrModelArray) {
  std::vector<std::size_t> failed;
  for (std::size_t i = 0; i < dicOrModelArray.size(); ++i) {
    bool inserted =
        guarded("insert", false, [&] { return insertRecordLocked(table, dicOrModelArray[i]); });
    if (!inserted) failed.push_back(i);
  }
  return failed;
}

bool ZKFMDB::zk_deleteTable1(const std::string& table, const std::string& whereFormat,
                             const ZKArgs& args) {
  const std::string where = formatWhere(whereFormat, args);
  if (where.find_first_not_of(" \t\n") == std::string::npos) {
    // Emptying a table is zk_deleteAllDataFromTable; a missing where clause
    // is a caller's mistake, not a request to delete everything.
    support::warn("ZKFMDB: delete from " + table + " without a where clause refused");
    return false;
  }
  return execute("delete", "delete from " + table + "  " + where);
}

bool ZKFMDB::zk_deleteTable(const std::string& table, const std::string& whereFormat,
                            const std::optional<std::string>& requestId) {
  // Hot path: "WHERE <column> = %@" with a canonical integer is the same
  // statement as the pasted text, so one prepared statement with the number
  // bound serves every id. Anything else is pasted as it is.
  if (requestId) {
    auto number = canonicalInteger(*requestId);
    auto column = number ? singleEqualityColumn(whereFormat) : std::nullopt;
    if (column) {
      return guarded("delete", false, [&] {
        SQLite::Statement& statement =
            cachedLocked("delete from " + table + "  WHERE " + *column + " = ?");
        statement.bind(1, *number);
        statement.exec();
        statement.tryReset();
        return true;
      });
    }
  }
  return zk_deleteTable1(table, whereFormat,
                         {requestId ? ZKValue(*requestId) : ZKValue(std::monostate{})});
}

bool ZKFMDB::updateWith(const std::string& table,
                        const std::function<ZKRow(const std::vector<std::string>&)>& values,
                        const std::string& whereFormat, const ZKArgs& args) {
  const std::string where = formatWhere(whereFormat, args);
  return guarded("update", false, [&] {
    const std::vector<std::string> columns = columnsLocked(table);
    std::string sql = "update " + table + " set ";
    ZKArgs bound;
    for (const auto& [key, value] : values(columns)) {
      if (key == "pkid" || !contains(columns, key)) continue;
      sql += key + " = ?,";
      bound.push_back(value);
    }
    sql.pop_back();
    if (!where.empty()) sql += " " + where;
    return executeLocked(sql, bound);
  });
}

bool ZKFMDB::zk_updateTable(const std::string& table, const ZKRow& dictionary,
                            const std::string& whereFormat, const ZKArgs& args) {
  return updateWith(
      table, [&](const std::vector<std::string>&) { return dictionary; }, whereFormat, args);
}

bool ZKFMDB::zk_updateTable(const std::string& table, const ZKModelObject& model,
                            const std::string& whereFormat, const ZKArgs& args) {
  return updateWith(
      table,
      [&](const std::vector<std::string>& columns) {
        return getModelPropertyKeyValue(model, table, columns);
      },
      whereFormat, args);
}

std::vector<ZKRecord> ZKFMDB::zk_lookupTable(const std::string& table, const ZKShape& shape,
                                             const std::string& whereFormat, const ZKArgs& args) {
  const ZKModelDescription* model = shape.model();
  const ZKColumns* dictionary = shape.columns();
  if (!model && !dictionary) return {};
  const std::string sql = "select * from " + table + " " + formatWhere(whereFormat, args);
  // Rows read before an error are kept: one bad page must not hide the rest.
  std::vector<ZKRecord> result;
  guarded("lookup", false, [&] {
    SQLite::Statement query(*db_, sql);
    std::unordered_map<std::string, int> indexes;
    for (int i = 0; i < query.getColumnCount(); ++i) indexes[query.getColumnName(i)] = i;

    // The columns to read, in table order for models, in shape order for
    // dictionaries; names the result does not have are skipped.
    std::vector<std::tuple<std::string, std::string, int>> reads;
    if (dictionary) {
      for (const auto& [name, type] : *dictionary) {
        if (auto it = indexes.find(name); it != indexes.end()) reads.emplace_back(name, type, it->second);
      }
    } else {
      ZKColumns modelColumns = modelToDictionary(*model, {});
      for (const auto& name : columnsLocked(table)) {
        auto type = modelColumns.find(name);
        auto index = indexes.find(name);
        if (type != modelColumns.end() && index != indexes.end()) {
          reads.emplace_back(name, type->second, index->second);
        }
      }
    }

    const auto pkid = indexes.find("pkid");
    while (query.executeStep()) {
      if (dictionary) {
        ZKRow row;
        for (const auto& [name, type, index] : reads) {
          ZKValue value = readColumn(query, index, type);
          if (!zkIsNull(value)) row[name] = std::move(value);
        }
        result.emplace_back(std::move(row));
      } else {
        std::shared_ptr<ZKModelObject> object = model->make();
        for (const auto& [name, type, index] : reads) {
          ZKValue value = readColumn(query, index, type);
          const ZKPropertyDescription* property = model->property(name);
          if (!zkIsNull(value) && property && property->set) property->set(*object, value);
        }
        if (pkid != indexes.end()) object->zk_setPrimaryKey(query.getColumn(pkid->second).getInt64());
        result.emplace_back(std::move(object));
      }
    }
    return true;
  });
  return result;
}

std::vector<ZKRecord> ZKFMDB::zk_lookupTableWrapper(const std::string& table, const ZKShape& shape,
                                                    const std::optional<std::string>& where) {
  return zk_lookupTable(table, shape, where.value_or(""), {});
}

// ---------------------------------------------------------------- queue

void ZKFMDB::zk_inDatabase(const std::function<void()>& block) {
  if (!block) return;
  dbQueue().sync(block);
}

bool ZKFMDB::zk_inTransaction(const std::function<void(bool& rollback)>& block) {
  if (!block) return false;
  bool committed = false;
  dbQueue().sync([&] {
    // Kept prepared, like the statements of the hot paths: every event's
    // insert runs in a transaction of its own.
    const bool began = executeCached("begin transaction", "BEGIN EXCLUSIVE TRANSACTION");
    bool rollback = false;
    try {
      block(rollback);
    } catch (const std::exception& error) {
      support::warn(std::string("ZKFMDB: a transaction block failed: ") + error.what());
      rollback = true;
    } catch (...) {
      support::warn("ZKFMDB: a transaction block failed");
      rollback = true;
    }
    if (began) {
      const bool ended = executeCached(rollback ? "rollback" : "commit",
                                       rollback ? "ROLLBACK TRANSACTION" : "COMMIT TRANSACTION");
      committed = ended && !rollback;
    }
  });
  return committed;
}

}  // namespace velquin
