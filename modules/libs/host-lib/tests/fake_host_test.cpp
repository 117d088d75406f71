#include "xpon/test/fake_host.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace xpon::test {
namespace {

TEST(FakeHost, GivesTheLoadAveragesItWasSet) {
  FakeHost host;
  host.set_load_averages(0.1, 0.2, 0.3);
  double averages[3] = {};
  ASSERT_EQ(host.getloadavg(averages, 3), 3);
  EXPECT_DOUBLE_EQ(averages[0], 0.1);
  EXPECT_DOUBLE_EQ(averages[1], 0.2);
  EXPECT_DOUBLE_EQ(averages[2], 0.3);
}

TEST(FakeHost, FailsGetloadavgWithTheGivenReturnAndErrno) {
  FakeHost host;
  host.fail_getloadavg(EAGAIN, 2);
  double averages[3] = {};
  errno = 0;
  EXPECT_EQ(host.getloadavg(averages, 3), 2);
  EXPECT_EQ(errno, EAGAIN);
  host.set_load_averages(1.0, 1.0, 1.0);
  EXPECT_EQ(host.getloadavg(averages, 3), 3);
}

TEST(FakeHost, GivesAndFailsThePageCounts) {
  FakeHost host;
  host.set_pages(1000, 129);
  EXPECT_EQ(host.get_phys_pages(), 1000);
  EXPECT_EQ(host.get_avphys_pages(), 129);
  host.fail_get_avphys_pages(EINVAL);
  errno = 0;
  EXPECT_EQ(host.get_avphys_pages(), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(host.get_phys_pages(), 1000);
  host.fail_get_phys_pages(ENOSYS);
  EXPECT_EQ(host.get_phys_pages(), -1);
  EXPECT_EQ(errno, ENOSYS);
}

TEST(FakeHost, StatvfsPerPath) {
  FakeHost host;
  struct statvfs boot {};
  boot.f_blocks = 100;
  boot.f_bavail = 40;
  boot.f_bsize = 4096;
  host.set_file_system("/boot", boot);
  host.fail_file_system("/data", EIO);

  struct statvfs out {};
  ASSERT_EQ(host.statvfs("/boot", &out), 0);
  EXPECT_EQ(out.f_blocks, 100U);
  EXPECT_EQ(out.f_bavail, 40U);
  errno = 0;
  EXPECT_EQ(host.statvfs("/data", &out), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(host.statvfs("/configuration", &out), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(FakeHost, FilesPerPath) {
  FakeHost host;
  host.set_file("/proc/meminfo", "MemTotal: 10 kB\n");
  EXPECT_EQ(host.read_file("/proc/meminfo"), std::optional<std::string>("MemTotal: 10 kB\n"));
  host.remove_file("/proc/meminfo");
  errno = 0;
  EXPECT_FALSE(host.read_file("/proc/meminfo").has_value());
  EXPECT_EQ(errno, ENOENT);
}

TEST(FakeHost, FormatsForRealUnlessToldToReturnAValue) {
  FakeHost host;
  char out[16];
  EXPECT_EQ(host.format(out, sizeof out, "%u%%", 12U), 3);
  EXPECT_STREQ(out, "12%");
  host.set_format_result(0);
  EXPECT_EQ(host.format(out, sizeof out, "%s", "text"), 0);
  EXPECT_STREQ(out, "text");
  host.set_format_result(std::nullopt);
  EXPECT_EQ(host.format(out, sizeof out, "%s", "text"), 4);
}

TEST(FakeHost, RecordsEveryCallInOrder) {
  FakeHost host;
  double averages[3];
  struct statvfs stats {};
  char out[4];
  (void)host.getloadavg(averages, 3);
  (void)host.get_phys_pages();
  (void)host.get_avphys_pages();
  (void)host.statvfs("/boot", &stats);
  (void)host.read_file("/proc/meminfo");
  (void)host.format(out, sizeof out, "x");
  EXPECT_EQ(host.calls(), (std::vector<std::string>{"getloadavg", "get_phys_pages", "get_avphys_pages", "statvfs /boot",
                                                    "read_file /proc/meminfo", "format"}));
}

TEST(FakeHost, SetAndCalledFromTwoThreads) {
  FakeHost host;
  std::thread setter([&host] {
    for (int round = 0; round < 200; ++round) {
      host.set_load_averages(round, round, round);
    }
  });
  double averages[3];
  for (int round = 0; round < 200; ++round) {
    EXPECT_EQ(host.getloadavg(averages, 3), 3);
  }
  setter.join();
  EXPECT_EQ(host.calls().size(), 200U);
}

}  // namespace
}  // namespace xpon::test
