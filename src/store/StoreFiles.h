// Whole-file reads and crash-safe writes for the local store's files.
// Stateless; any thread. Writers of one file must not race each other.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace velquin::store {

// The largest file the store reads.
inline constexpr std::size_t kMaxFileBytes = 8 << 20;

// The whole file; absent with *error set when it is missing, unreadable,
// not a regular file (read without blocking) or larger than kMaxFileBytes.
std::optional<std::string> readFile(const std::filesystem::path& file, std::string* error);

// Writes a temporary file beside `file`, syncs it and renames it over `file`,
// so a reader sees either the old or the new content. Creates missing
// folders 0700; refuses a symbolic link at `file`.
bool writeFileAtomically(const std::filesystem::path& file, std::string_view bytes, mode_t mode,
                         std::string* error);

// Like writeFileAtomically, but only when `file` does not exist yet; false
// with *error empty when another writer created it first.
bool createFileExclusively(const std::filesystem::path& file, std::string_view bytes, mode_t mode,
                           std::string* error);

// Renames a damaged file aside (kept for inspection, never deleted) and
// returns the new name.
std::filesystem::path moveAside(const std::filesystem::path& file);

}  // namespace velquin::store
