#include "xpon/system_mgr/functions/base.hpp"

#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;
using xpon::test::wait_until;

// A function with no overrides at all: every default of the base.
class BareFunction : public SysFunction {
 public:
  using SysFunction::SysFunction;
};

// A function whose poll does what the test says; it subscribes nothing.
class ScriptedFunction : public SysFunction {
 public:
  ScriptedFunction(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                   std::chrono::milliseconds period)
      : SysFunction(logger, ipc, "ScriptedFunction", period) {}

  Result<void> polling() override {
    const int call = ++polls;
    return poll(call);
  }
  Result<void> ipc_subscribe() override {
    ++subscribes;
    return subscribe_result;
  }
  Result<void> ipc_unsubscribe() override {
    ++unsubscribes;
    return unsubscribe_result;
  }

  using SysFunction::create_alarm_and_send_trap;
  using SysFunction::send_error_response;
  using SysFunction::wake_polling_thread;

  // Called with the 1-based number of the poll; the first is the one run() makes itself.
  std::function<Result<void>(int)> poll = [](int) { return Result<void>(core::success()); };
  std::atomic<int> polls{0};
  std::atomic<int> subscribes{0};
  std::atomic<int> unsubscribes{0};
  Result<void> subscribe_result = core::success();
  Result<void> unsubscribe_result = core::success();
};

// A function that answers requests but never polls.
class RequestOnlyFunction : public SysFunction {
 public:
  RequestOnlyFunction(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc)
      : SysFunction(logger, ipc, "RequestOnlyFunction", std::chrono::milliseconds(0)) {}
  Result<void> ipc_subscribe() override {
    ++subscribes;
    return core::success();
  }
  Result<void> ipc_unsubscribe() override {
    ++unsubscribes;
    return core::success();
  }
  int subscribes = 0;
  int unsubscribes = 0;
};

class SysFunctionTest : public ::testing::Test {
 protected:
  std::shared_ptr<test::RecordingLogger> logger = std::make_shared<test::RecordingLogger>();
  std::shared_ptr<test::RecordingIpc> ipc = std::make_shared<test::RecordingIpc>();
};

TEST_F(SysFunctionTest, ConstructionAndDestructionAreLogged) {
  { BareFunction function(logger, ipc, "Bare", 1s); }
  const auto lines = logger->lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "SysFunction create successfully");
  EXPECT_EQ(lines[0].level, 0);
  EXPECT_EQ(lines[1].text, "SysFunction destroy successfully");
  EXPECT_EQ(lines[1].level, 0);
}

TEST_F(SysFunctionTest, DefaultsAreNotImplementedForPollingAndSubscriptions) {
  BareFunction function(logger, ipc, "Bare", 1s);
  EXPECT_EQ(function.polling().error().error, Error::NotImplemented);
  EXPECT_EQ(function.ipc_subscribe().error().error, Error::NotImplemented);
  EXPECT_EQ(function.ipc_unsubscribe().error().error, Error::NotImplemented);
  EXPECT_TRUE(function.config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}}));
  EXPECT_TRUE(function.master_change(ServiceCtx{}));
  EXPECT_EQ(function.name(), "Bare");
}

TEST_F(SysFunctionTest, RunFailsWhenSubscribingIsNotImplemented) {
  BareFunction function(logger, ipc, "Bare", 1s);
  logger->clear();
  const auto result = function.run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::NotImplemented);
  EXPECT_FALSE(function.is_running());
  // One line where the error was made and one where run() passed it on.
  const auto lines = logger->lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "Error: NotImplemented");
  EXPECT_EQ(lines[0].level, 4);
  EXPECT_EQ(lines[1].text, "Error: NotImplemented");
  EXPECT_EQ(lines[1].level, 4);
  EXPECT_NE(lines[0].line, lines[1].line);
  // stop() unsubscribes again and finds no thread.
  EXPECT_EQ(function.stop().error().error, Error::NotImplemented);
}

