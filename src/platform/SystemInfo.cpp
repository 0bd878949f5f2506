#include "platform/SystemInfo.h"

#include <uuid/uuid.h>

#include <systemd/sd-id128.h>

#include <openssl/evp.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>
#include <gio/gio.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <vector>

#include "support/Uuid.h"
#include "velquin/Bundle.h"

namespace velquin::platform {

std::string hardwareMachine() {
  utsname name{};
  if (uname(&name) != 0) return "";
  return name.machine;
}

std::string osVersion() {
  std::ifstream in("/etc/os-release");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VERSION_ID=", 0) == 0) {
      std::string value = line.substr(11);
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      if (!value.empty()) return value;
    }
  }
  utsname name{};
  if (uname(&name) != 0) return "";
  return name.release;
}

std::string localeIdentifier() {
  const char* value = nullptr;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    value = std::getenv(variable);
    if (value && *value) break;
    value = nullptr;
  }
  std::string text = value ? value : "C";
  // "en_US.UTF-8@euro" -> "en_US"
  text = text.substr(0, text.find_first_of(".@"));
  if (text.empty() || text == "C" || text == "POSIX") return "en_US_POSIX";
  return text;
}

std::string timeZoneAbbreviation() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local.tm_zone ? local.tm_zone : "";
}

std::string timeZoneName() {
  if (const char* tz = std::getenv("TZ"); tz && *tz) {
    std::string name = tz[0] == ':' ? tz + 1 : tz;
    auto pos = name.find("zoneinfo/");
    return pos == std::string::npos ? name : name.substr(pos + 9);
  }
  std::error_code ec;
  auto target = std::filesystem::read_symlink("/etc/localtime", ec);
  if (!ec) {
    auto text = target.string();
    auto pos = text.find("zoneinfo/");
    if (pos != std::string::npos) return text.substr(pos + 9);
  }
  std::ifstream in("/etc/timezone");
  std::string name;
  if (std::getline(in, name) && !name.empty()) return name;
  return "UTC";
}

namespace {

std::string readFirstLine(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r' || line.back() == '\t')) {
    line.pop_back();
  }
  return line;
}

// Sub-folders of `dir`, sorted by name; empty when it cannot be read.
std::vector<std::filesystem::path> sortedEntries(const std::filesystem::path& dir) {
  std::vector<std::filesystem::path> entries;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    entries.push_back(it->path());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

bool isLoopbackInterface(const std::filesystem::path& dir) {
  if (dir.filename() == "lo") return true;
  std::string flags = readFirstLine(dir / "flags");  // hexadecimal, e.g. "0x1003"
  return !flags.empty() && (std::strtoul(flags.c_str(), nullptr, 16) & IFF_LOOPBACK) != 0;
}

// Walks the interfaces that are up, in getifaddrs order.
template <typename Visit>
void forEachAddress(Visit visit) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return;
  for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
    if (!entry->ifa_addr || !(entry->ifa_flags & IFF_UP)) continue;
    const int family = entry->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    char text[INET6_ADDRSTRLEN] = {};
    bool linkLocal = false;
    if (family == AF_INET) {
      sockaddr_in in{};
      std::memcpy(&in, entry->ifa_addr, sizeof in);
      inet_ntop(AF_INET, &in.sin_addr, text, sizeof text);
      linkLocal = (ntohl(in.sin_addr.s_addr) & 0xFFFF0000u) == 0xA9FE0000u;  // 169.254/16
    } else {
      sockaddr_in6 in6{};
      std::memcpy(&in6, entry->ifa_addr, sizeof in6);
      inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text);
      linkLocal = in6.sin6_addr.s6_addr[0] == 0xFE && (in6.sin6_addr.s6_addr[1] & 0xC0) == 0x80;
    }
    visit(std::string(entry->ifa_name), family, std::string(text),
          (entry->ifa_flags & IFF_LOOPBACK) != 0, linkLocal);
  }
  freeifaddrs(list);
}

std::optional<std::uint64_t> meminfoBytes(const std::string& field) {
  std::ifstream in("/proc/meminfo");
  std::string line;
  const std::string prefix = field + ":";
  while (std::getline(in, line)) {
    if (line.rfind(prefix, 0) == 0) {
      std::uint64_t kib = std::strtoull(line.c_str() + prefix.size(), nullptr, 10);
      return kib * 1024;
    }
  }
  return std::nullopt;
}

