// quorvifind: the launcher's background search service on the session bus.
//
// The main thread serves the main queue; one thread owns the bus. The
// process ends when its bus connection closes (the session ended, or the
// daemon went away) or on SIGINT/SIGTERM.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "common/dispatch.h"
#include "contentindex/content_indexer.h"
#include "service/bus_server.h"
#include "service/members.h"

namespace {

quorvi::BusServer* gServer = nullptr;

void onTerminate(int) {
  if (gServer) gServer->stop();
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
  ::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  // The content index builds in the background once the file index has scopes.
  quorvi::ContentIndexer::followFileIndex();
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
