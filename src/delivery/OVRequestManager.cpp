#include "delivery/OVRequestManager.h"

#include <algorithm>
#include <iterator>
#include <unordered_map>

#include "delivery/OVRequestCache.h"
#include "support/Console.h"
#include "support/Mutex.h"

namespace velquin {
namespace {

// True when the call failed without an answer from the backend: it could
// not be reached, did not answer before the deadline, or the SDK cancelled
// the call itself (only while shutting down). Any other status is one the
// backend sent.
bool noAnswer(const std::optional<Error>& error, bool cancelledBySdk) {
  if (!error) return true;
  return error->code == grpc::StatusCode::UNAVAILABLE ||
         error->code == grpc::StatusCode::DEADLINE_EXCEEDED ||
         (error->code == grpc::StatusCode::CANCELLED && cancelledBySdk);
}

// The exit handler's bound on waiting for replies, in milliseconds.
std::atomic<std::int64_t> exitDrainMs{1000};

}  // namespace

std::shared_ptr<OVRequestManager> OVRequestManager::create(Options options) {
  auto manager = std::shared_ptr<OVRequestManager>(new OVRequestManager(std::move(options)));
  // Acknowledgements an earlier process left: their rows go in one delete,
  // off the caller's thread.
  if (manager->acks_ && !manager->acks_->empty()) {
    {
      support::MutexLock lock(manager->recordedMutex_);
      manager->foldScheduled_ = true;
    }
    manager->addDelQueue_.async([weak = manager->weak_from_this()] {
      if (auto self = weak.lock()) self->foldAcknowledgements();
    });
  }
  return manager;
}

void OVRequestManager::setExitDrainBound(std::chrono::milliseconds bound) {
  exitDrainMs = std::max<std::int64_t>(0, bound.count());
}

std::chrono::milliseconds OVRequestManager::exitDrainBound() {
  return std::chrono::milliseconds(exitDrainMs.load());
}

void OVRequestManager::drainInFlight(std::chrono::milliseconds bound) {
  if (bound.count() <= 0) return;
  stopping_ = true;  // no new call starts; what waits stays cached
  std::unique_lock lock(drainMutex_);
  drainChanged_.wait_for(lock, bound, [this] { return inFlight_.load() <= 0; });
}

bool OVRequestManager::recordAcknowledged(const std::string& key, std::int64_t rowId,
                                          const std::string& requestId) {
  if (!acks_ || !acks_->append(rowId, requestId)) return false;
  // Listed only after the write: a fold that takes this list has the
  // record in the log it reads (or the row was folded already).
  bool fold = false;
  {
    support::MutexLock lock(recordedMutex_);
    recorded_.push_back(Recorded{key, rowId});
    fold = recorded_.size() >= kFoldAcks && !foldScheduled_;
    if (fold) foldScheduled_ = true;
  }
  if (fold) {
    addDelQueue_.async([weak = weak_from_this()] {
      if (auto self = weak.lock()) self->foldAcknowledgements();
    });
  }
  return true;
}

void OVRequestManager::scheduleFold() {
  {
    support::MutexLock lock(recordedMutex_);
    if (foldScheduled_) return;
    foldScheduled_ = true;
  }
  addDelQueue_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->foldAcknowledgements();
  });
}

void OVRequestManager::foldAcknowledgements() {
  if (!acks_ || !options_.cache || !options_.cache->isAvailable()) return;
  support::MutexLock folding(foldMutex_);
  std::vector<Recorded> settled;
  {
    // Taken before the log is read: each of these is in what the fold
    // reads, or was folded by someone earlier.
    support::MutexLock lock(recordedMutex_);
    settled.swap(recorded_);
    foldScheduled_ = false;
  }
  const bool folded = acks_->fold([this](const std::vector<AckLog::Entry>& entries) {
    return options_.cache->deleteAcknowledged(entries);
  });
  if (!folded) {
    reportFailedDelete(settled.size());  // claims stay: never sent again here
    support::MutexLock lock(recordedMutex_);
    recorded_.insert(recorded_.begin(), settled.begin(), settled.end());
    return;
  }
  support::MutexLock lock(queueMutex_);
  for (const auto& entry : settled) {
    underWay_.erase(entry.key);
    if (leases_) leases_->release(entry.rowId);
  }
}

