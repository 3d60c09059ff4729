// File index operations (#5–#19): the glue between the bus and FileIndexer.
//  - #7–#9 change scopes on the main queue (at once when already there);
//  - #10, #15, #19 are quick: answered on the calling (bus) thread from memory;
//  - #12–#14, #16–#18 are called on a worker and search there.
// Nothing here throws across the boundary: a failure answers nil or false.
#include <exception>

#include "common/dispatch.h"
#include "contentindex/content_indexer.h"
#include "fileindex/file_indexer.h"
#include "service/service_provider.h"

namespace quorvi {

namespace {

FileIndexer& indexer() { return FileIndexer::shared(); }

void onMain(std::function<void()> work) {
  if (DispatchQueue::main().isCurrent()) {
    work();
  } else {
    DispatchQueue::main().async(std::move(work));
  }
}

// The JSON array of FileBridge records, or nil when there is none.
void sendFiles(const Reply& reply, const std::vector<File>& files) {
  if (files.empty()) {
    reply.sendData(std::nullopt);
    return;
  }
  Json array = Json::array();
  for (const auto& file : files) array.push_back(FileBridge::from(file).toJson());
  reply.sendJson(array);
}

template <typename Work>
void answering(const Reply& reply, Work&& work) {
  try {
    work();
  } catch (const std::exception&) {
    reply.sendData(std::nullopt);
  }
}

}  // namespace

void ServiceProvider::workspaceWillSleep() { indexer().workspaceWillSleep(); }

void ServiceProvider::workspaceDidAwake() { indexer().workspaceDidAwake(); }

void ServiceProvider::startIndexFilesWithSearchScopes(Strings scopes) {
  onMain([scopes = std::move(scopes)] { indexer().startIndexing(scopes); });
}

void ServiceProvider::fileIndexRemoveWithSearchScopes(Strings scopes) {
  onMain([scopes = std::move(scopes)] { indexer().removeSearchScopes(scopes); });
}

void ServiceProvider::fileIndexAddWithSearchScopes(Strings scopes) {
  onMain([scopes = std::move(scopes)] { indexer().addSearchScopes(scopes); });
}

void ServiceProvider::getFileIndexResultDescriptionWithCompletion(Reply reply) {
  FileIndexer::State state = indexer().state();
  OptionalBytes data;
  if (state.indexResultDescription) data = encodeJson(state.indexResultDescription->toJson());
  reply.sendDataAndString(std::move(data), state.indexDescription);
}

void ServiceProvider::searchFilesWithQuery(std::string query, int64_t maxcount, Reply reply) {
  if (indexer().isEmpty()) {
    reply.sendData(std::nullopt);
    return;
  }
  answering(reply, [&] { sendFiles(reply, indexer().searchFiles(query, maxcount)); });
}

void ServiceProvider::searchFilesIn(std::string directory, std::string query, int64_t maxcount, Reply reply) {
  answering(reply, [&] { sendFiles(reply, indexer().searchFiles(directory, query, maxcount)); });
}

void ServiceProvider::searchFoldersWithQuery(std::string query, int64_t maxcount, Reply reply) {
  answering(reply, [&] { sendFiles(reply, indexer().searchFolders(query, maxcount)); });
}

void ServiceProvider::containsFileAt(std::string path, Reply reply) {
  reply.sendFlag(indexer().containsFile(path));
}

void ServiceProvider::getVSCodeWorkspacesWithCompletionHandler(Reply reply) {
  answering(reply, [&] { sendFiles(reply, indexer().codeWorkspaces()); });
}

void ServiceProvider::getAllXcodeProjectsWithCompletionHandler(Reply reply) {
  answering(reply, [&] { sendFiles(reply, indexer().ideProjects()); });
}

void ServiceProvider::getDirectoryFiles(std::string directory, bool skipHiddenFiles, Reply reply) {
  answering(reply, [&] {
    auto entries = directoryFiles(directory, skipHiddenFiles);
    if (!entries || entries->empty()) {
      reply.sendData(std::nullopt);
      return;
    }
    Json array = Json::array();
    for (const auto& entry : *entries) array.push_back(entry.toJson());
    reply.sendJson(array);
  });
}

void ServiceProvider::getPerformanceSnapshotWithCompletion(Reply reply) {
  Json json = indexer().performanceSnapshot().toJson();
  // The content index reports only when it exists (a report never makes it).
  ContentIndexer* content = ContentIndexer::sharedIfMade();
  json["contentIndex"] = content ? content->progress().toJson() : ContentIndexProgress{}.toJson();
  reply.sendJson(json);
}

}  // namespace quorvi
