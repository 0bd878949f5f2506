// The user id and the stored values behind it: how the id is chosen, kept
// across launches, and what happens to damaged or unwritable files.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#include <nlohmann/json.hpp>

#include "analytics/OVDeviceInfoManager.h"
#include "purchases/OVUserDataManager.h"
#include "support/OVUtils.h"
#include "platform/Keychain.h"
#include "platform/UserDefaults.h"
#include "purchases/OVDataCache.h"
#include "support/ChildProcess.h"
#include "support/FakeEnv.h"
#include "support/TempEnvironment.h"
#include "velquin/NotificationCenter.h"

namespace {

using velquin::OVDeviceInfoManager;
using velquin::OVUserDataManager;
using velquin::platform::UserDefaults;

class Identity : public ::testing::Test {
 protected:
  velquin::testing::TempEnvironment env;
  std::filesystem::path defaultsFile = env.root() / "config" / "app" / "defaults.plist";
  velquin::testing::FakeEnv fakeEnv{env.root() / "keychain.plist"};
  OVDeviceInfoManager deviceInfo{fakeEnv, env.bundleId()};
  std::vector<std::unique_ptr<UserDefaults>> launches;  // one defaults object per launch

  void SetUp() override { velquin::OVUtils::enableLogs(true); }

  // Builds a manager the way a fresh launch does and returns what it logged.
  std::string launch(std::unique_ptr<OVUserDataManager>& manager) {
    launches.push_back(std::make_unique<UserDefaults>(defaultsFile));
    ::testing::internal::CaptureStdout();
    manager = std::make_unique<OVUserDataManager>(*launches.back(), deviceInfo);
    return ::testing::internal::GetCapturedStdout();
  }
};

TEST_F(Identity, FirstLaunchMakesAnIdThatLaterLaunchesKeep) {
  std::unique_ptr<OVUserDataManager> first, second;
  std::string firstLog = launch(first);
  const std::string id = first->userId();
  EXPECT_TRUE(std::regex_match(id, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"))) << id;
  EXPECT_NE(firstLog.find("[OrventPurchase] set new user id: " + id), std::string::npos);

  std::string secondLog = launch(second);
  EXPECT_EQ(second->userId(), id);
  EXPECT_EQ(secondLog, "");
  // Resolution leaves the device information's copy alone.
  EXPECT_EQ(deviceInfo.userId(), "");
}

TEST_F(Identity, RequestedIdsReplaceTheStoredOneOnlyWhenDifferent) {
  UserDefaults defaults(defaultsFile);
  defaults.setString(OVUserDataManager::kUserIdKey, "stored");
  OVUserDataManager manager(defaults, deviceInfo);
  ASSERT_EQ(manager.userId(), "stored");

  ::testing::internal::CaptureStdout();
  manager.resolveUserId(std::string("stored"));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");

  ::testing::internal::CaptureStdout();
  manager.resolveUserId(std::string("other"));
  EXPECT_NE(::testing::internal::GetCapturedStdout().find("set new user id: other"),
            std::string::npos);
  EXPECT_EQ(manager.userId(), "other");
  EXPECT_EQ(UserDefaults(defaultsFile).stringForKey(OVUserDataManager::kUserIdKey), "other");
}

TEST_F(Identity, SetUserIdUpdatesEveryCopyAndTheNextLaunch) {
  std::unique_ptr<OVUserDataManager> manager, next;
  launch(manager);
  ::testing::internal::CaptureStdout();
  manager->setUserId("abc");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(manager->userId(), "abc");
  EXPECT_EQ(deviceInfo.userId(), "abc");
  launch(next);
  EXPECT_EQ(next->userId(), "abc");
}

TEST_F(Identity, AStoredValueOfTheWrongTypeCountsAsNoId) {
  {
    UserDefaults defaults(defaultsFile);
    defaults.setBool(OVUserDataManager::kUserIdKey, true);
  }
  std::unique_ptr<OVUserDataManager> manager;
  launch(manager);
  EXPECT_EQ(manager->userId().size(), 36u);
}

TEST(UserDefaultsFile, CorruptFileIsMovedAsideAndReplaced) {
  velquin::testing::TempEnvironment env;
  auto file = env.root() / "defaults.plist";
  { std::ofstream(file) << "<plist><dict><key>half"; }
  ::testing::internal::CaptureStderr();
  UserDefaults defaults(file);
  std::string warning = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(warning.find("could not be read"), std::string::npos);
  EXPECT_FALSE(defaults.stringForKey("x"));
  defaults.setString("x", "y");
  EXPECT_EQ(UserDefaults(file).stringForKey("x"), "y");
  // The damaged original is kept beside the new file.
  int kept = 0;
  for (const auto& entry : std::filesystem::directory_iterator(env.root())) {
    if (entry.path().filename().string().find("defaults.plist.corrupt-") == 0) ++kept;
  }
  EXPECT_EQ(kept, 1);
}

TEST(UserDefaultsFile, TypedValuesRoundTripAndWritesAreAtomic) {
  velquin::testing::TempEnvironment env;
  auto file = env.root() / "sub" / "defaults.plist";
  {
    UserDefaults defaults(file);
    defaults.setString("text", "héllo <&>");
    defaults.setBool("flag", true);
    defaults.setData("bytes", {0, 1, 2, 255});
    defaults.removeObjectForKey("missing");
  }
  UserDefaults reread(file);
  EXPECT_EQ(reread.stringForKey("text"), "héllo <&>");
  EXPECT_TRUE(reread.boolForKey("flag"));
  EXPECT_FALSE(reread.boolForKey("text"));
  EXPECT_EQ(reread.dataForKey("bytes"), (velquin::platform::Bytes{0, 1, 2, 255}));
  // Only the final file is left: no temporary files stay behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()),
                          std::filesystem::directory_iterator()),
            1);
}

TEST(UserDefaultsFile, UnwritableFolderKeepsValuesForTheProcess) {
  velquin::testing::TempEnvironment env;
  // A plain file where the folder should be: no one, root included, can
  // create the defaults file below it.
  auto dir = env.root() / "not-a-folder";
  { std::ofstream(dir) << "x"; }
  UserDefaults defaults(dir / "defaults.plist");
  ::testing::internal::CaptureStderr();
  defaults.setString("k", "v");
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("not saved"), std::string::npos);
  EXPECT_EQ(defaults.stringForKey("k"), "v");
}

