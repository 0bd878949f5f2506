#include "delivery/OVRequestCache.h"

#include <algorithm>
#include <unordered_map>

#include "delivery/EventEnvelope.h"
#include "support/Console.h"

namespace velquin {
namespace {

// A plain decimal number ("123", "12.5"): pasted into the where clause it
// compares numerically, and nothing else can ride along into the statement.
bool isBareNumber(const std::string& text) {
  bool digit = false;
  bool point = false;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      digit = true;
    } else if (c == '.' && !point) {
      point = true;
    } else {
      return false;
    }
  }
  return digit;
}

}  // namespace

OVRequestCache::OVRequestCache(ZKFMDB* store) : store_(store) {
  if (!store_) {
    support::warn(
        "request cache: the local database is unavailable; analytics requests will "
        "not be cached");
    return;
  }
  store_->zk_inDatabase([this] {
    if (!store_->zk_isExistTable(kTableName)) {
      store_->zk_createTable(kTableName, OVRequest::zk_model());
    }
    // Rows are deleted by pkid, which needs no index of its own; an index
    // on requestId (made by earlier versions) would only add a page to
    // every insert and every delete.
    store_->zk_executeUpdate("DROP INDEX IF EXISTS user_requestId");
  });
}

std::int64_t OVRequestCache::rowCount(const std::optional<std::string>& requestId) {
  if (!store_) return 0;
  std::int64_t count = 0;
  store_->zk_inDatabase([&] {
    if (!requestId) {
      count = store_->zk_tableItemCount(kTableName);
      return;
    }
    ZKColumns shape;
    shape["requestId"] = "TEXT";
    count = static_cast<std::int64_t>(
        store_->zk_lookupTable(kTableName, shape, "WHERE requestId = %@", {*requestId}).size());
  });
  return count;
}

std::optional<std::int64_t> OVRequestCache::largestRequestId() {
  if (!store_) return std::nullopt;
  std::optional<std::int64_t> largest;
  store_->zk_inDatabase([&] {
    ZKColumns shape;
    shape["requestId"] = "TEXT";
    auto rows = store_->zk_lookupTable(kTableName, shape,
                                       "ORDER BY CAST(requestId AS INTEGER) DESC LIMIT 1");
    if (rows.empty()) return;
    const auto& row = std::get<ZKRow>(rows.front());
    auto id = row.find("requestId");
    if (id == row.end()) return;
    try {
      if (auto text = zkToText(id->second)) largest = std::stoll(*text);
    } catch (const std::exception&) {
    }
  });
  return largest;
}

bool OVRequestCache::checkpoint() {
  if (!store_) return false;
  bool done = false;
  store_->zk_inDatabase([&] { done = store_->zk_checkpointWithoutWaiting(); });
  return done;
}

std::optional<std::int64_t> OVRequestCache::addRequest(
    const OVRequest& request, const std::function<void(std::int64_t rowId)>& inserted) {
  if (!store_) return std::nullopt;
  std::optional<std::int64_t> rowId;
  // One transaction: `inserted` runs before the row is visible to any
  // other connection, so another process sharing the file can never read
  // it before its writer has claimed it.
  const bool committed = store_->zk_inTransaction([&](bool& rollback) {
    bool written = store_->zk_insertTable(kTableName, request);
    // The file may have been replaced after corruption: recreate the table
    // and try once more.
    if (!written && !store_->zk_isExistTable(kTableName) &&
        store_->zk_createTable(kTableName, OVRequest::zk_model())) {
      written = store_->zk_insertTable(kTableName, request);
    }
    if (!written) {
      rollback = true;
      return;
    }
    rowId = store_->lastInsertRowId();
    // Over the cap the oldest rows go in the same commit. Row ids only
    // grow while rows remain, so the ones `cap` or more below the new row
    // are the oldest, and at most `cap` rows stay; the range delete costs
    // one seek when there is nothing to drop.
    if (const std::int64_t cap = rowCap_.load(); cap > 0 && *rowId > cap) {
      if (store_->zk_executePrepared("DELETE FROM user WHERE pkid <= ?", {*rowId - cap})) {
        if (const std::int64_t gone = store_->zk_changes(); gone > 0) dropped_ += gone;
      }
    }
    if (inserted) inserted(*rowId);
  });
  if (!committed) return std::nullopt;
  return rowId;
}

bool OVRequestCache::deleteRows(const std::vector<std::int64_t>& rowIds) {
  if (!store_) return false;
  if (rowIds.empty()) return true;
  // One statement per batch of up to 8 rows, kept prepared: one statement
  // commits on its own, and the same few texts come back all the time.
  constexpr std::size_t kBatch = 8;
  bool deleted = true;
  store_->zk_inDatabase([&] {
    for (std::size_t first = 0; first < rowIds.size() && deleted; first += kBatch) {
      const std::size_t count = std::min(kBatch, rowIds.size() - first);
      std::string sql = "DELETE FROM user WHERE pkid IN (?";
      for (std::size_t i = 1; i < count; ++i) sql += ",?";
      sql += ")";
      ZKArgs args(rowIds.begin() + static_cast<std::ptrdiff_t>(first),
                  rowIds.begin() + static_cast<std::ptrdiff_t>(first + count));
      deleted = store_->zk_executePrepared(sql, args);
    }
  });
  return deleted;
}

