#include "xpon/test/recording_ipc.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace xpon::test {
namespace {

using core::Error;
using namespace std::chrono_literals;

TEST(RecordingIpc, RecordsResponsesWithTheirAddress) {
  RecordingIpc ipc;
  ipc::Response response;
  response.payload = {1, 2};
  response.reply_tag = 7;
  response.result = 1;
  ASSERT_TRUE(ipc.send_response(0x00200003, response));
  const auto sent = ipc.responses();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].address, 0x00200003U);
  EXPECT_EQ(sent[0].response.payload, (ipc::Payload{1, 2}));
  EXPECT_EQ(sent[0].response.reply_tag, 7);
  EXPECT_EQ(sent[0].response.result, 1U);
}

TEST(RecordingIpc, FailNextSendFailsOnlyTheNextSend) {
  RecordingIpc ipc;
  ipc.fail_next_send(Error::ErrorCApi);
  const auto failed = ipc.send_event(ipc::Event{});
  ASSERT_TRUE(failed.has_error());
  EXPECT_EQ(failed.error().error, Error::ErrorCApi);
  EXPECT_TRUE(ipc.events().empty());
  EXPECT_TRUE(ipc.send_event(ipc::Event{}));
  EXPECT_EQ(ipc.events().size(), 1U);
}

TEST(RecordingIpc, InjectedRequestReachesTheSubscribedHandler) {
  RecordingIpc ipc;
  int calls = 0;
  ASSERT_TRUE(ipc.subscribe_request(ipc::Key{15500, 15501}, [&](const ipc::Request& request) -> core::Result<void> {
    ++calls;
    EXPECT_EQ(request.payload, (ipc::Payload{9}));
    return core::ErrorPayload(Error::CommonError);
  }));
  ipc::Request request;
  request.group = 15500;
  request.id = 15501;
  request.payload = {9};
  const auto handled = ipc.inject_request(request);
  ASSERT_TRUE(handled.has_error());
  EXPECT_EQ(handled.error().error, Error::CommonError);
  EXPECT_EQ(calls, 1);
  request.id = 15502;
  const auto unhandled = ipc.inject_request(request);
  ASSERT_TRUE(unhandled.has_error());
  EXPECT_EQ(unhandled.error().error, Error::Empty);
  EXPECT_EQ(calls, 1);
}

TEST(RecordingIpc, InjectedEventFallsBackToTheGroupSubscription) {
  RecordingIpc ipc;
  int calls = 0;
  ASSERT_TRUE(ipc.subscribe_event(ipc::Key{11000, ipc::kAnyId}, [&](const ipc::Event&) -> core::Result<void> {
    ++calls;
    return core::success();
  }));
  ipc::Event event;
  event.group = 11000;
  event.id = 11001;
  EXPECT_TRUE(ipc.inject_event(event));
  event.group = 11001;
  EXPECT_EQ(ipc.inject_event(event).error().error, Error::Empty);
  EXPECT_EQ(calls, 1);
}

TEST(RecordingIpc, SubscriptionsAreTrackedAndDoubleSubscriptionRefused) {
  RecordingIpc ipc;
  const ipc::Key key{15500, 15515};
  ASSERT_TRUE(ipc.subscribe_request(key, [](const ipc::Request&) { return core::Result<void>(core::success()); }));
  EXPECT_EQ(
      ipc.subscribe_request(key, [](const ipc::Request&) { return core::Result<void>(core::success()); }).error().error,
      Error::Already);
  EXPECT_EQ(ipc.request_subscriptions(), (std::vector<ipc::Key>{key}));
  EXPECT_TRUE(ipc.unsubscribe_request(key));
  EXPECT_EQ(ipc.unsubscribe_request(key).error().error, Error::Empty);
  EXPECT_FALSE(ipc.has_request_subscription(key));
  EXPECT_EQ(ipc.subscribe_calls(), 2U);
  EXPECT_EQ(ipc.unsubscribe_calls(), 2U);
}

TEST(RecordingIpc, RequestWithoutAnAnswerTimesOut) {
  RecordingIpc ipc;
  EXPECT_EQ(ipc.request(0x0015FFFE, ipc::Request{}, 10ms).error().error, Error::InvalidState);
  ipc::Response answer;
  answer.result = 1;
  ipc.answer_next_request(answer);
  const auto answered = ipc.request(0x0015FFFE, ipc::Request{}, 10ms);
  ASSERT_TRUE(answered);
  EXPECT_EQ(answered.value().result, 1U);
  EXPECT_EQ(ipc.requests().size(), 2U);
  EXPECT_EQ(ipc.requests()[0].address, 0x0015FFFEU);
}

TEST(RecordingIpc, EveryRequestKeepsTheTimeOutItWasMadeWith) {
  RecordingIpc ipc;
  ipc::Response answer;
  answer.result = 1;
  ipc.answer_next_request(answer);
  ASSERT_TRUE(ipc.request(0x0015FFFE, ipc::Request{}, 1000ms));
  static_cast<void>(ipc.request(0x0042FFFE, ipc::Request{}, 25ms));
  const auto requests = ipc.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].timeout, 1000ms);
  EXPECT_EQ(requests[1].address, 0x0042FFFEU);
  EXPECT_EQ(requests[1].timeout, 25ms);
}

TEST(RecordingIpc, WaitForEventsSeesEventsSentFromAnotherThread) {
  RecordingIpc ipc;
  std::thread sender([&] { EXPECT_TRUE(ipc.send_event(ipc::Event{})); });
  EXPECT_TRUE(ipc.wait_for_events(1, 2s));
  sender.join();
  EXPECT_FALSE(ipc.wait_for_events(2, 10ms));
}

}  // namespace
}  // namespace xpon::test
