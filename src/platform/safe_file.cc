#include "platform/safe_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace quorvi {

namespace {

void report(SafeFileFailure* failure, SafeFileFailure value) {
  if (failure) *failure = value;
}

SafeFileFailure failureOfErrno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return SafeFileFailure::missing;
    case ENXIO:  // a socket, or a FIFO without writer opened with O_NONBLOCK for writing
    case ENODEV:
      return SafeFileFailure::notRegular;
    default:
      return SafeFileFailure::unreadable;
  }
}

}  // namespace

int openRegularFile(const std::string& path, SafeFileFailure* failure) {
  report(failure, SafeFileFailure::none);
  // O_NONBLOCK makes the open itself return at once for a FIFO; O_NOCTTY
  // keeps a terminal device from becoming ours.
  // O_NOATIME: reading a file for an index is not a use of it (access times
  // stand for the user's last use); allowed only on files we own.
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | O_NOATIME);
  if (fd < 0 && errno == EPERM) fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    report(failure, failureOfErrno(errno));
    return -1;
  }
  struct stat info;
  if (::fstat(fd, &info) != 0) {
    report(failure, SafeFileFailure::unreadable);
    ::close(fd);
    return -1;
  }
  if (!S_ISREG(info.st_mode)) {
    report(failure, SafeFileFailure::notRegular);
    ::close(fd);
    return -1;
  }
  int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  return fd;
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t maxBytes, SafeFileFailure* failure) {
  int fd = openRegularFile(path, failure);
  if (fd < 0) return std::nullopt;
  struct stat info;
  if (::fstat(fd, &info) == 0 && static_cast<unsigned long long>(info.st_size) > maxBytes) {
    ::close(fd);
    report(failure, SafeFileFailure::tooLarge);
    return std::nullopt;
  }
  std::string bytes;
  bytes.reserve(static_cast<std::size_t>(info.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      report(failure, SafeFileFailure::unreadable);
      return std::nullopt;
    }
    if (n == 0) break;
    // The file may grow while it is read (a log, a file being written).
    if (bytes.size() + static_cast<std::size_t>(n) > maxBytes) {
      ::close(fd);
      report(failure, SafeFileFailure::tooLarge);
      return std::nullopt;
    }
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return bytes;
}

}  // namespace quorvi
