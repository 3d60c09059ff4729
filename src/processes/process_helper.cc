#include "processes/process_helper.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>
#include <sys/stat.h>

#include <vector>

#include "platform/process_runner.h"
#include "processes/desktop_applications.h"
#include "processes/proc_files.h"
#include "processes/text_util.h"

namespace quorvi {

namespace {

constexpr size_t kKernelCommandNameLength = 15;
constexpr std::string_view kDeletedMark = " (deleted)";

std::string withoutTrailingNewline(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

}  // namespace

ProcessHelper::ProcessHelper(std::string procRoot)
    : procRoot_(std::move(procRoot)), procFd_(::open(procRoot_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

ProcessHelper::~ProcessHelper() {
  if (procFd_ >= 0) ::close(procFd_);
}

std::string ProcessHelper::pidPath(int64_t pid, const char* entry) const {
  return std::to_string(pid) + "/" + entry;
}

std::optional<std::string> ProcessHelper::firstArgument(int64_t pid) const {
  auto commandLine = procfs::readSmallFile(procFd_, pidPath(pid, "cmdline").c_str());
  if (!commandLine || commandLine->empty()) return std::nullopt;
  std::string first = commandLine->substr(0, commandLine->find('\0'));
  if (first.empty()) return std::nullopt;
  return first;
}

std::optional<std::string> ProcessHelper::getProcessNameFromPID(int64_t pid) const {
  if (pid <= 0) return std::nullopt;
  auto name = procfs::readSmallFile(procFd_, pidPath(pid, "comm").c_str());
  if (!name) return std::nullopt;
  return completedName(pid, withoutTrailingNewline(std::move(*name)));
}

std::string ProcessHelper::completedName(int64_t pid, std::string commandName) const {
  if (commandName.size() != kKernelCommandNameLength) return commandName;
  auto first = firstArgument(pid);
  if (!first) return commandName;
  // A program may rewrite its command line ("sshd: alice"); only its first
  // word can be the program's file name.
  std::string fileName = text::lastPathComponent(first->substr(0, first->find(' ')));
  if (fileName.size() > commandName.size() && fileName.compare(0, commandName.size(), commandName) == 0) {
    return fileName;
  }
  return commandName;
}

std::optional<std::string> ProcessHelper::getProcessPathFromPID(int64_t pid) const {
  if (pid <= 0) return std::nullopt;
  char buffer[4096];
  ssize_t length = ::readlinkat(procFd_, pidPath(pid, "exe").c_str(), buffer, sizeof buffer);
  if (length >= 0 && size_t(length) < sizeof buffer) {
    std::string link(buffer, size_t(length));
    if (link.size() > kDeletedMark.size() && link.ends_with(kDeletedMark)) {
      link.resize(link.size() - kDeletedMark.size());
    }
    return link;
  }
  // Without a command line it is a kernel thread (no executable) or a
  // process that has ended; with one, the link was not ours to read.
  auto first = firstArgument(pid);
  if (!first) return std::nullopt;
  if (first->front() == '/') return first->substr(0, first->find(' '));
  // A program that rewrote its command line ("sshd: alice") or was started
  // by a bare name: look the name up where programs live.
  std::string word = text::lastPathComponent(first->substr(0, first->find_first_of(" :")));
  auto commandName = procfs::readSmallFile(procFd_, pidPath(pid, "comm").c_str());
  std::string name = commandName ? withoutTrailingNewline(std::move(*commandName)) : "";
  for (const std::string& candidate : {word, name}) {
    if (candidate.empty() || candidate.find('/') != std::string::npos) continue;
    std::string found = programNamed(candidate);
    if (!found.empty()) return found;
  }
  return std::string();
}

std::string ProcessHelper::programNamed(const std::string& name) const {
  std::lock_guard<std::mutex> guard(programsLock_);
  auto [found, inserted] = programs_.emplace(name, std::string());
  if (inserted) found->second = findExecutable(name);  // $PATH, then the system's program folders
  return found->second;
}

std::optional<std::string> ProcessHelper::sandboxKey(int64_t pid) const {
  if (pid <= 0) return std::nullopt;
  auto cgroup = procfs::readSmallFile(procFd_, pidPath(pid, "cgroup").c_str());
  if (!cgroup) return std::nullopt;
  return sandboxKeyOfControlGroup(*cgroup);
}

std::optional<int> ProcessHelper::threadCount(int64_t pid) const {
  if (pid <= 0) return std::nullopt;
  auto status = procfs::readSmallFile(procFd_, pidPath(pid, "status").c_str());
  if (!status) return std::nullopt;
  size_t at = status->find("\nThreads:");
  if (at == std::string::npos) return std::nullopt;
  auto pieces = text::splitAtWhiteSpace(std::string_view(*status).substr(at + 9, 32));
  if (pieces.empty()) return std::nullopt;
  auto count = text::parseDecimal(pieces[0]);
  if (!count || *count < 0 || *count > INT32_MAX) return std::nullopt;
  return int(*count);
}

std::optional<uid_t> ProcessHelper::ownerUid(int64_t pid) const {
  if (pid <= 0) return std::nullopt;
  struct stat info;
  if (::fstatat(procFd_, std::to_string(pid).c_str(), &info, 0) != 0) return std::nullopt;
  return info.st_uid;
}

std::optional<std::string> ProcessHelper::userName(int64_t pid) const {
  auto uid = ownerUid(pid);
  if (!uid) return std::nullopt;
  return userNameForUid(*uid);
}

std::string ProcessHelper::userNameForUid(uid_t uid) const {
  {
    std::lock_guard<std::mutex> guard(userNamesLock_);
    if (auto found = userNames_.find(uid); found != userNames_.end()) return found->second;
  }
  std::string name = std::to_string(uid);
  passwd entry;
  passwd* result = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result) == 0 && result && result->pw_name) {
    name = result->pw_name;
  }
  std::lock_guard<std::mutex> guard(userNamesLock_);
  userNames_.emplace(uid, name);
  return name;
}

}  // namespace quorvi
