// The delivery engine for events. Producers hand an envelope to submit(),
// which writes it to the request cache and queues it; the manager sends it
// with FireEvent, at most three calls in flight, records the row as
// acknowledged on any reply, and sweeps the cache again every 60 seconds.
//
// Replies: an acknowledged row is recorded with one write(2) to the
// acknowledgement log (AckLog, a small file beside the database, not
// synced: it survives the process being killed). The reply takes no
// database lock, so a caller's insert never waits behind it, and its slot
// is free at once. The log is folded, its rows deleted in one transaction,
// on the manager's queue after every 32 acknowledgements of this process,
// when delivery falls idle, at each timer pass and at start-up (a fold of
// what an earlier process left). A row recorded but not yet deleted stays claimed (and leased) by
// its process until that process's next fold; a row read from the cache
// whose acknowledgement is in the log (left by a process that died) is not
// sent. So a kill re-sends at most the three calls in flight; a damaged log
// record is ignored, which can only make its row be sent again, never lose
// one. When the log cannot be written the reply deletes its row itself, as
// a fallback (its slot then stays taken until the delete has committed).
//
// Requests: the EventRequest of a row is built once for this process (from
// the producer's parameters, or parsed once from a cached row's JSON) and
// its retries send the same one.
//
// Memory and CPU flat in the cache's size: rows are read in pages of 16,
// only when fewer than 4 envelopes wait, from a cursor that sweeps the
// table in pkid order; submit() queues an event at once only while the
// queue is short and no sweep has rows left, otherwise the sweep reaches
// it. While the device is unreachable a timer pass reads nothing. After a
// call failed with no answer from the backend, no page is read ahead and a
// timer pass sends one row as a probe; its reply starts the sweep again.
// The cache's cap is applied by its inserts (OVRequestCache); the rows it
// dropped are logged once per timer pass.
//
// Failures: while the device is reachable any failure lowers the envelope's
// retry count and queues it again at once. Once the count has run out, a
// failure the backend answered (a status it sent) deletes the row; a
// failure with no answer from the backend (UNAVAILABLE, DEADLINE_EXCEEDED,
// CANCELLED by the SDK itself) keeps the row for the timer and the next
// start, so a backend that is down or slow never loses events. While the
// device is unreachable nothing changes and the row waits. A fold that
// cannot delete (a full disk) keeps its rows claimed, so this process never
// sends them again (and says so once); their records stay in the log, so
// the next process does not send them either.
//
// Duplicates: a row is known by its pkid (unique across processes sharing
// the file, unlike the request id). Its identity is claimed while the
// manager is on the database queue (at insert in submit(), at the read of
// a page) and released only once its row is gone, so a row that got a
// reply is never sent again by this process, whatever overlaps. A claim
// also takes the row's lease (RowLeases), so a process sharing the file
// skips rows another live process is sending or has acknowledged.
//
// Exit: a normal exit (return from main, exit()) runs drainSharedAtExit():
// no new call starts and it waits at most the exit bound (default 1 s,
// setExitDrainBound(), 0 turns it off) for the replies in flight, whose
// acknowledgements are then in the log. With nothing in flight it returns
// at once. Crash paths never run it.
//
// Ownership and threads: shared() lives for the process (made and wired by
// the composition root); create() makes private instances for tests and
// tools. Enqueue work, page reads and folds run on the serial queue
// addDelQueue_ ("com.addDel.www"). The send loop never blocks: when all
// three call slots are taken, envelopes wait in the queue, and whoever
// frees a slot (a reply on a gRPC callback thread) runs the loop again
// right there. submit() queues on the caller's thread and wakes the
// manager's queue only when a slot is free. An envelope's success block
// runs on the reply's callback thread once its acknowledgement is
// recorded. The 60-second timer runs on the main queue. Replies and queued
// blocks hold the manager weakly; the last reference may go on any of these
// threads, the manager's own queues included. An envelope's blocks are the
// ones given when it was enqueued; re-sends carry none, except a success
// block given without a failure block, which waits for the acknowledgement
// of any attempt.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "EventRoot.pb.h"
#include "backend/EventdStub.h"
#include "delivery/AckLog.h"
#include "delivery/EventRequestBuilder.h"
#include "delivery/OVRequest.h"
#include "delivery/RowLeases.h"
#include "support/Mutex.h"
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

  // Marks the calling thread as a producer about to submit(). It matters
  // only while the acknowledgement log cannot be written and replies delete
  // their rows themselves: while a producer is inside, they leave those
  // deletes to its insert's commit instead of holding it up.
  class CallerScope {
   public:
    explicit CallerScope(OVRequestManager& manager) : manager_(manager) {
      ++manager_.callersInside_;
    }
    ~CallerScope() { manager_.leaveCaller(); }
    CallerScope(const CallerScope&) = delete;
    CallerScope& operator=(const CallerScope&) = delete;

   private:
    OVRequestManager& manager_;
  };

  // Writes the envelope to the cache (setting its rowId) and queues it.
  // True when the row was written; false when the cache is unavailable or
  // the write failed: the event is then still sent, but without
  // durability (it is lost if this process ends first). Without
  // credentials yet it is only written: the row waits for the upload that
  // analytics start runs once the app key is known.
  bool submit(std::shared_ptr<OVRequest> request, SuccessBlock success = nullptr,
              FailureBlock failure = nullptr);
  // Queues an envelope its caller cached itself (unless the same row or
  // request id is queued or in flight already) and runs the send loop,
  // asynchronously on the manager's queue. Without credentials yet it does
  // nothing: the cached row waits for the next upload.
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
  // Calls in flight (until their rows' deletes have committed) and
  // envelopes waiting (for tools and tests).
  int inFlight() const { return inFlight_.load(); }
  size_t queued() const;
  // Waits until the queue has taken in everything enqueued so far.
  void drainQueue();

  // Folds the acknowledgement log into one delete now (the timer and
  // start-up do it too); for tools and tests.
  void foldAcknowledgements();
  // Waits at most `bound` for the replies of the calls in flight, starting
  // no new call meanwhile: their acknowledgements are then recorded and the
  // next start sends none of them again. For a normal exit only.
  void drainInFlight(std::chrono::milliseconds bound);
  // The bound the exit handler gives drainInFlight(); 0 turns it off.
  static void setExitDrainBound(std::chrono::milliseconds bound);
  static std::chrono::milliseconds exitDrainBound();
  // The exit handler: drains the shared manager, if one was made.
  static void drainSharedAtExit();

  static constexpr int kMaxInFlight = 3;
  // Acknowledgements recorded before their rows are deleted in one batch.
  static constexpr std::size_t kFoldAcks = 32;
  // Rows read from the cache at a time, and the queue length below which
  // the next page is read: the envelopes in memory stay this few, however
  // many rows are cached.
  static constexpr int kPageRows = 16;
  static constexpr std::size_t kLowWater = 4;

 private:
  struct Pending {
    std::shared_ptr<OVRequest> request;
    SuccessBlock success;
    FailureBlock failure;
    // The request as built for its first send, reused by its retries.
    std::shared_ptr<const protocol::EventRequest> built;
  };
  // A row acknowledged in the log; its claim is dropped after a fold.
  struct Recorded {
    std::string key;
    std::int64_t rowId = 0;
  };
  struct Acknowledged {
    std::string key;                    // claim key
    std::optional<std::int64_t> rowId;  // none: delete by request id
    std::string requestId;
    std::function<void()> after;  // log line and success block
  };

  explicit OVRequestManager(Options options);
  // The key a row is claimed under: its pkid, or its request id for an
  // envelope that was never cached; empty when it has neither.
  static std::string claimKey(const OVRequest& request);
  bool hasCredentials() const { return !options_.hasCredentials || options_.hasCredentials(); }
  // Queues envelopes whose claims are held already, in order, and makes
  // sure the send loop runs when a slot is free.
  void enqueueClaimed(std::vector<Pending> pendings);
  // Reads the next page of cached rows when a sweep has rows left and the
  // queue runs low (on the manager's queue, or here with `now`).
  void maybeReadPage(bool now = false);
  // Claims and queues up to `limit` unclaimed rows from the sweep's cursor
  // on; a probe reads from the first row and leaves the sweep alone.
  void readPage(int limit, bool probe);
  // The send loop: sends waiting envelopes while a call slot is free.
  void sendPending();
  void send(Pending pending);
  // `eventRequest`: the request as sent, kept only while the log is on.
  void handleReply(const Pending& pending, const protocol::EventRequest* eventRequest,
                   std::optional<protocol::EventResponse> reply, std::optional<Error> error);
  // Deletes the acknowledged rows collected so far, frees their slots,
  // then runs their blocks.
  void deleteAcknowledged();
  // After a batch's delete: drops the claims (or keeps them when the delete
  // failed), frees the slots, runs the blocks.
  void settleDeleted(std::vector<Acknowledged>& batch, bool deleted);
  // Takes the acknowledged envelopes that have a cached row.
  std::vector<Acknowledged> takeAcknowledgedRows();
  static std::vector<std::int64_t> rowsOf(const std::vector<Acknowledged>& batch);
  // Hands acknowledged envelopes nobody is deleting to the manager's queue.
  void scheduleDeletes();
  // The end of a caller's scope: lowered first, then checked, so a reply
  // either sees no caller inside or has its row seen here.
  void leaveCaller() {
    --callersInside_;
    scheduleDeletes();
  }
  // Deletes the row of an envelope given up; true when it is gone.
  bool deleteRow(const OVRequest& request);
  // Drops the claim and the lease of a row.
  void release(const OVRequest& request);
  // Takes the row's lease after its claim; false when another process holds
  // it (the claim is then dropped again). Called with queueMutex_ held.
  bool leaseClaimedLocked(const OVRequest& request, const std::string& key)
      REQUIRES(queueMutex_);
  void freeSlots(int count);
  // Records the acknowledgement of a cached row in the log; false when it
  // could not (the caller then deletes the row itself).
  bool recordAcknowledged(const std::string& key, std::int64_t rowId,
                          const std::string& requestId);
  void scheduleFold();
  void reportFailedDelete(std::size_t rows);
  std::shared_ptr<const DeviceFacts> currentFacts();
  bool logEnabled() const { return options_.logEnabled && options_.logEnabled(); }

  const Options options_;
  std::unique_ptr<EventdStub> stub_;   // built once; safe to share between threads
  std::unique_ptr<RowLeases> leases_;  // built once; null without a cache; thread-safe
  std::unique_ptr<AckLog> acks_;       // built once; null without a cache; thread-safe

  mutable support::Mutex queueMutex_;
  std::deque<Pending> requestQueue_ GUARDED_BY(queueMutex_);
  // Claim keys of rows queued, in flight, acknowledged but not yet deleted,
  // or whose delete failed (never sent again by this process).
  std::unordered_set<std::string> underWay_ GUARDED_BY(queueMutex_);
  // Call slots taken: calls in flight, and (while the acknowledgement log
  // cannot be written) calls awaiting their row's delete. Raised only by
  // sendPending() under queueMutex_, lowered by freeSlots().
  std::atomic<int> inFlight_{0};
  std::atomic<bool> stopping_{false};
  std::atomic<bool> deleteFailureReported_{false};
  // The last call failed with no answer from the backend: rows are no
  // longer read ahead, and a timer pass sends one row to probe it.
  std::atomic<bool> silent_{false};
  // The sweep through the cache: rows above the cursor may be unread.
  bool backlog_ GUARDED_BY(queueMutex_) = false;
  std::int64_t sweepCursor_ GUARDED_BY(queueMutex_) = 0;
  bool pageScheduled_ GUARDED_BY(queueMutex_) = false;
  SuccessBlock sweepSuccess_ GUARDED_BY(queueMutex_);  // the blocks of the last upload
  FailureBlock sweepFailure_ GUARDED_BY(queueMutex_);

  support::Mutex timerMutex_;
  std::optional<MainQueue::TimerId> timer_ GUARDED_BY(timerMutex_);

  support::Mutex factsMutex_;
  std::shared_ptr<const DeviceFacts> facts_ GUARDED_BY(factsMutex_);  // refreshed by uploadCacheData

  support::Mutex foldMutex_;  // one fold at a time
  support::Mutex recordedMutex_;
  // Rows this process recorded in the log since its last fold began.
  std::vector<Recorded> recorded_ GUARDED_BY(recordedMutex_);
  bool foldScheduled_ GUARDED_BY(recordedMutex_) = false;

  // Guard no data: drainInFlight() waits on them for inFlight_ to reach 0.
  std::mutex drainMutex_;
  std::condition_variable drainChanged_;

  support::Mutex deleteMutex_;
  // Acknowledged envelopes left by replies to a caller, or to the manager's
  // queue once the caller has gone.
  std::vector<Acknowledged> acknowledged_ GUARDED_BY(deleteMutex_);
  bool deleteScheduled_ GUARDED_BY(deleteMutex_) = false;  // deleteAcknowledged() will run
  // Callers inside a CallerScope or submit(); while there is one, replies
  // leave their deletes to the next submit()'s commit.
  std::atomic<int> callersInside_{0};

  // Last: destroyed first, so queued work finishes while the rest exists.
  support::SerialQueue addDelQueue_{"com.addDel.www"};
};

}  // namespace velquin
