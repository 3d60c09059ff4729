// What the metadata queries and attribute readers read from a file's inode:
// its kind, size and times, with the birth (creation) time where the file
// system keeps one (statx), and the last-used date as this system reckons
// it: the most recent of the desktop's recently-used list and the file's
// access time, where its mount records access times (not "noatime").
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quorvi {

class RecentFiles;

struct FileTimes {
  bool exists = false;
  bool isDirectory = false;
  bool isRegular = false;
  int64_t size = 0;
  std::optional<double> birth;         // seconds since 1970
  double modification = 0;
  std::optional<double> access;        // absent when the mount does not record it
};

// Symbolic links are not followed (a link is an item of its own).
FileTimes fileTimesOf(const std::string& path);

// The last use of the item: the recently-used list's last use of the path
// (when `recent` is given) or the access time, whichever is later.
std::optional<double> lastUsedDate(const std::string& path, const FileTimes& times, RecentFiles* recent);

}  // namespace quorvi
