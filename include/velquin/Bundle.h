// The application bundle: a directory that holds "velquin-app-token.plist"
// (the token file) and "Info.plist" (CFBundleIdentifier,
// CFBundleShortVersionString, CFBundleVersion).
//
// Ownership and threads: Bundle objects are immutable after construction and
// may be read from any thread. The main bundle is process-wide; name it with
// setMainBundlePath() before the first use of Velquin::shared(). Without a
// name it is the directory of the running executable.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "velquin/Export.h"

namespace velquin {

class VELQUIN_EXPORT Bundle {
 public:
  static const Bundle& main();
  static void setMainBundlePath(const std::filesystem::path& dir);

  explicit Bundle(std::filesystem::path dir);

  const std::filesystem::path& path() const { return dir_; }
  // dir/name.type when that file exists.
  std::optional<std::filesystem::path> pathForResource(const std::string& name,
                                                       const std::string& type) const;
  // Info.plist values; empty text when missing.
  const std::string& bundleIdentifier() const { return identifier_; }
  const std::string& shortVersionString() const { return shortVersion_; }
  const std::string& version() const { return version_; }

  // Where the store keeps its receipt for this application:
  // $XDG_DATA_HOME/<bundle id>/StoreKit/sandboxReceipt (the local store is a
  // sandbox store by nature).
  std::optional<std::filesystem::path> appStoreReceiptPath() const;

  // Per-application folders, created on demand:
  // $XDG_CONFIG_HOME/<id>/ (user defaults) and $XDG_DATA_HOME/<id>/ (database,
  // keychain file, store data). <id> is the bundle identifier, or
  // "velquin.app" when Info.plist names none.
  std::filesystem::path configDirectory() const;
  std::filesystem::path dataDirectory() const;

 private:
  std::filesystem::path dir_;
  std::string identifier_;
  std::string shortVersion_;
  std::string version_;
};

}  // namespace velquin
