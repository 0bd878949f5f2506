// velquin-sandbox as a library: a local backend that implements every method
// of the four services over TLS on a loopback port, keeping its state in
// SQLite files in its data directory. Used by the velquin-sandbox program,
// by `make demo`, and in-process by integration tests.
//
// Ownership and threads: the owner starts and stops it; the server answers
// on gRPC's threads. Every public member may be called from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Subscribers.h"

namespace velquin::sandbox {

// Faults the server injects before answering (tests and demos).
struct FaultOptions {
  // Share of calls, 0..1, answered with UNAVAILABLE; key "*" for every
  // method, else the method name ("FireEvent", "Init", ...).
  std::map<std::string, double> failureRate;
  // The first N calls (of any method) fail with UNAVAILABLE.
  int failFirst = 0;
  // Added before every answer.
  int delayMs = 0;
  // Seed of the generator that draws the failure shares, so a run with the
  // same calls fails the same ones.
  std::uint64_t seed = 1;
};

struct SandboxOptions {
  std::filesystem::path dataDir;
  std::string host = "127.0.0.1";
  int port = 0;  // 0: any free port
  // JSON app configuration; built-in defaults when absent.
  std::optional<std::filesystem::path> configFile;
  // Ed25519 public keys (PEM files) that receipts may be signed with, added
  // to the configuration's "receipt_public_keys".
  std::vector<std::filesystem::path> receiptPublicKeyFiles;
  FaultOptions faults;
};

// One call as the server saw it.
struct RecordedCall {
  std::int64_t id = 0;
  std::string method;  // "Init", "GetSubscriber", "FireEvent", ...
  std::optional<std::string> authorization;  // "authorization" header
  std::optional<std::string> experiment;     // "x-vq-experiment" header
  nlohmann::json request;                    // the request message as JSON
  int status = 0;                            // gRPC status code answered
  std::int64_t atMs = 0;
};

// One FireEvent the server accepted.
struct ReceivedEvent {
  std::string requestId;  // from the event value's JSON, when present
  std::string name;
  std::string value;
  std::string userId;
  std::int64_t timestamp = 0;
  std::string authorization;
  std::string experiment;
};

class SandboxServer {
 public:
  explicit SandboxServer(SandboxOptions options);
  ~SandboxServer();

  // Creates the CA and server certificate on first start, opens the
  // database, loads the configuration, binds and serves.
  bool start(std::string* error = nullptr);
  void stop();

  int port() const;
  // Address clients use ("localhost:<port>"), valid for the certificate.
  std::string address() const;
  // PEM of the sandbox's certificate authority.
  std::string caCertificatePem() const;
  // PEM (SubjectPublicKeyInfo) of the key that signs promotional offers;
  // also kept as offer-public-key.pem in the data directory.
  std::string offerPublicKeyPem() const;

  // A client bundle: velquin-app-token.plist ("api_address", "access_token",
  // "app_id", "api_root_certificates") and Info.plist.
  bool writeBundle(const std::filesystem::path& dir, const std::string& bundleId,
                   std::string* error = nullptr) const;

  // Recorded state, read from the database.
  std::vector<RecordedCall> calls(const std::string& method = "") const;
  std::vector<ReceivedEvent> events() const;
  // Purchases from verified receipts; every user's when `appUserId` is empty.
  std::vector<RecordedPurchase> purchases(const std::string& appUserId = "") const;
  // Latest product prices sent with receipts (see Database::productInfos).
  nlohmann::json productInfos() const;
  const nlohmann::json& config() const;

  // Replace faults while serving.
  void setFaults(FaultOptions faults);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The configuration used when no file is given.
nlohmann::json defaultConfig();

}  // namespace velquin::sandbox
