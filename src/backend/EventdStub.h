// The event service's client. Preparing a FireEvent call adds its two
// headers from OVDeviceInfoManagerHelper, read at that moment:
// "authorization: Bearer <app key>" and "x-vq-experiment: <tag>".
//
// Threads: any; the completion runs on a gRPC callback thread.
#pragma once

#include <memory>
#include <string>

#include "EventRoot.grpc.pb.h"
#include "backend/UnaryCall.h"

namespace velquin {

class EventdStub {
 public:
  using FireEventCall = UnaryCall<protocol::EventRequest, protocol::EventResponse>;

  // A stub on the backend channel for `host` (host:port).
  EventdStub(const std::string& host, const std::string& extraRootCertificates);

  std::unique_ptr<FireEventCall> prepareFireEvent(protocol::EventRequest request,
                                                  FireEventCall::Completion completion,
                                                  std::chrono::milliseconds timeout = kCallTimeout);
  void fireEvent(protocol::EventRequest request, FireEventCall::Completion completion);

 private:
  std::unique_ptr<protocol::Eventd::Stub> stub_;
};

}  // namespace velquin
