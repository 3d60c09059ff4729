#include "platform/process_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <thread>

extern char** environ;

namespace quorvi {

namespace {

struct Pipe {
  int read = -1, write = -1;
  bool open() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    read = fds[0];
    write = fds[1];
    return true;
  }
  void closeRead() { if (read >= 0) ::close(read), read = -1; }
  void closeWrite() { if (write >= 0) ::close(write), write = -1; }
  ~Pipe() { closeRead(); closeWrite(); }
};

std::vector<char*> makeArgv(const std::string& executable, const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return argv;
}

// Spawn attributes that give the child a clean start whatever this process
// did to its signals: every signal at its default action (the service
// ignores SIGPIPE, and ignored signals survive exec) and nothing blocked
// (a pool thread's mask would otherwise be inherited).
class CleanSignals {
 public:
  CleanSignals() {
    posix_spawnattr_init(&attributes_);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  ~CleanSignals() { posix_spawnattr_destroy(&attributes_); }
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

int decodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Reads both pipes until they close or the deadline passes.
bool drain(Pipe& out, Pipe& err, ProcessResult& result, const ProcessOptions& options,
           std::chrono::steady_clock::time_point deadline) {
  char buffer[65536];
  while (out.read >= 0 || err.read >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd fds[2] = {{out.read, POLLIN, 0}, {err.read, POLLIN, 0}};
    int ready = ::poll(fds, 2, static_cast<int>(std::min<long long>(left.count(), 1000)));
    if (ready < 0 && errno != EINTR) return false;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      Pipe& pipe = i == 0 ? out : err;
      std::string& sink = i == 0 ? result.standardOutput : result.standardError;
      ssize_t n = ::read(pipe.read, buffer, sizeof buffer);
      if (n > 0) {
        std::size_t keep = std::min<std::size_t>(n, options.maxOutputBytes - std::min(options.maxOutputBytes, sink.size()));
        sink.append(buffer, keep);
      } else if (n == 0 || errno != EINTR) {
        pipe.closeRead();
      }
    }
  }
  return true;
}

}  // namespace

ProcessResult runProcess(const std::string& executable, const std::vector<std::string>& arguments,
                         const ProcessOptions& options) {
  ProcessResult result;
  Pipe out, err;
  if (!out.open() || !err.open()) return result;
  // A larger pipe lets a chatty child write in big steps instead of 64 KiB
  // ones, which halves the time to collect a few megabytes of output.
  ::fcntl(out.read, F_SETPIPE_SZ, 1 << 20);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out.write, STDOUT_FILENO);
  if (options.captureStandardError) {
    posix_spawn_file_actions_adddup2(&actions, err.write, STDERR_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  }
  CleanSignals attributes;
  auto argv = makeArgv(executable, arguments);
  pid_t pid = -1;
  int spawnError = ::posix_spawn(&pid, executable.c_str(), &actions, attributes.get(), argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  out.closeWrite();
  err.closeWrite();
  if (spawnError != 0) return result;
  result.launched = true;

  auto deadline = std::chrono::steady_clock::now() + options.timeout;
  if (!drain(out, err, result, options, deadline)) {
    ::kill(pid, SIGKILL);
    result.timedOut = true;
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitStatus = decodeStatus(status);
  return result;
}

bool launchDetached(const std::string& executable, const std::vector<std::string>& arguments,
                    std::function<void()> onExit) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  CleanSignals attributes;
  auto argv = makeArgv(executable, arguments);
  pid_t pid = -1;
  int spawnError = ::posix_spawn(&pid, executable.c_str(), &actions, attributes.get(), argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawnError != 0) return false;
  std::thread([pid, onExit = std::move(onExit)] {
    int status;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (onExit) onExit();
  }).detach();
  return true;
}

std::string findExecutable(const std::string& name, const std::vector<std::string>& preferred) {
  auto isExecutable = [](const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
  };
  for (const auto& path : preferred) {
    if (isExecutable(path)) return path;
  }
  const char* pathVariable = std::getenv("PATH");
  std::string search = pathVariable ? pathVariable : "";
  search += ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  std::stringstream stream(search);
  for (std::string dir; std::getline(stream, dir, ':');) {
    if (dir.empty()) continue;
    std::string candidate = dir + "/" + name;
    if (isExecutable(candidate)) return candidate;
  }
  return "";
}

}  // namespace quorvi
