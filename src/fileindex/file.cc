#include "fileindex/file.h"

#include <sys/stat.h>

#include <chrono>

namespace quorvi {

bool FileReference::isReachable() const {
  struct stat st;
  if (path.empty() || ::lstat(path.c_str(), &st) != 0) return false;
  return static_cast<uint64_t>(st.st_ino) == inode && static_cast<uint64_t>(st.st_dev) == device;
}

FileBridge FileBridge::from(const File& file) {
  return {file.nameOfDisplay, file.fileRefURL.currentPath(), file.isDirectory};
}

Json FileBridge::toJson() const {
  Json json = Json::object();
  json["nameOfDisplay"] = nameOfDisplay;
  json["path"] = path;
  json["isFolder"] = isFolder;
  return json;
}

MatchableFileBridge MatchableFileBridge::from(const File& file) {
  return {file.nameOfDisplay, file.fileRefURL.currentPath(), file.isDirectory, std::string(file.cmatchs.view())};
}

Json MatchableFileBridge::toJson() const {
  Json json = Json::object();
  json["nameOfDisplay"] = nameOfDisplay;
  json["path"] = path;
  json["isFolder"] = isFolder;
  json["matchs"] = matchs;
  return json;
}

Json FileIndexResultDescription::toJson() const {
  Json json = Json::object();
  json["isReady"] = isReady;
  json["countOfFiles"] = countOfFiles;
  json["consumeTime"] = consumeTime;
  json["finalChangedTime"] = finalChangedTime;
  return json;
}

Json PerformanceSnapshot::toJson() const {
  Json json = Json::object();
  json["countOfFiles"] = countOfFiles;
  json["countOfFolders"] = countOfFolders;
  json["bytesOfIndex"] = bytesOfIndex;
  json["bytesPerEntry"] = bytesPerEntry;
  json["isIndexing"] = isIndexing;
  json["scanProgress"] = scanProgress;
  json["runs"] = runs;
  json["lastRunTime"] = lastRunTime;
  json["searches"] = searches;
  json["lastSearchTime"] = lastSearchTime;
  json["staleRecordsRemoved"] = staleRecordsRemoved;
  json["fileEventsHandled"] = fileEventsHandled;
  json["lastChangeTimestamp"] = lastChangeTimestamp;
  json["watchedFolders"] = watchedFolders;
  json["sweptFolders"] = sweptFolders;
  json["watchBudget"] = watchBudget;
  json["bytesOfWatches"] = bytesOfWatches;
  json["eventQueueOverflows"] = eventQueueOverflows;
  return json;
}

double secondsSince1970() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

}  // namespace quorvi
