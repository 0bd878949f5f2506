#include "SandboxServer.h"

#include <google/protobuf/util/json_util.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/security/server_credentials.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

#include "AttributionRoot.grpc.pb.h"
#include "Config.h"
#include "Credentials.h"
#include "Database.h"
#include "EventRoot.grpc.pb.h"
#include "Faults.h"
#include "NotificationRoot.grpc.pb.h"
#include "Receipts.h"
#include "SubscriberRoot.grpc.pb.h"
#include "Subscribers.h"
#include "platform/PropertyList.h"

namespace velquin::sandbox {
namespace {

namespace fs = std::filesystem;

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::optional<std::string> header(const grpc::ServerContext& context, const char* key) {
  const auto& metadata = context.client_metadata();
  auto found = metadata.find(key);
  if (found == metadata.end()) return std::nullopt;
  return std::string(found->second.data(), found->second.size());
}

std::string requestJson(const google::protobuf::Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  std::string out;
  if (!google::protobuf::util::MessageToJsonString(message, &out, options).ok()) return "{}";
  return out;
}

// A section of the configuration, or an empty object when it was removed.
const nlohmann::json& section(const nlohmann::json& config, const char* key) {
  static const nlohmann::json empty = nlohmann::json::object();
  auto found = config.find(key);
  return found != config.end() && found->is_object() ? *found : empty;
}

bool isLoopbackOrAny(const std::string& host) {
  return host.empty() || host == "127.0.0.1" || host == "localhost" || host == "0.0.0.0" ||
         host == "::" || host == "::1" || host == "[::]" || host == "[::1]";
}

std::string listenAddress(const std::string& host, int port) {
  std::string name = host.empty() ? "127.0.0.1" : host;
  if (name.find(':') != std::string::npos && name.front() != '[') name = "[" + name + "]";
  return name + ":" + std::to_string(port);
}

std::optional<std::string> readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return text.str();
}

bool writePortFile(const fs::path& dir, int port, std::string* error) {
  fs::path file = dir / "port";
  fs::path temp = dir / "port.tmp";
  {
    std::ofstream out(temp, std::ios::trunc);
    out << port << '\n';
    if (!out.flush()) {
      if (error) *error = "cannot write " + temp.string();
      return false;
    }
  }
  std::error_code ec;
  fs::rename(temp, file, ec);
  if (ec) {
    if (error) *error = "cannot write " + file.string() + ": " + ec.message();
    return false;
  }
  return true;
}

}  // namespace

struct SandboxServer::Impl {
  class IapService;
  class EventService;
  class PushService;
  class AttributionServiceImpl;

  explicit Impl(SandboxOptions opts) : options(std::move(opts)), faults(options.faults) {}

  // What every call shares before its own work: headers, JSON of the
  // request, injected faults and the bearer check; then the call's own work
  // and the call record in one transaction. Never throws.
  template <class Request, class Handler>
  grpc::Status serve(grpc::ServerContext* context, const char* method, const Request& request,
                     Handler&& handler) noexcept;

  void sleepUnlessStopping(int delayMs) {
    std::unique_lock lock(stopMutex);
    stopChanged.wait_for(lock, std::chrono::milliseconds(delayMs), [this] { return stopping; });
  }

  SandboxOptions options;  // fixed at construction
  FaultInjector faults;    // synchronises itself

  // Set up by start() under lifecycleMutex before the server accepts calls
  // and only read while it serves.
  std::mutex lifecycleMutex;
  nlohmann::json config = defaultConfig();
  std::optional<TlsMaterial> tls;
  std::unique_ptr<OfferSigner> offerSigner;
  std::unique_ptr<ReceiptVerifier> receiptVerifier;
  SubscriberRules subscriberRules;
  std::unique_ptr<Database> database;  // synchronises itself
  std::unique_ptr<IapService> iapService;
  std::unique_ptr<EventService> eventService;
  std::unique_ptr<PushService> pushService;
  std::unique_ptr<AttributionServiceImpl> attributionService;
  std::unique_ptr<grpc::Server> server;  // guarded by lifecycleMutex
  std::atomic<int> boundPort{0};

  // Lets stop() cut injected delays short.
  std::mutex stopMutex;
  std::condition_variable stopChanged;
  bool stopping = false;  // guarded by stopMutex
};

