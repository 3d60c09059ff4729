#include "fileindex/file_table.h"

#include <algorithm>
#include <cstring>

namespace quorvi {

uint32_t FolderTree::addRoot(std::string_view path) { return add(kNoParent, path); }

uint32_t FolderTree::add(uint32_t parent, std::string_view name) {
  uint32_t id = static_cast<uint32_t>(parent_.size());
  set(id, parent, name);
  indexInsert(id);
  return id;
}

void FolderTree::set(uint32_t id, uint32_t parent, std::string_view name) {
  if (id >= parent_.size()) {
    parent_.resize(id + 1, kDetached);
    nameOffset_.resize(id + 1, 0);
  }
  if (parent_[id] == kNoParent) roots_.erase(std::remove(roots_.begin(), roots_.end(), id), roots_.end());
  parent_[id] = parent;
  nameOffset_[id] = static_cast<uint32_t>(names_.size());
  names_.append(name);
  names_.push_back('\0');
  if (parent == kNoParent) roots_.push_back(id);
}

void FolderTree::finish() {
  parent_.shrink_to_fit();
  nameOffset_.shrink_to_fit();
  names_.shrink_to_fit();
  rebuildIndex(0);
}

std::string_view FolderTree::nameOf(uint32_t id) const { return std::string_view(names_.data() + nameOffset_[id]); }

bool FolderTree::isDetached(uint32_t id) const { return id >= parent_.size() || parent_[id] == kDetached; }

void FolderTree::rename(uint32_t id, uint32_t newParent, std::string_view newName) {
  if (isDetached(id)) return;
  indexErase(id);
  if (parent_[id] == kNoParent) roots_.erase(std::remove(roots_.begin(), roots_.end(), id), roots_.end());
  parent_[id] = newParent;
  nameOffset_[id] = static_cast<uint32_t>(names_.size());
  names_.append(newName);
  names_.push_back('\0');
  if (newParent == kNoParent) roots_.push_back(id);
  indexInsert(id);
}

void FolderTree::detach(uint32_t id) {
  if (isDetached(id)) return;
  indexErase(id);
  if (parent_[id] == kNoParent) roots_.erase(std::remove(roots_.begin(), roots_.end(), id), roots_.end());
  parent_[id] = kDetached;
  ++detached_;
}

std::string FolderTree::pathOf(uint32_t id) const {
  // Deep trees are legal (a path may hold thousands of folders); the bound
  // only guards against a damaged tree looping.
  std::vector<std::string_view> parts;
  for (uint32_t at = id; at < parent_.size() && parts.size() <= parent_.size(); at = parent_[at]) {
    if (parent_[at] == kDetached) return {};
    parts.push_back(nameOf(at));
    if (parent_[at] == kNoParent) break;
  }
  std::string path;
  for (std::size_t k = parts.size(); k-- > 0;) {
    if (k + 1 != parts.size() && (path.empty() || path.back() != '/')) path.push_back('/');
    path.append(parts[k]);
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
    while (at < parent_.size() && !done[at] && chain.size() <= parent_.size()) {
      chain.push_back(at);
      at = parent_[at];
    }
    for (std::size_t k = chain.size(); k-- > 0;) {
      uint32_t node = chain[k];
      uint32_t parent = parent_[node];
      const char* name = names_.data() + nameOffset_[node];
      if (parent == kDetached) {
        paths[node].clear();
      } else if (parent == kNoParent || parent >= parent_.size()) {
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

bool FolderTree::isWithin(uint32_t id, uint32_t ancestor) const {
  std::size_t steps = 0;
  for (uint32_t at = id; at < parent_.size() && steps <= parent_.size(); at = parent_[at], ++steps) {
    if (at == ancestor) return true;
  }
  return false;
}

uint64_t FolderTree::hashOf(uint32_t parent, std::string_view name) const {
  uint64_t hash = 1469598103934665603ull ^ (static_cast<uint64_t>(parent) * 0x9E3779B97F4A7C15ull);
  for (unsigned char c : name) hash = (hash ^ c) * 1099511628211ull;
  return hash ^ (hash >> 29);
}

uint32_t FolderTree::child(uint32_t parent, std::string_view name) const {
  if (slots_.empty()) {
    for (uint32_t id = 0; id < parent_.size(); ++id) {
      if (parent_[id] == parent && nameOf(id) == name) return id;
    }
    return kNotFound;
  }
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = hashOf(parent, name) & mask;; at = (at + 1) & mask) {
    uint32_t id = slots_[at];
    if (id == kNotFound) return kNotFound;
    if (parent_[id] == parent && nameOf(id) == name) return id;
  }
}

uint32_t FolderTree::find(std::string_view path) const {
  // The longest root that the path begins with, then one component at a time.
  uint32_t best = kNotFound;
  std::size_t bestLength = 0;
  for (uint32_t id : roots_) {
    std::string_view root = nameOf(id);
    if (root.size() < bestLength || !path.starts_with(root)) continue;
    if (path.size() != root.size() && root != "/" && path[root.size()] != '/') continue;
    best = id;
    bestLength = root.size();
  }
  if (best == kNotFound) return kNotFound;
  std::size_t at = bestLength;
  uint32_t folder = best;
  while (at < path.size() && folder != kNotFound) {
    if (path[at] == '/') ++at;
    if (at >= path.size()) break;
    std::size_t end = path.find('/', at);
    if (end == std::string_view::npos) end = path.size();
    folder = child(folder, path.substr(at, end - at));
    at = end;
  }
  return folder;
}

void FolderTree::indexInsert(uint32_t id) {
  if (parent_[id] == kDetached) return;
  if (slots_.empty() || (indexed_ + 1) * 4 > slots_.size() * 3) {
    rebuildIndex(std::max<std::size_t>(64, slots_.size() * 2));
    return;  // the rebuild took the new id in
  }
  const std::size_t mask = slots_.size() - 1;
  std::size_t at = hashOf(parent_[id], nameOf(id)) & mask;
  while (slots_[at] != kNotFound) at = (at + 1) & mask;
  slots_[at] = id;
  ++indexed_;
}

void FolderTree::indexErase(uint32_t id) {
  if (slots_.empty() || parent_[id] == kDetached) return;
  const std::size_t mask = slots_.size() - 1;
  std::size_t at = hashOf(parent_[id], nameOf(id)) & mask;
  for (;; at = (at + 1) & mask) {
    if (slots_[at] == kNotFound) return;
    if (slots_[at] == id) break;
  }
  // Backward-shift deletion keeps every probe run unbroken.
  std::size_t hole = at;
  for (std::size_t next = (hole + 1) & mask; slots_[next] != kNotFound; next = (next + 1) & mask) {
    std::size_t home = hashOf(parent_[slots_[next]], nameOf(slots_[next])) & mask;
    bool movable = hole <= next ? (home <= hole || home > next) : (home <= hole && home > next);
    if (movable) {
      slots_[hole] = slots_[next];
      hole = next;
    }
  }
  slots_[hole] = kNotFound;
  --indexed_;
}

void FolderTree::rebuildIndex(std::size_t capacity) {
  std::size_t live = 0;
  for (uint32_t id = 0; id < parent_.size(); ++id) live += parent_[id] != kDetached;
  std::size_t wanted = 64;
  while (wanted * 3 < live * 4 + 4) wanted *= 2;
  slots_.assign(std::max(wanted, capacity), kNotFound);
  indexed_ = 0;
  const std::size_t mask = slots_.size() - 1;
  for (uint32_t id = 0; id < parent_.size(); ++id) {
    if (parent_[id] == kDetached) continue;
    std::size_t at = hashOf(parent_[id], nameOf(id)) & mask;
    while (slots_[at] != kNotFound) at = (at + 1) & mask;
    slots_[at] = id;
    ++indexed_;
  }
}

std::size_t FolderTree::bytesUsed() const {
  return parent_.capacity() * 4 + nameOffset_.capacity() * 4 + names_.capacity() + slots_.capacity() * 4;
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

FileTable::FileTable() : c_(std::make_shared<Columns>()), folders_(std::make_shared<FolderTree>()) {
  auto columns = std::make_shared<Columns>();
  columns->textOffset.push_back(0);
  c_ = std::move(columns);
}

std::string FileTable::name(std::size_t i) const {
  std::string_view text = matchText(i);
  const uint8_t flags = c_->flags[i];
  if (flags & kNameIsMatchText) return std::string(text);
  const char* extra = matchCString(i) + text.size() + 1;
  const char* regionEnd = c_->arena.data() + c_->textOffset[i + 1];
  if (flags & kNameFromMask) {
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
  const uint8_t flags = c_->flags[i];
  if (flags & kNameIsMatchText) return matchText(i) == candidate;
  if (flags & kNameFromMask) {
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
  std::string path = folders_->pathOf(c_->folder[i]);
  if (path.empty()) return path;  // its folder is gone
  if (path.back() != '/') path.push_back('/');
  path += name(i);
  return path;
}

File FileTable::file(std::size_t i) const {
  File file;
  file.nameOfDisplay = name(i);
  file.fileRefURL = reference(i);
  file.isDirectory = isDirectory(i);
  file.lastUsedTimestamp = c_->lastUsed[i];
  file.cmatchs = CStringRef(matchText(i));
  return file;
}

std::size_t FileTable::recordAt(std::size_t arenaOffset) const {
  const auto& offsets = c_->textOffset;
  auto it = std::upper_bound(offsets.begin(), offsets.end() - 1, static_cast<uint32_t>(arenaOffset));
  return static_cast<std::size_t>(it - offsets.begin()) - 1;
}

FileTableRef FileTable::withFolders(std::shared_ptr<const FolderTree> folders) const {
  auto table = std::make_shared<FileTable>(*this);
  table->folders_ = std::move(folders);
  return table;
}

std::size_t FileTable::bytesUsed() const {
  const Columns& c = *c_;
  return c.arena.capacity() + c.textOffset.capacity() * 4 + c.lastUsed.capacity() * 4 + c.inode.capacity() * 4 +
         c.inodeWide.capacity() * 8 + c.folder.capacity() * 4 + c.flags.capacity() + c.device.capacity() * 2 +
         c.devices.capacity() * 8;
}

FileTable::Builder::Builder(std::shared_ptr<const FolderTree> folders)
    : folders_(std::move(folders)), columns_(std::make_shared<Columns>()) {
  columns_->textOffset.push_back(0);
}

void FileTable::Builder::reserve(std::size_t records, std::size_t textBytes) {
  Columns& t = *columns_;
  t.arena.reserve(textBytes);
  t.textOffset.reserve(records + 1);
  t.lastUsed.reserve(records);
  t.inode.reserve(records);
  t.folder.reserve(records);
  t.flags.reserve(records);
  t.device.reserve(records);
}

uint16_t FileTable::Builder::deviceIndex(uint64_t device) {
  auto& devices = columns_->devices;
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
  Columns& t = *columns_;
  // A C string ends at its first NUL; the arena must agree with strstr.
  std::string_view text = row.matchText.substr(0, row.matchText.find('\0'));
  if (t.arena.size() + text.size() + row.name.size() + 260 > UINT32_MAX) return;  // beyond 32-bit offsets
  t.arena.append(text);
  t.arena.push_back('\0');
  uint8_t flags = row.isDirectory ? kDirectory : 0;
  if (!std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; })) flags |= kMatchTextNotAscii;
  std::size_t upperCount = 0;
  if (row.name == text) {
    flags |= kNameIsMatchText;
  } else if (lowersByAsciiOnly(row.name, text, upperCount)) {
    flags |= kNameFromMask;
    t.arena.push_back(static_cast<char>(row.name.size()));
    t.arena.push_back(static_cast<char>(upperCount));
    for (std::size_t k = 0; k < row.name.size(); ++k) {
      if (isAsciiUpper(row.name[k])) t.arena.push_back(static_cast<char>(k));
    }
  } else {
    t.arena.append(row.name);
  }
  t.textOffset.push_back(static_cast<uint32_t>(t.arena.size()));
  t.lastUsed.push_back(clampedSeconds(row.lastUsedTimestamp));
  if (t.inodeWide.empty() && row.inode > UINT32_MAX) {
    t.inodeWide.assign(t.inode.begin(), t.inode.end());
    t.inode.clear();
    t.inode.shrink_to_fit();
  }
  if (t.inodeWide.empty()) {
    t.inode.push_back(static_cast<uint32_t>(row.inode));
  } else {
    t.inodeWide.push_back(row.inode);
  }
  t.folder.push_back(row.folder);
  t.flags.push_back(flags);
  t.device.push_back(deviceIndex(row.device));
}

void FileTable::Builder::appendFrom(const FileTable& table, std::size_t i) { appendFrom(table, i, table.folderOf(i)); }

void FileTable::Builder::appendFrom(const FileTable& table, std::size_t i, uint32_t folder) {
  std::string name = table.name(i);
  FileRow row;
  row.folder = folder;
  row.lastUsedTimestamp = table.lastUsedTimestamp(i);
  row.device = table.device(i);
  row.inode = table.inode(i);
  row.isDirectory = table.isDirectory(i);
  row.name = name;
  row.matchText = table.matchText(i);
  append(row);
}

FileTableRef FileTable::Builder::finish() {
  Columns& t = *columns_;
  t.arena.shrink_to_fit();
  t.textOffset.shrink_to_fit();
  t.lastUsed.shrink_to_fit();
  t.inode.shrink_to_fit();
  t.inodeWide.shrink_to_fit();
  t.folder.shrink_to_fit();
  t.flags.shrink_to_fit();
  t.device.shrink_to_fit();
  auto table = std::make_shared<FileTable>();
  table->c_ = std::move(columns_);
  table->folders_ = folders_;
  columns_ = std::make_shared<Columns>();
  columns_->textOffset.push_back(0);
  return table;
}

}  // namespace quorvi
