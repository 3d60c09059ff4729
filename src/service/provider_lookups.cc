// One-shot look-ups not built yet: text recognition and contacts. Each
// answers its empty shape; the texts beside the data echo the request's key.
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::ocrWithImage(Bytes, int64_t identifier, bool, Reply reply) {
  reply.sendStringDataAndInteger(std::nullopt, std::nullopt, identifier);
}
void ServiceProvider::searchContactsWithQuery(std::string, int64_t, Reply reply) { reply.sendData(std::nullopt); }

}  // namespace quorvi
