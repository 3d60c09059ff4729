#include "contacts/contacts_fixture.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace quorvi::contacts_fixture {

std::string vcard(const std::string& uid, const std::string& name, const std::vector<std::string>& phones,
                  const std::vector<std::string>& emails) {
  std::string text = "BEGIN:VCARD\r\nVERSION:3.0\r\n";
  if (!uid.empty()) text += "UID:" + uid + "\r\n";
  text += "FN:" + name + "\r\n";
  for (const auto& phone : phones) text += "TEL;TYPE=CELL:" + phone + "\r\n";
  for (const auto& email : emails) text += "EMAIL:" + email + "\r\n";
  return text + "END:VCARD\r\n";
}

namespace {

void exec(sqlite3* db, const std::string& sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    std::string message = error ? error : "sqlite error";
    sqlite3_free(error);
    throw std::runtime_error(message + " in " + sql);
  }
}

}  // namespace

EvolutionBook::EvolutionBook(const std::string& databasePath, Journal journal) {
  std::filesystem::create_directories(std::filesystem::path(databasePath).parent_path());
  if (sqlite3_open(databasePath.c_str(), &db_) != SQLITE_OK) throw std::runtime_error("cannot create " + databasePath);
  if (journal == Journal::writeAheadLog) exec(db_, "PRAGMA journal_mode=WAL");
  exec(db_,
       "CREATE TABLE folders (folder_id TEXT PRIMARY KEY, version INTEGER, multivalues TEXT, "
       "lc_collate TEXT, countrycode VARCHAR(2));"
       "INSERT INTO folders VALUES ('folder_id', 13, 'email;tel', 'en_US.UTF-8', 'US');"
       "CREATE TABLE folder_id (uid TEXT PRIMARY KEY, Rev TEXT, file_as TEXT, nickname TEXT, "
       "full_name TEXT, given_name TEXT, family_name TEXT, is_list INTEGER, vcard TEXT, bdata TEXT);");
}

EvolutionBook::~EvolutionBook() { close(); }

void EvolutionBook::add(const std::string& uid, const std::string& vcardText) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db_, "INSERT INTO folder_id (uid, vcard) VALUES (?, ?)", -1, &statement, nullptr);
  sqlite3_bind_text(statement, 1, uid.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(statement, 2, vcardText.c_str(), -1, SQLITE_TRANSIENT);
  int rc = sqlite3_step(statement);
  sqlite3_finalize(statement);
  if (rc != SQLITE_DONE) throw std::runtime_error("cannot insert a contact");
}

void EvolutionBook::close() {
  if (db_) sqlite3_close(db_);
  db_ = nullptr;
}

std::string readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void backdateFolders(const std::string& root) {
  namespace fs = std::filesystem;
  std::error_code error;
  auto anHourAgo = fs::file_time_type::clock::now() - std::chrono::hours(1);
  if (!fs::is_directory(root, error)) return;
  fs::last_write_time(root, anHourAgo, error);
  for (auto it = fs::recursive_directory_iterator(root, error); it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (it->is_directory(error) && !it->is_symlink(error)) fs::last_write_time(it->path(), anHourAgo, error);
  }
}

}  // namespace quorvi::contacts_fixture