void OVRequestManager::drainSharedAtExit() {
  const auto bound = exitDrainBound();
  if (bound.count() <= 0) return;
  sharedPointer()->drainInFlight(bound);
}

OVRequestManager::OVRequestManager(Options options)
    : options_(std::move(options)),
      stub_(std::make_unique<EventdStub>(options_.host, options_.rootCertificates,
                                         options_.headers)) {
  if (options_.cache && options_.cache->isAvailable()) {
    leases_ = std::make_unique<RowLeases>(options_.cache->leaseFile());
    acks_ = std::make_unique<AckLog>(options_.cache->ackFile());
  }
}

OVRequestManager::~OVRequestManager() {
  stopping_ = true;  // rows not sent yet stay cached for the next start
  stopTimer();
  // The last reference may go on a gRPC thread after the cache's owner is
  // gone, so nothing here touches the cache. Rows acknowledged but not yet
  // deleted stay cached and are sent again at the next start (at least once).
}

size_t OVRequestManager::queued() const {
  support::MutexLock lock(queueMutex_);
  return requestQueue_.size();
}

void OVRequestManager::drainQueue() {
  addDelQueue_.sync([] {});
}

std::string OVRequestManager::claimKey(const OVRequest& request) {
  if (request.rowId()) return "row:" + std::to_string(*request.rowId());
  const std::string id = request.requestIdText();
  return id.empty() ? std::string() : "id:" + id;
}

bool OVRequestManager::submit(std::shared_ptr<OVRequest> request, SuccessBlock success,
                              FailureBlock failure) {
  if (!request) return false;
  const bool credentials = hasCredentials();
  std::optional<std::int64_t> rowId;
  bool leftToSweep = false;
  if (options_.cache && options_.cache->isAvailable()) {
    // Claimed on the database queue, before any upload of this process can
    // read the row: the upload then skips it.
    std::function<void(std::int64_t)> claim;
    std::optional<std::int64_t> claimed;
    std::vector<Acknowledged> taken;
    bool takenDeleted = false;
    CallerScope inside(*this);
    const bool withBlocks = success || failure;
    claim = [this, credentials, withBlocks, &claimed, &taken, &takenDeleted](std::int64_t row) {
      {
        support::MutexLock lock(queueMutex_);
        // Queued at once only while the queue is short and the backend
        // answers; otherwise the row waits in the cache for the sweep
        // (decided here, on the database queue, where the sweep reads).
        // Blocks must be told, so their envelope is always queued.
        if (credentials && (withBlocks || (!silent_ && !backlog_ &&
                                           requestQueue_.size() < kPageRows))) {
          underWay_.insert("row:" + std::to_string(row));
          // Not yet visible to any other process: the lease is free.
          if (leases_) leases_->acquire(row);
          claimed = row;
        } else {
          backlog_ = true;
        }
      }
      // Rows acknowledged meanwhile leave in this same commit: a reply
      // never makes the caller wait for a delete of its own.
      taken = takeAcknowledgedRows();
      if (!taken.empty()) takenDeleted = options_.cache->deleteRows(rowsOf(taken));
    };
    rowId = options_.cache->addRequest(*request, claim);
    leftToSweep = rowId && !claimed;
    if (claimed && !rowId) {
      // The insert did not commit: the row does not exist after all.
      OVRequest gone;
      gone.setRowId(claimed);
      release(gone);
    }
    if (!taken.empty()) {
      if (rowId) {
        // Committed with the row: their slots are free now. The rest (the
        // next sends, the success blocks) is no work for the caller.
        addDelQueue_.async(
            [weak = weak_from_this(), batch = std::move(taken), takenDeleted]() mutable {
              if (auto self = weak.lock()) self->settleDeleted(batch, takenDeleted);
            });
      } else {
        // Rolled back with the insert: deleted as any other reply.
        support::MutexLock lock(deleteMutex_);
        for (auto& entry : taken) acknowledged_.push_back(std::move(entry));
      }
    }
    // Replies that left their rows to this caller after it had taken its
    // batch do not wait for the next caller: see leaveCaller(), run when
    // `inside` ends here.
  }
  request->setRowId(rowId);
  if (!credentials) return rowId.has_value();
  if (leftToSweep) {
    maybeReadPage();  // left to the sweep
    return true;
  }
  if (!rowId) {
    // Not durable: sent from memory only. Claimed by its request id, which
    // is unique within this process.
    support::MutexLock lock(queueMutex_);
    underWay_.insert(claimKey(*request));
  }
  std::vector<Pending> pending;
  pending.push_back(Pending{std::move(request), std::move(success), std::move(failure), nullptr});
  enqueueClaimed(std::move(pending));
  return rowId.has_value();
}

