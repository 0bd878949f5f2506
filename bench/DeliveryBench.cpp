// Delivery throughput: cached events acknowledged by the backend and deleted
// from the cache, in events per second, against a bare gRPC client sending
// the same EventRequests to the same velquin-sandbox process over the same
// kind of TLS channel with three calls in flight.
//
//   delivery_bench [--runs N] [--events N]
//       A warm process: the cache is filled while there is no app key (so
//       nothing is sent), then the key is set and the clock runs from
//       uploadCacheData() until the cache table is empty.
//   delivery_bench --backlog [--runs N] [--events N]
//       After a restart: one child process leaves the rows in the cache, a
//       fresh child starts the library (configure(), Init answered, the app
//       key arrives, uploadCacheData()) and the clock runs from configure()
//       until the cache table is empty. This parent never touches gRPC, so
//       forking is safe; the bare client runs in children too.
//   delivery_bench --breakdown [--events N]
//       Where the CPU of one delivered event goes, step by step, and how the
//       request manager's queue copes with one upload of a large backlog.
#include <grpcpp/grpcpp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "BenchSandbox.h"
#include "BenchStats.h"
#include "ThreadUsage.h"
#include "EventRoot.grpc.pb.h"
#include "analytics/OVDeviceInfoManager.h"
#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/AppToken.h"
#include "backend/EventdStub.h"
#include "delivery/EventRequestBuilder.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "delivery/ZKFMDB.h"
#include "velquin/Bundle.h"
#include "velquin/MainQueue.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace {

using velquin::bench::Clock;
using velquin::bench::median;
using velquin::bench::secondsBetween;

constexpr int kInFlight = 3;

using velquin::bench::ThreadCost;
using velquin::bench::ThreadUsage;

void addCosts(std::map<std::string, ThreadCost>& total, const std::map<std::string, ThreadCost>& more) {
  for (const auto& [name, cost] : more) {
    total[name].cpuSeconds += cost.cpuSeconds;
    total[name].switches += cost.switches;
    total[name].threads = std::max(total[name].threads, cost.threads);
  }
}

// One line per thread name that used CPU: microseconds and context switches
// per event.
void printCosts(const char* who, const std::map<std::string, ThreadCost>& costs, double events) {
  for (const auto& [name, cost] : costs) {
    if (cost.cpuSeconds <= 0 && cost.switches < events / 10) continue;
    std::printf("%s thread %-16s x%-2d CPU %6.1f us/event, %5.2f switches/event\n", who,
                name.c_str(), cost.threads, cost.cpuSeconds * 1e6 / events,
                static_cast<double>(cost.switches) / events);
  }
}

double threadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// CPU seconds this process has used (all threads).
double processCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// --------------------------------------------------------------- bare client

// The raw limit: the generated stub on its own channel, the callback API,
// exactly three calls in flight, each completion starting the next call.
class BareClient {
 public:
  explicit BareClient(const velquin::AppToken& token) {
    grpc::SslCredentialsOptions tls;
    tls.pem_root_certs = token.rootCertificates.value_or("");
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);
    // Its own connection, never one shared with the library's channel.
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    stub_ = protocol::Eventd::NewStub(grpc::CreateCustomChannel(
        token.apiAddress.value_or(""), grpc::SslCredentials(tls), arguments));
    authorization_ = "Bearer " + token.accessToken.value_or("");
  }

  // Sends every request once; returns the seconds taken, or a negative
  // number when a call failed.
  double send(const std::vector<protocol::EventRequest>& requests, int inFlight = kInFlight) {
    requests_ = &requests;
    next_ = 0;
    finished_ = 0;
    failed_ = 0;
    auto start = Clock::now();
    for (int i = 0; i < inFlight; ++i) launch();
    std::unique_lock lock(mutex_);
    done_.wait(lock, [&] { return finished_ == requests.size(); });
    double seconds = secondsBetween(start, Clock::now());
    return failed_ == 0 ? seconds : -1;
  }

 private:
  struct Call {
    grpc::ClientContext context;
    protocol::EventResponse response;
  };

  void launch() {
    std::size_t index = next_.fetch_add(1);
    if (index >= requests_->size()) return;
    auto* call = new Call;
    call->context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
    call->context.AddMetadata("authorization", authorization_);
    call->context.AddMetadata("x-vq-experiment", "");
    stub_->async()->FireEvent(&call->context, &(*requests_)[index], &call->response,
                              [this, call](grpc::Status status) {
                                delete call;
                                if (!status.ok()) ++failed_;
                                launch();
                                std::lock_guard lock(mutex_);
                                if (++finished_ == requests_->size()) done_.notify_all();
                              });
  }

  std::unique_ptr<protocol::Eventd::Stub> stub_;
  std::string authorization_;
  const std::vector<protocol::EventRequest>* requests_ = nullptr;
  std::atomic<std::size_t> next_{0};
  std::atomic<int> failed_{0};
  std::mutex mutex_;
  std::condition_variable done_;
  std::size_t finished_ = 0;  // guarded by mutex_
};

