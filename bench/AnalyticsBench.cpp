// Caller-thread cost of sending one analytics event, against the floor the
// library cannot go below: one prepared SQLite insert of the same row into a
// file with the same settings (WAL, synchronous=NORMAL).
//
// The library is started for real against a velquin-sandbox process, so
// delivery runs while the events are being sent: replies delete rows and
// compete for the cache, as they do in an application. Each round sends
// `--events` events from this thread and times every call on its own; the
// figures are the medians over `--runs` rounds.
//
//   analytics_bench [--runs N] [--events N] [--breakdown]
//
// --breakdown adds one round of each experiment that explains the figures:
// the three steps of a call timed apart (building the envelope, the cache
// insert, handing it to the request manager), the same calls with no
// delivery running, the raw insert while delivery runs, and the calls with
// SQLite's automatic checkpoint inside commits instead of the store's
// checkpoint thread.
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "BenchSandbox.h"
#include "BenchStats.h"
#include "analytics/OVDeviceInfoManager.h"
#include "analytics/OVDeviceInfoManagerHelper.h"
#include "delivery/OVRequest.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "delivery/ZKFMDB.h"
#include "velquin/Bundle.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace {

using velquin::bench::Clock;
using velquin::bench::median;
using velquin::bench::microsecondsBetween;
using velquin::bench::percentile;

struct Latencies {
  double p50 = 0;
  double p99 = 0;
  double max = 0;
};

Latencies summarise(const std::vector<double>& micros) {
  return {percentile(micros, 0.5), percentile(micros, 0.99), percentile(micros, 1.0)};
}

