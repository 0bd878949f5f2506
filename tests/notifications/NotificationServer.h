// A desktop notification server for tests: owns org.freedesktop.Notifications
// on a given bus, records each Notify call and answers it with a new id,
// and can emit ActionInvoked as a click on a notification would.
//
// Ownership and threads: runs its own thread and GLib main context until
// destroyed. Every member may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GMainContext GMainContext;
typedef struct _GMainLoop GMainLoop;
typedef struct _GDBusMethodInvocation GDBusMethodInvocation;

namespace velquin::testing {

struct NotifyCall {
  std::uint32_t id = 0;
  std::string sender;  // unique name of the caller
  std::string appName;
  std::string summary;
  std::string body;
  std::vector<std::string> actions;
  std::map<std::string, std::string> stringHints;
};

class NotificationServer {
 public:
  // With `answer` false, Notify calls are recorded but never answered (a
  // hung server); they are answered with an error when the server stops.
  explicit NotificationServer(const std::string& busAddress, bool answer = true);
  ~NotificationServer();
  NotificationServer(const NotificationServer&) = delete;
  NotificationServer& operator=(const NotificationServer&) = delete;

  // True once the server owns its name on the bus.
  bool ok() const { return ok_; }
  std::vector<NotifyCall> calls() const;
  // Waits until `count` Notify calls were recorded.
  bool waitForCalls(std::size_t count,
                    std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
  // Emits ActionInvoked(id, action) to every listener.
  void invokeAction(std::uint32_t id, const std::string& action = "default");
  // Returns once `peer` has read everything the server sent it so far (a
  // ping over the same connection is answered after it).
  bool roundTrip(const std::string& peer);
  // True once the bus connection is gone; waitForCalls returns then too.
  bool closed() const;

  // Called by the D-Bus dispatch on the server's thread: records the call
  // and answers it, or keeps it unanswered.
  void handle(NotifyCall call, GDBusMethodInvocation* invocation);

 private:
  void run(const std::string& busAddress);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<NotifyCall> calls_;  // guarded by mutex_
  bool started_ = false;           // guarded by mutex_
  bool closed_ = false;            // guarded by mutex_
  bool ok_ = false;                // written before started_ is set
  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  const bool answer_;
  GDBusConnection* connection_ = nullptr;  // owned by the server's thread
  std::vector<GDBusMethodInvocation*> held_;  // owned by the server's thread
  std::thread thread_;
};

}  // namespace velquin::testing
