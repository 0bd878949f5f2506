// ZKFMDB: a small table mapper over one SQLite file (through SQLiteCpp).
// It turns a model type or a column dictionary into a table definition,
// model objects or row dictionaries into rows and rows back, and builds
// every statement from text templates.
//
// Where formats: C++ has no variadic formatting with objects, so every
// operation that takes a where format takes it with a vector of argument
// values (ZKArgs). Each "%@" in the format is replaced by the text of the
// next argument, pasted unquoted: text as it is, integers in decimal, reals
// in their shortest round-trip form, NULL as "(null)", bytes as "<hex>".
// "%%" gives "%". A "%@" with no argument left is kept as it is; extra
// arguments are ignored. Pasted text is not escaped: callers pass trusted
// names, and quote string values in their format.
//
// Values are bound as statement arguments in insert and update. Table
// names, column names and type words are pasted into the statement text.
//
// Ownership and threads: shareDatabase() returns a process-wide instance
// that is never destroyed (a non-owning pointer); initWithDBName() returns
// an owned, unshared one. Every operation may be called from any thread:
// one internal mutex (mutex_) serialises use of the connection, so direct
// calls never race in memory. Whole units of work that must not interleave
// with other threads' work run on the serial queue through zk_inDatabase /
// zk_inTransaction (the request cache does so for every read and write).
// No exception leaves this class: SQLite errors become false / 0 / empty
// results and one support::warn line. A file SQLite reports as corrupt is
// renamed aside (never deleted) and a fresh database is opened in its place,
// with every table and row that could still be read from the damaged file.
// The file is created readable by its owner only.
//
// A damaged write-ahead log is never silent: SQLite's recovery drops every
// frame after the first one whose checksum fails. When an instance opens
// the file while no other instance (of any process) has it open, a log left
// behind is surveyed first (WalSurvey); if committed transactions lie past
// a break, the log is copied aside as "<database>.wal-damaged-<time>" (kept,
// never deleted) before SQLite recovers it, and one warning names the copy
// and the frames lost. A transaction cut short at the end of the log (the
// process died while appending it) is no damage: it never committed, and
// nobody was told it was stored. Instances tell each other apart through
// the side file "<database>.lock": each holds a shared open file
// description lock on it while it may use the database, and takes it
// exclusively for the check at open.
//
// Checkpoints never run inside a commit: once the log holds 1000 frames a
// commit hands a passive checkpoint to a thread of its own, on a second
// connection, and writers go on meanwhile.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "delivery/ModelRegistry.h"
#include "delivery/WalSurvey.h"
#include "support/SerialQueue.h"

struct sqlite3;

namespace SQLite {
class Database;
class Statement;
class Exception;
}  // namespace SQLite

namespace velquin {

// The shape of a table: a column dictionary or a model. A model is named by
// its description (by type: ZKShape::of<T>()), by its registered name (a name
// registered by no model counts as no model) or by an instance.
class ZKShape {
 public:
  ZKShape(ZKColumns columns) : value_(std::move(columns)) {}                      // NOLINT
  ZKShape(const ZKModelDescription& model) : value_(&model) {}                    // NOLINT
  ZKShape(const ZKModelObject& object) : value_(&object.zk_modelDescription()) {}  // NOLINT
  static ZKShape named(const std::string& modelName);
  template <class Model>
  static ZKShape of() {
    return ZKShape(Model::zk_model());
  }

  // The column dictionary, for dictionary shapes.
  const ZKColumns* columns() const { return std::get_if<ZKColumns>(&value_); }
  // The model, for model shapes that name a registered model.
  const ZKModelDescription* model() const;

 private:
  explicit ZKShape(const ZKModelDescription* model) : value_(model) {}
  std::variant<ZKColumns, const ZKModelDescription*> value_;
};

// One element of an insert array or a lookup result: a row dictionary or a
// model object.
using ZKRecord = std::variant<ZKRow, std::shared_ptr<ZKModelObject>>;
using ZKArgs = std::vector<ZKValue>;
using ZKNames = std::vector<std::string>;

class ZKFMDB {
 public:
  static constexpr const char* kDefaultName = "ZKFMDB.sqlite";

