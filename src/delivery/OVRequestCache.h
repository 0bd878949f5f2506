// OVRequestCache: the table "user" of unsent analytics requests in the
// shared table store. Rows are written before a request is sent and deleted
// once the backend has taken it, so requests survive failed sends, killed
// processes and crashes.
//
// Without a store (the file cannot be opened: read-only or missing data
// folder, ...) the cache logs once with support::warn and every operation
// does nothing: analytics are then sent without being cached (and their
// callers told so) rather than the host being stopped, since the library
// must never take the host process down.
//
// Ownership and threads: shared() lives for the process; other instances
// (over a store the caller owns, which must outlive them) serve tests and
// tools. Any thread may call every operation; each read and write runs
// synchronously on the store's serial database queue. The completion of
// allRequestsFromFmdbWihtClass runs on that queue; calling the cache from
// inside it is allowed (it runs inline) but blocks the queue meanwhile.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "delivery/AckLog.h"
#include "delivery/OVRequest.h"
#include "delivery/ZKFMDB.h"

namespace velquin {

class OVRequestCache {
 public:
  static constexpr const char* kTableName = "user";
  static constexpr const char* kFatalCrashEventName = "falal_crash";
  // Rows kept at most unless the host sets another cap: about 60 MB of
  // typical events, days of a busy app's analytics with the backend down.
  static constexpr std::int64_t kDefaultRowCap = 500000;

  // Over ZKFMDB::shareDatabase(); made by the composition root.
  static OVRequestCache& shared();
  // Over `store` (null: a disabled cache). Creates the table when missing.
  explicit OVRequestCache(ZKFMDB* store);

  // False when there is no store and every operation does nothing.
  bool isAvailable() const { return store_ != nullptr; }
  // The side file of row leases next to the database (RowLeases); empty
  // without a store.
  std::filesystem::path leaseFile() const {
    return store_ ? std::filesystem::path(store_->dbPath().string() + ".leases")
                  : std::filesystem::path();
  }

  // The acknowledgement log next to the database (AckLog); empty without a
  // store.
  std::filesystem::path ackFile() const {
    return store_ ? std::filesystem::path(store_->dbPath().string() + ".acks")
                  : std::filesystem::path();
  }

  // Inserts the envelope's row and returns its pkid; none when the row
  // could not be written (the store logs why). `inserted`, when given, runs
  // on the database queue inside the insert's transaction, before any other
  // reader (of this process or another) can see the row; when the
  // transaction then fails to commit the result is none.
  std::optional<std::int64_t> addRequest(
      const OVRequest& request, const std::function<void(std::int64_t rowId)>& inserted = nullptr);
  // The cap on cached rows (0: none) of every cache of the process, applied
  // by every insert: the rows whose pkid is `cap` or more below the new
  // row's go, oldest first, so at most `cap` rows stay. Any thread, also
  // before any cache exists.
  static void setRowCap(std::int64_t rows) { rowCap_ = rows < 0 ? 0 : rows; }
  static std::int64_t rowCap() { return rowCap_.load(); }
  // Rows dropped over the cap since the last call.
  std::int64_t takeDropped() { return dropped_.exchange(0); }
  using PageBlock =
      std::function<void(const std::vector<std::shared_ptr<OVRequest>>& rows, bool last)>;
  // Up to `limit` rows with a pkid above `after`, in pkid order, restored as
  // allRequestsFromFmdbWihtClass does; `last` when no row follows them.
  // `block` runs on the database queue (nothing is written meanwhile); not
  // called without a store.
  void requestsAfter(std::int64_t after, int limit, const PageBlock& block);
  // Which of these pkids are still cached.
  std::unordered_set<std::int64_t> existingRows(const std::vector<std::int64_t>& rowIds);
  // Deletes, in one transaction, the acknowledged rows whose request id
  // still hashes to the recorded one (a row replaced since keeps its
  // place); true when it committed.
  bool deleteAcknowledged(const std::vector<AckLog::Entry>& entries);
  // Deletes the rows with this id. Ids are decimal numbers compared as
  // numbers; any other id (or none) deletes nothing.
  void deleteRequest(const std::optional<std::string>& requestId);
  // deleteRequest for many ids, in one transaction.
  void deleteRequests(const std::vector<std::string>& requestIds);
  // Deletes the rows with these pkids in one transaction; true when it
  // committed (every row is then gone).
  bool deleteRows(const std::vector<std::int64_t>& rowIds);
  using FinishBlock =
      std::function<void(const std::optional<std::vector<std::shared_ptr<OVRequest>>>&)>;
  // Every row restored as a fresh envelope (params absent, paramStr as
  // stored, rowId its pkid), in table order; nullopt when there is no store.
  void allRequestsFromFmdbWihtClass(const ZKModelDescription& rowModel,
                                    const FinishBlock& finishBlock);
  // Writes a "falal_crash" event for the next start to send, built by the
  // event envelope maker: eventValue = `description` when given, userId
  // when not empty, `requestNumber` the device's advanced request counter.
  // True when the row is committed.
  bool writeFatalCrash(const std::optional<std::string>& description, const std::string& userId,
                       std::int64_t requestNumber);
  // Rows in the cache; with an id, the rows carrying that id.
  std::int64_t rowCount(const std::optional<std::string>& requestId = std::nullopt);
  // Moves the write-ahead log into the database file and empties it; true
  // when it did. For a clean exit: it never waits for, nor holds up, another
  // process using the cache (what that one still reads stays in the log).
  bool checkpoint();
  // The numerically largest cached request id, if any row has one.
  std::optional<std::int64_t> largestRequestId();

 private:
  ZKFMDB* const store_;  // not owned; immutable; null when the store is absent
  static inline std::atomic<std::int64_t> rowCap_{kDefaultRowCap};
  std::atomic<std::int64_t> dropped_{0};
};

}  // namespace velquin
