#include "fsevents/watch_tree.h"

#include <algorithm>
#include <cstring>

namespace quorvi {

namespace {

// A parent chain longer than this can only come from a damaged tree; path
// building stops there rather than loop.
constexpr std::size_t kMaxDepth = 4096;

std::size_t slotOf(int wd, std::size_t capacity) {
  return (static_cast<uint32_t>(wd) * 2654435761u) & (capacity - 1);
}

}  // namespace

uint32_t WatchTree::fingerprint(int64_t seconds, int64_t nanoseconds) {
  const uint64_t v = static_cast<uint64_t>(seconds) * 1000000000ull + static_cast<uint64_t>(nanoseconds);
  return static_cast<uint32_t>(v ^ (v >> 32)) | 1u;  // 0 means "never seen"
}

uint8_t WatchTree::ageOf(int64_t modifiedSeconds, int64_t nowSeconds) {
  int64_t days = (nowSeconds - modifiedSeconds) / 86400;
  uint8_t age = 0;
  while (days > 0 && age < 40) {
    days >>= 1;
    ++age;
  }
  return age;
}

uint32_t WatchTree::allocate() {
  uint32_t id;
  if (freeList_ != kNone) {
    id = freeList_;
    freeList_ = nodes_[id].parent;
  } else {
    id = static_cast<uint32_t>(nodes_.size());
    nodes_.emplace_back();
  }
  nodes_[id] = Node{};
  ++live_;
  return id;
}

uint32_t WatchTree::storeName(std::string_view name) {
  const auto offset = static_cast<uint32_t>(names_.size());
  names_.append(name);
  names_.push_back('\0');
  return offset;
}

uint32_t WatchTree::addRoot(std::string_view path, uint16_t watchers) {
  uint32_t id = allocate();
  Node& node = nodes_[id];
  node.nameOffset = storeName(path);
  node.watchers = watchers;
  node.state = State::swept;
  return id;
}

uint32_t WatchTree::addChild(uint32_t parent, std::string_view name, uint16_t watchers) {
  uint32_t id = allocate();
  Node& node = nodes_[id];
  node.parent = parent;
  node.nameOffset = storeName(name);
  node.watchers = watchers;
  node.state = State::swept;
  return id;
}

void WatchTree::move(uint32_t node, uint32_t newParent, std::string_view newName) {
  garbageNameBytes_ += nameOf(node).size() + 1;
  nodes_[node].nameOffset = storeName(newName);
  nodes_[node].parent = newParent;
}

void WatchTree::kill(uint32_t node) {
  if (!isLive(node)) return;
  clearWatch(node);
  nodes_[node].state = State::dead;
  nodes_[node].watchers = 0;
  --live_;
}

std::size_t WatchTree::collectGarbage() {
  std::size_t freed = 0;
  for (bool changed = true; changed;) {
    changed = false;
    std::vector<uint8_t> pointedAt(nodes_.size(), 0);
    for (const Node& node : nodes_) {
      if (node.state != State::free && node.parent != kNone && node.parent < nodes_.size()) {
        pointedAt[node.parent] = 1;
      }
    }
    for (uint32_t id = 0; id < nodes_.size(); ++id) {
      Node& node = nodes_[id];
      if (node.state != State::dead || pointedAt[id]) continue;
      garbageNameBytes_ += nameOf(id).size() + 1;
      node = Node{};
      node.parent = freeList_;
      freeList_ = id;
      ++freed;
      changed = true;
    }
  }
  if (garbageNameBytes_ > 4096 && garbageNameBytes_ * 2 > names_.size()) {
    std::string compact;
    compact.reserve(names_.size() - garbageNameBytes_);
    for (Node& node : nodes_) {
      if (node.state == State::free) continue;
      std::string_view name(names_.data() + node.nameOffset);
      node.nameOffset = static_cast<uint32_t>(compact.size());
      compact.append(name);
      compact.push_back('\0');
    }
    names_ = std::move(compact);
    garbageNameBytes_ = 0;
  }
  return freed;
}

std::string_view WatchTree::nameOf(uint32_t node) const { return std::string_view(names_.data() + nodes_[node].nameOffset); }

std::string WatchTree::pathOf(uint32_t node) const {
  std::string_view parts[64];
  std::vector<std::string_view> more;
  std::size_t count = 0;
  for (uint32_t at = node; at < nodes_.size() && count < kMaxDepth; at = nodes_[at].parent) {
    if (count < 64) {
      parts[count] = nameOf(at);
    } else {
      if (count == 64) more.assign(parts, parts + 64);
      more.push_back(nameOf(at));
    }
    ++count;
    if (nodes_[at].parent == kNone) break;
  }
  auto part = [&](std::size_t k) { return count > 64 ? more[k] : parts[k]; };
  std::string path;
  for (std::size_t k = count; k-- > 0;) {
    if (k + 1 != count && (path.empty() || path.back() != '/')) path.push_back('/');
    path.append(part(k));
  }
  return path;
}

uint32_t WatchTree::findChild(uint32_t parent, std::string_view name) const {
  for (uint32_t id = 0; id < nodes_.size(); ++id) {
    if (nodes_[id].parent == parent && isLive(id) && nameOf(id) == name) return id;
  }
  return kNone;
}

uint32_t WatchTree::findRoot(std::string_view path) const {
  for (uint32_t id = 0; id < nodes_.size(); ++id) {
    if (nodes_[id].parent == kNone && isLive(id) && nameOf(id) == path) return id;
  }
  return kNone;
}

uint32_t WatchTree::depthOf(uint32_t node) const {
  uint32_t depth = 0;
  for (uint32_t at = node; at < nodes_.size() && nodes_[at].parent != kNone && depth < kMaxDepth; at = nodes_[at].parent) {
    ++depth;
  }
  return depth;
}

bool WatchTree::isWithin(uint32_t node, uint32_t ancestor) const {
  std::size_t steps = 0;
  for (uint32_t at = node; at < nodes_.size() && steps < kMaxDepth; at = nodes_[at].parent, ++steps) {
    if (at == ancestor) return true;
    if (nodes_[at].parent == kNone) break;
  }
  return false;
}

std::vector<uint32_t> WatchTree::subtree(uint32_t top) const {
  // 0 unknown, 1 inside, 2 outside; each chain is resolved once.
  std::vector<uint8_t> memo(nodes_.size(), 0);
  if (top < nodes_.size()) memo[top] = 1;
  std::vector<uint32_t> chain;
  std::vector<uint32_t> inside;
  for (uint32_t id = 0; id < nodes_.size(); ++id) {
    if (!isLive(id)) continue;
    chain.clear();
    uint32_t at = id;
    uint8_t verdict = 2;
    while (at < nodes_.size() && chain.size() < kMaxDepth) {
      if (memo[at]) {
        verdict = memo[at];
        break;
      }
      chain.push_back(at);
      at = nodes_[at].parent;
    }
    for (uint32_t c : chain) memo[c] = verdict;
    if (verdict == 1) inside.push_back(id);
  }
  return inside;
}

void WatchTree::setWatch(uint32_t node, int wd) {
  clearWatch(node);
  nodes_[node].wd = wd;
  if (wd >= 0) insertWatch(node);
}

void WatchTree::clearWatch(uint32_t node) {
  if (nodes_[node].wd >= 0) eraseWatch(nodes_[node].wd);
  nodes_[node].wd = -1;
}

uint32_t WatchTree::nodeOfWatch(int wd) const {
  if (watchSlots_.empty() || wd < 0) return kNone;
  const std::size_t mask = watchSlots_.size() - 1;
  for (std::size_t at = slotOf(wd, watchSlots_.size());; at = (at + 1) & mask) {
    uint32_t node = watchSlots_[at];
    if (node == kNone) return kNone;
    if (nodes_[node].wd == wd) return node;
  }
}

void WatchTree::insertWatch(uint32_t node) {
  if ((watchCount_ + 1) * 10 > watchSlots_.size() * 7) growWatchTable();
  const std::size_t mask = watchSlots_.size() - 1;
  std::size_t at = slotOf(nodes_[node].wd, watchSlots_.size());
  while (watchSlots_[at] != kNone) at = (at + 1) & mask;
  watchSlots_[at] = node;
  ++watchCount_;
}

void WatchTree::eraseWatch(int wd) {
  if (watchSlots_.empty()) return;
  const std::size_t mask = watchSlots_.size() - 1;
  std::size_t at = slotOf(wd, watchSlots_.size());
  for (;; at = (at + 1) & mask) {
    if (watchSlots_[at] == kNone) return;
    if (nodes_[watchSlots_[at]].wd == wd) break;
  }
  // Backward-shift deletion: move later members of the probe run into the
  // hole when their home slot does not lie between the hole and them.
  std::size_t hole = at;
  for (std::size_t next = (hole + 1) & mask; watchSlots_[next] != kNone; next = (next + 1) & mask) {
    std::size_t home = slotOf(nodes_[watchSlots_[next]].wd, watchSlots_.size());
    bool movable = hole <= next ? (home <= hole || home > next) : (home <= hole && home > next);
    if (movable) {
      watchSlots_[hole] = watchSlots_[next];
      hole = next;
    }
  }
  watchSlots_[hole] = kNone;
  --watchCount_;
}

void WatchTree::growWatchTable() {
  std::vector<uint32_t> old = std::move(watchSlots_);
  watchSlots_.assign(std::max<std::size_t>(64, old.size() * 2), kNone);
  watchCount_ = 0;
  for (uint32_t node : old) {
    if (node != kNone) insertWatch(node);
  }
}

std::size_t WatchTree::bytesUsed() const {
  return nodes_.capacity() * sizeof(Node) + names_.capacity() + watchSlots_.capacity() * sizeof(uint32_t);
}

void WatchTree::trimStorage() {
  if (nodes_.capacity() * 4 > nodes_.size() * 5) nodes_.shrink_to_fit();
  if (names_.capacity() * 4 > names_.size() * 5) names_.shrink_to_fit();
}

}  // namespace quorvi
