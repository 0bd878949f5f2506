// The sandbox served in-process on a free port, called through the generated
// stubs over TLS that trusts only the sandbox's own CA.
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>

#include "AttributionRoot.grpc.pb.h"
#include "EventRoot.grpc.pb.h"
#include "NotificationRoot.grpc.pb.h"
#include "SandboxServer.h"
#include "SubscriberRoot.grpc.pb.h"
#include "support/TempEnvironment.h"

namespace velquin::sandbox {
namespace {

namespace fs = std::filesystem;
using grpc::StatusCode;

const std::string kBearer = "Bearer sandbox-access-token";

struct Client {
  explicit Client(const SandboxServer& server) {
    grpc::SslCredentialsOptions ssl;
    ssl.pem_root_certs = server.caCertificatePem();
    channel = grpc::CreateChannel(server.address(), grpc::SslCredentials(ssl));
    iap = iap::IAPService::NewStub(channel);
    events = protocol::Eventd::NewStub(channel);
    push = push_notification::PushNotificationService::NewStub(channel);
    attribution = attribution::AttributionService::NewStub(channel);
  }

  static std::unique_ptr<grpc::ClientContext> context(
      const std::optional<std::string>& authorization = kBearer,
      const std::optional<std::string>& experiment = std::nullopt) {
    auto context = std::make_unique<grpc::ClientContext>();
    context->set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(10));
    if (authorization) context->AddMetadata("authorization", *authorization);
    if (experiment) context->AddMetadata("x-vq-experiment", *experiment);
    return context;
  }

  StatusCode init(const std::optional<std::string>& authorization = kBearer,
                  std::string* tag = nullptr) {
    iap::GetInitInfoRequest request;
    request.set_user_id("user-1");
    iap::GetInitInfoResponse response;
    auto status = iap->Init(context(authorization).get(), request, &response);
    if (tag) *tag = response.tag();
    return status.error_code();
  }

  StatusCode fireEvent(const std::string& value, const std::string& experiment = "exp-a") {
    protocol::EventRequest request;
    request.set_timestamp(1700000000123);
    request.set_app_user_id("user-1");
    request.mutable_event()->set_name("app_start");
    request.mutable_event()->set_value(value);
    protocol::EventResponse response;
    auto status = events->FireEvent(context(kBearer, experiment).get(), request, &response);
    if (status.ok()) {
      EXPECT_TRUE(response.status());
    }
    return status.error_code();
  }

  std::shared_ptr<grpc::Channel> channel;
  std::unique_ptr<iap::IAPService::Stub> iap;
  std::unique_ptr<protocol::Eventd::Stub> events;
  std::unique_ptr<push_notification::PushNotificationService::Stub> push;
  std::unique_ptr<attribution::AttributionService::Stub> attribution;
};

class SandboxTest : public ::testing::Test {
 protected:
  std::unique_ptr<SandboxServer> start(SandboxOptions options = {}) {
    options.dataDir = dataDir;
    auto server = std::make_unique<SandboxServer>(std::move(options));
    std::string error;
    EXPECT_TRUE(server->start(&error)) << error;
    return server;
  }

  fs::path writeConfig(const std::string& text) {
    fs::path file = env.root() / "config.json";
    std::ofstream(file) << text;
    return file;
  }

