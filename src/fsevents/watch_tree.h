// WatchTree: every folder the file-events service keeps current, as a compact
// tree (a node per folder: its parent, its name, its inotify watch, the
// watchers that want it and a fingerprint of its modification time).
//
// A home folder may hold a hundred thousand folders or more, so a node is a
// few fixed-size fields in one vector and names live in one arena: about 20
// bytes a folder plus its name, and a few bytes in the watch lookup. A root
// (a path a watcher asked for) has no parent and its name is its whole path,
// so a folder's path is its root's path followed by the names on the way.
//
// Nodes are never moved; a removed node's slot is reused later. A node whose
// folder is gone is marked dead first and freed only once no node points at
// it (collectGarbage), so that paths of nodes below it stay buildable until
// they are cleaned up too.
//
// Not thread-safe: the service touches it on its processing queue only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

class WatchTree {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  enum class State : uint8_t {
    free,      // slot unused
    watched,   // has an inotify watch
    swept,     // kept current by modification-time sweeps
    waiting,   // watched only to see a missing watched path appear below it
    dead,      // its folder is gone; freed once nothing points at it
  };

  struct Node {
    uint32_t parent = kNone;
    uint32_t nameOffset = 0;
    int32_t wd = -1;          // inotify watch descriptor, -1 when none
    uint32_t mtime = 0;       // fingerprint of the folder's modification time
    uint16_t watchers = 0;    // bit per watcher slot that wants this folder
    State state = State::free;
    uint8_t age = 0;          // how long ago the folder last changed: 0 within a
                              // day, then 1 + log2(days), when last looked at
  };

  uint32_t addRoot(std::string_view path, uint16_t watchers);
  uint32_t addChild(uint32_t parent, std::string_view name, uint16_t watchers);
  // Moves a node under another parent and/or renames it.
  void move(uint32_t node, uint32_t newParent, std::string_view newName);
  // Marks the node dead and drops its watch from the lookup.
  void kill(uint32_t node);
  // Frees dead nodes no live node points at; compacts the name arena when
  // most of it is garbage. Returns the number freed.
  std::size_t collectGarbage();

  Node& operator[](uint32_t node) { return nodes_[node]; }
  const Node& operator[](uint32_t node) const { return nodes_[node]; }
  std::size_t capacity() const { return nodes_.size(); }
  std::size_t liveCount() const { return live_; }
  bool isLive(uint32_t node) const {
    return node < nodes_.size() && nodes_[node].state != State::free && nodes_[node].state != State::dead;
  }

  std::string_view nameOf(uint32_t node) const;
  std::string pathOf(uint32_t node) const;
  // The live child of `parent` named `name` (a linear search: used for the
  // rare folder moves and for finding a watched path's node).
  uint32_t findChild(uint32_t parent, std::string_view name) const;
  // The live root whose path is `path`.
  uint32_t findRoot(std::string_view path) const;
  // Steps from the node up to its root.
  uint32_t depthOf(uint32_t node) const;
  // Whether `node` lies at or below `ancestor`.
  bool isWithin(uint32_t node, uint32_t ancestor) const;
  // Every live node at or below `top` (one pass over all nodes).
  std::vector<uint32_t> subtree(uint32_t top) const;

  // The watch lookup.
  void setWatch(uint32_t node, int wd);
  void clearWatch(uint32_t node);
  uint32_t nodeOfWatch(int wd) const;

  // Memory held, for the statistics.
  std::size_t bytesUsed() const;
  // Gives back the room vectors keep for growth when it is more than a
  // quarter of what they hold (after a large subtree is armed).
  void trimStorage();

  static uint32_t fingerprint(int64_t seconds, int64_t nanoseconds);
  static uint8_t ageOf(int64_t modifiedSeconds, int64_t nowSeconds);

 private:
  uint32_t allocate();
  uint32_t storeName(std::string_view name);
  void insertWatch(uint32_t node);
  void eraseWatch(int wd);
  void growWatchTable();

  std::vector<Node> nodes_;
  std::string names_;  // NUL-terminated names
  std::size_t garbageNameBytes_ = 0;
  uint32_t freeList_ = kNone;  // chained through Node::parent
  std::size_t live_ = 0;
  // Open addressing over watch descriptors: each slot holds a node id or
  // kNone; the key is the node's wd. Deletions use backward shifting, so no
  // tombstones accumulate however many watches come and go.
  std::vector<uint32_t> watchSlots_;
  std::size_t watchCount_ = 0;
};

}  // namespace quorvi
