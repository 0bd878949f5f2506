#include "delivery/OVRequestManager.h"

#include "delivery/OVRequestCache.h"
#include "support/Console.h"

namespace velquin {
namespace {

bool transportFailure(const std::optional<Error>& error) {
  if (!error) return true;
  return error->code == grpc::StatusCode::UNAVAILABLE ||
         error->code == grpc::StatusCode::DEADLINE_EXCEEDED ||
         error->code == grpc::StatusCode::CANCELLED;
}

}  // namespace

std::shared_ptr<OVRequestManager> OVRequestManager::create(Options options) {
  return std::shared_ptr<OVRequestManager>(new OVRequestManager(std::move(options)));
}

OVRequestManager::OVRequestManager(Options options)
    : options_(std::move(options)),
      stub_(std::make_unique<EventdStub>(options_.host, options_.rootCertificates,
                                         options_.headers)) {}

OVRequestManager::~OVRequestManager() {
  stopping_ = true;  // rows not sent yet stay cached for the next start
  stopTimer();
  // The last reference may go on a gRPC thread after the cache's owner is
  // gone, so nothing here touches the cache. Rows acknowledged but not yet
  // deleted stay cached and are sent again at the next start (at least once).
}

size_t OVRequestManager::queued() const {
  std::lock_guard lock(queueMutex_);
  return requestQueue_.size();
}

void OVRequestManager::drainQueue() { addDelQueue_.sync([] {}); }

void OVRequestManager::enqueueRequest(std::shared_ptr<OVRequest> request, SuccessBlock success,
                                      FailureBlock failure) {
  if (!request) return;
  if (options_.hasCredentials && !options_.hasCredentials()) return;
  addDelQueue_.async([weak = weak_from_this(),
                      pending = Pending{std::move(request), std::move(success),
                                        std::move(failure)}]() mutable {
    auto self = weak.lock();
    if (!self) return;
    {
      std::lock_guard lock(self->queueMutex_);
      const std::string id = pending.request->requestIdText();
      if (id.empty()) {
        for (const auto& waiting : self->requestQueue_) {
          if (waiting.request == pending.request) return;
        }
      } else if (!self->underWay_.insert(id).second) {
        return;  // this request is queued or in flight already
      }
      self->requestQueue_.push_back(std::move(pending));
    }
    self->sendPending();
  });
}

void OVRequestManager::forget(const std::string& requestId) {
  std::lock_guard lock(queueMutex_);
  underWay_.erase(requestId);
}

DeviceFacts OVRequestManager::currentFacts() {
  std::lock_guard lock(factsMutex_);
  if (!facts_) facts_ = options_.deviceFacts ? options_.deviceFacts() : DeviceFacts{};
  return *facts_;
}

void OVRequestManager::sendPending() {
  while (!stopping_) {
    Pending pending;
    {
      std::lock_guard lock(queueMutex_);
      if (requestQueue_.empty()) return;
      // Take a slot first: without one the envelope stays queued until a
      // reply frees a slot and runs this loop again.
      if (!semaphore_.try_acquire()) return;
      pending = std::move(requestQueue_.front());
      requestQueue_.pop_front();
    }
    send(std::move(pending));
  }
}

void OVRequestManager::send(Pending pending) {
  auto& request = *pending.request;
  if (request.paramStr() && !request.params()) {
    std::string why;
    if (!request.restoreParamsFromParamStr(why)) support::printLine("json parsing failed " + why);
  }
  const DeviceFacts facts = currentFacts();
  const EventIdentity identity = options_.identity ? options_.identity() : EventIdentity{};
  auto eventRequest =
      buildEventRequest(request.params().value_or(nlohmann::json::object()), facts, identity);

  ++inFlight_;
  auto call = stub_->prepareFireEvent(
      eventRequest,
      [weak = weak_from_this(), pending, eventRequest](
          std::optional<protocol::EventResponse> reply, std::optional<Error> error) {
        auto self = weak.lock();
        if (!self) return;
        self->handleReply(pending, eventRequest, std::move(reply), std::move(error));
      },
      options_.callTimeout);
  EventdStub::FireEventCall::start(std::move(call));
}

void OVRequestManager::handleReply(const Pending& pending,
                                   const protocol::EventRequest& eventRequest,
                                   std::optional<protocol::EventResponse> reply,
                                   std::optional<Error> error) {
  --inFlight_;
  semaphore_.release();
  // Waiting envelopes take the freed slot; the loop never blocks, so it may
  // run on this callback thread.
  sendPending();

  const auto& request = pending.request;
  const std::string id = request->requestIdText();
  if (reply) {
    // Any reply counts as accepted, whatever its status.
    auto after = [this, pending, eventRequest, id, status = reply->status(), response = *reply] {
      if (logEnabled()) {
        support::printLine("\n✅✅✅Request address = " + options_.host +
                           " \n request parameter = " + eventRequest.ShortDebugString() +
                           " \n return data = " + (status ? "1" : "0") + " \n cache ID = " + id);
      }
      if (pending.success) pending.success(response);
    };
    bool schedule = false;
    {
      std::lock_guard lock(deleteMutex_);
      acknowledged_.push_back({id, std::move(after)});
      schedule = !deleteScheduled_;
      deleteScheduled_ = true;
    }
    if (schedule) {
      deleteQueue_.async([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->deleteAcknowledged();
      });
    }
    return;
  }
  forget(id);
  // A call that never got an answer from the backend (it could not be
  // reached, or did not answer before the deadline) counts as unreachable:
  // the row stays cached for the next upload rather than spending its
  // retries. A backend that answered with an error spends them.
  const bool reachable = !transportFailure(error) &&
                         (!options_.isReachable || options_.isReachable());
  if (reachable) {
    if (request->retryCount() < 1) {
      if (options_.cache) options_.cache->deleteRequest(id);  // given up
    } else {
      request->reduceRetryCount();
      if (!stopping_) enqueueRequest(request);
    }
  }
  // Unreachable: the row stays in the cache for the next upload.
  if (logEnabled()) {
    support::printLine("\n❌❌❌Failure message = " + error.value_or(Error{}).message +
                       " \nRequest parameter = " + eventRequest.ShortDebugString() +
                       " \nCache ID = " + id);
  }
  if (pending.failure) pending.failure(error.value_or(Error{kGrpcErrorDomain, 2, "no reply"}));
}

void OVRequestManager::deleteAcknowledged() {
  std::vector<Acknowledged> batch;
  {
    std::lock_guard lock(deleteMutex_);
    batch.swap(acknowledged_);
    deleteScheduled_ = false;
  }
  std::vector<std::string> ids;
  ids.reserve(batch.size());
  for (const auto& entry : batch) ids.push_back(entry.requestId);
  if (options_.cache) options_.cache->deleteRequests(ids);
  {
    std::lock_guard lock(queueMutex_);
    for (const auto& id : ids) underWay_.erase(id);
  }
  for (auto& entry : batch) entry.after();
}

void OVRequestManager::startTimer() {
  MainQueue::shared().async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    std::lock_guard lock(self->timerMutex_);
    if (self->timer_) MainQueue::shared().cancel(*self->timer_);
    self->timer_ = MainQueue::shared().every(
        std::chrono::duration_cast<std::chrono::milliseconds>(self->options_.timerInterval),
        [weak] {
          if (auto owner = weak.lock()) owner->uploadCacheDataObjc();
        });
  });
}

void OVRequestManager::stopTimer() {
  std::lock_guard lock(timerMutex_);
  if (timer_) MainQueue::shared().cancel(*timer_);
  timer_.reset();
}

void OVRequestManager::uploadCacheData(SuccessBlock success, FailureBlock failure) {
  {
    std::lock_guard lock(factsMutex_);
    facts_.reset();  // storage sizes and the screen may have changed
  }
  if (!options_.cache || !options_.cache->isAvailable()) return;
  std::vector<std::shared_ptr<OVRequest>> rows;
  options_.cache->allRequestsFromFmdbWihtClass(
      OVRequest::zk_model(),
      [&](const std::optional<std::vector<std::shared_ptr<OVRequest>>>& restored) {
        if (restored) rows = *restored;
      });
  for (const auto& row : rows) {
    enqueueRequest(std::make_shared<OVRequest>(*row), success, failure);
  }
}

}  // namespace velquin
