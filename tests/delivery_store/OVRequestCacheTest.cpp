#include "delivery/OVRequestCache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "support/TempEnvironment.h"

namespace velquin {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(OVRequest, ParamStrFollowsParamsAndReliability) {
  OVRequest request;
  EXPECT_EQ(request.retryCount(), 3);
  EXPECT_EQ(request.reliability(), 1);
  request.setParams(nlohmann::json{{"a", 1}});
  ASSERT_TRUE(request.paramStr());
  EXPECT_THAT(*request.paramStr(), HasSubstr("\n"));  // pretty-printed
  EXPECT_EQ(nlohmann::json::parse(*request.paramStr()), (nlohmann::json{{"a", 1}}));

  OVRequest single;
  single.setReliability(2);
  EXPECT_EQ(single.retryCount(), 1);
  single.setParams(nlohmann::json{{"a", 1}});
  EXPECT_FALSE(single.paramStr());
  single.setReliability(1);  // params are set again, so the text follows
  EXPECT_TRUE(single.paramStr());

  OVRequest exhausted;
  exhausted.setRetryCount(0);
  exhausted.reduceRetryCount();
  EXPECT_EQ(exhausted.retryCount(), 0);
  exhausted.setRetryCount(-5);
  exhausted.reduceRetryCount();
  EXPECT_EQ(exhausted.retryCount(), 0);

  // Text that is not UTF-8 does not lose the event.
  OVRequest odd;
  odd.setParams(nlohmann::json{{"v", std::string("\xff\xfe")}});
  EXPECT_TRUE(odd.paramStr());
}

TEST(OVRequest, EqualityIsIdentityOfTheIdAndCopiesShareIt) {
  OVRequest a;
  a.setRequestId("100");
  OVRequest b;
  b.setRequestId("100");
  EXPECT_EQ(a, a);
  EXPECT_FALSE(a == b);  // equal text, different id objects
  OVRequest none1, none2;
  EXPECT_FALSE(none1 == none2);

  a.setParams(nlohmann::json{{"k", "v"}});
  a.setParamStr("stored text");
  a.setRetryCount(2);
  OVRequest copy(a);
  EXPECT_EQ(copy, a);
  EXPECT_EQ(copy.requestId().get(), a.requestId().get());
  EXPECT_EQ(copy.retryCount(), 2);
  EXPECT_EQ(copy.params(), a.params());
  EXPECT_EQ(copy.paramStr(), "stored text");  // the source's text wins
}

TEST(OVRequest, ParamsAreRestoredFromTextOnlyForJsonObjects) {
  OVRequest request;
  std::string error;
  EXPECT_FALSE(request.restoreParamsFromParamStr(error));
  request.setParamStr("{not json");
  EXPECT_FALSE(request.restoreParamsFromParamStr(error));
  EXPECT_FALSE(request.params());
  request.setParamStr("[1,2]");
  EXPECT_FALSE(request.restoreParamsFromParamStr(error));
  request.setParamStr("{\"eventName\": \"x\"}");
  EXPECT_TRUE(request.restoreParamsFromParamStr(error));
  EXPECT_EQ((*request.params())["eventName"], "x");
}

class OVRequestCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { env_.installAsMainBundle(); }

  std::vector<std::shared_ptr<OVRequest>> all(OVRequestCache& cache) {
    std::vector<std::shared_ptr<OVRequest>> out;
    bool called = false;
    cache.allRequestsFromFmdbWihtClass(OVRequest::zk_model(), [&](const auto& requests) {
      called = true;
      EXPECT_TRUE(requests.has_value());
      if (requests) out = *requests;
    });
    EXPECT_TRUE(called);
    return out;
  }

  velquin::testing::TempEnvironment env_;
};

TEST_F(OVRequestCacheTest, RoundTripRestoresFreshEnvelopes) {
  OVRequestCache& cache = OVRequestCache::shared();
  ASSERT_TRUE(cache.isAvailable());
  EXPECT_TRUE(all(cache).empty());
  EXPECT_THAT(ZKFMDB::shareDatabase()->zk_columnNameArray("user"),
              ElementsAre("pkid", "retryCount", "requestId", "reliability", "paramStr"));

  for (int i = 1; i <= 3; ++i) {
    OVRequest request;
    request.setRequestId(std::to_string(1700000000 + i));
    request.setParams(nlohmann::json{{"a", i}});
    request.setRetryCount(i);
    cache.addRequest(request);
  }
  auto restored = all(cache);
  ASSERT_EQ(restored.size(), 3u);
  EXPECT_EQ(restored[1]->requestIdText(), "1700000002");
  EXPECT_EQ(restored[1]->retryCount(), 2);
  EXPECT_EQ(restored[1]->reliability(), 1);
  EXPECT_FALSE(restored[1]->params());
  EXPECT_EQ(nlohmann::json::parse(*restored[1]->paramStr()), (nlohmann::json{{"a", 2}}));

  cache.deleteRequest("1700000002");
  cache.deleteRequest("999");           // not there: nothing changes
  cache.deleteRequest("1 OR 1=1");      // not a bare number: nothing happens
  cache.deleteRequest(std::nullopt);
  restored = all(cache);
  ASSERT_EQ(restored.size(), 2u);
  EXPECT_EQ(restored[0]->requestIdText(), "1700000001");
  EXPECT_EQ(restored[1]->requestIdText(), "1700000003");
}

