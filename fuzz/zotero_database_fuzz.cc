// A Zotero library's zotero.sqlite with damaged or hostile content: the
// reader copies it, opens the copy read-only and reads the tables; the index
// joins whatever came out (collection cycles, dangling ids, odd texts).
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "zotero/database_reader.h"
#include "zotero/zotero_index.h"
#include "zotero/zotero_tables.h"

namespace {

const std::string& scratch() {
  // Never destroyed: the exit handler below still needs it.
  static const std::string* dir = [] {
    char pattern[] = "/tmp/quorvi-fuzz-zotero-XXXXXX";
    auto* path = new std::string(::mkdtemp(pattern) ? pattern : "/tmp/quorvi-fuzz-zotero");
    std::filesystem::create_directories(*path + "/library");
    std::filesystem::create_directories(*path + "/work");
    std::atexit([] { std::filesystem::remove_all(scratch()); });
    return path;
  }();
  return *dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quorvi;
  std::ofstream(scratch() + "/library/zotero.sqlite", std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), size);
  ZoteroReadResult read = readZoteroDatabase(scratch() + "/library", scratch() + "/work");
  if (!read.database) return 0;
  std::vector<int64_t> itemIDs;
  for (const auto& item : read.database->items) itemIDs.push_back(item.itemID);
  ZoteroIndex index = buildZoteroIndex(std::move(*read.database), {zoteroLocalizedCategories(), zoteroLocalizedFields()});
  for (int64_t id : itemIDs) {
    if (auto attributes = index.attributes.attributesOf(id)) encodeZoteroAttributes(*attributes);
  }
  return 0;
}
