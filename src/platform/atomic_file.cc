#include "platform/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace quorvi {

bool writeFileAtomically(const std::string& path, std::string_view contents) {
  std::string temporary = path + ".XXXXXX";
  int fd = ::mkstemp(temporary.data());
  if (fd < 0) return false;
  const char* data = contents.data();
  std::size_t left = contents.size();
  bool ok = true;
  while (left > 0) {
    ssize_t written = ::write(fd, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      ok = false;
      break;
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  ok = ok && ::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  if (ok && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
  ::unlink(temporary.c_str());
  return false;
}

}  // namespace quorvi