  testing::TempEnvironment env;
  fs::path dataDir = env.root() / "sandbox-data";
};

TEST_F(SandboxTest, AcceptsOnlyTheConfiguredBearerAndRecordsEveryAttempt) {
  auto server = start();
  ASSERT_EQ(server->address(), "localhost:" + std::to_string(server->port()));
  Client client(*server);

  EXPECT_EQ(client.init(std::nullopt), StatusCode::UNAUTHENTICATED);
  EXPECT_EQ(client.init("Bearer wrong"), StatusCode::UNAUTHENTICATED);
  EXPECT_EQ(client.init("sandbox-access-token"), StatusCode::UNAUTHENTICATED);
  EXPECT_EQ(client.init("Bearer "), StatusCode::UNAUTHENTICATED);
  std::string tag;
  EXPECT_EQ(client.init(kBearer, &tag), StatusCode::OK);
  EXPECT_EQ(tag, "exp-a");

  auto calls = server->calls("Init");
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_FALSE(calls[0].authorization.has_value());
  EXPECT_EQ(calls[1].authorization, "Bearer wrong");
  EXPECT_EQ(calls[3].authorization, "Bearer ");
  for (int i = 0; i < 4; ++i) EXPECT_EQ(calls[i].status, int(StatusCode::UNAUTHENTICATED));
  EXPECT_EQ(calls[4].status, 0);
  EXPECT_EQ(calls[4].request["user_id"], "user-1");

  // A rejected event is recorded as a call but not kept as an event.
  protocol::EventRequest event;
  protocol::EventResponse reply;
  auto status = client.events->FireEvent(Client::context("Bearer nope").get(), event, &reply);
  EXPECT_EQ(status.error_code(), StatusCode::UNAUTHENTICATED);
  EXPECT_TRUE(server->events().empty());
  EXPECT_EQ(server->calls("FireEvent").size(), 1u);
}

TEST_F(SandboxTest, RefusesUnknownIdsAndRecordsEveryCallAsSent) {
  auto server = start();
  Client client(*server);

  iap::GetCurrencyRateRequest rateRequest;
  rateRequest.set_currency_code("XYZ");
  iap::CurrencyRate rate;
  EXPECT_EQ(client.iap->GetCurrencyRate(Client::context().get(), rateRequest, &rate).error_code(),
            StatusCode::NOT_FOUND);
  push_notification::GetInAppMessageRequest messageRequest;
  messageRequest.set_id("no-such-message");
  push_notification::InAppMessage message;
  EXPECT_EQ(
      client.push->GetInAppMessage(Client::context().get(), messageRequest, &message).error_code(),
      StatusCode::NOT_FOUND);
  iap::ReceiptRequest receipt;
  iap::Subscriber subscriber;
  EXPECT_EQ(client.iap->VerifyReceipt(Client::context().get(), receipt, &subscriber).error_code(),
            StatusCode::INVALID_ARGUMENT);

  push_notification::UploadDeviceTokenRequest token;
  token.set_device_id("device-1");
  token.set_device_token("abc123");
  push_notification::UploadDeviceTokenResponse tokenReply;
  EXPECT_TRUE(client.push->UploadDeviceToken(Client::context().get(), token, &tokenReply).ok());
  iap::GetAppConfigResponse config;
  ASSERT_TRUE(client.iap->GetAppConfig(Client::context(kBearer, "exp-a").get(), {}, &config).ok());

  EXPECT_EQ(client.fireEvent(R"({"requestId":"17000001","k":1})"), StatusCode::OK);
  EXPECT_EQ(client.fireEvent("not json", ""), StatusCode::OK);
  auto events = server->events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].requestId, "17000001");
  EXPECT_EQ(events[0].timestamp, 1700000000123);
  EXPECT_EQ(events[0].authorization, kBearer);
  EXPECT_EQ(events[0].experiment, "exp-a");
  EXPECT_EQ(events[1].requestId, "");
  EXPECT_EQ(events[1].value, "not json");

  // The experiment header is recorded exactly as sent: absent, or its value;
  // refused calls are recorded with their status.
  EXPECT_EQ(server->calls("GetAppConfig").at(0).experiment, "exp-a");
  auto tokenCalls = server->calls("UploadDeviceToken");
  ASSERT_EQ(tokenCalls.size(), 1u);
  EXPECT_FALSE(tokenCalls[0].experiment.has_value());
  EXPECT_EQ(tokenCalls[0].request["device_token"], "abc123");
  EXPECT_EQ(server->calls("GetCurrencyRate").at(0).status, int(StatusCode::NOT_FOUND));
  EXPECT_EQ(server->calls().size(), 7u);
}

TEST_F(SandboxTest, ConfigFileIsMergedOverTheDefaults) {
  SandboxOptions options;
  options.configFile = writeConfig(R"({
    "access_token": "other-token",
    "experiment_tag": "exp-b",
    "currency_rates": {"CHF": 0.88},
    "in_app_messages": {"welcome-offer": null, "spring": {"title": "Spring"}}
  })");
  auto server = start(options);
  Client client(*server);

  EXPECT_EQ(client.init(kBearer), StatusCode::UNAUTHENTICATED);
  std::string tag;
  EXPECT_EQ(client.init("Bearer other-token", &tag), StatusCode::OK);
  EXPECT_EQ(tag, "exp-b");
  EXPECT_EQ(server->config()["app_id"], "sandbox-app");
  EXPECT_EQ(server->config()["product_ids"].size(), 2u);

  auto rateOf = [&](const std::string& code, double* value) {
    iap::GetCurrencyRateRequest request;
    request.set_currency_code(code);
    iap::CurrencyRate rate;
    auto status =
        client.iap->GetCurrencyRate(Client::context("Bearer other-token").get(), request, &rate);
    *value = rate.currency_rate();
    return status.error_code();
  };
  double value = 0;
  EXPECT_EQ(rateOf("CHF", &value), StatusCode::OK);
  EXPECT_DOUBLE_EQ(value, 0.88);
  EXPECT_EQ(rateOf("JPY", &value), StatusCode::OK);
  EXPECT_DOUBLE_EQ(value, 151.2);

  auto messageStatus = [&](const std::string& id) {
    push_notification::GetInAppMessageRequest request;
    request.set_id(id);
    push_notification::InAppMessage message;
    return client.push->GetInAppMessage(Client::context("Bearer other-token").get(), request, &message)
        .error_code();
  };
  EXPECT_EQ(messageStatus("spring"), StatusCode::OK);
  EXPECT_EQ(messageStatus("welcome-offer"), StatusCode::NOT_FOUND);
}