template <class Request, class Handler>
grpc::Status SandboxServer::Impl::serve(grpc::ServerContext* context, const char* method,
                                        const Request& request, Handler&& handler) noexcept {
  grpc::Status status;
  try {
    CallRow row;
    row.method = method;
    row.atMs = nowMs();
    row.authorization = header(*context, "authorization");
    row.experiment = header(*context, "x-vq-experiment");
    row.requestJson = requestJson(request);

    auto fault = faults.decide(method);
    if (fault.delayMs > 0) sleepUnlessStopping(fault.delayMs);
    if (fault.fail) {
      status = grpc::Status(grpc::StatusCode::UNAVAILABLE, "sandbox: injected failure");
    } else if (row.authorization != "Bearer " + config.value("access_token", std::string())) {
      status = grpc::Status(grpc::StatusCode::UNAUTHENTICATED,
                            row.authorization ? "sandbox: wrong access token"
                                              : "sandbox: missing authorization");
    }
    bool stored = database->write([&](Database::Batch& batch) {
      if (status.ok()) {
        try {
          status = handler(batch, row);
        } catch (const std::exception& e) {
          status = grpc::Status(grpc::StatusCode::INTERNAL, std::string("sandbox: ") + e.what());
        }
      }
      row.status = static_cast<int>(status.error_code());
      batch.addCall(row);
    });
    if (!stored) status = grpc::Status(grpc::StatusCode::INTERNAL, "sandbox: storage failed");
  } catch (const std::exception& e) {
    status = grpc::Status(grpc::StatusCode::INTERNAL, std::string("sandbox: ") + e.what());
  } catch (...) {
    status = grpc::Status(grpc::StatusCode::INTERNAL, "sandbox: unexpected failure");
  }
  return status;
}

class SandboxServer::Impl::IapService final : public iap::IAPService::Service {
 public:
  explicit IapService(Impl& impl) : impl_(impl) {}

  grpc::Status GetSubscriber(grpc::ServerContext* context, const iap::SubscriberRequest* request,
                             iap::Subscriber* response) override {
    return impl_.serve(context, "GetSubscriber", *request, [&](auto& batch, const CallRow& row) {
      const std::string& user = request->app_user_id();
      batch.touchUser(user, row.atMs);
      if (!user.empty()) {
        *response = buildSubscriber(batch.purchasesOf(user), impl_.subscriberRules, row.atMs);
      }
      return grpc::Status::OK;
    });
  }

