#include "service/task_performer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <algorithm>
#include <future>
#include <sstream>
#include <signal.h>
#include <thread>

#include "common/settings.h"

namespace quorvi {
namespace {

namespace fs = std::filesystem;

TEST(QuorviTaskTest, NamesAreExactAndCaseSensitive) {
  EXPECT_TRUE(parseQuorviTask("openDocuement"));
  EXPECT_FALSE(parseQuorviTask("openDocument"));
  EXPECT_FALSE(parseQuorviTask("OpenDocuement"));
  EXPECT_FALSE(parseQuorviTask(""));
  EXPECT_EQ(parseQuorviTask("decodef"), QuorviTask::decodef);
  EXPECT_STREQ(rawValue(QuorviTask::pngCompress), "pngCompress");
  EXPECT_EQ(static_cast<int>(QuorviTask::pngCompress), kQuorviTaskCount - 1);
  for (int i = 0; i < kQuorviTaskCount; ++i) {
    auto task = static_cast<QuorviTask>(i);
    EXPECT_EQ(parseQuorviTask(rawValue(task)), task);
  }
}

class TaskLocationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "quorvi-tasks-XXXXXX").string();
    dir_ = ::mkdtemp(pattern.data());
    saved_ = getenv("XDG_DATA_HOME") ? getenv("XDG_DATA_HOME") : "";
    setenv("XDG_DATA_HOME", (dir_ + "/data").c_str(), 1);
    setenv("XDG_DATA_DIRS", (dir_ + "/system").c_str(), 1);
  }
  void TearDown() override {
    fs::remove_all(dir_);
    if (saved_.empty()) unsetenv("XDG_DATA_HOME");
    else setenv("XDG_DATA_HOME", saved_.c_str(), 1);
    unsetenv("XDG_DATA_DIRS");
  }
  void writeLauncher(const std::string& dataDir, const std::string& exec) {
    fs::create_directories(dataDir + "/applications");
    std::ofstream out(dataDir + "/applications/com.meltrane.quorvi.desktop");
    out << "[Desktop Action first]\nExec=/not/this\n[Desktop Entry]\nName=Quorvi\nExec=" << exec << "\n";
  }
  std::string dir_, saved_;
};

TEST_F(TaskLocationTest, CompanionSitsBesideTheLaunchersProgram) {
  Settings settings(dir_ + "/settings.json");
  EXPECT_FALSE(QuorviTaskPerformer::locateExecutable(settings));

  fs::create_directories(dir_ + "/opt/quorvi");
  std::ofstream(dir_ + "/opt/quorvi/quorvi") << "#!/bin/sh\n";
  fs::permissions(dir_ + "/opt/quorvi/quorvi", fs::perms::owner_all);
  writeLauncher(dir_ + "/system", "\"" + dir_ + "/opt/quorvi/quorvi\" %U");
  EXPECT_EQ(QuorviTaskPerformer::locateExecutable(settings), dir_ + "/opt/quorvi/Executables/QuorviHelper");

  // A symbolic link to the program is followed to where the launcher lives.
  fs::create_directories(dir_ + "/bin");
  fs::create_symlink(dir_ + "/opt/quorvi/quorvi", dir_ + "/bin/quorvi");
  writeLauncher(dir_ + "/data", dir_ + "/bin/quorvi");
  EXPECT_EQ(QuorviTaskPerformer::locateExecutable(settings), dir_ + "/opt/quorvi/Executables/QuorviHelper");

  // The settings key overrides the launcher's install.
  settings.set(Settings::kTaskExecutableKey, "/custom/helper");
  EXPECT_EQ(QuorviTaskPerformer::locateExecutable(settings), "/custom/helper");
}

TEST_F(TaskLocationTest, ReplyFormReturnsOutputAndNilForFailures) {
  std::string helper = dir_ + "/helper";
  std::ofstream(helper) << "#!/bin/sh\nif [ \"$1\" = say ]; then exit 0; fi\nprintf '%s|' \"$@\"\n";
  fs::permissions(helper, fs::perms::owner_all);
  QuorviTaskPerformer performer(helper);
  auto run = [&](const std::string& name, std::vector<std::string> args) {
    std::promise<OptionalBytes> result;
    performer.performWithReply(name, args, [&](OptionalBytes out) { result.set_value(std::move(out)); });
    return result.get_future().get();
  };
  EXPECT_EQ(run("getInfo", {"a b", "", "c"}), "getInfo|a b||c|");
  EXPECT_EQ(run("getInfo", {}), "getInfo|");
  EXPECT_EQ(run("say", {"hello"}), "");  // printed nothing: empty bytes, not nil
  EXPECT_EQ(run("openDocument", {}), std::nullopt);

  QuorviTaskPerformer missing(dir_ + "/no-such-helper");
  std::promise<OptionalBytes> result;
  missing.performWithReply("getInfo", {}, [&](OptionalBytes out) { result.set_value(out); });
  EXPECT_EQ(result.get_future().get(), std::nullopt);
  QuorviTaskPerformer none(std::nullopt);
  std::promise<OptionalBytes> noneResult;
  none.performWithReply("getInfo", {}, [&](OptionalBytes out) { noneResult.set_value(out); });
  EXPECT_EQ(noneResult.get_future().get(), std::nullopt);
}

