#include "contacts/evolution_address_book.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

namespace fs = std::filesystem;

void removeQuietly(const std::string& path) {
  std::error_code error;
  fs::remove(path, error);
}

void removeCopy(const std::string& copyPath) {
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) removeQuietly(copyPath + suffix);
}

// Copies a file found on disk (through safe_file: no blocking, regular
// files only, at most maxBytes) to `to`, mode 0600. Answers the failure text,
// nullopt on success; `missing` tells a file that is not there.
std::optional<std::string> copyFoundFile(const std::string& from, const std::string& to, std::size_t maxBytes,
                                         bool* missing = nullptr) {
  SafeFileFailure failure = SafeFileFailure::none;
  const bool copied = copyRegularFile(from, to, maxBytes, &failure);
  if (missing) *missing = failure == SafeFileFailure::missing;
  if (copied) return std::nullopt;
  return from + ": " + describe(failure);
}

struct Statement {
  sqlite3_stmt* statement = nullptr;
  ~Statement() { sqlite3_finalize(statement); }
};

// Quotes a table name for SQL ("a""b").
std::string quotedIdentifier(const std::string& name) {
  std::string quoted = "\"";
  for (char c : name) {
    quoted.push_back(c);
    if (c == '"') quoted.push_back('"');
  }
  quoted.push_back('"');
  return quoted;
}

// The names of the books' summary tables: listed in "folders"; an old
// database without that table keeps its contacts in "folder_id".
std::vector<std::string> summaryTables(sqlite3* db) {
  std::vector<std::string> tables;
  Statement list;
  if (sqlite3_prepare_v2(db, "SELECT folder_id FROM folders", -1, &list.statement, nullptr) == SQLITE_OK) {
    while (sqlite3_step(list.statement) == SQLITE_ROW) {
      const auto* text = sqlite3_column_text(list.statement, 0);
      if (text) tables.emplace_back(reinterpret_cast<const char*>(text));
    }
  }
  if (tables.empty()) tables.emplace_back("folder_id");
  return tables;
}

// Reads the vCards from the settled copy; SQLite's result code on failure.
int readVCards(const std::string& copyPath, std::vector<std::string>& vcards, std::string& failure) {
  sqlite3* db = nullptr;
  // Read-write on the private copy only: SQLite rolls a hot journal back
  // or recovers a write-ahead log on first read, which needs write access.
  int rc = sqlite3_open_v2(copyPath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  if (rc != SQLITE_OK) {
    failure = db ? sqlite3_errmsg(db) : "cannot open the copy";
    sqlite3_close_v2(db);
    return rc;
  }
  sqlite3_busy_timeout(db, 0);
  for (const auto& table : summaryTables(db)) {
    Statement select;
    std::string sql = "SELECT vcard FROM " + quotedIdentifier(table);
    rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &select.statement, nullptr);
    if (rc != SQLITE_OK) {
      failure = sqlite3_errmsg(db);
      break;
    }
    while ((rc = sqlite3_step(select.statement)) == SQLITE_ROW) {
      const auto* text = sqlite3_column_text(select.statement, 0);
      if (text) vcards.emplace_back(reinterpret_cast<const char*>(text), sqlite3_column_bytes(select.statement, 0));
    }
    if (rc != SQLITE_DONE) {
      failure = sqlite3_errmsg(db);
      break;
    }
    rc = SQLITE_OK;
  }
  sqlite3_close_v2(db);
  return rc;
}

std::string uniqueCopyPath(const std::string& workingDirectory) {
  static std::atomic<unsigned> counter{0};
  return workingDirectory + "/book-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + ".db";
}

}  // namespace

std::vector<EvolutionAddressBook> findEvolutionAddressBooks(const std::string& addressBookFolder) {
  std::vector<std::string> names;
  if (DIR* dir = ::opendir(addressBookFolder.c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name.empty() || name[0] == '.') continue;
      names.push_back(std::move(name));
    }
    ::closedir(dir);
  }
  std::sort(names.begin(), names.end());
  std::vector<EvolutionAddressBook> books;
  for (const auto& name : names) {
    std::string database = addressBookFolder + "/" + name + "/contacts.db";
    struct stat info;
    if (::stat(database.c_str(), &info) == 0 && S_ISREG(info.st_mode)) books.push_back({database});
  }
  return books;
}

EvolutionReadResult readEvolutionAddressBook(const std::string& databasePath, const std::string& workingDirectory,
                                             std::size_t maxDatabaseBytes) {
  EvolutionReadResult result;
  if (workingDirectory.empty()) {
    result.failure = "no working folder for the copy";
    return result;
  }
  // A copy taken while the data server writes may be torn; the second try
  // usually finds it done.
  for (int attempt = 0; attempt < 2; ++attempt) {
    std::string copyPath = uniqueCopyPath(workingDirectory);
    result = {};
    if (auto failure = copyFoundFile(databasePath, copyPath, maxDatabaseBytes)) {
      result.failure = failure;
    } else {
      for (const char* suffix : {"-journal", "-wal"}) {
        bool missing = false;
        auto companionFailure = copyFoundFile(databasePath + suffix, copyPath + suffix, maxDatabaseBytes, &missing);
        if (companionFailure && !missing) result.failure = companionFailure;
        if (companionFailure) removeQuietly(copyPath + suffix);
      }
      if (!result.failure) {
        std::string failure;
        int rc = readVCards(copyPath, result.vcards, failure);
        if (rc != SQLITE_OK) result.failure = failure;
        bool torn = rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB;
        removeCopy(copyPath);
        if (torn && attempt == 0) continue;
        return result;
      }
    }
    removeCopy(copyPath);
    return result;
  }
  return result;
}

std::string defaultContactsWorkingDirectory() {
  const char* cacheHome = std::getenv("XDG_CACHE_HOME");
  std::string base = (cacheHome && *cacheHome == '/') ? cacheHome : homeDirectory() + "/.cache";
  std::string directory = base + "/quorvifind/contacts";
  std::error_code error;
  fs::create_directories(directory, error);
  if (!fs::is_directory(directory, error)) return {};
  ::chmod(directory.c_str(), 0700);
  return directory;
}

}  // namespace quorvi
