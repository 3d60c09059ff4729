// Zotero operations (#28, #29), answered by the shared ZoteroIndexer.
#include "service/members.h"
#include "service/request_bounds.h"
#include "service/service_provider.h"
#include "zotero/zotero_indexer.h"

namespace quorvi {

// Called on the bus thread: the request is queued behind the reads before it
// ("com.quorvi.zotero") and answered from there, with the groups' JSON and no
// text, or no data and the failure text. A library whose answer would not fit
// one reply fails with a text of its own rather than a bare nil.
void ServiceProvider::indexZoteroAt(std::string folder, bool useCacheIfAvailable, Reply reply) {
  ZoteroIndexer::shared().index(folder, useCacheIfAvailable, [reply](ZoteroIndexer::IndexAnswer answer) {
    if (answer.data && answer.data->size() > kMaxReplyArrayBytes) {
      reply.sendDataAndString(std::nullopt, std::string(kZoteroLibraryTooLarge));
      return;
    }
    reply.sendSharedDataAndString(std::move(answer.data), std::move(answer.failure));
  });
}

// Quick: answered from the cached index, never from the database.
void ServiceProvider::getZoteroPreviewWithItemID(int64_t itemID, Reply reply) {
  reply.sendData(ZoteroIndexer::shared().preview(itemID));
}

}  // namespace quorvi
