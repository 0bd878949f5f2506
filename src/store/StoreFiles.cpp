#include "store/StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/SafeFile.h"

namespace velquin::store {
namespace {

std::string describe(const std::string& what, const std::filesystem::path& file, int err) {
  return what + " " + file.string() + ": " + std::strerror(err);
}

// Writes bytes to a fresh temporary file beside `file` and syncs it.
std::optional<std::filesystem::path> writeTemporary(const std::filesystem::path& file,
                                                    std::string_view bytes, mode_t mode,
                                                    std::string* error) {
  if (file.has_parent_path() && !platform::makePrivateDirectories(file.parent_path(), error)) {
    return std::nullopt;
  }
  if (!platform::refuseSymlink(file, error)) return std::nullopt;
  std::filesystem::path tmp = file.string() + ".tmp-XXXXXX";
  std::string pattern = tmp.string();
  int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) {
    if (error) *error = describe("cannot create a temporary file for", file, errno);
    return std::nullopt;
  }
  tmp = pattern;
  auto fail = [&](const char* what) -> std::optional<std::filesystem::path> {
    int err = errno;
    ::close(fd);
    ::unlink(tmp.c_str());
    if (error) *error = describe(what, tmp, err);
    return std::nullopt;
  };
  if (::fchmod(fd, mode) != 0) return fail("cannot set the mode of");
  const char* p = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail("cannot write");
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  if (::fsync(fd) != 0) return fail("cannot sync");
  if (::close(fd) != 0) {
    int err = errno;
    ::unlink(tmp.c_str());
    if (error) *error = describe("cannot close", tmp, err);
    return std::nullopt;
  }
  return tmp;
}

// Makes a finished rename durable.
void syncDirectory(const std::filesystem::path& file) {
  auto dir = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

std::optional<std::string> readFile(const std::filesystem::path& file, std::string* error) {
  return platform::readRegularFile(file, kMaxFileBytes, error);
}

bool writeFileAtomically(const std::filesystem::path& file, std::string_view bytes, mode_t mode,
                         std::string* error) {
  auto tmp = writeTemporary(file, bytes, mode, error);
  if (!tmp) return false;
  if (::rename(tmp->c_str(), file.c_str()) != 0) {
    int err = errno;
    ::unlink(tmp->c_str());
    if (error) *error = describe("cannot rename a temporary file over", file, err);
    return false;
  }
  syncDirectory(file);
  return true;
}

bool createFileExclusively(const std::filesystem::path& file, std::string_view bytes, mode_t mode,
                           std::string* error) {
  auto tmp = writeTemporary(file, bytes, mode, error);
  if (!tmp) return false;
  // link() fails when the name exists, so only one writer wins.
  int rc = ::link(tmp->c_str(), file.c_str());
  int err = errno;
  ::unlink(tmp->c_str());
  if (rc != 0) {
    if (error) *error = err == EEXIST ? std::string() : describe("cannot create", file, err);
    return false;
  }
  syncDirectory(file);
  return true;
}

std::filesystem::path moveAside(const std::filesystem::path& file) {
  auto stamp = std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
                   .count();
  std::filesystem::path aside = file.string() + ".damaged-" + std::to_string(stamp);
  std::error_code ec;
  std::filesystem::rename(file, aside, ec);
  return aside;
}

}  // namespace velquin::store
