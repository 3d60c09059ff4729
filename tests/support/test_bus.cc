#include "support/test_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace quorvi::testing {

namespace fs = std::filesystem;

std::string buildDirectory() {
  const char* dir = std::getenv("QUORVI_BUILD_DIR");
  return dir ? dir : QUORVI_DEFAULT_BUILD_DIR;
}

std::string sourceDirectory() {
  const char* dir = std::getenv("QUORVI_SOURCE_DIR");
  return dir ? dir : QUORVI_DEFAULT_SOURCE_DIR;
}

std::string serviceExecutable() { return buildDirectory() + "/src/service/quorvifind"; }

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (fs::temp_directory_path() / "quorvi-test-XXXXXX").string();
  if (::mkdtemp(pattern.data())) path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code error;
  if (!path_.empty()) fs::remove_all(path_, error);
}

std::string TemporaryDirectory::write(const std::string& relative, const std::string& contents,
                                      bool executable) const {
  fs::path file = fs::path(path_) / relative;
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << contents;
  if (executable) ::chmod(file.c_str(), 0755);
  return file.string();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

namespace {

bool isGone(pid_t pid) {
  // A killed child may linger as a zombie for a while; that counts as gone.
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return true;
  auto close = line.rfind(')');
  return close == std::string::npos || line.substr(close + 2, 1) == "Z";
}

}  // namespace

TestBus::TestBus() {
  if (dir_.path().empty()) return;
  fs::create_directories(servicesDirectory());
  std::string config = readFile(sourceDirectory() + "/tests/support/test-bus.conf.in");
  for (std::size_t at; (at = config.find("@DIR@")) != std::string::npos;) config.replace(at, 5, dir_.path());
  std::string configPath = dir_.write("bus.conf", config);

  int fds[2];
  if (::pipe(fds) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  // Nothing else of ours reaches the daemon: a descriptor it inherited (a
  // build lock held by the test runner, say) would live on with it.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  std::string configArg = "--config-file=" + configPath;
  const char* argv[] = {"dbus-daemon", configArg.c_str(), "--print-address=1", "--print-pid=1", "--fork",
                        "--nopidfile", nullptr};
  pid_t launcher = -1;
  int r = ::posix_spawnp(&launcher, "dbus-daemon", &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (r != 0) {
    ::close(fds[0]);
    return;
  }
  std::string out;
  char buffer[512];
  // The forked daemon keeps the pipe open: read its two lines, not to the end.
  while (std::count(out.begin(), out.end(), '\n') < 2) {
    ssize_t n = ::read(fds[0], buffer, sizeof buffer);
    if (n <= 0) break;
    out.append(buffer, n);
  }
  ::close(fds[0]);
  int status;
  ::waitpid(launcher, &status, 0);
  std::istringstream lines(out);
  std::string pidLine;
  std::getline(lines, address_);
  std::getline(lines, pidLine);
  if (!address_.empty() && !pidLine.empty()) pid_ = std::atoi(pidLine.c_str());
}

TestBus::~TestBus() { stop(); }

void TestBus::stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  for (int i = 0; i < 200 && !isGone(pid_); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  pid_ = -1;
}

std::unique_ptr<BusClient> TestBus::connect() const {
  std::string error;
  return BusClient::connect(address_, &error);
}

ServiceProcess::ServiceProcess(const TestBus& bus, const std::string& home,
                               std::map<std::string, std::string> environment) {
  std::map<std::string, std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string entry = *e;
    auto eq = entry.find('=');
    if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  env["HOME"] = home;
  env["XDG_CONFIG_HOME"] = home + "/.config";
  env["XDG_DATA_HOME"] = home + "/.local/share";
  env["XDG_CACHE_HOME"] = home + "/.cache";
  env["XDG_DATA_DIRS"] = home + "/.system-share";
  env["QUORVI_RESOURCE_DIR"] = sourceDirectory() + "/resources";
  env["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
  env.erase("DBUS_STARTER_ADDRESS");
  for (auto& [key, value] : environment) env[key] = value;
  std::vector<std::string> entries;
  for (auto& [key, value] : env) entries.push_back(key + "=" + value);
  std::vector<char*> envp;
  for (auto& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);

  logPath_ = home + "/quorvifind.log";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  std::string exe = serviceExecutable();
  const char* argv[] = {exe.c_str(), "--address", bus.address().c_str(), nullptr};
  int r = ::posix_spawn(&pid_, exe.c_str(), &actions, nullptr, const_cast<char**>(argv), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (r != 0) {
    pid_ = -1;
    return;
  }
  auto client = bus.connect();
  for (int i = 0; client && i < 500 && running(); ++i) {
    if (client->serviceIsRunning()) {
      ready_ = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

ServiceProcess::~ServiceProcess() {
  if (pid_ <= 0) return;
  if (running()) ::kill(pid_, SIGTERM);
  if (!waitForExit(std::chrono::seconds(5))) ::kill(pid_, SIGKILL);
  int status;
  ::waitpid(pid_, &status, 0);
}

bool ServiceProcess::running() const {
  if (pid_ <= 0) return false;
  int status;
  return ::waitpid(pid_, &status, WNOHANG) == 0 && !isGone(pid_);
}

bool ServiceProcess::waitForExit(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    int status;
    pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == pid_ || r < 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

std::string ServiceProcess::output() const { return readFile(logPath_); }

BusClient::CallResult callMember(BusClient& client, const std::string& member, const std::vector<std::string>& words,
                                 std::chrono::microseconds timeout) {
  const MemberInfo* info = findMember(member);
  if (!info) return {false, "unknown member", member, {}};
  CallArguments arguments;
  std::string error;
  if (!argumentsFromWords(info->inSignature, words, arguments, &error)) return {false, "bad arguments", error, {}};
  return client.call(*info, arguments, timeout);
}

}  // namespace quorvi::testing