// The signals a process ignores and blocks, from its /proc status lines.
struct SignalState {
  unsigned long long ignored = ~0ull, blocked = ~0ull;
};
SignalState signalStateOf(const std::string& statusLines) {
  SignalState state;
  std::istringstream in(statusLines);
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("SigIgn:")) state.ignored = std::stoull(line.substr(7), nullptr, 16);
    if (line.starts_with("SigBlk:")) state.blocked = std::stoull(line.substr(7), nullptr, 16);
  }
  return state;
}
// glibc leaves its two internal signals (32 and 33) ignored in every child it
// spawns; no caller can change that, and no program relies on them.
constexpr unsigned long long kGlibcInternalSignals = (1ull << 31) | (1ull << 32);

// The companion must see a clean start from both forms: the service ignores
// SIGPIPE (ignored signals survive exec) and its threads may block signals.
TEST_F(TaskLocationTest, BothFormsStartTheCompanionWithDefaultSignals) {
  std::string helper = dir_ + "/helper";
  std::ofstream(helper) << "#!/bin/sh\n"
                           "if [ \"$1\" = getInfo ]; then exec grep -E '^Sig(Ign|Blk):' /proc/self/status > \"$0.$1\"; fi\n"
                           "exec grep -E '^Sig(Ign|Blk):' /proc/self/status\n";
  fs::permissions(helper, fs::perms::owner_all);
  QuorviTaskPerformer performer(helper);

  struct sigaction ignore {}, previous {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &previous);
  sigset_t blocked, previousMask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);

  performer.perform("getInfo", {});
  std::promise<OptionalBytes> replied;
  performer.performWithReply("openDocuement", {}, [&](OptionalBytes out) { replied.set_value(std::move(out)); });
  auto withReply = replied.get_future().get();

  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ::sigaction(SIGPIPE, &previous, nullptr);

  ASSERT_TRUE(withReply);
  std::string detached;
  for (int i = 0; i < 500 && std::count(detached.begin(), detached.end(), '\n') < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::ifstream in(helper + ".getInfo");
    detached.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  for (const auto& [form, lines] : {std::pair{"with a reply", *withReply}, std::pair{"fire and forget", detached}}) {
    SignalState state = signalStateOf(lines);
    EXPECT_EQ(state.ignored & ~kGlibcInternalSignals, 0u) << form << " ignores signals: " << lines;
    EXPECT_EQ(state.blocked, 0u) << form << " blocks signals: " << lines;
  }
  // The performer counts its companion out when it ends: not after this frame is gone.
  for (int i = 0; i < 1000 && performer.detachedTasks() > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(performer.detachedTasks(), 0);
}

// Long-lived fire-and-forget companions (an editor it opened) are not tasks
// waiting for a reply: they must not use up the places of those.
TEST_F(TaskLocationTest, FireAndForgetTasksDoNotTakeThePlacesOfTasksWithAReply) {
  std::string helper = dir_ + "/helper";
  std::string release = dir_ + "/release";
  std::ofstream(helper) << "#!/bin/sh\nif [ \"$1\" = openDocuement ]; then\n"
                        << "  while [ ! -e '" << release << "' ]; do sleep 0.05; done\n  exit 0\nfi\nprintf done\n";
  fs::permissions(helper, fs::perms::owner_all);
  QuorviTaskPerformer performer(helper);
  for (int i = 0; i < QuorviTaskPerformer::kMaxRunningTasks + 8; ++i) performer.perform("openDocuement", {});
  EXPECT_EQ(performer.detachedTasks(), QuorviTaskPerformer::kMaxRunningTasks + 8);

  std::promise<OptionalBytes> replied;
  performer.performWithReply("getInfo", {}, [&](OptionalBytes out) { replied.set_value(std::move(out)); });
  EXPECT_EQ(replied.get_future().get(), "done");

  std::ofstream(release) << "";
  for (int i = 0; i < 1000 && performer.detachedTasks() > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(performer.detachedTasks(), 0) << "every ended companion is counted out";
}

}  // namespace
}  // namespace quorvi
