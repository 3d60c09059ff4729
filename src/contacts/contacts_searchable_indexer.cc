#include "contacts/contacts_searchable_indexer.h"

#include <time.h>

#include <cstdio>

#include "common/settings.h"
#include "fileindex/match_logic.h"

namespace quorvi {

namespace {

std::string parentFolder(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

// Now, on the clock the kernel stamps file times with: the coarse one,
// which may lag the precise wall clock by a tick. Against the wall clock a
// folder changed just after "now" could carry a time just before it.
double fileClockSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace

ContactsSearchableIndexer& ContactsSearchableIndexer::shared() {
  static ContactsSearchableIndexer* indexer = [] {
    Options options;
    options.settingsPath = Settings::defaultPath();
    // Never destroyed: requests may still use it while the process ends.
    return new std::shared_ptr<ContactsSearchableIndexer>(make(std::move(options)));
  }()->get();
  return *indexer;
}

std::shared_ptr<ContactsSearchableIndexer> ContactsSearchableIndexer::make(Options options) {
  return std::shared_ptr<ContactsSearchableIndexer>(new ContactsSearchableIndexer(std::move(options)));
}

ContactsSearchableIndexer::ContactsSearchableIndexer(Options options)
    : options_(std::move(options)),
      fileEvents_(options_.fileEvents ? *options_.fileEvents : FileEvents::shared()),
      loadQueue_(DispatchQueue::makeSerial("com.quorvi.contacts.load", QualityOfService::background)),
      eventQueue_(DispatchQueue::makeSerial("com.quorvi.contacts.events", QualityOfService::background)) {
  if (!options_.sources) options_.sources = &AddressBookSources::standard;
}

ContactsSearchableIndexer::~ContactsSearchableIndexer() {
  if (!watchedPaths_.empty()) fileEvents_.stopWatching(options_.watcherIdentifier, false);
}

void ContactsSearchableIndexer::search(std::string query, int64_t maxcount, Completion completion) {
  if (maxcount < 0) {
    completion(std::nullopt);
    return;
  }
  if (auto snapshot = items()) {
    completion(searchItems(*snapshot, query, maxcount));
    return;
  }
  loadQueue_->async([self = shared_from_this(), query = std::move(query), maxcount,
                     completion = std::move(completion)]() mutable {
    auto snapshot = self->loadIfAbsent();
    // Let go of the indexer before answering: whoever waits for the answer
    // may be about to let go of it too.
    self.reset();
    completion(searchItems(*snapshot, query, maxcount));
  });
}

OptionalBytes ContactsSearchableIndexer::searchItems(const Items& items, std::string_view query, int64_t maxcount) {
  if (items.empty() || maxcount < 0) return std::nullopt;
  std::vector<MatchLogicQuery> groups = MatchLogic::parse(query);
  std::vector<const Item*> hits;
  for (const auto& item : items) {
    if (MatchLogic::matchesAll(groups, item.cmatchs.c_str())) hits.push_back(&item);
    if (static_cast<int64_t>(hits.size()) >= maxcount) break;
  }
  if (hits.empty()) return std::nullopt;
  return encodeContactItems(hits);
}

std::shared_ptr<const ContactsSearchableIndexer::Items> ContactsSearchableIndexer::items() const {
  std::lock_guard guard(mutex_);
  return items_;
}

void ContactsSearchableIndexer::dropItems() {
  std::lock_guard guard(mutex_);
  items_.reset();
  ++changeCount_;
}

uint64_t ContactsSearchableIndexer::loadCount() const {
  std::lock_guard guard(mutex_);
  return loadCount_;
}

std::shared_ptr<const ContactsSearchableIndexer::Items> ContactsSearchableIndexer::loadIfAbsent() {
  uint64_t changeCountAtStart;
  {
    std::lock_guard guard(mutex_);
    if (items_) return items_;
    changeCountAtStart = changeCount_;
  }
  AddressBookSources sources = options_.sources();
  // Watch before reading, so that a change made during the read is seen.
  watch(sources);
  AddressBookLoad load = AddressBookLoader(sources, options_.limits, options_.workingDirectory).load();
  std::printf("contacts: %zu entries from %zu cards in %zu address books (%zu skipped) in %.1f ms\n",
              load.items.size(), load.cardsRead, load.filesRead, load.filesSkipped, load.seconds * 1000);
  auto loaded = std::make_shared<const Items>(std::move(load.items));
  std::lock_guard guard(mutex_);
  ++loadCount_;
  if (changeCount_ == changeCountAtStart) items_ = loaded;
  return loaded;
}

void ContactsSearchableIndexer::watch(const AddressBookSources& sources) {
  std::vector<std::string> paths = sources.watchedPaths();
  std::string settingsFolder;
  if (!options_.settingsPath.empty()) {
    settingsFolder = parentFolder(options_.settingsPath);
    paths.push_back(settingsFolder);
  }
  if (paths == watchedPaths_) return;
  watchedPaths_ = paths;

  FileWatchOptions watchOptions;
  // Only the settings file counts in its folder: do not watch below it.
  if (!settingsFolder.empty()) {
    std::string prefix = settingsFolder + "/";
    watchOptions.watchesFolder = [prefix](std::string_view folder) {
      return folder.substr(0, prefix.size()) != prefix;
    };
  }
  // Folders changed between now and their watch are reported, so a file
  // added while the first load reads is not missed.
  watchOptions.reportsFoldersChangedSince = fileClockSeconds();
  // Evolution's database in write-ahead-log mode commits by appending to a
  // log it keeps open: only writes to open files show those commits.
  watchOptions.reportsWritesToOpenFiles = true;
  std::weak_ptr<ContactsSearchableIndexer> weak = weak_from_this();
  fileEvents_.startWatching(
      paths, options_.watcherIdentifier, eventQueue_, std::nullopt,
      [weak](std::vector<FileEvent> events) {
        if (auto self = weak.lock()) self->handle(events);
      },
      std::move(watchOptions));
}

void ContactsSearchableIndexer::handle(const std::vector<FileEvent>& events) {
  std::string settingsFolder = options_.settingsPath.empty() ? std::string() : parentFolder(options_.settingsPath);
  for (const auto& event : events) {
    if (event.has(kFileEventHistoryDone)) continue;
    bool inSettingsFolder = !settingsFolder.empty() && parentFolder(event.path) == settingsFolder &&
                            !event.has(kFileEventRootChanged);
    if (inSettingsFolder && event.path != options_.settingsPath && event.movedFrom != options_.settingsPath) {
      continue;  // another file beside the settings
    }
    dropItems();
    return;
  }
}

}  // namespace quorvi
