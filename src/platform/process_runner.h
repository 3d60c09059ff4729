// Runs an external program with posix_spawn: no shell unless the caller runs
// /bin/sh itself, standard output and error captured through pipes, a time
// limit after which the child is killed, and a cap on how much output is kept.
// Every child starts with all signals at their default action and none
// blocked, whatever the service set for itself (it ignores SIGPIPE).
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace quorvi {

struct ProcessOptions {
  std::chrono::milliseconds timeout{std::chrono::seconds(30)};
  bool captureStandardError = true;
  // Output beyond this is read and dropped, so a chatty tool cannot exhaust memory.
  std::size_t maxOutputBytes = std::size_t(256) << 20;
};

struct ProcessResult {
  bool launched = false;   // false: the executable could not be started
  bool timedOut = false;   // the child was killed at the time limit
  int exitStatus = -1;     // exit code, or 128 + signal number
  std::string standardOutput;
  std::string standardError;
};

// argv[0] of the child is the executable's path; `arguments` follow it.
ProcessResult runProcess(const std::string& executable, const std::vector<std::string>& arguments,
                         const ProcessOptions& options = {});

// Starts the program and does not wait for it; a reaper thread collects it
// and then calls onExit (if given). False when it could not be started.
bool launchDetached(const std::string& executable, const std::vector<std::string>& arguments,
                    std::function<void()> onExit = {});

// The first directory of $PATH (or the usual system folders) holding an
// executable `name`; empty when none does.
std::string findExecutable(const std::string& name, const std::vector<std::string>& preferred = {});

}  // namespace quorvi