// The row the library writes for event `seq`: the envelope OVAnalytics
// builds, pretty-printed by OVRequest.
velquin::OVRequest rowFor(std::size_t seq, const std::string& userId) {
  nlohmann::json envelope = nlohmann::json::object();
  envelope["eventName"] = "ev_bench";
  envelope["eventValue"] = nlohmann::json{{"seq", seq}}.dump();
  char timestamp[32];
  std::snprintf(timestamp, sizeof timestamp, "%.f",
                velquin::OVDeviceInfoManager::getCurrentMSimestamp());
  envelope["timestamp"] = timestamp;
  if (!userId.empty()) envelope["userId"] = userId;
  velquin::OVRequest request;
  request.setParams(std::move(envelope));
  request.setRequestId(std::to_string(1'700'000'000 + seq));
  request.setReliability(1);
  return request;
}

// One prepared insert per row, each its own transaction, into a fresh file
// made the way the library makes its cache (same schema, same pragmas).
bool rawInsertRound(const std::filesystem::path& folder, const std::string& name,
                    const std::vector<velquin::OVRequest>& rows, std::vector<double>& micros) {
  {
    auto store = velquin::ZKFMDB::initWithDBName(name, folder);
    if (!store) return false;
    velquin::OVRequestCache schema(store.get());  // table "user" as the library makes it
  }
  sqlite3* db = nullptr;
  if (sqlite3_open((folder / name).c_str(), &db) != SQLITE_OK) return false;
  sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  if (sqlite3_prepare_v2(db,
                         "INSERT INTO user (retryCount,requestId,reliability,paramStr) "
                         "values (?,?,?,?)",
                         -1, &insert, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return false;
  }
  micros.clear();
  micros.reserve(rows.size());
  bool ok = true;
  for (const auto& row : rows) {
    const std::string& id = *row.requestId();
    const std::string& text = *row.paramStr();
    auto start = Clock::now();
    sqlite3_bind_int64(insert, 1, row.retryCount());
    sqlite3_bind_text(insert, 2, id.data(), static_cast<int>(id.size()), SQLITE_STATIC);
    sqlite3_bind_int64(insert, 3, row.reliability());
    sqlite3_bind_text(insert, 4, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    ok = sqlite3_step(insert) == SQLITE_DONE && ok;
    sqlite3_reset(insert);
    micros.push_back(microsecondsBetween(start, Clock::now()));
  }
  sqlite3_finalize(insert);
  sqlite3_close(db);
  return ok;
}

std::int64_t cachedRows() { return velquin::OVRequestCache::shared().rowCount(); }

void printLatencies(const char* what, const std::vector<double>& micros) {
  Latencies l = summarise(micros);
  std::printf("breakdown %s: p50 %.2f us, p99 %.2f us, max %.0f us, over 100 us %.2f%%\n", what,
              l.p50, l.p99, l.max,
              100.0 * static_cast<double>(std::count_if(micros.begin(), micros.end(),
                                                        [](double v) { return v > 100; })) /
                  static_cast<double>(micros.size()));
}

bool waitForEmptyCache() {
  return velquin::bench::waitFor([] { return cachedRows() == 0; }, std::chrono::seconds(60),
                                 std::chrono::milliseconds(20));
}

// What a call spends its time on; see the top of this file.
void breakdown(std::size_t events, const std::vector<velquin::OVRequest>& rows,
               const std::filesystem::path& rawFolder) {
  auto& analytics = velquin::Velquin::shared().analytics();
  auto& info = velquin::OVDeviceInfoManager::shared();
  auto& cache = velquin::OVRequestCache::shared();
  auto& manager = velquin::OVRequestManager::shared();
  auto& helper = velquin::OVDeviceInfoManagerHelper::sharedManager();
  std::vector<double> build, insert, enqueue, total;
  for (std::size_t i = 0; i < events; ++i) {
    auto t0 = Clock::now();
    velquin::OVRequest built = rowFor(i, info.userId());
    auto request = std::make_shared<velquin::OVRequest>(std::move(built));
    request->setRequestId(std::to_string(static_cast<long long>(
        velquin::OVDeviceInfoManager::getCurrentMSimestamp() / 1000) + info.nextRequestNumber()));
    auto t1 = Clock::now();
    request->setRowId(cache.addRequest(*request));
    auto t2 = Clock::now();
    manager.enqueueRequest(std::move(request));
    auto t3 = Clock::now();
    build.push_back(microsecondsBetween(t0, t1));
    insert.push_back(microsecondsBetween(t1, t2));
    enqueue.push_back(microsecondsBetween(t2, t3));
    total.push_back(microsecondsBetween(t0, t3));
  }
  printLatencies("steps apart, delivery running: whole call", total);
  printLatencies("  building the envelope (JSON, pretty text, id)", build);
  printLatencies("  OVRequestCache::addRequest", insert);
  printLatencies("  OVRequestManager::enqueueRequest", enqueue);
  waitForEmptyCache();

  // The same calls with nothing delivered: no app key, so every envelope
  // stays in the cache and nothing else touches it.
  const std::string key = helper.appKey();
  helper.setNewAppKey("");
  std::vector<double> quiet;
  for (std::size_t i = 0; i < events; ++i) {
    auto start = Clock::now();
    analytics.uploadBigDataWithEvent("ev_bench", {{"seq", i}});
    quiet.push_back(microsecondsBetween(start, Clock::now()));
  }
  printLatencies("uploadBigDataWithEvent, no delivery running", quiet);

  // Delivery of those rows, and raw inserts into another file meanwhile:
  // what the machine's load alone does to the raw figure.
  helper.setNewAppKey(key);
  manager.uploadCacheData();
  std::vector<double> raw;
  rawInsertRound(rawFolder, "raw-busy.sqlite", rows, raw);
  printLatencies("raw prepared insert, delivery running", raw);
  waitForEmptyCache();

  // The calls again with delivery running, but with SQLite's automatic
  // checkpoint back on the cache's connection: every 1000 log frames the
  // commit that crosses the mark (a caller's or a delete's) copies the log
  // into the file itself, instead of the store's checkpoint thread. Last,
  // since it replaces the store's own commit hook for good.
  auto* store = velquin::ZKFMDB::shareDatabase();
  store->zk_executeUpdate("PRAGMA wal_autocheckpoint=1000");
  std::vector<double> inCommit;
  for (std::size_t i = 0; i < events; ++i) {
    auto start = Clock::now();
    analytics.uploadBigDataWithEvent("ev_bench", {{"seq", i}});
    inCommit.push_back(microsecondsBetween(start, Clock::now()));
  }
  printLatencies("uploadBigDataWithEvent, delivery running, checkpoints inside commits",
                 inCommit);
  waitForEmptyCache();
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 3;
  std::size_t events = 10000;
  bool explain = false;
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--breakdown") explain = true;
    if (option == "--runs" && i + 1 < argc) runs = std::max(1, std::atoi(argv[++i]));
    if (option == "--events" && i + 1 < argc) {
      events = static_cast<std::size_t>(std::max(1, std::atoi(argv[++i])));
    }
  }

  velquin::bench::BenchSandbox sandbox;
  if (!sandbox.start()) return 1;
  velquin::bench::useHome(sandbox.work() / "home");
  velquin::Bundle::setMainBundlePath(sandbox.bundle());

  // Start-up as an application does it; events are sent once the app key
  // has arrived with Init's answer.
  auto configured = Clock::now();
  auto& sdk = velquin::Velquin::shared();
  sdk.configure();
  auto& helper = velquin::OVDeviceInfoManagerHelper::sharedManager();
  if (!velquin::bench::waitFor([&] { return !helper.appKey().empty(); },
                               std::chrono::seconds(30))) {
    std::fprintf(stderr, "no app key: Init was not answered\n");
    return 1;
  }
  auto& analytics = sdk.analytics();
  // Warm-up (first connection, statement caches), then past the deferred
  // analytics start (5 s after Init) so its one-off cache upload does not
  // fall into a round.
  for (std::size_t i = 0; i < 200; ++i) analytics.uploadBigDataWithEvent("ev_warmup", {{"seq", i}});
  velquin::bench::waitFor(
      [&] { return Clock::now() - configured > std::chrono::milliseconds(5500) && cachedRows() == 0; },
      std::chrono::seconds(30), std::chrono::milliseconds(20));

  const std::string userId = velquin::OVDeviceInfoManager::shared().userId();
  std::vector<velquin::OVRequest> rows;
  rows.reserve(events);
  for (std::size_t i = 0; i < events; ++i) rows.push_back(rowFor(i, userId));
  const std::filesystem::path rawFolder = sandbox.work() / "raw";
  std::filesystem::create_directories(rawFolder);

  std::vector<double> rawP50, rawP99, rawMax, sdkP50, sdkP99, sdkMax, drainSeconds;
  std::vector<double> micros;
  micros.reserve(events);
  for (int run = 0; run < runs; ++run) {
    if (!rawInsertRound(rawFolder, "raw-" + std::to_string(run) + ".sqlite", rows, micros)) {
      std::fprintf(stderr, "raw insert failed\n");
      return 1;
    }
    Latencies raw = summarise(micros);
    rawP50.push_back(raw.p50);
    rawP99.push_back(raw.p99);
    rawMax.push_back(raw.max);

    micros.clear();
    for (std::size_t i = 0; i < events; ++i) {
      auto start = Clock::now();
      analytics.uploadBigDataWithEvent("ev_bench", {{"seq", i}});
      micros.push_back(microsecondsBetween(start, Clock::now()));
    }
    auto sent = Clock::now();
    Latencies sdkRound = summarise(micros);
    sdkP50.push_back(sdkRound.p50);
    sdkP99.push_back(sdkRound.p99);
    sdkMax.push_back(sdkRound.max);
    // The next round starts with delivery caught up.
    bool drained = velquin::bench::waitFor([] { return cachedRows() == 0; },
                                           std::chrono::seconds(60), std::chrono::milliseconds(20));
    drainSeconds.push_back(velquin::bench::secondsBetween(sent, Clock::now()));
    std::fprintf(stderr, "round %d: raw p50 %.1f p99 %.1f us, sdk p50 %.1f p99 %.1f max %.0f us%s\n",
                 run + 1, raw.p50, raw.p99, sdkRound.p50, sdkRound.p99, sdkRound.max,
                 drained ? "" : " (cache not drained)");
  }

  const double rawMedianP50 = median(rawP50), rawMedianP99 = median(rawP99);
  const double sdkMedianP50 = median(sdkP50), sdkMedianP99 = median(sdkP99);
  std::printf("analytics rounds %d x %zu events (medians over rounds; delivery running)\n", runs,
              events);
  std::printf("raw prepared insert: p50 %.2f us, p99 %.2f us, max %.0f us\n", rawMedianP50,
              rawMedianP99, median(rawMax));
  std::printf("uploadBigDataWithEvent caller thread: p50 %.2f us, p99 %.2f us, max %.0f us\n",
              sdkMedianP50, sdkMedianP99, median(sdkMax));
  std::printf("delivery caught up %.2f s after the last call\n", median(drainSeconds));
  if (explain) breakdown(events, rows, rawFolder);
  std::printf("ratio analytics_caller_p50_vs_raw_insert %.3f\n", sdkMedianP50 / rawMedianP50);
  std::printf("ratio analytics_caller_p99_vs_raw_insert %.3f\n", sdkMedianP99 / rawMedianP99);
  std::printf("ratio analytics_caller_p99_vs_100us %.3f\n", sdkMedianP99 / 100.0);
  return 0;
}
