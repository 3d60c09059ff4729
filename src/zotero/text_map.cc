#include "zotero/text_map.h"

#include <algorithm>
#include <cstring>

namespace quorvi {

namespace {
constexpr std::size_t kChunkSize = 1 << 20;
constexpr int64_t kAlwaysDense = 1 << 16;
const char kEmpty[] = "";
}  // namespace

std::string_view ZoteroTextMap::store(std::string_view text) {
  if (text.empty()) return std::string_view(kEmpty, 0);
  if (text.size() > chunkFree_) {
    std::size_t size = std::max(kChunkSize, text.size());
    chunks_.push_back(std::make_unique<char[]>(size));
    chunkNext_ = chunks_.back().get();
    chunkFree_ = size;
  }
  std::memcpy(chunkNext_, text.data(), text.size());
  std::string_view stored(chunkNext_, text.size());
  chunkNext_ += text.size();
  chunkFree_ -= text.size();
  return stored;
}

void ZoteroTextMap::insert(int64_t id, std::string_view text) {
  std::string_view stored = store(text);
  bool dense = id >= 0 && (id < kAlwaysDense || id < static_cast<int64_t>(4 * (count_ + 1)));
  if (dense) {
    if (static_cast<std::size_t>(id) >= dense_.size()) dense_.resize(static_cast<std::size_t>(id) + 1);
    if (!dense_[id].data() && !sparse_.count(id)) ++count_;
    dense_[id] = stored;
    return;
  }
  auto [slot, added] = sparse_.insert_or_assign(id, stored);
  if (added && !(id >= 0 && static_cast<std::size_t>(id) < dense_.size() && dense_[id].data())) ++count_;
}

std::optional<std::string_view> ZoteroTextMap::find(int64_t id) const {
  if (id >= 0 && static_cast<std::size_t>(id) < dense_.size() && dense_[id].data()) return dense_[id];
  auto found = sparse_.find(id);
  if (found == sparse_.end()) return std::nullopt;
  return found->second;
}

}  // namespace quorvi