TEST_F(SandboxTest, RefusesToStartOnABadConfigFile) {
  for (const char* text :
       {"{ not json", "[1, 2]", R"({"product_ids": "one"})", R"({"currency_rates": {"EUR": "0.9"}})",
        R"({"access_token": 7})", R"({"receipt_public_keys": "pem"})",
        R"({"receipt_public_keys": ["-----BEGIN PUBLIC KEY-----"]})", R"({"entitlements": ["pro"]})",
        R"({"entitlements": {"pro": "com.velquin.demo.monthly"}})",
        R"({"refunded_transactions": [1]})"}) {
    SandboxOptions options;
    options.dataDir = dataDir;
    options.configFile = writeConfig(text);
    SandboxServer server(options);
    std::string error;
    EXPECT_FALSE(server.start(&error)) << text;
    EXPECT_NE(error.find("config"), std::string::npos) << error;
    EXPECT_EQ(server.port(), 0);
  }
  SandboxOptions missing;
  missing.dataDir = dataDir;
  missing.configFile = env.root() / "absent.json";
  std::string error;
  EXPECT_FALSE(SandboxServer(missing).start(&error));
  EXPECT_FALSE(error.empty());
}

TEST_F(SandboxTest, FailsTheFirstCallsExactlyThenAShareOfTheChosenMethod) {
  SandboxOptions options;
  options.faults.failFirst = 3;
  auto server = start(options);
  Client client(*server);

  std::vector<StatusCode> first;
  for (int i = 0; i < 5; ++i) first.push_back(client.init());
  EXPECT_EQ(first, (std::vector<StatusCode>{StatusCode::UNAVAILABLE, StatusCode::UNAVAILABLE,
                                            StatusCode::UNAVAILABLE, StatusCode::OK,
                                            StatusCode::OK}));

  FaultOptions faults;
  faults.failureRate["FireEvent"] = 0.3;
  faults.failureRate["*"] = 0.0;
  faults.seed = 7;
  server->setFaults(faults);
  int failed = 0;
  constexpr int kCalls = 400;
  for (int i = 0; i < kCalls; ++i) {
    if (client.fireEvent("{}") == StatusCode::UNAVAILABLE) ++failed;
  }
  EXPECT_GT(failed, kCalls * 0.2);
  EXPECT_LT(failed, kCalls * 0.4);
  EXPECT_EQ(server->events().size(), std::size_t(kCalls - failed));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(client.init(), StatusCode::OK);

  faults = {};
  faults.failureRate["*"] = 1.0;
  server->setFaults(faults);
  EXPECT_EQ(client.init(), StatusCode::UNAVAILABLE);
  EXPECT_EQ(server->calls("Init").back().status, int(StatusCode::UNAVAILABLE));

  faults = {};
  faults.delayMs = 150;
  server->setFaults(faults);
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(client.init(), StatusCode::OK);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(150));
}

