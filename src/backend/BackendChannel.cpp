#include "backend/BackendChannel.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "support/OpenSslLifetime.h"

namespace velquin {

const std::string& systemRootCertificates() {
  static const std::string roots = [] {
    for (const char* file : {"/etc/ssl/certs/ca-certificates.crt",
                             "/etc/pki/tls/certs/ca-bundle.crt", "/etc/ssl/cert.pem"}) {
      std::ifstream in(file);
      if (!in) continue;
      std::ostringstream text;
      text << in.rdbuf();
      if (!text.str().empty()) return text.str();
    }
    return std::string();
  }();
  return roots;
}

std::shared_ptr<grpc::Channel> backendChannel(const std::string& address,
                                              const std::string& extraRootCertificates) {
  static std::mutex mutex;
  static auto* channels =  // guarded by mutex; lives for the process
      new std::map<std::pair<std::string, std::string>, std::shared_ptr<grpc::Channel>>();
  std::lock_guard lock(mutex);
  auto key = std::make_pair(address, extraRootCertificates);
  auto found = channels->find(key);
  if (found != channels->end()) return found->second;
  // gRPC's threads outlive a host's main(); OpenSSL must outlive them.
  support::keepOpenSslUntilExit();

  grpc::SslCredentialsOptions options;
  if (!extraRootCertificates.empty()) {
    // Naming roots replaces gRPC's defaults, so the system's come along.
    options.pem_root_certs = systemRootCertificates() + "\n" + extraRootCertificates;
  }
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);  // retries are the callers' business
  auto channel = grpc::CreateCustomChannel(address, grpc::SslCredentials(options), arguments);
  // Start connecting now, off the caller's thread: the first connection
  // builds the TLS context from every trusted root (tens of milliseconds),
  // which the first call would otherwise wait for.
  std::thread([channel] { channel->GetState(/*try_to_connect=*/true); }).detach();
  channels->emplace(key, channel);
  return channel;
}

}  // namespace velquin
