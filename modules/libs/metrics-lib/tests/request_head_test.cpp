#include "xpon/metrics/request_head.hpp"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace xpon::metrics {
namespace {

// The status a head is refused with, or 0 when it is accepted.
int refusal_status(std::string_view head) {
  const RequestHeadResult parsed = parse_request_head(head);
  return parsed ? 0 : parsed.error().status;
}

TEST(RequestHead, SizeIsEmptyUntilTheEmptyLineArrives) {
  EXPECT_FALSE(request_head_size("").has_value());
  EXPECT_FALSE(request_head_size("GET / HTTP/1.1\r\n").has_value());
  EXPECT_FALSE(request_head_size("GET / HTTP/1.1\r\nHost: a\r\n\r").has_value());
  EXPECT_FALSE(request_head_size("\r\n\r\n").has_value());
}

TEST(RequestHead, SizeCountsUpToTheEmptyLineWithCrlfOrBareLf) {
  EXPECT_EQ(request_head_size("GET / HTTP/1.1\r\nHost: a\r\n\r\nBODY"), std::size_t{27});
  EXPECT_EQ(request_head_size("GET / HTTP/1.1\nHost: a\n\nBODY"), std::size_t{24});
  EXPECT_EQ(request_head_size("GET / HTTP/1.0\r\n\r\n"), std::size_t{18});
  EXPECT_EQ(request_head_size("\r\n\nGET / HTTP/1.0\r\n\r\n"), std::size_t{21});
}

TEST(RequestHead, ParsesAGetWithItsFields) {
  const RequestHeadResult parsed =
      parse_request_head("GET /metrics?name=x HTTP/1.1\r\nHost: localhost:9101\r\nAccept:  text/plain \r\n\r\n");
  ASSERT_TRUE(parsed) << parsed.error().reason;
  const RequestHead& head = parsed.value();
  EXPECT_EQ(head.method, "GET");
  EXPECT_EQ(head.target, "/metrics?name=x");
  EXPECT_EQ(head.path, "/metrics");
  EXPECT_EQ(head.minor_version, 1);
  ASSERT_EQ(head.fields.size(), 2U);
  EXPECT_EQ(head.fields[0].first, "Host");
  EXPECT_EQ(head.fields[0].second, "localhost:9101");
  EXPECT_EQ(head.fields[1].first, "Accept");
  EXPECT_EQ(head.fields[1].second, "text/plain");
  EXPECT_FALSE(head.has_body);
}

TEST(RequestHead, AcceptsHttp10WithoutHostAndBareLineFeeds) {
  const RequestHeadResult parsed = parse_request_head("HEAD / HTTP/1.0\n\n");
  ASSERT_TRUE(parsed) << parsed.error().reason;
  EXPECT_EQ(parsed.value().method, "HEAD");
  EXPECT_EQ(parsed.value().minor_version, 0);
}

TEST(RequestHead, SkipsEmptyLinesBeforeTheRequestLine) {
  const RequestHeadResult parsed = parse_request_head("\r\n\r\nGET /a HTTP/1.1\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(parsed) << parsed.error().reason;
  EXPECT_EQ(parsed.value().path, "/a");
}

TEST(RequestHead, AnyTokenMethodIsParsedForTheServerToJudge) {
  const RequestHeadResult parsed = parse_request_head("POST / HTTP/1.1\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(parsed) << parsed.error().reason;
  EXPECT_EQ(parsed.value().method, "POST");
  EXPECT_EQ(refusal_status("M-SEARCH * HTTP/1.1\r\nHost: h\r\n\r\n"), 0);
}

TEST(RequestHead, MalformedRequestLinesAreBadRequests) {
  for (const char* head : {
           "GET\r\n\r\n",
           "GET /\r\n\r\n",
           "GET  / HTTP/1.1\r\nHost: h\r\n\r\n",
           "GET / HTTP/1.1 \r\nHost: h\r\n\r\n",
           " GET / HTTP/1.1\r\nHost: h\r\n\r\n",
           "G(T / HTTP/1.1\r\nHost: h\r\n\r\n",
           "GET metrics HTTP/1.1\r\nHost: h\r\n\r\n",
           "GET http://h/metrics HTTP/1.1\r\nHost: h\r\n\r\n",
           "GET /a\x01 HTTP/1.1\r\nHost: h\r\n\r\n",
           "GET /\xc3\xa9 HTTP/1.1\r\nHost: h\r\n\r\n",
           "GET / HTTP/1\r\nHost: h\r\n\r\n",
           "GET / HTTP/1.1.1\r\nHost: h\r\n\r\n",
           "GET / http/1.1\r\nHost: h\r\n\r\n",
           "GET / HTTP/a.b\r\nHost: h\r\n\r\n",
           "GET / HTTP/1.1\rX\r\nHost: h\r\n\r\n",
           "GET\t/ HTTP/1.1\r\nHost: h\r\n\r\n",
       }) {
    EXPECT_EQ(refusal_status(head), 400) << head;
  }
}

TEST(RequestHead, EmptyOrUnfinishedHeadIsABadRequest) {
  EXPECT_EQ(refusal_status(""), 400);
  EXPECT_EQ(refusal_status("\r\n\r\n"), 400);
  EXPECT_EQ(refusal_status("GET / HTTP/1.1\r\nHost: h\r\n"), 400);
  EXPECT_EQ(refusal_status("GET / HTTP/1.1"), 400);
}

TEST(RequestHead, OtherWellFormedVersionsAreNotSupported) {
  for (const char* head : {"GET / HTTP/2.0\r\n\r\n", "GET / HTTP/0.9\r\n\r\n", "GET / HTTP/1.2\r\nHost: h\r\n\r\n",
                           "GET / HTTP/3.0\r\n\r\n"}) {
    const RequestHeadResult parsed = parse_request_head(head);
    ASSERT_FALSE(parsed) << head;
    EXPECT_EQ(parsed.error().status, 505) << head;
  }
  EXPECT_EQ(parse_request_head("GET / HTTP/2.0\r\n\r\n").error().reason,
            "HTTP/2.0 is not supported: only HTTP/1.0 and HTTP/1.1 are");
}

TEST(RequestHead, MalformedHeaderLinesAreBadRequests) {
  for (const char* head : {
           "GET / HTTP/1.1\r\nHost h\r\n\r\n",
           "GET / HTTP/1.1\r\nHost : h\r\n\r\n",
           "GET / HTTP/1.1\r\n: h\r\nHost: h\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\n folded\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\n\tfolded\r\n\r\n",
           "GET / HTTP/1.1\r\nHo(st: h\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nX: a\x01z\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nX: a\rz\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nX: a\x7fz\r\n\r\n",
       }) {
    EXPECT_EQ(refusal_status(head), 400) << head;
  }
}

TEST(RequestHead, FieldValuesMayHoldTabsAndHighBytes) {
  const RequestHeadResult parsed = parse_request_head("GET / HTTP/1.1\r\nHost: h\r\nX: a\tb \xc3\xa9\r\nY:\r\n\r\n");
  ASSERT_TRUE(parsed) << parsed.error().reason;
  EXPECT_EQ(parsed.value().fields[1].second, "a\tb \xc3\xa9");
  EXPECT_EQ(parsed.value().fields[2].second, "");
}

TEST(RequestHead, Http11NeedsExactlyOneHost) {
  EXPECT_EQ(refusal_status("GET / HTTP/1.1\r\n\r\n"), 400);
  EXPECT_EQ(refusal_status("GET / HTTP/1.1\r\nHost: a\r\nhost: b\r\n\r\n"), 400);
  EXPECT_EQ(refusal_status("GET / HTTP/1.0\r\nHost: a\r\nHost: b\r\n\r\n"), 400);
  EXPECT_EQ(refusal_status("GET / HTTP/1.1\r\nhOsT: a\r\n\r\n"), 0);
}

TEST(RequestHead, ContentLengthAboveZeroOrTransferEncodingAnnounceABody) {
  EXPECT_FALSE(parse_request_head("GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\n\r\n").value().has_body);
  EXPECT_TRUE(parse_request_head("GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n\r\n").value().has_body);
  EXPECT_TRUE(parse_request_head("GET / HTTP/1.1\r\nHost: h\r\ncontent-length: 5\r\n\r\n").value().has_body);
  EXPECT_TRUE(parse_request_head("GET / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n").value().has_body);
  EXPECT_TRUE(parse_request_head("GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\n")
                  .value()
                  .has_body);
}

TEST(RequestHead, BadContentLengthIsABadRequest) {
  for (const char* head : {
           "GET / HTTP/1.1\r\nHost: h\r\nContent-Length: x\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nContent-Length: -1\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 1 2\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nContent-Length:\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 99999999999999999999999\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n",
           "GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n",
       }) {
    EXPECT_EQ(refusal_status(head), 400) << head;
  }
}

TEST(RequestHead, WhatFollowsTheEmptyLineIsIgnored) {
  const RequestHeadResult parsed = parse_request_head("GET / HTTP/1.1\r\nHost: h\r\n\r\nGARBAGE\x01\r\n");
  ASSERT_TRUE(parsed) << parsed.error().reason;
  EXPECT_EQ(parsed.value().fields.size(), 1U);
}

TEST(RequestHead, EveryRefusalHasAReason) {
  for (const char* head : {"", "GET / HTTP/2.0\r\n\r\n", "GET / HTTP/1.1\r\n\r\n", "x\r\n\r\n"}) {
    const RequestHeadResult parsed = parse_request_head(head);
    ASSERT_FALSE(parsed) << head;
    EXPECT_FALSE(parsed.error().reason.empty()) << head;
  }
}

}  // namespace
}  // namespace xpon::metrics
