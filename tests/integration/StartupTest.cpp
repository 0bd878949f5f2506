// Start-up against a real backend over TLS: which headers each call carries,
// what Init reports about the device, the order of the chain, and how bad
// token files and failing calls are survived.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "AttributionRoot.pb.h"
#include "SandboxFixture.h"
#include "analytics/OVDeviceInfoManager.h"
#include "backend/GRPCserviceManager.h"
#include "support/OVUtils.h"
#include "platform/SystemInfo.h"
#include "purchases/OVDataCache.h"
#include "purchases/OVPurchaseImpl.h"
#include "support/Await.h"
#include "support/ChildProcess.h"
#include "velquin/OVPurchase.h"
#include "velquin/Velquin.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;
constexpr const char* kBearer = "Bearer sandbox-access-token";

class Startup : public SandboxTest {};

TEST_F(Startup, EachCallCarriesItsHeaders) {
  writeWorkingTokenFile();
  ASSERT_TRUE(configureAndWait());
  auto& sdk = Velquin::shared();
  auto& network = OVPurchaseImpl::shared().networkManager();

  Await<bool> rate, token, info, attribution, signature, message, subscriber, receipt;
  sdk.getCurrencyRate("EUR", [&](auto, auto) { rate.set(true); });
  sdk.uploadDeviceInfo("push-token", [&](bool, auto) { token.set(true); });
  sdk.uploadUserInfo(std::nullopt, {{"plan", "pro"}}, [&](bool, auto) { info.set(true); });
  sdk.updateCustomAttribution("ads", std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                              [&](auto, auto) { attribution.set(true); });
  sdk.createASignature("com.velquin.demo.monthly", "intro", "u1",
                       [&](auto, auto) { signature.set(true); });
  network.getInAppMessage("welcome-offer", [&](auto, auto) { message.set(true); });
  network.getSubscriber("u1", [&](auto, auto, auto) { subscriber.set(true); });
  network.verifyReceipt({1, 2, 3}, "u1", {}, [&](auto, auto) { receipt.set(true); });
  for (auto* await : {&rate, &token, &info, &attribution, &signature, &message, &subscriber,
                      &receipt}) {
    ASSERT_TRUE(await->wait());
  }
  // A second start-up: Init goes out again, still without the experiment header.
  ASSERT_TRUE(configureAndWait());

  for (const auto& call : server->calls()) {
    SCOPED_TRACE(call.method);
    EXPECT_EQ(call.authorization, kBearer);
    if (call.method == "Init" || call.method == "GetCurrencyRate" ||
        call.method == "UploadDeviceToken" || call.method == "GetInAppMessage") {
      EXPECT_FALSE(call.experiment.has_value());
    } else {
      EXPECT_EQ(call.experiment, "exp-a");
    }
  }
  EXPECT_EQ(server->calls("Init").size(), 2u);
  // The experiment header of later calls follows the tag of the last Init.
  EXPECT_EQ(OVUtils::shared().velquinSDkInit_tag(), "exp-a");
}

TEST_F(Startup, InitNamesThisUserAndDevice) {
  writeWorkingTokenFile();
  ASSERT_TRUE(configureAndWait());
  auto inits = server->calls("Init");
  ASSERT_EQ(inits.size(), 1u);
  const auto& request = inits[0].request;
  EXPECT_EQ(request.value("user_id", ""), Velquin::shared().purchases().appUserId());
  EXPECT_EQ(request.value("package_name", ""), env.bundleId());
  // Crosswise: the abbreviation in `timezone`, the zone name in `tz_abv`.
  EXPECT_EQ(request.value("timezone", ""), platform::timeZoneAbbreviation());
  EXPECT_EQ(request.value("tz_abv", ""), platform::timeZoneName());
  EXPECT_FALSE(request.value("device_id", "").empty());
  EXPECT_EQ(request.value("device_id", ""), OVDeviceInfoManager::shared().deviceIdentifier());
}

