#include "processes/proc_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

namespace quorvi::procfs {

namespace {

constexpr size_t kMaxFileBytes = size_t(8) << 20;
constexpr size_t kLongestEntryBytes = sizeof(dirent64) + 8;

std::optional<std::string> readAllFrom(int fd, size_t firstReadBytes) {
  if (fd < 0) return std::nullopt;
  // Generated files are rebuilt from the start of the current record on
  // each read, so large reads matter: /proc/net/tcp walks the kernel's whole
  // socket table per call.
  std::string contents;
  size_t used = 0;
  contents.resize(firstReadBytes);
  while (used < kMaxFileBytes) {
    if (contents.size() - used < firstReadBytes / 2) contents.resize(std::min(contents.size() * 2, kMaxFileBytes));
    ssize_t got = ::read(fd, contents.data() + used, contents.size() - used);
    if (got < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (got == 0) break;
    used += size_t(got);
  }
  ::close(fd);
  contents.resize(used);
  return contents;
}

bool parseNumber(const char* name, int64_t& value) {
  const char* end = name + std::char_traits<char>::length(name);
  if (name == end) return false;
  auto [stop, error] = std::from_chars(name, end, value);
  return error == std::errc() && stop == end && value >= 0;
}

}  // namespace

std::optional<std::string> readSmallFile(int directoryFd, const char* relativePath, size_t firstReadBytes) {
  return readAllFrom(::openat(directoryFd, relativePath, O_RDONLY | O_CLOEXEC), firstReadBytes);
}

std::optional<std::string> readSmallFile(const std::string& path, size_t firstReadBytes) {
  return readAllFrom(::open(path.c_str(), O_RDONLY | O_CLOEXEC), firstReadBytes);
}

std::optional<std::string> readOneRecord(int directoryFd, const char* relativePath, struct stat* info) {
  int fd = ::openat(directoryFd, relativePath, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  if (info && ::fstat(fd, info) != 0) {
    ::close(fd);
    return std::nullopt;
  }
  char buffer[4096];
  ssize_t got;
  do {
    got = ::read(fd, buffer, sizeof buffer);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    ::close(fd);
    return std::nullopt;
  }
  if (size_t(got) == sizeof buffer) {  // longer than expected: read the rest the usual way
    std::string contents(buffer, sizeof buffer);
    auto rest = readAllFrom(fd, sizeof buffer);
    if (!rest) return std::nullopt;
    return contents + *rest;
  }
  ::close(fd);
  return std::string(buffer, size_t(got));
}

std::optional<std::string> readLink(const std::string& path) {
  return readLink(AT_FDCWD, path.c_str());
}

std::optional<std::string> readLink(int directoryFd, const char* relativePath) {
  char buffer[4096];
  ssize_t length = ::readlinkat(directoryFd, relativePath, buffer, sizeof buffer);
  if (length < 0 || size_t(length) >= sizeof buffer) return std::nullopt;
  return std::string(buffer, size_t(length));
}

std::vector<int64_t> numericEntries(int directoryFd) {
  // getdents64 straight on the descriptor: opendir() would add a dup, a
  // stat and a fcntl per folder, which shows when walking every /proc/PID/fd.
  std::vector<int64_t> numbers;
  alignas(8) char buffer[32768];
  for (;;) {
    long got = ::syscall(SYS_getdents64, directoryFd, buffer, sizeof buffer);
    if (got <= 0) break;
    for (long offset = 0; offset < got;) {
      auto* entry = reinterpret_cast<dirent64*>(buffer + offset);
      int64_t number;
      if (parseNumber(entry->d_name, number)) numbers.push_back(number);
      offset += entry->d_reclen;
    }
    // /proc fills the buffer as far as entries fit; room left over for a
    // longest entry means the folder is done, and saves a call per folder.
    if (size_t(got) + kLongestEntryBytes < sizeof buffer) break;
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::vector<int64_t> numericEntries(const std::string& path) {
  DirectoryFd dir(path);
  return dir.isOpen() ? numericEntries(dir.get()) : std::vector<int64_t>{};
}

DirectoryFd::DirectoryFd(int parentFd, const char* relativePath)
    : fd_(::openat(parentFd, relativePath, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

DirectoryFd::DirectoryFd(const std::string& path)
    : fd_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

DirectoryFd::~DirectoryFd() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace quorvi::procfs
