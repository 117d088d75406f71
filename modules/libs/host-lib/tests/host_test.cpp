#include "xpon/host/host.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace xpon::host {
namespace {

TEST(SystemHost, ReadsThreeLoadAverages) {
  SystemHost host;
  double averages[3] = {-1.0, -1.0, -1.0};
  ASSERT_EQ(host.getloadavg(averages, 3), 3);
  for (const double average : averages) {
    EXPECT_GE(average, 0.0);
  }
}

TEST(SystemHost, CountsMorePhysicalPagesThanAvailableOnes) {
  SystemHost host;
  const long physical = host.get_phys_pages();
  const long available = host.get_avphys_pages();
  EXPECT_GT(physical, 0);
  EXPECT_GT(available, 0);
  EXPECT_LE(available, physical);
}

TEST(SystemHost, StatvfsOfTheRootHasBlocks) {
  SystemHost host;
  struct statvfs stats {};
  ASSERT_EQ(host.statvfs("/", &stats), 0);
  EXPECT_GT(stats.f_blocks, 0U);
}

TEST(SystemHost, StatvfsOfAMissingPathFailsWithErrno) {
  SystemHost host;
  struct statvfs stats {};
  errno = 0;
  EXPECT_EQ(host.statvfs("/no/such/mount/point", &stats), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(SystemHost, ReadsAProcFileWhole) {
  SystemHost host;
  const auto text = host.read_file("/proc/meminfo");
  ASSERT_TRUE(text.has_value());
  EXPECT_NE(text->find("MemTotal:"), std::string::npos);
  EXPECT_NE(text->find("MemFree:"), std::string::npos);
}

TEST(SystemHost, AFileThatCannotBeOpenedGivesNothing) {
  SystemHost host;
  EXPECT_FALSE(host.read_file("/proc/no-such-file").has_value());
}

TEST(SystemHost, FormatsAsSnprintfAndReportsTruncation) {
  SystemHost host;
  char out[8];
  EXPECT_EQ(host.format(out, sizeof out, "%s %u%%", "ab", 42U), 6);
  EXPECT_STREQ(out, "ab 42%");
  EXPECT_EQ(host.format(out, sizeof out, "%s", "0123456789"), 10);
  EXPECT_STREQ(out, "0123456");
}

TEST(SystemHost, OneSharedRealHost) {
  EXPECT_EQ(system_host().get(), system_host().get());
  EXPECT_NE(dynamic_cast<SystemHost*>(system_host().get()), nullptr);
}

}  // namespace
}  // namespace xpon::host
