#include "zotero/zotero_index.h"

#include <algorithm>
#include <unordered_set>

#include "pinyin/pinyin_mapper.h"

namespace quorvi {

namespace {

// Joins one database's rows; memoises what many items share.
class IndexBuilder {
 public:
  IndexBuilder(const ZoteroDatabase& db, const ZoteroTables& tables) : db_(db), tables_(tables) {
    for (const auto& [id, name] : db.fieldNames) {
      auto key = tables.localizedFields.find(name);
      fieldKeys_.emplace(id, key != tables.localizedFields.end() ? key->second : name);
      if (isZoteroTitleField(name)) titleFieldIDs_.insert(id);
    }
  }

  std::optional<ZoteroEntry> entry(const ZoteroItemRef& item, std::vector<ZoteroAttribute>& attributes);

 private:
  const std::string* value(int64_t valueID) const {
    auto found = db_.values.find(valueID);
    return found == db_.values.end() ? nullptr : &found->second;
  }
  const std::string* title(const std::vector<ZoteroItemIdentifiers>& rows) const;
  std::string itemType(int64_t itemTypeID) const;
  const std::optional<std::string>& collectionPath(int64_t collectionID);
  const std::string& memoKeyword(const std::string& text);

  const ZoteroDatabase& db_;
  const ZoteroTables& tables_;
  std::unordered_map<int64_t, std::string> fieldKeys_;
  std::unordered_set<int64_t> titleFieldIDs_;
  std::unordered_map<int64_t, std::optional<std::string>> paths_;
  std::unordered_map<std::string, std::string> keywords_;
};

// The item's title field when it has one with a value (older libraries number
// url before title, so the first row is often a URL); else the first row.
const std::string* IndexBuilder::title(const std::vector<ZoteroItemIdentifiers>& rows) const {
  for (const auto& row : rows) {
    if (!titleFieldIDs_.count(row.fieldID)) continue;
    if (const std::string* text = value(row.valueID)) return text;
  }
  return value(rows.front().valueID);
}

std::string IndexBuilder::itemType(int64_t itemTypeID) const {
  std::string name = "Unknown";
  auto type = db_.itemTypeNames.find(itemTypeID);
  if (type != db_.itemTypeNames.end()) name = type->second;
  auto localized = tables_.localizedCategories.find(name);
  return localized != tables_.localizedCategories.end() ? localized->second : name;
}

// "Own/Parent/Root". A parent missing from the map, or one already on the
// path (a cycle), ends the path there.
const std::optional<std::string>& IndexBuilder::collectionPath(int64_t collectionID) {
  auto memo = paths_.find(collectionID);
  if (memo != paths_.end()) return memo->second;
  std::optional<std::string> path;
  auto current = db_.collections.find(collectionID);
  if (current != db_.collections.end()) {
    path = current->second.name;
    std::vector<int64_t> visited{collectionID};
    while (current->second.parentID != 0 && current->second.parentID != current->second.collectionID) {
      int64_t parentID = current->second.parentID;
      if (std::find(visited.begin(), visited.end(), parentID) != visited.end()) break;
      auto parent = db_.collections.find(parentID);
      if (parent == db_.collections.end()) break;
      *path += "/" + parent->second.name;
      visited.push_back(parentID);
      current = parent;
    }
  }
  return paths_.emplace(collectionID, std::move(path)).first->second;
}

const std::string& IndexBuilder::memoKeyword(const std::string& text) {
  auto memo = keywords_.find(text);
  if (memo != keywords_.end()) return memo->second;
  return keywords_.emplace(text, keywordForm(text)).first->second;
}

std::string withoutStoragePrefix(std::string path) {
  static const std::string prefix = "storage:";
  for (size_t at = path.find(prefix); at != std::string::npos; at = path.find(prefix, at)) path.erase(at, prefix.size());
  return path;
}

std::optional<ZoteroEntry> IndexBuilder::entry(const ZoteroItemRef& item, std::vector<ZoteroAttribute>& attributes) {
  if (db_.deletedItemIDs.count(item.itemID)) return std::nullopt;
  auto rows = db_.itemData.find(item.itemID);
  if (rows == db_.itemData.end() || rows->second.empty()) return std::nullopt;
  const std::string* titleText = title(rows->second);
  if (!titleText) return std::nullopt;

  ZoteroEntry entry;
  entry.itemID = item.itemID;
  entry.title = *titleText;
  entry.itemType = itemType(item.itemTypeID);
  auto membership = db_.collectionItems.find(item.itemID);
  if (membership != db_.collectionItems.end()) entry.collectionPath = collectionPath(membership->second.collectionID);
  auto group = db_.groupNames.find(item.libraryID);
  entry.library = group != db_.groupNames.end() ? group->second : kZoteroMyLibrary;

  for (const auto& row : rows->second) {
    const std::string* text = value(row.valueID);
    auto field = fieldKeys_.find(row.fieldID);
    if (text && field != fieldKeys_.end()) attributes.push_back({field->second, row.fieldID, *text});
  }
  auto attachment = db_.attachments.find(item.itemID);
  if (attachment != db_.attachments.end()) entry.attachment = attachment->second;

  std::string keyword;
  auto addPart = [&keyword](const std::string& part) {
    if (part.empty()) return;
    if (!keyword.empty()) keyword += '_';
    keyword += part;
  };
  addPart(keywordForm(entry.title));
  addPart(memoKeyword(entry.library));
  if (entry.collectionPath) addPart(memoKeyword(*entry.collectionPath));
  if (entry.attachment) addPart(keywordForm(withoutStoragePrefix(entry.attachment->path)));
  entry.searchKeyword = std::move(keyword);
  entry.key = item.key;
  entry.libraryID = item.libraryID;
  return entry;
}

}  // namespace

ZoteroIndex buildZoteroIndex(const ZoteroDatabase& database, const ZoteroTables& tables) {
  IndexBuilder builder(database, tables);
  ZoteroIndex index;
  std::unordered_map<std::string, size_t> groupOfLibrary;
  index.itemAttributes.reserve(database.items.size());
  for (const auto& item : database.items) {
    std::vector<ZoteroAttribute> attributes;
    auto entry = builder.entry(item, attributes);
    if (!entry) continue;
    index.itemAttributes[item.itemID] = std::move(attributes);
    auto [slot, added] = groupOfLibrary.emplace(entry->library, index.groups.size());
    if (added) index.groups.push_back({entry->library, {}});
    index.groups[slot->second].entries.push_back(std::move(*entry));
  }
  std::stable_sort(index.groups.begin(), index.groups.end(), [](const ZoteroGroup& a, const ZoteroGroup& b) {
    bool aOwn = a.library == kZoteroMyLibrary, bOwn = b.library == kZoteroMyLibrary;
    if (aOwn != bOwn) return aOwn;
    return a.library < b.library;
  });
  return index;
}

}  // namespace quorvi
