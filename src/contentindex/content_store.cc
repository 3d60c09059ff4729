#include "contentindex/content_store.h"

#include <unistd.h>

#include <cctype>

#include "contentindex/fts_tokenizer.h"

namespace quorvi {

namespace {

constexpr int kSchemaVersion = 1;

const char* kSchema = R"sql(
  CREATE TABLE IF NOT EXISTS documents(
    id INTEGER PRIMARY KEY,
    path TEXT NOT NULL UNIQUE,
    modificationTime INTEGER NOT NULL,
    size INTEGER NOT NULL,
    hasText INTEGER NOT NULL);
  CREATE INDEX IF NOT EXISTS documentsByTime ON documents(modificationTime);
  CREATE VIRTUAL TABLE IF NOT EXISTS content USING fts5(text, tokenize='quorvi');
  CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT);
)sql";

// Everything under folder + "/" is the range [folder + "/", folder + "0").
std::string lowerBound(const std::string& folder) { return folder + "/"; }
std::string upperBound(const std::string& folder) { return folder + "0"; }

void bindText(sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string columnText(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  return text ? std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(sqlite3_column_bytes(statement, column)))
              : std::string();
}

class Transaction {
 public:
  explicit Transaction(sqlite3* db) : db_(db) { ok_ = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK; }
  ~Transaction() {
    if (ok_ && !committed_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  bool ok() const { return ok_; }
  bool commit() {
    committed_ = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    return committed_;
  }

 private:
  sqlite3* db_;
  bool ok_ = false;
  bool committed_ = false;
};

sqlite3* openConnection(const std::string& path, ContentStore::Mode mode, std::string* failure) {
  sqlite3* db = nullptr;
  int flags = mode == ContentStore::Mode::write ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
  flags |= SQLITE_OPEN_NOMUTEX;
  int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    if (failure) *failure = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close_v2(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, 5000);
  if (registerContentTokenizer(db) != SQLITE_OK) {
    if (failure) *failure = "FTS5 is not available";
    sqlite3_close_v2(db);
    return nullptr;
  }
  return db;
}

bool prepareSchema(sqlite3* db, std::string* failure) {
  auto run = [&](const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
    if (failure) *failure = message ? message : "database error";
    sqlite3_free(message);
    return false;
  };
  if (!run("PRAGMA journal_mode=WAL") || !run("PRAGMA synchronous=NORMAL")) return false;
  sqlite3_stmt* statement = nullptr;
  int version = -1;
  if (sqlite3_prepare_v2(db, "PRAGMA user_version", -1, &statement, nullptr) == SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW) {
    version = sqlite3_column_int(statement, 0);
  }
  sqlite3_finalize(statement);
  if (version < 0) {
    if (failure) *failure = "not a database";
    return false;
  }
  if (version != 0 && version != kSchemaVersion) {
    if (failure) *failure = "database of another version";
    return false;
  }
  return run(kSchema) && run(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
}

}  // namespace

std::unique_ptr<ContentStore> ContentStore::open(const std::string& path, Mode mode, std::string* failure) {
  sqlite3* db = openConnection(path, mode, failure);
  if (!db) return nullptr;
  if (mode == Mode::read) return std::unique_ptr<ContentStore>(new ContentStore(db));
  if (prepareSchema(db, failure)) return std::unique_ptr<ContentStore>(new ContentStore(db));
  // Damaged or foreign: start over with an empty index (it is rebuilt from
  // the documents themselves).
  sqlite3_close_v2(db);
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) ::unlink((path + suffix).c_str());
  db = openConnection(path, mode, failure);
  if (!db) return nullptr;
  if (!prepareSchema(db, failure)) {
    sqlite3_close_v2(db);
    return nullptr;
  }
  return std::unique_ptr<ContentStore>(new ContentStore(db));
}

ContentStore::~ContentStore() {
  for (auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  sqlite3_close_v2(db_);
}

bool ContentStore::execute(const char* sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

sqlite3_stmt* ContentStore::prepared(const char* sql) {
  auto found = statements_.find(sql);
  if (found != statements_.end()) {
    sqlite3_reset(found->second);
    sqlite3_clear_bindings(found->second);
    return found->second;
  }
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) return nullptr;
  statements_[sql] = statement;
  return statement;
}

bool ContentStore::write(const std::vector<Write>& batch) {
  Transaction transaction(db_);
  if (!transaction.ok()) return false;
  for (const auto& item : batch) {
    sqlite3_stmt* upsert = prepared(
        "INSERT INTO documents(path, modificationTime, size, hasText) VALUES(?1, ?2, ?3, ?4) "
        "ON CONFLICT(path) DO UPDATE SET modificationTime = excluded.modificationTime, size = excluded.size, "
        "hasText = excluded.hasText RETURNING id");
    if (!upsert) return false;
    bindText(upsert, 1, item.path);
    sqlite3_bind_int64(upsert, 2, item.stamp.modificationTime);
    sqlite3_bind_int64(upsert, 3, item.stamp.size);
    sqlite3_bind_int(upsert, 4, item.text ? 1 : 0);
    if (sqlite3_step(upsert) != SQLITE_ROW) return false;
    int64_t id = sqlite3_column_int64(upsert, 0);
    sqlite3_reset(upsert);
    sqlite3_stmt* drop = prepared("DELETE FROM content WHERE rowid = ?1");
    if (!drop) return false;
    sqlite3_bind_int64(drop, 1, id);
    if (sqlite3_step(drop) != SQLITE_DONE) return false;
    if (item.text) {
      sqlite3_stmt* insert = prepared("INSERT INTO content(rowid, text) VALUES(?1, ?2)");
      if (!insert) return false;
      sqlite3_bind_int64(insert, 1, id);
      bindText(insert, 2, *item.text);
      if (sqlite3_step(insert) != SQLITE_DONE) return false;
    }
  }
  return transaction.commit();
}

bool ContentStore::remove(const std::vector<std::string>& paths) {
  Transaction transaction(db_);
  if (!transaction.ok()) return false;
  for (const auto& path : paths) {
    sqlite3_stmt* text = prepared("DELETE FROM content WHERE rowid = (SELECT id FROM documents WHERE path = ?1)");
    if (!text) return false;
    bindText(text, 1, path);
    if (sqlite3_step(text) != SQLITE_DONE) return false;
    sqlite3_stmt* row = prepared("DELETE FROM documents WHERE path = ?1");
    if (!row) return false;
    bindText(row, 1, path);
    if (sqlite3_step(row) != SQLITE_DONE) return false;
  }
  return transaction.commit();
}

bool ContentStore::removeRange(const std::string& folder) {
  sqlite3_stmt* text = prepared(
      "DELETE FROM content WHERE rowid IN (SELECT id FROM documents WHERE path >= ?1 AND path < ?2)");
  if (!text) return false;
  bindText(text, 1, lowerBound(folder));
  bindText(text, 2, upperBound(folder));
  if (sqlite3_step(text) != SQLITE_DONE) return false;
  sqlite3_stmt* rows = prepared("DELETE FROM documents WHERE path >= ?1 AND path < ?2");
  if (!rows) return false;
  bindText(rows, 1, lowerBound(folder));
  bindText(rows, 2, upperBound(folder));
  return sqlite3_step(rows) == SQLITE_DONE;
}

bool ContentStore::removeUnder(const std::string& folder) {
  Transaction transaction(db_);
  if (!transaction.ok() || !removeRange(folder)) return false;
  return transaction.commit();
}

bool ContentStore::move(const std::string& from, const std::string& to) {
  if (from == to) return true;
  Transaction transaction(db_);
  if (!transaction.ok()) return false;
  // Whatever sat at the destination is replaced by what moved there.
  if (!removeRange(to)) return false;
  sqlite3_stmt* dropText = prepared("DELETE FROM content WHERE rowid = (SELECT id FROM documents WHERE path = ?1)");
  if (!dropText) return false;
  bindText(dropText, 1, to);
  if (sqlite3_step(dropText) != SQLITE_DONE) return false;
  sqlite3_stmt* dropRow = prepared("DELETE FROM documents WHERE path = ?1");
  if (!dropRow) return false;
  bindText(dropRow, 1, to);
  if (sqlite3_step(dropRow) != SQLITE_DONE) return false;
  sqlite3_stmt* rename = prepared(
      "UPDATE documents SET path = ?3 || substr(path, length(?1) + 1) "
      "WHERE path = ?1 OR (path >= ?4 AND path < ?5)");
  if (!rename) return false;
  // length() counts characters, and so does substr(): both on the same text.
  bindText(rename, 1, from);
  bindText(rename, 3, to);
  bindText(rename, 4, lowerBound(from));
  bindText(rename, 5, upperBound(from));
  if (sqlite3_step(rename) != SQLITE_DONE) return false;
  return transaction.commit();
}

std::unordered_map<std::string, StoredDocument> ContentStore::documentsWhere(const char* sql, const std::string& folder) {
  std::unordered_map<std::string, StoredDocument> out;
  sqlite3_stmt* statement = prepared(sql);
  if (!statement) return out;
  if (!folder.empty()) {
    bindText(statement, 1, lowerBound(folder));
    bindText(statement, 2, upperBound(folder));
  }
  while (sqlite3_step(statement) == SQLITE_ROW) {
    StoredDocument document;
    document.stamp.modificationTime = sqlite3_column_int64(statement, 1);
    document.stamp.size = sqlite3_column_int64(statement, 2);
    document.hasText = sqlite3_column_int(statement, 3) != 0;
    out.emplace(columnText(statement, 0), document);
  }
  sqlite3_reset(statement);
  return out;
}

std::unordered_map<std::string, StoredDocument> ContentStore::documents() {
  return documentsWhere("SELECT path, modificationTime, size, hasText FROM documents", "");
}

std::unordered_map<std::string, StoredDocument> ContentStore::documentsUnder(const std::string& folder) {
  return documentsWhere(
      "SELECT path, modificationTime, size, hasText FROM documents WHERE path >= ?1 AND path < ?2", folder);
}

std::optional<StoredDocument> ContentStore::document(const std::string& path) {
  sqlite3_stmt* statement = prepared("SELECT modificationTime, size, hasText FROM documents WHERE path = ?1");
  if (!statement) return std::nullopt;
  bindText(statement, 1, path);
  std::optional<StoredDocument> out;
  if (sqlite3_step(statement) == SQLITE_ROW) {
    out = StoredDocument{{sqlite3_column_int64(statement, 0), sqlite3_column_int64(statement, 1)},
                         sqlite3_column_int(statement, 2) != 0};
  }
  sqlite3_reset(statement);
  return out;
}

int64_t ContentStore::documentCount() {
  sqlite3_stmt* statement = prepared("SELECT count(*) FROM documents");
  int64_t count = statement && sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : 0;
  if (statement) sqlite3_reset(statement);
  return count;
}

int64_t ContentStore::documentsWithTextCount() {
  sqlite3_stmt* statement = prepared("SELECT count(*) FROM documents WHERE hasText");
  int64_t count = statement && sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : 0;
  if (statement) sqlite3_reset(statement);
  return count;
}

bool ContentStore::search(const std::string& expression, std::size_t limit,
                          const std::function<bool(const ContentHit&)>& admit, std::string* failure) {
  sqlite3_stmt* statement = prepared(
      "SELECT d.path, d.modificationTime FROM content JOIN documents d ON d.id = content.rowid "
      "WHERE content MATCH ?1 ORDER BY d.modificationTime DESC");
  if (!statement) {
    if (failure) *failure = sqlite3_errmsg(db_);
    return false;
  }
  bindText(statement, 1, expression);
  std::size_t accepted = 0;
  int rc = SQLITE_DONE;
  while (accepted < limit && (rc = sqlite3_step(statement)) == SQLITE_ROW) {
    ContentHit hit{columnText(statement, 0), sqlite3_column_int64(statement, 1)};
    if (admit(hit)) ++accepted;
  }
  bool ok = accepted >= limit || rc == SQLITE_DONE;
  if (!ok && failure) *failure = sqlite3_errmsg(db_);
  sqlite3_reset(statement);
  return ok;
}

std::optional<std::string> ContentStore::meta(const std::string& key) {
  sqlite3_stmt* statement = prepared("SELECT value FROM meta WHERE key = ?1");
  if (!statement) return std::nullopt;
  bindText(statement, 1, key);
  std::optional<std::string> out;
  if (sqlite3_step(statement) == SQLITE_ROW) out = columnText(statement, 0);
  sqlite3_reset(statement);
  return out;
}

bool ContentStore::setMeta(const std::string& key, const std::string& value) {
  sqlite3_stmt* statement = prepared("INSERT OR REPLACE INTO meta(key, value) VALUES(?1, ?2)");
  if (!statement) return false;
  bindText(statement, 1, key);
  bindText(statement, 2, value);
  bool ok = sqlite3_step(statement) == SQLITE_DONE;
  sqlite3_reset(statement);
  return ok;
}

std::string ftsTermOfWord(const std::string& word, bool prefix) {
  bool any = false;
  std::string quoted = "\"";
  for (char c : word) {
    if (c == '"') quoted.push_back('"');
    quoted.push_back(c);
    if (static_cast<unsigned char>(c) >= 0x80 || std::isalnum(static_cast<unsigned char>(c))) any = true;
  }
  quoted.push_back('"');
  if (!any) return "";
  return prefix ? quoted + "*" : quoted;
}

}  // namespace quorvi
