#include "fileindex/unfairlock_file_array.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <unordered_set>

namespace quorvi {

namespace {

// Whether folderPath + "/" + name begins with prefix, without building it.
bool joinedStartsWith(std::string_view folderPath, std::string_view name, std::string_view prefix) {
  if (folderPath.empty()) return false;  // a folder that is gone
  bool slash = folderPath.back() != '/';
  std::size_t total = folderPath.size() + (slash ? 1 : 0) + name.size();
  if (prefix.size() > total) return false;
  std::size_t head = std::min(prefix.size(), folderPath.size());
  if (std::memcmp(prefix.data(), folderPath.data(), head) != 0) return false;
  std::string_view rest = prefix.substr(head);
  if (rest.empty()) return true;
  if (slash) {
    if (rest.front() != '/') return false;
    rest.remove_prefix(1);
  }
  return name.substr(0, rest.size()) == rest;
}

}  // namespace

std::size_t UnfairlockFileArray::count() const {
  std::lock_guard guard(unfairlock);
  std::size_t total = 0;
  for (const auto& segment : array) total += segment.liveCount();
  return total;
}

std::size_t UnfairlockFileArray::removeByPrefixes(const std::vector<std::string>& prefixes) {
  if (prefixes.empty()) return 0;
  std::size_t removed = 0;
  mutate([&](std::vector<Segment>& segments) {
    if (segments.empty()) return;
    std::vector<std::string> folderPaths = segments.front()->folders().allPaths();
    for (auto& segment : segments) {
      const FileTable& table = *segment;
      segment = segmentWithout(segment, [&](std::size_t i) {
        const std::string& folder = folderPaths[table.folderOf(i)];
        std::string name = table.name(i);
        return std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& prefix) {
          return joinedStartsWith(folder, name, prefix);
        });
      }, removed);
    }
  });
  return removed;
}

std::size_t UnfairlockFileArray::removeFiles(const std::vector<FileReference>& references) {
  if (references.empty()) return 0;
  // By identity and path: another hard link to the same file stays.
  std::unordered_multiset<FileReference, FileReferenceHash> doomed(references.begin(), references.end());
  std::size_t removed = 0;
  mutate([&](std::vector<Segment>& segments) {
    for (auto& segment : segments) {
      const FileTable& table = *segment;
      segment = segmentWithout(segment, [&](std::size_t i) {
        auto [begin, end] = doomed.equal_range(FileReference{table.device(i), table.inode(i), {}});
        if (begin == end) return false;
        const std::string path = table.path(i);
        return std::any_of(begin, end, [&](const FileReference& reference) { return reference.path == path; });
      }, removed);
    }
  });
  return removed;
}

}  // namespace quorvi