void OVRequestManager::enqueueRequest(std::shared_ptr<OVRequest> request, SuccessBlock success,
                                      FailureBlock failure) {
  if (!request) return;
  if (!hasCredentials()) return;
  addDelQueue_.async(
      [weak = weak_from_this(),
       pending = Pending{std::move(request), std::move(success), std::move(failure), nullptr}]() mutable {
        auto self = weak.lock();
        if (!self) return;
        {
          support::MutexLock lock(self->queueMutex_);
          const std::string key = claimKey(*pending.request);
          if (key.empty()) {
            for (const auto& waiting : self->requestQueue_) {
              if (waiting.request == pending.request) return;
            }
          } else if (!self->underWay_.insert(key).second) {
            return;  // this row is queued or in flight already
          } else if (!self->leaseClaimedLocked(*pending.request, key)) {
            return;  // another process is sending it
          }
          self->requestQueue_.push_back(std::move(pending));
        }
        self->sendPending();
      });
}

void OVRequestManager::enqueueClaimed(std::vector<Pending> pendings) {
  if (pendings.empty()) return;
  {
    // Queued on the calling thread, in order: no hand-over to the manager's
    // queue (whose wake-up would compete with the caller for the CPU).
    support::MutexLock lock(queueMutex_);
    for (auto& pending : pendings) requestQueue_.push_back(std::move(pending));
  }
  // With every slot taken, whoever frees one runs the loop and finds these
  // envelopes: freeSlots() lowers inFlight_ before it takes queueMutex_,
  // and this check follows the push under queueMutex_, so one of the two
  // always sees the other. Otherwise the loop runs on the manager's queue,
  // since starting a call costs more than the caller should pay.
  if (inFlight_.load() >= kMaxInFlight) return;
  addDelQueue_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->sendPending();
  });
}

void OVRequestManager::release(const OVRequest& request) {
  const std::string key = claimKey(request);
  if (key.empty()) return;
  support::MutexLock lock(queueMutex_);
  underWay_.erase(key);
  if (leases_ && request.rowId()) leases_->release(*request.rowId());
}

bool OVRequestManager::leaseClaimedLocked(const OVRequest& request, const std::string& key) {
  if (!leases_ || !request.rowId() || leases_->acquire(*request.rowId())) return true;
  underWay_.erase(key);
  return false;
}

void OVRequestManager::freeSlots(int count) {
  if (count <= 0) return;
  if ((inFlight_ -= count) == 0) {
    std::lock_guard lock(drainMutex_);
    drainChanged_.notify_all();
  }
  // Waiting envelopes take the freed slots; the loop never blocks, so it
  // may run on whichever thread freed them.
  sendPending();
  if (inFlight_.load() > 0 || stopping_) return;
  // Idle: the rows acknowledged so far are deleted now rather than at the
  // 32nd acknowledgement or the next timer pass.
  bool pending = false;
  {
    support::MutexLock lock(recordedMutex_);
    pending = !recorded_.empty();
  }
  if (pending) scheduleFold();
}

