// End-to-end test fixtures: a private dbus-daemon started in a temporary
// folder, and the real quorvifind process attached to it. Both are stopped
// when the fixture is destroyed; nothing touches a desktop bus.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "service/bus_client.h"

namespace quorvi::testing {

// A scratch folder removed (with its contents) on destruction.
// The whole file, or "" when it cannot be read.
std::string readFile(const std::string& path);

class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  const std::string& path() const { return path_; }
  // Writes a file below the folder (creating folders); returns its path.
  std::string write(const std::string& relative, const std::string& contents, bool executable = false) const;

 private:
  std::string path_;
};

class TestBus {
 public:
  TestBus();
  ~TestBus();
  bool ok() const { return pid_ > 0; }
  const std::string& address() const { return address_; }
  pid_t pid() const { return pid_; }
  const std::string& directory() const { return dir_.path(); }
  // Folder the daemon activates services from.
  std::string servicesDirectory() const { return dir_.path() + "/services"; }
  // Stops the daemon (its clients then see the bus go away).
  void stop();
  std::unique_ptr<BusClient> connect() const;

 private:
  TemporaryDirectory dir_;
  std::string address_;
  pid_t pid_ = -1;
};

class ServiceProcess {
 public:
  // Starts build/src/service/quorvifind on the bus with extra environment
  // variables (XDG_CONFIG_HOME, HOME, ... for isolation; set by default to
  // folders inside `home`). Waits until the service owns its name.
  ServiceProcess(const TestBus& bus, const std::string& home, std::map<std::string, std::string> environment = {});
  ~ServiceProcess();
  bool ok() const { return pid_ > 0 && ready_; }
  pid_t pid() const { return pid_; }
  // Whether the process still runs (a zombie counts as gone).
  bool running() const;
  // Waits for the process to end; false on timeout.
  bool waitForExit(std::chrono::milliseconds timeout);
  // What it printed so far.
  std::string output() const;

 private:
  pid_t pid_ = -1;
  bool ready_ = false;
  std::string logPath_;
};

// Paths of the build tree (from QUORVI_BUILD_DIR, set by CTest).
std::string buildDirectory();
std::string sourceDirectory();
std::string serviceExecutable();

// Call helpers: the member by name, arguments built from words.
BusClient::CallResult callMember(BusClient& client, const std::string& member, const std::vector<std::string>& words,
                                 std::chrono::microseconds timeout = std::chrono::seconds(10));

}  // namespace quorvi::testing
