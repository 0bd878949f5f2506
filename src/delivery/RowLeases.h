// RowLeases: which process is sending a cached row, for processes that share
// one cache file. A lease is a POSIX record lock on one byte (at the row's
// pkid) of a side file next to the database: the kernel keeps it for as long
// as the process holds it and drops it when the process ends, however it
// ends, so a killed process never leaves a row leased.
//
// Record locks belong to the process: leases of one process never conflict
// with each other (the request manager tells its own rows apart itself).
// The side file stays open for the life of the object; closing any other
// descriptor of it would drop this process's leases, and nothing else opens
// it.
//
// Ownership and threads: owned by the request manager; every member may be
// called from any thread. Without a side file (it cannot be created) every
// lease is granted: processes are then not kept apart, and one line says so.
#pragma once

#include <cstdint>
#include <filesystem>

namespace velquin {

class RowLeases {
 public:
  explicit RowLeases(const std::filesystem::path& file);
  ~RowLeases();
  RowLeases(const RowLeases&) = delete;
  RowLeases& operator=(const RowLeases&) = delete;

  // True when this process now holds the row's lease (or held it already);
  // false when another live process holds it.
  bool acquire(std::int64_t rowId);
  void release(std::int64_t rowId);

 private:
  const int fd_;  // -1 without a side file; immutable
};

}  // namespace velquin
