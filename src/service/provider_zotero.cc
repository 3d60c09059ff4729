// Zotero operations (#28, #29), answered by the shared ZoteroIndexer.
#include "service/service_provider.h"
#include "zotero/zotero_indexer.h"

namespace quorvi {

// Runs on a worker: copies and reads the database (or reuses the cache).
// Replies with the groups' JSON and no text, or no data and the failure text.
void ServiceProvider::indexZoteroAt(std::string folder, bool useCacheIfAvailable, Reply reply) {
  auto answer = ZoteroIndexer::shared().index(folder, useCacheIfAvailable);
  reply.sendDataAndString(std::move(answer.data), std::move(answer.failure));
}

// Quick: answered from the cached index, never from the database.
void ServiceProvider::getZoteroPreviewWithItemID(int64_t itemID, Reply reply) {
  reply.sendData(ZoteroIndexer::shared().preview(itemID));
}

}  // namespace quorvi
