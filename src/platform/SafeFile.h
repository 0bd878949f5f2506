// Reading and writing only our own files.
//
// Reads: only a regular file is read (a FIFO, a device or a folder is an
// error, never a wait), opened without blocking, and never more than a
// limit, so a huge or endless file costs no memory. Writes: every file is
// written to a fresh temporary file (created exclusively, mode 0600) beside
// it, synced and renamed into place; a symbolic link at the file's name is
// refused, so nothing outside our folders is ever replaced, truncated or
// chmod'ed through a link. Folders we create are 0700; existing ones are
// left as they are.
//
// Stateless functions; any thread. Writers of one file must not race each
// other (callers hold their own lock).
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace velquin::platform {

enum class ReadProblem { none, missing, notRegular, tooLarge, unreadable };

// The whole file when it is a regular file of at most `limit` bytes; absent
// otherwise, with `error` (a sentence naming the file) and `problem` set.
std::optional<std::string> readRegularFile(const std::filesystem::path& file, std::size_t limit,
                                           std::string* error = nullptr,
                                           ReadProblem* problem = nullptr);

// Creates the missing folders of `dir`, each 0700. False with `error` set
// when one cannot be made or a component is not a folder.
bool makePrivateDirectories(const std::filesystem::path& dir, std::string* error = nullptr);

// True when `file` is missing or is not a symbolic link; false with `error`
// set ("... is a symbolic link; it is not followed") otherwise.
bool refuseSymlink(const std::filesystem::path& file, std::string* error = nullptr);

// Writes `bytes` to `file` atomically (temporary file 0600, fsync, rename,
// folder synced), creating missing folders 0700. Refuses a symbolic link at
// `file`.
bool writePrivateFileAtomically(const std::filesystem::path& file, std::string_view bytes,
                                std::string* error = nullptr);

}  // namespace velquin::platform
