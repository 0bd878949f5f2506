// The delivery engine for events. Producers write an envelope to the request
// cache and hand it here; the manager sends it with FireEvent, at most three
// calls in flight, deletes the cached row on any reply, retries a bounded
// number of times while the network is reachable, leaves the row for later
// while it is not, and re-sends whatever the cache holds every 60 seconds.
//
// Ownership and threads: shared() lives for the process (made and wired by
// the composition root); create() makes private instances for tests and
// tools. Enqueue work runs on the serial
// queue addDelQueue_ ("com.addDel.www"). The send loop never blocks: when
// all three call slots are taken, envelopes wait in the queue, and each
// reply (on a gRPC callback thread) frees its slot and runs the loop again
// right there. No thread ever waits for a slot, so the fourth request can
// neither deadlock a callback thread nor be lost. Acknowledged rows are
// deleted in batches, one transaction each, on deleteQueue_; an envelope's
// success block runs there after its row is gone. The 60-second timer runs
// on the main queue. Replies hold the manager weakly. An envelope's blocks
// are the ones given when it was enqueued; re-sends carry none.
//
// A request id that is queued or in flight is not queued again: the timer's
// upload of the cache then does not send a row a second time while its
// first send is still under way.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <string>
#include <unordered_set>
#include <vector>

#include "EventRoot.pb.h"
#include "backend/EventdStub.h"
#include "delivery/EventRequestBuilder.h"
#include "delivery/OVRequest.h"
#include "support/SerialQueue.h"
#include "velquin/Error.h"
#include "velquin/MainQueue.h"

namespace velquin {
class OVRequestCache;

class OVRequestManager : public std::enable_shared_from_this<OVRequestManager> {
 public:
  using SuccessBlock = std::function<void(const protocol::EventResponse&)>;
  using FailureBlock = std::function<void(const Error&)>;

  struct Options {
    std::string host;              // Port_push: host:port of the event service
    std::string rootCertificates;  // extra PEM roots for the channel
    OVRequestCache* cache = nullptr;
    std::function<bool()> isReachable;  // the device information's reachability test
    // False while there is no app key to send with: envelopes then stay in
    // the cache until the next upload instead of being refused and dropped.
    std::function<bool()> hasCredentials;
    std::function<DeviceFacts()> deviceFacts;
    std::function<EventIdentity()> identity;
    EventdStub::HeaderSource headers;  // app key and tag, read per call
    std::function<bool()> logEnabled;  // the delivery log switch
    std::chrono::milliseconds callTimeout{60000};
    std::chrono::milliseconds timerInterval{60000};
  };

  static OVRequestManager& shared();
  static std::shared_ptr<OVRequestManager> sharedPointer();
  static std::shared_ptr<OVRequestManager> create(Options options);
  ~OVRequestManager();

  // Queues the envelope (unless this very envelope is queued already) and
  // runs the send loop, asynchronously on the manager's queue. Without
  // credentials yet it does nothing: the cached row waits for the upload
  // that analytics start runs once the app key is known.
  void enqueueRequest(std::shared_ptr<OVRequest> request, SuccessBlock success = nullptr,
                      FailureBlock failure = nullptr);
  // (Re)starts the repeating timer that uploads the cache.
  void startTimer();
  void stopTimer();
  // Enqueues a copy of every cached row, and refreshes the device facts
  // that events carry.
  void uploadCacheData(SuccessBlock success = nullptr, FailureBlock failure = nullptr);
  void uploadCacheDataObjc() { uploadCacheData(); }

  const std::string& Port_push() const { return options_.host; }
  // Calls in flight and envelopes waiting (for tools and tests).
  int inFlight() const { return inFlight_.load(); }
  size_t queued() const;
  // Waits until the queue has taken in everything enqueued so far.
  void drainQueue();

  static constexpr int kMaxInFlight = 3;

 private:
  struct Pending {
    std::shared_ptr<OVRequest> request;
    SuccessBlock success;
    FailureBlock failure;
  };

  explicit OVRequestManager(Options options);
  // The send loop: sends waiting envelopes while a call slot is free. Runs
  // on addDelQueue_.
  void sendPending();
  void send(Pending pending);
  void handleReply(const Pending& pending, const protocol::EventRequest& eventRequest,
                   std::optional<protocol::EventResponse> reply, std::optional<Error> error);
  // Deletes the acknowledged rows collected so far, then runs their blocks.
  void deleteAcknowledged();
  void forget(const std::string& requestId);
  DeviceFacts currentFacts();
  bool logEnabled() const { return options_.logEnabled && options_.logEnabled(); }

  const Options options_;
  std::unique_ptr<EventdStub> stub_;  // built once; safe to share between threads

  mutable std::mutex queueMutex_;
  std::deque<Pending> requestQueue_;           // guarded by queueMutex_
  std::unordered_set<std::string> underWay_;   // guarded by queueMutex_: ids queued or in flight
  std::counting_semaphore<kMaxInFlight> semaphore_{kMaxInFlight};  // a permit per call in flight
  std::atomic<int> inFlight_{0};
  std::atomic<bool> stopping_{false};

  std::mutex timerMutex_;
  std::optional<MainQueue::TimerId> timer_;  // guarded by timerMutex_

  std::mutex factsMutex_;
  std::optional<DeviceFacts> facts_;  // guarded by factsMutex_; refreshed by uploadCacheData

  struct Acknowledged {
    std::string requestId;
    std::function<void()> after;  // log line and success block
  };
  std::mutex deleteMutex_;
  std::vector<Acknowledged> acknowledged_;  // guarded by deleteMutex_
  bool deleteScheduled_ = false;            // guarded by deleteMutex_
  support::SerialQueue deleteQueue_{"com.velquin.delivered"};

  // Last: destroyed first, so queued work finishes while the rest exists.
  support::SerialQueue addDelQueue_{"com.addDel.www"};
};

}  // namespace velquin
