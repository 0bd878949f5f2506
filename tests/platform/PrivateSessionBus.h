// A private D-Bus session bus for one test process, optionally with
// activatable services from a folder of service files and with
// gnome-keyring's Secret Service on it. The
// process's DBUS_SESSION_BUS_ADDRESS and XDG_RUNTIME_DIR point at it from
// construction on.
//
// Ownership and threads: ends the daemons it started (by their process ids)
// when destroyed. Use from the test's thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace velquin::testing {

class PrivateSessionBus {
 public:
  explicit PrivateSessionBus(const std::filesystem::path& dir,
                             const std::filesystem::path& servicesDir = {});
  ~PrivateSessionBus();
  PrivateSessionBus(const PrivateSessionBus&) = delete;
  PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

  bool ok() const { return busPid_ > 0; }
  const std::string& error() const { return error_; }
  const std::string& address() const { return address_; }

  // Starts gnome-keyring-daemon and waits until it owns
  // org.freedesktop.secrets. A password creates and unlocks the login
  // keyring (the default collection); with an empty one there is none.
  bool startKeyring(const std::string& password = "velquin-test");

  // Waits until a connection owns `name`.
  bool nameOwned(const std::string& name, int timeoutMs);

 private:

  std::filesystem::path dir_;
  std::string address_;
  std::string error_;
  pid_t busPid_ = -1;
  pid_t keyringPid_ = -1;
};

}  // namespace velquin::testing
