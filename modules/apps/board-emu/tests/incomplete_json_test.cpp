#include "xpon/board_emu/fuse_server.hpp"

#include <gtest/gtest.h>

#include <string>

namespace xpon::board_emu {
namespace {

TEST(IncompleteJson, TextThatMoreBytesCouldCompleteIsWaitedFor) {
  EXPECT_TRUE(is_incomplete_json("{"));
  EXPECT_TRUE(is_incomplete_json(R"({"inventory": )"));
  EXPECT_TRUE(is_incomplete_json(R"({"inventory": {"fan_count": 4})"));
  EXPECT_TRUE(is_incomplete_json(R"({"model": "PSU-1)"));
  EXPECT_TRUE(is_incomplete_json(std::string(100000, '[')));
}

TEST(IncompleteJson, CompleteOrBrokenTextIsNot) {
  EXPECT_FALSE(is_incomplete_json(R"({"inventory": {"fan_count": 4}})"));
  EXPECT_FALSE(is_incomplete_json("{}\n"));
  EXPECT_FALSE(is_incomplete_json("{fan_count"));
  EXPECT_FALSE(is_incomplete_json("{} x"));
  EXPECT_FALSE(is_incomplete_json("]"));
}

}  // namespace
}  // namespace xpon::board_emu
