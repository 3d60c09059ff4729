// Running processes (#33). Not built yet: nil.
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::getRunningProcessesWithCompletion(Reply reply) { reply.sendData(std::nullopt); }

}  // namespace quorvi
