// The user-editable ignore file (FileIndexIgnorePaths) with any content: the
// filter built from it must come out, and answer for any path.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/settings.h"
#include "fileindex/filter.h"

namespace {

const std::string& scratch() {
  // Never destroyed: the exit handler below still needs it.
  static const std::string* dir = [] {
    char pattern[] = "/tmp/quorvi-fuzz-filter-XXXXXX";
    auto* path = new std::string(::mkdtemp(pattern) ? pattern : "/tmp/quorvi-fuzz-filter");
    std::atexit([] { std::filesystem::remove_all(scratch()); });
    return path;
  }();
  return *dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quorvi;
  const std::string preferences = scratch() + "/FileIndexIgnorePaths";
  std::ofstream(preferences, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data), size);
  static Settings settings(scratch() + "/settings.json");
  FilterEnvironment environment{"/home/u", preferences, &settings};
  Filter filter = Filter::build({"/home/u/Documents", "/home/u/Library/Work"}, environment);
  static const char* const kPaths[] = {"/home/u/Documents/report.pdf", "/home/u/node_modules/x",
                                       "/home/u/Library/Caches/a", "/home/u/~$lock.docx", "/", ""};
  for (const char* path : kPaths) filter.isIgnored(path);
  return 0;
}
