// File index operations (#5–#19). Not built yet: each answers its empty shape.
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::workspaceWillSleep() {}
void ServiceProvider::workspaceDidAwake() {}
void ServiceProvider::startIndexFilesWithSearchScopes(Strings) {}
void ServiceProvider::fileIndexRemoveWithSearchScopes(Strings) {}
void ServiceProvider::fileIndexAddWithSearchScopes(Strings) {}
void ServiceProvider::getFileIndexResultDescriptionWithCompletion(Reply reply) {
  reply.sendDataAndString(std::nullopt, std::nullopt);
}
void ServiceProvider::searchFilesWithQuery(std::string, int64_t, Reply reply) { reply.sendData(std::nullopt); }
void ServiceProvider::searchFilesIn(std::string, std::string, int64_t, Reply reply) { reply.sendData(std::nullopt); }
void ServiceProvider::searchFoldersWithQuery(std::string, int64_t, Reply reply) { reply.sendData(std::nullopt); }
void ServiceProvider::containsFileAt(std::string, Reply reply) { reply.sendFlag(false); }
void ServiceProvider::getVSCodeWorkspacesWithCompletionHandler(Reply reply) { reply.sendData(std::nullopt); }
void ServiceProvider::getAllXcodeProjectsWithCompletionHandler(Reply reply) { reply.sendData(std::nullopt); }
void ServiceProvider::getDirectoryFiles(std::string, bool, Reply reply) { reply.sendData(std::nullopt); }
void ServiceProvider::getPerformanceSnapshotWithCompletion(Reply reply) { reply.sendData(std::nullopt); }

}  // namespace quorvi
