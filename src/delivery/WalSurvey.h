// WalSurvey: what a SQLite write-ahead log file holds, read from the file
// itself (its 32-byte header and the 24-byte header of each frame), without
// SQLite. SQLite's recovery keeps the frames up to the last commit frame of
// the unbroken checksum chain that starts at the log's header; a damaged
// frame silently drops every transaction after it. Comparing that with the
// frames whose own checksum still holds tells a damaged log (committed
// transactions lie after the break) from an ordinary torn write at the end
// (the process died while appending its last transaction: nothing after the
// break was ever committed).
//
// Each frame carries a running checksum, seeded by the previous frame's, so
// a frame can be checked on its own against the checksum its predecessor
// stores, even when the chain is broken before it.
//
// Ownership and threads: a plain value; surveyWal() may run on any thread
// but must not race with a writer of the same file (the caller makes sure no
// process has the database open).
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace velquin {

struct WalSurvey {
  // A log with at least one complete frame after a header of the right
  // shape (magic number, version, page size).
  bool present = false;
  // Frames SQLite's recovery keeps: up to the last commit frame of the
  // checksum chain from the header; 0 when the header's own checksum fails.
  std::uint32_t recoverable = 0;
  // The last commit frame that carries the header's salt and whose own
  // checksum holds; 0 when there is none.
  std::uint32_t lastIntactCommit = 0;
  // 1-based indexes of the complete frames that carry the header's salt
  // (frames of this log, as opposed to leftovers of an earlier one).
  std::vector<std::uint32_t> saltFrames;

  // Committed transactions lie beyond what recovery keeps.
  bool damaged() const { return lastIntactCommit > recoverable; }
  // Frames of this log after frame `kept`: what is lost when SQLite keeps
  // `kept` frames.
  std::size_t framesAfter(std::uint32_t kept) const;
};

// Reads `wal`; an absent, empty or unreadable file gives a survey that is
// not present.
WalSurvey surveyWal(const std::filesystem::path& wal);

}  // namespace velquin