TEST_F(OVRequestCacheTest, UnparsableRowsRestoreWithoutHarmingOthers) {
  OVRequestCache& cache = OVRequestCache::shared();
  ZKFMDB* store = ZKFMDB::shareDatabase();
  store->zk_insertTable("user", ZKRow{{"requestId", std::string("1")}, {"paramStr", std::string("{oops")}});
  store->zk_insertTable("user", ZKRow{{"requestId", std::string("2")},
                                      {"paramStr", ZKBlob{0xff, 0x00, 0xfe}},
                                      {"retryCount", std::string("many")}});
  OVRequest good;
  good.setRequestId("3");
  good.setParams(nlohmann::json{{"eventName", "ok"}});
  cache.addRequest(good);

  auto restored = all(cache);
  ASSERT_EQ(restored.size(), 3u);
  std::string error;
  EXPECT_EQ(restored[0]->paramStr(), "{oops");
  EXPECT_FALSE(restored[0]->restoreParamsFromParamStr(error));
  EXPECT_EQ(restored[1]->paramStr()->size(), 3u);
  EXPECT_EQ(restored[1]->retryCount(), 0);
  EXPECT_FALSE(restored[1]->restoreParamsFromParamStr(error));
  EXPECT_TRUE(restored[2]->restoreParamsFromParamStr(error));
}

TEST_F(OVRequestCacheTest, FatalCrashWritesGetDistinctIds) {
  OVRequestCache& cache = OVRequestCache::shared();
  cache.writeFatalCrash(std::string("SIGSEGV at 0x0"), "user-7", 1);
  cache.writeFatalCrash(std::nullopt, "user-7", 2);

  auto restored = all(cache);
  ASSERT_EQ(restored.size(), 2u);
  EXPECT_NE(restored[0]->requestIdText(), restored[1]->requestIdText());
  std::set<std::string> ids;
  for (auto& request : restored) {
    EXPECT_THAT(request->requestIdText(), ::testing::MatchesRegex("[0-9]+"));
    std::string error;
    ASSERT_TRUE(request->restoreParamsFromParamStr(error)) << error;
    const auto& params = *request->params();
    EXPECT_EQ(params["eventName"], "falal_crash");
    EXPECT_EQ(params["userId"], "user-7");
    EXPECT_THAT(params["timestamp"].get<std::string>(), ::testing::MatchesRegex("[0-9]{13}"));
  }
  EXPECT_EQ((*restored[0]->params())["eventValue"], "SIGSEGV at 0x0");
  EXPECT_FALSE(restored[1]->params()->contains("eventValue"));

  // Deletion by the generated ids works.
  cache.deleteRequest(restored[0]->requestIdText());
  EXPECT_EQ(all(cache).size(), 1u);
}

TEST(OVRequestCacheWithoutStore, EveryOperationIsANoOp) {
  velquin::testing::TempEnvironment env;
  std::ofstream(env.root() / "blocked") << "file";
  setenv("XDG_DATA_HOME", (env.root() / "blocked").c_str(), 1);
  env.installAsMainBundle();

  ::testing::internal::CaptureStderr();
  OVRequestCache& cache = OVRequestCache::shared();
  std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_FALSE(cache.isAvailable());
  EXPECT_THAT(log, HasSubstr("will not be cached"));

  OVRequest request;
  request.setRequestId("1");
  cache.addRequest(request);
  cache.deleteRequest("1");
  cache.writeFatalCrash(std::string("x"), "", 1);
  bool called = false;
  cache.allRequestsFromFmdbWihtClass(OVRequest::zk_model(), [&](const auto& requests) {
    called = true;
    EXPECT_FALSE(requests.has_value());
  });
  EXPECT_TRUE(called);
}

}  // namespace
}  // namespace velquin
