// An event backend whose answers a test scripts: answer at once (with a
// chosen status), hold calls until released, or fail the next N calls with a
// chosen code. Serves TLS with the sandbox's certificate material.
#pragma once

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "EventRoot.grpc.pb.h"

namespace velquin::testing {

class ScriptedEventServer final : public protocol::Eventd::CallbackService {
 public:
  explicit ScriptedEventServer(const std::filesystem::path& dataDir);
  ~ScriptedEventServer() override;

  const std::string& address() const { return address_; }
  const std::string& caPem() const { return caPem_; }

  void setHold(bool hold);
  void setStatus(bool status);
  void failNext(int count, grpc::StatusCode code);

  // Calls waiting for release, and the most that ever waited at once.
  size_t held() const;
  size_t maxHeld() const;
  // Every request that arrived, in order.
  std::vector<protocol::EventRequest> received() const;
  void releaseOne();
  void releaseAll();
  bool waitForHeld(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10));
  bool waitForReceived(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10));

  grpc::ServerUnaryReactor* FireEvent(grpc::CallbackServerContext* context,
                                      const protocol::EventRequest* request,
                                      protocol::EventResponse* response) override;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;                   // signalled on every change below
  bool hold_ = false;                                 // guarded by mutex_
  bool status_ = true;                                // guarded by mutex_
  int failCount_ = 0;                                 // guarded by mutex_
  grpc::StatusCode failCode_ = grpc::UNAVAILABLE;     // guarded by mutex_
  std::deque<grpc::ServerUnaryReactor*> heldCalls_;   // guarded by mutex_
  size_t maxHeld_ = 0;                                // guarded by mutex_
  std::vector<protocol::EventRequest> received_;      // guarded by mutex_
  std::unique_ptr<grpc::Server> server_;
  std::string address_;
  std::string caPem_;
};

}  // namespace velquin::testing