// The EventRequests the library builds for events {"seq": i}.
std::vector<protocol::EventRequest> eventRequests(std::size_t count) {
  auto& info = velquin::OVDeviceInfoManager::shared();
  const velquin::DeviceFacts facts = info.deviceFacts();
  const velquin::EventIdentity identity{info.deviceIdentifier(),
                                        info.advertisingIdentifier().value_or(info.idfa()), "",
                                        ""};
  std::vector<protocol::EventRequest> requests;
  requests.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    nlohmann::json params = {{"eventName", "ev_bench"},
                             {"eventValue", nlohmann::json{{"seq", i}}.dump()},
                             {"timestamp", std::to_string(1'700'000'000'000LL + static_cast<long long>(i))}};
    requests.push_back(velquin::buildEventRequest(params, facts, identity));
  }
  return requests;
}

struct Throughput {
  double eventsPerSecond = -1;
  double cpuMicrosPerEvent = 0;  // this process's CPU, all threads
};

// Bare client throughput over `requests`, after a warm-up on the same
// connection (the TLS handshake is not part of the figure).
Throughput bareThroughput(BareClient& client, const std::vector<protocol::EventRequest>& requests) {
  std::vector<protocol::EventRequest> warmup(
      requests.begin(), requests.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(30, requests.size())));
  Throughput result;
  if (client.send(warmup) < 0) return result;
  double cpu = processCpuSeconds();
  double seconds = client.send(requests);
  if (seconds <= 0) return result;
  const auto count = static_cast<double>(requests.size());
  result.eventsPerSecond = count / seconds;
  result.cpuMicrosPerEvent = (processCpuSeconds() - cpu) * 1e6 / count;
  return result;
}

// --------------------------------------------------------------- library side

std::int64_t cachedRows() { return velquin::OVRequestCache::shared().rowCount(); }

// Writes `count` events through the analytics interface while there is no
// app key: each is cached and nothing is sent.
void fillCache(std::size_t count) {
  auto& helper = velquin::OVDeviceInfoManagerHelper::sharedManager();
  helper.setNewAppKey("");
  auto& analytics = velquin::Velquin::shared().analytics();
  for (std::size_t i = 0; i < count; ++i) analytics.uploadBigDataWithEvent("ev_bench", {{"seq", i}});
}

// Counts replies to the envelopes uploadCacheData() enqueues.
struct ReplyCounter {
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t accepted = 0;  // guarded by mutex
  std::size_t failed = 0;    // guarded by mutex

  // Wakes the waiting thread only for the last reply, so that waiting costs
  // the measured process nothing per event.
  void add(bool ok, std::size_t expected) {
    std::lock_guard lock(mutex);
    ++(ok ? accepted : failed);
    if (accepted == expected) changed.notify_all();
  }
};

struct UploadTiming {
  double cpuSeconds = 0;      // this process's CPU from the start until empty
  double enqueueSeconds = 0;  // uploadCacheData() returned
  double takenInSeconds = 0;  // the manager's queue has taken in every envelope (when watched)
  double repliedSeconds = 0;  // every row answered
  double emptySeconds = 0;    // the cache table is empty
  std::size_t failed = 0;
  bool ok = false;
};