TEST_F(SysFunctionTest, FailedSubscriptionStartsNoThreadAndStopUnsubscribesAgain) {
  ScriptedFunction function(logger, ipc, 10ms);
  function.subscribe_result = core::ErrorPayload(Error::ErrorCApi);
  const auto result = function.run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_EQ(function.polls.load(), 0);
  EXPECT_FALSE(function.is_running());
  EXPECT_TRUE(function.stop());
  EXPECT_EQ(function.unsubscribes.load(), 1);
}

TEST_F(SysFunctionTest, FunctionWithoutPollingRunsWithoutThread) {
  RequestOnlyFunction function(logger, ipc);
  ASSERT_TRUE(function.run());
  EXPECT_TRUE(logger->contains("Polling not required for System function: RequestOnlyFunction", 0));
  EXPECT_FALSE(function.is_running());
  EXPECT_FALSE(logger->contains("Start System function: RequestOnlyFunction"));
  ASSERT_TRUE(function.stop());
  EXPECT_EQ(function.subscribes, 1);
  EXPECT_EQ(function.unsubscribes, 1);
}

TEST_F(SysFunctionTest, FirstPollRunsOnTheCallersThreadBeforeTheThreadStarts) {
  ScriptedFunction function(logger, ipc, 10s);
  std::thread::id first_poll_thread;
  function.poll = [&](int call) {
    if (call == 1) {
      first_poll_thread = std::this_thread::get_id();
    }
    return Result<void>(core::success());
  };
  ASSERT_TRUE(function.run());
  EXPECT_EQ(function.polls.load(), 1);
  EXPECT_EQ(first_poll_thread, std::this_thread::get_id());
  EXPECT_TRUE(function.is_running());
  ASSERT_TRUE(wait_until([&] { return logger->contains("Start System function: ScriptedFunction", 0); }));
  std::this_thread::sleep_for(100ms);  // let the thread reach its wait
  ASSERT_TRUE(function.stop());
}

TEST_F(SysFunctionTest, FirstPollThatThrowsStillStartsTheThread) {
  ScriptedFunction function(logger, ipc, 10s);
  function.poll = [](int call) -> Result<void> {
    if (call == 1) {
      throw std::runtime_error("sensor unreadable");
    }
    return core::success();
  };
  ASSERT_TRUE(function.run());
  EXPECT_TRUE(logger->contains("An std::exception was thrown: sensor unreadable ", 4));
  EXPECT_TRUE(function.is_running());
  ASSERT_TRUE(wait_until([&] { return logger->contains("Start System function: ScriptedFunction", 0); }));
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(function.stop());
}

TEST_F(SysFunctionTest, FirstPollThatThrowsSomethingElseStillStartsTheThread) {
  ScriptedFunction function(logger, ipc, 10s);
  function.poll = [](int call) -> Result<void> {
    if (call == 1) {
      throw 42;
    }
    return core::success();
  };
  ASSERT_TRUE(function.run());
  EXPECT_TRUE(logger->contains("An exception was thrown. ", 4));
  EXPECT_TRUE(function.is_running());
  ASSERT_TRUE(wait_until([&] { return logger->contains("Start System function: ScriptedFunction", 0); }));
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(function.stop());
}

TEST_F(SysFunctionTest, FirstPollErrorStillStartsTheThread) {
  ScriptedFunction function(logger, ipc, 10s);
  function.poll = [](int call) -> Result<void> {
    if (call == 1) {
      return core::ErrorPayload(Error::ErrorCApi);
    }
    return core::success();
  };
  ASSERT_TRUE(function.run());
  EXPECT_TRUE(function.is_running());
  ASSERT_TRUE(wait_until([&] { return logger->contains("Start System function: ScriptedFunction", 0); }));
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(function.stop());
}

