#include "support/TempEnvironment.h"

#include <stdlib.h>

#include <fstream>
#include <stdexcept>

#include "velquin/Bundle.h"

namespace velquin::testing {
namespace {
std::string xmlEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out += c;
    }
  }
  return out;
}
}  // namespace

TempEnvironment::TempEnvironment(const std::string& bundleId) : bundleId_(bundleId) {
  std::string pattern = (std::filesystem::temp_directory_path() / "velquin-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  root_ = pattern;
  bundleDir_ = root_ / "bundle";
  std::filesystem::create_directories(bundleDir_);
  setenv("HOME", root_.c_str(), 1);
  setenv("XDG_CONFIG_HOME", (root_ / "config").c_str(), 1);
  setenv("XDG_DATA_HOME", (root_ / "data").c_str(), 1);
  writeInfoPlist();
}

TempEnvironment::~TempEnvironment() {
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
}

void TempEnvironment::writeInfoPlist(const std::string& shortVersion, const std::string& build) {
  std::ofstream out(bundleDir_ / "Info.plist");
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n"
      << "<key>CFBundleIdentifier</key><string>" << xmlEscape(bundleId_) << "</string>\n"
      << "<key>CFBundleShortVersionString</key><string>" << shortVersion << "</string>\n"
      << "<key>CFBundleVersion</key><string>" << build << "</string>\n"
      << "</dict></plist>\n";
}

void TempEnvironment::writeTokenFile(const std::map<std::string, std::string>& strings,
                                     const std::map<std::string, std::string>& rawXmlValues) {
  std::ofstream out(bundleDir_ / "velquin-app-token.plist");
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n";
  for (const auto& [key, value] : strings) {
    out << "<key>" << xmlEscape(key) << "</key><string>" << xmlEscape(value) << "</string>\n";
  }
  for (const auto& [key, value] : rawXmlValues) {
    out << "<key>" << xmlEscape(key) << "</key>" << value << "\n";
  }
  out << "</dict></plist>\n";
}

void TempEnvironment::installAsMainBundle() { Bundle::setMainBundlePath(bundleDir_); }

std::filesystem::path binDir() {
  if (const char* dir = std::getenv("VELQUIN_BIN_DIR"); dir && *dir) return dir;
  std::error_code ec;
  return std::filesystem::read_symlink("/proc/self/exe", ec).parent_path();
}

}  // namespace velquin::testing
