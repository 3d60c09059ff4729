#include "fileindex/file_table.h"

#include <algorithm>
#include <cstring>

namespace quorvi {

uint32_t FolderTree::addRoot(std::string_view path) { return add(kNoParent, path); }

uint32_t FolderTree::add(uint32_t parent, std::string_view name) {
  uint32_t id = static_cast<uint32_t>(parent_.size());
  set(id, parent, name);
  return id;
}

void FolderTree::set(uint32_t id, uint32_t parent, std::string_view name) {
  if (id >= parent_.size()) {
    parent_.resize(id + 1, kNoParent);
    nameOffset_.resize(id + 1, 0);
  }
  parent_[id] = parent;
  nameOffset_[id] = static_cast<uint32_t>(names_.size());
  names_.append(name);
  names_.push_back('\0');
}

std::string FolderTree::pathOf(uint32_t id) const {
  const char* parts[512];
  std::size_t count = 0;
  // The parent chain is finite by construction; the bound only guards against
  // a damaged tree ever looping.
  for (uint32_t at = id; at < parent_.size() && count < 512; at = parent_[at]) {
    parts[count++] = names_.data() + nameOffset_[at];
    if (parent_[at] == kNoParent) break;
  }
  std::string path;
  for (std::size_t k = count; k-- > 0;) {
    if (k + 1 != count && (path.empty() || path.back() != '/')) path.push_back('/');
    path += parts[k];
  }
  return path;
}

std::vector<std::string> FolderTree::allPaths() const {
  std::vector<std::string> paths(parent_.size());
  std::vector<uint8_t> done(parent_.size(), 0);
  std::vector<uint32_t> chain;
  for (uint32_t id = 0; id < parent_.size(); ++id) {
    if (done[id]) continue;
    chain.clear();
    uint32_t at = id;
    while (at < parent_.size() && !done[at] && chain.size() < 4096) {
      chain.push_back(at);
      at = parent_[at];
    }
    for (std::size_t k = chain.size(); k-- > 0;) {
      uint32_t node = chain[k];
      uint32_t parent = parent_[node];
      const char* name = names_.data() + nameOffset_[node];
      if (parent == kNoParent || parent >= parent_.size()) {
        paths[node] = name;
      } else {
        const std::string& base = paths[parent];
        paths[node].reserve(base.size() + 1 + std::strlen(name));
        paths[node] = base;
        if (base.empty() || base.back() != '/') paths[node].push_back('/');
        paths[node] += name;
      }
      done[node] = 1;
    }
  }
  return paths;
}

std::size_t FolderTree::bytesUsed() const {
  return parent_.capacity() * 4 + nameOffset_.capacity() * 4 + names_.capacity();
}

void FolderTree::shrink() {
  parent_.shrink_to_fit();
  nameOffset_.shrink_to_fit();
  names_.shrink_to_fit();
}

namespace {

bool isAsciiUpper(char c) { return c >= 'A' && c <= 'Z'; }

// The lower case of a name when it differs from the name in ASCII letters
// only: the name can then be rebuilt from its lower case and the positions
// of its upper-case letters.
bool lowersByAsciiOnly(std::string_view name, std::string_view text, std::size_t& upperCount) {
  if (name.size() > 255 || text.size() < name.size()) return false;
  if (text.size() > name.size() && text[name.size()] != ' ') return false;
  upperCount = 0;
  for (std::size_t k = 0; k < name.size(); ++k) {
    char c = name[k];
    if (isAsciiUpper(c)) {
      if (text[k] != c + 32) return false;
      ++upperCount;
    } else if (text[k] != c) {
      return false;
    }
  }
  return upperCount <= 255;
}

uint32_t clampedSeconds(double seconds) {
  if (!(seconds > 0)) return 0;
  if (seconds >= 4294967295.0) return UINT32_MAX;
  return static_cast<uint32_t>(seconds);
}

}  // namespace

std::string FileTable::name(std::size_t i) const {
  std::string_view text = matchText(i);
  if (flags_[i] & kNameIsMatchText) return std::string(text);
  const char* extra = matchCString(i) + text.size() + 1;
  const char* regionEnd = arena_.data() + textOffset_[i + 1];
  if (flags_[i] & kNameFromMask) {
    auto length = static_cast<uint8_t>(extra[0]);
    auto count = static_cast<uint8_t>(extra[1]);
    std::string name(text.substr(0, length));
    for (std::size_t k = 0; k < count; ++k) {
      auto at = static_cast<uint8_t>(extra[2 + k]);
      if (at < name.size()) name[at] = static_cast<char>(name[at] - 32);
    }
    return name;
  }
  return std::string(extra, static_cast<std::size_t>(regionEnd - extra));
}

bool FileTable::nameEquals(std::size_t i, std::string_view candidate) const {
  if (flags_[i] & kNameIsMatchText) return matchText(i) == candidate;
  if (flags_[i] & kNameFromMask) {
    const char* text = matchCString(i);
    const char* extra = text + std::strlen(text) + 1;
    if (static_cast<uint8_t>(extra[0]) != candidate.size()) return false;
    // Equal ignoring ASCII case first; the exact name only then.
    for (std::size_t k = 0; k < candidate.size(); ++k) {
      char c = candidate[k];
      if (isAsciiUpper(c)) c = static_cast<char>(c + 32);
      if (text[k] != c) return false;
    }
  }
  return name(i) == candidate;
}

std::string FileTable::path(std::size_t i) const {
  std::string path = folders_->pathOf(folder_[i]);
  if (path.empty() || path.back() != '/') path.push_back('/');
  path += name(i);
  return path;
}

File FileTable::file(std::size_t i) const {
  File file;
  file.nameOfDisplay = name(i);
  file.fileRefURL = reference(i);
  file.isDirectory = isDirectory(i);
  file.lastUsedTimestamp = lastUsed_[i];
  file.cmatchs = CStringRef(matchText(i));
  return file;
}

std::size_t FileTable::recordAt(std::size_t arenaOffset) const {
  auto it = std::upper_bound(textOffset_.begin(), textOffset_.end() - 1, static_cast<uint32_t>(arenaOffset));
  return static_cast<std::size_t>(it - textOffset_.begin()) - 1;
}

std::size_t FileTable::bytesUsed() const {
  return arena_.capacity() + textOffset_.capacity() * 4 + lastUsed_.capacity() * 4 + inode_.capacity() * 4 +
         inodeWide_.capacity() * 8 + folder_.capacity() * 4 + flags_.capacity() + device_.capacity() * 2 +
         devices_.capacity() * 8 + folders_->bytesUsed();
}

FileTable::Builder::Builder(std::shared_ptr<const FolderTree> folders) : table_(std::make_shared<FileTable>()) {
  table_->folders_ = std::move(folders);
  table_->textOffset_.push_back(0);
}

void FileTable::Builder::reserve(std::size_t records, std::size_t textBytes) {
  FileTable& t = *table_;
  t.arena_.reserve(textBytes);
  t.textOffset_.reserve(records + 1);
  t.lastUsed_.reserve(records);
  t.inode_.reserve(records);
  t.folder_.reserve(records);
  t.flags_.reserve(records);
  t.device_.reserve(records);
}

uint16_t FileTable::Builder::deviceIndex(uint64_t device) {
  auto& devices = table_->devices_;
  if (!devices.empty() && devices[lastDevice_] == device) return lastDevice_;
  for (std::size_t k = devices.size(); k-- > 0;) {
    if (devices[k] == device) return lastDevice_ = static_cast<uint16_t>(k);
  }
  // More devices than the column can name: the extra ones share the last slot,
  // whose device matches nothing, so such records are never reported as
  // reachable rather than reported with a wrong identity.
  if (devices.size() >= UINT16_MAX) return UINT16_MAX - 1;
  devices.push_back(device);
  if (devices.size() == UINT16_MAX) devices.back() = UINT64_MAX;
  return lastDevice_ = static_cast<uint16_t>(devices.size() - 1);
}

void FileTable::Builder::append(const FileRow& row) {
  FileTable& t = *table_;
  // A C string ends at its first NUL; the arena must agree with strstr.
  std::string_view text = row.matchText.substr(0, row.matchText.find('\0'));
  if (t.arena_.size() + text.size() + row.name.size() + 260 > UINT32_MAX) return;  // beyond 32-bit offsets
  t.arena_.append(text);
  t.arena_.push_back('\0');
  uint8_t flags = row.isDirectory ? kDirectory : 0;
  std::size_t upperCount = 0;
  if (row.name == text) {
    flags |= kNameIsMatchText;
  } else if (lowersByAsciiOnly(row.name, text, upperCount)) {
    flags |= kNameFromMask;
    t.arena_.push_back(static_cast<char>(row.name.size()));
    t.arena_.push_back(static_cast<char>(upperCount));
    for (std::size_t k = 0; k < row.name.size(); ++k) {
      if (isAsciiUpper(row.name[k])) t.arena_.push_back(static_cast<char>(k));
    }
  } else {
    t.arena_.append(row.name);
  }
  t.textOffset_.push_back(static_cast<uint32_t>(t.arena_.size()));
  t.lastUsed_.push_back(clampedSeconds(row.lastUsedTimestamp));
  if (t.inodeWide_.empty() && row.inode > UINT32_MAX) {
    t.inodeWide_.assign(t.inode_.begin(), t.inode_.end());
    t.inode_.clear();
    t.inode_.shrink_to_fit();
  }
  if (t.inodeWide_.empty()) {
    t.inode_.push_back(static_cast<uint32_t>(row.inode));
  } else {
    t.inodeWide_.push_back(row.inode);
  }
  t.folder_.push_back(row.folder);
  t.flags_.push_back(flags);
  t.device_.push_back(deviceIndex(row.device));
}

void FileTable::Builder::appendFrom(const FileTable& table, std::size_t i) {
  std::string name = table.name(i);
  FileRow row;
  row.folder = table.folder_[i];
  row.lastUsedTimestamp = table.lastUsed_[i];
  row.device = table.device(i);
  row.inode = table.inode(i);
  row.isDirectory = table.isDirectory(i);
  row.name = name;
  row.matchText = table.matchText(i);
  append(row);
}

FileTableRef FileTable::Builder::finish() {
  FileTable& t = *table_;
  t.arena_.shrink_to_fit();
  t.textOffset_.shrink_to_fit();
  t.lastUsed_.shrink_to_fit();
  t.inode_.shrink_to_fit();
  t.inodeWide_.shrink_to_fit();
  t.folder_.shrink_to_fit();
  t.flags_.shrink_to_fit();
  t.device_.shrink_to_fit();
  FileTableRef done = std::move(table_);
  table_ = std::make_shared<FileTable>();
  table_->textOffset_.push_back(0);
  return done;
}

}  // namespace quorvi
