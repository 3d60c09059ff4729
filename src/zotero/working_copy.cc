#include "zotero/working_copy.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace fs = std::filesystem;

namespace {

void removeQuietly(const std::string& path) {
  std::error_code error;
  fs::remove(path, error);
}

// The library's files are opened as files found on disk: a FIFO or a device
// named like them is refused at once instead of blocking the copy.
std::optional<std::string> copyFile(const std::string& from, const std::string& to) {
  SafeFileFailure failure = SafeFileFailure::none;
  if (!copyRegularFile(from, to, kDatabaseCopyCap, &failure)) return describe(failure);
  return std::nullopt;
}

// Bytes 18 and 19 of a database header are 2 when the file is in WAL mode.
bool headerSaysWriteAheadLog(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  char header[20] = {};
  if (!file.read(header, sizeof header)) return false;
  return header[18] == 2 || header[19] == 2;
}

// Opens the copy for writing once: the first read rolls a hot journal back or
// recovers the log, and switching to a rollback journal folds the log into the
// file. Failures are left for the read-only open to report.
void settleCopy(const std::string& copyPath) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(copyPath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 0);
    sqlite3_exec(db, "SELECT count(*) FROM sqlite_master;", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "PRAGMA journal_mode=DELETE;", nullptr, nullptr, nullptr);
  }
  sqlite3_close_v2(db);
}

}  // namespace

std::string defaultZoteroWorkingDirectory() {
  const char* cacheHome = std::getenv("XDG_CACHE_HOME");
  std::string base = (cacheHome && *cacheHome == '/') ? cacheHome : homeDirectory() + "/.cache";
  std::string directory = base + "/quorvifind/zotero";
  std::error_code error;
  fs::create_directories(directory, error);
  if (!fs::is_directory(directory, error)) return {};
  ::chmod(directory.c_str(), 0700);
  return directory;
}

std::optional<std::string> makeWorkingCopy(const std::string& databasePath, const std::string& copyPath) {
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) removeQuietly(copyPath + suffix);

  if (auto failure = copyFile(databasePath, copyPath)) return failure;
  bool companionCopied = false;
  for (const char* suffix : {"-journal", "-wal"}) {
    // A companion that is not there (or went away as Zotero committed) is
    // simply absent; any other failure fails the copy.
    SafeFileFailure failure = SafeFileFailure::none;
    if (copyRegularFile(databasePath + suffix, copyPath + suffix, kDatabaseCopyCap, &failure)) {
      companionCopied = true;
    } else if (failure != SafeFileFailure::missing) {
      return describe(failure);
    }
  }
  if (companionCopied || headerSaysWriteAheadLog(copyPath)) settleCopy(copyPath);
  return std::nullopt;
}

}  // namespace quorvi
