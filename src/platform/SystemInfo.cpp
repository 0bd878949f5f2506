#include "platform/SystemInfo.h"

#include <sys/utsname.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

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

}  // namespace velquin::platform
