// FileTable: the compact, immutable storage of the index's records.
//
// A File as the rest of the system sees it (name, reference, folder flag,
// time, match text) is about 150 bytes as separate objects; at a million
// files that is most of a gigabyte. The table keeps the same records in
// columns instead:
//  - one arena of match texts, each NUL-terminated, in record order, so a
//    search streams through contiguous memory and a hit's record is found
//    from its offset;
//  - fixed-size columns (text offset, time, inode, folder id, flags, device
//    index): 27 bytes a record;
//  - the display name only where it differs from the match text (upper-case
//    letters, Chinese names, bytes that are not UTF-8), in a sparse side list;
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

  std::size_t size() const { return inode_.size(); }
  bool empty() const { return inode_.empty(); }

  const char* matchCString(std::size_t i) const { return arena_.data() + textOffset_[i]; }
  std::string_view matchText(std::size_t i) const {
    return std::string_view(arena_.data() + textOffset_[i], textOffset_[i + 1] - textOffset_[i] - 1);
  }
  std::string_view name(std::size_t i) const;
  std::string path(std::size_t i) const;
  uint32_t folderOf(std::size_t i) const { return folder_[i]; }
  bool isDirectory(std::size_t i) const { return flags_[i] & kDirectory; }
  double lastUsedTimestamp(std::size_t i) const { return lastUsed_[i]; }
  uint64_t device(std::size_t i) const { return devices_[device_[i]]; }
  uint64_t inode(std::size_t i) const { return inode_[i]; }
  FileReference reference(std::size_t i) const { return {device(i), inode(i), path(i)}; }
  File file(std::size_t i) const;

  // The match texts back to back, each with its NUL; record i's text starts
  // at textOffset(i). textOffset(size()) is the arena's length.
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
  static constexpr uint8_t kNameIsMatchText = 2;

  std::shared_ptr<const FolderTree> folders_;
  std::string arena_;
  std::vector<uint32_t> textOffset_;  // size()+1 entries
  std::vector<double> lastUsed_;
  std::vector<uint64_t> inode_;
  std::vector<uint32_t> folder_;
  std::vector<uint8_t> flags_;
  std::vector<uint16_t> device_;      // index into devices_
  std::vector<uint64_t> devices_;
  // Names that differ from their match text: (record, offset in names_).
  std::vector<std::pair<uint32_t, uint32_t>> separateNames_;
  std::string names_;
};

using FileTableRef = std::shared_ptr<const FileTable>;

class FileTable::Builder {
 public:
  explicit Builder(std::shared_ptr<const FolderTree> folders);
  void reserve(std::size_t records, std::size_t textBytes);
  void append(const FileRow& row);
  // Copies record i of another table that shares this builder's folder ids.
  void appendFrom(const FileTable& table, std::size_t i);
  std::size_t size() const { return table_->inode_.size(); }
  FileTableRef finish();

 private:
  uint16_t deviceIndex(uint64_t device);
  std::shared_ptr<FileTable> table_;
  uint16_t lastDevice_ = 0;
};

}  // namespace quorvi
