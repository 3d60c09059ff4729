#include "fileindex/index_editor.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

namespace quorvi {

namespace {

constexpr std::size_t kMaxSegments = 12;

bool isStrictlyUnder(std::string_view path, std::string_view folder) {
  if (folder.empty() || path.size() <= folder.size() || path.compare(0, folder.size(), folder) != 0) return false;
  return folder.back() == '/' || path[folder.size()] == '/';
}

std::string parentPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseName(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string keyOf(uint32_t folder, std::string_view name) {
  std::string key = std::to_string(folder);
  key.push_back('/');
  key.append(name);
  return key;
}

// The folder tree of the change: the index's own until the first edit, then
// a copy (ids stay the same, so every table can be pointed at it).
class TreeEdit {
 public:
  explicit TreeEdit(std::shared_ptr<const FolderTree> tree) : shared_(std::move(tree)) {
    if (!shared_) own();
  }
  const FolderTree& view() const { return copy_ ? *copy_ : *shared_; }
  FolderTree& edit() {
    if (!copy_) own();
    return *copy_;
  }
  bool edited() const { return copy_ != nullptr; }
  std::shared_ptr<const FolderTree> result() const { return copy_ ? copy_ : shared_; }

 private:
  void own() { copy_ = shared_ ? std::make_shared<FolderTree>(*shared_) : std::make_shared<FolderTree>(); }
  std::shared_ptr<const FolderTree> shared_;
  std::shared_ptr<FolderTree> copy_;
};

// The entry for the folder at `path`, made (with the entries above it) when
// missing. A folder outside every root becomes a root, and roots inside it
// move under it.
uint32_t ensureFolder(TreeEdit& edit, const std::string& path) {
  uint32_t found = edit.view().find(path);
  if (found != FolderTree::kNotFound) return found;
  FolderTree& tree = edit.edit();
  uint32_t root = FolderTree::kNotFound;
  std::size_t rootLength = 0;
  for (uint32_t r : tree.roots()) {
    std::string_view name = tree.nameOf(r);
    if (isStrictlyUnder(path, name) && name.size() >= rootLength) {
      root = r;
      rootLength = name.size();
    }
  }
  if (root == FolderTree::kNotFound) {
    uint32_t created = tree.addRoot(path);
    std::vector<uint32_t> inner;
    for (uint32_t r : tree.roots()) {
      if (r != created && isStrictlyUnder(tree.nameOf(r), path)) inner.push_back(r);
    }
    for (uint32_t r : inner) {
      std::string innerPath(tree.nameOf(r));
      uint32_t parent = ensureFolder(edit, parentPath(innerPath));
      tree.rename(r, parent, baseName(innerPath));
    }
    return created;
  }
  uint32_t folder = root;
  std::size_t at = rootLength;
  while (at < path.size()) {
    if (path[at] == '/') ++at;
    if (at >= path.size()) break;
    std::size_t end = path.find('/', at);
    if (end == std::string::npos) end = path.size();
    std::string_view name(path.data() + at, end - at);
    uint32_t next = tree.child(folder, name);
    folder = next != FolderTree::kNotFound ? next : tree.add(folder, name);
    at = end;
  }
  return folder;
}

// For every folder id: whether it lies at or below one of `tops`. One pass;
// each parent chain is followed once.
std::vector<uint8_t> foldersWithin(const FolderTree& tree, const std::vector<uint32_t>& tops) {
  std::vector<uint8_t> state(tree.size(), 0);  // 0 unknown, 1 inside, 2 outside
  for (uint32_t top : tops) {
    if (top < state.size()) state[top] = 1;
  }
  if (tops.empty()) return state;
  std::vector<uint32_t> chain;
  for (uint32_t id = 0; id < tree.size(); ++id) {
    if (state[id]) continue;
    chain.clear();
    uint32_t at = id;
    uint8_t verdict = 2;
    while (at < state.size() && chain.size() <= state.size()) {
      if (state[at]) {
        verdict = state[at];
        break;
      }
      chain.push_back(at);
      at = tree.parentOf(at);
    }
    for (uint32_t c : chain) state[c] = verdict;
  }
  for (auto& s : state) s = s == 1;
  return state;
}

struct NewRow {
  double time;
  int source;  // index into walks, or -1 for an upsert
  std::size_t row;
  uint32_t folder;
};

}  // namespace

IndexEditor::Outcome IndexEditor::apply(const Change& change) {
  Outcome outcome;
  if (change.empty()) return outcome;
  FileSegments segments = index_.copy();
  TreeEdit tree(segments.empty() ? nullptr : segments.front()->sharedFolders());
  const std::size_t oldFolders = tree.view().size();
  std::vector<std::string> removed = change.removed;

  // 1. Folders moved: one edit of the tree each.
  std::vector<uint32_t> doomedFolders;  // their records go, and the entries themselves
  for (const auto& [from, to] : change.movedFolders) {
    uint32_t folder = tree.view().find(from);
    if (folder == FolderTree::kNotFound) continue;
    uint32_t parent = tree.view().find(parentPath(to));
    if (parent == FolderTree::kNotFound || tree.view().isWithin(parent, folder)) {
      removed.push_back(from);
      continue;
    }
    const std::string name = baseName(to);
    uint32_t replaced = tree.view().child(parent, name);
    if (replaced != FolderTree::kNotFound && replaced != folder) doomedFolders.push_back(replaced);
    tree.edit().rename(folder, parent, name);
    ++outcome.moved;
  }

  // 2. What goes: removed folders whole, and what lies below a walked folder
  // that replaces it.
  std::unordered_map<uint32_t, std::vector<std::string>> doomedItems;  // folder -> names
  auto doomItem = [&](const std::string& path) {
    uint32_t parent = tree.view().find(parentPath(path));
    if (parent != FolderTree::kNotFound) doomedItems[parent].push_back(baseName(path));
  };
  for (const auto& path : change.unrecorded) doomItem(path);
  for (const auto& path : removed) {
    doomItem(path);
    uint32_t folder = tree.view().find(path);
    if (folder != FolderTree::kNotFound) doomedFolders.push_back(folder);
  }
  std::vector<uint32_t> replacedBelow;  // walked folders: their records go, the entries stay
  for (const auto& walked : change.walked) {
    if (!walked.replaces) continue;
    uint32_t folder = tree.view().find(walked.folder);
    if (folder != FolderTree::kNotFound) replacedBelow.push_back(folder);
  }
  std::vector<uint8_t> detach = foldersWithin(tree.view(), doomedFolders);
  // The children of a replaced folder go with their subtrees.
  std::vector<uint32_t> belowTops;
  if (!replacedBelow.empty()) {
    std::vector<uint8_t> isTop(tree.view().size(), 0);
    for (uint32_t top : replacedBelow) isTop[top] = 1;
    for (uint32_t id = 0; id < tree.view().size(); ++id) {
      uint32_t parent = tree.view().parentOf(id);
      if (parent < isTop.size() && isTop[parent]) belowTops.push_back(id);
    }
  }
  std::vector<uint8_t> detachBelow = foldersWithin(tree.view(), belowTops);
  std::vector<uint8_t> rowsGo(oldFolders, 0);
  for (uint32_t id = 0; id < oldFolders; ++id) {
    if (detach[id] || detachBelow[id]) {
      rowsGo[id] = 1;
      tree.edit().detach(id);
    }
  }
  for (uint32_t top : replacedBelow) rowsGo[top] = 1;

  // 3. Walked folders into the tree: their local folders mapped onto
  // entries, made where missing.
  std::vector<std::vector<uint32_t>> mapping(change.walked.size());
  std::vector<uint8_t> addsMissingIn(oldFolders, 0);  // entries where an add-only walk may meet records
  bool anyAddOnly = false;
  for (std::size_t w = 0; w < change.walked.size(); ++w) {
    const Walked& walked = change.walked[w];
    if (!walked.scan.table || !walked.scan.folders) continue;
    const FolderTree& local = *walked.scan.folders;
    std::vector<uint32_t>& map = mapping[w];
    map.assign(local.size(), FolderTree::kNotFound);
    for (uint32_t id = 0; id < local.size(); ++id) {
      if (local.isDetached(id)) continue;
      uint32_t parent = local.parentOf(id);
      if (parent == FolderTree::kNoParent) {
        map[id] = ensureFolder(tree, std::string(local.nameOf(id)));
      } else if (parent < map.size() && map[parent] != FolderTree::kNotFound) {
        uint32_t existing = tree.view().child(map[parent], local.nameOf(id));
        map[id] = existing != FolderTree::kNotFound ? existing : tree.edit().add(map[parent], local.nameOf(id));
      }
      if (!walked.replaces && map[id] < oldFolders) {
        addsMissingIn[map[id]] = 1;
        anyAddOnly = true;
      }
    }
  }

  // 4. Upserted items replace what their path holds.
  std::vector<uint32_t> upsertFolders(change.upserted.size(), FolderTree::kNotFound);
  for (std::size_t u = 0; u < change.upserted.size(); ++u) {
    const std::string& path = change.upserted[u].path;
    uint32_t parent = tree.view().find(parentPath(path));
    if (parent == FolderTree::kNotFound) continue;  // not below an indexed folder
    upsertFolders[u] = parent;
    doomedItems[parent].push_back(baseName(path));
  }

  // 5. One pass over the records: mark the doomed dead; note what add-only
  // walks must not record again.
  std::vector<uint8_t> hasItems(oldFolders, 0);
  for (const auto& [folder, names] : doomedItems) {
    if (folder < oldFolders) hasItems[folder] = 1;
  }
  std::unordered_set<std::string> present;
  for (auto& segment : segments) {
    const FileTable& table = *segment;
    segment = segmentWithout(segment, [&](std::size_t row) {
      const uint32_t folder = table.folderOf(row);
      if (folder >= oldFolders) return false;
      if (rowsGo[folder]) return true;
      if (hasItems[folder]) {
        for (const auto& name : doomedItems[folder]) {
          if (table.nameEquals(row, name)) return true;
        }
      }
      if (anyAddOnly && addsMissingIn[folder]) present.insert(keyOf(folder, table.name(row)));
      return false;
    }, outcome.removed);
  }

  // 6. The new records, newest first, in a segment of their own.
  std::vector<NewRow> rows;
  // Several sources may name one item (a walk and an upsert below it): the
  // first keeps it.
  const bool severalSources = change.walked.size() + (change.upserted.empty() ? 0 : 1) > 1;
  std::unordered_set<std::string> taken;
  for (std::size_t w = 0; w < change.walked.size(); ++w) {
    const Walked& walked = change.walked[w];
    if (!walked.scan.table) continue;
    const FileTable& table = *walked.scan.table;
    for (std::size_t row = 0; row < table.size(); ++row) {
      uint32_t local = table.folderOf(row);
      if (local >= mapping[w].size() || mapping[w][local] == FolderTree::kNotFound) continue;
      uint32_t folder = mapping[w][local];
      if (!walked.replaces || severalSources) {
        std::string key = keyOf(folder, table.name(row));
        if (present.count(key) || !taken.insert(key).second) continue;
      }
      rows.push_back({table.lastUsedTimestamp(row), static_cast<int>(w), row, folder});
    }
  }
  for (std::size_t u = 0; u < change.upserted.size(); ++u) {
    if (upsertFolders[u] == FolderTree::kNotFound) continue;
    if (severalSources && !taken.insert(keyOf(upsertFolders[u], baseName(change.upserted[u].path))).second) continue;
    rows.push_back({change.upserted[u].row.lastUsedTimestamp, -1, u, upsertFolders[u]});
  }
  std::stable_sort(rows.begin(), rows.end(), [](const NewRow& a, const NewRow& b) { return a.time > b.time; });

  std::shared_ptr<const FolderTree> folders = tree.result();
  FileSegments result;
  if (!rows.empty()) {
    FileTable::Builder builder(folders);
    for (const auto& row : rows) {
      if (row.source >= 0) {
        builder.appendFrom(*change.walked[row.source].scan.table, row.row, row.folder);
        continue;
      }
      const Record& record = change.upserted[row.row];
      const std::string name = baseName(record.path);
      FileRow fileRow;
      fileRow.folder = row.folder;
      fileRow.lastUsedTimestamp = record.row.lastUsedTimestamp;
      fileRow.device = record.row.device;
      fileRow.inode = record.row.inode;
      fileRow.isDirectory = record.row.isDirectory;
      fileRow.name = name;
      fileRow.matchText = record.row.matchText;
      builder.append(fileRow);
    }
    outcome.added = builder.size();
    result.push_back(Segment{builder.finish(), nullptr, 0});
  }
  for (auto& segment : segments) {
    if (segment.liveCount() == 0) continue;
    if (tree.edited()) segment.table = segment->withFolders(folders);
    result.push_back(std::move(segment));
  }
  // With no record left the folders still matter (changes below them are
  // found by path): an empty segment keeps the tree.
  if (result.empty()) result.push_back(Segment{FileTable::Builder(folders).finish(), nullptr, 0});
  index_.replace(std::move(result));
  return outcome;
}

bool IndexEditor::compactIfWorthIt() {
  FileSegments segments = index_.copy();
  if (segments.empty()) return false;
  std::size_t rows = 0, dead = 0;
  for (const auto& segment : segments) {
    rows += segment->size();
    dead += segment.deadCount;
  }
  const FolderTree& tree = segments.front()->folders();
  const bool worth = segments.size() > kMaxSegments || (dead > 1000 && dead * 4 > rows) ||
                     (tree.detachedCount() > 1000 && tree.detachedCount() * 4 > tree.size());
  if (worth) compact();
  return worth;
}

void IndexEditor::compact() {
  FileSegments segments = index_.copy();
  if (segments.empty()) return;
  const FolderTree& old = segments.front()->folders();
  // Live folders, renumbered; a parent may carry a higher id than its child
  // after moves, so ids are given first and the entries set after.
  std::vector<uint32_t> renumber(old.size(), FolderTree::kNotFound);
  uint32_t next = 0;
  for (uint32_t id = 0; id < old.size(); ++id) {
    if (!old.isDetached(id)) renumber[id] = next++;
  }
  auto tree = std::make_shared<FolderTree>();
  for (uint32_t id = 0; id < old.size(); ++id) {
    if (renumber[id] == FolderTree::kNotFound) continue;
    uint32_t parent = old.parentOf(id);
    tree->set(renumber[id], parent == FolderTree::kNoParent ? FolderTree::kNoParent : renumber[parent], old.nameOf(id));
  }
  tree->finish();
  std::vector<NewRow> rows;
  for (std::size_t s = 0; s < segments.size(); ++s) {
    const Segment& segment = segments[s];
    for (std::size_t row = 0; row < segment->size(); ++row) {
      if (!segment.isLive(row)) continue;
      uint32_t folder = segment->folderOf(row);
      if (folder >= renumber.size() || renumber[folder] == FolderTree::kNotFound) continue;
      rows.push_back({segment->lastUsedTimestamp(row), static_cast<int>(s), row, renumber[folder]});
    }
  }
  std::stable_sort(rows.begin(), rows.end(), [](const NewRow& a, const NewRow& b) { return a.time > b.time; });
  FileTable::Builder builder(tree);
  std::size_t textBytes = 0;
  for (const auto& segment : segments) textBytes += segment->arena().size();
  builder.reserve(rows.size(), textBytes);
  for (const auto& row : rows) builder.appendFrom(*segments[row.source], row.row, row.folder);
  rows.clear();
  rows.shrink_to_fit();
  index_.replace({Segment{builder.finish(), nullptr, 0}});
}

}  // namespace quorvi
