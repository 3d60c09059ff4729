// quorvifind: the launcher's background search service on the session bus.
//
// The main thread serves the main queue; one thread owns the bus. The
// process ends when its bus connection closes (the session ended, or the
// daemon went away) or on SIGINT/SIGTERM.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "common/dispatch.h"
#include "common/memory_release.h"
#include "contentindex/content_indexer.h"
#include "desktop/desktop_bus_objects.h"
#include "service/bus_server.h"
#include "service/members.h"

namespace {

quorvi::BusServer* gServer = nullptr;

void onTerminate(int) {
  if (gServer) gServer->stop();
}

// Tesseract's OpenMP would start a team of threads per recognition and
// compete with the service's own threads; one thread per engine is faster
// when requests run side by side. OpenMP reads OMP_THREAD_LIMIT when its
// library loads, before main() runs, so setting it here is too late for
// this process: set it and start the program again (same process id).
void limitOpenMPThreads(char** argv) {
  const char* limit = std::getenv("OMP_THREAD_LIMIT");
  if (limit && std::strcmp(limit, "1") == 0) return;
  ::setenv("OMP_THREAD_LIMIT", "1", 1);
  // The executable's own path (not /proc/self/exe), so that the process
  // keeps its name in process listings.
  char path[4096];
  ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return;
  path[length] = '\0';
  ::execv(path, argv);
  // Not restarted: run on with OpenMP's default.
}

void printHelp() {
  std::printf(
      "usage: quorvifind [--address ADDRESS]\n"
      "\n"
      "The launcher's search service. It owns %s on the session bus (or on the\n"
      "bus at ADDRESS) and serves %s at %s until its bus goes away.\n"
      "Call it with `quorvi` (see `quorvi --help`), busctl, gdbus or dbus-send.\n"
      "\n"
      "  --address ADDRESS  a D-Bus address instead of the session bus\n"
      "  --version          print the version\n",
      quorvi::kBusName, quorvi::kInterfaceName, quorvi::kObjectPath);
}

}  // namespace

int main(int argc, char** argv) {
  limitOpenMPThreads(argv);
  quorvi::BusServer::Options options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      printHelp();
      return 0;
    } else if (arg == "--version") {
      std::printf("quorvifind %s\n", QUORVI_VERSION);
      return 0;
    } else if (arg == "--address" && i + 1 < argc) {
      options.address = argv[++i];
    } else {
      std::fprintf(stderr, "quorvifind: unknown argument %s (see --help)\n", arg.c_str());
      return 2;
    }
  }
  quorvi::limitAllocatorArenas();
  ::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  // The content index builds in the background once the file index has scopes.
  quorvi::ContentIndexer::followFileIndex();
  // KRunner and GNOME Shell ask on the same connection, at their own paths.
  options.alsoExport.push_back([](sd_bus* bus, quorvi::BusServer& server, std::string* error) {
    return quorvi::exportDesktopObjects(
        bus, [&server](std::function<void()> work) { server.perform(std::move(work)); }, error);
  });
  quorvi::BusServer server(options);
  gServer = &server;
  std::promise<std::string> started;
  // The bus thread connects, exports and then serves; when the bus goes
  // away it stops the main queue, which ends the process.
  std::thread busThread([&] {
    std::string error;
    if (!server.start(&error)) {
      started.set_value(error.empty() ? "cannot start" : error);
      return;
    }
    started.set_value("");
    server.run();
    quorvi::DispatchQueue::stopMain();
  });
  std::string error = started.get_future().get();
  if (!error.empty()) {
    std::fprintf(stderr, "quorvifind: %s\n", error.c_str());
    busThread.join();
    return 1;
  }
  struct sigaction action {};
  action.sa_handler = onTerminate;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  std::printf("quorvifind: serving %s as %s\n", quorvi::kBusName, server.uniqueName().c_str());

  quorvi::DispatchQueue::runMain();
  busThread.join();
  std::fflush(stdout);
  // Workers may still be busy with requests nobody waits for any more; end
  // without running static destructors under them.
  ::_exit(0);
}