// uploadCacheData() on the shared manager; the clock starts at `start`.
// With `watchTakeIn`, also the time until the manager's queue has taken in
// every envelope (waiting for that wakes this thread often: not for the
// throughput figures).
UploadTiming uploadUntilEmpty(std::size_t rows, Clock::time_point start, bool watchTakeIn = false) {
  const double cpu = processCpuSeconds();
  auto counter = std::make_shared<ReplyCounter>();
  velquin::OVRequestManager::shared().uploadCacheData(
      [counter, rows](const protocol::EventResponse&) { counter->add(true, rows); },
      [counter, rows](const velquin::Error&) { counter->add(false, rows); });
  UploadTiming timing;
  timing.enqueueSeconds = secondsBetween(start, Clock::now());
  if (watchTakeIn) {
    // Every envelope is waiting, in flight or answered. Polled, because a
    // thread waiting in drainQueue() is woken by every block the queue runs.
    auto& manager = velquin::OVRequestManager::shared();
    velquin::bench::waitFor(
        [&] {
          std::size_t answered = 0;
          {
            std::lock_guard lock(counter->mutex);
            answered = counter->accepted + counter->failed;
          }
          return manager.queued() + static_cast<std::size_t>(manager.inFlight()) + answered >= rows;
        },
        std::chrono::seconds(30), std::chrono::milliseconds(1));
    timing.takenInSeconds = secondsBetween(start, Clock::now());
  }
  {
    std::unique_lock lock(counter->mutex);
    counter->changed.wait_for(lock, std::chrono::seconds(60),
                              [&] { return counter->accepted >= rows; });
    timing.failed = counter->failed;
  }
  timing.repliedSeconds = secondsBetween(start, Clock::now());
  timing.ok = velquin::bench::waitFor([] { return cachedRows() == 0; }, std::chrono::seconds(30),
                                      std::chrono::milliseconds(1));
  timing.emptySeconds = secondsBetween(start, Clock::now());
  timing.cpuSeconds = processCpuSeconds() - cpu;
  return timing;
}

// ------------------------------------------------------------------ children

// Runs `body` in a child process and returns the doubles it reports.
template <class Body>
std::vector<double> inChild(std::size_t figures, Body body) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    std::vector<double> values = body();
    values.resize(figures, -1);
    ssize_t bytes = static_cast<ssize_t>(values.size() * sizeof(double));
    bool written = write(fds[1], values.data(), values.size() * sizeof(double)) == bytes;
    std::fflush(nullptr);
    _exit(written ? 0 : 1);
  }
  close(fds[1]);
  std::vector<double> values(figures, -1);
  ssize_t bytes = static_cast<ssize_t>(figures * sizeof(double));
  ssize_t got = read(fds[0], values.data(), figures * sizeof(double));
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (got != bytes) return {};
  return values;
}

