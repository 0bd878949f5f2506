#include "delivery/RowLeases.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/Console.h"

namespace velquin {
namespace {

int openSideFile(const std::filesystem::path& file) {
  if (file.empty()) return -1;
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    support::warn("request manager: can not open " + file.string() + " (" + std::strerror(errno) +
                  "); processes sharing the cache may send a row twice");
  }
  return fd;
}

bool lockByte(int fd, std::int64_t offset, short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off_t>(offset);
  lock.l_len = 1;
  return ::fcntl(fd, F_SETLK, &lock) == 0;
}

}  // namespace

RowLeases::RowLeases(const std::filesystem::path& file) : fd_(openSideFile(file)) {}

RowLeases::~RowLeases() {
  if (fd_ >= 0) ::close(fd_);
}

bool RowLeases::acquire(std::int64_t rowId) {
  if (fd_ < 0 || rowId < 0) return true;
  return lockByte(fd_, rowId, F_WRLCK);
}

void RowLeases::release(std::int64_t rowId) {
  if (fd_ < 0 || rowId < 0) return;
  lockByte(fd_, rowId, F_UNLCK);
}

}  // namespace velquin