bool OVRequestCache::deleteAcknowledged(const std::vector<AckLog::Entry>& entries) {
  if (!store_) return false;
  if (entries.empty()) return true;
  std::unordered_map<std::int64_t, std::uint64_t> hashes;
  for (const auto& entry : entries) hashes[entry.rowId] = entry.idHash;
  return store_->zk_inTransaction([&](bool& rollback) {
    std::string where = "WHERE pkid IN (";
    ZKArgs args;
    for (const auto& [rowId, hash] : hashes) {
      where += args.empty() ? "%@" : ",%@";
      args.emplace_back(rowId);
    }
    where += ")";
    ZKColumns shape;
    shape["pkid"] = "INTEGER";
    shape["requestId"] = "TEXT";
    std::vector<std::int64_t> matching;
    for (const auto& record : store_->zk_lookupTable(kTableName, shape, where, args)) {
      const auto& row = std::get<ZKRow>(record);
      auto pkid = row.find("pkid");
      auto id = row.find("requestId");
      if (pkid == row.end()) continue;
      const std::int64_t rowId = zkToInt64(pkid->second);
      const std::string text =
          id == row.end() ? std::string() : zkToText(id->second).value_or(std::string());
      if (hashes[rowId] == AckLog::hashOf(text)) matching.push_back(rowId);
    }
    constexpr std::size_t kBatch = 8;
    for (std::size_t first = 0; first < matching.size(); first += kBatch) {
      const std::size_t count = std::min(kBatch, matching.size() - first);
      std::string sql = "DELETE FROM user WHERE pkid IN (?";
      for (std::size_t i = 1; i < count; ++i) sql += ",?";
      sql += ")";
      ZKArgs ids(matching.begin() + static_cast<std::ptrdiff_t>(first),
                 matching.begin() + static_cast<std::ptrdiff_t>(first + count));
      if (!store_->zk_executePrepared(sql, ids)) {
        rollback = true;
        return;
      }
    }
  });
}

void OVRequestCache::deleteRequest(const std::optional<std::string>& requestId) {
  if (!store_ || !requestId || !isBareNumber(*requestId)) return;
  store_->zk_inDatabase(
      [&] { store_->zk_deleteTable(kTableName, "WHERE requestId = %@", requestId); });
}

void OVRequestCache::deleteRequests(const std::vector<std::string>& requestIds) {
  if (!store_ || requestIds.empty()) return;
  // One transaction for the whole batch: one commit instead of one per row.
  store_->zk_inTransaction([&](bool&) {
    for (const auto& id : requestIds) {
      if (isBareNumber(id)) store_->zk_deleteTable(kTableName, "WHERE requestId = %@", id);
    }
  });
}

void OVRequestCache::allRequestsFromFmdbWihtClass(const ZKModelDescription& rowModel,
                                                  const FinishBlock& finishBlock) {
  if (!store_) {
    if (finishBlock) finishBlock(std::nullopt);
    return;
  }
  store_->zk_inDatabase([&] {
    std::vector<std::shared_ptr<OVRequest>> requests;
    for (auto& record : store_->zk_lookupTable(kTableName, rowModel)) {
      auto* object = std::get_if<std::shared_ptr<ZKModelObject>>(&record);
      if (!object) continue;
      if (auto request = std::dynamic_pointer_cast<OVRequest>(*object)) {
        requests.push_back(std::move(request));
      }
    }
    if (finishBlock) finishBlock(requests);
  });
}

void OVRequestCache::requestsAfter(std::int64_t after, int limit, const PageBlock& block) {
  if (!store_) return;
  store_->zk_inDatabase([&] {
    std::vector<std::shared_ptr<OVRequest>> requests;
    std::size_t read = 0;
    for (auto& record : store_->zk_lookupTable(kTableName, OVRequest::zk_model(),
                                               "WHERE pkid > %@ ORDER BY pkid LIMIT %@",
                                               {after, static_cast<std::int64_t>(limit)})) {
      ++read;
      auto* object = std::get_if<std::shared_ptr<ZKModelObject>>(&record);
      if (!object) continue;
      if (auto request = std::dynamic_pointer_cast<OVRequest>(*object)) {
        requests.push_back(std::move(request));
      }
    }
    if (block) block(requests, read < static_cast<std::size_t>(limit));
  });
}

std::unordered_set<std::int64_t> OVRequestCache::existingRows(
    const std::vector<std::int64_t>& rowIds) {
  std::unordered_set<std::int64_t> existing;
  if (!store_ || rowIds.empty()) return existing;
  std::string sql = "SELECT pkid FROM user WHERE pkid IN (?";
  for (std::size_t i = 1; i < rowIds.size(); ++i) sql += ",?";
  sql += ")";
  const ZKArgs args(rowIds.begin(), rowIds.end());
  store_->zk_inDatabase([&] {
    for (std::int64_t id : store_->zk_queryIntegers(sql, args)) existing.insert(id);
  });
  return existing;
}

bool OVRequestCache::writeFatalCrash(const std::optional<std::string>& description,
                                     const std::string& userId, std::int64_t requestNumber) {
  if (!store_) return false;
  return addRequest(*makeEventEnvelope({kFatalCrashEventName, description, userId, requestNumber}))
      .has_value();
}

}  // namespace velquin
