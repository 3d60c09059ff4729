// ContentIndexer: the index of the text inside the documents of the file
// index's scopes, for queries by content (kMDItemTextContent).
//
// Where work runs: everything that reads documents or writes the database
// runs on the serial queue "com.quorvi.contentindex" of the background pool
// (QualityOfService::background, nice 10); extraction of a batch is spread
// over that pool. Requests only read the database, through connections of
// their own (WAL: a reader never waits for the writer).
//
// What it follows:
//  - the file index: at every "com.quorvi.fileIndexStateDidChange" while the
//    index is ready, a pass compares the index's documents (by name, see
//    text_extractor.h) with the database: new and changed ones (modification
//    time or size differ) are read, removed ones dropped, newest first, in
//    batches that are each one transaction. A pass that is cut short (a newer
//    pass, the service ending, a crash) leaves every finished batch in place,
//    so the next pass, also after a restart, goes on where it stopped;
//  - file events (FileEvents) over the same scopes under the identifier
//    "com.quorvi.contentindex": a changed document is read again, a removed
//    one dropped, a renamed one keeps its text under the new path, a folder
//    that appeared or changed in ways no event told is compared with the disk.
//
// The database lives in the service's state folder,
// $XDG_STATE_HOME/quorvifind/content-index.sqlite3 (mode 0700 folder).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/dispatch.h"
#include "common/json.h"
#include "contentindex/content_store.h"
#include "contentindex/text_extractor.h"
#include "fsevents/file_events.h"

namespace quorvi {

class FileIndexer;

// Counts for the performance snapshot (#19), under the key "contentIndex".
struct ContentIndexProgress {
  bool started = false;            // the content index exists in this process
  bool isIndexing = false;         // a pass or a batch of changes is being read
  int64_t documents = 0;           // documents in the database
  int64_t documentsWithText = 0;   // of which text was extracted
  int64_t pending = 0;             // documents waiting to be read in the current pass
  int64_t extracted = 0;           // documents read since the service started
  int64_t failed = 0;              // of which nothing could be extracted
  int64_t textBytes = 0;           // bytes of text extracted since the service started
  int64_t sourceBytes = 0;         // bytes of documents read since the service started
  double extractionSeconds = 0;    // wall time spent reading documents
  int64_t passes = 0;              // completed passes over the file index
  double lastPassTime = 0;         // duration of the last completed pass
  int64_t fileEventsHandled = 0;
  Json toJson() const;
};

class ContentIndexer {
 public:
  struct Options {
    std::string databasePath;  // empty: the state folder's content-index.sqlite3
    ExtractionLimits limits;
    FileEvents* fileEvents = nullptr;  // null: FileEvents::shared()
    std::size_t batchDocuments = 64;   // documents per transaction
    std::string watcherIdentifier = "com.quorvi.contentindex";
  };

  // The process's content index over FileIndexer::shared(), made on first use.
  static ContentIndexer& shared();
  // The shared one if it was made, else null (reports must not make it).
  static ContentIndexer* sharedIfMade();
  // Makes the shared content index at the file index's first state change,
  // so that it builds in the background as soon as there are scopes. Cheap;
  // called once at service start.
  static void followFileIndex();
  // $XDG_STATE_HOME/quorvifind (or ~/.local/state/quorvifind).
  static std::string stateDirectory();

  ContentIndexer(FileIndexer& files, Options options);
  ~ContentIndexer();
  ContentIndexer(const ContentIndexer&) = delete;
  ContentIndexer& operator=(const ContentIndexer&) = delete;

  // Schedules a pass over the file index now (passes also follow its state
  // changes). Several requests before the pass starts make one pass.
  void synchronize();
  // Applies file events (what the watcher delivers; tests call it too).
  void apply(std::vector<FileEvent> events);
  // Blocks until the work scheduled so far has run (tools and tests).
  void waitUntilIdle();

  // Documents whose text matches the FTS5 expression (see ftsTermOfWord),
  // most recently modified first, until `admit` accepted `limit`. False when
  // the database cannot be read or refuses the expression.
  bool search(const std::string& expression, std::size_t limit, const std::function<bool(const ContentHit&)>& admit);

  ContentIndexProgress progress() const;
  const std::string& databasePath() const { return databasePath_; }

 private:
  struct Job {
    std::string path;
    DocumentKind kind;
    DocumentStamp stamp;
  };
  void onFileIndexChanged();
  void runPass();
  void watch(const std::vector<std::string>& scopes, double changedSince);
  void handleEvents(const std::vector<FileEvent>& events);
  void reconcileFolder(const std::string& folder);
  std::optional<Job> jobFor(const std::string& path, const std::optional<StoredDocument>& stored);
  bool admits(const std::string& path) const;
  // Reads the jobs in batches; false when a newer pass asked it to stop.
  bool extract(std::vector<Job> jobs, uint64_t pass);
  ContentStore* store();
  std::unique_ptr<ContentStore> takeReader();
  void returnReader(std::unique_ptr<ContentStore> reader);

  FileIndexer& files_;
  Options options_;
  std::string databasePath_;
  std::shared_ptr<DispatchQueue> queue_;
  uint64_t observerToken_ = 0;

  // Touched on queue_ only.
  std::unique_ptr<ContentStore> store_;
  std::vector<std::string> watchedScopes_;
  std::string homeDirectory_;
  std::vector<std::string> hiddenAllowedScopes_;

  std::atomic<bool> passRequested_{false};
  std::atomic<uint64_t> passGeneration_{0};
  std::atomic<bool> stopping_{false};

  std::mutex readersMutex_;
  std::vector<std::unique_ptr<ContentStore>> readers_;

  // Progress.
  std::atomic<bool> busy_{false};
  std::atomic<int64_t> documents_{0}, documentsWithText_{0}, pending_{0}, extracted_{0}, failed_{0};
  std::atomic<int64_t> textBytes_{0}, sourceBytes_{0}, passes_{0}, eventsHandled_{0};
  std::atomic<double> extractionSeconds_{0}, lastPassTime_{0};
};

}  // namespace quorvi
