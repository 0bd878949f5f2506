// The keychain over libsecret's password calls: items of the schema
// "com.velquin.Keychain" with one attribute "key", stored in the default
// collection of the Secret Service, or, inside a Flatpak sandbox, in
// libsecret's file of the application's own that the Secret portal's key
// encrypts. Only secret_password_* calls are used: they are what libsecret
// serves on both.
//
// Every call talks to the service synchronously on the calling thread, over a
// private GLib main context, and gives up after the time-out given at
// construction, so a Secret Service that never answers cannot hang the
// caller. When the service fails or stays silent, the fallback keychain (the
// 0600 file) takes the value instead; a key the service does not know is also
// looked up in the fallback, so a value saved while no Secret Service ran is
// still found.
//
// Ownership and threads: owns its fallback. Calls may come from any thread;
// one mutex serialises them.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Keychain.h"
#include "support/Mutex.h"

typedef struct _GDBusConnection GDBusConnection;

namespace velquin::platform {

class SecretKeychain final : public Keychain {
 public:
  static constexpr const char* kSchemaName = "com.velquin.Keychain";
  static constexpr const char* kAttribute = "key";

  // `fallback` may be null: then a failing service fails the call.
  explicit SecretKeychain(std::unique_ptr<Keychain> fallback,
                          std::chrono::milliseconds timeout = std::chrono::seconds(5));
  ~SecretKeychain() override;
  SecretKeychain(const SecretKeychain&) = delete;
  SecretKeychain& operator=(const SecretKeychain&) = delete;

  std::optional<std::string> load(const std::string& key) override;
  bool save(const std::string& key, const std::string& value) override;

  // True when the session bus answers within `timeout` and a program owns
  // or can be started for org.freedesktop.secrets (inside a Flatpak sandbox:
  // org.freedesktop.portal.Desktop). False at once when no
  // session bus address is known (DBUS_SESSION_BUS_ADDRESS unset and no
  // $XDG_RUNTIME_DIR/bus): no bus is ever autolaunched.
  static bool serviceAvailable(std::chrono::milliseconds timeout = std::chrono::seconds(1));

 private:
  enum class Outcome { found, missing, failed };
  Outcome lookup(const std::string& key, std::string* value) REQUIRES(mutex_);
  bool store(const std::string& key, const std::string& value) REQUIRES(mutex_);
  void warnOnce(const std::string& why) REQUIRES(mutex_);

  const std::unique_ptr<Keychain> fallback_;  // read-only pointer; the object locks itself
  const std::chrono::milliseconds timeout_;
  GDBusConnection* const bus_;  // owned reference, or null without a session bus
  support::Mutex mutex_;
  bool warned_ GUARDED_BY(mutex_) = false;
};

}  // namespace velquin::platform