int runBacklog(velquin::bench::BenchSandbox& sandbox, int runs, std::size_t events) {
  std::vector<double> sdkRates, bareRates, keySeconds, totalSeconds, sdkCpu, bareCpu, sdkServerCpu,
      bareServerCpu, sdkStored;
  for (int run = 0; run < runs; ++run) {
    auto home = sandbox.work() / ("backlog-" + std::to_string(run));
    // The previous run of the application: rows cached, never sent.
    auto filled = inChild(1, [&] {
      velquin::bench::useHome(home);
      velquin::Bundle::setMainBundlePath(sandbox.bundle());
      fillCache(events);
      return std::vector<double>{static_cast<double>(cachedRows())};
    });
    if (filled.empty() || filled[0] != static_cast<double>(events)) {
      std::fprintf(stderr, "backlog run %d: the cache was not filled\n", run + 1);
      return 1;
    }
    // The restart: start-up as an application does it, then the upload the
    // deferred analytics start would run, at once.
    const long long storedBefore = sandbox.storedEvents();
    double serverBefore = sandbox.cpuSeconds();
    auto restart = inChild(4, [&] {
      velquin::bench::useHome(home);
      velquin::Bundle::setMainBundlePath(sandbox.bundle());
      const double cpu = processCpuSeconds();
      auto start = Clock::now();
      velquin::Velquin::shared().configure();
      auto& helper = velquin::OVDeviceInfoManagerHelper::sharedManager();
      if (!velquin::bench::waitFor([&] { return !helper.appKey().empty(); },
                                   std::chrono::seconds(30), std::chrono::milliseconds(1))) {
        return std::vector<double>{};
      }
      double keyed = secondsBetween(start, Clock::now());
      UploadTiming timing = uploadUntilEmpty(events, start);
      if (!timing.ok) return std::vector<double>{};
      return std::vector<double>{keyed, timing.emptySeconds, static_cast<double>(timing.failed),
                                 processCpuSeconds() - cpu};
    });
    if (restart.empty() || restart[1] <= 0) {
      std::fprintf(stderr, "backlog run %d: the cache did not drain\n", run + 1);
      return 1;
    }
    const auto count = static_cast<double>(events);
    sdkServerCpu.push_back((sandbox.cpuSeconds() - serverBefore) * 1e6 / count);
    sdkStored.push_back(static_cast<double>(sandbox.storedEvents() - storedBefore));
    if (sdkStored.back() != count) {
      // A later upload (the deferred analytics start, 5 s after Init)
      // enqueued rows that were still waiting again.
      std::fprintf(stderr, "backlog run %d: the sandbox stored %.0f events for %zu rows\n",
                   run + 1, sdkStored.back(), events);
    }
    serverBefore = sandbox.cpuSeconds();
    auto bare = inChild(2, [&] {
      velquin::Bundle::setMainBundlePath(sandbox.bundle());
      BareClient client(velquin::AppToken::load(velquin::Bundle::main()));
      Throughput result = bareThroughput(client, eventRequests(events));
      return std::vector<double>{result.eventsPerSecond, result.cpuMicrosPerEvent};
    });
    if (bare.empty() || bare[0] <= 0) {
      std::fprintf(stderr, "backlog run %d: the bare client failed\n", run + 1);
      return 1;
    }
    bareServerCpu.push_back((sandbox.cpuSeconds() - serverBefore) * 1e6 / count);
    keySeconds.push_back(restart[0]);
    totalSeconds.push_back(restart[1]);
    sdkRates.push_back(count / restart[1]);
    sdkCpu.push_back(restart[3] * 1e6 / count);
    bareRates.push_back(bare[0]);
    bareCpu.push_back(bare[1]);
    std::fprintf(stderr,
                 "backlog run %d: key after %.0f ms, empty after %.2f s (%.0f events/s, %.0f "
                 "failed replies); bare %.0f events/s\n",
                 run + 1, restart[0] * 1000, restart[1], sdkRates.back(), restart[2], bare[0]);
  }
  std::printf("backlog runs %d x %zu cached rows (medians; each restart a fresh process)\n", runs,
              events);
  std::printf("bare gRPC client, 3 in flight: %.0f events/s, client CPU %.0f us/event, sandbox "
              "CPU %.0f us/event\n",
              median(bareRates), median(bareCpu), median(bareServerCpu));
  std::printf("restart: configure() until the app key arrived (Init answered): %.0f ms\n",
              median(keySeconds) * 1000);
  std::printf("restart: configure() until the cache is empty: %.2f s, %.0f events/s, client CPU "
              "%.0f us/event, sandbox CPU %.0f us/event\n",
              median(totalSeconds), median(sdkRates), median(sdkCpu), median(sdkServerCpu));
  std::printf("restart: events the sandbox stored per %zu cached rows: %.0f\n", events,
              median(sdkStored));
  std::printf("ratio backlog_vs_bare_grpc %.3f\n", median(sdkRates) / median(bareRates));
  return 0;
}

