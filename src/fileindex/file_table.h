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
//  - paths as a tree of folders (parent id + name), shared between tables.
// Records keep the index's order (newest first after a run). A table never
// changes once built: a change builds a new table and swaps it in, so a search
// holds its table for as long as it likes without a lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fileindex/file.h"

namespace quorvi {

// Every folder whose entries the index holds: an id per folder, with its
// parent's id and its name. A root (a scope) has no parent and its name is its
// whole path.
class FolderTree {
 public:
  static constexpr uint32_t kNoParent = UINT32_MAX;

  uint32_t addRoot(std::string_view path);
  uint32_t add(uint32_t parent, std::string_view name);
  // Adds a folder under a caller-chosen id (ids given out in parallel).
  void set(uint32_t id, uint32_t parent, std::string_view name);
  std::size_t size() const { return parent_.size(); }
  std::string pathOf(uint32_t id) const;
  // Paths of every folder, computed once (ids index the result).
  std::vector<std::string> allPaths() const;
  std::size_t bytesUsed() const;
  void shrink();

 private:
  std::vector<uint32_t> parent_;
  std::vector<uint32_t> nameOffset_;
  std::string names_;  // NUL-terminated names
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

class FileTable {
 public:
  FileTable() : folders_(std::make_shared<FolderTree>()) {}

  std::size_t size() const { return flags_.size(); }
  bool empty() const { return flags_.empty(); }

  const char* matchCString(std::size_t i) const { return arena_.data() + textOffset_[i]; }
  std::string_view matchText(std::size_t i) const { return std::string_view(matchCString(i)); }
  std::string name(std::size_t i) const;
  // name(i) == text, without building the name when it can be avoided.
  bool nameEquals(std::size_t i, std::string_view text) const;
  std::string path(std::size_t i) const;
  uint32_t folderOf(std::size_t i) const { return folder_[i]; }
  bool isDirectory(std::size_t i) const { return flags_[i] & kDirectory; }
  double lastUsedTimestamp(std::size_t i) const { return lastUsed_[i]; }
  uint64_t inode(std::size_t i) const { return inodeWide_.empty() ? inode_[i] : inodeWide_[i]; }
  uint64_t device(std::size_t i) const { return devices_[device_[i]]; }
  FileReference reference(std::size_t i) const { return {device(i), inode(i), path(i)}; }
  File file(std::size_t i) const;

  // The record regions back to back; record i's region (its match text
  // first) starts at textOffset(i). textOffset(size()) is the arena's length.
  std::string_view arena() const { return std::string_view(arena_.data(), arena_.size()); }
  uint32_t textOffset(std::size_t i) const { return textOffset_[i]; }
  // The record whose text holds the arena offset.
  std::size_t recordAt(std::size_t arenaOffset) const;

  const FolderTree& folders() const { return *folders_; }
  std::shared_ptr<const FolderTree> sharedFolders() const { return folders_; }
  std::size_t bytesUsed() const;

  class Builder;

 private:
  static constexpr uint8_t kDirectory = 1;
  static constexpr uint8_t kNameIsMatchText = 2;  // the match text is the name
  static constexpr uint8_t kNameFromMask = 4;     // [length][count][upper-case positions] after the NUL
                                                  // otherwise the raw name follows the NUL

  std::shared_ptr<const FolderTree> folders_;
  std::string arena_;
  std::vector<uint32_t> textOffset_;  // size()+1 entries
  std::vector<uint32_t> lastUsed_;    // seconds since 1970
  std::vector<uint32_t> inode_;       // used while every inode fits
  std::vector<uint64_t> inodeWide_;   // used once one does not
  std::vector<uint32_t> folder_;
  std::vector<uint8_t> flags_;
  std::vector<uint16_t> device_;      // index into devices_
  std::vector<uint64_t> devices_;
};

using FileTableRef = std::shared_ptr<const FileTable>;

class FileTable::Builder {
 public:
  explicit Builder(std::shared_ptr<const FolderTree> folders);
  void reserve(std::size_t records, std::size_t textBytes);
  void append(const FileRow& row);
  // Copies record i of another table that shares this builder's folder ids.
  void appendFrom(const FileTable& table, std::size_t i);
  std::size_t size() const { return table_->flags_.size(); }
  FileTableRef finish();

 private:
  uint16_t deviceIndex(uint64_t device);
  std::shared_ptr<FileTable> table_;
  uint16_t lastDevice_ = 0;
};

}  // namespace quorvi
