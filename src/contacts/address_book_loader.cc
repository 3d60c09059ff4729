#include "contacts/address_book_loader.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <unordered_set>

#include "common/settings.h"
#include "contacts/evolution_address_book.h"
#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
  if (text.size() < suffix.size()) return false;
  text = text.substr(text.size() - suffix.size());
  for (std::size_t i = 0; i < suffix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) != suffix[i]) return false;
  }
  return true;
}

bool isVCardFileName(std::string_view name) {
  return endsWithIgnoringCase(name, ".vcf") || endsWithIgnoringCase(name, ".vcard");
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::vector<std::string> AddressBookSources::watchedPaths() const {
  std::vector<std::string> paths = vcardPaths;
  if (!evolutionAddressBookFolder.empty()) paths.push_back(evolutionAddressBookFolder);
  return paths;
}

AddressBookSources AddressBookSources::standard() {
  AddressBookSources sources;
  auto addPath = [&](const std::string& path) {
    std::string expanded = withoutTrailingSlash(expandTilde(path));
    if (expanded.empty() || expanded[0] != '/') return;
    if (std::find(sources.vcardPaths.begin(), sources.vcardPaths.end(), expanded) == sources.vcardPaths.end()) {
      sources.vcardPaths.push_back(expanded);
    }
  };
  if (auto listed = Settings::shared().value(kContactsFoldersSettingsKey)) {
    if (listed->is_string()) addPath(listed->get<std::string>());
    if (listed->is_array()) {
      for (const auto& each : *listed) {
        if (each.is_string()) addPath(each.get<std::string>());
      }
    }
  }
  addPath(xdgDataHome() + "/contacts");
  sources.evolutionAddressBookFolder = xdgDataHome() + "/evolution/addressbook";
  return sources;
}

AddressBookLoader::AddressBookLoader(AddressBookSources sources, AddressBookLimits limits, std::string workingDirectory)
    : sources_(std::move(sources)), limits_(limits), workingDirectory_(std::move(workingDirectory)) {}

AddressBookLoad AddressBookLoader::load() const {
  auto start = std::chrono::steady_clock::now();
  AddressBookLoad load;

  std::vector<std::string> files;
  for (const auto& path : sources_.vcardPaths) {
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) continue;
    if (S_ISDIR(info.st_mode)) {
      std::vector<std::string> found;
      walkFolder(path, 0, found);
      std::sort(found.begin(), found.end());
      files.insert(files.end(), found.begin(), found.end());
    } else {
      files.push_back(path);
    }
  }
  // A file listed twice (a folder inside another listed folder) is read once.
  std::unordered_set<std::string> seen;
  for (const auto& file : files) {
    if (!seen.insert(file).second) continue;
    if (load.filesRead + load.filesSkipped >= limits_.maxFiles || load.items.size() >= limits_.maxItems) {
      ++load.filesSkipped;
      continue;
    }
    loadVCardFile(file, load);
  }

  if (!sources_.evolutionAddressBookFolder.empty()) {
    auto books = findEvolutionAddressBooks(sources_.evolutionAddressBookFolder);
    std::string workingDirectory = workingDirectory_;
    if (!books.empty() && workingDirectory.empty()) workingDirectory = defaultContactsWorkingDirectory();
    for (const auto& book : books) {
      auto read = readEvolutionAddressBook(book.databasePath, workingDirectory, limits_.maxDatabaseBytes);
      if (read.failure) {
        ++load.filesSkipped;
        continue;
      }
      ++load.filesRead;
      for (std::size_t i = 0; i < read.vcards.size() && load.items.size() < limits_.maxItems; ++i) {
        addCards(read.vcards[i], book.databasePath + "#" + std::to_string(i), load);
      }
    }
  }
  load.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return load;
}

void AddressBookLoader::walkFolder(const std::string& folder, int depth, std::vector<std::string>& files) const {
  if (depth > limits_.maxFolderDepth || files.size() >= limits_.maxFiles) return;
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return;
  std::vector<std::string> subfolders;
  while (dirent* entry = ::readdir(dir)) {
    std::string_view name = entry->d_name;
    if (name.empty() || name[0] == '.') continue;
    std::string path = folder + "/" + std::string(name);
    unsigned char type = entry->d_type;
    if (type == DT_UNKNOWN) {
      struct stat info;
      if (::lstat(path.c_str(), &info) != 0) continue;
      type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISLNK(info.st_mode) ? DT_LNK : DT_REG;
    }
    if (type == DT_DIR) {
      subfolders.push_back(std::move(path));
    } else if ((type == DT_REG || type == DT_LNK) && isVCardFileName(name)) {
      // A linked file is read (safe_file opens only regular files);
      // a linked folder is not entered.
      if (files.size() < limits_.maxFiles) files.push_back(std::move(path));
    }
  }
  ::closedir(dir);
  for (const auto& subfolder : subfolders) walkFolder(subfolder, depth + 1, files);
}

void AddressBookLoader::loadVCardFile(const std::string& path, AddressBookLoad& load) const {
  auto text = readRegularFile(path, limits_.maxVCardFileBytes);
  if (!text) {
    ++load.filesSkipped;
    return;
  }
  ++load.filesRead;
  addCards(*text, path, load);
}

void AddressBookLoader::addCards(std::string_view text, const std::string& source, AddressBookLoad& load) const {
  for (const auto& card : parseVCards(text)) {
    ++load.cardsRead;
    for (auto& item : contactItemsOfCard(card, fallbackContactIdentifier(source, card.position))) {
      if (load.items.size() >= limits_.maxItems) return;
      load.items.push_back(std::move(item));
    }
  }
}

}  // namespace quorvi