std::shared_ptr<const DeviceFacts> OVRequestManager::currentFacts() {
  support::MutexLock lock(factsMutex_);
  if (!facts_) {
    facts_ = std::make_shared<const DeviceFacts>(options_.deviceFacts ? options_.deviceFacts()
                                                                     : DeviceFacts{});
  }
  return facts_;  // shared, not copied: a send needs only to read them
}

void OVRequestManager::sendPending() {
  while (!stopping_) {
    Pending pending;
    {
      support::MutexLock lock(queueMutex_);
      if (requestQueue_.empty()) return;
      // Take a slot first: without one the envelope stays queued until a
      // slot is freed and this loop runs again. Slots are only taken here,
      // under queueMutex_, so the check and the increment cannot interleave
      // with another taker.
      if (inFlight_.load() >= kMaxInFlight) return;
      ++inFlight_;
      pending = std::move(requestQueue_.front());
      requestQueue_.pop_front();
    }
    maybeReadPage();  // reads ahead when the queue runs low
    send(std::move(pending));
  }
}

void OVRequestManager::send(Pending pending) {
  auto& request = *pending.request;
  if (!pending.built && request.paramStr() && !request.params()) {
    std::string why;
    if (!request.restoreParamsFromParamStr(why)) support::printLine("json parsing failed " + why);
  }
  if (!pending.built) {
    // Built once per row in this process; its retries send the same request.
    const std::shared_ptr<const DeviceFacts> facts = currentFacts();
    const EventIdentity identity = options_.identity ? options_.identity() : EventIdentity{};
    static const nlohmann::json kNoParams = nlohmann::json::object();
    pending.built = std::make_shared<const protocol::EventRequest>(buildEventRequest(
        request.params() ? *request.params() : kNoParams, *facts, identity));
  }
  protocol::EventRequest eventRequest = *pending.built;
  // The request goes to the call as it is; a copy is kept only for the
  // log line, when the log is on.
  std::shared_ptr<const protocol::EventRequest> logged;
  if (logEnabled()) logged = std::make_shared<const protocol::EventRequest>(eventRequest);

  auto call = stub_->prepareFireEvent(
      std::move(eventRequest),
      [weak = weak_from_this(), pending = std::move(pending), logged = std::move(logged)](
          std::optional<protocol::EventResponse> reply, std::optional<Error> error) {
        auto self = weak.lock();
        if (!self) return;
        self->handleReply(pending, logged.get(), std::move(reply), std::move(error));
      },
      options_.callTimeout);
  EventdStub::FireEventCall::start(std::move(call));
}

