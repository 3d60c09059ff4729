// ZoteroIndexer: answers the launcher's two Zotero requests. It reads a Zotero
// data folder into grouped, searchable entries (keeping the answer in memory
// for half an hour after the last request) and gives the field list of one
// item from that memory for the preview pane.
//
// Index requests share one working copy, so they take turns on the serial
// background queue "com.quorvi.zotero": a request waits there, not on a
// request thread. Requests for the same folder that were waiting when a read
// starts share that read (each asked after the moment it began, so each gets
// an answer at least as fresh as its own read would have been); a request
// that allows the cache also shares a cached answer.
#pragma once

#include <functional>
#include <atomic>
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
  // Data (JSON array of groups) on success, else the failure text. The
  // bytes are shared with the cache and with other answers, never copied.
  struct IndexAnswer {
    std::shared_ptr<const Bytes> data;
    std::optional<std::string> failure;
  };
  using IndexCompletion = std::function<void(IndexAnswer)>;

  // The process-wide indexer, created on first use.
  static ZoteroIndexer& shared();
  static std::shared_ptr<ZoteroIndexer> make(Options options);

  // Reads (or reuses) the index of the data folder. Returns at once; done is
  // called on "com.quorvi.zotero" when the answer is ready, exactly once.
  void index(const std::string& folder, bool useCacheIfAvailable, IndexCompletion done);
  // The same, waiting for the answer (tools and tests; never on the queue).
  IndexAnswer index(const std::string& folder, bool useCacheIfAvailable);
  // Database reads made so far (each shared by the requests it answered).
  std::size_t databaseReads() const { return databaseReads_.load(); }
  // The item's attributes as JSON while an index is in memory; nullopt otherwise.
  OptionalBytes preview(int64_t itemID) const;
  bool hasCachedResult() const;
  // The groups' JSON of the index in memory (what #28 answered); null when
  // none is (desktop search reads it, never causing a database read).
  std::shared_ptr<const Bytes> cachedGroupsJSON() const;

  const StringTable& localizedCategories() const { return localizedCategories_; }
  const StringTable& localizedFields() const { return localizedFields_; }

 private:
  struct IndexResult {
    std::string zoteroLibraryPath;
    double timestamp = 0;                     // seconds since 1970
    std::shared_ptr<const Bytes> groupsJSON;  // the groups, encoded once
    ZoteroAttributeStore itemAttributes;
  };
  struct Request {
    std::string folder;
    bool useCacheIfAvailable = false;
    IndexCompletion done;
  };

  explicit ZoteroIndexer(Options options);
  void drainRequests();
  void answerBatch(std::vector<Request>& batch);
  // fromCache tells whether the answer is the cached one (not a fresh look).
  IndexAnswer answer(const std::string& folder, bool useCacheIfAvailable, bool& fromCache);
  std::shared_ptr<const Bytes> reusableAnswer(const std::string& folder, const std::string& databasePath,
                                              double now) const;
  void cancelExpiry();
  void scheduleExpiry();

  const StringTable& localizedCategories_;
  const StringTable& localizedFields_;
  Options options_;
  std::shared_ptr<DispatchQueue> queue_;  // "com.quorvi.zotero": reads, one at a time
  std::atomic<std::size_t> databaseReads_{0};

  std::mutex requestsMutex_;  // guards the two fields below
  std::vector<Request> requests_;
  bool draining_ = false;

  mutable std::mutex stateMutex_;  // guards the two fields below
  std::shared_ptr<const IndexResult> indexResult_;
  WorkItemRef dispatchWorkItem_;
};

}  // namespace quorvi
