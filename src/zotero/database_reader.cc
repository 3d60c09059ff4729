#include "zotero/database_reader.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "zotero/working_copy.h"

namespace quorvi {

namespace {

int64_t intColumn(sqlite3_stmt* statement, int column) {
  return static_cast<int64_t>(sqlite3_column_int(statement, column));
}

std::string textColumn(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  return text ? std::string(reinterpret_cast<const char*>(text)) : std::string();
}

// Prepares, steps while rows come, finalizes. A statement that does not
// prepare (a table or column this database lacks) reads nothing; a step error
// (a damaged page) ends the table with the rows read so far.
template <class OnRow>
void runStatement(sqlite3* db, const char* text, OnRow&& onRow) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, text, -1, &statement, nullptr) != SQLITE_OK) {
    sqlite3_finalize(statement);
    return;
  }
  while (sqlite3_step(statement) == SQLITE_ROW) onRow(statement);
  sqlite3_finalize(statement);
}

bool readDigits(const char*& p, int count, int& out) {
  out = 0;
  for (int i = 0; i < count; ++i, ++p) {
    if (*p < '0' || *p > '9') return false;
    out = out * 10 + (*p - '0');
  }
  return true;
}

bool expect(const char*& p, char c) { return *p++ == c; }

// Days from 1970-01-01 to a proleptic Gregorian date.
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void readTables(sqlite3* db, ZoteroDatabase& out) {
  auto start = std::chrono::steady_clock::now();
  runStatement(db, "SELECT groupID, libraryID, name FROM groups;",
               [&](sqlite3_stmt* s) { out.groupNames[intColumn(s, 1)] = textColumn(s, 2); });
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("zotero: select groups: %zu, t: %.3lfms\n", out.groupNames.size(), elapsed * 1000.0);
  std::fflush(stdout);

  // The key is read from column 3, the library id, on purpose: clients match
  // on these digits, and Zotero's own collection key (column 4) is never used.
  runStatement(db, "SELECT collectionID, collectionName, parentCollectionID, libraryID, key FROM collections;",
               [&](sqlite3_stmt* s) {
                 ZoteroCollection c;
                 c.name = textColumn(s, 1);
                 c.key = textColumn(s, 3);
                 c.collectionID = intColumn(s, 0);
                 c.parentID = intColumn(s, 2);
                 c.libraryID = intColumn(s, 3);
                 out.collections[c.collectionID] = std::move(c);
               });
  runStatement(db, "SELECT * FROM collectionItems;", [&](sqlite3_stmt* s) {
    ZoteroCollectionItem row{intColumn(s, 0), intColumn(s, 1), intColumn(s, 2)};
    out.collectionItems[row.itemID] = row;
  });
  runStatement(db, "SELECT * FROM itemTypes;",
               [&](sqlite3_stmt* s) { out.itemTypeNames[intColumn(s, 0)] = textColumn(s, 1); });
  runStatement(db, "SELECT itemID, contentType, path FROM itemAttachments;", [&](sqlite3_stmt* s) {
    ZoteroItemAttachment row{intColumn(s, 0), textColumn(s, 1), textColumn(s, 2)};
    out.attachments[row.itemID] = std::move(row);
  });
  runStatement(db, "SELECT * FROM itemDataValues;", [&](sqlite3_stmt* s) {
    const unsigned char* text = sqlite3_column_text(s, 1);
    out.values.insert(intColumn(s, 0), text ? reinterpret_cast<const char*>(text) : "");
  });
  runStatement(db, "SELECT * FROM fields;",
               [&](sqlite3_stmt* s) { out.fieldNames[intColumn(s, 0)] = textColumn(s, 1); });
  runStatement(db, "SELECT * FROM itemData;", [&](sqlite3_stmt* s) {
    ZoteroItemIdentifiers row{intColumn(s, 0), intColumn(s, 1), intColumn(s, 2)};
    out.itemData.add(row);
  });
  out.itemData.finish();
  runStatement(db, "SELECT itemID, itemTypeID, dateModified, libraryID, key FROM items;", [&](sqlite3_stmt* s) {
    ZoteroItemRef row;
    const unsigned char* date = sqlite3_column_text(s, 2);
    row.dateModified = date ? parseZoteroDate(reinterpret_cast<const char*>(date)) : std::nullopt;
    row.key = textColumn(s, 4);
    row.itemID = intColumn(s, 0);
    row.itemTypeID = intColumn(s, 1);
    row.libraryID = intColumn(s, 3);
    out.items.push_back(std::move(row));
  });
  runStatement(db, "SELECT itemID FROM deletedItems;",
               [&](sqlite3_stmt* s) { out.deletedItemIDs.insert(intColumn(s, 0)); });
}

}  // namespace

void ZoteroItemDataRows::finish() {
  auto byItem = [](const ZoteroItemIdentifiers& a, const ZoteroItemIdentifiers& b) { return a.itemID < b.itemID; };
  if (!std::is_sorted(rows_.begin(), rows_.end(), byItem)) std::stable_sort(rows_.begin(), rows_.end(), byItem);
}

std::span<const ZoteroItemIdentifiers> ZoteroItemDataRows::rowsOf(int64_t itemID) const {
  auto byItem = [](const ZoteroItemIdentifiers& a, const ZoteroItemIdentifiers& b) { return a.itemID < b.itemID; };
  auto [first, last] = std::equal_range(rows_.begin(), rows_.end(), ZoteroItemIdentifiers{itemID, 0, 0}, byItem);
  return {first, last};
}

std::optional<double> parseZoteroDate(const char* text) {
  if (!text) return std::nullopt;
  const char* p = text;
  int year, month, day, hour, minute, second;
  bool ok = readDigits(p, 4, year) && expect(p, '-') && readDigits(p, 2, month) && expect(p, '-') &&
            readDigits(p, 2, day) && expect(p, ' ') && readDigits(p, 2, hour) && expect(p, ':') &&
            readDigits(p, 2, minute) && expect(p, ':') && readDigits(p, 2, second) && *p == '\0';
  if (!ok || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
    return std::nullopt;
  int64_t days = daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
  return static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second);
}

ZoteroReadResult readZoteroDatabase(const std::string& folder, const std::string& workingDirectory) {
  std::string databasePath = folder + "/zotero.sqlite";
  std::error_code error;
  if (!std::filesystem::exists(databasePath, error)) return {std::nullopt, "Zotero Library Not Exist"};
  if (workingDirectory.empty()) return {std::nullopt, "Zotero Library Database Not Exist"};

  std::string copyPath = workingDirectory + "/temp-zotero.sqlite";
  if (auto failure = makeWorkingCopy(databasePath, copyPath)) return {std::nullopt, *failure};

  sqlite3* db = nullptr;
  int result = sqlite3_open_v2(copyPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  if (result != SQLITE_OK) {
    sqlite3_close_v2(db);
    return {std::nullopt, "SQLite error: " + std::to_string(result)};
  }
  ZoteroReadResult read{ZoteroDatabase{}, {}};
  readTables(db, *read.database);
  sqlite3_close_v2(db);
  return read;
}

}  // namespace quorvi
