#include "config.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace xpon::logger::detail {
namespace {

TEST(SizeText, PlainBytes) {
  EXPECT_EQ(parse_size("4096"), 4096U);
}

TEST(SizeText, KibibytesMebibytesGibibytes) {
  EXPECT_EQ(parse_size("512KiB"), 524288U);
  EXPECT_EQ(parse_size("1MiB"), 1048576U);
  EXPECT_EQ(parse_size("2GiB"), 2147483648U);
}

TEST(SizeText, RefusesWhatIsNotASize) {
  EXPECT_THROW(parse_size(""), std::invalid_argument);
  EXPECT_THROW(parse_size("KiB"), std::invalid_argument);
  EXPECT_THROW(parse_size("-1"), std::invalid_argument);
  EXPECT_THROW(parse_size("1kib"), std::invalid_argument);
  EXPECT_THROW(parse_size("1 MiB"), std::invalid_argument);
  EXPECT_THROW(parse_size("1MiB "), std::invalid_argument);
  EXPECT_THROW(parse_size("0"), std::invalid_argument);
}

TEST(SizeText, RefusesSizesThatDoNotFit) {
  EXPECT_THROW(parse_size("18446744073709551616"), std::invalid_argument);
  EXPECT_THROW(parse_size("17179869184GiB"), std::invalid_argument);
  EXPECT_EQ(parse_size("17179869183GiB"), 17179869183ULL << 30U);
}

}  // namespace
}  // namespace xpon::logger::detail
