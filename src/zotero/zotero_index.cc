#include "zotero/zotero_index.h"

#include <algorithm>
#include <unordered_set>

#include "common/dispatch.h"
#include "pinyin/pinyin_mapper.h"

namespace quorvi {

namespace {

std::string withoutStoragePrefix(std::string path) {
  static const std::string prefix = "storage:";
  for (size_t at = path.find(prefix); at != std::string::npos; at = path.find(prefix, at))
    path.erase(at, prefix.size());
  return path;
}

// A library's display name and its keyword form, shared by its entries.
struct LibraryName {
  std::string name;
  std::string keyword;
};

// A collection's path ("Own/Parent/Root") and its keyword form.
struct CollectionPath {
  std::string path;
  std::string keyword;
};

}  // namespace

// Joins one database's rows. Everything entries share (type names, library
// names, collection paths and their keyword forms) is worked out first; the
// items are then joined in chunks on the background pool, each chunk writing its
// entries' JSON per library, and the chunks are laid end to end in order.
class ZoteroIndexBuilder {
 public:
  ZoteroIndexBuilder(ZoteroDatabase& db, const ZoteroTables& tables);
  ZoteroIndex build();

 private:
  struct Chunk {
    std::vector<Bytes> groupJSON;  // by library slot
    std::vector<std::size_t> groupCount;
    std::vector<int64_t> indexedItems;
  };
  void buildChunk(std::size_t begin, std::size_t end, Chunk& chunk) const;
  // Fills entry (reusing its storage); false when the item is left out.
  bool fill(const ZoteroItemRef& item, ZoteroEntry& entry, std::size_t& slot) const;
  std::optional<std::string_view> title(std::span<const ZoteroItemIdentifiers> rows) const;
  std::string itemTypeText(int64_t itemTypeID) const;
  std::optional<std::string> pathOf(int64_t collectionID) const;
  std::size_t slotOfLibraryName(const std::string& name);
  ZoteroIndex assemble(std::vector<Chunk>& chunks);

