// Delivery against a scripted backend over TLS: which replies delete a
// cached row, how failures are retried or kept, and that the three-call
// limit neither loses nor stalls requests.
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <map>
#include <thread>

#include "ScriptedEventServer.h"
#include "delivery/AckLog.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "delivery/ZKFMDB.h"
#include "support/Await.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;

// Keeps a serial queue busy from construction until destruction.
class QueueHold {
 public:
  explicit QueueHold(support::SerialQueue& queue) {
    queue.async([opened = gate_.get_future().share()] { opened.wait(); });
  }
  ~QueueHold() { gate_.set_value(); }
  QueueHold(const QueueHold&) = delete;
  QueueHold& operator=(const QueueHold&) = delete;

 private:
  std::promise<void> gate_;
};

class Delivery : public ::testing::Test {
 protected:
  void SetUp() override {
    store = ZKFMDB::initWithDBName("events.sqlite", env.root());
    ASSERT_TRUE(store);
    cache = std::make_unique<OVRequestCache>(store.get());
    OVRequestManager::Options options;
    options.host = server.address();
    options.rootCertificates = server.caPem();
    options.cache = cache.get();
    options.isReachable = [this] { return reachable.load(); };
    options.hasCredentials = [] { return true; };
    options.callTimeout = 10s;  // generous: sanitizer builds make the first handshake slow
    manager = OVRequestManager::create(options);
  }

  // Replies still on their way would reach a manager whose cache this
  // fixture is about to destroy: let them land first.
  void TearDown() override {
    server.releaseAll();
    auto until = std::chrono::steady_clock::now() + 10s;
    while (manager && manager->inFlight() > 0 && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(50ms);  // the last batch of deletes
    manager.reset();
  }

  // An envelope as analytics makes it; `id` 0 takes the next counter value.
  std::shared_ptr<OVRequest> envelope(const std::string& name, long id = 0) {
    auto request = std::make_shared<OVRequest>();
    request->setParams(nlohmann::json{{"eventName", name}, {"eventValue", "{}"},
                                      {"timestamp", "1700000000000"}, {"userId", "u"}});
    request->setRequestId(std::to_string(id ? id : 1700000000 + ++counter));
    return request;
  }

  // An event cached by its caller, then handed over.
  std::shared_ptr<OVRequest> stored(const std::string& name) {
    auto request = envelope(name);
    request->setRowId(cache->addRequest(*request));
    return request;
  }

  // Nothing queued, in flight or waiting for its row's delete.
  bool waitIdle(const std::shared_ptr<OVRequestManager>& which,
                std::chrono::milliseconds limit = 10s) {
    auto until = std::chrono::steady_clock::now() + limit;
    for (;;) {
      which->drainQueue();
      if (which->inFlight() == 0 && which->queued() == 0) return true;
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(5ms);
    }
  }

  // How often the backend received each event name.
  std::map<std::string, int> receivedNames() {
    std::map<std::string, int> seen;
    for (const auto& request : server.received()) ++seen[request.event().name()];
    return seen;
  }

  std::vector<std::shared_ptr<OVRequest>> rows() {
    std::vector<std::shared_ptr<OVRequest>> result;
    cache->allRequestsFromFmdbWihtClass(OVRequest::zk_model(), [&](const auto& restored) {
      if (restored) result = *restored;
    });
    return result;
  }

  bool waitForRows(size_t count, std::chrono::milliseconds limit = 10s) {
    auto until = std::chrono::steady_clock::now() + limit;
    while (rows().size() != count) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(10ms);
    }
    return true;
  }

  TempEnvironment env;
  ScriptedEventServer server{env.root() / "tls"};
  std::unique_ptr<ZKFMDB> store;
  std::unique_ptr<OVRequestCache> cache;
  std::atomic<bool> reachable{true};
  std::shared_ptr<OVRequestManager> manager;
  int counter = 0;
};

