#include "delivery/AckLog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/Console.h"

namespace velquin {
namespace {

struct Record {
  std::int64_t rowId;
  std::uint64_t idHash;
  std::uint64_t check;
};
static_assert(sizeof(Record) == 24);

std::uint64_t mix(std::uint64_t value) {
  value += 0x9e3779b97f4a7c15ULL;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
  return value ^ (value >> 31);
}

std::uint64_t checkOf(std::int64_t rowId, std::uint64_t idHash) {
  return mix(mix(static_cast<std::uint64_t>(rowId)) ^ idHash ^ 0x564c51414b4c4f47ULL);
}

// Holds a flock() for its scope; EINTR is retried.
class FileLock {
 public:
  FileLock(int fd, int operation) : fd_(fd) {
    while (::flock(fd_, operation) != 0 && errno == EINTR) {
    }
  }
  ~FileLock() { ::flock(fd_, LOCK_UN); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  const int fd_;
};

// The whole file from `offset` on.
std::string readFrom(int fd, off_t offset) {
  std::string bytes;
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::pread(fd, buffer, sizeof buffer, offset);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
    offset += got;
  }
  return bytes;
}

std::vector<AckLog::Entry> parse(const std::string& bytes) {
  std::vector<AckLog::Entry> entries;
  // A torn last record (a partial write) is left out.
  for (std::size_t at = 0; at + sizeof(Record) <= bytes.size(); at += sizeof(Record)) {
    Record record{};
    std::memcpy(&record, bytes.data() + at, sizeof record);
    if (record.rowId > 0 && record.check == checkOf(record.rowId, record.idHash)) {
      entries.push_back(AckLog::Entry{record.rowId, record.idHash});
    }
  }
  return entries;
}

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

AckLog::AckLog(const std::filesystem::path& file)
    : fd_(file.empty() ? -1
                       : ::open(file.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
  if (!file.empty() && fd_ < 0) {
    support::warn("request manager: the acknowledgement log " + file.string() +
                  " cannot be opened (" + std::strerror(errno) +
                  "); replies delete their rows themselves");
  }
}

AckLog::~AckLog() {
  if (fd_ >= 0) ::close(fd_);
}

std::uint64_t AckLog::hashOf(const std::string& requestId) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;  // FNV-1a
  for (unsigned char c : requestId) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

bool AckLog::append(std::int64_t rowId, const std::string& requestId) {
  if (fd_ < 0) return false;
  Record record{rowId, hashOf(requestId), 0};
  record.check = checkOf(record.rowId, record.idHash);
  std::lock_guard inProcess(mutex_);
  FileLock shared(fd_, LOCK_SH);
  // One write of the whole record: O_APPEND places it after every other
  // process's records, never across one.
  const ssize_t written = ::write(fd_, &record, sizeof record);
  if (written == static_cast<ssize_t>(sizeof record)) return true;
  if (written > 0) {
    // A partial record (a full disk): cut it off again so that the next
    // record starts on a boundary.
    struct stat status {};
    if (::fstat(fd_, &status) == 0 && status.st_size >= written) {
      (void)::ftruncate(fd_, status.st_size - written);
    }
  }
  return false;
}

std::vector<AckLog::Entry> AckLog::read() const {
  if (fd_ < 0) return {};
  std::lock_guard inProcess(mutex_);
  FileLock shared(fd_, LOCK_SH);
  return parse(readFrom(fd_, 0));
}

bool AckLog::empty() const {
  struct stat status {};
  return fd_ < 0 || ::fstat(fd_, &status) != 0 || status.st_size == 0;
}

bool AckLog::fold(const std::function<bool(const std::vector<Entry>&)>& remove) {
  if (fd_ < 0) return true;
  std::string bytes;
  {
    std::lock_guard inProcess(mutex_);
    FileLock exclusive(fd_, LOCK_EX);
    bytes = readFrom(fd_, 0);
  }
  if (bytes.empty()) return true;
  if (!remove(parse(bytes))) return false;
  std::lock_guard inProcess(mutex_);
  FileLock exclusive(fd_, LOCK_EX);
  // Records appended since the read stay; the folded ones go. When another
  // process cut the log meanwhile (its fold overlapped this one), nothing is
  // cut: what remains is folded again later, and a record whose row is gone
  // deletes nothing. If this process dies between the truncate and the
  // write-back, the records appended meanwhile are lost, and their rows are
  // only sent again.
  const std::size_t folded = bytes.size() - bytes.size() % sizeof(Record);
  std::string now = readFrom(fd_, 0);
  if (now.size() < folded || now.compare(0, folded, bytes, 0, folded) != 0) return true;
  std::string later = now.substr(folded);
  if (::ftruncate(fd_, 0) != 0) return true;  // the rows are gone; the records only repeat
  if (!later.empty()) {
    later.resize(later.size() - later.size() % sizeof(Record));
    writeAll(fd_, later.data(), later.size());
  }
  return true;
}

}  // namespace velquin
