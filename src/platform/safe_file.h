// Opening files that the service found on disk. A name tells nothing about
// what is behind it: a FIFO called "x.desktop" blocks a plain open() until a
// writer comes, a device file reads forever, a huge file exhausts memory. So
// every file the service opens because it found it (desktop entries,
// preference files, Zotero databases, address books, images, ...) goes through
// here: opened without blocking, accepted only when it is a regular file, and
// read whole only up to a cap.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace quorvi {

enum class SafeFileFailure {
  none,
  missing,     // no such file (or a folder on the way is missing)
  notRegular,  // a folder, FIFO, socket or device
  tooLarge,    // more bytes than the cap
  unreadable,  // permissions, I/O error
};

// Opens path read-only (symlinks followed) without blocking and returns the
// descriptor (close-on-exec, blocking reads again), or -1 with `failure` set.
int openRegularFile(const std::string& path, SafeFileFailure* failure = nullptr);

// The whole file when it is a regular file of at most maxBytes bytes.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t maxBytes,
                                           SafeFileFailure* failure = nullptr);

// Copies a regular file of at most maxBytes bytes to `to` (created or
// replaced, mode 0600). False with `failure` set otherwise; a partial copy is
// removed.
bool copyRegularFile(const std::string& from, const std::string& to, std::size_t maxBytes,
                     SafeFileFailure* failure = nullptr);

// A short English text for a failure ("Not a regular file", ...).
const char* describe(SafeFileFailure failure);

// Caps used across the service for files read whole.
inline constexpr std::size_t kSmallTextFileCap = 4u << 20;  // settings, preferences, desktop entries
inline constexpr std::size_t kResourceFileCap = 32u << 20;  // tables shipped with the service
inline constexpr std::size_t kDatabaseCopyCap = std::size_t(4) << 30;  // databases copied before reading

}  // namespace quorvi
