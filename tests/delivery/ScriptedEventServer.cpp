#include "ScriptedEventServer.h"

#include <stdexcept>

#include "Credentials.h"

namespace velquin::testing {

ScriptedEventServer::ScriptedEventServer(const std::filesystem::path& dataDir) {
  std::string error;
  std::filesystem::create_directories(dataDir);
  auto tls = sandbox::loadOrCreateTlsMaterial(dataDir, &error);
  if (!tls) throw std::runtime_error("TLS material: " + error);
  caPem_ = tls->caCertificatePem;
  grpc::SslServerCredentialsOptions options;
  options.pem_key_cert_pairs.push_back({tls->serverKeyPem, tls->serverCertificatePem});
  int port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::SslServerCredentials(options), &port);
  builder.RegisterService(this);
  server_ = builder.BuildAndStart();
  if (!server_ || port == 0) throw std::runtime_error("scripted event server did not start");
  address_ = "localhost:" + std::to_string(port);
}

ScriptedEventServer::~ScriptedEventServer() {
  releaseAll();
  server_->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
}

void ScriptedEventServer::setHold(bool hold) {
  std::lock_guard lock(mutex_);
  hold_ = hold;
}

void ScriptedEventServer::setStatus(bool status) {
  std::lock_guard lock(mutex_);
  status_ = status;
}

void ScriptedEventServer::failNext(int count, grpc::StatusCode code) {
  std::lock_guard lock(mutex_);
  failCount_ = count;
  failCode_ = code;
}

size_t ScriptedEventServer::held() const {
  std::lock_guard lock(mutex_);
  return heldCalls_.size();
}

size_t ScriptedEventServer::maxHeld() const {
  std::lock_guard lock(mutex_);
  return maxHeld_;
}

std::vector<protocol::EventRequest> ScriptedEventServer::received() const {
  std::lock_guard lock(mutex_);
  return received_;
}

void ScriptedEventServer::releaseOne() {
  grpc::ServerUnaryReactor* reactor = nullptr;
  {
    std::lock_guard lock(mutex_);
    if (heldCalls_.empty()) return;
    reactor = heldCalls_.front();
    heldCalls_.pop_front();
    changed_.notify_all();
  }
  reactor->Finish(grpc::Status::OK);
}

void ScriptedEventServer::releaseAll() {
  std::deque<grpc::ServerUnaryReactor*> calls;
  {
    std::lock_guard lock(mutex_);
    calls.swap(heldCalls_);
    hold_ = false;
    changed_.notify_all();
  }
  for (auto* reactor : calls) reactor->Finish(grpc::Status::OK);
}

bool ScriptedEventServer::waitForHeld(size_t count, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return heldCalls_.size() >= count; });
}

bool ScriptedEventServer::waitForReceived(size_t count, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return received_.size() >= count; });
}

grpc::ServerUnaryReactor* ScriptedEventServer::FireEvent(grpc::CallbackServerContext* context,
                                                         const protocol::EventRequest* request,
                                                         protocol::EventResponse* response) {
  auto* reactor = context->DefaultReactor();
  std::unique_lock lock(mutex_);
  received_.push_back(*request);
  changed_.notify_all();
  if (failCount_ > 0) {
    --failCount_;
    auto code = failCode_;
    lock.unlock();
    reactor->Finish(grpc::Status(code, "scripted failure"));
    return reactor;
  }
  response->set_status(status_);
  if (hold_) {
    heldCalls_.push_back(reactor);
    maxHeld_ = std::max(maxHeld_, heldCalls_.size());
    changed_.notify_all();
    return reactor;
  }
  lock.unlock();
  reactor->Finish(grpc::Status::OK);
  return reactor;
}

}  // namespace velquin::testing
