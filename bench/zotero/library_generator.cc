#include "library_generator.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "zotero/zotero_schema.h"
#include "zotero/zotero_tables.h"

namespace quorvi::bench {

namespace {

const std::string kSchema = std::string("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;") +
                            quorvi::testing::kZoteroTables + R"SQL(
INSERT INTO libraries VALUES (1, 'user', 1, 1, 0, 0, 0, 0), (2, 'group', 1, 1, 0, 0, 0, 0),
  (3, 'group', 1, 1, 0, 0, 0, 0);
INSERT INTO groups VALUES (4355231, 2, 'Lab Reading Group', '', 0), (5120077, 3, 'beta project', '', 0);
)SQL";

const char* const kTypes[] = {"journalArticle", "book",   "bookSection", "conferencePaper",
                              "thesis",         "report", "webpage",     "preprint"};
const char* const kWords[] = {"learning", "neural",   "protein", "climate",   "graph",    "theory",  "quantum",
                              "model",    "analysis", "deep",    "structure", "dynamics", "network", "cell",
                              "language", "optimal",  "control", "evidence",  "survey",   "method"};
const char* const kHanWords[] = {"机器", "学习", "蛋白质", "气候", "图论", "量子", "模型",
                                 "分析", "网络", "语言",   "研究", "方法", "系统", "数据"};

class Generator {
 public:
  Generator(sqlite3* db) : db_(db), random_(20240305) {}
  ~Generator() {
    for (auto* s : {insertItem_, insertValue_, findValue_, insertData_, insertAttachment_, insertMember_})
      sqlite3_finalize(s);
  }
  bool run(std::size_t itemCount);

 private:
  uint64_t next(uint64_t bound) { return random_() % bound; }
  void exec(const std::string& sql) { sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr); }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db_, sql, -1, &s, nullptr);
    return s;
  }
  int64_t value(const std::string& text);
  void field(int64_t itemID, const char* name, const std::string& text);
  int64_t item(int typeID, int64_t libraryID);
  std::string title(std::size_t n);

  sqlite3* db_;
  std::mt19937_64 random_;
  StringTable fieldIDs_;
  std::vector<std::string> typeIDs_;
  sqlite3_stmt* insertItem_ = nullptr;
  sqlite3_stmt* insertValue_ = nullptr;
  sqlite3_stmt* findValue_ = nullptr;
  sqlite3_stmt* insertData_ = nullptr;
  sqlite3_stmt* insertAttachment_ = nullptr;
  sqlite3_stmt* insertMember_ = nullptr;
  int64_t nextKey_ = 0;
};