// UPower's display device: the charge (0..1) when it reports a present
// battery. Never starts UPower and waits at most half a second.
std::optional<double> upowerBatteryLevel() {
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (!bus) {
    g_clear_error(&error);
    return std::nullopt;
  }
  g_dbus_connection_set_exit_on_close(bus, FALSE);  // never end the host's process
  auto property = [bus](const char* name) -> GVariant* {
    GError* callError = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.UPower", "/org/freedesktop/UPower/devices/DisplayDevice",
        "org.freedesktop.DBus.Properties", "Get",
        g_variant_new("(ss)", "org.freedesktop.UPower.Device", name), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, 500, nullptr, &callError);
    g_clear_error(&callError);
    if (!reply) return nullptr;
    GVariant* value = nullptr;
    g_variant_get(reply, "(v)", &value);
    g_variant_unref(reply);
    return value;
  };
  std::optional<double> level;
  if (GVariant* present = property("IsPresent")) {
    bool isPresent = g_variant_is_of_type(present, G_VARIANT_TYPE_BOOLEAN) &&
                     g_variant_get_boolean(present);
    g_variant_unref(present);
    if (isPresent) {
      if (GVariant* percentage = property("Percentage")) {
        if (g_variant_is_of_type(percentage, G_VARIANT_TYPE_DOUBLE)) {
          level = std::clamp(g_variant_get_double(percentage) / 100.0, 0.0, 1.0);
        }
        g_variant_unref(percentage);
      }
    }
  }
  g_object_unref(bus);
  return level;
}

}  // namespace

std::string macAddress(const std::filesystem::path& sysClassNet) {
  for (const auto& dir : sortedEntries(sysClassNet)) {
    if (isLoopbackInterface(dir)) continue;
    std::string text = readFirstLine(dir / "address");
    std::array<unsigned, 6> octets{};
    char extra = 0;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &octets[0], &octets[1], &octets[2],
                    &octets[3], &octets[4], &octets[5], &extra) != 6) {
      continue;  // not an Ethernet-style address (tunnels, InfiniBand)
    }
    if (std::all_of(octets.begin(), octets.end(), [](unsigned o) { return o == 0; })) continue;
    char formatted[18];
    std::snprintf(formatted, sizeof formatted, "%02X:%02X:%02X:%02X:%02X:%02X", octets[0],
                  octets[1], octets[2], octets[3], octets[4], octets[5]);
    return formatted;
  }
  return "";
}

std::map<std::string, std::string> interfaceAddresses() {
  std::map<std::string, std::string> addresses;
  forEachAddress([&](const std::string& name, int family, const std::string& text, bool, bool) {
    addresses[name + (family == AF_INET ? "/ipv4" : "/ipv6")] = text;
  });
  return addresses;
}

std::string firstIPv4Address() {
  std::string first;
  forEachAddress([&](const std::string&, int family, const std::string& text, bool loopback, bool) {
    if (first.empty() && family == AF_INET && !loopback) first = text;
  });
  return first;
}

std::string preferredIPAddress(bool preferIPv4) {
  const int preferred = preferIPv4 ? AF_INET : AF_INET6;
  std::string best;
  int bestRank = std::numeric_limits<int>::max();
  forEachAddress([&](const std::string&, int family, const std::string& text, bool loopback,
                     bool linkLocal) {
    if (loopback) return;
    int rank = linkLocal ? 2 : (family == preferred ? 0 : 1);
    if (rank < bestRank) {
      bestRank = rank;
      best = text;
    }
  });
  return best;
}

bool wirelessInterfaceUp(const std::filesystem::path& sysClassNet) {
  std::error_code ec;
  for (const auto& dir : sortedEntries(sysClassNet)) {
    if (isLoopbackInterface(dir)) continue;
    bool wireless = std::filesystem::exists(dir / "wireless", ec) ||
                    std::filesystem::exists(dir / "phy80211", ec);
    if (wireless && readFirstLine(dir / "operstate") == "up") return true;
  }
  return false;
}

std::uint64_t totalMemoryBytes() {
  if (auto bytes = meminfoBytes("MemTotal")) return *bytes;
  struct sysinfo info{};
  if (sysinfo(&info) != 0) return 0;
  return static_cast<std::uint64_t>(info.totalram) * info.mem_unit;
}

std::uint64_t availableMemoryBytes() {
  if (auto bytes = meminfoBytes("MemAvailable")) return *bytes;
  struct sysinfo info{};
  if (sysinfo(&info) != 0) return 0;
  return (static_cast<std::uint64_t>(info.freeram) + info.bufferram) * info.mem_unit;
}

