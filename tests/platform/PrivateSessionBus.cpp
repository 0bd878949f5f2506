#include "PrivateSessionBus.h"

#include <gio/gio.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>
#include <vector>

namespace velquin::testing {
namespace {

pid_t spawn(std::vector<std::string> args, int* stdinFd, std::string* error) {
  std::vector<gchar*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  GPid pid = 0;
  GError* spawnError = nullptr;
  if (!g_spawn_async_with_pipes(nullptr, argv.data(), nullptr,
                                static_cast<GSpawnFlags>(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_SEARCH_PATH),
                                nullptr, nullptr, &pid, stdinFd, nullptr, nullptr, &spawnError)) {
    *error = spawnError->message;
    g_error_free(spawnError);
    return -1;
  }
  return pid;
}

void stop(pid_t& pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  pid = -1;
}

}  // namespace

PrivateSessionBus::PrivateSessionBus(const std::filesystem::path& dir,
                                     const std::filesystem::path& servicesDir)
    : dir_(dir) {
  std::filesystem::create_directories(dir_ / "run");
  chmod((dir_ / "run").c_str(), 0700);
  address_ = "unix:path=" + (dir_ / "run" / "bus").string();
  const auto config = dir_ / "session.conf";
  std::ofstream(config) << "<busconfig><type>session</type><listen>" << address_
                        << "</listen><auth>EXTERNAL</auth>"
                        << (servicesDir.empty() ? std::string()
                                                : "<servicedir>" + servicesDir.string() +
                                                      "</servicedir>")
                        << "<policy context=\"default\">"
                           "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
  busPid_ = spawn({"dbus-daemon", "--config-file=" + config.string(), "--nofork", "--nosyslog"},
                  nullptr, &error_);
  setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (dir_ / "run").c_str(), 1);
  if (busPid_ > 0 && !nameOwned("org.freedesktop.DBus", 5000)) {
    error_ = "dbus-daemon did not come up: " + error_;
    stop(busPid_);
  }
}

PrivateSessionBus::~PrivateSessionBus() {
  stop(keyringPid_);
  stop(busPid_);
}

bool PrivateSessionBus::startKeyring(const std::string& password) {
  if (!ok()) return false;
  // It inherits XDG_DATA_HOME (TempEnvironment's), so its keyrings stay in
  // the test's folder.
  int in = -1;
  keyringPid_ = spawn({"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"},
                      &in, &error_);
  if (keyringPid_ <= 0) return false;
  bool handed = password.empty() ||
                write(in, password.data(), password.size()) == static_cast<ssize_t>(password.size());
  close(in);
  if (!handed || !nameOwned("org.freedesktop.secrets", 5000)) {
    error_ = "gnome-keyring-daemon did not take org.freedesktop.secrets";
    stop(keyringPid_);
    return false;
  }
  return true;
}

bool PrivateSessionBus::nameOwned(const std::string& name, int timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    GError* error = nullptr;
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        address_.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    gboolean owned = FALSE;
    if (bus) {
      GVariant* reply = g_dbus_connection_call_sync(
          bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
          "NameHasOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(b)"),
          G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr);
      if (reply) g_variant_get(reply, "(b)", &owned);
      if (reply) g_variant_unref(reply);
      g_dbus_connection_close_sync(bus, nullptr, nullptr);
      g_object_unref(bus);
    } else {
      error_ = error->message;
      g_error_free(error);
    }
    if (owned) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

}  // namespace velquin::testing
