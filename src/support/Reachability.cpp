#include "support/Reachability.h"

#include <gio/gio.h>
#include <netinet/in.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/OVUtils.h"
#include "support/Utf8.h"
#include "velquin/MainQueue.h"
#include "velquin/NotificationCenter.h"

namespace velquin {
namespace {

namespace rf = reachability_flags;

// The process-wide GNetworkMonitor, created and listened to on the main
// queue so that its signals arrive on the main queue's context. The internet
// flags are recomputed there on every signal and published through an atomic,
// so readers on other threads never touch the monitor.
//
// Ownership and threads: one instance for the process (shared()), never
// destroyed. start() runs on the main queue only; everything else any thread.
class MonitorHub {
 public:
  static MonitorHub& shared() {
    static MonitorHub* hub = new MonitorHub();  // lives for the process
    return *hub;
  }

  // Creates the monitor on the main queue if that has not happened yet and
  // waits (off the main queue, bounded) until it has. False when there is no
  // monitor.
  bool ensureStarted() {
    if (started_.load(std::memory_order_acquire)) return monitor_ != nullptr;
    auto& queue = MainQueue::shared();
    if (queue.isCurrent()) {
      start();
    } else {
      queue.async([this] { start(); });
      std::unique_lock lock(mutex_);
      startedCv_.wait_for(lock, Reachability::reachTimeout(),
                          [this] { return started_.load(std::memory_order_acquire); });
    }
    return started_.load(std::memory_order_acquire) && monitor_ != nullptr;
  }

  // The monitor, or null when it is absent or not started.
  GNetworkMonitor* monitor() const {
    return started_.load(std::memory_order_acquire) ? monitor_ : nullptr;
  }

  ReachabilityFlags internetFlags() const { return flags_.load(std::memory_order_acquire); }

  using Listener = std::function<void()>;
  std::uint64_t addListener(Listener listener) {
    std::lock_guard lock(mutex_);
    auto id = nextListener_++;
    listeners_.emplace(id, std::move(listener));
    return id;
  }
  void removeListener(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    listeners_.erase(id);
  }

 private:
  MonitorHub() = default;

  void start() {
    if (started_.load(std::memory_order_acquire)) return;
    keepHostAliveWithoutBus();
    // The main queue's context is the thread-default one here, so the
    // monitor created by this first call delivers its signals to it.
    GNetworkMonitor* monitor = g_network_monitor_get_default();
    if (monitor) {
      g_signal_connect(monitor, "network-changed", G_CALLBACK(+[](GNetworkMonitor*, gboolean, gpointer data) {
                         static_cast<MonitorHub*>(data)->changed();
                       }),
                       this);
      for (const char* signal : {"notify::network-metered", "notify::connectivity",
                                 "notify::network-available"}) {
        g_signal_connect(monitor, signal, G_CALLBACK(+[](GObject*, GParamSpec*, gpointer data) {
                           static_cast<MonitorHub*>(data)->changed();
                         }),
                         this);
      }
      monitor_ = monitor;
      flags_.store(readFlags(), std::memory_order_release);
    }
    {
      std::lock_guard lock(mutex_);
      started_.store(true, std::memory_order_release);
    }
    startedCv_.notify_all();
  }

  // Inside a Flatpak sandbox (or wherever GLib is told to use the portals)
  // the monitor asks the network portal over the shared session bus
  // connection, which by default ends the process with SIGTERM when the bus
  // goes away. A library must not do that to its host, so that connection is
  // told not to before the monitor opens it, and kept open for the process
  // (GLib shares it only while someone holds it).
  static void keepHostAliveWithoutBus() {
    const char* usePortal = std::getenv("GTK_USE_PORTAL");
    std::error_code ec;
    bool portal = (usePortal && std::string(usePortal) == "1") ||
                  std::filesystem::exists("/.flatpak-info", ec);
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!portal || !address || !*address) return;  // never autolaunch a bus
    if (GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr)) {
      g_dbus_connection_set_exit_on_close(bus, FALSE);  // the reference is kept
    }
  }

