// One asynchronous call of the C API: a GTask that returns exactly once, on
// the thread-default main context of the thread that started the call.
//
// The SDK's completion and the call's GCancellable race to claim the task;
// the first one returns it, the other does nothing. A completion slot of the
// SDK that drops a waiting completion when a later call replaces it is
// mapped by the caller onto supersede(), so that the replaced task still
// returns.
//
// Threads: every member may be called from any thread.
#pragma once

#include <gio/gio.h>

#include <atomic>
#include <memory>

namespace velquin::glib {

class Call : public std::enable_shared_from_this<Call> {
 public:
  // Null when the cancellable is already cancelled: the task then returned
  // G_IO_ERROR_CANCELLED and the SDK must not be asked.
  static std::shared_ptr<Call> start(gpointer source, GCancellable* cancellable,
                                     GAsyncReadyCallback callback, gpointer userData,
                                     gpointer sourceTag);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // Each returns the task when this call still owns it; otherwise it drops
  // what it was given.
  void returnPointer(gpointer result, GDestroyNotify destroy);
  void returnBoolean(gboolean result);
  void returnDouble(double result);
  void returnError(GError* error);  // takes the error

 private:
  Call() = default;
  // Whether the caller won the task; disconnects the cancellable.
  bool claim();

  GTask* task_ = nullptr;                 // owned until it returned
  GCancellable* cancellable_ = nullptr;   // a reference, or null
  gulong handler_ = 0;                    // written before the SDK is asked, then read only
  std::atomic<bool> claimed_{false};
};

using CallPtr = std::shared_ptr<Call>;

}  // namespace velquin::glib
