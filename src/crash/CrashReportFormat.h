// The pending crash report's file format, shared by the signal handler that
// writes it and the parser that reads it back.
//
// A file is the 8-byte magic, a 32-bit format version, then records, each a
// 32-bit tag, a 32-bit payload length and the payload, ending with one
// `kEnd` record with an empty payload as the file's last bytes: a file cut
// short anywhere lacks it and is rejected. Integers are little-endian (both
// architectures we build for are; the writer stores them as the CPU holds
// them and a static_assert keeps that true). Text is stored without a
// terminating zero; its length is what remains of the payload.
//
//   kSignal      i32 signal, i32 si_code, u64 fault address, i32 sending pid
//                (0 unless the signal was sent by a process)
//   kThread      u64 kernel thread id of the crashing thread
//   kTime        i64 seconds, i64 nanoseconds (CLOCK_REALTIME at the crash)
//   kProcess     i32 pid, then the process name
//   kOsRelease   the kernel release (uname -r)
//   kAppId       the application id the engine was configured with
//   kAppVersion  the application version
//   kRegisters   u32 architecture (RegisterSet), u32 count, count x u64
//   kFrame       u64 instruction address; one record per frame, innermost
//                first (the first is the faulting instruction, the others
//                return addresses)
//   kModule      u64 load bias, u64 start, u64 end (0 and 0 when only known
//                from the loader's list), u32 build id length (<= 64), the
//                build id, then the path
//   kIncident    the report's identifier (a UUID made at enable: a process
//                crashes once)
//   kHandlerTime u64 nanoseconds from the handler's entry to the last record
//                handed to the kernel
//   kEnd         empty, last
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace velquin::crash::format {

static_assert(std::endian::native == std::endian::little,
              "the crash report format stores integers as the CPU holds them");

inline constexpr char kMagic[8] = {'V', 'Q', 'C', 'R', 'A', 'S', 'H', '\0'};
inline constexpr std::uint32_t kVersion = 1;

enum Tag : std::uint32_t {
  kSignal = 1,
  kThread = 2,
  kTime = 3,
  kProcess = 4,
  kOsRelease = 5,
  kAppId = 6,
  kAppVersion = 7,
  kRegisters = 8,
  kFrame = 9,
  kModule = 10,
  kHandlerTime = 11,
  kIncident = 12,
  kEnd = 0xFFFF,
};

enum class RegisterSet : std::uint32_t {
  none = 0,
  x86_64 = 1,   // the 23 general registers of mcontext_t.gregs, in REG_* order
  aarch64 = 2,  // x0..x30, sp, pc, pstate
};

inline constexpr std::size_t kMaxBuildIdBytes = 64;
// Bounds the parser enforces (the handler never writes more).
inline constexpr std::size_t kMaxFrames = 256;
inline constexpr std::size_t kMaxModules = 4096;
inline constexpr std::size_t kMaxRegisters = 64;
inline constexpr std::size_t kMaxTextBytes = 4096;
inline constexpr std::size_t kMaxReportBytes = 4 * 1024 * 1024;

// File names inside the report folder. Each crash leaves its own report,
// "pending-crash-report-<pid>-<seconds><nanoseconds>", so a new crash never
// replaces one not yet delivered; a reader claims one by renaming it to
// ".claimed-<reader pid>-<report name>" before reading it.
inline constexpr char kPendingFileName[] = "pending-crash-report";
inline constexpr char kClaimPrefix[] = ".claimed-";
// Reports kept at most: a process that starts with this many pending writes
// none of its own.
inline constexpr std::size_t kMaxPendingReports = 16;
// Written first, then renamed to the pending name; the pid follows the
// prefix so that processes sharing the folder never write the same file.
inline constexpr char kTempFilePrefix[] = ".crash-report-";
inline constexpr char kTempFileSuffix[] = ".tmp";

}  // namespace velquin::crash::format
