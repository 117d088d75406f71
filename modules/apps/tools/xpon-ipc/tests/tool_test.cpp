#include "tool.hpp"

#include <gtest/gtest.h>

namespace xpon::ipc::tool {
namespace {

using xpon::tool::UsageError;

TEST(XponIpcTool, AddressesAreDecimalOrHex) {
  EXPECT_EQ(parse_address("0x0015FFFE"), 0x0015FFFEU);
  EXPECT_EQ(parse_address("1441790"), 0x0015FFFEU);
}

TEST(XponIpcTool, BadNumbersAreUsageErrorsThatSayWhy) {
  try {
    parse_address("0x", "--to");
    FAIL();
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "--to: '0x' is not a number (decimal or 0x hex)");
  }
  try {
    parse_key("65536:1");
    FAIL();
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "--key group: 65536 is out of range (at most 0xffff)");
  }
  EXPECT_THROW(parse_address("-1"), UsageError);
  EXPECT_THROW(parse_address("12ab"), UsageError);
  EXPECT_THROW(parse_address("0x1FFFFFFFF"), UsageError);
}

TEST(XponIpcTool, KeysAreGroupColonId) {
  EXPECT_EQ(parse_key("14500:14504"), (Key{14500, 14504}));
  EXPECT_EQ(parse_key("0x3C8C:0x3CB1"), (Key{15500, 15537}));
  EXPECT_EQ(parse_key("9000", true), (Key{9000, kAnyId}));
  try {
    parse_key("9000");
    FAIL();
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "--key: expected GROUP:ID, got '9000'");
  }
  EXPECT_THROW(parse_key("9000:"), UsageError);
  EXPECT_THROW(parse_key(":1"), UsageError);
  EXPECT_THROW(parse_key("1:2:3"), UsageError);
}

TEST(XponIpcTool, ResponseLines) {
  Response response;
  response.payload = {0x15, 0x00};
  response.reply_tag = 3;
  response.result = 1;
  EXPECT_EQ(format_response(0x0015FFFE, response, false),
            "response from 0x0015fffe: result 1 tag 3 address 0x0000fffe payload [1500] (2 bytes)");
  EXPECT_EQ(format_response(0x0015FFFE, response, true),
            R"({"address":"0x0000fffe","from":"0x0015fffe","payload":"1500","reply_tag":3,"result":1,)"
            R"("type":"response"})");
}

TEST(XponIpcTool, EventLines) {
  Event event;
  event.group = 15500;
  event.id = 15537;
  event.source = 0x00190005;
  EXPECT_EQ(format_event(event, false), "event 15500:15537 from 0x00190005 address 0x0000fffe payload [] (0 bytes)");
  EXPECT_EQ(format_event(event, true),
            R"({"address":"0x0000fffe","group":15500,"id":15537,"payload":"","slot":5,"source":"0x00190005",)"
            R"("type":"event"})");
}

TEST(XponIpcTool, RequestLines) {
  Request request;
  request.group = 14500;
  request.id = 14504;
  EXPECT_EQ(format_request(request, false), "request 14500:14504 without reply information payload [] (0 bytes)");
  request.reply_to = ReplyTo{0x0019FFFE, 9};
  request.payload = {1};
  EXPECT_EQ(format_request(request, false), "request 14500:14504 from 0x0019fffe tag 9 payload [01] (1 byte)");
  EXPECT_EQ(format_request(request, true),
            R"({"from":"0x0019fffe","group":14500,"id":14504,"payload":"01","reply_tag":9,"type":"request"})");
}

}  // namespace
}  // namespace xpon::ipc::tool
