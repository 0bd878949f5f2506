#include "platform/SafeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace velquin::platform {
namespace {

std::string describe(const std::string& what, const std::filesystem::path& file, int err) {
  return what + " " + file.string() + ": " + std::strerror(err);
}

void set(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

}  // namespace

std::optional<std::string> readRegularFile(const std::filesystem::path& file, std::size_t limit,
                                           std::string* error, ReadProblem* problem) {
  auto failed = [&](ReadProblem why, std::string text) -> std::optional<std::string> {
    if (problem) *problem = why;
    set(error, std::move(text));
    return std::nullopt;
  };
  // O_NONBLOCK: opening a FIFO with no writer returns at once instead of
  // waiting for one; fstat then tells it apart from a regular file.
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    const int err = errno;
    return failed(err == ENOENT ? ReadProblem::missing : ReadProblem::unreadable,
                  describe("cannot open", file, err));
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return failed(ReadProblem::notRegular, file.string() + " is not a regular file");
  }
  if (static_cast<std::uint64_t>(info.st_size) > limit) {
    ::close(fd);
    return failed(ReadProblem::tooLarge, file.string() + " is larger than " +
                                             std::to_string(limit) + " bytes");
  }
  std::string bytes;
  bytes.resize(static_cast<std::size_t>(info.st_size));
  std::size_t used = 0;
  // One byte past the size: a file that grows while it is read still stops
  // at the limit.
  for (;;) {
    if (used == bytes.size()) {
      if (bytes.size() > limit) break;
      bytes.resize(std::min(limit + 1, bytes.size() + 4096));
    }
    const ssize_t n = ::read(fd, bytes.data() + used, bytes.size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int err = errno;
      ::close(fd);
      return failed(ReadProblem::unreadable, describe("cannot read", file, err));
    }
    if (n == 0) break;
    used += static_cast<std::size_t>(n);
  }
  ::close(fd);
  if (used > limit) {
    return failed(ReadProblem::tooLarge,
                  file.string() + " is larger than " + std::to_string(limit) + " bytes");
  }
  bytes.resize(used);
  if (problem) *problem = ReadProblem::none;
  return bytes;
}

bool makePrivateDirectories(const std::filesystem::path& dir, std::string* error) {
  if (dir.empty()) return true;
  struct stat info {};
  if (::stat(dir.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return true;
    set(error, dir.string() + " is not a folder");
    return false;
  }
  if (dir.has_parent_path() && dir.parent_path() != dir &&
      !makePrivateDirectories(dir.parent_path(), error)) {
    return false;
  }
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    set(error, describe("cannot create the folder", dir, errno));
    return false;
  }
  return true;
}

bool refuseSymlink(const std::filesystem::path& file, std::string* error) {
  struct stat info {};
  if (::lstat(file.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
    set(error, file.string() + " is a symbolic link; it is not followed");
    return false;
  }
  return true;
}

bool writePrivateFileAtomically(const std::filesystem::path& file, std::string_view bytes,
                                std::string* error) {
  const std::filesystem::path dir = file.has_parent_path() ? file.parent_path() : ".";
  if (!makePrivateDirectories(dir, error) || !refuseSymlink(file, error)) return false;
  std::string tmp = file.string() + ".tmp-XXXXXX";
  // mkostemp creates the name exclusively with mode 0600: never an
  // existing file, never through a link.
  const int fd = ::mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) {
    set(error, describe("cannot create a temporary file for", file, errno));
    return false;
  }
  auto fail = [&](const char* what) {
    const int err = errno;
    ::close(fd);
    ::unlink(tmp.c_str());
    set(error, describe(what, tmp, err));
    return false;
  };
  const char* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail("cannot write");
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0) return fail("cannot sync");
  if (::close(fd) != 0) {
    const int err = errno;
    ::unlink(tmp.c_str());
    set(error, describe("cannot close", tmp, err));
    return false;
  }
  // rename replaces a name, never what a link points to.
  if (::rename(tmp.c_str(), file.c_str()) != 0) {
    const int err = errno;
    ::unlink(tmp.c_str());
    set(error, describe("cannot rename a temporary file over", file, err));
    return false;
  }
  if (const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return true;
}

}  // namespace velquin::platform
