// A property-list dictionary of typed values (text, bool, data, integer,
// real), read from and written to XML or binary property-list files through
// libplist.
//
// Ownership and threads: a plain value; not synchronised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace velquin::platform {

using Bytes = std::vector<std::uint8_t>;
using PlistValue = std::variant<std::string, bool, Bytes, std::int64_t, double>;

class PropertyList {
 public:
  enum class LoadError { missing, unreadable, malformed, notDictionary };

  // The largest file load() reads.
  static constexpr std::size_t kMaxFileBytes = 1 << 20;

  // Reads a dictionary file. Entries of other types (arrays, nested
  // dictionaries, dates) are skipped: nothing here needs them. Anything but
  // a regular file of at most kMaxFileBytes is unreadable.
  static std::optional<PropertyList> load(const std::filesystem::path& file,
                                          LoadError* error = nullptr);
  static std::optional<PropertyList> parse(const std::string& bytes, LoadError* error = nullptr);

  std::optional<std::string> string(const std::string& key) const;
  std::optional<bool> boolean(const std::string& key) const;
  std::optional<Bytes> data(const std::string& key) const;
  const PlistValue* find(const std::string& key) const;

  void set(const std::string& key, PlistValue value);
  void remove(const std::string& key);
  bool empty() const { return values_.empty(); }

  std::string toXml() const;
  // Writes to a temporary file (0600) beside `file`, syncs it and renames it
  // over `file`, so a reader never sees half a file. Creates missing folders
  // 0700; refuses a symbolic link at `file`.
  bool saveAtomically(const std::filesystem::path& file, std::string* error = nullptr) const;

 private:
  std::map<std::string, PlistValue> values_;
};

}  // namespace velquin::platform
