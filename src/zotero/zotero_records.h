// The rows a Zotero database is read into: plain records, and the lookup maps
// that the index joins. Integers are Zotero's 32-bit column values widened;
// texts are UTF-8 (a NULL column reads as an empty text).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "zotero/text_map.h"

namespace quorvi {

struct ZoteroCollection {
  int64_t collectionID = 0;
  int64_t parentID = 0;  // 0 for a top-level collection
  std::string name;
  int64_t libraryID = 0;
  std::string key;  // carries the library id's digits (see the reader)
};

struct ZoteroCollectionItem {
  int64_t collectionID = 0;
  int64_t itemID = 0;
  int64_t orderIndex = 0;
};

// Sent inside an entry as {"itemID", "contentType", "path"}.
struct ZoteroItemAttachment {
  int64_t itemID = 0;
  std::string contentType;
  std::string path;  // "storage:<name>", an absolute path, "attachments:<rel>", or ""
};

// One row of Zotero's itemData: a field of an item and the id of its value.
struct ZoteroItemIdentifiers {
  int64_t itemID = 0;
  int64_t fieldID = 0;
  int64_t valueID = 0;
};

struct ZoteroItemRef {
  int64_t itemID = 0;
  int64_t itemTypeID = 0;
  std::optional<double> dateModified;  // seconds since 1970; nullopt when unreadable
  int64_t libraryID = 0;
  std::string key;
};

// The itemData rows, grouped by item with each item's rows in table order.
class ZoteroItemDataRows {
 public:
  void add(const ZoteroItemIdentifiers& row) { rows_.push_back(row); }
  // Call once after the last add.
  void finish();
  std::span<const ZoteroItemIdentifiers> rowsOf(int64_t itemID) const;
  std::size_t size() const { return rows_.size(); }

 private:
  std::vector<ZoteroItemIdentifiers> rows_;
};

// Everything read from one database. A table whose statement failed stays empty.
struct ZoteroDatabase {
  std::vector<ZoteroItemRef> items;                                   // in the order of the items table
  std::unordered_map<int64_t, std::string> groupNames;                // library id → group name
  std::unordered_map<int64_t, std::string> itemTypeNames;             // item type id → type name
  ZoteroTextMap values;                                               // value id → value text
  std::unordered_map<int64_t, std::string> fieldNames;                // field id → field name
  std::unordered_map<int64_t, ZoteroItemAttachment> attachments;      // by item id
  std::unordered_map<int64_t, ZoteroCollectionItem> collectionItems;  // by item id (last row wins)
  std::unordered_map<int64_t, ZoteroCollection> collections;          // by collection id
  ZoteroItemDataRows itemData;
  std::unordered_set<int64_t> deletedItemIDs;
};

}  // namespace quorvi
