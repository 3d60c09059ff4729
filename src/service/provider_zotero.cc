// Zotero operations (#28, #29). Not built yet: (nil, nil) and nil.
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::indexZoteroAt(std::string, bool, Reply reply) {
  reply.sendDataAndString(std::nullopt, std::nullopt);
}
void ServiceProvider::getZoteroPreviewWithItemID(int64_t, Reply reply) { reply.sendData(std::nullopt); }

}  // namespace quorvi