  // The shared instance, opened on first success in `folder`/`name`
  // (defaults: "ZKFMDB.sqlite" in Bundle::main().dataDirectory(), created
  // when missing). Later calls ignore name and folder and re-open the
  // connection when it was closed. Null, after the warn line
  // "database can not open !", when it cannot be opened; the next call tries
  // again. Thread-safe.
  static ZKFMDB* shareDatabase(const std::optional<std::string>& name = std::nullopt,
                               const std::optional<std::filesystem::path>& folder = std::nullopt);
  // A new, unshared instance; null when the file cannot be opened.
  static std::unique_ptr<ZKFMDB> initWithDBName(
      const std::optional<std::string>& name,
      const std::optional<std::filesystem::path>& folder = std::nullopt);

  ~ZKFMDB();
  ZKFMDB(const ZKFMDB&) = delete;
  ZKFMDB& operator=(const ZKFMDB&) = delete;

  const std::filesystem::path& dbPath() const { return dbPath_; }
  // Waits until the checkpoints scheduled so far have run (for tests).
  void drainCheckpoints();
  // The serial database queue, created at first use. Its blocks and the
  // direct operations share one connection.
  support::SerialQueue& dbQueue();
  // Opens the connection (succeeds when it is open already). WAL journal,
  // synchronous=NORMAL; a corrupt file is moved aside first.
  bool open();
  void close();

  // --- tables -------------------------------------------------------------
  bool zk_createTable(const std::string& table, const ZKShape& shape,
                      const ZKNames& excludeName = {});
  // The CREATE statements, not executed: "CREATE TABLE t (pkid  INTEGER
  // PRIMARY KEY, a TEXT, ...)" (two blanks after pkid) for dictionaries,
  // "... (pkid INTEGER PRIMARY KEY, ..." (one blank) for models.
  std::string createTable(const std::string& table, const ZKColumns& dictionary,
                          const ZKNames& excludeName) const;
  std::string createTable(const std::string& table, const ZKModelDescription& model,
                          const ZKNames& excludeName) const;
  // "DROP TABLE t".
  bool zk_deleteTable(const std::string& table);
  // "DELETE FROM t".
  bool zk_deleteAllDataFromTable(const std::string& table);
  bool zk_isExistTable(const std::string& table);
  // Column names in table order, pkid first; empty for a missing table.
  std::vector<std::string> zk_columnNameArray(const std::string& table);
  std::vector<std::string> getColumnArr(const std::string& table);
  std::int64_t zk_tableItemCount(const std::string& table);
  // pkid of the row with the largest pkid; 0 when there is none.
  std::int64_t lastInsertPrimaryKeyId(const std::string& table);
  // The rowid of the last successful insert on this connection (another
  // process's inserts never change it); 0 before any.
  std::int64_t lastInsertRowId();
  // Adds missing columns inside one transaction; false when nothing was
  // added or any ALTER failed (then all of them are undone). Dictionary
  // shapes do not skip existing columns, so naming one fails.
  bool zk_alterTable(const std::string& table, const ZKShape& shape,
                     const ZKNames& excludeName = {});

