// Delivery against a scripted backend over TLS: which replies delete a
// cached row, how failures are retried or kept, and that the three-call
// limit neither loses nor stalls requests.
#include <gtest/gtest.h>

#include <thread>

#include "ScriptedEventServer.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "delivery/ZKFMDB.h"
#include "support/Await.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;

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

  // An event as analytics stores it: cached first, then handed over.
  std::shared_ptr<OVRequest> stored(const std::string& name) {
    auto request = std::make_shared<OVRequest>();
    request->setParams(nlohmann::json{{"eventName", name}, {"eventValue", "{}"},
                                      {"timestamp", "1700000000000"}, {"userId", "u"}});
    request->setRequestId(std::to_string(1700000000 + ++counter));
    cache->addRequest(*request);
    return request;
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

TEST_F(Delivery, ABackendThatCannotBeReachedKeepsEveryRow) {
  server.failNext(3, grpc::UNAVAILABLE);
  for (int i = 0; i < 3; ++i) manager->enqueueRequest(stored("ev_down"));
  ASSERT_TRUE(server.waitForReceived(3));
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(rows().size(), 3u);
  EXPECT_EQ(server.received().size(), 3u);  // no retries spent on an absent backend
  for (const auto& row : rows()) EXPECT_EQ(row->retryCount(), 3);
  manager->uploadCacheData();
  EXPECT_TRUE(waitForRows(0));
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

}  // namespace
}  // namespace velquin::testing
