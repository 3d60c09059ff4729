// Quick reads of /proc entries: whole small files, symbolic links, and the
// numeric entries of a folder. Each answers nothing when the entry is gone,
// which is normal for processes that end while they are being looked at.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quorvi::procfs {

// The file's bytes (up to a few megabytes), or nothing. The first read asks
// for firstReadBytes; later ones for twice as much each time.
std::optional<std::string> readSmallFile(int directoryFd, const char* relativePath, size_t firstReadBytes = 4096);
std::optional<std::string> readSmallFile(const std::string& path, size_t firstReadBytes = 4096);
// A file the kernel writes in one piece on the first read (/proc/PID/stat):
// one read, no second one to see the end.
// With `info`, the file's own stat is stored there too.
std::optional<std::string> readOneRecord(int directoryFd, const char* relativePath, struct stat* info = nullptr);
std::optional<std::string> readLink(int directoryFd, const char* relativePath);
std::optional<std::string> readLink(const std::string& path);
// Entry names of the /proc folder that are plain decimal numbers, ascending.
// Reads the descriptor to its end (it is not rewound).
std::vector<int64_t> numericEntries(int directoryFd);
std::vector<int64_t> numericEntries(const std::string& path);

// Runs body(begin, end, out) over [0, count) in two halves side by side when
// the count is worth a thread, and joins the outputs in order. Nearly all of
// a /proc walk is waiting on the kernel, which two cores halve.
template <typename T, typename Body>
std::vector<T> inTwoHalves(size_t count, Body&& body) {
  constexpr size_t kWorthASecondThread = 64;
  std::vector<T> first, second;
  size_t middle = count < kWorthASecondThread ? count : count / 2;
  std::exception_ptr failure;  // handed to the caller rather than ending the process
  std::thread other;
  if (middle < count) {
    other = std::thread([&] {
      try {
        body(middle, count, second);
      } catch (...) {
        failure = std::current_exception();
      }
    });
  }
  try {
    body(size_t(0), middle, first);
  } catch (...) {
    if (other.joinable()) other.join();
    throw;
  }
  if (other.joinable()) other.join();
  if (failure) std::rethrow_exception(failure);
  first.insert(first.end(), std::make_move_iterator(second.begin()), std::make_move_iterator(second.end()));
  return first;
}

// An open folder descriptor, closed when it goes out of scope.
class DirectoryFd {
 public:
  DirectoryFd(int parentFd, const char* relativePath);
  explicit DirectoryFd(const std::string& path);
  ~DirectoryFd();
  DirectoryFd(const DirectoryFd&) = delete;
  DirectoryFd& operator=(const DirectoryFd&) = delete;
  bool isOpen() const { return fd_ >= 0; }
  int get() const { return fd_; }

 private:
  int fd_ = -1;
};

}  // namespace quorvi::procfs
