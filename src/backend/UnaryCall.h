// One unary backend call: prepared (its headers can still change), then
// started; it reports exactly once and frees itself.
//
// Threads: prepare and start on any thread; the completion runs on a gRPC
// callback thread. A completion that throws is caught and reported on stderr:
// the host's mistake must not end the process from a gRPC thread.
#pragma once

#include <grpcpp/client_context.h>
#include <grpcpp/support/status.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "velquin/Error.h"

namespace velquin {

Error errorFromStatus(const grpc::Status& status);
void reportThrowingCompletion(const char* what);

inline constexpr std::chrono::seconds kCallTimeout{60};

template <class Request, class Response>
class UnaryCall {
 public:
  // Exactly one of the two is set.
  using Completion = std::function<void(std::optional<Response>, std::optional<Error>)>;
  using Invoke = std::function<void(grpc::ClientContext*, const Request*, Response*,
                                    std::function<void(grpc::Status)>)>;

  UnaryCall(Invoke invoke, Request request, Completion completion,
            std::chrono::milliseconds timeout = kCallTimeout)
      : invoke_(std::move(invoke)),
        request_(std::move(request)),
        completion_(std::move(completion)) {
    context_.set_deadline(std::chrono::system_clock::now() + timeout);
  }

  grpc::ClientContext& context() { return context_; }
  const Request& request() const { return request_; }
  // Keys must be lower case: gRPC refuses upper-case metadata keys.
  void addHeader(const std::string& key, const std::string& value) {
    context_.AddMetadata(key, value);
  }

  // Hands the call to gRPC; it deletes itself after reporting.
  static void start(std::unique_ptr<UnaryCall> call) {
    UnaryCall* self = call.release();
    self->invoke_(&self->context_, &self->request_, &self->response_,
                  [self](grpc::Status status) { self->finish(status); });
  }

 private:
  void finish(const grpc::Status& status) {
    std::unique_ptr<UnaryCall> owner(this);
    if (!completion_) return;
    try {
      if (status.ok()) {
        completion_(std::move(response_), std::nullopt);
      } else {
        completion_(std::nullopt, errorFromStatus(status));
      }
    } catch (...) {
      reportThrowingCompletion("backend call");
    }
  }

  Invoke invoke_;
  grpc::ClientContext context_;
  Request request_;
  Response response_;
  Completion completion_;
};

}  // namespace velquin