int runDelivery(velquin::bench::BenchSandbox& sandbox, int runs, std::size_t events) {
  velquin::bench::useHome(sandbox.work() / "home");
  velquin::Bundle::setMainBundlePath(sandbox.bundle());
  const velquin::AppToken token = velquin::AppToken::load(velquin::Bundle::main());
  auto& helper = velquin::OVDeviceInfoManagerHelper::sharedManager();
  auto& analytics = velquin::Velquin::shared().analytics();

  // Warm-up: the library's connection and statements.
  helper.setNewAppKey(token.accessToken.value_or(""));
  for (std::size_t i = 0; i < 30; ++i) analytics.uploadBigDataWithEvent("ev_warmup", {{"seq", i}});
  velquin::bench::waitFor([] { return cachedRows() == 0; }, std::chrono::seconds(30));

  // Names for the threads the per-thread figures are grouped by; the
  // request manager's queue keeps the program's name.
  ThreadUsage::nameThisThread("bench-main");
  if (auto* store = velquin::ZKFMDB::shareDatabase()) {
    store->dbQueue().async([] { ThreadUsage::nameThisThread("cache-db-queue"); });
  }
  velquin::MainQueue::shared().async([] { ThreadUsage::nameThisThread("main-queue"); });

  BareClient bare(token);
  const auto requests = eventRequests(events);
  std::vector<double> sdkRates, bareRates, sdkCpu, bareCpu, fillSeconds, enqueueSeconds,
      sdkServerCpu, bareServerCpu;
  std::map<std::string, ThreadCost> sdkThreads, bareThreads;
  for (int run = 0; run < runs; ++run) {
    auto bareBefore = ThreadUsage::now();
    double serverBefore = sandbox.cpuSeconds();
    Throughput bareRun = bareThroughput(bare, requests);
    bareServerCpu.push_back((sandbox.cpuSeconds() - serverBefore) * 1e6 / static_cast<double>(events));
    addCosts(bareThreads, ThreadUsage::now().since(bareBefore));
    if (bareRun.eventsPerSecond <= 0) {
      std::fprintf(stderr, "the bare client failed\n");
      return 1;
    }
    auto fillStart = Clock::now();
    fillCache(events);
    fillSeconds.push_back(secondsBetween(fillStart, Clock::now()));
    auto rows = static_cast<std::size_t>(cachedRows());
    helper.setNewAppKey(token.accessToken.value_or(""));
    auto sdkBefore = ThreadUsage::now();
    serverBefore = sandbox.cpuSeconds();
    UploadTiming timing = uploadUntilEmpty(rows, Clock::now());
    sdkServerCpu.push_back((sandbox.cpuSeconds() - serverBefore) * 1e6 / static_cast<double>(rows));
    addCosts(sdkThreads, ThreadUsage::now().since(sdkBefore));
    if (!timing.ok) {
      std::fprintf(stderr, "the cache did not drain\n");
      return 1;
    }
    bareRates.push_back(bareRun.eventsPerSecond);
    bareCpu.push_back(bareRun.cpuMicrosPerEvent);
    sdkRates.push_back(static_cast<double>(rows) / timing.emptySeconds);
    sdkCpu.push_back(timing.cpuSeconds * 1e6 / static_cast<double>(rows));
    enqueueSeconds.push_back(timing.enqueueSeconds);
    std::fprintf(stderr,
                 "delivery run %d: bare %.0f events/s; library %zu rows in %.2f s (%.0f events/s; "
                 "uploadCacheData returned after %.0f ms, %zu failed replies)\n",
                 run + 1, bareRun.eventsPerSecond, rows, timing.emptySeconds, sdkRates.back(),
                 timing.enqueueSeconds * 1000, timing.failed);
  }
  std::printf("delivery runs %d x %zu events (medians)\n", runs, events);
  std::printf("bare gRPC client, 3 in flight: %.0f events/s, client CPU %.0f us/event, "
              "sandbox CPU %.0f us/event\n",
              median(bareRates), median(bareCpu), median(bareServerCpu));
  std::printf("library: uploadCacheData() until the cache is empty: %.0f events/s, client CPU "
              "%.0f us/event, sandbox CPU %.0f us/event\n",
              median(sdkRates), median(sdkCpu), median(sdkServerCpu));
  std::printf("library: uploadCacheData() itself (read and enqueue %zu rows): %.0f ms\n", events,
              median(enqueueSeconds) * 1000);
  std::printf("library: caching %zu events without sending: %.2f s\n", events,
              median(fillSeconds));
  const double allEvents = static_cast<double>(events) * runs;
  printCosts("bare", bareThreads, allEvents);
  printCosts("library", sdkThreads, allEvents);
  std::printf("ratio delivery_vs_bare_grpc %.3f\n", median(sdkRates) / median(bareRates));
  return 0;
}

