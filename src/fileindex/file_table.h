// FileTable: the compact, immutable storage of the index's records.
//
// A File as the rest of the system sees it (name, reference, folder flag,
// time, match text) is about 150 bytes as separate objects; at a million
// files that is most of a gigabyte. The table keeps the same records in
// columns instead:
//  - one arena of per-record regions, in record order: the match text with
//    its NUL, then, only when the display name cannot be read off the match
//    text, what it takes to rebuild it (which letters were upper case, or the
//    raw name when lower-casing changed more than ASCII letters). A search
//    streams through contiguous memory and finds a hit's record from its
//    offset; hits are always confirmed on the C string itself;
//  - fixed-size columns: region offset, time (whole seconds), inode (32 bits
//    unless some inode in the table needs 64), folder id, flags, device
//    index: 19 bytes a record;
//  - paths as a tree of folders (parent id + name), one tree shared by every
//    table of the index.
// Records keep the index's order (newest first after a run). A table never
// changes once built: a change builds a new table (or a new tree, to which
// the tables are re-pointed at no cost) and swaps it in, so a search holds
// what it read for as long as it likes without a lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fileindex/file.h"

namespace quorvi {

// Every folder whose entries the index holds: an id per folder, with its
// parent's id and its name. A root (a scope) has no parent and its name is
// its whole path. Ids stay valid in copies of the tree, so a copy with a
// folder renamed or added serves every table at once.
//
// A lookup by (parent, name) finds a folder's id (open addressing over ids;
// about 5 bytes a folder); folders that were removed are detached: no lookup
// finds them, and their records are gone too.
class FolderTree {
 public:
  static constexpr uint32_t kNoParent = UINT32_MAX;
  static constexpr uint32_t kDetached = UINT32_MAX - 1;
  static constexpr uint32_t kNotFound = UINT32_MAX;

  uint32_t addRoot(std::string_view path);
  uint32_t add(uint32_t parent, std::string_view name);
  // Adds a folder under a caller-chosen id (ids given out in parallel);
  // call finish() once all are set.
  void set(uint32_t id, uint32_t parent, std::string_view name);
  // Trims the storage and builds the lookup.
  void finish();

  // Moves and/or renames a folder; everything below follows.
  void rename(uint32_t id, uint32_t newParent, std::string_view newName);
  // The folder is gone: lookups no longer find it.
  void detach(uint32_t id);

  std::size_t size() const { return parent_.size(); }
  uint32_t parentOf(uint32_t id) const { return parent_[id]; }
  std::string_view nameOf(uint32_t id) const;
  bool isDetached(uint32_t id) const;
  std::string pathOf(uint32_t id) const;
  // Paths of every folder, computed once (ids index the result).
  std::vector<std::string> allPaths() const;

  // The folder named `name` directly in `parent` (kNoParent: the root with
  // that whole path), or kNotFound.
  uint32_t child(uint32_t parent, std::string_view name) const;
  // The folder at an absolute path, or kNotFound.
  uint32_t find(std::string_view path) const;
  // Whether `id` lies at or below `ancestor`.
  bool isWithin(uint32_t id, uint32_t ancestor) const;
  const std::vector<uint32_t>& roots() const { return roots_; }
  // Folders detached, and bytes of names no live folder uses.
  std::size_t detachedCount() const { return detached_; }
  std::size_t bytesUsed() const;

 private:
  uint64_t hashOf(uint32_t parent, std::string_view name) const;
  void indexInsert(uint32_t id);
  void indexErase(uint32_t id);
  void rebuildIndex(std::size_t capacity);

  std::vector<uint32_t> parent_;
  std::vector<uint32_t> nameOffset_;
  std::string names_;  // NUL-terminated names
  std::vector<uint32_t> slots_;  // folder ids or kNotFound
  std::vector<uint32_t> roots_;
  std::size_t indexed_ = 0;
  std::size_t detached_ = 0;
};

// One record on its way into a table.
struct FileRow {
  uint32_t folder = 0;        // id in the FolderTree of the folder holding it
  double lastUsedTimestamp = 0;
  uint64_t device = 0;
  uint64_t inode = 0;
  bool isDirectory = false;
  std::string_view name;       // raw bytes as found on disk
  std::string_view matchText;  // without NUL
};

class FileTable;
using FileTableRef = std::shared_ptr<const FileTable>;

class FileTable {
 public:
  FileTable();

  std::size_t size() const { return c_->flags.size(); }
  bool empty() const { return c_->flags.empty(); }