  // On the main queue. A monitor that cannot tell (the network portal
  // failing) reports no network: the flags read unreachable.
  ReachabilityFlags readFlags() const {
    ReachabilityFlags flags = 0;
    if (g_network_monitor_get_network_available(monitor_)) flags |= rf::kReachable;
    if (g_network_monitor_get_network_metered(monitor_)) flags |= rf::kIsWWAN;
    auto connectivity = g_network_monitor_get_connectivity(monitor_);
    if (connectivity == G_NETWORK_CONNECTIVITY_LIMITED ||
        connectivity == G_NETWORK_CONNECTIVITY_PORTAL) {
      flags |= rf::kConnectionRequired;
    }
    return flags;
  }

  // On the main queue, from the monitor's signals.
  void changed() {
    flags_.store(readFlags(), std::memory_order_release);
    std::vector<Listener> listeners;
    {
      std::lock_guard lock(mutex_);
      for (const auto& [id, listener] : listeners_) listeners.push_back(listener);
    }
    for (const auto& listener : listeners) listener();
  }

  GNetworkMonitor* monitor_ = nullptr;  // written once on the main queue before started_
  std::atomic<bool> started_{false};    // set under mutex_ (for startedCv_), read freely
  std::atomic<ReachabilityFlags> flags_{0};  // written on the main queue
  std::mutex mutex_;
  std::condition_variable startedCv_;               // with mutex_
  std::map<std::uint64_t, Listener> listeners_;     // guarded by mutex_
  std::uint64_t nextListener_ = 1;                  // guarded by mutex_
};

// A flag source's one listener on the hub.
class HubListening : public ReachabilityFlagSource {
 public:
  ~HubListening() override { unwatch(); }

  void unwatch() override {
    std::lock_guard lock(mutex_);
    if (listener_) MonitorHub::shared().removeListener(listener_);
    listener_ = 0;
  }

 protected:
  // Replaces the listener; false when the network monitor cannot start.
  bool listen(std::function<void()> onChange) {
    if (!MonitorHub::shared().ensureStarted()) return false;
    std::lock_guard lock(mutex_);
    if (listener_) MonitorHub::shared().removeListener(listener_);
    listener_ = MonitorHub::shared().addListener(std::move(onChange));
    return true;
  }

 private:
  std::mutex mutex_;
  std::uint64_t listener_ = 0;  // guarded by mutex_
};

// Flags of the internet connection: the hub's flags as they stand.
class InternetSource final : public HubListening {
 public:

  std::optional<ReachabilityFlags> flags() override {
    if (!MonitorHub::shared().ensureStarted()) return std::nullopt;
    return MonitorHub::shared().internetFlags();
  }

  bool watch(std::function<void()> changed) override { return listen(std::move(changed)); }
};

// Flags of a host name or address: the internet flags with the reachable bit
// answered by g_network_monitor_can_reach_async, which runs on the main queue
// (the monitor is not thread-safe) and is cancelled after reachTimeout().
class TargetSource final : public HubListening {
 public:
  explicit TargetSource(GSocketConnectable* target) : state_(std::make_shared<State>(target)) {}
  ~TargetSource() override { unwatch(); }  // stop listening before state_ goes

  std::optional<ReachabilityFlags> flags() override {
    auto& hub = MonitorHub::shared();
    if (!hub.ensureStarted()) return std::nullopt;
    if (MainQueue::shared().isCurrent()) {
      // Waiting here would stall the queue the check runs on: answer with
      // the last result and refresh it for the next caller (one refresh at
      // a time).
      bool refresh = false;
      {
        std::lock_guard lock(state_->mutex);
        refresh = !std::exchange(state_->refreshing, true);
      }
      if (refresh) check(state_, nullptr);
      std::lock_guard lock(state_->mutex);
      return state_->last ? *state_->last : hub.internetFlags();
    }
    auto done = std::make_shared<Done>();
    MainQueue::shared().async([state = state_, done] { check(state, done); });
    std::unique_lock lock(done->mutex);
    if (!done->cv.wait_for(lock, Reachability::reachTimeout() + std::chrono::milliseconds(500),
                           [&] { return done->finished; })) {
      return std::nullopt;
    }
    return done->flags;
  }

