// Facts about this machine that requests carry. Each call reads the system
// afresh (they are cheap; the battery query may wait up to half a second for
// UPower); safe from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace velquin::platform {

// The `machine` field of uname(2), e.g. "x86_64".
std::string hardwareMachine();
// The operating system's version: VERSION_ID of os-release, else the kernel release.
std::string osVersion();
// The current locale as an identifier such as "en_US" (from LC_ALL,
// LC_MESSAGES or LANG; "C"/"POSIX" give "en_US_POSIX").
std::string localeIdentifier();
// Abbreviation of the local time zone now, e.g. "CET".
std::string timeZoneAbbreviation();
// Name of the system time zone, e.g. "Europe/Berlin" ("UTC" when unknown).
std::string timeZoneName();

// The hardware address of the first non-loopback interface (by name) that has
// a non-zero one, as "%02X:%02X:%02X:%02X:%02X:%02X"; empty when none.
// `sysClassNet` is /sys/class/net unless a test names another tree.
std::string macAddress(const std::filesystem::path& sysClassNet = "/sys/class/net");

// Addresses of the interfaces that are up: "<ifname>/ipv4" or
// "<ifname>/ipv6" -> address text (the last one wins when an interface has
// several of a family), from getifaddrs.
std::map<std::string, std::string> interfaceAddresses();
// The first IPv4 address of a non-loopback interface that is up; empty when none.
std::string firstIPv4Address();
// A preferred address for the device: global addresses of the preferred
// family first, then the other family, then link-local ones; loopback never.
// Empty when there is none.
std::string preferredIPAddress(bool preferIPv4);
// True when an interface that is up and not loopback is wireless
// (/sys/class/net/<if>/wireless or phy80211 exists).
bool wirelessInterfaceUp(const std::filesystem::path& sysClassNet = "/sys/class/net");

// Physical memory and memory available to new work, in bytes
// (/proc/meminfo MemTotal and MemAvailable; sysinfo(2) when unreadable).
std::uint64_t totalMemoryBytes();
std::uint64_t availableMemoryBytes();

// Battery charge from 0.0 to 1.0: UPower's display device over the system
// bus when it reports a present battery, else the first
// <powerSupplyDir>/BAT*/capacity, else -1 (no battery, e.g. a desktop).
double batteryLevel(const std::filesystem::path& powerSupplyDir = "/sys/class/power_supply");
// The same from the sysfs tree only (no D-Bus).
double batteryLevelFromSysfs(const std::filesystem::path& powerSupplyDir);

// Size and free space of the file system holding `path` (or, while it does
// not exist, its nearest existing ancestor), in MiB, clamped to the int32
// range; nothing when statvfs fails.
struct StorageSizes {
  std::int32_t totalMB = 0;
  std::int32_t availableMB = 0;
};
std::optional<StorageSizes> storageSizes(const std::filesystem::path& path);

// The machine's maker as the firmware reports it (DMI sys_vendor); empty
// when unknown.
std::string deviceBrand();

// The app-specific machine id for `appId` (sd_id128_get_machine_app_specific
// keyed by the first 16 bytes of the id's SHA-256) as upper-case UUID text.
// When the machine id cannot be read (a sandbox may hide /etc/machine-id) it
// is the random identifier kept in the main bundle's data folder
// ("vendor-id"); empty only when that cannot be kept either.
std::string vendorIdentifier(const std::string& appId);

// A random upper-case UUID kept in `file` across launches: the one the file
// holds, or a new one written there (0600, through a temporary file that is
// linked into place, so two processes racing agree on the first). A file
// that holds no UUID is replaced; a symlink or other non-regular file is
// never followed or replaced. Empty when nothing could be kept.
std::string persistentRandomIdentifier(const std::filesystem::path& file);

}  // namespace velquin::platform
