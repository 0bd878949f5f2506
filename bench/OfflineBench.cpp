// What a large cache costs while the backend is down, then how long it takes
// to deliver once the backend is back.
//
//   offline_bench [--rows N] [--idle SECONDS] [--interval SECONDS]
//       Caches N events (default 100000) through the request manager while
//       its backend address refuses connections (a closed loopback port),
//       then idles for --idle seconds (default 120) with the cache timer
//       firing every --interval seconds (default 60, as in an application).
//       Reports the peak resident memory, the database and WAL sizes, the
//       CPU of the idle period, and then the time a fresh manager takes to
//       deliver every row to a velquin-sandbox process (the cache is empty).
//
// The cache's cap is raised above N so that no row is dropped.
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "BenchSandbox.h"
#include "BenchStats.h"
#include "backend/AppToken.h"
#include "delivery/EventEnvelope.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "delivery/ZKFMDB.h"
#include "velquin/Bundle.h"

namespace {

using velquin::bench::Clock;
using velquin::bench::secondsBetween;

double processCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double peakResidentMB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

double fileMB(const std::filesystem::path& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return error ? 0.0 : static_cast<double>(size) / (1024.0 * 1024.0);
}

velquin::OVRequestManager::Options managerOptions(velquin::OVRequestCache& cache,
                                                  const std::string& host,
                                                  const std::string& roots,
                                                  const std::string& appKey,
                                                  std::chrono::milliseconds interval) {
  velquin::OVRequestManager::Options options;
  options.host = host;
  options.rootCertificates = roots;
  options.cache = &cache;
  options.isReachable = [] { return true; };
  options.hasCredentials = [] { return true; };
  options.headers = [appKey] { return velquin::EventHeaders{appKey, ""}; };
  options.callTimeout = std::chrono::seconds(10);
  options.timerInterval = interval;
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  long rows = 100000;
  double idleSeconds = 120;
  double intervalSeconds = 60;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--rows")) rows = std::atol(argv[i + 1]);
    if (!std::strcmp(argv[i], "--idle")) idleSeconds = std::atof(argv[i + 1]);
    if (!std::strcmp(argv[i], "--interval")) intervalSeconds = std::atof(argv[i + 1]);
  }
  const auto work = std::filesystem::temp_directory_path() /
                    ("velquin-offline-bench-" + std::to_string(::getpid()));
  std::filesystem::create_directories(work);
  auto store = velquin::ZKFMDB::initWithDBName("events.sqlite", work);
  if (!store) return 1;
  velquin::OVRequestCache cache(store.get());
  velquin::OVRequestCache::setRowCap(rows + 1);
  const auto interval = std::chrono::milliseconds(static_cast<long>(intervalSeconds * 1000));

  // Backend down: nothing listens on the discard port of the loopback.
  auto offline = velquin::OVRequestManager::create(
      managerOptions(cache, "127.0.0.1:9", "", "offline", interval));
  offline->startTimer();
  const double baseMB = peakResidentMB();
  const auto fillStart = Clock::now();
  for (long i = 0; i < rows; ++i) {
    offline->submit(velquin::makeEventEnvelope(
        {std::string("ev_offline"), std::string("{\"seq\":") + std::to_string(i) + "}",
         "user-1", i + 1}));
  }
  const double fillSeconds = secondsBetween(fillStart, Clock::now());
  const double cpuBefore = processCpuSeconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<long>(idleSeconds * 1000)));
  const double idleCpu = processCpuSeconds() - cpuBefore;
  const double peakMB = peakResidentMB();
  const auto db = store->dbPath();
  std::printf("rows %ld cached in %.1f s\n", rows, fillSeconds);
  std::printf("peak resident %.1f MB (%.1f MB before the first event)\n", peakMB, baseMB);
  std::printf("database %.1f MB, WAL %.1f MB\n", fileMB(db),
              fileMB(std::filesystem::path(db.string() + "-wal")));
  std::printf("idle CPU %.3f s in %.0f s (timer every %.0f s)\n", idleCpu, idleSeconds,
              intervalSeconds);
  offline->stopTimer();
  offline.reset();

  // The backend is back: a fresh manager delivers the whole cache.
  velquin::bench::BenchSandbox sandbox;
  if (!sandbox.start()) return 1;
  const auto token = velquin::AppToken::load(velquin::Bundle(sandbox.bundle()));
  auto online = velquin::OVRequestManager::create(
      managerOptions(cache, token.apiAddress.value_or(""), token.rootCertificates.value_or(""),
                     token.accessToken.value_or(""), interval));
  const auto start = Clock::now();
  const double cpu = processCpuSeconds();
  online->uploadCacheData();
  // One row looked up, not counted: a count of a large table would cost
  // more than the delivery it watches.
  const bool emptied = velquin::bench::waitFor(
      [&] { return store->zk_queryIntegers("SELECT pkid FROM user LIMIT 1").empty(); },
      std::chrono::seconds(rows / 100 + 60), std::chrono::milliseconds(20));
  const double deliverSeconds = secondsBetween(start, Clock::now());
  std::printf("delivered %ld rows in %.1f s (%.0f rows/s, CPU %.0f us/row)%s\n", rows,
              deliverSeconds, static_cast<double>(rows) / deliverSeconds,
              (processCpuSeconds() - cpu) * 1e6 / static_cast<double>(rows),
              emptied ? "" : " -- NOT EMPTIED");
  std::printf("ratio offline_peak_rss_MB %.1f\n", peakMB);
  std::printf("ratio offline_idle_cpu_percent %.3f\n", idleCpu * 100.0 / idleSeconds);
  std::printf("ratio offline_delivery_us_per_row %.1f\n",
              deliverSeconds * 1e6 / static_cast<double>(rows));
  online.reset();
  cache.checkpoint();
  std::error_code ignored;
  std::filesystem::remove_all(work, ignored);
  return emptied ? 0 : 1;
}
