#include "backend/EventdStub.h"

#include "backend/BackendChannel.h"

namespace velquin {

EventdStub::EventdStub(const std::string& host, const std::string& extraRootCertificates,
                       HeaderSource headers)
    : stub_(protocol::Eventd::NewStub(backendChannel(host, extraRootCertificates))),
      headers_(std::move(headers)) {}

std::unique_ptr<EventdStub::FireEventCall> EventdStub::prepareFireEvent(
    protocol::EventRequest request, FireEventCall::Completion completion,
    std::chrono::milliseconds timeout) {
  auto call = std::make_unique<FireEventCall>(
      [stub = stub_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->FireEvent(context, req, resp, std::move(done));
      },
      std::move(request), std::move(completion), timeout);
  const EventHeaders headers = headers_ ? headers_() : EventHeaders{};
  call->addHeader("authorization", "Bearer " + headers.appKey);
  call->addHeader("x-vq-experiment", headers.tag);
  return call;
}

}  // namespace velquin