TEST_F(Delivery, AnyReplyDeletesTheRowWhateverItsStatus) {
  server.setStatus(false);
  Await<bool> answered;
  manager->enqueueRequest(stored("ev_a"), [&](const auto& reply) { answered.set(reply.status()); });
  ASSERT_EQ(answered.wait(), false);
  EXPECT_TRUE(waitForRows(0));
  auto sent = server.received();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].event().name(), "ev_a");
  EXPECT_EQ(sent[0].timestamp(), 1700000000000);
  EXPECT_EQ(sent[0].sdkversion(), "1.0.15");
  EXPECT_EQ(sent[0].ext_info().os(), "ios");
}

TEST_F(Delivery, BackendErrorsSpendTheRetriesThenDropTheRow) {
  server.failNext(100, grpc::INTERNAL);
  Await<int> failed;
  manager->enqueueRequest(stored("ev_b"), nullptr,
                          [&](const Error& error) { failed.set(static_cast<int>(error.code)); });
  ASSERT_EQ(failed.wait(), grpc::INTERNAL);
  // Three retries after the first attempt, then the row is given up.
  ASSERT_TRUE(waitForRows(0));
  EXPECT_EQ(server.received().size(), 4u);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(server.received().size(), 4u);
  EXPECT_EQ(failed.reports(), 1);  // re-sends carry no blocks
}

TEST_F(Delivery, AnExhaustedEnvelopeIsDroppedOnItsNextFailure) {
  server.failNext(1, grpc::UNAUTHENTICATED);
  auto request = stored("ev_c");
  request->setRetryCount(0);
  manager->enqueueRequest(request);
  ASSERT_TRUE(waitForRows(0));
  EXPECT_EQ(server.received().size(), 1u);
}

TEST_F(Delivery, FailuresWhileUnreachableLeaveTheRowUntouched) {
  reachable = false;
  server.failNext(1, grpc::INTERNAL);
  Await<bool> failed;
  manager->enqueueRequest(stored("ev_d"), nullptr, [&](const Error&) { failed.set(true); });
  ASSERT_TRUE(failed.wait());
  std::this_thread::sleep_for(200ms);
  auto left = rows();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0]->retryCount(), 3);
  EXPECT_EQ(server.received().size(), 1u);

  // The next upload delivers it.
  reachable = true;
  manager->uploadCacheData();
  EXPECT_TRUE(waitForRows(0));
}

TEST_F(Delivery, ABackendThatNeverAnswersSpendsTheRetriesButKeepsEveryRow) {
  // Retried at once while the device is reachable; with no answer from the
  // backend the rows stay for the timer and the next start.
  server.failNext(12, grpc::UNAVAILABLE);
  for (int i = 0; i < 3; ++i) manager->enqueueRequest(stored("ev_down"));
  ASSERT_TRUE(server.waitForReceived(12));
  ASSERT_TRUE(waitIdle(manager));
  EXPECT_EQ(server.received().size(), 12u);
  ASSERT_EQ(rows().size(), 3u);
  for (const auto& row : rows()) EXPECT_EQ(row->retryCount(), 3);
  manager->uploadCacheData();
  EXPECT_TRUE(waitForRows(0));
  EXPECT_EQ(server.received().size(), 15u);
}

TEST_F(Delivery, ABackendUnavailableTwiceGetsTheEventAtOnce) {
  server.failNext(2, grpc::UNAVAILABLE);
  manager->enqueueRequest(stored("ev_soon"));
  ASSERT_TRUE(server.waitForReceived(1));  // the connection is up
  // Well before the 60-second timer could send it again.
  EXPECT_TRUE(waitForRows(0));
  EXPECT_EQ(server.received().size(), 3u);
}

TEST_F(Delivery, ASlowBackendPastTheDeadlineKeepsTheRow) {
  server.setHold(true);
  OVRequestManager::Options options;
  options.host = server.address();
  options.rootCertificates = server.caPem();
  options.cache = cache.get();
  options.hasCredentials = [] { return true; };
  options.callTimeout = 300ms;
  auto impatient = OVRequestManager::create(options);
  Await<int> failed;
  impatient->enqueueRequest(stored("ev_slow"), nullptr,
                            [&](const Error& error) { failed.set(static_cast<int>(error.code)); });
  // On a loaded machine the deadline may already pass during the TLS
  // handshake, which gRPC reports as UNAVAILABLE; the row is kept either way.
  auto code = failed.wait();
  ASSERT_TRUE(code);
  EXPECT_TRUE(*code == grpc::DEADLINE_EXCEEDED || *code == grpc::UNAVAILABLE) << *code;
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(rows().size(), 1u);
  server.releaseAll();
}

