// The recently-used list is written by every program of the desktop; any
// bytes may be found there.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "recent/recent_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quorvi::parseRecentlyUsed(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
