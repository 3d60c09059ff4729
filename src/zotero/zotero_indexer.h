// ZoteroIndexer: answers the launcher's two Zotero requests. It reads a Zotero
// data folder into grouped, searchable entries (keeping the answer in memory
// for half an hour after the last request) and gives the field list of one
// item from that memory for the preview pane.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/dispatch.h"
#include "common/json.h"
#include "zotero/zotero_index.h"
#include "zotero/zotero_tables.h"

namespace quorvi {

class ZoteroIndexer : public std::enable_shared_from_this<ZoteroIndexer> {
 public:
  struct Options {
    std::string workingDirectory;          // empty: defaultZoteroWorkingDirectory()
    double cacheLifetime = 1800.0;         // seconds after the last index request
    DispatchQueue* expiryQueue = nullptr;  // nullptr: the main queue
  };
  // Data (JSON array of groups) on success, else the failure text.
  struct IndexAnswer {
    OptionalBytes data;
    std::optional<std::string> failure;
  };

  // The process-wide indexer, created on first use.
  static ZoteroIndexer& shared();
  static std::shared_ptr<ZoteroIndexer> make(Options options);

  // Reads (or reuses) the index of the data folder. Runs on the calling
  // thread; index requests take turns because they share one working copy.
  IndexAnswer index(const std::string& folder, bool useCacheIfAvailable);
  // The item's attributes as JSON while an index is in memory; nullopt otherwise.
  OptionalBytes preview(int64_t itemID) const;
  bool hasCachedResult() const;

  const StringTable& localizedCategories() const { return localizedCategories_; }
  const StringTable& localizedFields() const { return localizedFields_; }

 private:
  struct IndexResult {
    std::string zoteroLibraryPath;
    double timestamp = 0;  // seconds since 1970
    Bytes groupsJSON;      // the groups, encoded once
    ZoteroAttributeStore itemAttributes;
  };

  explicit ZoteroIndexer(Options options);
  IndexAnswer answer(const std::string& folder, bool useCacheIfAvailable);
  std::optional<Bytes> reusableAnswer(const std::string& folder, const std::string& databasePath, double now) const;
  void cancelExpiry();
  void scheduleExpiry();

  const StringTable& localizedCategories_;
  const StringTable& localizedFields_;
  Options options_;
  std::mutex readMutex_;           // one read of the working copy at a time
  mutable std::mutex stateMutex_;  // guards the two fields below
  std::shared_ptr<const IndexResult> indexResult_;
  WorkItemRef dispatchWorkItem_;
};

}  // namespace quorvi