void OVRequestManager::handleReply(const Pending& pending,
                                   const protocol::EventRequest* eventRequest,
                                   std::optional<protocol::EventResponse> reply,
                                   std::optional<Error> error) {
  const std::string description = eventRequest ? eventRequest->ShortDebugString() : std::string();
  const auto& request = pending.request;
  const std::string id = request->requestIdText();
  const std::string key = claimKey(*request);
  if (reply && silent_.exchange(false)) {
    // The backend answers again: sweep the cache from its first row.
    {
      support::MutexLock lock(queueMutex_);
      backlog_ = true;
      sweepCursor_ = 0;
    }
    maybeReadPage();
  }
  if (reply) {
    // Any reply counts as accepted, whatever its status. The slot stays
    // taken until the row's delete has committed.
    auto after = [this, pending, description, id, status = reply->status(),
                  response = std::move(*reply)] {
      if (logEnabled()) {
        support::printLine("\n✅✅✅Request address = " + options_.host +
                           " \n request parameter = " + description +
                           " \n return data = " + (status ? "1" : "0") + " \n cache ID = " + id);
      }
      if (pending.success) pending.success(response);
    };
    // A cached row is recorded in the acknowledgement log: one write, no
    // database lock. Its slot is free at once; its claim (and lease) stay
    // until a fold has deleted the row.
    if (request->rowId() && recordAcknowledged(key, *request->rowId(), id)) {
      freeSlots(1);
      after();
      return;
    }
    Acknowledged entry{key, request->rowId(), id, std::move(after)};
    {
      // While a caller is inside submit(), its commit takes the row along
      // (or it schedules the delete when it leaves).
      support::MutexLock lock(deleteMutex_);
      if (callersInside_.load() > 0) {
        acknowledged_.push_back(std::move(entry));
        return;
      }
    }
    // Otherwise the row is deleted right here and its slot used again at
    // once. Replies landing together are not batched into one commit: that
    // makes the three calls go out and come back in lockstep, which costs
    // both sides more than the commits it saves.
    bool deleted = true;
    if (options_.cache && options_.cache->isAvailable()) {
      if (entry.rowId) {
        deleted = options_.cache->deleteRows({*entry.rowId});
      } else {
        options_.cache->deleteRequest(entry.requestId);
      }
    }
    std::vector<Acknowledged> one;
    one.push_back(std::move(entry));
    settleDeleted(one, deleted);
    return;
  }

  const bool reachable = !options_.isReachable || options_.isReachable();
  if (noAnswer(error, stopping_)) silent_ = true;
  if (reachable && request->retryCount() >= 1) {
    // Retried at once, still claimed, behind whatever waits already.
    request->reduceRetryCount();
    if (!stopping_) {
      support::MutexLock lock(queueMutex_);
      // Re-sends carry no blocks, except a success block given without a
      // failure block: nothing has reported yet, so it stays for the
      // acknowledgement (still reported at most once).
      requestQueue_.push_back(
          Pending{request, pending.failure ? nullptr : pending.success, nullptr, pending.built});
    }
  } else if (reachable && !noAnswer(error, stopping_)) {
    // Out of retries and the backend answered each time: given up.
    if (deleteRow(*request)) {
      release(*request);
    } else {
      reportFailedDelete(1);  // stays claimed: never sent again by this process
    }
  } else {
    // Unreachable, or no answer from the backend: the row stays in the
    // cache for the timer and the next start.
    release(*request);
  }
  freeSlots(1);

  if (logEnabled()) {
    support::printLine("\n❌❌❌Failure message = " + error.value_or(Error{}).message +
                       " \nRequest parameter = " + description +
                       " \nCache ID = " + id);
  }
  if (pending.failure) pending.failure(error.value_or(Error{kGrpcErrorDomain, 2, "no reply"}));
}

bool OVRequestManager::deleteRow(const OVRequest& request) {
  if (!options_.cache || !options_.cache->isAvailable()) return true;
  if (request.rowId()) return options_.cache->deleteRows({*request.rowId()});
  options_.cache->deleteRequest(request.requestIdText());
  return true;
}

void OVRequestManager::reportFailedDelete(std::size_t rows) {
  if (deleteFailureReported_.exchange(true)) return;
  support::warn("request manager: " + std::to_string(rows) +
                " delivered row(s) could not be deleted from the request cache; this process "
                "will not send them again");
}

void OVRequestManager::deleteAcknowledged() {
  for (;;) {
    std::vector<Acknowledged> batch;
    {
      support::MutexLock lock(deleteMutex_);
      if (callersInside_.load() > 0) {
        // A caller inside takes the cached rows with its insert, or
        // schedules this again when it leaves (leaveCaller() checks after
        // lowering the count): deleting them here would only make it wait.
        auto cached = std::stable_partition(
            acknowledged_.begin(), acknowledged_.end(),
            [](const Acknowledged& entry) { return !entry.rowId; });
        std::move(acknowledged_.begin(), cached, std::back_inserter(batch));
        acknowledged_.erase(acknowledged_.begin(), cached);
      } else {
        batch.swap(acknowledged_);
      }
      if (batch.empty()) {
        deleteScheduled_ = false;
        return;
      }
    }
    std::vector<std::int64_t> rows;
    std::vector<std::string> ids;
    rows.reserve(batch.size());
    for (const auto& entry : batch) {
      if (entry.rowId) {
        rows.push_back(*entry.rowId);
      } else {
        ids.push_back(entry.requestId);
      }
    }
    bool deleted = true;
    if (options_.cache && options_.cache->isAvailable()) {
      deleted = options_.cache->deleteRows(rows);
      options_.cache->deleteRequests(ids);
    }
    settleDeleted(batch, deleted);
  }
}

