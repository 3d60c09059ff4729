#include "service/task_performer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>

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

}  // namespace
}  // namespace quorvi