TEST(WelcomePageStore, StoresAndAnnouncesOnlyNewText) {
  velquin::testing::TempEnvironment env;
  UserDefaults defaults(env.root() / "defaults.plist");
  velquin::OVDataCache cache(defaults);
  int posts = 0;
  auto token = velquin::NotificationCenter::defaultCenter().addObserver(
      velquin::OVDataCache::kWelcomePageNotification, [&](const velquin::Notification&) { ++posts; });

  cache.setWelcomePage(std::string("<h1>hi</h1>"));
  cache.setWelcomePage(std::string("<h1>hi</h1>"));  // same text: nothing happens
  EXPECT_EQ(posts, 1);
  cache.setWelcomePage(std::nullopt);  // absent: skipped
  EXPECT_EQ(posts, 1);
  cache.setWelcomePage(std::string());  // empty text is stored and announced
  EXPECT_EQ(posts, 2);
  auto stored = defaults.dataForKey(velquin::OVDataCache::kWelcomePageKey);
  ASSERT_TRUE(stored);
  EXPECT_TRUE(stored->empty());
  velquin::NotificationCenter::defaultCenter().removeObserver(token);
}

TEST(FirstStart, ProcessesStartingTogetherOnAFreshFolderAgreeOnOneUserId) {
  velquin::testing::TempEnvironment env;
  env.writeTokenFile({{"api_address", "127.0.0.1:1"}, {"access_token", "k"}, {"app_id", "a"}});
  std::vector<std::unique_ptr<velquin::testing::ChildProcess>> hosts;
  for (int i = 0; i < 8; ++i) {
    hosts.push_back(std::make_unique<velquin::testing::ChildProcess>(
        (velquin::testing::binDir() / "velquin").string(),
        std::vector<std::string>{"--bundle", env.bundleDir().string(), "user-id"}));
  }
  std::set<std::string> ids;
  for (auto& host : hosts) {
    const std::string output = host->read(std::chrono::seconds(60));
    EXPECT_EQ(host->wait(std::chrono::seconds(60)).exitCode, 0) << output;
    auto result = nlohmann::json::parse(output, nullptr, false);
    ASSERT_TRUE(result.is_object()) << output;
    ids.insert(result.value("userId", ""));
  }
  EXPECT_EQ(ids.size(), 1u);
  EXPECT_FALSE(ids.begin()->empty());
}

}  // namespace