double batteryLevelFromSysfs(const std::filesystem::path& powerSupplyDir) {
  for (const auto& dir : sortedEntries(powerSupplyDir)) {
    if (dir.filename().string().rfind("BAT", 0) != 0) continue;
    std::string capacity = readFirstLine(dir / "capacity");
    if (capacity.empty()) continue;
    char* end = nullptr;
    long percent = std::strtol(capacity.c_str(), &end, 10);
    if (end == capacity.c_str() || *end != '\0') continue;
    return std::clamp(static_cast<double>(percent) / 100.0, 0.0, 1.0);
  }
  return -1;
}

double batteryLevel(const std::filesystem::path& powerSupplyDir) {
  if (auto level = upowerBatteryLevel()) return *level;
  return batteryLevelFromSysfs(powerSupplyDir);
}

std::optional<StorageSizes> storageSizes(const std::filesystem::path& path) {
  // A folder made on demand may not exist yet: its nearest existing
  // ancestor is on the same file system as it will be.
  std::filesystem::path existing = path;
  std::error_code ec;
  while (!existing.empty() && !std::filesystem::exists(existing, ec) &&
         existing != existing.parent_path()) {
    existing = existing.parent_path();
  }
  struct statvfs info{};
  if (existing.empty() || statvfs(existing.c_str(), &info) != 0) return std::nullopt;
  auto toMB = [](unsigned long long blocks, unsigned long long size) {
    unsigned long long mb = blocks * size / (1024ull * 1024ull);
    return static_cast<std::int32_t>(
        std::min<unsigned long long>(mb, std::numeric_limits<std::int32_t>::max()));
  };
  return StorageSizes{toMB(info.f_blocks, info.f_frsize), toMB(info.f_bavail, info.f_frsize)};
}

std::string deviceBrand() { return readFirstLine("/sys/class/dmi/id/sys_vendor"); }

std::string vendorIdentifier(const std::string& appId) {
  // The application id for sd_id128_get_machine_app_specific is 128 bits: the
  // first 16 bytes of the SHA-256 of the bundle identifier.
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(appId.data(), appId.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    return "";
  }
  sd_id128_t app{};
  std::copy_n(digest.begin(), sizeof app.bytes, app.bytes);
  sd_id128_t machine{};
  if (sd_id128_get_machine_app_specific(app, &machine) < 0) {
    return persistentRandomIdentifier(Bundle::main().dataDirectory() / "vendor-id");
  }
  uuid_t uuid;
  std::copy_n(machine.bytes, sizeof uuid, uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}


namespace {

enum class Stored { uuid, other, absent, unusable };

// Reads the UUID kept in `file` without following a symlink or blocking on
// a special file; at most a few bytes are read.
Stored readStoredUuid(const std::filesystem::path& file, std::string* uuid) {
  int fd = open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? Stored::absent : Stored::unusable;
  struct stat info{};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return Stored::unusable;
  }
  char buffer[64] = {};
  ssize_t length = read(fd, buffer, sizeof buffer - 1);
  close(fd);
  std::string text(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  uuid_t parsed;
  if (text.size() != 36 || uuid_parse(text.c_str(), parsed) != 0) return Stored::other;
  char canonical[37];
  uuid_unparse_upper(parsed, canonical);
  *uuid = canonical;
  return Stored::uuid;
}

}  // namespace

std::string persistentRandomIdentifier(const std::filesystem::path& file) {
  std::string uuid;
  Stored stored = readStoredUuid(file, &uuid);
  if (stored == Stored::uuid) return uuid;
  if (stored == Stored::unusable) return "";
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  const std::string fresh = support::randomUuid();
  const std::filesystem::path temporary =
      file.string() + ".tmp-" + support::randomUuid(support::UuidCase::lower);
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return "";
  const std::string line = fresh + "\n";
  bool written = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
                 fsync(fd) == 0;
  close(fd);
  std::string result;
  if (written) {
    if (stored == Stored::absent && link(temporary.c_str(), file.c_str()) == 0) {
      result = fresh;
    } else if (stored == Stored::absent && errno == EEXIST) {
      // Another process kept its id first: that one holds.
      if (readStoredUuid(file, &uuid) == Stored::uuid) result = uuid;
    } else if (stored == Stored::other && rename(temporary.c_str(), file.c_str()) == 0) {
      result = fresh;
    }
  }
  unlink(temporary.c_str());
  return result;
}

}  // namespace velquin::platform
