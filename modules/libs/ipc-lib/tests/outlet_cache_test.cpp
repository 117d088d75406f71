// The outgoing-link cache and the descriptor verdict, without sockets.
#include "outlet_cache.hpp"
#include "descriptors.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

namespace xpon::ipc::detail {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct FakeOutlet {
  int id = 0;
};

std::shared_ptr<FakeOutlet> outlet(int id) {
  return std::make_shared<FakeOutlet>(FakeOutlet{id});
}

TEST(OutletCacheTest, FindGivesTheOutletOfTheDestinationOrNothing) {
  OutletCache<FakeOutlet> cache;
  const auto start = Clock::now();
  cache.insert(0x0015FFFE, outlet(1), start);
  ASSERT_NE(cache.find(0x0015FFFE, start), nullptr);
  EXPECT_EQ(cache.find(0x0015FFFE, start)->id, 1);
  EXPECT_EQ(cache.find(0x0019FFFE, start), nullptr);
  EXPECT_TRUE(cache.contains(0x0015FFFE));
  EXPECT_FALSE(cache.contains(0x0019FFFE));
  EXPECT_EQ(cache.size(), 1U);
}

TEST(OutletCacheTest, LeastRecentlyUsedIsTakenFirstNotTheOldestInserted) {
  OutletCache<FakeOutlet> cache;
  const auto start = Clock::now();
  cache.insert(0x0001FFFE, outlet(1), start);
  cache.insert(0x0002FFFE, outlet(2), start + milliseconds(1));
  cache.insert(0x0003FFFE, outlet(3), start + milliseconds(2));
  ASSERT_NE(cache.find(0x0001FFFE, start + milliseconds(3)), nullptr);  // 1 is now the most recent
  EXPECT_EQ(cache.take_least_recent()->id, 2);
  EXPECT_EQ(cache.take_least_recent()->id, 3);
  EXPECT_EQ(cache.take_least_recent()->id, 1);
  EXPECT_EQ(cache.take_least_recent(), nullptr);
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_FALSE(cache.contains(0x0001FFFE));
}

TEST(OutletCacheTest, OnlyOutletsUnusedSinceTheCutoffAreTaken) {
  OutletCache<FakeOutlet> cache;
  const auto start = Clock::now();
  cache.insert(0x0001FFFE, outlet(1), start);
  cache.insert(0x0002FFFE, outlet(2), start + milliseconds(10));
  cache.insert(0x0003FFFE, outlet(3), start + milliseconds(20));
  ASSERT_NE(cache.find(0x0001FFFE, start + milliseconds(30)), nullptr);
  const auto taken = cache.take_unused_since(start + milliseconds(20));
  ASSERT_EQ(taken.size(), 1U);
  EXPECT_EQ(taken[0]->id, 2);
  EXPECT_EQ(cache.size(), 2U);
  EXPECT_EQ(cache.oldest_use(), start + milliseconds(20));
  EXPECT_TRUE(cache.take_unused_since(start + milliseconds(20)).empty());
  EXPECT_EQ(cache.take_unused_since(start + milliseconds(31)).size(), 2U);
  EXPECT_EQ(cache.oldest_use(), std::nullopt);
}

TEST(OutletCacheTest, AnOutletTakenOutStaysWholeForItsHolder) {
  OutletCache<FakeOutlet> cache;
  const auto start = Clock::now();
  cache.insert(0x0001FFFE, outlet(7), start);
  const auto held = cache.find(0x0001FFFE, start);
  EXPECT_EQ(cache.take_all().size(), 1U);
  EXPECT_EQ(held->id, 7);
  EXPECT_EQ(held.use_count(), 1);  // the holder's is now the last reference
}

struct VerdictCase {
  std::size_t open;
  std::size_t limit;
  std::size_t needed;
  bool spare;
};

TEST(DescriptorVerdictTest, AQuarterOfTheLimitAndAtLeastSixteenStayFree) {
  EXPECT_EQ(descriptor_reserve(1024), 256U);
  EXPECT_EQ(descriptor_reserve(256), 64U);
  EXPECT_EQ(descriptor_reserve(40), 16U);
  const VerdictCase cases[] = {
      {100, 256, 2, true},  {190, 256, 2, true},  {191, 256, 2, false}, {192, 256, 0, true},
      {193, 256, 0, false}, {300, 256, 0, false}, {766, 1024, 2, true}, {767, 1024, 2, false},
      {24, 40, 0, true},    {23, 40, 2, false},   {0, 10, 0, true},     {1, 10, 0, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(descriptors_to_spare(c.open, c.limit, c.needed), c.spare)
        << c.open << " open of " << c.limit << ", " << c.needed << " needed";
  }
}

TEST(DescriptorCountTest, ANewDescriptorIsCounted) {
  const auto before = count_open_descriptors();
  ASSERT_TRUE(before.has_value());
  const int extra = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(extra, 0);
  EXPECT_EQ(count_open_descriptors(), *before + 1);
  ::close(extra);
  EXPECT_EQ(count_open_descriptors(), before);
  ASSERT_TRUE(descriptor_limit().has_value());  // the test runs under a finite RLIMIT_NOFILE
}

}  // namespace
}  // namespace xpon::ipc::detail