TEST_F(Delivery, TheFourthRequestWaitsForASlotAndIsThenSent) {
  server.setHold(true);
  for (int i = 0; i < 4; ++i) manager->enqueueRequest(stored("ev_" + std::to_string(i)));
  ASSERT_TRUE(server.waitForHeld(3));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(server.held(), 3u);
  EXPECT_EQ(server.received().size(), 3u);
  EXPECT_EQ(manager->inFlight(), 3);

  server.releaseOne();
  ASSERT_TRUE(server.waitForReceived(4));
  EXPECT_EQ(server.received().back().event().name(), "ev_3");
  server.releaseAll();
  EXPECT_TRUE(waitForRows(0));
  EXPECT_EQ(server.maxHeld(), 3u);
}

TEST_F(Delivery, RetriesQueuedBehindBusySlotsAreNeitherLostNorStuck) {
  // Failures come back while every slot is taken and more envelopes wait;
  // the retries queue up behind them and all of it drains.
  server.failNext(6, grpc::INTERNAL);
  for (int i = 0; i < 12; ++i) manager->enqueueRequest(stored("ev_many"));
  EXPECT_TRUE(waitForRows(0, 20s));
  EXPECT_EQ(server.received().size(), 18u);
  EXPECT_LE(server.maxHeld(), 3u);
}

TEST_F(Delivery, TheSameEnvelopeQueuedTwiceIsSentOnce) {
  server.setHold(true);
  for (int i = 0; i < 3; ++i) manager->enqueueRequest(stored("ev_busy"));
  ASSERT_TRUE(server.waitForHeld(3));
  auto twice = stored("ev_twice");
  manager->enqueueRequest(twice);
  manager->enqueueRequest(twice);
  manager->drainQueue();
  server.releaseAll();
  ASSERT_TRUE(waitForRows(0));
  int seen = 0;
  for (const auto& request : server.received()) seen += request.event().name() == "ev_twice";
  EXPECT_EQ(seen, 1);
}

TEST_F(Delivery, RowsWithBrokenParametersStillGoOutAndLeave) {
  auto broken = std::make_shared<OVRequest>();
  broken->setRequestId("1700000999");
  broken->setParamStr(std::string("{not json"));
  cache->addRequest(*broken);
  stored("ev_fine");
  ::testing::internal::CaptureStdout();
  manager->uploadCacheData();
  EXPECT_TRUE(waitForRows(0));
  std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("json parsing failed"), std::string::npos);
  EXPECT_EQ(server.received().size(), 2u);
}

TEST_F(Delivery, WithoutCredentialsEventsWaitInTheCache) {
  OVRequestManager::Options options;
  options.host = server.address();
  options.rootCertificates = server.caPem();
  options.cache = cache.get();
  std::atomic<bool> keyKnown{false};
  options.hasCredentials = [&] { return keyKnown.load(); };
  auto waiting = OVRequestManager::create(options);
  waiting->enqueueRequest(stored("ev_early"));
  waiting->drainQueue();
  EXPECT_TRUE(server.received().empty());
  EXPECT_EQ(rows().size(), 1u);
  keyKnown = true;
  waiting->uploadCacheData();
  EXPECT_TRUE(waitForRows(0));
}

TEST_F(Delivery, UploadsRacingRepliesAndDeletesNeverSendARowTwice) {
  // The start-up upload, the timer and a host's flush may all overlap new
  // events, replies and batched deletes.
  for (int i = 0; i < 40; ++i) manager->submit(envelope("ev_once_" + std::to_string(i)));
  std::atomic<bool> done{false};
  std::thread uploader([&] {
    while (!done) manager->uploadCacheData();
  });
  for (int i = 40; i < 60; ++i) manager->submit(envelope("ev_once_" + std::to_string(i)));
  const bool drained = waitForRows(0, 20s);
  done = true;
  uploader.join();
  ASSERT_TRUE(drained);
  ASSERT_TRUE(waitIdle(manager));
  auto seen = receivedNames();
  EXPECT_EQ(seen.size(), 60u);
  for (const auto& [name, times] : seen) EXPECT_EQ(times, 1) << name;
}

