// ContentStore: the content index's SQLite database: one row per document
// (path, modification time, size, whether text was extracted) and an FTS5
// table of the extracted text, keyed by the document's row id, tokenized by
// the "quorvi" tokenizer (fts_tokenizer.h).
//
// Every change is one transaction, so a crash or a kill in the middle of a
// write leaves the database as it was before that write; the database is in
// WAL mode, so readers (queries) never wait for the writer. A file that is
// not a database of this layout (damaged, or from another version) is
// replaced by an empty one when opened for writing.
//
// One ContentStore is one connection: use it from one thread at a time.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace quorvi {

// What a document was when it was last read: a change of either means the
// text must be read again.
struct DocumentStamp {
  int64_t modificationTime = 0;  // nanoseconds since 1970
  int64_t size = 0;
  bool operator==(const DocumentStamp&) const = default;
};

struct StoredDocument {
  DocumentStamp stamp;
  bool hasText = false;  // false: extraction failed or found no text
};

struct ContentHit {
  std::string path;
  int64_t modificationTime = 0;
};

class ContentStore {
 public:
  enum class Mode { write, read };
  // nullptr (with the reason in `failure`) when the database cannot be
  // opened or made.
  static std::unique_ptr<ContentStore> open(const std::string& path, Mode mode, std::string* failure = nullptr);
  ~ContentStore();
  ContentStore(const ContentStore&) = delete;
  ContentStore& operator=(const ContentStore&) = delete;

  // --- writing ---
  struct Write {
    std::string path;
    DocumentStamp stamp;
    std::optional<std::string> text;  // nullopt: nothing could be extracted
  };
  bool write(const std::vector<Write>& batch);
  bool remove(const std::vector<std::string>& paths);
  // Removes the folder's documents (everything under folder + "/").
  bool removeUnder(const std::string& folder);
  // A file or folder renamed: its documents keep their text under the new path.
  bool move(const std::string& from, const std::string& to);

  // --- reading ---
  std::unordered_map<std::string, StoredDocument> documents();
  std::unordered_map<std::string, StoredDocument> documentsUnder(const std::string& folder);
  std::optional<StoredDocument> document(const std::string& path);
  int64_t documentCount();
  int64_t documentsWithTextCount();
  // Documents whose text matches the FTS5 expression, most recently modified
  // first, handed to `admit` until it has accepted `limit` of them; hits it
  // refuses do not count. Answers what was accepted (false with `failure`
  // when the expression is refused by FTS5).
  bool search(const std::string& expression, std::size_t limit, const std::function<bool(const ContentHit&)>& admit,
              std::string* failure = nullptr);

  // A value kept beside the documents (progress markers).
  std::optional<std::string> meta(const std::string& key);
  bool setMeta(const std::string& key, const std::string& value);

  sqlite3* handle() const { return db_; }

 private:
  explicit ContentStore(sqlite3* db) : db_(db) {}
  bool execute(const char* sql);
  sqlite3_stmt* prepared(const char* sql);
  std::unordered_map<std::string, StoredDocument> documentsWhere(const char* sql, const std::string& folder);
  bool removeRange(const std::string& folder);

  sqlite3* db_;
  std::unordered_map<const char*, sqlite3_stmt*> statements_;
};

// The FTS5 expression for a word of a query: its characters quoted (so that
// FTS5 reads no operator in them) and, when `prefix`, the last token taken
// as a prefix. Empty when the word holds nothing to search for.
std::string ftsTermOfWord(const std::string& word, bool prefix);

}  // namespace quorvi
