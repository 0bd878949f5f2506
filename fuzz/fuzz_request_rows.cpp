// Restores request envelopes from arbitrary stored rows: the fuzz input
// becomes one row of the cache table (each column holding text, bytes, an
// integer, a real or NULL), which is then read back as envelopes whose
// parameters are parsed and read the way the request manager reads them,
// and deleted by id.
#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>

#include <charconv>
#include <filesystem>
#include <string>

#include "delivery/OVRequestCache.h"
#include "delivery/ZKFMDB.h"

namespace {

using velquin::OVRequest;
using velquin::OVRequestCache;
using velquin::ZKBlob;
using velquin::ZKFMDB;
using velquin::ZKValue;

struct Fixture {
  std::unique_ptr<ZKFMDB> store;
  std::unique_ptr<OVRequestCache> cache;
};

Fixture& fixture() {
  static Fixture* f = [] {
    std::string folder = (std::filesystem::temp_directory_path() / "velquin-fuzz-XXXXXX").string();
    if (!mkdtemp(folder.data())) abort();
    auto* made = new Fixture;  // lives for the fuzzing process
    made->store = ZKFMDB::initWithDBName("rows.sqlite", folder);
    if (!made->store) abort();
    made->cache = std::make_unique<OVRequestCache>(made->store.get());
    return made;
  }();
  return *f;
}

ZKValue anyValue(FuzzedDataProvider& input) {
  switch (input.ConsumeIntegralInRange<int>(0, 4)) {
    case 0: return input.ConsumeRandomLengthString(4096);
    case 1: return input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(0, 4096));
    case 2: return input.ConsumeIntegral<std::int64_t>();
    case 3: return input.ConsumeFloatingPoint<double>();
    default: return std::monostate{};
  }
}

// What the request manager takes from restored parameters.
void readLikeTheManager(const nlohmann::json& params) {
  auto text = [&](const char* key) -> std::string {
    auto it = params.find(key);
    if (it == params.end()) return {};
    return it->is_string() ? it->get<std::string>()
                           : it->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  };
  std::string name = text("eventName");
  std::string value = text("eventValue");
  std::string user = text("userId");
  std::int64_t timestamp = 0;
  std::string stamp = text("timestamp");
  std::from_chars(stamp.data(), stamp.data() + stamp.size(), timestamp);
  (void)name;
  (void)value;
  (void)user;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fixture& f = fixture();
  FuzzedDataProvider input(data, size);
  f.store->zk_deleteAllDataFromTable(OVRequestCache::kTableName);

  velquin::ZKRow row;
  row["retryCount"] = anyValue(input);
  row["requestId"] = anyValue(input);
  row["reliability"] = anyValue(input);
  row["paramStr"] = anyValue(input);
  f.store->zk_insertTable(OVRequestCache::kTableName, row);

  std::vector<std::shared_ptr<OVRequest>> restored;
  f.cache->allRequestsFromFmdbWihtClass(OVRequest::zk_model(), [&](const auto& requests) {
    if (requests) restored = *requests;
  });
  for (const auto& request : restored) {
    OVRequest copy(*request);
    if (!(copy == *request) && request->requestId()) abort();  // copies share the id
    std::string error;
    if (copy.restoreParamsFromParamStr(error)) {
      if (!copy.params() || !copy.params()->is_object()) abort();
      readLikeTheManager(*copy.params());
    }
    copy.reduceRetryCount();
    if (copy.retryCount() < 0) abort();
    f.cache->deleteRequest(request->requestIdText());
  }
  return 0;
}