TEST_F(SysFunctionTest, ThreadPollsOncePerPeriodAndKeepsPollingAfterErrorsAndExceptions) {
  ScriptedFunction function(logger, ipc, 20ms);
  function.poll = [](int call) -> Result<void> {
    if (call == 2) {
      return core::ErrorPayload(Error::ErrorCApi);
    }
    if (call == 3) {
      throw std::runtime_error("transient");
    }
    return core::success();
  };
  ASSERT_TRUE(function.run());
  ASSERT_TRUE(wait_until([&] { return function.polls.load() >= 5; }));
  EXPECT_TRUE(logger->contains("An std::exception was thrown: transient ", 4));
  // Stopping a thread with a short period may need a few periods (a wake-up during a poll is
  // lost); keep waking it until it has ended.
  auto stopped = std::async(std::launch::async, [&] { return function.stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function.wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  EXPECT_FALSE(function.is_running());
}

TEST_F(SysFunctionTest, PeriodIsMeasuredFromTheStartOfEachWait) {
  ScriptedFunction function(logger, ipc, 100ms);
  std::mutex mutex;
  std::vector<std::chrono::steady_clock::time_point> times;
  function.poll = [&](int) {
    std::lock_guard lock(mutex);
    times.push_back(std::chrono::steady_clock::now());
    return Result<void>(core::success());
  };
  ASSERT_TRUE(function.run());
  ASSERT_TRUE(wait_until([&] { return function.polls.load() >= 3; }));
  auto stopped = std::async(std::launch::async, [&] { return function.stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function.wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  std::lock_guard lock(mutex);
  ASSERT_GE(times.size(), 3U);
  for (std::size_t i = 1; i < 3; ++i) {
    EXPECT_GE(times[i] - times[i - 1], 100ms) << i;
  }
}

TEST_F(SysFunctionTest, StopWhileTheThreadWaitsReturnsAtOnce) {
  ScriptedFunction function(logger, ipc, 10s);
  ASSERT_TRUE(function.run());
  ASSERT_TRUE(wait_until([&] { return logger->contains("Start System function: ScriptedFunction", 0); }));
  std::this_thread::sleep_for(100ms);  // the thread is now in its 10-second wait
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(function.stop());
  EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
  EXPECT_FALSE(function.is_running());
  EXPECT_EQ(function.polls.load(), 1);
  EXPECT_EQ(function.unsubscribes.load(), 1);
}

TEST_F(SysFunctionTest, StopDuringAPollDoesNotEndTheThread) {
  ScriptedFunction function(logger, ipc, 200ms);
  std::mutex mutex;
  std::condition_variable changed;
  bool in_second_poll = false;
  bool release = false;
  function.poll = [&](int call) {
    if (call == 2) {
      std::unique_lock lock(mutex);
      in_second_poll = true;
      changed.notify_all();
      changed.wait(lock, [&] { return release; });
    }
    return Result<void>(core::success());
  };
  ASSERT_TRUE(function.run());
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, 5s, [&] { return in_second_poll; }));
  }
  auto stopped = std::async(std::launch::async, [&] { return function.stop(); });
  ASSERT_TRUE(wait_until([&] { return function.unsubscribes.load() == 1; }));
  std::this_thread::sleep_for(200ms);  // stop's wake-up is issued (and lost) while the poll runs
  {
    std::lock_guard lock(mutex);
    release = true;
  }
  changed.notify_all();
  // The thread goes on: it waits a full period and polls again, while stop stays in the join.
  ASSERT_TRUE(wait_until([&] { return function.polls.load() >= 3; }));
  EXPECT_EQ(stopped.wait_for(0ms), std::future_status::timeout);
  EXPECT_TRUE(function.is_running());
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function.wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  EXPECT_FALSE(function.is_running());
}

TEST_F(SysFunctionTest, StopReturnsTheUnsubscribeErrorButStillEndsTheThread) {
  ScriptedFunction function(logger, ipc, 10s);
  function.unsubscribe_result = core::ErrorPayload(Error::Empty);
  ASSERT_TRUE(function.run());
  ASSERT_TRUE(wait_until([&] { return logger->contains("Start System function: ScriptedFunction", 0); }));
  std::this_thread::sleep_for(100ms);
  const auto result = function.stop();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
  EXPECT_FALSE(function.is_running());
  EXPECT_TRUE(logger->contains("Error: Empty", 4));
}

TEST_F(SysFunctionTest, SendErrorResponseWithoutReplyInformationIsException) {
  ScriptedFunction function(logger, ipc, 1s);
  ipc::Request request;
  request.group = 15500;
  request.id = 15515;
  const auto result = function.send_error_response(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: bad optional access ", 4));
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SysFunctionTest, SendErrorResponseSendsAnEmptyErrorAnswerAndReturnsCommonError) {
  ScriptedFunction function(logger, ipc, 1s);
  ipc::Request request;
  request.group = 15500;
  request.id = 15515;
  request.payload = {1, 2, 3};
  request.reply_to = ipc::ReplyTo{0x00230004, 0x1234};
  const auto result = function.send_error_response(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  const auto responses = ipc->responses();
  ASSERT_EQ(responses.size(), 1U);
  EXPECT_EQ(responses[0].address, 0x00230004U);
  EXPECT_TRUE(responses[0].response.payload.empty());
  EXPECT_EQ(responses[0].response.address, 0x0000FFFEU);
  EXPECT_EQ(responses[0].response.reply_tag, 0x1234);
  EXPECT_EQ(responses[0].response.result, 0U);
}

TEST_F(SysFunctionTest, SendErrorResponseReturnsAndLogsAFailedSend) {
  ScriptedFunction function(logger, ipc, 1s);
  ipc::Request request;
  request.reply_to = ipc::ReplyTo{0x00230004, 1};
  ipc->fail_next_send(Error::InvalidState);
  logger->clear();
  const auto result = function.send_error_response(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SysFunctionTest, AlarmEventCarriesExactlyThe305BytesOfTheRecord) {
  ScriptedFunction function(logger, ipc, 1s);
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = kAlarmNormal;
  alarm.alarm_id = 0x04030201;
  alarm.instance = 0x0D0C0B0A;
  alarm.value[0] = 0x11223344;
  alarm.value[1] = 5;
  alarm.value[2] = 0xFFFFFFFF;
  std::strcpy(alarm.text, "hello");
  alarm.reserved_tail[3] = 0x7E;
  ASSERT_TRUE(function.create_alarm_and_send_trap(&alarm));

  const auto events = ipc->events();
  ASSERT_EQ(events.size(), 1U);
  const auto& event = events[0];
  EXPECT_EQ(event.address, 0x0000FFFEU);
  EXPECT_EQ(event.group, 9000);
  EXPECT_EQ(event.id, 9005);
  ASSERT_EQ(event.payload.size(), 305U);
  ipc::Payload expected(305, 0);
  expected[8] = 1;
  expected[9] = 0x01;
  expected[10] = 0x02;
  expected[11] = 0x03;
  expected[12] = 0x04;
  expected[17] = 0x0A;
  expected[18] = 0x0B;
  expected[19] = 0x0C;
  expected[20] = 0x0D;
  expected[33] = 0x44;
  expected[34] = 0x33;
  expected[35] = 0x22;
  expected[36] = 0x11;
  expected[37] = 5;
  for (std::size_t i = 41; i < 45; ++i) {
    expected[i] = 0xFF;
  }
  const std::string text = "hello";
  std::copy(text.begin(), text.end(), expected.begin() + 45);
  expected[304] = 0x7E;
  EXPECT_EQ(event.payload, expected);
}

TEST_F(SysFunctionTest, FailedAlarmSendIsLoggedAndReturned) {
  ScriptedFunction function(logger, ipc, 1s);
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  ipc->fail_next_send(Error::ErrorCApi);
  logger->clear();
  const auto result = function.create_alarm_and_send_trap(&alarm);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  const auto lines = logger->lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "Error: ErrorCApi. Message: injected failure.");
  EXPECT_EQ(lines[1].text, "Error: ErrorCApi. Message: injected failure.");
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(SysFunctionTest, MissingAlarmRecordIsRefused) {
  ScriptedFunction function(logger, ipc, 1s);
  const auto result = function.create_alarm_and_send_trap(nullptr);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidInputArg);
  EXPECT_TRUE(ipc->events().empty());
}

}  // namespace
}  // namespace xpon::system_mgr
