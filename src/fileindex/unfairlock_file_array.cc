#include "fileindex/unfairlock_file_array.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <unordered_set>

namespace quorvi {

namespace {

// Whether folderPath + "/" + name begins with prefix, without building it.
bool joinedStartsWith(std::string_view folderPath, std::string_view name, std::string_view prefix) {
  bool slash = folderPath.empty() || folderPath.back() != '/';
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
  for (const auto& table : array) total += table->size();
  return total;
}

std::size_t UnfairlockFileArray::removeByPrefixes(const std::vector<std::string>& prefixes) {
  if (prefixes.empty()) return 0;
  std::size_t removed = 0;
  mutate([&](std::vector<FileTableRef>& segments) {
    for (auto& table : segments) {
      if (table->empty()) continue;
      std::vector<std::string> folderPaths = table->folders().allPaths();
      table = tableWithout(table, [&](std::size_t i) {
        const std::string& folder = folderPaths[table->folderOf(i)];
        std::string name = table->name(i);
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
  std::unordered_set<FileReference, FileReferenceHash> doomed(references.begin(), references.end());
  std::size_t removed = 0;
  mutate([&](std::vector<FileTableRef>& segments) {
    for (auto& table : segments) {
      table = tableWithout(table, [&](std::size_t i) {
        return doomed.count(FileReference{table->device(i), table->inode(i), {}}) > 0;
      }, removed);
    }
  });
  return removed;
}

}  // namespace quorvi
