#include "Call.h"

namespace velquin::glib {

std::shared_ptr<Call> Call::start(gpointer source, GCancellable* cancellable,
                                  GAsyncReadyCallback callback, gpointer userData,
                                  gpointer sourceTag) {
  GTask* task = g_task_new(source, cancellable, callback, userData);
  g_task_set_source_tag(task, sourceTag);
  if (g_task_return_error_if_cancelled(task)) {
    g_object_unref(task);
    return nullptr;
  }
  std::shared_ptr<Call> call(new Call());
  call->task_ = task;
  if (cancellable != nullptr) {
    call->cancellable_ = G_CANCELLABLE(g_object_ref(cancellable));
    // The handler holds the call weakly: a call that returned is gone.
    auto* weak = new std::weak_ptr<Call>(call);
    call->handler_ = g_cancellable_connect(
        cancellable, G_CALLBACK(+[](GCancellable*, gpointer data) {
          if (auto self = static_cast<std::weak_ptr<Call>*>(data)->lock()) {
            // Never disconnect from inside the handler: claim by hand.
            if (!self->claimed_.exchange(true)) {
              g_task_return_new_error(self->task_, G_IO_ERROR, G_IO_ERROR_CANCELLED,
                                      "Operation was cancelled");
            }
          }
        }),
        weak, +[](gpointer data) { delete static_cast<std::weak_ptr<Call>*>(data); });
  }
  return call;
}

Call::~Call() {
  // Not disconnected here: the last reference may go inside the handler.
  if (cancellable_ != nullptr) g_object_unref(cancellable_);
  g_object_unref(task_);
}

bool Call::claim() {
  if (claimed_.exchange(true)) return false;
  // The SDK's side won; it never runs inside the cancellable's handler.
  if (handler_ != 0) g_cancellable_disconnect(cancellable_, handler_);
  return true;
}

void Call::returnPointer(gpointer result, GDestroyNotify destroy) {
  if (claim()) {
    g_task_return_pointer(task_, result, destroy);
  } else if (result != nullptr && destroy != nullptr) {
    destroy(result);
  }
}

void Call::returnBoolean(gboolean result) {
  if (claim()) g_task_return_boolean(task_, result);
}

void Call::returnDouble(double result) {
  if (!claim()) return;
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_DOUBLE);
  g_value_set_double(&value, result);
  g_task_return_value(task_, &value);
  g_value_unset(&value);
}

void Call::returnError(GError* error) {
  if (claim()) {
    g_task_return_error(task_, error);
  } else {
    g_error_free(error);
  }
}

}  // namespace velquin::glib
