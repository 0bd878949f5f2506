// OVRequest: the envelope of one analytics request, and the row type of the
// request cache's table "user" (columns retryCount INTEGER, requestId TEXT,
// reliability INTEGER, paramStr TEXT after pkid; params has no column).
//
// Rules:
// - setParams() stores the parameters and, when they are present and
//   reliability is 1, sets paramStr to their pretty-printed JSON text.
// - setReliability() stores it; 2 also sets retryCount to 1; then params are
//   set again so paramStr follows the rule above.
// - reduceRetryCount() lowers retryCount by one, never below 0.
// - Two envelopes are equal when they are the same object or hold the very
//   same requestId object. The id is a shared, immutable string: copies of an
//   envelope share it, so they stay equal to their source, while an envelope
//   given an equal text of its own is a different request. Envelopes without
//   an id are equal only to themselves.
// - A copy carries all five properties and the row id; its paramStr is recomputed from its
//   params and then replaced by the source's paramStr.
//
// Ownership and threads: a plain value owned by its holder; not safe for
// concurrent use (the request manager hands envelopes between its queues).
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "delivery/ModelRegistry.h"

namespace velquin {

class OVRequest final : public ZKModelObject {
 public:
  using RequestId = std::shared_ptr<const std::string>;

  // retryCount 3, reliability 1, no id, no params, no paramStr.
  OVRequest() = default;
  OVRequest(const OVRequest& other);
  OVRequest& operator=(const OVRequest& other);
  ~OVRequest() override = default;

  std::int32_t retryCount() const { return retryCount_; }
  void setRetryCount(std::int32_t retryCount) { retryCount_ = retryCount; }
  void reduceRetryCount();

  const RequestId& requestId() const { return requestId_; }
  void setRequestId(RequestId requestId) { requestId_ = std::move(requestId); }
  // Gives the envelope a new id object holding `text`.
  void setRequestId(const std::string& text);
  // The id's text, empty when there is none.
  std::string requestIdText() const { return requestId_ ? *requestId_ : std::string(); }

  const std::optional<nlohmann::json>& params() const { return params_; }
  void setParams(std::optional<nlohmann::json> params);

  std::int64_t reliability() const { return reliability_; }
  void setReliability(std::int64_t reliability);

  const std::optional<std::string>& paramStr() const { return paramStr_; }
  void setParamStr(std::optional<std::string> paramStr) { paramStr_ = std::move(paramStr); }

  // A restored envelope carries its parameters only as text: parses
  // paramStr into params when params are absent. On a failure (no text,
  // not JSON, not a JSON object) params stay absent, `error` says why and
  // the result is false. True when params are present afterwards.
  bool restoreParamsFromParamStr(std::string& error);

  bool operator==(const OVRequest& other) const;

  // The cached row this envelope was written to or read from (its pkid):
  // the identity the request manager queues and deletes by, unique across
  // processes sharing the file, unlike the request id. Not a column of its
  // own; absent for an envelope that was never cached.
  const std::optional<std::int64_t>& rowId() const { return rowId_; }
  void setRowId(std::optional<std::int64_t> rowId) { rowId_ = rowId; }
  void zk_setPrimaryKey(std::int64_t pkid) override { rowId_ = pkid; }

  // Class-level metadata; the table store does not consult it.
  static const char* primaryKey() { return "requestId"; }
  static std::vector<std::string> ignoredProperties() { return {"params"}; }

  // The registered model description (name "OVRequest").
  static const ZKModelDescription& zk_model();
  const ZKModelDescription& zk_modelDescription() const override { return zk_model(); }

 private:
  std::int32_t retryCount_ = 3;
  RequestId requestId_;
  std::optional<nlohmann::json> params_;
  std::int64_t reliability_ = 1;
  std::optional<std::string> paramStr_;
  std::optional<std::int64_t> rowId_;
};

}  // namespace velquin
