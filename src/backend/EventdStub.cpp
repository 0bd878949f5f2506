#include "backend/EventdStub.h"

#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/BackendChannel.h"

namespace velquin {

EventdStub::EventdStub(const std::string& host, const std::string& extraRootCertificates)
    : stub_(protocol::Eventd::NewStub(backendChannel(host, extraRootCertificates))) {}

std::unique_ptr<EventdStub::FireEventCall> EventdStub::prepareFireEvent(
    protocol::EventRequest request, FireEventCall::Completion completion,
    std::chrono::milliseconds timeout) {
  auto call = std::make_unique<FireEventCall>(
      [stub = stub_.get()](auto* context, auto* req, auto* resp, auto done) {
        stub->async()->FireEvent(context, req, resp, std::move(done));
      },
      std::move(request), std::move(completion), timeout);
  auto& helper = OVDeviceInfoManagerHelper::sharedManager();
  call->addHeader("authorization", "Bearer " + helper.appKey());
  call->addHeader("x-vq-experiment", helper.tag());
  return call;
}

void EventdStub::fireEvent(protocol::EventRequest request, FireEventCall::Completion completion) {
  FireEventCall::start(prepareFireEvent(std::move(request), std::move(completion)));
}

}  // namespace velquin
