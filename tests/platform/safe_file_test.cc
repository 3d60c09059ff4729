#include "platform/safe_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace quorvi {
namespace {

class SafeFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/quorvi-safe-file-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string write(const std::string& name, const std::string& bytes) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  std::string dir_;
};

TEST_F(SafeFileTest, ReadsRegularFilesWholeUpToTheCap) {
  std::string path = write("a.desktop", "[Desktop Entry]\nName=A\n");
  SafeFileFailure failure = SafeFileFailure::unreadable;
  auto bytes = readRegularFile(path, 1024, &failure);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(*bytes, "[Desktop Entry]\nName=A\n");
  EXPECT_EQ(failure, SafeFileFailure::none);

  EXPECT_FALSE(readRegularFile(path, 5, &failure));
  EXPECT_EQ(failure, SafeFileFailure::tooLarge);

  auto empty = readRegularFile(write("empty", ""), 0, &failure);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->empty());

  std::string link = dir_ + "/link.desktop";
  ASSERT_EQ(::symlink(path.c_str(), link.c_str()), 0);
  EXPECT_TRUE(readRegularFile(link, 1024));
}

TEST_F(SafeFileTest, FifoSocketFolderAndDeviceAreRefusedWithoutBlocking) {
  // A FIFO without a writer blocks a plain open() forever; here it must come
  // back at once as "not a regular file".
  std::string fifo = dir_ + "/trap.desktop";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  SafeFileFailure failure = SafeFileFailure::none;
  EXPECT_FALSE(readRegularFile(fifo, 1024, &failure));
  EXPECT_EQ(failure, SafeFileFailure::notRegular);

  std::string socketPath = dir_ + "/s.vcf";
  int s = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
  ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(openRegularFile(socketPath, &failure), -1);
  EXPECT_EQ(failure, SafeFileFailure::notRegular);
  ::close(s);

  EXPECT_FALSE(readRegularFile(dir_, 1024, &failure));
  EXPECT_EQ(failure, SafeFileFailure::notRegular);
  // /dev/zero would be read forever without the regular-file check.
  EXPECT_FALSE(readRegularFile("/dev/zero", 1 << 20, &failure));
  EXPECT_EQ(failure, SafeFileFailure::notRegular);
}

TEST_F(SafeFileTest, MissingFilesAreToldApart) {
  SafeFileFailure failure = SafeFileFailure::none;
  EXPECT_FALSE(readRegularFile(dir_ + "/none", 10, &failure));
  EXPECT_EQ(failure, SafeFileFailure::missing);
  EXPECT_EQ(openRegularFile(dir_ + "/none/deeper", &failure), -1);
  EXPECT_EQ(failure, SafeFileFailure::missing);
}

}  // namespace
}  // namespace quorvi