TEST_F(Delivery, RepliesNeverWaitForTheDatabase) {
  // While another writer holds the database, replies are recorded in the
  // acknowledgement log, their slots are reused at once, and every row is
  // sent exactly once; the rows leave in a batch once the database is free.
  for (int i = 0; i < 9; ++i) stored("ev_window_" + std::to_string(i));
  manager->uploadCacheData();
  {
    QueueHold hold(store->dbQueue());
    EXPECT_TRUE(server.waitForReceived(9)) << "a reply waited for the database";
  }
  EXPECT_TRUE(waitForRows(0));
  ASSERT_TRUE(waitIdle(manager));
  auto seen = receivedNames();
  EXPECT_EQ(seen.size(), 9u);
  for (const auto& [name, times] : seen) EXPECT_EQ(times, 1) << name;
}

TEST_F(Delivery, AcknowledgementsLeftByADeadProcessAreHonouredAndDamageOnlyResends) {
  // A process killed between its replies and its batched delete left these
  // records; one was torn by a bad write and one names a row that was
  // replaced since (same pkid, another request id).
  std::vector<std::shared_ptr<OVRequest>> kept;
  for (int i = 0; i < 6; ++i) kept.push_back(stored("ev_left_" + std::to_string(i)));
  {
    AckLog log(cache->ackFile());
    ASSERT_TRUE(log.append(*kept[0]->rowId(), kept[0]->requestIdText()));
    ASSERT_TRUE(log.append(*kept[1]->rowId(), kept[1]->requestIdText()));
    ASSERT_TRUE(log.append(*kept[2]->rowId(), kept[2]->requestIdText()));
    ASSERT_TRUE(log.append(*kept[3]->rowId(), "1600000000"));
  }
  {
    // Damage the second record and leave half a record at the end.
    std::fstream file(cache->ackFile(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(24 + 3);
    file.put('\x5a');
    file.seekp(0, std::ios::end);
    file.write("partial", 7);
  }
  auto restarted = OVRequestManager::create([&] {
    OVRequestManager::Options options;
    options.host = server.address();
    options.rootCertificates = server.caPem();
    options.cache = cache.get();
    options.hasCredentials = [] { return true; };
    options.callTimeout = 10s;
    return options;
  }());
  restarted->uploadCacheData();
  EXPECT_TRUE(waitForRows(0));
  ASSERT_TRUE(waitIdle(restarted));
  restarted->foldAcknowledgements();
  // Rows 0 and 2 were acknowledged; the damaged record and the replaced
  // row's record only cost a re-send.
  EXPECT_EQ(receivedNames(), (std::map<std::string, int>{{"ev_left_1", 1},
                                                          {"ev_left_3", 1},
                                                          {"ev_left_4", 1},
                                                          {"ev_left_5", 1}}));
  EXPECT_TRUE(AckLog(cache->ackFile()).read().empty());
  restarted.reset();
}

TEST_F(Delivery, AnOfflineBacklogIsReadInPagesAndAProbeWakesItUp) {
  // The backend stops answering: once a call failed with no answer, new
  // events are only cached and a timer pass sends a single probe.
  server.failNext(1000, grpc::UNAVAILABLE);
  for (int i = 0; i < 100; ++i) manager->submit(envelope("ev_offline_" + std::to_string(i)));
  ASSERT_TRUE(waitIdle(manager));
  const size_t afterBurst = server.received().size();
  // Before the first failure came back, at most a queue's worth was taken.
  EXPECT_LE(receivedNames().size(),
            size_t{OVRequestManager::kPageRows + OVRequestManager::kMaxInFlight});
  manager->uploadCacheData();
  ASSERT_TRUE(waitIdle(manager));
  EXPECT_LE(server.received().size() - afterBurst, 4u) << "a pass sent more than one probe";
  EXPECT_EQ(rows().size(), 100u);

  // The backend answers again: the probe's reply starts the sweep, which
  // delivers everything, a page at a time, each row once.
  server.failNext(0, grpc::UNAVAILABLE);
  const size_t beforeRecovery = server.received().size();
  manager->uploadCacheData();
  EXPECT_TRUE(waitForRows(0, 30s));
  ASSERT_TRUE(waitIdle(manager));
  const auto all = server.received();
  std::map<std::string, int> delivered;
  for (size_t i = beforeRecovery; i < all.size(); ++i) ++delivered[all[i].event().name()];
  EXPECT_EQ(delivered.size(), 100u);
  for (const auto& [name, times] : delivered) EXPECT_EQ(times, 1) << name;
}

TEST_F(Delivery, TheCapDropsTheOldestRowsAtInsertAndATimerPassSaysSo) {
  OVRequestCache::setRowCap(5);
  // Nothing leaves the cache: only the cap removes rows.
  server.failNext(1000, grpc::INTERNAL);
  reachable = false;
  for (int i = 0; i < 8; ++i) manager->submit(envelope("ev_capped_" + std::to_string(i)));
  std::vector<std::string> names;
  for (const auto& row : rows()) {
    std::string why;
    ASSERT_TRUE(row->restoreParamsFromParamStr(why)) << why;
    names.push_back((*row->params())["eventName"].get<std::string>());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"ev_capped_3", "ev_capped_4", "ev_capped_5",
                                              "ev_capped_6", "ev_capped_7"}));
  ::testing::internal::CaptureStderr();
  manager->uploadCacheData();
  manager->uploadCacheData();
  const std::string said = ::testing::internal::GetCapturedStderr();
  OVRequestCache::setRowCap(OVRequestCache::kDefaultRowCap);
  EXPECT_NE(said.find("3 oldest event(s) dropped"), std::string::npos) << said;
  EXPECT_EQ(said.find("dropped"), said.rfind("dropped")) << "logged more than once: " << said;
}