// Mean cost of each step the library takes for one cached event on its way
// out, each timed alone on this thread: where the CPU of a delivery goes.
int runBreakdown(velquin::bench::BenchSandbox& sandbox, std::size_t events) {
  velquin::bench::useHome(sandbox.work() / "home");
  velquin::Bundle::setMainBundlePath(sandbox.bundle());
  const velquin::AppToken token = velquin::AppToken::load(velquin::Bundle::main());
  auto& info = velquin::OVDeviceInfoManager::shared();

  // A private cache of `events` rows made the way the analytics interface
  // makes them.
  auto store = velquin::ZKFMDB::initWithDBName("breakdown.sqlite", sandbox.work());
  if (!store) return 1;
  velquin::OVRequestCache cache(store.get());
  std::vector<std::shared_ptr<velquin::OVRequest>> rows;
  std::vector<std::int64_t> rowIds;  // pkid of each row written
  {
    const double start = threadCpuSeconds();
    for (std::size_t i = 0; i < events; ++i) {
      nlohmann::json envelope = {{"eventName", "ev_bench"},
                                 {"eventValue", nlohmann::json{{"seq", i}}.dump()},
                                 {"timestamp", std::to_string(1'700'000'000'000LL + static_cast<long long>(i))}};
      velquin::OVRequest request;
      request.setParams(std::move(envelope));
      request.setRequestId(std::to_string(1'700'000'000 + i));
      request.setReliability(1);
      rowIds.push_back(cache.addRequest(request).value_or(0));
    }
    std::printf("step build an envelope and addRequest (insert one row): %.1f us CPU\n",
                (threadCpuSeconds() - start) * 1e6 / static_cast<double>(events));
  }
  const auto count = static_cast<double>(events);
  // CPU of this thread per step, so that other processes on the machine do
  // not count.
  auto timeSteps = [&](const char* name, auto&& step) {
    const double start = threadCpuSeconds();
    for (std::size_t i = 0; i < events; ++i) step(i);
    std::printf("step %s: %.1f us CPU\n", name, (threadCpuSeconds() - start) * 1e6 / count);
  };
  timeSteps("read every cached row (uploadCacheData's query), per row", [&](std::size_t i) {
    if (i != 0) return;
    cache.allRequestsFromFmdbWihtClass(velquin::OVRequest::zk_model(), [&](const auto& restored) {
      if (restored) rows = *restored;
    });
  });
  std::vector<std::shared_ptr<velquin::OVRequest>> copies(rows.size());
  timeSteps("copy the row into a new envelope (uploadCacheData)", [&](std::size_t i) {
    if (i < rows.size()) copies[i] = std::make_shared<velquin::OVRequest>(*rows[i]);
  });
  timeSteps("parse paramStr back into params", [&](std::size_t i) {
    std::string why;
    if (i < copies.size()) copies[i]->restoreParamsFromParamStr(why);
  });
  velquin::DeviceFacts facts;
  timeSteps("deviceFacts()", [&](std::size_t) { facts = info.deviceFacts(); });
  velquin::EventIdentity identity;
  timeSteps("event identity (device id, advertising id)", [&](std::size_t) {
    identity = velquin::EventIdentity{info.deviceIdentifier(),
                                      info.advertisingIdentifier().value_or(info.idfa()), "", ""};
  });
  std::vector<protocol::EventRequest> built(copies.size());
  timeSteps("buildEventRequest", [&](std::size_t i) {
    if (i < copies.size()) {
      built[i] = velquin::buildEventRequest(copies[i]->params().value_or(nlohmann::json::object()),
                                            facts, identity);
    }
  });
  velquin::EventdStub stub(token.apiAddress.value_or(""), token.rootCertificates.value_or(""),
                          nullptr);
  timeSteps("prepareFireEvent (call object, two headers; not started)", [&](std::size_t i) {
    auto call = stub.prepareFireEvent(built[i % built.size()], [](auto, auto) {});
  });
  {
    // Calls are started one at a time from this thread, as the request
    // manager's queue starts them; only the starting thread's CPU counts.
    std::mutex mutex;
    std::condition_variable answered;
    double startCpu = 0;
    std::size_t calls = std::min<std::size_t>(events, 2000);
    velquin::OVDeviceInfoManagerHelper::sharedManager().setNewAppKey(token.accessToken.value_or(""));
    for (std::size_t i = 0; i < calls + 20; ++i) {
      bool done = false;
      auto call = stub.prepareFireEvent(built[i % built.size()], [&](auto, auto) {
        std::lock_guard lock(mutex);
        done = true;
        answered.notify_all();
      });
      const double before = threadCpuSeconds();
      velquin::EventdStub::FireEventCall::start(std::move(call));
      if (i >= 20) startCpu += threadCpuSeconds() - before;  // after the connection is up
      std::unique_lock lock(mutex);
      answered.wait(lock, [&] { return done; });
    }
    std::printf("step FireEventCall::start from a non-gRPC thread: %.1f us CPU\n",
                startCpu * 1e6 / static_cast<double>(calls));
  }
  timeSteps("deleteRows of one row by pkid", [&](std::size_t i) {
    cache.deleteRows({rowIds[i]});
  });
  std::int64_t left = 0;
  store->zk_inDatabase([&] { left = store->zk_tableItemCount(velquin::OVRequestCache::kTableName); });
  std::printf("rows left after the deletes: %lld\n", static_cast<long long>(left));

  // The sandbox's CPU per event depends on how busy the client keeps it.
  {
    BareClient bare(token);
    const auto requests = eventRequests(events);
    bare.send(std::vector<protocol::EventRequest>(requests.begin(), requests.begin() + 30));
    for (int inFlight : {1, 2, 3}) {
      const double server = sandbox.cpuSeconds();
      const double seconds = bare.send(requests, inFlight);
      std::printf("bare client, %d in flight: %.0f events/s, sandbox CPU %.0f us/event\n", inFlight,
                  count / seconds, (sandbox.cpuSeconds() - server) * 1e6 / count);
    }
  }

  // How long the request manager's queue takes to take in what one
  // uploadCacheData() enqueues, by backlog size: each envelope is compared
  // with every one already waiting.
  auto& helper = velquin::OVDeviceInfoManagerHelper::sharedManager();
  for (std::size_t backlog : {events / 4, events / 2, events}) {
    fillCache(backlog);
    helper.setNewAppKey(token.accessToken.value_or(""));
    UploadTiming timing = uploadUntilEmpty(backlog, Clock::now(), true);
    std::printf("backlog %zu: the manager's queue took in every envelope after %.0f ms (%.1f us "
                "per envelope); empty after %.2f s\n",
                backlog, timing.takenInSeconds * 1000,
                timing.takenInSeconds * 1e6 / static_cast<double>(backlog), timing.emptySeconds);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 3;
  std::size_t events = 10000;
  bool backlog = false;
  bool breakdown = false;
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--backlog") backlog = true;
    if (option == "--breakdown") breakdown = true;
    if (option == "--runs" && i + 1 < argc) runs = std::max(1, std::atoi(argv[++i]));
    if (option == "--events" && i + 1 < argc) {
      events = static_cast<std::size_t>(std::max(1, std::atoi(argv[++i])));
    }
  }
  velquin::bench::BenchSandbox sandbox;
  if (!sandbox.start()) return 1;
  if (breakdown) return runBreakdown(sandbox, events);
  return backlog ? runBacklog(sandbox, runs, events) : runDelivery(sandbox, runs, events);
}
