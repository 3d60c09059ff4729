// ZoteroTextMap: id → text for the large tables of a Zotero database (half a
// million values in a big library). Texts live in a few large chunks rather
// than one allocation each, and ids that are dense (Zotero numbers from 1)
// index a vector; stray ids fall back to a hash map.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quorvi {

class ZoteroTextMap {
 public:
  ZoteroTextMap() = default;
  ZoteroTextMap(ZoteroTextMap&&) = default;
  ZoteroTextMap& operator=(ZoteroTextMap&&) = default;

  // A later insert of the same id replaces the text.
  void insert(int64_t id, std::string_view text);
  std::optional<std::string_view> find(int64_t id) const;
  std::size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }

 private:
  std::string_view store(std::string_view text);

  std::vector<std::unique_ptr<char[]>> chunks_;
  std::size_t chunkFree_ = 0;
  char* chunkNext_ = nullptr;
  std::vector<std::string_view> dense_;  // a null data() marks an absent id
  std::unordered_map<int64_t, std::string_view> sparse_;
  std::size_t count_ = 0;
};

}  // namespace quorvi
