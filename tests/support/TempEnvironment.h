// A throw-away home for one test: a temporary folder with its own
// XDG_CONFIG_HOME, XDG_DATA_HOME and a bundle folder, removed afterwards.
// Construct it before anything touches the library's singletons.
#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace velquin::testing {

class TempEnvironment {
 public:
  explicit TempEnvironment(const std::string& bundleId = "com.example.velquintest");
  ~TempEnvironment();
  TempEnvironment(const TempEnvironment&) = delete;
  TempEnvironment& operator=(const TempEnvironment&) = delete;

  const std::filesystem::path& root() const { return root_; }
  const std::filesystem::path& bundleDir() const { return bundleDir_; }
  const std::string& bundleId() const { return bundleId_; }

  // Writes the bundle's Info.plist (done by the constructor) and token file.
  void writeInfoPlist(const std::string& shortVersion = "2.3", const std::string& build = "45");
  // Each value is written as text unless it is given in `raw` as XML.
  void writeTokenFile(const std::map<std::string, std::string>& strings,
                      const std::map<std::string, std::string>& rawXmlValues = {});
  // Points the library's main bundle at bundleDir().
  void installAsMainBundle();

 private:
  std::filesystem::path root_;
  std::filesystem::path bundleDir_;
  std::string bundleId_;
};

// The folder holding the built programs (velquin, velquin-sandbox).
std::filesystem::path binDir();

}  // namespace velquin::testing