void OVRequestManager::settleDeleted(std::vector<Acknowledged>& batch, bool deleted) {
  if (deleted) {
    support::MutexLock lock(queueMutex_);
    for (const auto& entry : batch) {
      underWay_.erase(entry.key);
      if (leases_ && entry.rowId) leases_->release(*entry.rowId);
    }
  } else {
    std::size_t rows = 0;
    for (const auto& entry : batch) rows += entry.rowId ? 1 : 0;
    reportFailedDelete(rows);  // their claims stay: never sent again here
  }
  freeSlots(static_cast<int>(batch.size()));
  for (auto& entry : batch) entry.after();
}

std::vector<OVRequestManager::Acknowledged> OVRequestManager::takeAcknowledgedRows() {
  std::vector<Acknowledged> taken;
  support::MutexLock lock(deleteMutex_);
  // Envelopes that were never cached are deleted by request id, in a
  // transaction of their own: they stay for deleteAcknowledged().
  auto cached = std::stable_partition(acknowledged_.begin(), acknowledged_.end(),
                                      [](const Acknowledged& entry) { return !entry.rowId; });
  std::move(cached, acknowledged_.end(), std::back_inserter(taken));
  acknowledged_.erase(cached, acknowledged_.end());
  return taken;
}

std::vector<std::int64_t> OVRequestManager::rowsOf(const std::vector<Acknowledged>& batch) {
  std::vector<std::int64_t> rows;
  rows.reserve(batch.size());
  for (const auto& entry : batch) rows.push_back(*entry.rowId);
  return rows;
}

void OVRequestManager::scheduleDeletes() {
  {
    support::MutexLock lock(deleteMutex_);
    if (acknowledged_.empty() || deleteScheduled_) return;
    deleteScheduled_ = true;
  }
  addDelQueue_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->deleteAcknowledged();
  });
}

void OVRequestManager::startTimer() {
  MainQueue::shared().async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    support::MutexLock lock(self->timerMutex_);
    if (self->timer_) MainQueue::shared().cancel(*self->timer_);
    self->timer_ = MainQueue::shared().every(
        std::chrono::duration_cast<std::chrono::milliseconds>(self->options_.timerInterval),
        [weak] {
          if (auto owner = weak.lock()) owner->uploadCacheDataObjc();
        });
  });
}

void OVRequestManager::stopTimer() {
  support::MutexLock lock(timerMutex_);
  if (timer_) MainQueue::shared().cancel(*timer_);
  timer_.reset();
}

void OVRequestManager::uploadCacheData(SuccessBlock success, FailureBlock failure) {
  {
    support::MutexLock lock(factsMutex_);
    facts_.reset();  // storage sizes and the screen may have changed
  }
  if (!options_.cache || !options_.cache->isAvailable()) return;
  if (const std::int64_t dropped = options_.cache->takeDropped(); dropped > 0) {
    support::warn("request cache: " + std::to_string(dropped) +
                  " oldest event(s) dropped to stay within the cap of " +
                  std::to_string(options_.cache->rowCap()) + " rows");
  }
  if (acks_ && !acks_->empty()) scheduleFold();
  if (!hasCredentials()) return;  // the rows wait for the next upload
  // Nothing can be sent: the pass costs a reachability test and no read.
  if (options_.isReachable && !options_.isReachable()) return;
  {
    support::MutexLock lock(queueMutex_);
    sweepSuccess_ = std::move(success);
    sweepFailure_ = std::move(failure);
    if (!silent_ && !backlog_) {
      backlog_ = true;
      sweepCursor_ = 0;
    }
  }
  // While the backend gave no answer, one row probes it; its reply starts
  // the sweep again.
  if (silent_) {
    readPage(1, true);
  } else {
    maybeReadPage(true);
  }
}

