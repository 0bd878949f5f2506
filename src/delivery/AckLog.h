// AckLog: acknowledgements of cached rows that are not yet deleted, in a
// small file next to the database, shared by every process using the cache.
//
// A reply records its row here with one write(2) instead of a delete under
// the database's write lock. The write is not synced: it survives the
// process being killed (the kernel has it) but not the machine losing
// power, where the row is merely sent again. Whoever folds the log deletes
// the recorded rows in one transaction and then empties the log.
//
// Each record carries the row's pkid, a hash of its request id and a check
// value over both. A record whose check fails (a torn or damaged write) is
// ignored, and so is one whose request id no longer matches the row with
// that pkid (the row was replaced): a damaged log can only make rows be
// sent again, never delete one that was not acknowledged.
//
// Processes append under a shared file lock; the fold takes it exclusively
// only to read the records and, after its delete has committed, to cut them
// off (records appended meanwhile are kept). A file lock belongs to the open
// file, not to a thread, so within the process one mutex keeps every locked
// section apart as well.
//
// Ownership and threads: owned by the request manager; every member may be
// called from any thread. Without the file (it cannot be created) append()
// fails and the caller deletes rows itself.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace velquin {

class AckLog {
 public:
  struct Entry {
    std::int64_t rowId = 0;
    std::uint64_t idHash = 0;  // hashOf(request id)
  };

  explicit AckLog(const std::filesystem::path& file);
  ~AckLog();
  AckLog(const AckLog&) = delete;
  AckLog& operator=(const AckLog&) = delete;

  static std::uint64_t hashOf(const std::string& requestId);

  bool isOpen() const { return fd_ >= 0; }
  // Records one acknowledgement; false when it could not be written whole.
  bool append(std::int64_t rowId, const std::string& requestId);
  // The valid records now in the log.
  std::vector<Entry> read() const;
  // True when the log holds no bytes (one fstat).
  bool empty() const;
  // Reads the records, runs `remove` with them (it deletes their rows and
  // returns whether that committed) and, when it did, cuts them from the
  // log. `remove` runs without the file lock held. False when nothing was
  // folded because `remove` failed.
  bool fold(const std::function<bool(const std::vector<Entry>&)>& remove);

 private:
  const int fd_;  // -1 without a file; immutable
  // Held around every file-locked section: guards the file lock's state.
  mutable std::mutex mutex_;
};

}  // namespace velquin