  bool watch(std::function<void()> changed) override {
    // A network change re-checks the target and reports once the answer is in.
    return listen([state = state_, changed = std::move(changed)] {
      auto done = std::make_shared<Done>();
      done->then = changed;
      check(state, done);
    });
  }

 private:
  struct State {
    explicit State(GSocketConnectable* t) : target(t) {}
    ~State() { g_object_unref(target); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    GSocketConnectable* const target;  // owned; immutable
    std::mutex mutex;
    std::optional<ReachabilityFlags> last;  // guarded by mutex
    bool refreshing = false;                // guarded by mutex; a refresh without a waiter runs
  };
  struct Done {
    std::mutex mutex;
    std::condition_variable cv;
    bool finished = false;       // guarded by mutex
    ReachabilityFlags flags = 0;  // guarded by mutex
    std::function<void()> then;  // set before the check starts; runs on the main queue
  };
  struct Call {
    std::shared_ptr<State> state;
    std::shared_ptr<Done> done;
    ReachabilityFlags internet;
    GCancellable* cancellable;
    GSource* timeout;
  };

  // On the main queue: starts one check; finishes `done` (may be null) when
  // the monitor answers or the time-out cancels the check.
  static void check(const std::shared_ptr<State>& state, const std::shared_ptr<Done>& done) {
    auto& hub = MonitorHub::shared();
    GNetworkMonitor* monitor = hub.monitor();
    ReachabilityFlags internet = hub.internetFlags();
    if (!monitor || !(internet & rf::kReachable)) {
      finish(state, done, internet);
      return;
    }
    auto* call = new Call{state, done, internet, g_cancellable_new(), nullptr};
    call->timeout = g_timeout_source_new(static_cast<guint>(Reachability::reachTimeout().count()));
    g_source_set_callback(
        call->timeout,
        [](gpointer data) -> gboolean {
          g_cancellable_cancel(static_cast<GCancellable*>(data));
          return G_SOURCE_REMOVE;
        },
        g_object_ref(call->cancellable), g_object_unref);
    g_source_attach(call->timeout, MainQueue::shared().context());
    g_network_monitor_can_reach_async(
        monitor, state->target, call->cancellable,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          auto* c = static_cast<Call*>(data);
          GError* error = nullptr;
          bool reachable = g_network_monitor_can_reach_finish(G_NETWORK_MONITOR(source), result,
                                                              &error) != FALSE;
          if (error) g_error_free(error);
          g_source_destroy(c->timeout);
          g_source_unref(c->timeout);
          g_object_unref(c->cancellable);
          ReachabilityFlags flags = c->internet & ~rf::kReachable;
          if (reachable) flags |= rf::kReachable;
          finish(c->state, c->done, flags);
          delete c;
        },
        call);
  }

  static void finish(const std::shared_ptr<State>& state, const std::shared_ptr<Done>& done,
                     ReachabilityFlags flags) {
    {
      std::lock_guard lock(state->mutex);
      state->last = flags;
      if (!done) state->refreshing = false;
    }
    if (!done) return;
    {
      std::lock_guard lock(done->mutex);
      done->finished = true;
      done->flags = flags;
    }
    done->cv.notify_all();
    if (done->then) done->then();
  }

  const std::shared_ptr<State> state_;  // shared with checks in flight
};

bool isZeroIPv4(const sockaddr* address) {
  if (address->sa_family != AF_INET) return false;
  sockaddr_in in{};
  std::memcpy(&in, address, sizeof in);
  return in.sin_addr.s_addr == htonl(INADDR_ANY);
}

}  // namespace

std::unique_ptr<ReachabilityFlagSource> makeNetworkMonitorSource() {
  return std::make_unique<InternetSource>();
}

std::unique_ptr<ReachabilityFlagSource> makeNetworkMonitorSourceForHost(const std::string& name) {
  if (name.empty() || !support::isValidUtf8(name) ||
      name.find('\0') != std::string::npos) {
    return nullptr;
  }
  GSocketConnectable* target = g_network_address_new(name.c_str(), 0);
  if (!target) return nullptr;
  return std::make_unique<TargetSource>(target);
}

