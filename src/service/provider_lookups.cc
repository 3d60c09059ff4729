// One-shot look-ups not built yet: recent files and documents, metadata
// queries and attribute records. Each answers its empty shape; the texts
// beside the data echo the request's key.
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::getRecentFilesWithSearchScopes(Strings, Reply reply) { reply.sendData(std::nullopt); }
void ServiceProvider::querySpotlightByNameWithKeyword(std::string, Strings, int64_t, Reply reply) {
  reply.sendData(std::nullopt);
}
void ServiceProvider::querySpotlightByNameAndContentsWithKeyword(std::string, Strings, int64_t, Reply reply) {
  reply.sendData(std::nullopt);
}
void ServiceProvider::getRecentDocumentsWithBundleIdentifier(std::string bundleIdentifier, Reply reply) {
  reply.sendStringAndData(bundleIdentifier, std::nullopt);
}
void ServiceProvider::getAppAttributesWithPath(std::string path, Reply reply) {
  reply.sendDataAndString(std::nullopt, path);
}
void ServiceProvider::getFileAttributesWithPath(std::string path, Reply reply) {
  reply.sendDataAndString(std::nullopt, path);
}

}  // namespace quorvi