  // Checks the receipt completely before anything is stored, so a refused
  // receipt leaves no purchase and no price behind.
  grpc::Status VerifyReceipt(grpc::ServerContext* context, const iap::ReceiptRequest* request,
                             iap::Subscriber* response) override {
    return impl_.serve(context, "VerifyReceipt", *request, [&](auto& batch, const CallRow& row) {
      const std::string& user = request->app_user_id();
      batch.touchUser(user, row.atMs);
      if (user.empty()) {
        return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT,
                            "sandbox: the receipt request names no app_user_id");
      }
      ReceiptProblem problem;
      auto receipt = impl_.receiptVerifier->verify(request->receipt(), &problem);
      if (!receipt) {
        return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "sandbox: " + problem.message);
      }
      if (receipt->bundleId != impl_.config.value("bundle_id", std::string())) {
        return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT,
                            "sandbox: receipt is for another app (\"" + receipt->bundleId + "\")");
      }
      for (const auto& purchase : receipt->purchases) batch.recordPurchase(user, purchase, row.atMs);
      for (const auto& info : request->product_info()) batch.addProductInfo(user, info, row.atMs);
      *response = buildSubscriber(batch.purchasesOf(user), impl_.subscriberRules, row.atMs);
      return grpc::Status::OK;
    });
  }

  grpc::Status UploadUserInfo(grpc::ServerContext* context,
                              const iap::UploadUserInfoRequest* request,
                              google::protobuf::Empty*) override {
    return impl_.serve(context, "UploadUserInfo", *request, [&](auto& batch, const CallRow& row) {
      batch.touchUser(request->app_user_id(), row.atMs);
      batch.addUserInfo(*request, row.atMs);
      return grpc::Status::OK;
    });
  }

  grpc::Status GetAppConfig(grpc::ServerContext* context, const iap::GetAppConfigRequest* request,
                            iap::GetAppConfigResponse* response) override {
    return impl_.serve(context, "GetAppConfig", *request, [&](auto&, const CallRow&) {
      const auto& appConfig = impl_.config;
      response->set_welcome_page(appConfig.value("welcome_page", std::string()));
      response->set_paywall_page(appConfig.value("paywall_page", std::string()));
      if (auto ids = appConfig.find("product_ids"); ids != appConfig.end()) {
        for (const auto& id : *ids) response->add_product_ids(id.get<std::string>());
      }
      return grpc::Status::OK;
    });
  }

  grpc::Status Init(grpc::ServerContext* context, const iap::GetInitInfoRequest* request,
                    iap::GetInitInfoResponse* response) override {
    return impl_.serve(context, "Init", *request, [&](auto& batch, const CallRow& row) {
      batch.touchUser(request->user_id(), row.atMs);
      batch.addInit(*request, row.atMs);
      response->set_tag(impl_.config.value("experiment_tag", std::string()));
      return grpc::Status::OK;
    });
  }

  grpc::Status GeneratePromotionalOfferSignature(
      grpc::ServerContext* context, const iap::GeneratePromotionalOfferSignatureRequest* request,
      iap::GeneratePromotionalOfferSignatureResponse* response) override {
    return impl_.serve(
        context, "GeneratePromotionalOfferSignature", *request,
        [&](auto& batch, const CallRow& row) {
          batch.touchUser(request->app_user_id(), row.atMs);
          std::string nonce = lowerCaseUuid();
          std::int64_t timestamp = nowMs();
          std::string payload = offerSignaturePayload(
              impl_.config.value("bundle_id", std::string()), OfferSigner::kKeyId,
              request->product_id(), request->offer_id(), request->app_user_id(), nonce,
              timestamp);
          std::string signature = impl_.offerSigner->signBase64(payload);
          if (signature.empty()) {
            return grpc::Status(grpc::StatusCode::INTERNAL, "sandbox: signing failed");
          }
          response->set_signature(signature);
          response->set_key_id(OfferSigner::kKeyId);
          response->set_nonce(nonce);
          response->set_timestamp(timestamp);
          return grpc::Status::OK;
        });
  }

  grpc::Status GetCurrencyRate(grpc::ServerContext* context,
                               const iap::GetCurrencyRateRequest* request,
                               iap::CurrencyRate* response) override {
    return impl_.serve(context, "GetCurrencyRate", *request, [&](auto&, const CallRow&) {
      std::string code = request->currency_code();
      for (char& c : code) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      const auto& rates = section(impl_.config, "currency_rates");
      auto found = rates.find(code);
      if (code.empty() || found == rates.end()) {
        return grpc::Status(grpc::StatusCode::NOT_FOUND,
                            "sandbox: no rate for currency \"" + request->currency_code() + "\"");
      }
      response->set_currency_rate(found->template get<double>());
      return grpc::Status::OK;
    });
  }

 private:
  Impl& impl_;
};

class SandboxServer::Impl::EventService final : public protocol::Eventd::Service {
 public:
  explicit EventService(Impl& impl) : impl_(impl) {}

  grpc::Status FireEvent(grpc::ServerContext* context, const protocol::EventRequest* request,
                         protocol::EventResponse* response) override {
    return impl_.serve(context, "FireEvent", *request, [&](auto& batch, const CallRow& row) {
      batch.touchUser(request->app_user_id(), row.atMs);
      batch.addEvent(*request, row.authorization, row.experiment, row.atMs);
      response->set_status(true);
      return grpc::Status::OK;
    });
  }

 private:
  Impl& impl_;
};

class SandboxServer::Impl::PushService final
    : public push_notification::PushNotificationService::Service {
 public:
  explicit PushService(Impl& impl) : impl_(impl) {}

  grpc::Status UploadDeviceToken(grpc::ServerContext* context,
                                 const push_notification::UploadDeviceTokenRequest* request,
                                 push_notification::UploadDeviceTokenResponse*) override {
    return impl_.serve(context, "UploadDeviceToken", *request,
                       [&](auto& batch, const CallRow& row) {
                         batch.addDeviceToken(*request, row.atMs);
                         return grpc::Status::OK;
                       });
  }

  grpc::Status GetInAppMessage(grpc::ServerContext* context,
                               const push_notification::GetInAppMessageRequest* request,
                               push_notification::InAppMessage* response) override {
    return impl_.serve(context, "GetInAppMessage", *request, [&](auto&, const CallRow&) {
      const auto& messages = section(impl_.config, "in_app_messages");
      auto found = messages.find(request->id());
      if (found == messages.end()) {
        return grpc::Status(grpc::StatusCode::NOT_FOUND,
                            "sandbox: no in-app message \"" + request->id() + "\"");
      }
      response->set_id(request->id());
      response->set_title(found->value("title", std::string()));
      response->set_content(found->value("content", std::string()));
      response->set_html(found->value("html", std::string()));
      return grpc::Status::OK;
    });
  }

 private:
  Impl& impl_;
};

