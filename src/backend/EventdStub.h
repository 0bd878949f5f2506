// The event service's client. Preparing a FireEvent call adds its two
// headers from the header source, read at that moment:
// "authorization: Bearer <app key>" and "x-vq-experiment: <tag>".
//
// Threads: any; the header source is called on the preparing thread; the
// completion runs on a gRPC callback thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "EventRoot.grpc.pb.h"
#include "backend/UnaryCall.h"

namespace velquin {

// The app key and experiment tag every event call carries.
struct EventHeaders {
  std::string appKey;
  std::string tag;
};

class EventdStub {
 public:
  using FireEventCall = UnaryCall<protocol::EventRequest, protocol::EventResponse>;
  using HeaderSource = std::function<EventHeaders()>;

  // A stub on the backend channel for `host` (host:port). Without a header
  // source the headers carry empty texts.
  EventdStub(const std::string& host, const std::string& extraRootCertificates,
             HeaderSource headers);

  std::unique_ptr<FireEventCall> prepareFireEvent(protocol::EventRequest request,
                                                  FireEventCall::Completion completion,
                                                  std::chrono::milliseconds timeout = kCallTimeout);

 private:
  std::unique_ptr<protocol::Eventd::Stub> stub_;
  const HeaderSource headers_;  // immutable
};

}  // namespace velquin