  const char* matchCString(std::size_t i) const { return c_->arena.data() + c_->textOffset[i]; }
  std::string_view matchText(std::size_t i) const { return std::string_view(matchCString(i)); }
  std::string name(std::size_t i) const;
  // name(i) == text, without building the name when it can be avoided.
  bool nameEquals(std::size_t i, std::string_view text) const;
  std::string path(std::size_t i) const;
  uint32_t folderOf(std::size_t i) const { return c_->folder[i]; }
  bool isDirectory(std::size_t i) const { return c_->flags[i] & kDirectory; }
  // Whether the match text holds a byte above 0x7F (decided when the table
  // was built), so a search can tell without reading the text.
  bool matchTextIsAscii(std::size_t i) const { return !(c_->flags[i] & kMatchTextNotAscii); }
  double lastUsedTimestamp(std::size_t i) const { return c_->lastUsed[i]; }
  uint64_t inode(std::size_t i) const { return c_->inodeWide.empty() ? c_->inode[i] : c_->inodeWide[i]; }
  uint64_t device(std::size_t i) const { return c_->devices[c_->device[i]]; }
  FileReference reference(std::size_t i) const { return {device(i), inode(i), path(i)}; }
  File file(std::size_t i) const;

  // The record regions back to back; record i's region (its match text
  // first) starts at textOffset(i). textOffset(size()) is the arena's length.
  std::string_view arena() const { return std::string_view(c_->arena.data(), c_->arena.size()); }
  uint32_t textOffset(std::size_t i) const { return c_->textOffset[i]; }
  // The record whose text holds the arena offset.
  std::size_t recordAt(std::size_t arenaOffset) const;

  const FolderTree& folders() const { return *folders_; }
  std::shared_ptr<const FolderTree> sharedFolders() const { return folders_; }
  // The same records over another tree (one with the same ids).
  FileTableRef withFolders(std::shared_ptr<const FolderTree> folders) const;
  // Bytes of the records, without the folder tree.
  std::size_t bytesUsed() const;

  class Builder;

 private:
  static constexpr uint8_t kDirectory = 1;
  static constexpr uint8_t kNameIsMatchText = 2;  // the match text is the name
  static constexpr uint8_t kNameFromMask = 4;     // [length][count][upper-case positions] after the NUL
                                                  // otherwise the raw name follows the NUL
  static constexpr uint8_t kMatchTextNotAscii = 8;
  struct Columns {
    std::string arena;
    std::vector<uint32_t> textOffset;  // size()+1 entries
    std::vector<uint32_t> lastUsed;    // seconds since 1970
    std::vector<uint32_t> inode;       // used while every inode fits
    std::vector<uint64_t> inodeWide;   // used once one does not
    std::vector<uint32_t> folder;
    std::vector<uint8_t> flags;
    std::vector<uint16_t> device;      // index into devices
    std::vector<uint64_t> devices;
  };

  std::shared_ptr<const Columns> c_;
  std::shared_ptr<const FolderTree> folders_;
};

class FileTable::Builder {
 public:
  explicit Builder(std::shared_ptr<const FolderTree> folders);
  void reserve(std::size_t records, std::size_t textBytes);
  void append(const FileRow& row);
  // Copies record i of another table, in the folder given (by default its
  // own, when the tables share folder ids).
  void appendFrom(const FileTable& table, std::size_t i);
  void appendFrom(const FileTable& table, std::size_t i, uint32_t folder);
  std::size_t size() const { return columns_->flags.size(); }
  FileTableRef finish();

 private:
  uint16_t deviceIndex(uint64_t device);
  std::shared_ptr<const FolderTree> folders_;
  std::shared_ptr<Columns> columns_;
  uint16_t lastDevice_ = 0;
};

// A table with the rows that are no longer part of the index marked dead:
// removing one record from a million-record table costs a copy of its bit
// set, not of the table. Readers skip dead rows.
struct Segment {
  FileTableRef table;
  std::shared_ptr<const std::vector<uint64_t>> dead;  // a bit per row; null when none is dead
  std::size_t deadCount = 0;

  bool isLive(std::size_t row) const { return !dead || !(((*dead)[row >> 6] >> (row & 63)) & 1); }
  std::size_t liveCount() const { return table->size() - deadCount; }
  const FileTable* operator->() const { return table.get(); }
  const FileTable& operator*() const { return *table; }
};

using FileSegments = std::vector<Segment>;

}  // namespace quorvi
