#include "platform/safe_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <fcntl.h>
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

// A huge file is refused by its size, before a byte is read: a sparse file
// of 16 GB would otherwise take minutes and all memory.
TEST_F(SafeFileTest, HugeFilesAreRefusedByTheirSize) {
  std::string path = dir_ + "/huge.json";
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, off_t(16) << 30), 0);
  ::close(fd);
  SafeFileFailure failure = SafeFileFailure::none;
  EXPECT_FALSE(readRegularFile(path, kSmallTextFileCap, &failure));
  EXPECT_EQ(failure, SafeFileFailure::tooLarge);
  EXPECT_FALSE(copyRegularFile(path, dir_ + "/copy", std::size_t(1) << 20, &failure));
  EXPECT_EQ(failure, SafeFileFailure::tooLarge);
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/copy"));
}

TEST_F(SafeFileTest, CopiesOnlyRegularFilesAndLeavesNoPartialCopy) {
  std::string bytes(300000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  std::string from = write("zotero.sqlite", bytes);
  SafeFileFailure failure = SafeFileFailure::unreadable;
  ASSERT_TRUE(copyRegularFile(from, dir_ + "/copy.sqlite", 1 << 20, &failure));
  EXPECT_EQ(failure, SafeFileFailure::none);
  EXPECT_EQ(readRegularFile(dir_ + "/copy.sqlite", 1 << 20), bytes);
  EXPECT_EQ(std::filesystem::status(dir_ + "/copy.sqlite").permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  // Copying again replaces the copy.
  write("zotero.sqlite", "short");
  ASSERT_TRUE(copyRegularFile(from, dir_ + "/copy.sqlite", 1 << 20));
  EXPECT_EQ(readRegularFile(dir_ + "/copy.sqlite", 1 << 20), "short");

  std::string fifo = dir_ + "/zotero.sqlite-journal";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(copyRegularFile(fifo, dir_ + "/copy.sqlite-journal", 1 << 20, &failure));
  EXPECT_EQ(failure, SafeFileFailure::notRegular);
  EXPECT_STREQ(describe(failure), "Not a regular file");
  EXPECT_FALSE(copyRegularFile("/dev/zero", dir_ + "/zero", 1 << 20, &failure));
  EXPECT_EQ(failure, SafeFileFailure::notRegular);
  EXPECT_FALSE(copyRegularFile(dir_ + "/none", dir_ + "/copy", 1 << 20, &failure));
  EXPECT_EQ(failure, SafeFileFailure::missing);
  EXPECT_FALSE(copyRegularFile(from, dir_ + "/no/such/folder/copy", 1 << 20, &failure));
  EXPECT_EQ(failure, SafeFileFailure::unreadable);
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/copy.sqlite-journal"));
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/zero"));
}

}  // namespace
}  // namespace quorvi
