// The frame's own operations: the never-answering ones, the event-log export
// and the named tasks.
#include "service/service_provider.h"

#include "common/dispatch.h"
#include "common/event_log.h"
#include "service/task_performer.h"

namespace quorvi {

ServiceProvider& ServiceProvider::shared() {
  static auto* provider = new ServiceProvider();
  return *provider;
}

// The client holds this request open; the reply is released unanswered.
void ServiceProvider::neverReplyWithBlock(Reply) {}

void ServiceProvider::readPasteboardWithFrontmostApplication(std::string, Reply) {}

void ServiceProvider::exportEventLogsTo(std::string destination) {
  DispatchQueue::global().async([destination = std::move(destination)] {
    EventLog::shared().exportTo(destination);  // a failure is ignored
  });
}

// Acknowledged on the bus thread; the launch (and, the first time, finding
// the companion on disk) happens on a request thread.
void ServiceProvider::performQuorviTask(std::string name, Strings arguments) {
  DispatchQueue::global().async([name = std::move(name), arguments = std::move(arguments)] {
    QuorviTaskPerformer::shared().perform(name, arguments);
  });
}

void ServiceProvider::performQuorviTaskWithReply(std::string name, Strings arguments, Reply reply) {
  QuorviTaskPerformer::shared().performWithReply(name, arguments,
                                                 [reply](OptionalBytes output) { reply.sendData(std::move(output)); });
}

}  // namespace quorvi