void OVRequestManager::maybeReadPage(bool now) {
  {
    support::MutexLock lock(queueMutex_);
    if (!backlog_ || pageScheduled_ || silent_ || stopping_ ||
        requestQueue_.size() >= kLowWater) {
      return;
    }
    pageScheduled_ = true;
  }
  if (now) {
    readPage(kPageRows, false);
    return;
  }
  addDelQueue_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->readPage(kPageRows, false);
  });
}

void OVRequestManager::readPage(int limit, bool probe) {
  std::vector<std::shared_ptr<OVRequest>> claimed;
  SuccessBlock success;
  FailureBlock failure;
  bool last = false;
  // Pages of rows all claimed already (in flight, or sent by another
  // process) are passed over; those are at most a few pages.
  while (claimed.empty() && !last && hasCredentials()) {
    std::int64_t after = 0;
    if (!probe) {
      support::MutexLock lock(queueMutex_);
      after = sweepCursor_;
    }
    bool read = false;
    options_.cache->requestsAfter(
        after, limit, [&](const std::vector<std::shared_ptr<OVRequest>>& rows, bool end) {
          read = true;
          last = end || probe;
          // Claimed while still on the database queue: a row whose delete
          // committed before this read is not in it, and one deleted after
          // it is claimed until its delete has committed.
          support::MutexLock lock(queueMutex_);
          for (const auto& row : rows) {
            const std::string key = claimKey(*row);
            if (key.empty() || (underWay_.insert(key).second && leaseClaimedLocked(*row, key))) {
              claimed.push_back(row);
            }
          }
          if (probe) return;
          if (!rows.empty() && rows.back()->rowId()) sweepCursor_ = *rows.back()->rowId();
          if (end) {
            backlog_ = false;
            sweepCursor_ = 0;
          }
        });
    if (!read) break;
  }
  {
    support::MutexLock lock(queueMutex_);
    if (!probe) pageScheduled_ = false;
    success = sweepSuccess_;
    failure = sweepFailure_;
  }
  if (!claimed.empty()) {
    // A process sharing the file releases a row's lease only after its
    // delete has committed: a row read before that delete but leased after
    // it is gone now, and must not be sent again.
    // A process that died left acknowledgements of rows it had leased: read
    // after the leases were taken, the log has them (or a fold deleted the
    // rows, which the check below sees). They are not sent again; they stay
    // claimed until this process's next fold deletes them.
    if (acks_ && !acks_->empty()) {
      std::unordered_set<std::int64_t> acknowledged;
      std::unordered_map<std::int64_t, std::uint64_t> hashes;
      for (const auto& entry : acks_->read()) hashes[entry.rowId] = entry.idHash;
      std::vector<Recorded> skipped;
      std::erase_if(claimed, [&](const std::shared_ptr<OVRequest>& row) {
        if (!row->rowId()) return false;
        auto hash = hashes.find(*row->rowId());
        if (hash == hashes.end() || hash->second != AckLog::hashOf(row->requestIdText())) {
          return false;
        }
        skipped.push_back(Recorded{claimKey(*row), *row->rowId()});
        return true;
      });
      if (!skipped.empty()) {
        {
          support::MutexLock lock(recordedMutex_);
          recorded_.insert(recorded_.end(), skipped.begin(), skipped.end());
        }
        scheduleFold();
      }
    }
    std::vector<std::int64_t> ids;
    for (const auto& row : claimed) {
      if (row->rowId()) ids.push_back(*row->rowId());
    }
    const auto existing = options_.cache->existingRows(ids);
    std::vector<Pending> pending;
    pending.reserve(claimed.size());
    for (auto& row : claimed) {
      if (row->rowId() && !existing.count(*row->rowId())) {
        release(*row);
        continue;
      }
      pending.push_back(Pending{std::move(row), success, failure, nullptr});
    }
    enqueueClaimed(std::move(pending));
  }
  if (!probe) maybeReadPage();
}

}  // namespace velquin