TEST_F(Startup, SubscriberAndConfigOnlyAfterInitAnswered) {
  writeWorkingTokenFile();
  ASSERT_TRUE(configureAndWait());
  ASSERT_TRUE(waitForCalls("GetSubscriber", 1));
  auto calls = server->calls();
  auto position = [&](const std::string& method) {
    for (size_t i = 0; i < calls.size(); ++i) {
      if (calls[i].method == method) return static_cast<long>(i);
    }
    return -1L;
  };
  ASSERT_GE(position("Init"), 0);
  EXPECT_GT(position("GetSubscriber"), position("Init"));
  EXPECT_GT(position("GetAppConfig"), position("Init"));
  EXPECT_EQ(server->calls("GetSubscriber")[0].request.value("app_user_id", ""),
            Velquin::shared().purchases().appUserId());

  auto& cache = OVPurchaseImpl::shared().dataCache();
  EXPECT_EQ(cache.productIdsArray(),
            (std::vector<std::string>{"com.velquin.demo.monthly", "com.velquin.demo.yearly"}));
  EXPECT_FALSE(cache.paywallPage().value_or("").empty());
  EXPECT_FALSE(cache.welcomePage().value_or("").empty());
}

class StartupWithInitDown : public SandboxTest {
  sandbox::FaultOptions initialFaults() override {
    sandbox::FaultOptions faults;
    faults.failureRate["Init"] = 1.0;
    return faults;
  }
};

TEST_F(StartupWithInitDown, AFailedInitStillRunsTheChain) {
  writeWorkingTokenFile();
  ASSERT_TRUE(configureAndWait());
  ASSERT_TRUE(waitForCalls("GetSubscriber", 1));
  EXPECT_EQ(server->calls("Init")[0].status, 14);  // UNAVAILABLE
  // The tag is set, to the empty text, so later calls carry an empty header.
  EXPECT_EQ(OVUtils::shared().velquinSDkInit_tag(), "");
  EXPECT_EQ(server->calls("GetAppConfig")[0].experiment, "");
  EXPECT_FALSE(OVPurchaseImpl::shared().dataCache().productIdsArray().value_or(
                   std::vector<std::string>{})
                   .empty());
}

TEST_F(Startup, AFailedAppConfigKeepsTheCache) {
  writeWorkingTokenFile();
  ASSERT_TRUE(configureAndWait());
  auto& cache = OVPurchaseImpl::shared().dataCache();
  auto products = cache.productIdsArray();
  auto paywall = cache.paywallPage();
  ASSERT_TRUE(products && paywall);

  sandbox::FaultOptions faults;
  faults.failureRate["GetAppConfig"] = 1.0;
  server->setFaults(faults);
  OVUtils::enableLogs(true);
  ::testing::internal::CaptureStdout();
  ASSERT_TRUE(configureAndWait());
  std::string logged = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(logged.find("[OrventPurchase] getAppConfig fail:"), std::string::npos) << logged;
  EXPECT_EQ(cache.productIdsArray(), products);
  EXPECT_EQ(cache.paywallPage(), paywall);
}

// A token file that start-up must not act on: nothing reaches the backend
// and the app key stays empty.
void expectNoStartup(SandboxTest* test, sandbox::SandboxServer& server) {
  (void)test;
  Velquin::shared().configure();
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(server.calls().empty());
  EXPECT_EQ(OVPurchaseImpl::shared().networkManager().appKey(), "");
}

TEST_F(Startup, MissingTokenFileDoesNothing) { expectNoStartup(this, *server); }

TEST_F(Startup, NumericAccessTokenCountsAsMissing) {
  env.writeTokenFile({{"api_address", server->address()},
                      {"api_root_certificates", server->caCertificatePem()}},
                     {{"access_token", "<integer>12345</integer>"}});
  expectNoStartup(this, *server);
}

TEST_F(Startup, UnreadableTokenFileDoesNothing) {
  { std::ofstream(env.bundleDir() / "velquin-app-token.plist") << "\x01\x02not a plist"; }
  expectNoStartup(this, *server);
}

TEST_F(Startup, APortPastItsRangeIsRefusedNotWrappedOntoAnother) {
  // Wrapped to 16 bits, this port would be the sandbox's own.
  std::string address = server->address();
  int port = std::stoi(address.substr(address.rfind(':') + 1));
  env.writeTokenFile({{"access_token", "k"},
                      {"api_address", "127.0.0.1:" + std::to_string(port + 65536)},
                      {"api_root_certificates", server->caCertificatePem()}});
  expectNoStartup(this, *server);
}

