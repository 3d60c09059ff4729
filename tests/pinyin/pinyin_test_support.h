// Shared helpers of the pinyin tests.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace quorvi::testing {

inline bool contains(const std::vector<std::string>& list, const std::string& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

// A fresh folder under the system's temporary directory, removed on exit.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quorvi-pinyin-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data()) ? pattern : std::string();
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  std::string write(const std::string& name, const std::string& contents) const {
    std::string file = path_ + "/" + name;
    std::ofstream(file, std::ios::binary) << contents;
    return file;
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace quorvi::testing
