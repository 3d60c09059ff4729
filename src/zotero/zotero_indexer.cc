#include "zotero/zotero_indexer.h"

#include <sys/stat.h>

#include <chrono>
#include <future>
#include <mutex>

#include "pinyin/pinyin_mapper.h"
#include "zotero/database_reader.h"
#include "zotero/working_copy.h"

namespace quorvi {

namespace {

double secondsSince1970() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The file's content-modification time, 0 when it can't be read.
double modificationTime(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return 0;
  return static_cast<double>(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
}

bool fileExists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

// The mapper's first Chinese text costs about 0.2 s of one-time set-up; the
// first read starts it on the pool so that it overlaps the copy and the reads.
void warmUpPinyinMapper() {
  static std::once_flag started;
  std::call_once(started, [] { DispatchQueue::background().async([] { keywordForm("中文"); }); });
}

}  // namespace

ZoteroIndexer& ZoteroIndexer::shared() {
  static std::shared_ptr<ZoteroIndexer>* indexer = new std::shared_ptr<ZoteroIndexer>(make({}));
  return **indexer;
}

std::shared_ptr<ZoteroIndexer> ZoteroIndexer::make(Options options) {
  return std::shared_ptr<ZoteroIndexer>(new ZoteroIndexer(std::move(options)));
}

ZoteroIndexer::ZoteroIndexer(Options options)
    : localizedCategories_(zoteroLocalizedCategories()),
      localizedFields_(zoteroLocalizedFields()),
      options_(std::move(options)),
      queue_(DispatchQueue::makeSerial("com.quorvi.zotero", QualityOfService::background)) {}

void ZoteroIndexer::index(const std::string& folder, bool useCacheIfAvailable, IndexCompletion done) {
  bool startDraining = false;
  {
    std::lock_guard<std::mutex> lock(requestsMutex_);
    requests_.push_back({folder, useCacheIfAvailable, std::move(done)});
    startDraining = !draining_;
    draining_ = true;
  }
  if (startDraining) queue_->async([self = shared_from_this()] { self->drainRequests(); });
}

ZoteroIndexer::IndexAnswer ZoteroIndexer::index(const std::string& folder, bool useCacheIfAvailable) {
  std::promise<IndexAnswer> answered;
  index(folder, useCacheIfAvailable, [&answered](IndexAnswer answer) { answered.set_value(std::move(answer)); });
  return answered.get_future().get();
}

// Runs on the queue: answers what is waiting, batch by batch, until nothing
// is. Each batch is what arrived before its first read began.
void ZoteroIndexer::drainRequests() {
  for (;;) {
    std::vector<Request> batch;
    {
      std::lock_guard<std::mutex> lock(requestsMutex_);
      if (requests_.empty()) {
        draining_ = false;
        return;
      }
      batch.swap(requests_);
    }
    cancelExpiry();  // no expiry while the batch reads
    answerBatch(batch);
  }
}

void ZoteroIndexer::answerBatch(std::vector<Request>& batch) {
  std::vector<bool> answered(batch.size(), false);
  for (std::size_t i = 0; i < batch.size(); ++i) {
    if (answered[i]) continue;
    IndexAnswer result;
    bool fromCache = false;
    try {
      result = answer(batch[i].folder, batch[i].useCacheIfAvailable, fromCache);
    } catch (const std::exception& error) {  // memory exhaustion on a huge file, mostly
      result = {nullptr, error.what()};
    }
    // Every request ends by restarting the cache's lifetime: once for all
    // that share this answer, before they hear of it (after the last answer
    // nothing here may touch what the caller owns).
    scheduleExpiry();
    // A fresh look serves every waiting request for the folder; the cached
    // answer only those that allow the cache.
    for (std::size_t j = i; j < batch.size(); ++j) {
      if (answered[j] || batch[j].folder != batch[i].folder) continue;
      if (j != i && fromCache && !batch[j].useCacheIfAvailable) continue;
      answered[j] = true;
      if (batch[j].done) batch[j].done(result);
    }
  }
}

ZoteroIndexer::IndexAnswer ZoteroIndexer::answer(const std::string& folder, bool useCacheIfAvailable,
                                                 bool& fromCache) {
  fromCache = false;
  std::string databasePath = folder + "/zotero.sqlite";
  if (!fileExists(databasePath)) return {nullptr, "Zotero Library Not Exist"};
  double now = secondsSince1970();
  if (useCacheIfAvailable) {
    if (auto cached = reusableAnswer(folder, databasePath, now)) {
      fromCache = true;
      return {std::move(cached), std::nullopt};
    }
  }

  warmUpPinyinMapper();
  std::string workingDirectory =
      options_.workingDirectory.empty() ? defaultZoteroWorkingDirectory() : options_.workingDirectory;
  databaseReads_.fetch_add(1);
  ZoteroReadResult read = readZoteroDatabase(folder, workingDirectory);
  if (!read.database) return {nullptr, read.failure};

  ZoteroIndex built = buildZoteroIndex(std::move(*read.database), {localizedCategories_, localizedFields_});
  auto result = std::make_shared<IndexResult>();
  result->zoteroLibraryPath = folder;
  result->timestamp = now;
  result->groupsJSON = std::make_shared<const Bytes>(std::move(built.groupsJSON));
  result->itemAttributes = std::move(built.attributes);
  std::shared_ptr<const Bytes> reply = result->groupsJSON;
  {
    std::lock_guard<std::mutex> state(stateMutex_);
    indexResult_ = std::move(result);
  }
  return {std::move(reply), std::nullopt};
}

// Reuse needs the same folder, written exactly so. The file's date is weighed
// against now rather than against the cached result: whenever the date can be
// read the cache is reused; only an unreadable date falls back to 30 seconds.
std::shared_ptr<const Bytes> ZoteroIndexer::reusableAnswer(const std::string& folder,
                                                           const std::string& databasePath, double now) const {
  std::shared_ptr<const IndexResult> cached;
  {
    std::lock_guard<std::mutex> state(stateMutex_);
    cached = indexResult_;
  }
  if (!cached || cached->zoteroLibraryPath != folder) return nullptr;
  double modified = modificationTime(databasePath);
  bool fresh = modified != 0 ? modified < now : now - cached->timestamp <= 30.0;
  if (!fresh) return nullptr;
  return cached->groupsJSON;
}

OptionalBytes ZoteroIndexer::preview(int64_t itemID) const {
  std::shared_ptr<const IndexResult> cached;
  {
    std::lock_guard<std::mutex> state(stateMutex_);
    cached = indexResult_;
  }
  if (!cached) return std::nullopt;
  auto attributes = cached->itemAttributes.attributesOf(itemID);
  if (!attributes) return std::nullopt;
  return encodeZoteroAttributes(*attributes);
}

bool ZoteroIndexer::hasCachedResult() const {
  std::lock_guard<std::mutex> state(stateMutex_);
  return indexResult_ != nullptr;
}

std::shared_ptr<const Bytes> ZoteroIndexer::cachedGroupsJSON() const {
  std::lock_guard<std::mutex> state(stateMutex_);
  return indexResult_ ? indexResult_->groupsJSON : nullptr;
}

void ZoteroIndexer::cancelExpiry() {
  std::lock_guard<std::mutex> state(stateMutex_);
  if (dispatchWorkItem_) dispatchWorkItem_->cancel();
  dispatchWorkItem_.reset();
}

// The cache lives cacheLifetime seconds after the last index request. The job
// holds the indexer weakly: it never keeps a dropped indexer alive.
void ZoteroIndexer::scheduleExpiry() {
  std::weak_ptr<ZoteroIndexer> weakSelf = weak_from_this();
  auto item = std::make_shared<WorkItem>([weakSelf] {
    if (auto self = weakSelf.lock()) {
      std::lock_guard<std::mutex> state(self->stateMutex_);
      self->indexResult_.reset();
    }
  });
  {
    std::lock_guard<std::mutex> state(stateMutex_);
    if (dispatchWorkItem_) dispatchWorkItem_->cancel();
    dispatchWorkItem_ = item;
  }
  DispatchQueue& queue = options_.expiryQueue ? *options_.expiryQueue : DispatchQueue::main();
  queue.asyncAfter(DispatchQueue::Seconds(options_.cacheLifetime), item);
}

}  // namespace quorvi