  // --- rows ---------------------------------------------------------------
  // Inserts the entries whose keys are columns of the table (pkid never);
  // other keys are dropped. No matching key makes an invalid statement.
  bool zk_insertTable(const std::string& table, const ZKRow& dictionary);
  bool zk_insertTable(const std::string& table, const ZKModelObject& model);
  // Inserts each element in order, no transaction; returns the zero-based
  // indexes of the elements that failed.
  std::vector<std::size_t> zk_insertTable(const std::string& table,
                                          const std::vector<ZKRecord>& dicOrModelArray);
  // "delete from t  <where>" (two blanks). A where format is required.
  bool zk_deleteTable1(const std::string& table, const std::string& whereFormat,
                       const ZKArgs& args = {});
  // The same with one argument given as text (absent pastes "(null)").
  bool zk_deleteTable(const std::string& table, const std::string& whereFormat,
                      const std::optional<std::string>& requestId);
  bool zk_updateTable(const std::string& table, const ZKRow& dictionary,
                      const std::string& whereFormat = "", const ZKArgs& args = {});
  bool zk_updateTable(const std::string& table, const ZKModelObject& model,
                      const std::string& whereFormat = "", const ZKArgs& args = {});
  // "select * from t <where>": dictionaries (for dictionary shapes) or fresh
  // model objects, in the order SQLite returns the rows. A shape naming no
  // model gives an empty result. Text and byte columns holding NULL are left
  // out of dictionaries and left unset on models.
  std::vector<ZKRecord> zk_lookupTable(const std::string& table, const ZKShape& shape,
                                       const std::string& whereFormat = "",
                                       const ZKArgs& args = {});
  std::vector<ZKRecord> zk_lookupTableWrapper(const std::string& table, const ZKShape& shape,
                                              const std::optional<std::string>& where);

  // Runs one statement with no arguments (indexes, pragmas).
  bool zk_executeUpdate(const std::string& sql);
  // Moves the write-ahead log into the database file and empties it without
  // waiting for anyone: another process's writer or readers are never held
  // up (a waiting checkpoint holds the writer lock against their inserts).
  // What they still use stays in the log. True when the log was emptied.
  bool zk_checkpointWithoutWaiting();
  // Runs one statement with `args` bound to its "?" parameters, kept
  // prepared for the next call with the same text (hot paths).
  bool zk_executePrepared(const std::string& sql, const ZKArgs& args);
  // Runs a query with `args` bound, kept prepared; the first column of each
  // result row as an integer (NULL reads as 0). Empty on failure.
  std::vector<std::int64_t> zk_queryIntegers(const std::string& sql, const ZKArgs& args = {});
  // Rows changed by the last insert, update or delete of this connection.
  std::int64_t zk_changes();

  // --- queue --------------------------------------------------------------
  // Runs `block` on the serial database queue and waits for it.
  void zk_inDatabase(const std::function<void()>& block);
  // Runs `block` inside "BEGIN EXCLUSIVE TRANSACTION" on the queue; commits
  // unless the block sets the flag (or throws), then rolls back. When the
  // transaction cannot begin (e.g. one is open already) the block still
  // runs, and nothing is committed or rolled back afterwards. True when the
  // transaction began and committed.
  bool zk_inTransaction(const std::function<void(bool& rollback)>& block);

  // --- model mapping ------------------------------------------------------
  // Property name -> current value for the object's own properties named in
  // `clomnArr`; NULL values are left out. `table` is not used.
  static ZKRow getModelPropertyKeyValue(const ZKModelObject& model, const std::string& table,
                                        const std::vector<std::string>& clomnArr);
  // Property name -> column type word, in declaration order, leaving out
  // excluded names and properties that have no column type.
  static ZKColumns modelToDictionary(const ZKModelDescription& model,
                                     const ZKNames& excludePropertyName);
  // "TEXT", "BLOB", "INTEGER", "REAL" or none for a type encoding.
  static std::optional<std::string> propertTypeConvert(const std::string& attributes);
  // Substitutes `args` for the "%@" of `format` (see the top of this file).
  static std::string formatWhere(const std::string& format, const ZKArgs& args);

 private:
  explicit ZKFMDB(std::filesystem::path path);

  // Log frames after which a commit schedules a checkpoint (SQLite's own
  // automatic checkpoint would run inside that commit, at the same size).
  static constexpr int kCheckpointFrames = 1000;
  // How long the checkpoint thread waits for writers and readers when the
  // log has grown past twice the mark.
  static constexpr int kRestartWaitMs = 100;
  // SQLite's commit hook for the log (sqlite3_wal_hook); runs on the
  // committing thread.
  static int walCommitted(void* self, sqlite3* db, const char* name, int frames);
  support::SerialQueue& checkpointQueue();
  // A passive checkpoint on the checkpoint connection (checkpoint thread).
  void checkpointPassive();