TEST_F(Startup, AMissingTokenFileIsSaidOnceWithTheLogsOn) {
  OVUtils::enableLogs(true);
  ::testing::internal::CaptureStdout();
  Velquin::shared().configure();
  Velquin::shared().configure();
  std::string logged = ::testing::internal::GetCapturedStdout();
  std::string said = "velquin-app-token.plist is not in the bundle folder";
  auto first = logged.find(said);
  EXPECT_NE(first, std::string::npos) << logged;
  EXPECT_EQ(logged.find(said, first + 1), std::string::npos) << logged;
}

TEST_F(Startup, NonTextAddressFallsBackToTheGateway) {
  env.writeTokenFile({{"access_token", "k"}}, {{"api_address", "<integer>443</integer>"}});
  auto& network = OVPurchaseImpl::shared().networkManager();
  EXPECT_EQ(network.serverUrl(), defaultGatewayAddress());
  EXPECT_EQ(network.app_id(), "");
}

TEST_F(Startup, UserIdIsSharedByTwoProcesses) {
  writeWorkingTokenFile();
  int firstStatus = -1, secondStatus = -1;
  auto first = runHost({"user-id"}, &firstStatus);
  auto second = runHost({"configure", "--wait", "20"}, &secondStatus);
  EXPECT_EQ(firstStatus, 0);
  EXPECT_EQ(secondStatus, 0);
  ASSERT_TRUE(first.is_object() && second.is_object());
  EXPECT_EQ(first["userId"], second["userId"]);
  EXPECT_EQ(second["tag"], "exp-a");
  EXPECT_EQ(second["appConfigHandled"], true);
  EXPECT_EQ(server->calls("Init").at(0).request.value("user_id", ""), first["userId"]);
}

TEST_F(Startup, TextThatIsNotUtf8IsRefusedBeforeAnythingIsSent) {
  writeWorkingTokenFile();
  const std::string bad = "\xff\xfe";
  const std::vector<std::vector<std::string>> calls = {
      {"currency-rate", bad},
      {"device-token", bad},
      {"offer-signature", "product", "offer", bad},
      {"attribution", "3", "{}", "--network-user-id", bad},
      {"custom-attribution", bad},
  };
  for (const auto& args : calls) {
    int status = 0;
    auto result = runHost(args, &status);
    EXPECT_NE(status, 0) << args.front();
    ASSERT_TRUE(result.is_object() && result.contains("error")) << args.front() << result.dump();
    EXPECT_EQ(result["error"]["code"], 104) << result.dump();
    EXPECT_NE(result["error"]["message"].get<std::string>().find("UTF-8"), std::string::npos);
  }
  // JSON values holding such text, which the command line's parser refuses
  // before they reach the SDK.
  auto& sdk = Velquin::shared();
  std::optional<Error> attributionError, userInfoError;
  sdk.updateAttribution({{"campaign", bad}}, AttributionNetwork::appleSearchAds, std::nullopt,
                        [&](std::optional<OVAttribution>, std::optional<Error> error) {
                          attributionError = error;
                        });
  sdk.uploadUserInfo(std::nullopt, {{"plan", bad}},
                     [&](bool, std::optional<Error> error) { userInfoError = error; });
  for (const auto& error : {attributionError, userInfoError}) {
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, static_cast<std::int64_t>(PurchaseErrorCode::invalidText));
  }

  for (const char* method : {"GetCurrencyRate", "UploadDeviceToken",
                             "GeneratePromotionalOfferSignature", "GetAttribution",
                             "UploadUserInfo"}) {
    EXPECT_TRUE(server->calls(method).empty()) << method;
  }
}

// The SDK's gRPC threads outlive main(): a host returning while start-up's
// calls connect must still exit cleanly, whatever moment it picks.
TEST_F(Startup, AHostReturningFromMainMidStartUpExitsCleanly) {
  writeWorkingTokenFile();
  // The child's leak report would only list the SDK's singletons, which
  // live for the process by design.
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  for (int micros = 0; micros <= 24000; micros += 2000) {
    auto run = ChildProcess::run((binDir() / "exiting_host").string(),
                                 {env.bundleDir().string(), std::to_string(micros)},
                                 std::chrono::seconds(60), /*withStderr=*/true);
    EXPECT_TRUE(run.finished && run.signal == 0 && run.exitCode == 0)
        << "returned after " << micros << " us; signal " << run.signal << ", status "
        << run.exitCode << "\n"
        << run.output;
  }
}

}  // namespace
}  // namespace velquin::testing
