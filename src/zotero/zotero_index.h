// The searchable Zotero index: one entry per live item, grouped by library,
// and the field list of every item for previews. Built from the rows of one
// database read (zotero_records.h).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/json.h"
#include "zotero/zotero_records.h"
#include "zotero/zotero_tables.h"

namespace quorvi {

// The own library's name, for the client to localise.
inline constexpr const char* kZoteroMyLibrary = "ZOTERO_MY_LIBRARY";
// A collection path names at most this many levels (the item's own collection
// and its nearest ancestors); a deeper chain is cut there, so that a damaged
// or hostile library cannot make every path as long as the whole chain.
inline constexpr std::size_t kMaxZoteroCollectionDepth = 64;

struct ZoteroAttribute {
  std::string field;  // "ZOTERO_FIELD_..." key, or the raw field name
  int64_t fieldID = 0;
  std::string value;
};

struct ZoteroEntry {
  int64_t itemID = 0;
  std::string title;
  std::string library;
  int64_t libraryID = 0;
  std::string key;
  std::string itemType;                       // localised type name, raw type name, or "Unknown"
  std::optional<std::string> collectionPath;  // own collection first: "Child/Parent/Root"
  int64_t collectionOrderIndex = 0;
  std::optional<ZoteroItemAttachment> attachment;
  std::string searchKeyword;
};

struct ZoteroGroup {
  std::string library;
  std::vector<ZoteroEntry> entries;
};

struct ZoteroTables {
  const StringTable& localizedCategories;
  const StringTable& localizedFields;
};

// The field lists of the indexed items, for the preview pane. Keeps the rows
// and value texts of the read (not one copy per attribute) and assembles an
// item's list when asked.
class ZoteroAttributeStore {
 public:
  // nullopt for an item that is not part of the index.
  std::optional<std::vector<ZoteroAttribute>> attributesOf(int64_t itemID) const;

 private:
  friend class ZoteroIndexBuilder;
  ZoteroTextMap values_;
  ZoteroItemDataRows rows_;
  std::unordered_map<int64_t, std::string> fieldKeys_;  // field id → key or raw name
  std::vector<int64_t> indexedItems_;                   // sorted
};

struct ZoteroIndex {
  Bytes groupsJSON;  // the JSON array of groups
  std::size_t entryCount = 0;
  ZoteroAttributeStore attributes;
};

// Joins one read into entries, writing the groups' JSON as it goes.
ZoteroIndex buildZoteroIndex(ZoteroDatabase database, const ZoteroTables& tables);

// JSON of the reply records, byte for byte what encodeJson() gives for the
// same document, written directly because libraries run to 100,000 entries.
void appendZoteroEntry(Bytes& out, const ZoteroEntry& entry);
void appendZoteroString(Bytes& out, std::string_view text);
Bytes encodeZoteroGroups(const std::vector<ZoteroGroup>& groups);
Bytes encodeZoteroAttributes(const std::vector<ZoteroAttribute>& attributes);

}  // namespace quorvi
