// Shared pieces of the file index tests: a scratch home folder with its own
// preferences and settings files, files written with chosen times, and a
// main queue served on a thread of its own (scope changes need it).
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/dispatch.h"
#include "common/settings.h"
#include "fileindex/file_indexer.h"
#include "fsevents/file_events.h"
#include "support/test_bus.h"

namespace quorvi::testing {

// Serves DispatchQueue::main() for the whole test program.
class MainQueueThread : public ::testing::Environment {
 public:
  void SetUp() override {
    thread_ = std::thread([] { DispatchQueue::runMain(); });
  }
  void TearDown() override {
    DispatchQueue::stopMain();
    thread_.join();
  }

 private:
  std::thread thread_;
};

inline void onMain(const std::function<void()>& work) { DispatchQueue::main().sync(work); }

// The file-events service the tests' indexes watch through: its state (the
// event ids) in a scratch folder, sweeps and rename holds short.
inline FileEvents& testFileEvents() {
  static auto* state = new TemporaryDirectory();
  static auto* events = [] {
    FileEvents::Options options;
    options.stateDirectory = state->path();
    options.moveOutHold = 0.05;
    options.sweepInterval = 0.2;
    return new FileEvents(options);
  }();
  return *events;
}

class IndexTree {
 public:
  IndexTree() : home_(dir_.path() + "/home"), settings_(dir_.path() + "/config/settings.json") {
    ::mkdir(home_.c_str(), 0755);
  }
  const std::string& home() const { return home_; }
  Settings& settings() { return settings_; }
  std::string preferencesFile() const { return dir_.path() + "/data/Quorvi/Data/Customize/FileIndexIgnorePaths"; }
  FilterEnvironment environment() { return {home_, preferencesFile(), &settings_}; }
  // An index of this tree's home, watching through the tests' service.
  std::unique_ptr<FileIndexer> makeIndexer() {
    return std::make_unique<FileIndexer>(environment(), false, &testFileEvents());
  }

  // Writes home/relative with the modification time given (seconds since 1970).
  std::string file(const std::string& relative, double mtime = 1.6e9, const std::string& contents = "x") {
    std::string path = dir_.write("home/" + relative, contents);
    setTime(path, mtime);
    return path;
  }
  std::string folder(const std::string& relative, double mtime = 1.6e9) {
    std::string path = home_ + "/" + relative;
    std::string partial;
    for (std::size_t at = 0; at != std::string::npos;) {
      at = path.find('/', at + 1);
      ::mkdir(path.substr(0, at).c_str(), 0755);
    }
    setTime(path, mtime);
    return path;
  }
  static void setTime(const std::string& path, double mtime) {
    timespec times[2];
    times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(mtime);
    times[0].tv_nsec = times[1].tv_nsec = 0;
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
  void writePreferences(const std::string& text) {
    dir_.write("data/Quorvi/Data/Customize/FileIndexIgnorePaths", text);
  }

 private:
  TemporaryDirectory dir_;
  std::string home_;
  Settings settings_;
};

// Runs a scan of the scopes on the index and waits for it.
inline void indexScopes(FileIndexer& indexer, const std::vector<std::string>& scopes) {
  onMain([&] { indexer.startIndexing(scopes); });
  indexer.waitForPendingChanges();
}

inline std::vector<std::string> namesOf(const std::vector<File>& files) {
  std::vector<std::string> names;
  for (const auto& file : files) names.push_back(file.nameOfDisplay);
  return names;
}

inline std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// Every record of the index, in index order.
inline std::vector<File> allRecords(FileIndexer& indexer) {
  std::vector<File> files;
  indexer.snapshot().forEach([&](const FileTable& table, std::size_t row) {
    files.push_back(table.file(row));
    return true;
  });
  return files;
}

}  // namespace quorvi::testing
