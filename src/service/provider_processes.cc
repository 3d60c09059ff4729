// Running processes (#33): the process table, the running applications and
// the listening ports, as one RunningProcesses record. Called on a worker of
// the global pool; nil when the process table cannot be read.
#include "common/language.h"
#include "processes/quit_process_fetcher.h"
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::getRunningProcessesWithCompletion(Reply reply) {
  try {
    ProcessFetchOptions options;
    options.language = Language::shared().preferredLanguage();
    auto processes = QuitProcessFetcher(options).fetch();
    if (!processes) {
      reply.sendData(std::nullopt);
      return;
    }
    reply.sendData(encodeRunningProcesses(*processes));
  } catch (...) {
    reply.sendData(std::nullopt);  // allocation failure or the like: nil, never a half answer
  }
}

}  // namespace quorvi