TEST_F(SandboxTest, KeepsItsCertificateAndStateAcrossRestarts) {
  std::string caPem;
  std::string offerKeyPem;
  {
    auto server = start();
    caPem = server->caCertificatePem();
    offerKeyPem = server->offerPublicKeyPem();
    Client client(*server);
    EXPECT_EQ(client.fireEvent(R"({"requestId":"r-1"})"), StatusCode::OK);
    server->stop();
    EXPECT_EQ(server->port(), 0);
    EXPECT_EQ(server->events().size(), 1u);  // still readable once stopped
  }
  auto server = start();
  EXPECT_EQ(server->caCertificatePem(), caPem);
  EXPECT_EQ(server->offerPublicKeyPem(), offerKeyPem);
  ASSERT_EQ(server->events().size(), 1u);
  EXPECT_EQ(server->events()[0].requestId, "r-1");

  // A client that kept the old CA still connects.
  grpc::SslCredentialsOptions ssl;
  ssl.pem_root_certs = caPem;
  auto channel = grpc::CreateChannel(server->address(), grpc::SslCredentials(ssl));
  auto stub = protocol::Eventd::NewStub(channel);
  protocol::EventResponse reply;
  EXPECT_TRUE(stub->FireEvent(Client::context().get(), {}, &reply).ok());
  EXPECT_EQ(server->calls("FireEvent").size(), 2u);
}

TEST_F(SandboxTest, RejectsClientsThatDoNotTrustItsAuthority) {
  auto server = start();
  testing::TempEnvironment other;
  SandboxOptions otherOptions;
  otherOptions.dataDir = other.root() / "data";
  SandboxServer stranger(otherOptions);
  ASSERT_TRUE(stranger.start());
  ASSERT_NE(stranger.caCertificatePem(), server->caCertificatePem());

  grpc::SslCredentialsOptions ssl;
  ssl.pem_root_certs = stranger.caCertificatePem();
  auto stub = iap::IAPService::NewStub(
      grpc::CreateChannel(server->address(), grpc::SslCredentials(ssl)));
  iap::GetInitInfoResponse reply;
  auto status = stub->Init(Client::context().get(), {}, &reply);
  EXPECT_EQ(status.error_code(), StatusCode::UNAVAILABLE);
  EXPECT_TRUE(server->calls().empty());
}

std::vector<unsigned char> base64Decode(const std::string& text) {
  std::vector<unsigned char> out(text.size() / 4 * 3 + 3);
  int length = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                               static_cast<int>(text.size()));
  if (length < 0) return {};
  std::size_t padding = 0;
  for (auto it = text.rbegin(); it != text.rend() && *it == '='; ++it) ++padding;
  out.resize(static_cast<std::size_t>(length) - padding);
  return out;
}

bool verifies(const std::string& publicKeyPem, const std::vector<unsigned char>& signature,
              const std::string& message) {
  BIO* bio = BIO_new_mem_buf(publicKeyPem.data(), static_cast<int>(publicKeyPem.size()));
  EVP_PKEY* key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (!key) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, key) == 1 &&
            EVP_DigestVerify(ctx, signature.data(), signature.size(),
                             reinterpret_cast<const unsigned char*>(message.data()),
                             message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok;
}

TEST_F(SandboxTest, OfferSignatureVerifiesWithTheExportedKey) {
  auto server = start();
  Client client(*server);
  iap::GeneratePromotionalOfferSignatureRequest request;
  request.set_app_user_id("User-ABC");
  request.set_product_id("com.velquin.demo.yearly");
  request.set_offer_id("spring-50");
  iap::GeneratePromotionalOfferSignatureResponse reply;
  ASSERT_TRUE(client.iap->GeneratePromotionalOfferSignature(Client::context().get(), request, &reply)
                  .ok());
  EXPECT_EQ(reply.key_id(), "sandbox-offer-key-1");
  // A random (version 4) UUID in lower-case hex.
  EXPECT_TRUE(std::regex_match(
      reply.nonce(), std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")))
      << reply.nonce();
  auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                 std::chrono::system_clock::now().time_since_epoch())
                 .count();
  EXPECT_NEAR(double(reply.timestamp()), double(now), 10'000.0);

  const std::string sep = "\u2063";
  auto payload = [&](const std::string& user) {
    return "com.velquin.demo" + sep + "sandbox-offer-key-1" + sep + "com.velquin.demo.yearly" + sep +
           "spring-50" + sep + user + sep + reply.nonce() + sep + std::to_string(reply.timestamp());
  };
  std::ifstream file(dataDir / "offer-public-key.pem");
  std::ostringstream fileText;
  fileText << file.rdbuf();
  std::string filePem = fileText.str();
  EXPECT_EQ(filePem, server->offerPublicKeyPem());

  auto signature = base64Decode(reply.signature());
  ASSERT_FALSE(signature.empty());
  EXPECT_TRUE(verifies(filePem, signature, payload("user-abc")));
  EXPECT_FALSE(verifies(filePem, signature, payload("User-ABC")));
}

}  // namespace
}  // namespace velquin::sandbox
