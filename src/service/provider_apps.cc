// App index operations (#2–#4): the glue between the bus and AppIndexer.
//  - #2 starts a scan through the main queue and answers, when the scan has
//    finished with a non-empty list, the JSON array of entries; an empty
//    list never answers;
//  - #3 and #4 are quick: answered on the calling (bus) thread from memory
//    (#4 hands over the bytes encoded when the list last changed).
#include "apps/app_indexer.h"
#include "common/dispatch.h"
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::startIndexAppsWithSearchScopes(Strings scopes, Reply completion) {
  DispatchQueue::main().async([scopes = std::move(scopes), completion = std::move(completion)] {
    AppIndexer::shared().startIndexing(scopes, [completion](const AppListRef& list) {
      if (list->entries.empty()) return;
      completion.sendData(list->json);
    });
  });
}

void ServiceProvider::checkAppIndexIsReadyWithCompletion(Reply reply) {
  reply.sendFlag(AppIndexer::shared().isReady());
}

void ServiceProvider::getAppsWithCompletionHandler(Reply reply) {
  AppIndexer& indexer = AppIndexer::shared();
  AppListRef list = indexer.appList();
  if (!indexer.isReady() || list->entries.empty()) {
    reply.sendData(std::nullopt);
    return;
  }
  reply.sendData(list->json);
}

}  // namespace quorvi
