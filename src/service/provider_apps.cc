// App index operations (#2–#4). Not built yet: no app is ever found, so #2
// never replies (as for a scan that finds nothing), #3 is false, #4 nil.
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::startIndexAppsWithSearchScopes(Strings, Reply) {}
void ServiceProvider::checkAppIndexIsReadyWithCompletion(Reply reply) { reply.sendFlag(false); }
void ServiceProvider::getAppsWithCompletionHandler(Reply reply) { reply.sendData(std::nullopt); }

}  // namespace quorvi
