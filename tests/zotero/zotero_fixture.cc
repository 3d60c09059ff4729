#include "zotero/zotero_fixture.h"
#include "zotero/zotero_schema.h"

#include <unistd.h>

#include <cstdlib>
#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace quorvi::zotero_fixture {

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = std::filesystem::temp_directory_path().string() + "/quorvi-zotero-XXXXXX";
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

namespace {

const std::string kSchema = std::string(quorvi::testing::kZoteroTables) +
                            "INSERT INTO libraries VALUES (1, 'user', 1, 1, 0, 0, 0, 0);";

// Item types with Zotero's long-standing ids; "dataset" arrived later.
const std::pair<const char*, int> kItemTypes[] = {
    {"note", 1},     {"book", 2},   {"journalArticle", 4},       {"attachment", 14}, {"case", 17},
    {"statute", 20}, {"email", 21}, {"encyclopediaArticle", 35}, {"dataset", 37},    {"annotation", 38},
};

// A few fields in both numberings: current (title first) and legacy (url first).
struct FieldIDs {
  const char* name;
  int current;
  int legacy;
};
const FieldIDs kFields[] = {
    {"title", 1, 110},     {"abstractNote", 2, 90}, {"date", 6, 14},
    {"DOI", 8, 26},        {"url", 10, 1},          {"publicationTitle", 41, 12},
    {"caseName", 54, 111}, {"nameOfAct", 114, 112}, {"subject", 72, 113},
    {"volume", 22, 4},
};

}  // namespace

ZoteroLibraryFixture::ZoteroLibraryFixture(std::string folder, FieldNumbering numbering)
    : folder_(std::move(folder)), numbering_(numbering) {
  std::filesystem::create_directories(folder_);
  if (sqlite3_open(databasePath().c_str(), &db_) != SQLITE_OK) throw std::runtime_error("open failed");
  exec("PRAGMA synchronous=OFF;");  // fixtures need no durability, only speed
  exec(kSchema);
  for (const auto& [name, id] : kItemTypes)
    exec("INSERT INTO itemTypes VALUES (" + std::to_string(id) + ", '" + name + "', NULL, 1);");
  for (const auto& field : kFields)
    exec("INSERT INTO fields VALUES (" + std::to_string(fieldID(field.name)) + ", '" + field.name + "', NULL);");
}

ZoteroLibraryFixture::~ZoteroLibraryFixture() { close(); }

void ZoteroLibraryFixture::close() {
  if (db_) sqlite3_close(db_);
  db_ = nullptr;
}

void ZoteroLibraryFixture::exec(const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : "?";
    sqlite3_free(message);
    throw std::runtime_error("sqlite: " + text + " in " + sql);
  }
}

int64_t ZoteroLibraryFixture::fieldID(const std::string& name) const {
  for (const auto& field : kFields)
    if (name == field.name) return numbering_ == FieldNumbering::current ? field.current : field.legacy;
  throw std::runtime_error("no such field in the fixture: " + name);
}

int64_t ZoteroLibraryFixture::itemTypeID(const std::string& name) const {
  for (const auto& [typeName, id] : kItemTypes)
    if (name == typeName) return id;
  throw std::runtime_error("no such item type in the fixture: " + name);
}

// Runs one statement with bound values (0 binds NULL where a column is
// optional); answers the first column of its row, else the last rowid.
int64_t ZoteroLibraryFixture::run(const char* sql, std::initializer_list<Value> values) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) != SQLITE_OK)
    throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db_));
  int index = 0;
  for (const auto& value : values) {
    ++index;
    if (const auto* text = std::get_if<std::string>(&value)) {
      if (!text->empty()) sqlite3_bind_text(statement, index, text->c_str(), -1, SQLITE_TRANSIENT);
    } else if (int64_t number = std::get<int64_t>(value)) {
      sqlite3_bind_int64(statement, index, number);
    }
  }
  int64_t answer =
      sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : sqlite3_last_insert_rowid(db_);
  sqlite3_finalize(statement);
  return answer;
}

int64_t ZoteroLibraryFixture::addGroup(int64_t groupID, const std::string& name) {
  int64_t libraryID = run("INSERT INTO libraries (type, editable, filesEditable) VALUES ('group', 1, 1);", {});
  run("INSERT INTO groups VALUES (?, ?, ?, '', 0);", {groupID, libraryID, name});
  return libraryID;
}

int64_t ZoteroLibraryFixture::addCollection(const std::string& name, int64_t parentID, int64_t libraryID) {
  return run("INSERT INTO collections (collectionName, parentCollectionID, libraryID, key) VALUES (?, ?, ?, ?);",
             {name, parentID, libraryID, "COLL" + std::to_string(++nextKey_)});
}

int64_t ZoteroLibraryFixture::addItem(const std::string& type, const FieldValues& fields, int64_t libraryID) {
  return addItemWithTypeID(itemTypeID(type), fields, libraryID);
}

int64_t ZoteroLibraryFixture::addItemWithTypeID(int64_t itemTypeID, const FieldValues& fields, int64_t libraryID) {
  int64_t itemID = run("INSERT INTO items (itemTypeID, dateModified, libraryID, key) VALUES (?, ?, ?, ?);",
                       {itemTypeID, "2024-03-05 10:20:30", libraryID, "ITEM" + std::to_string(++nextKey_)});
  std::vector<std::pair<int64_t, int64_t>> rows;
  for (const auto& [name, value] : fields) {
    run("INSERT OR IGNORE INTO itemDataValues (value) VALUES (?);", {value});
    rows.emplace_back(fieldID(name), run("SELECT valueID FROM itemDataValues WHERE value = ?;", {value}));
  }
  std::sort(rows.begin(), rows.end());
  for (const auto& [field, value] : rows) run("INSERT INTO itemData VALUES (?, ?, ?);", {itemID, field, value});
  return itemID;
}

void ZoteroLibraryFixture::addToCollection(int64_t collectionID, int64_t itemID) {
  run("INSERT INTO collectionItems VALUES (?, ?, 3);", {collectionID, itemID});
}

void ZoteroLibraryFixture::addAttachment(int64_t itemID, int64_t parentItemID, const std::string& contentType,
                                         const std::string& path) {
  run("INSERT INTO itemAttachments (itemID, parentItemID, linkMode, contentType, path) VALUES (?, ?, 0, ?, ?);",
      {itemID, parentItemID, contentType, path});
}

void ZoteroLibraryFixture::trash(int64_t itemID) { run("INSERT INTO deletedItems (itemID) VALUES (?);", {itemID}); }

}  // namespace quorvi::zotero_fixture
