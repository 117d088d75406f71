#include "xpon/tool/console.hpp"

#include <gtest/gtest.h>

namespace xpon::tool {
namespace {

using ipc::Payload;

TEST(ToolConsole, NumbersAreDecimalOrHex) {
  EXPECT_EQ(parse_number("14500", 0xFFFF, "--key"), 14500U);
  EXPECT_EQ(parse_number("0x38A4", 0xFFFF, "--key"), 14500U);
  EXPECT_EQ(parse_number("0X38a4", 0xFFFF, "--key"), 14500U);
  EXPECT_EQ(parse_number("0xFFFFFFFF", 0xFFFFFFFFU, "--to"), 0xFFFFFFFFU);
}

TEST(ToolConsole, BadNumbersAreUsageErrorsThatSayWhy) {
  try {
    parse_number("0x", 0xFFFFFFFFU, "--to");
    FAIL();
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "--to: '0x' is not a number (decimal or 0x hex)");
  }
  try {
    parse_number("65536", 0xFFFF, "--key group");
    FAIL();
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "--key group: 65536 is out of range (at most 0xffff)");
  }
  EXPECT_THROW(parse_number("", 10, "--count"), UsageError);
  EXPECT_THROW(parse_number("-1", 0xFFFF, "--count"), UsageError);
  EXPECT_THROW(parse_number("12ab", 0xFFFF, "--count"), UsageError);
  EXPECT_THROW(parse_number("0x1FFFFFFFF", 0xFFFFFFFFU, "--to"), UsageError);
}

TEST(ToolConsole, PayloadIsTwoHexDigitsPerByte) {
  EXPECT_EQ(parse_hex(""), Payload{});
  EXPECT_EQ(parse_hex("1500"), (Payload{0x15, 0x00}));
  EXPECT_EQ(parse_hex("aBcD"), (Payload{0xAB, 0xCD}));
  EXPECT_THROW(parse_hex("150"), UsageError);
  EXPECT_THROW(parse_hex("zz"), UsageError);
  EXPECT_THROW(parse_hex("+1"), UsageError);
  EXPECT_EQ(parse_hex(std::string(std::size_t{2} * 64 * 1024, '0')).size(), std::size_t{64} * 1024);
  EXPECT_THROW(parse_hex(std::string(std::size_t{2} * (64 * 1024 + 1), '0')), UsageError);
  EXPECT_EQ(to_hex(Payload{0x00, 0x0F, 0xFF}), "000fff");
  EXPECT_EQ(to_hex(Payload{}), "");
}

TEST(ToolConsole, StopSignalsAreTermAndInt) {
  const sigset_t signals = stop_signals();
  EXPECT_EQ(sigismember(&signals, SIGTERM), 1);
  EXPECT_EQ(sigismember(&signals, SIGINT), 1);
  EXPECT_EQ(sigismember(&signals, SIGHUP), 0);
}

}  // namespace
}  // namespace xpon::tool