class SandboxServer::Impl::AttributionServiceImpl final
    : public attribution::AttributionService::Service {
 public:
  explicit AttributionServiceImpl(Impl& impl) : impl_(impl) {}

  grpc::Status GetAttribution(grpc::ServerContext* context,
                              const attribution::GetAttributionRequest* request,
                              attribution::GetAttributionResponse* response) override {
    return impl_.serve(context, "GetAttribution", *request, [&](auto& batch, const CallRow& row) {
      batch.touchUser(request->app_user_id(), row.atMs);
      batch.addAttribution(*request, row.requestJson, row.atMs);
      response->set_app_id(request->app_id().empty()
                               ? impl_.config.value("app_id", std::string())
                               : request->app_id());
      response->set_advertiser_id(request->advertiser_id());
      response->set_app_user_id(request->app_user_id());
      response->set_attribution_source(request->attribution_source());
      // A made-up but plausible install: the network the app named, a
      // campaign (the app's own when it sent one) and a country.
      response->set_acquisition_source(request->attribution_source().empty()
                                           ? "organic"
                                           : request->attribution_source());
      response->set_acquisition_campaign(request->acquisition_campaign().empty()
                                             ? "sandbox-campaign"
                                             : request->acquisition_campaign());
      response->set_acquisition_lander("sandbox-lander");
      response->set_acquisition_country("US");
      response->set_acquisition_var1("sandbox");
      response->set_ad_event_id(request->ad_event_id());
      response->set_tracker_id("sandbox-tracker");
      response->set_click_time(nowMs());
      return grpc::Status::OK;
    });
  }

 private:
  Impl& impl_;
};

SandboxServer::SandboxServer(SandboxOptions options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

SandboxServer::~SandboxServer() { stop(); }

bool SandboxServer::start(std::string* error) {
  std::lock_guard lock(impl_->lifecycleMutex);
  auto fail = [error](const std::string& message) {
    if (error) *error = message;
    return false;
  };
  if (impl_->server) return fail("the sandbox is already serving");
  try {
    const fs::path& dir = impl_->options.dataDir;
    if (dir.empty()) return fail("no data directory given");
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) return fail("cannot create data directory " + dir.string() + ": " + ec.message());

    std::string problem;
    auto config = loadConfig(impl_->options.configFile, &problem);
    if (!config) return fail(problem);
    impl_->config = std::move(*config);

    std::vector<std::string> receiptKeys =
        impl_->config.value("receipt_public_keys", std::vector<std::string>());
    if (!ReceiptVerifier::create(receiptKeys, &problem)) {
      return fail("bad configuration: \"receipt_public_keys\": " + problem);
    }
    for (const auto& file : impl_->options.receiptPublicKeyFiles) {
      auto pem = readText(file);
      if (!pem) return fail("cannot read receipt public key " + file.string());
      if (!ReceiptVerifier::create({*pem}, &problem)) return fail(file.string() + ": " + problem);
      receiptKeys.push_back(std::move(*pem));
    }
    impl_->receiptVerifier = ReceiptVerifier::create(receiptKeys, &problem);
    if (!impl_->receiptVerifier) return fail(problem);
    impl_->subscriberRules = subscriberRulesFromConfig(impl_->config);

    impl_->tls = loadOrCreateTlsMaterial(dir, &problem);
    if (!impl_->tls) return fail(problem);
    impl_->offerSigner = OfferSigner::loadOrCreate(dir, &problem);
    if (!impl_->offerSigner) return fail(problem);
    if (!impl_->database) {
      impl_->database = Database::open(dir / Database::kFileName, Database::Mode::readWrite,
                                       &problem);
      if (!impl_->database) return fail(problem);
    }

    if (!impl_->iapService) {
      impl_->iapService = std::make_unique<Impl::IapService>(*impl_);
      impl_->eventService = std::make_unique<Impl::EventService>(*impl_);
      impl_->pushService = std::make_unique<Impl::PushService>(*impl_);
      impl_->attributionService = std::make_unique<Impl::AttributionServiceImpl>(*impl_);
    }
    {
      std::lock_guard stopLock(impl_->stopMutex);
      impl_->stopping = false;
    }

    grpc::SslServerCredentialsOptions ssl;
    ssl.pem_key_cert_pairs.push_back({impl_->tls->serverKeyPem, impl_->tls->serverCertificatePem});
    std::string listen = listenAddress(impl_->options.host, impl_->options.port);
    int selectedPort = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort(listen, grpc::SslServerCredentials(ssl), &selectedPort);
    builder.RegisterService(impl_->iapService.get());
    builder.RegisterService(impl_->eventService.get());
    builder.RegisterService(impl_->pushService.get());
    builder.RegisterService(impl_->attributionService.get());
    impl_->server = builder.BuildAndStart();
    if (!impl_->server || selectedPort == 0) {
      impl_->server.reset();
      return fail("cannot listen on " + listen);
    }
    impl_->boundPort = selectedPort;
    if (!writePortFile(dir, selectedPort, &problem)) {
      std::cerr << "velquin-sandbox: " << problem << '\n';
    }
    return true;
  } catch (const std::exception& e) {
    impl_->server.reset();
    return fail(std::string("cannot start the sandbox: ") + e.what());
  }
}

