#include "spotlight/file_times.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <mutex>
#include <unordered_map>

#include "recent/recent_files.h"

namespace quorvi {

namespace {

double seconds(const struct statx_timestamp& t) { return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9; }

// Whether the file system holding the path records access times, asked once
// per device.
bool recordsAccessTime(const std::string& path, uint64_t device) {
  static std::mutex mutex;
  static auto* known = new std::unordered_map<uint64_t, bool>;
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto found = known->find(device);
    if (found != known->end()) return found->second;
  }
  struct statvfs info;
  bool records = ::statvfs(path.c_str(), &info) == 0 && !(info.f_flag & ST_NOATIME);
  std::lock_guard<std::mutex> lock(mutex);
  (*known)[device] = records;
  return records;
}

}  // namespace

FileTimes fileTimesOf(const std::string& path) {
  FileTimes times;
  struct statx info {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
              STATX_TYPE | STATX_SIZE | STATX_MTIME | STATX_ATIME | STATX_BTIME, &info) != 0)
    return times;
  times.exists = true;
  times.isDirectory = S_ISDIR(info.stx_mode);
  times.isRegular = S_ISREG(info.stx_mode);
  times.size = static_cast<int64_t>(info.stx_size);
  times.modification = seconds(info.stx_mtime);
  if ((info.stx_mask & STATX_BTIME) && info.stx_btime.tv_sec > 0) times.birth = seconds(info.stx_btime);
  uint64_t device = (static_cast<uint64_t>(info.stx_dev_major) << 32) | info.stx_dev_minor;
  if ((info.stx_mask & STATX_ATIME) && recordsAccessTime(path, device)) times.access = seconds(info.stx_atime);
  return times;
}

std::optional<double> lastUsedDate(const std::string& path, const FileTimes& times, RecentFiles* recent) {
  std::optional<double> last = times.access;
  if (recent) {
    if (auto used = recent->lastUsedOf(path)) last = std::max(last.value_or(0), *used);
  }
  return last;
}

}  // namespace quorvi
