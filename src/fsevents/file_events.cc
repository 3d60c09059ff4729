// Placeholder until the inotify watcher lands: accepts watchers and never
// reports an event, so that its users build and run.
#include "fsevents/file_events.h"

#include <atomic>

namespace quorvi {

struct FileEvents::Impl {
  Options options;
};

FileEvents& FileEvents::shared() {
  static auto* events = new FileEvents(Options{});
  return *events;
}

FileEvents::FileEvents(Options options) : impl_(std::make_unique<Impl>()) { impl_->options = std::move(options); }
FileEvents::~FileEvents() = default;

bool FileEvents::startWatching(const std::vector<std::string>&, const std::string&, std::shared_ptr<DispatchQueue>,
                               std::optional<FileEventID>, FileEventHandler, FileWatchOptions) {
  return true;
}
void FileEvents::stopWatching(const std::string&) {}
FileEventID FileEvents::currentEventID() const { return 0; }
FileEventsStatistics FileEvents::statistics() const { return {}; }
void FileEvents::waitUntilIdle() const {}

}  // namespace quorvi