  // A log found at open: its survey, and where a damaged one was copied.
  struct WalCheck {
    WalSurvey survey;
    std::string copy;       // empty when none was made
    std::string copyError;  // why a copy could not be made
  };

  bool openLocked();
  // Takes the side file's lock exclusively; true when no other instance
  // (of this or another process) has the database open.
  bool lockForOpenLocked();
  // Back to the shared lock held while this instance may use the file.
  void shareOpenLockLocked();
  // Before SQLite opens the file: surveys the log, copies a damaged one.
  WalCheck inspectWalLocked();
  // After it opened: logs one warning when committed frames were dropped.
  void reportWalLocked(const WalCheck& check);
  bool openFileLocked(bool& corrupt, std::string& reason);
  // Renames the file (and its WAL) aside; the new name, empty on failure.
  std::string moveAsideLocked(const std::string& reason);
  // Copies every table and every row that can still be read from the
  // damaged file `aside` into the fresh database.
  void salvageLocked(const std::string& aside);
  void closeLocked();
  // Runs `body` under mutex_ on an open connection; SQLite errors are
  // logged, a corrupt file is recovered, and `failure` is returned.
  template <class Result, class Body>
  Result guarded(const char* what, Result failure, Body&& body);
  void reportLocked(const char* what, const SQLite::Exception& error, bool& corrupt);
  SQLite::Statement& cachedLocked(const std::string& sql);
  const std::vector<std::string>& columnsLocked(const std::string& table);
  bool insertLocked(const std::string& table, const ZKRow& values);
  bool insertRecordLocked(const std::string& table, const ZKRecord& record);
  bool executeLocked(const std::string& sql, const ZKArgs& args);
  bool execute(const char* what, const std::string& sql, const ZKArgs& args = {});
  // execute() with the statement kept prepared for the next call.
  bool executeCached(const char* what, const std::string& sql, const ZKArgs& args = {});
  bool updateWith(const std::string& table, const std::function<ZKRow(const std::vector<std::string>&)>& values,
                  const std::string& whereFormat, const ZKArgs& args);

  const std::filesystem::path dbPath_;

  std::mutex mutex_;
  std::unique_ptr<SQLite::Database> db_;  // guarded by mutex_; null while closed
  // Prepared statements of the hot paths, by statement text.
  std::unordered_map<std::string, std::unique_ptr<SQLite::Statement>>
      statements_;  // guarded by mutex_
  // Column names per table, valid while the process-wide schema generation
  // equals columnsGeneration_.
  std::unordered_map<std::string, std::vector<std::string>> columns_;  // guarded by mutex_
  std::uint64_t columnsGeneration_ = 0;                                // guarded by mutex_

  // The side file "<database>.lock": shared-locked (an open file
  // description lock) while this instance may use the database, taken
  // exclusively for the log check at open. -1 until the first open, or
  // when the file cannot be made.
  int openLock_ = -1;  // guarded by mutex_

  std::mutex queueMutex_;
  std::unique_ptr<support::SerialQueue> dbQueue_;  // guarded by queueMutex_; set once
  // Runs checkpoints; created at the first one.
  std::unique_ptr<support::SerialQueue> checkpointQueue_;  // guarded by queueMutex_

  // Lock order: mutex_ before checkpointMutex_.
  std::mutex checkpointMutex_;
  // A second connection, used only to checkpoint, so that copying the log
  // into the file never holds up a commit on db_.
  std::unique_ptr<SQLite::Database> checkpointDb_;  // guarded by checkpointMutex_
  std::atomic<bool> checkpointScheduled_{false};    // set by a commit, cleared by the checkpoint
};

}  // namespace velquin
