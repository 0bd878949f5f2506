#include "delivery/OVRequest.h"

#include "support/Console.h"

namespace velquin {
namespace {

std::optional<std::string> textOf(const ZKValue& value) {
  return zkToText(value);
}

ZKValue valueOf(const std::optional<std::string>& text) {
  return text ? ZKValue(*text) : ZKValue(std::monostate{});
}

OVRequest& request(ZKModelObject& object) {
  return static_cast<OVRequest&>(object);
}
const OVRequest& request(const ZKModelObject& object) {
  return static_cast<const OVRequest&>(object);
}

std::unique_ptr<const ZKModelDescription> makeDescription() {
  // Declaration order; it is the column order of the table.
  std::vector<ZKPropertyDescription> properties{
      {"retryCount", "Ti",
       [](const ZKModelObject& o) -> ZKValue { return std::int64_t{request(o).retryCount()}; },
       [](ZKModelObject& o, const ZKValue& v) {
         // Narrowed like a 32-bit property set from a number object.
         request(o).setRetryCount(static_cast<std::int32_t>(zkToInt64(v)));
       }},
      {"requestId", "T@\"NSString\",&,N,V_requestId",
       [](const ZKModelObject& o) -> ZKValue {
         const auto& id = request(o).requestId();
         return id ? ZKValue(*id) : ZKValue(std::monostate{});
       },
       [](ZKModelObject& o, const ZKValue& v) {
         auto text = textOf(v);
         if (text) {
           request(o).setRequestId(*text);
         } else {
           request(o).setRequestId(OVRequest::RequestId());
         }
       }},
      {"params", "T@\"NSDictionary\",&,N,V_params",
       [](const ZKModelObject&) -> ZKValue { return std::monostate{}; }, nullptr},
      {"reliability", "Tq,N,V_reliability",
       [](const ZKModelObject& o) -> ZKValue { return request(o).reliability(); },
       [](ZKModelObject& o, const ZKValue& v) { request(o).setReliability(zkToInt64(v)); }},
      {"paramStr", "T@\"NSString\",&,N,V_paramStr",
       [](const ZKModelObject& o) -> ZKValue { return valueOf(request(o).paramStr()); },
       [](ZKModelObject& o, const ZKValue& v) { request(o).setParamStr(textOf(v)); }},
  };
  return std::make_unique<const ZKModelDescription>("OVRequest", std::move(properties),
                                                    [] { return std::make_unique<OVRequest>(); });
}

// Registers the model when this file is linked, so it can be named by text.
[[maybe_unused]] const ZKModelDescription& registered = OVRequest::zk_model();

}  // namespace

const ZKModelDescription& OVRequest::zk_model() {
  static const ZKModelDescription& model = ZKModelRegistry::shared().add(makeDescription());
  return model;
}

OVRequest::OVRequest(const OVRequest& other) : ZKModelObject(other) {
  *this = other;
}

OVRequest& OVRequest::operator=(const OVRequest& other) {
  if (this == &other) return *this;
  requestId_ = other.requestId_;
  setReliability(other.reliability_);
  setParams(other.params_);
  paramStr_ = other.paramStr_;
  retryCount_ = other.retryCount_;  // carried as it is, after the reliability rule
  rowId_ = other.rowId_;
  return *this;
}

void OVRequest::reduceRetryCount() {
  // A negative count (read back from a damaged row) also ends at 0.
  retryCount_ = retryCount_ > 0 ? retryCount_ - 1 : 0;
}

void OVRequest::setRequestId(const std::string& text) {
  requestId_ = std::make_shared<const std::string>(text);
}

void OVRequest::setParams(std::optional<nlohmann::json> params) {
  params_ = std::move(params);
  if (params_ && reliability_ == 1) {
    // Text that is not UTF-8 is replaced (U+FFFD) rather than losing the
    // event; JSON has no other failure for values a json object can hold.
    paramStr_ = params_->dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
  }
}

void OVRequest::setReliability(std::int64_t reliability) {
  reliability_ = reliability;
  if (reliability == 2) retryCount_ = 1;
  if (params_) setParams(std::move(params_));
}

bool OVRequest::restoreParamsFromParamStr(std::string& error) {
  if (params_) return true;
  if (!paramStr_) {
    error = "no parameter text";
    return false;
  }
  nlohmann::json parsed = nlohmann::json::parse(*paramStr_, nullptr, false);
  if (parsed.is_discarded()) {
    error = "not JSON";
    return false;
  }
  if (!parsed.is_object()) {
    error = "not a JSON object";
    return false;
  }
  params_ = std::move(parsed);
  return true;
}

bool OVRequest::operator==(const OVRequest& other) const {
  return this == &other || (requestId_ && requestId_ == other.requestId_);
}

}  // namespace velquin