TEST_F(Delivery, ARowWhoseDeleteFailsIsNotSentAgainByThisProcess) {
  stored("ev_stuck");
  ASSERT_TRUE(store->zk_executeUpdate("PRAGMA query_only = ON"));  // every write now fails
  ::testing::internal::CaptureStderr();
  manager->uploadCacheData();
  ASSERT_TRUE(server.waitForReceived(1));
  ASSERT_TRUE(waitIdle(manager));
  for (int i = 0; i < 5; ++i) manager->uploadCacheData();
  ASSERT_TRUE(waitIdle(manager));
  std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(server.received().size(), 1u);
  EXPECT_EQ(rows().size(), 1u);  // kept for the next start
  EXPECT_NE(said.find("could not be deleted"), std::string::npos) << said;
  store->zk_executeUpdate("PRAGMA query_only = OFF");
}

TEST_F(Delivery, ProcessesSharingTheFileWithCollidingRequestIdsLoseNothing) {
  // Two processes make request ids from the same clock and their own
  // counters: equal ids are normal. Rows are told apart by their pkid.
  auto otherStore = ZKFMDB::initWithDBName("events.sqlite", env.root());
  ASSERT_TRUE(otherStore);
  OVRequestCache otherCache(otherStore.get());
  for (int i = 0; i < 20; ++i) {
    cache->addRequest(*envelope("ev_first_" + std::to_string(i), 1700005000 + i));
    otherCache.addRequest(*envelope("ev_second_" + std::to_string(i), 1700005000 + i));
  }
  manager->uploadCacheData();
  ASSERT_TRUE(waitForRows(0));
  ASSERT_TRUE(waitIdle(manager));
  auto seen = receivedNames();
  EXPECT_EQ(seen.size(), 40u);
  for (const auto& [name, times] : seen) EXPECT_EQ(times, 1) << name;
}

TEST_F(Delivery, TheLastReferenceMayGoInsideASuccessBlock) {
  // The manager is then destroyed on the reply's own callback thread.
  std::weak_ptr<OVRequestManager> watch = manager;
  Await<bool> dropped;
  manager->enqueueRequest(stored("ev_last"), [&](const auto&) {
    manager.reset();
    dropped.set(true);
  });
  ASSERT_TRUE(dropped.wait());
  auto until = std::chrono::steady_clock::now() + 10s;
  while (!watch.expired() && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace velquin::testing
