#include "xpon/board/posix_wrapper.hpp"

#include "xpon/test/inheritable_descriptors.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/temp_dir.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::board {
namespace {

namespace fs = std::filesystem;

// Each test gets its own sandbox root holding (or not) dev/board.
class PosixWrapperTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(root_ / "dev"); }

  void make_device(const std::string& content) {
    std::ofstream device(root_ / "dev" / "board", std::ios::binary);
    device << content;
  }

  // The text of the DeviceOpenError thrown by construction; any other exception escapes.
  std::string construction_error() {
    try {
      PosixWrapper wrapper(logger_);
    } catch (const DeviceOpenError& error) {
      return error.what();
    }
    return "(no exception)";
  }

  // The errno of a one-byte read (BOARD_GET_CPLD_VERSION) that must fail with -1.
  static int refused_read_errno(PosixWrapper& wrapper) {
    unsigned char value = 0;
    errno = 0;
    EXPECT_EQ(wrapper.ioctl(0x80014C21UL, &value), -1);
    return errno;
  }

  std::shared_ptr<xpon::test::RecordingLogger> logger_ = std::make_shared<xpon::test::RecordingLogger>();
  xpon::test::TempRoot temp_root_{"xpon-board-test"};
  fs::path root_ = temp_root_.path();
};

TEST_F(PosixWrapperTest, MissingDeviceThrowsWithTheLogicalPathAndTheSystemsText) {
  EXPECT_EQ(construction_error(), "Can't open /dev/board file (No such file or directory) ");
  EXPECT_TRUE(logger_->lines().empty()) << "the process entry reports the failure, not the wrapper";
}

TEST_F(PosixWrapperTest, DeviceThatCannotBeOpenedReadWriteThrowsWithTheReason) {
  fs::create_directories(root_ / "dev" / "board");
  EXPECT_EQ(construction_error(), "Can't open /dev/board file (Is a directory) ");
}

TEST_F(PosixWrapperTest, MissingLoggerThrowsAnErrorThatIsNotAnOpenFailure) {
  make_device("");
  try {
    PosixWrapper wrapper(nullptr);
    FAIL() << "no exception";
  } catch (const DeviceOpenError& error) {
    FAIL() << "reported as an open failure: " << error.what();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "PosixWrapper needs a logger");
  }
}

TEST_F(PosixWrapperTest, OpenDeviceLogsCreationAtProgressLevel) {
  make_device("");
  PosixWrapper wrapper(logger_);

  ASSERT_EQ(logger_->lines().size(), 1U);
  EXPECT_EQ(logger_->lines()[0].text, "PosixWrapper create successfully");
  EXPECT_EQ(logger_->lines()[0].level, 0);
  EXPECT_GT(wrapper.descriptor(), 0);
}

TEST_F(PosixWrapperTest, OpensTheDeviceReadWrite) {
  make_device("");
  PosixWrapper wrapper(logger_);
  EXPECT_EQ(::fcntl(wrapper.descriptor(), F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_F(PosixWrapperTest, OpensTheDeviceCloseOnExec) {
  make_device("");
  PosixWrapper wrapper(logger_);
  EXPECT_EQ(::fcntl(wrapper.descriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(PosixWrapperTest, ReopenReachesTheDeviceNowAtThePathReadWriteAndCloseOnExec) {
  make_device("12345");
  PosixWrapper wrapper(logger_);
  // A device that went and came back is a new file at the same path.
  fs::remove(root_ / "dev" / "board");
  make_device("abc");

  ASSERT_EQ(wrapper.reopen(), 0);
  int pending = -1;
  EXPECT_EQ(wrapper.ioctl(FIONREAD, &pending), 0);
  EXPECT_EQ(pending, 3);
  EXPECT_EQ(::fcntl(wrapper.descriptor(), F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(::fcntl(wrapper.descriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(PosixWrapperTest, ReopenLeavesOneDescriptorOnTheDevice) {
  make_device("");
  const std::string device = fs::canonical(root_ / "dev" / "board").string();
  PosixWrapper wrapper(logger_);
  ASSERT_EQ(xpon::test::descriptors_open_on(device), 1U);
  ASSERT_EQ(wrapper.reopen(), 0);
  ASSERT_EQ(wrapper.reopen(), 0);
  EXPECT_EQ(xpon::test::descriptors_open_on(device), 1U);
}

TEST_F(PosixWrapperTest, ReopenOfAMissingDeviceLeavesNoDescriptor) {
  make_device("");
  PosixWrapper wrapper(logger_);
  fs::remove(root_ / "dev" / "board");

  errno = 0;
  EXPECT_EQ(wrapper.reopen(), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(wrapper.descriptor(), -1);
  EXPECT_EQ(refused_read_errno(wrapper), EBADF);
}

TEST_F(PosixWrapperTest, DestructionAfterAFailedReopenHasNothingToClose) {
  make_device("");
  {
    PosixWrapper wrapper(logger_);
    fs::remove(root_ / "dev" / "board");
    ASSERT_EQ(wrapper.reopen(), -1);
    logger_->clear();
  }
  EXPECT_EQ(logger_->texts(), std::vector<std::string>{"PosixWrapper destroy successfully"});
}

TEST_F(PosixWrapperTest, IoctlReachesTheOpenFileWithItsArgument) {
  make_device("12345");
  PosixWrapper wrapper(logger_);

  int pending = -1;
  EXPECT_EQ(wrapper.ioctl(FIONREAD, &pending), 0);
  EXPECT_EQ(pending, 5);
}

TEST_F(PosixWrapperTest, IoctlFailureReturnsMinusOneWithErrno) {
  make_device("");
  PosixWrapper wrapper(logger_);
  EXPECT_EQ(refused_read_errno(wrapper), ENOTTY);
}

TEST_F(PosixWrapperTest, DestructionClosesTheDeviceAndLogsIt) {
  make_device("");
  int descriptor = -1;
  {
    PosixWrapper wrapper(logger_);
    descriptor = wrapper.descriptor();
    logger_->clear();
  }
  ASSERT_EQ(logger_->lines().size(), 1U);
  EXPECT_EQ(logger_->lines()[0].text, "PosixWrapper destroy successfully");
  EXPECT_EQ(logger_->lines()[0].level, 0);
  errno = 0;
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1) << "the descriptor is closed";
  EXPECT_EQ(errno, EBADF);
}

TEST_F(PosixWrapperTest, CloseFailureIsLoggedAndDoesNotThrow) {
  make_device("");
  auto wrapper = std::make_unique<PosixWrapper>(logger_);
  // Closing the descriptor behind the wrapper's back makes its own close fail.
  ASSERT_EQ(::close(wrapper->descriptor()), 0);
  logger_->clear();

  EXPECT_NO_THROW(wrapper.reset());
  ASSERT_EQ(logger_->lines().size(), 1U);
  EXPECT_EQ(logger_->lines()[0].text, "PosixWrapper destroy error (Bad file descriptor)");
  EXPECT_EQ(logger_->lines()[0].level, 4);
}

TEST_F(PosixWrapperTest, WithoutASandboxRootTheRealPathIsUsed) {
  ::unsetenv("XPON_ROOT");
  if (fs::exists("/dev/board")) {
    GTEST_SKIP() << "this machine has a real board device";
  }
  EXPECT_EQ(construction_error(), "Can't open /dev/board file (No such file or directory) ");
}

}  // namespace
}  // namespace xpon::board