  ZoteroDatabase& db_;
  std::unordered_map<int64_t, std::string> fieldKeys_;
  std::unordered_set<int64_t> titleFieldIDs_;
  std::unordered_map<int64_t, std::string> itemTypes_;
  std::unordered_map<int64_t, CollectionPath> paths_;  // only collections that exist
  std::vector<LibraryName> libraries_;                 // by slot
  std::unordered_map<int64_t, std::size_t> slotOfLibraryID_;
  std::size_t ownSlot_ = 0;
  const StringTable& categories_;
};

ZoteroIndexBuilder::ZoteroIndexBuilder(ZoteroDatabase& db, const ZoteroTables& tables)
    : db_(db), categories_(tables.localizedCategories) {
  for (const auto& [id, name] : db.fieldNames) {
    auto key = tables.localizedFields.find(name);
    fieldKeys_.emplace(id, key != tables.localizedFields.end() ? key->second : name);
    if (isZoteroTitleField(name)) titleFieldIDs_.insert(id);
  }
  for (const auto& item : db.items) {
    if (!itemTypes_.count(item.itemTypeID)) itemTypes_.emplace(item.itemTypeID, itemTypeText(item.itemTypeID));
  }
  // Paths only for the collections that hold items: a library may keep
  // thousands of empty nested collections, and each path costs its depth.
  for (const auto& [itemID, membership] : db.collectionItems) {
    int64_t id = membership.collectionID;
    if (paths_.count(id)) continue;
    auto path = pathOf(id);
    if (!path) continue;
    std::string keyword = keywordForm(*path);
    paths_.emplace(id, CollectionPath{std::move(*path), std::move(keyword)});
  }
  ownSlot_ = slotOfLibraryName(kZoteroMyLibrary);
  for (const auto& [libraryID, name] : db.groupNames) slotOfLibraryID_[libraryID] = slotOfLibraryName(name);
}

std::size_t ZoteroIndexBuilder::slotOfLibraryName(const std::string& name) {
  for (std::size_t slot = 0; slot < libraries_.size(); ++slot)
    if (libraries_[slot].name == name) return slot;
  libraries_.push_back({name, keywordForm(name)});
  return libraries_.size() - 1;
}

// The item's title field when it has one with a value (older libraries number
// url before title, so the first row is often a URL); else the first row.
std::optional<std::string_view> ZoteroIndexBuilder::title(std::span<const ZoteroItemIdentifiers> rows) const {
  for (const auto& row : rows) {
    if (!titleFieldIDs_.count(row.fieldID)) continue;
    if (auto text = db_.values.find(row.valueID)) return text;
  }
  return db_.values.find(rows.front().valueID);
}

std::string ZoteroIndexBuilder::itemTypeText(int64_t itemTypeID) const {
  std::string name = "Unknown";
  auto type = db_.itemTypeNames.find(itemTypeID);
  if (type != db_.itemTypeNames.end()) name = type->second;
  auto localized = categories_.find(name);
  return localized != categories_.end() ? localized->second : name;
}

// A parent missing from the map, one already on the path (a cycle), or one
// past kMaxZoteroCollectionDepth levels ends the path there. Each step costs
// its name and one set look-up, so a path costs its length, never more.
std::optional<std::string> ZoteroIndexBuilder::pathOf(int64_t collectionID) const {
  auto current = db_.collections.find(collectionID);
  if (current == db_.collections.end()) return std::nullopt;
  std::string path = current->second.name;
  std::unordered_set<int64_t> visited{collectionID};
  for (std::size_t depth = 1; depth < kMaxZoteroCollectionDepth; ++depth) {
    int64_t parentID = current->second.parentID;
    if (parentID == 0 || !visited.insert(parentID).second) break;
    auto parent = db_.collections.find(parentID);
    if (parent == db_.collections.end()) break;
    path += '/';
    path += parent->second.name;
    current = parent;
  }
  return path;
}

bool ZoteroIndexBuilder::fill(const ZoteroItemRef& item, ZoteroEntry& entry, std::size_t& slot) const {
  if (db_.deletedItemIDs.count(item.itemID)) return false;
  auto rows = db_.itemData.rowsOf(item.itemID);
  if (rows.empty()) return false;
  auto titleText = title(rows);
  if (!titleText) return false;

  entry.itemID = item.itemID;
  entry.title.assign(*titleText);
  entry.itemType = itemTypes_.at(item.itemTypeID);
  const CollectionPath* path = nullptr;
  auto membership = db_.collectionItems.find(item.itemID);
  if (membership != db_.collectionItems.end()) {
    auto found = paths_.find(membership->second.collectionID);
    if (found != paths_.end()) path = &found->second;
  }
  entry.collectionPath.reset();
  if (path) entry.collectionPath = path->path;
  auto group = slotOfLibraryID_.find(item.libraryID);
  slot = group != slotOfLibraryID_.end() ? group->second : ownSlot_;
  entry.library = libraries_[slot].name;
  auto attachment = db_.attachments.find(item.itemID);
  entry.attachment.reset();
  if (attachment != db_.attachments.end()) entry.attachment = attachment->second;

  std::string& keyword = entry.searchKeyword;
  keyword.clear();
  auto addPart = [&keyword](const std::string& part) {
    if (part.empty()) return;
    if (!keyword.empty()) keyword += '_';
    keyword += part;
  };
  addPart(keywordForm(entry.title));
  addPart(libraries_[slot].keyword);
  if (path) addPart(path->keyword);
  if (entry.attachment) addPart(keywordForm(withoutStoragePrefix(entry.attachment->path)));
  entry.key = item.key;
  entry.libraryID = item.libraryID;
  entry.collectionOrderIndex = 0;
  return true;
}

void ZoteroIndexBuilder::buildChunk(std::size_t begin, std::size_t end, Chunk& chunk) const {
  chunk.groupJSON.resize(libraries_.size());
  chunk.groupCount.assign(libraries_.size(), 0);
  chunk.groupJSON[ownSlot_].reserve((end - begin) * 320);
  ZoteroEntry entry;
  for (std::size_t i = begin; i < end; ++i) {
    std::size_t slot = 0;
    if (!fill(db_.items[i], entry, slot)) continue;
    if (chunk.groupCount[slot]++) chunk.groupJSON[slot] += ',';
    appendZoteroEntry(chunk.groupJSON[slot], entry);
    chunk.indexedItems.push_back(entry.itemID);
  }
}

ZoteroIndex ZoteroIndexBuilder::build() {
  constexpr std::size_t kItemsPerChunk = 8192;
  std::size_t itemCount = db_.items.size();
  std::size_t chunkCount = std::max<std::size_t>(1, (itemCount + kItemsPerChunk - 1) / kItemsPerChunk);
  std::vector<Chunk> chunks(chunkCount);
  auto work = [&](std::size_t c) {
    std::size_t begin = c * itemCount / chunkCount, end = (c + 1) * itemCount / chunkCount;
    buildChunk(begin, end, chunks[c]);
  };
  if (chunkCount == 1) {
    work(0);
  } else {
    concurrentPerform(chunkCount, work, QualityOfService::background);
  }
  return assemble(chunks);
}

// Groups with entries, own library first, then by plain string order
// ("Alpha" before "beta"); inside a group, entries in the items' order.
ZoteroIndex ZoteroIndexBuilder::assemble(std::vector<Chunk>& chunks) {
  std::vector<std::size_t> order(libraries_.size());
  for (std::size_t slot = 0; slot < order.size(); ++slot) order[slot] = slot;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    bool aOwn = a == ownSlot_, bOwn = b == ownSlot_;
    if (aOwn != bOwn) return aOwn;
    return libraries_[a].name < libraries_[b].name;
  });
  ZoteroIndex index;
  std::size_t size = 2;
  for (const auto& chunk : chunks)
    for (std::size_t slot = 0; slot < libraries_.size(); ++slot) size += chunk.groupJSON[slot].size() + 64;
  index.groupsJSON.reserve(size);
  index.groupsJSON += '[';
  bool firstGroup = true;
  for (std::size_t slot : order) {
    std::size_t count = 0;
    for (const auto& chunk : chunks) count += chunk.groupCount[slot];
    if (count == 0) continue;
    if (!firstGroup) index.groupsJSON += ',';
    firstGroup = false;
    index.groupsJSON += "{\"library\":";
    appendZoteroString(index.groupsJSON, libraries_[slot].name);
    index.groupsJSON += ",\"entries\":[";
    bool firstChunk = true;
    for (auto& chunk : chunks) {
      if (chunk.groupCount[slot] == 0) continue;
      if (!firstChunk) index.groupsJSON += ',';
      firstChunk = false;
      index.groupsJSON += chunk.groupJSON[slot];
      Bytes().swap(chunk.groupJSON[slot]);
    }
    index.groupsJSON += "]}";
    index.entryCount += count;
  }
  index.groupsJSON += ']';

  std::vector<int64_t> indexed;
  indexed.reserve(index.entryCount);
  for (const auto& chunk : chunks) indexed.insert(indexed.end(), chunk.indexedItems.begin(), chunk.indexedItems.end());
  std::sort(indexed.begin(), indexed.end());
  index.attributes.indexedItems_ = std::move(indexed);
  index.attributes.fieldKeys_ = std::move(fieldKeys_);
  index.attributes.values_ = std::move(db_.values);
  index.attributes.rows_ = std::move(db_.itemData);
  return index;
}

ZoteroIndex buildZoteroIndex(ZoteroDatabase database, const ZoteroTables& tables) {
  return ZoteroIndexBuilder(database, tables).build();
}

// The rows whose value and field are both known, in table order.
std::optional<std::vector<ZoteroAttribute>> ZoteroAttributeStore::attributesOf(int64_t itemID) const {
  if (!std::binary_search(indexedItems_.begin(), indexedItems_.end(), itemID)) return std::nullopt;
  std::vector<ZoteroAttribute> attributes;
  for (const auto& row : rows_.rowsOf(itemID)) {
    auto text = values_.find(row.valueID);
    auto field = fieldKeys_.find(row.fieldID);
    if (text && field != fieldKeys_.end()) attributes.push_back({field->second, row.fieldID, std::string(*text)});
  }
  return attributes;
}

}  // namespace quorvi