int64_t Generator::value(const std::string& text) {
  sqlite3_bind_text(insertValue_, 1, text.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_step(insertValue_);
  sqlite3_reset(insertValue_);
  if (sqlite3_changes(db_) > 0) return sqlite3_last_insert_rowid(db_);
  sqlite3_bind_text(findValue_, 1, text.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_step(findValue_);
  int64_t id = sqlite3_column_int64(findValue_, 0);
  sqlite3_reset(findValue_);
  return id;
}

void Generator::field(int64_t itemID, const char* name, const std::string& text) {
  sqlite3_bind_int64(insertData_, 1, itemID);
  sqlite3_bind_int64(insertData_, 2, std::stoll(fieldIDs_.at(name)));
  sqlite3_bind_int64(insertData_, 3, value(text));
  sqlite3_step(insertData_);
  sqlite3_reset(insertData_);
}

int64_t Generator::item(int typeID, int64_t libraryID) {
  char key[32];
  std::snprintf(key, sizeof key, "K%07lld", static_cast<long long>(++nextKey_));
  char date[32];
  std::snprintf(date, sizeof date, "20%02d-%02d-%02d %02d:%02d:%02d", int(10 + next(15)), int(1 + next(12)),
                int(1 + next(28)), int(next(24)), int(next(60)), int(next(60)));
  sqlite3_bind_int(insertItem_, 1, typeID);
  sqlite3_bind_text(insertItem_, 2, date, -1, SQLITE_TRANSIENT);
  sqlite3_bind_int64(insertItem_, 3, libraryID);
  sqlite3_bind_text(insertItem_, 4, key, -1, SQLITE_TRANSIENT);
  sqlite3_step(insertItem_);
  sqlite3_reset(insertItem_);
  return sqlite3_last_insert_rowid(db_);
}

std::string Generator::title(std::size_t n) {
  std::string text;
  if (next(10) == 0) {
    for (int i = 0, count = 3 + int(next(4)); i < count; ++i) text += kHanWords[next(std::size(kHanWords))];
  } else {
    for (int i = 0, count = 4 + int(next(8)); i < count; ++i) {
      if (i) text += ' ';
      text += kWords[next(std::size(kWords))];
    }
    text[0] = static_cast<char>(text[0] - 'a' + 'A');
  }
  return text + " " + std::to_string(n);  // titles are unique, as itemDataValues holds each once
}

bool Generator::run(std::size_t itemCount) {
  if (sqlite3_exec(db_, kSchema.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) return false;
  exec("BEGIN;");
  // Current numbering: fields in Zotero's schema order from 1, item types likewise.
  int id = 0;
  for (const auto& name : zoteroFieldNames()) {
    fieldIDs_[name] = std::to_string(++id);
    exec("INSERT INTO fields VALUES (" + std::to_string(id) + ", '" + name + "', NULL);");
  }
  std::vector<std::string> typeNames;
  for (const auto& [name, text] : zoteroLocalizedCategories()) typeNames.push_back(name);
  std::sort(typeNames.begin(), typeNames.end());
  for (std::size_t i = 0; i < typeNames.size(); ++i)
    exec("INSERT INTO itemTypes VALUES (" + std::to_string(i + 1) + ", '" + typeNames[i] + "', NULL, 1);");
  auto typeID = [&](const char* name) {
    return int(std::find(typeNames.begin(), typeNames.end(), name) - typeNames.begin()) + 1;
  };

  // Collections: 3 libraries, nested up to four deep.
  std::size_t collectionCount = std::max<std::size_t>(20, itemCount / 300);
  std::vector<int64_t> collectionLibrary;
  for (std::size_t c = 1; c <= collectionCount; ++c) {
    int64_t library = c % 5 == 0 ? 2 : (c % 7 == 0 ? 3 : 1);
    std::string parent = c > 8 && next(4) != 0 ? std::to_string(1 + next(c - 1)) : "NULL";
    if (parent != "NULL" && collectionLibrary[std::stoll(parent) - 1] != library) parent = "NULL";
    exec("INSERT INTO collections (collectionID, collectionName, parentCollectionID, libraryID, key) VALUES (" +
         std::to_string(c) + ", '" + kWords[c % std::size(kWords)] + " " + std::to_string(c) + "', " + parent + ", " +
         std::to_string(library) + ", 'C" + std::to_string(c) + "');");
    collectionLibrary.push_back(library);
  }

  insertItem_ = prepare("INSERT INTO items (itemTypeID, dateModified, libraryID, key) VALUES (?, ?, ?, ?);");
  insertValue_ = prepare("INSERT OR IGNORE INTO itemDataValues (value) VALUES (?);");
  findValue_ = prepare("SELECT valueID FROM itemDataValues WHERE value = ?;");
  insertData_ = prepare("INSERT INTO itemData VALUES (?, ?, ?);");
  insertAttachment_ = prepare(
      "INSERT INTO itemAttachments (itemID, parentItemID, linkMode, contentType, path) "
      "VALUES (?, ?, ?, 'application/pdf', ?);");
  insertMember_ = prepare("INSERT OR IGNORE INTO collectionItems VALUES (?, ?, 0);");

  std::size_t made = 0;
  while (made < itemCount) {
    int64_t library = next(10) < 8 ? 1 : 2 + int64_t(next(2));
    const char* type = kTypes[next(std::size(kTypes))];
    int64_t parent = item(typeID(type), library);
    ++made;
    // Fields in ascending id, as Zotero writes them; about 7.6 per regular item.
    std::vector<std::pair<std::string, std::string>> rows = {
        {"title", title(made)},
        {"date", std::to_string(1990 + next(35))},
        {"language", next(3) ? "en" : "zh"},
        {"DOI", "10." + std::to_string(1000 + next(9000)) + "/" + std::to_string(parent)},
        {"url", "https://example.org/paper/" + std::to_string(parent)},
        {"publicationTitle", std::string("Journal of ") + kWords[next(std::size(kWords))]},
        {"accessDate", "2023-0" + std::to_string(1 + next(9)) + "-1" + std::to_string(next(10)) + " 08:00:00"}};
    if (next(5) < 3)
      rows.push_back(
          {"abstractNote", std::string(200 + next(600), 'a' + char(next(26))) + " " + std::to_string(parent)});
    if (next(2)) rows.push_back({"volume", std::to_string(1 + next(80))});
    std::sort(rows.begin(), rows.end(), [&](const auto& a, const auto& b) {
      return std::stoll(fieldIDs_.at(a.first)) < std::stoll(fieldIDs_.at(b.first));
    });
    for (const auto& [name, text] : rows) field(parent, name.c_str(), text);
    if (next(10) < 7) {
      int64_t collection = 1 + int64_t(next(collectionCount));
      if (collectionLibrary[collection - 1] == library) {
        sqlite3_bind_int64(insertMember_, 1, collection);
        sqlite3_bind_int64(insertMember_, 2, parent);
        sqlite3_step(insertMember_);
        sqlite3_reset(insertMember_);
      }
    }
    if (next(50) == 0) exec("INSERT INTO deletedItems (itemID) VALUES (" + std::to_string(parent) + ");");
    // Children: a PDF (stored or linked) for most items, a note for some.
    if (made < itemCount && next(10) < 6) {
      int64_t child = item(typeID("attachment"), library);
      ++made;
      field(child, "title", next(2) ? "Full Text PDF" : "Snapshot " + std::to_string(child));
      field(child, "accessDate", "2023-05-0" + std::to_string(1 + next(9)) + " 10:00:00");
      if (next(5) < 4) field(child, "url", "https://example.org/pdf/" + std::to_string(child));
      bool linked = next(5) == 0;
      std::string path = linked ? "/home/reader/Papers/paper-" + std::to_string(child) + ".pdf"
                                : "storage:paper-" + std::to_string(child) + ".pdf";
      sqlite3_bind_int64(insertAttachment_, 1, child);
      sqlite3_bind_int64(insertAttachment_, 2, parent);
      sqlite3_bind_int(insertAttachment_, 3, linked ? 2 : 0);
      sqlite3_bind_text(insertAttachment_, 4, path.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(insertAttachment_);
      sqlite3_reset(insertAttachment_);
    }
    if (made < itemCount && next(10) == 0) {
      item(typeID("note"), library);
      ++made;
    }
  }
  exec("COMMIT;");
  return true;
}

}  // namespace

bool generateZoteroLibrary(const std::string& folder, std::size_t itemCount) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  std::string path = folder + "/zotero.sqlite";
  std::filesystem::remove(path, error);
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
    std::fprintf(stderr, "zotero_bench: cannot create %s\n", path.c_str());
    sqlite3_close(db);
    return false;
  }
  bool ok = Generator(db).run(itemCount);
  sqlite3_close(db);
  if (!ok) std::fprintf(stderr, "zotero_bench: cannot write %s\n", path.c_str());
  return ok;
}

}  // namespace quorvi::bench