std::unique_ptr<ReachabilityFlagSource> makeNetworkMonitorSourceForAddress(const sockaddr* address) {
  if (!address) return nullptr;
  gsize length = 0;
  if (address->sa_family == AF_INET) {
    length = sizeof(sockaddr_in);
  } else if (address->sa_family == AF_INET6) {
    length = sizeof(sockaddr_in6);
  } else {
    return nullptr;
  }
  if (isZeroIPv4(address)) return makeNetworkMonitorSource();
  GSocketAddress* socketAddress =
      g_socket_address_new_from_native(const_cast<sockaddr*>(address), length);
  if (!socketAddress) return nullptr;
  return std::make_unique<TargetSource>(G_SOCKET_CONNECTABLE(socketAddress));
}

Reachability::Reachability(std::unique_ptr<ReachabilityFlagSource> source)
    : source_(std::move(source)) {}

Reachability::~Reachability() { stopNotifier(); }

std::shared_ptr<Reachability> Reachability::reachabilityWithSource(
    std::unique_ptr<ReachabilityFlagSource> source) {
  if (!source) return nullptr;
  return std::make_shared<Reachability>(std::move(source));
}

std::shared_ptr<Reachability> Reachability::reachabilityForInternetConnection() {
  return reachabilityWithSource(makeNetworkMonitorSource());
}

std::shared_ptr<Reachability> Reachability::reachabilityWithHostName(const std::string& name) {
  return reachabilityWithSource(makeNetworkMonitorSourceForHost(name));
}

std::shared_ptr<Reachability> Reachability::reachabilityWithAddress(const sockaddr* address) {
  return reachabilityWithSource(makeNetworkMonitorSourceForAddress(address));
}

bool Reachability::startNotifier() {
  std::lock_guard lock(mutex_);
  std::weak_ptr<Reachability> weak = weak_from_this();
  auto post = [weak] {
    // The notification always goes out on the main queue, whatever thread
    // the source reported on.
    auto deliver = [weak] {
      if (auto self = weak.lock()) {
        NotificationCenter::defaultCenter().post(kNetworkReachabilityChangedNotification,
                                                 std::any(self));
      }
    };
    if (MainQueue::shared().isCurrent()) {
      deliver();
    } else {
      MainQueue::shared().async(deliver);
    }
  };
  notifying_ = source_->watch(post);
  return notifying_;
}

void Reachability::stopNotifier() {
  std::lock_guard lock(mutex_);
  if (!notifying_) return;
  source_->unwatch();
  notifying_ = false;
}

std::optional<ReachabilityFlags> Reachability::flags() { return source_->flags(); }

bool Reachability::connectionRequired() {
  auto current = flags();
  return current && (*current & rf::kConnectionRequired);
}

NetworkStatus Reachability::currentReachabilityStatus() {
  auto current = flags();
  if (!current) return NotReachable;
  return networkStatusForFlags(*current);
}

NetworkStatus Reachability::networkStatusForFlags(ReachabilityFlags flags) {
  auto bit = [flags](ReachabilityFlags mask, char set) { return (flags & mask) ? set : '-'; };
  char line[96];
  std::snprintf(line, sizeof line, "Reachability Flag Status: %c%c %c%c%c%c%c%c%c %s",
                bit(rf::kIsWWAN, 'W'), bit(rf::kReachable, 'R'),
                bit(rf::kTransientConnection, 't'), bit(rf::kConnectionRequired, 'c'),
                bit(rf::kConnectionOnTraffic, 'C'), bit(rf::kInterventionRequired, 'i'),
                bit(rf::kConnectionOnDemand, 'D'), bit(rf::kIsLocalAddress, 'l'),
                bit(rf::kIsDirect, 'd'), "networkStatusForFlags");
  log(line);  // printLine ends the line

  if (!(flags & rf::kReachable)) return NotReachable;
  if (flags & rf::kIsWWAN) return ReachableViaWWAN;
  if ((flags & rf::kConnectionRequired) &&
      ((flags & rf::kInterventionRequired) ||
       !(flags & (rf::kConnectionOnTraffic | rf::kConnectionOnDemand)))) {
    return NotReachable;
  }
  return ReachableViaWiFi;
}

}  // namespace velquin
