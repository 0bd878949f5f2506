// Analytics events as they land in the event cache: names, parameters,
// identifiers, and the start-of-session event.
#include <gtest/gtest.h>

#include <ctime>

#include "analytics/OVDeviceInfoManager.h"
#include "delivery/OVRequestCache.h"
#include "delivery/ZKFMDB.h"
#include "platform/UserDefaults.h"
#include "support/TempEnvironment.h"
#include "velquin/Bundle.h"
#include "velquin/OVAnalytics.h"

namespace velquin::testing {
namespace {

// No token file: events are cached but never sent, so the cache shows
// exactly what was handed over.
class Analytics : public ::testing::Test {
 protected:
  void SetUp() override { env.installAsMainBundle(); }

  std::vector<nlohmann::json> cachedParams() {
    std::vector<nlohmann::json> params;
    OVRequestCache::shared().allRequestsFromFmdbWihtClass(
        OVRequest::zk_model(), [&](const auto& rows) {
          for (const auto& row : rows.value_or(std::vector<std::shared_ptr<OVRequest>>{})) {
            params.push_back(nlohmann::json::parse(row->paramStr().value_or("null")));
          }
        });
    return params;
  }

  TempEnvironment env;
  OVAnalytics analytics;
};

TEST_F(Analytics, AnEventIsCachedWithItsParametersAsCompactJson) {
  OVDeviceInfoManager::shared().setUserId("user-7");
  auto id = analytics.uploadBigDataWithEvent(std::string("ev_custom"),
                                             {{"level", 3}, {"name", "a \"b\""}});
  auto params = cachedParams();
  ASSERT_EQ(params.size(), 1u);
  EXPECT_EQ(params[0]["eventName"], "ev_custom");
  EXPECT_EQ(params[0]["eventValue"], R"({"level":3,"name":"a \"b\""})");
  EXPECT_EQ(params[0]["userId"], "user-7");
  const auto stamp = std::stoll(params[0]["timestamp"].get<std::string>());
  EXPECT_NEAR(static_cast<double>(stamp) / 1000.0, static_cast<double>(std::time(nullptr)), 5.0);
  EXPECT_FALSE(id.empty());
}

TEST_F(Analytics, WithoutAUserIdOrNameThoseKeysAreLeftOut) {
  analytics.uploadBigDataWithEvent(std::nullopt);
  auto params = cachedParams();
  ASSERT_EQ(params.size(), 1u);
  EXPECT_FALSE(params[0].contains("eventName"));
  EXPECT_FALSE(params[0].contains("userId"));
  EXPECT_EQ(params[0]["eventValue"], "{}");
}

TEST_F(Analytics, TypedEventsCarryTheBackendsNames) {
  analytics.uploadBigDataWithType(EventType::screenView);
  analytics.uploadBigDataWithType(EventType::fatalCrash, {{"k", 1}});
  ParamModel model;
  model.screenType = ParamScreenType::paramScreenHome;
  model.adsouceType = ParamAdSouceType::paramAdSouceMobpup;
  model.otherData = {{"screeen_name", "x"}, {"extra", true}};
  analytics.uploadBigDataWithType(EventType::adsShow, model);
  analytics.uploadBigDataWithType(EventType::adsClick, ParamModel{});

  auto params = cachedParams();
  ASSERT_EQ(params.size(), 4u);
  EXPECT_EQ(params[0]["eventName"], "ev_scree_view");
  EXPECT_EQ(params[1]["eventName"], "fatal_crash");
  EXPECT_EQ(params[2]["eventName"], "ev_ads_show");
  EXPECT_EQ(nlohmann::json::parse(params[2]["eventValue"].get<std::string>()),
            (nlohmann::json{{"screeen_name", "homepage"}, {"extra", true}, {"ad_source", "mobpup"}}));
  EXPECT_EQ(params[3]["eventValue"], "{}");
}

TEST_F(Analytics, FirstStartSendsFirstOpenAndLaterStartsAppStart) {
  analytics.runDeferredStart();
  analytics.runDeferredStart();
  auto params = cachedParams();
  ASSERT_EQ(params.size(), 2u);
  EXPECT_EQ(params[0]["eventName"], "ev_first_open");
  EXPECT_EQ(params[1]["eventName"], "ev_app_start");
  EXPECT_TRUE(platform::UserDefaults::standard().boolForKey("ORVENT_ANALYTICS_FIRST_OPEN"));
}

TEST_F(Analytics, RequestIdsNeverRepeatOnesLeftByAnEarlierRun) {
  // A row from a run that sent many events: its id lies past the current second.
  const auto ahead = static_cast<long long>(std::time(nullptr)) + 5000;
  {
    std::filesystem::create_directories(Bundle::main().dataDirectory());
    auto store = ZKFMDB::initWithDBName(std::nullopt, Bundle::main().dataDirectory());
    ASSERT_TRUE(store);
    OVRequestCache earlier(store.get());
    OVRequest left;
    left.setRequestId(std::to_string(ahead));
    left.setParams(nlohmann::json{{"eventName", "old"}});
    earlier.addRequest(left);
  }
  auto first = std::stoll(analytics.uploadBigDataWithEvent(std::string("new")));
  auto second = std::stoll(analytics.uploadBigDataWithEvent(std::string("new")));
  EXPECT_GT(first, ahead);
  EXPECT_GT(second, first);
}

}  // namespace
}  // namespace velquin::testing
