// The JSON and digest helpers over arbitrary input: any text that parses as
// JSON must serialise (or be refused cleanly), and what is serialised must
// parse again; the envelope's pretty-printed parameter text likewise.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "delivery/OVRequest.h"
#include "support/OVCFunctionToolHelper.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  auto digest = velquin::OVCFunctionToolHelper::stringMD5(text);
  if (!digest || digest->size() != 32) abort();

  nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
  if (parsed.is_discarded()) return 0;
  if (auto compact = velquin::OVCFunctionToolHelper::DataTOjsonString(parsed)) {
    if (nlohmann::json::parse(*compact, nullptr, false).is_discarded()) abort();
  }
  if (parsed.is_object()) {
    velquin::OVRequest request;
    request.setParams(parsed);
    if (!request.paramStr()) abort();
    velquin::OVRequest restored;
    restored.setParamStr(request.paramStr());
    std::string error;
    if (!restored.restoreParamsFromParamStr(error)) abort();
  }
  return 0;
}