void SandboxServer::stop() {
  std::lock_guard lock(impl_->lifecycleMutex);
  if (!impl_->server) return;
  {
    std::lock_guard stopLock(impl_->stopMutex);
    impl_->stopping = true;
  }
  impl_->stopChanged.notify_all();
  impl_->server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
  impl_->server->Wait();
  impl_->server.reset();
  impl_->boundPort = 0;
}

int SandboxServer::port() const { return impl_->boundPort.load(); }

std::string SandboxServer::address() const {
  int bound = port();
  if (bound == 0) return {};
  // The certificate names localhost and 127.0.0.1; other hosts are used as
  // given and need a certificate of their own.
  const std::string& host = impl_->options.host;
  std::string name = isLoopbackOrAny(host) ? "localhost" : host;
  return name + ":" + std::to_string(bound);
}

std::string SandboxServer::caCertificatePem() const {
  std::lock_guard lock(impl_->lifecycleMutex);
  return impl_->tls ? impl_->tls->caCertificatePem : std::string();
}

std::string SandboxServer::offerPublicKeyPem() const {
  std::lock_guard lock(impl_->lifecycleMutex);
  return impl_->offerSigner ? impl_->offerSigner->publicKeyPem() : std::string();
}

bool SandboxServer::writeBundle(const fs::path& dir, const std::string& bundleId,
                                std::string* error) const {
  std::string address = this->address();
  std::string caPem = caCertificatePem();
  if (address.empty() || caPem.empty()) {
    if (error) *error = "the sandbox is not serving";
    return false;
  }
  try {
    platform::PropertyList token;
    token.set("api_address", address);
    token.set("access_token", impl_->config.value("access_token", std::string()));
    token.set("app_id", impl_->config.value("app_id", std::string()));
    token.set("api_root_certificates", caPem);
    platform::PropertyList info;
    info.set("CFBundleIdentifier", bundleId);
    info.set("CFBundleShortVersionString", std::string("1.0"));
    info.set("CFBundleVersion", std::string("1"));
    return token.saveAtomically(dir / "velquin-app-token.plist", error) &&
           info.saveAtomically(dir / "Info.plist", error);
  } catch (const std::exception& e) {
    if (error) *error = std::string("cannot write the bundle: ") + e.what();
    return false;
  }
}

std::vector<RecordedCall> SandboxServer::calls(const std::string& method) const {
  std::lock_guard lock(impl_->lifecycleMutex);
  return impl_->database ? impl_->database->calls(method) : std::vector<RecordedCall>();
}

std::vector<ReceivedEvent> SandboxServer::events() const {
  std::lock_guard lock(impl_->lifecycleMutex);
  return impl_->database ? impl_->database->events() : std::vector<ReceivedEvent>();
}

std::vector<RecordedPurchase> SandboxServer::purchases(const std::string& appUserId) const {
  std::lock_guard lock(impl_->lifecycleMutex);
  return impl_->database ? impl_->database->purchases(appUserId) : std::vector<RecordedPurchase>();
}

nlohmann::json SandboxServer::productInfos() const {
  std::lock_guard lock(impl_->lifecycleMutex);
  return impl_->database ? impl_->database->productInfos() : nlohmann::json::array();
}

const nlohmann::json& SandboxServer::config() const { return impl_->config; }

void SandboxServer::setFaults(FaultOptions faults) { impl_->faults.set(std::move(faults)); }

}  // namespace velquin::sandbox
