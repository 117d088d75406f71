#include "xpon/system_mgr/functions/base.hpp"

#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/wait.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

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

  using SysFunction::answer_request;
  using SysFunction::apply_config_changes;
  using SysFunction::create_alarm_and_send_trap;
  using SysFunction::mutex;
  using SysFunction::send_answer;
  using SysFunction::send_error_response;
  using SysFunction::set_thread_starter;
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

// A function whose requests come from a route table of the test's own; it never polls.
class RoutedFunction : public SysFunction {
 public:
  RoutedFunction(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc)
      : SysFunction(logger, ipc, "RoutedFunction", std::chrono::milliseconds(0)) {}

  using SysFunction::declare_routes;
  using SysFunction::subscribe_routes;
  using SysFunction::unsubscribe_routes;
};

// A poll held until the test releases it; shared with the poll, which may outlive the test's frame.
struct HeldPoll {
  std::mutex mutex;
  std::condition_variable changed;
  bool in_poll = false;
  bool release = false;
};

class SysFunctionTest : public ::testing::Test {
 protected:
  // Runs the function, holds its second poll, calls stop on another thread while that poll runs
  // (so that stop's wake-up is lost), then lets the poll end; `stopped` is the pending stop.
  static void stop_during_the_second_poll(ScriptedFunction& function, std::future<Result<void>>& stopped) {
    auto held = std::make_shared<HeldPoll>();
    function.poll = [held](int call) {
      if (call == 2) {
        std::unique_lock lock(held->mutex);
        held->in_poll = true;
        held->changed.notify_all();
        held->changed.wait(lock, [&] { return held->release; });
      }
      return Result<void>(core::success());
    };
    ASSERT_TRUE(function.run());
    {
      std::unique_lock lock(held->mutex);
      ASSERT_TRUE(held->changed.wait_for(lock, 5s, [&] { return held->in_poll; }));
    }
    stopped = std::async(std::launch::async, [&function] { return function.stop(); });
    ASSERT_TRUE(wait_until([&] { return function.unsubscribes.load() == 1; }));
    std::this_thread::sleep_for(200ms);  // stop's wake-up is issued (and lost) while the poll runs
    {
      std::lock_guard lock(held->mutex);
      held->release = true;
    }
    held->changed.notify_all();
  }

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

TEST(PollLatenessTest, AReportOpensWhenAPollStartsMoreThanOnePeriodLateAndOnlyOnceUntilItCatchesUp) {
  using Clock = PollLateness::Clock;
  struct Step {
    std::chrono::milliseconds since_previous_start;
    std::optional<std::chrono::milliseconds> reported;
  };
  // Period 1 s: the schedule of a poll is the previous start plus one second.
  const std::vector<Step> steps{
      {1000ms, std::nullopt},  // on time
      {2000ms, std::nullopt},  // one period late: not yet behind
      {2001ms, 1001ms},        // more than a period late: reported
      {3500ms, std::nullopt},  // still behind: the episode was reported
      {1200ms, std::nullopt},  // back within a period of its schedule: the episode ends
      {2600ms, 1600ms},        // a new episode
  };
  PollLateness lateness(1000ms);
  Clock::time_point start{1h};
  EXPECT_EQ(lateness.poll_started(start), std::nullopt) << "the first poll has no schedule";
  for (std::size_t i = 0; i < steps.size(); ++i) {
    start += steps[i].since_previous_start;
    EXPECT_EQ(lateness.poll_started(start), steps[i].reported) << "step " << i;
  }
}

TEST_F(SysFunctionTest, PollsFallingBehindAreLoggedOnceAtWarningLevelAndTheScheduleIsKept) {
  ScriptedFunction function(logger, ipc, 50ms);
  // Polls 2, 3 and 4 stall for three periods: 3, 4 and 5 start late, 6 on time.
  function.poll = [](int call) {
    if (call >= 2 && call <= 4) {
      std::this_thread::sleep_for(150ms);
    }
    return Result<void>(core::success());
  };
  ASSERT_TRUE(function.run());
  ASSERT_TRUE(wait_until([&] { return function.polls.load() >= 7; }));
  auto stopped = std::async(std::launch::async, [&] { return function.stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function.wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  std::vector<xpon::test::LogLine> warnings;
  for (const auto& line : logger->lines()) {
    if (line.level == 3) {
      warnings.push_back(line);
    }
  }
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_THAT(warnings[0].text, ::testing::MatchesRegex("System function ScriptedFunction fell behind its polling: "
                                                        "a poll started [0-9]+ ms late \\(period 50 ms\\)"));
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
  std::future<Result<void>> stopped;
  ASSERT_NO_FATAL_FAILURE(stop_during_the_second_poll(function, stopped));
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

TEST_F(SysFunctionTest, EarlyWakeUpThatIsNotAStopEndsTheThread) {
  auto function = std::make_unique<ScriptedFunction>(logger, ipc, 10s);
  std::atomic<bool> thread_ended{false};
  function->set_thread_starter([&thread_ended](std::function<void()> body) {
    return std::thread([body = std::move(body), &thread_ended] {
      body();
      thread_ended = true;
    });
  });
  ASSERT_TRUE(function->run());
  // Deliberately no stop flag: any wake-up before the deadline ends the polling thread, although
  // the function was never stopped. A wake-up before the thread's first wait is lost, so repeat it.
  ASSERT_TRUE(wait_until([&] {
    function->wake_polling_thread();
    return thread_ended.load();
  }));
  EXPECT_EQ(function->polls.load(), 1);
  EXPECT_TRUE(function->is_running());
  EXPECT_TRUE(function->stop());
  EXPECT_FALSE(function->is_running());
}

TEST_F(SysFunctionTest, ThreadThatCannotStartIsAnExceptionNamingTheFunction) {
  auto function = std::make_unique<ScriptedFunction>(logger, ipc, 10s);
  function->set_thread_starter(
      [](const std::function<void()>&) -> std::thread { throw std::runtime_error("no thread"); });
  const auto result = function->run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  ASSERT_TRUE(result.error().info && result.error().info->message);
  EXPECT_EQ(*result.error().info->message, "Exception on run System function: ScriptedFunction | no thread");
  EXPECT_TRUE(logger->contains("Exception on run System function: ScriptedFunction | no thread", 4));
  // The subscription of step one is undone.
  EXPECT_EQ(function->subscribes.load(), 1);
  EXPECT_EQ(function->unsubscribes.load(), 1);
  EXPECT_FALSE(function->is_running());
  EXPECT_TRUE(function->stop());
}

TEST_F(SysFunctionTest, ThreadStartThrowingSomethingElseIsAnUnknownException) {
  auto function = std::make_unique<ScriptedFunction>(logger, ipc, 10s);
  function->set_thread_starter([](const std::function<void()>&) -> std::thread { throw 42; });
  const auto result = function->run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  ASSERT_TRUE(result.error().info && result.error().info->message);
  EXPECT_EQ(*result.error().info->message, "Unknown exception on run System function: ScriptedFunction");
  EXPECT_TRUE(logger->contains("Unknown exception on run System function: ScriptedFunction", 4));
  EXPECT_EQ(function->unsubscribes.load(), 1);
  EXPECT_FALSE(function->is_running());
}

TEST_F(SysFunctionTest, FailedUndoOfTheSubscriptionIsOnlyLogged) {
  auto function = std::make_unique<ScriptedFunction>(logger, ipc, 10s);
  function->unsubscribe_result = core::ErrorPayload(Error::Empty, "nothing to undo");
  function->set_thread_starter(
      [](const std::function<void()>&) -> std::thread { throw std::runtime_error("no thread"); });
  const auto result = function->run();
  ASSERT_TRUE(result.has_error());
  ASSERT_TRUE(result.error().info && result.error().info->message);
  EXPECT_EQ(*result.error().info->message, "Exception on run System function: ScriptedFunction | no thread");
  EXPECT_TRUE(logger->contains("Error: Empty. Message: nothing to undo.", 4));
}

TEST_F(SysFunctionTest, PeriodIsKept) {
  EXPECT_EQ(ScriptedFunction(logger, ipc, 1234ms).period(), 1234ms);
}

TEST_F(SysFunctionTest, DerivedFunctionHoldsThePollingMutex) {
  // A request or configuration path that takes the base's mutex keeps the poll out.
  auto function = std::make_unique<ScriptedFunction>(logger, ipc, 20ms);
  ASSERT_TRUE(function->run());
  ASSERT_TRUE(wait_until([&] { return function->polls.load() >= 2; }));
  int polls_while_held = 0;
  {
    std::lock_guard lock(function->mutex());
    const int before = function->polls.load();
    std::this_thread::sleep_for(100ms);
    polls_while_held = function->polls.load() - before;
  }
  EXPECT_EQ(polls_while_held, 0);
  auto stopped = std::async(std::launch::async, [&] { return function->stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
}

TEST_F(SysFunctionTest, FirstPollHoldsThePollingMutex) {
  auto function = std::make_unique<ScriptedFunction>(logger, ipc, 10s);
  bool held_in_first_poll = false;
  function->poll = [&](int call) {
    if (call == 1) {
      // Another thread cannot take the mutex while the first poll runs.
      const bool free = std::async(std::launch::async, [&] {
                          if (!function->mutex().try_lock()) {
                            return false;
                          }
                          function->mutex().unlock();
                          return true;
                        }).get();
      held_in_first_poll = !free;
    }
    return Result<void>(core::success());
  };
  ASSERT_TRUE(function->run());
  EXPECT_TRUE(held_in_first_poll);
  auto stopped = std::async(std::launch::async, [&] { return function->stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
}

TEST_F(SysFunctionTest, ConfigChangesReReadEachNamedSectionInOrderAndLogTheirNames) {
  ScriptedFunction function(logger, ipc, 10s);
  std::vector<std::string> reads;
  const auto result = function.apply_config_changes(
      {Config_change{81, 1, 0}, Config_change{80, 1, 0}, Config_change{77, 1, 0}, Config_change{81, 1, 0}},
      {{cfgdb::kAlarmSystemLoadAverage,
        [&] {
          reads.emplace_back("80");
          return Result<void>(core::success());
        }},
       {cfgdb::kAlarmSystemTemperature, [&] {
          reads.emplace_back("81");
          return Result<void>(core::success());
        }}});
  EXPECT_TRUE(result);
  EXPECT_EQ(reads, (std::vector<std::string>{"81", "80", "81"}));
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{
                "SysFunction create successfully", "Change config event [ALARM_SYSTEM_TEMPERATURE]",
                "Change config event [ALARM_SYSTEM_LOAD_AVERAGE]", "Change config event [ALARM_SYSTEM_TEMPERATURE]"}));
}

TEST_F(SysFunctionTest, EmptyConfigChangeListReadsNothing) {
  ScriptedFunction function(logger, ipc, 10s);
  int reads = 0;
  EXPECT_TRUE(function.apply_config_changes({}, {{cfgdb::kAlarmSystemLoadAverage, [&] {
                                                    ++reads;
                                                    return Result<void>(core::success());
                                                  }}}));
  EXPECT_EQ(reads, 0);
}

TEST_F(SysFunctionTest, FirstFailedConfigReadEndsTheWalk) {
  ScriptedFunction function(logger, ipc, 10s);
  int reads = 0;
  const auto result = function.apply_config_changes({Config_change{80, 1, 0}, Config_change{80, 1, 0}},
                                                    {{cfgdb::kAlarmSystemLoadAverage, [&]() -> Result<void> {
                                                        ++reads;
                                                        return core::ErrorPayload(Error::ErrorCApi);
                                                      }}});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_EQ(reads, 1);
  EXPECT_FALSE(logger->contains("Change config event [ALARM_SYSTEM_LOAD_AVERAGE]"));
  EXPECT_TRUE(logger->contains("Error: ErrorCApi", 4));
}

TEST_F(SysFunctionTest, ConfigReadThatThrowsIsAnException) {
  ScriptedFunction function(logger, ipc, 10s);
  const auto result = function.apply_config_changes(
      {Config_change{80, 1, 0}},
      {{cfgdb::kAlarmSystemLoadAverage, []() -> Result<void> { throw std::runtime_error("bad record"); }}});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: bad record ", 4));
}

ipc::Request request_with(std::uint16_t id, std::optional<ipc::ReplyTo> reply_to = ipc::ReplyTo{0x0042FFFE, 7}) {
  ipc::Request request;
  request.group = 15500;
  request.id = id;
  request.reply_to = reply_to;
  return request;
}

TEST_F(SysFunctionTest, RequestsAreRoutedByIdAndLoggedByTheirCatalogueName) {
  RoutedFunction function(logger, ipc);
  std::vector<std::uint16_t> handled;
  function.declare_routes({{15501,
                            [&](const ipc::Request& r) {
                              handled.push_back(r.id);
                              return Result<void>(core::success());
                            }},
                           {15502, [&](const ipc::Request& r) -> Result<void> {
                              handled.push_back(r.id);
                              return core::ErrorPayload(Error::InvalidState);
                            }}});
  logger->clear();
  EXPECT_TRUE(function.handle_request(request_with(15501)));
  EXPECT_EQ(function.handle_request(request_with(15502)).error().error, Error::InvalidState);
  EXPECT_EQ(handled, (std::vector<std::uint16_t>{15501, 15502}));
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_RAM_DATA]",
                                                       "Handle IPC request [IPC_SYSTEM_MGR__GET_HDD_DATA]"}));
  EXPECT_TRUE(logger->contains("Handle IPC request [IPC_SYSTEM_MGR__GET_RAM_DATA]", 0));
}

TEST_F(SysFunctionTest, UnknownRequestIsAnErrorNamingBothWordsAndIsNotLoggedOnTheSpot) {
  RoutedFunction function(logger, ipc);
  function.declare_routes({{15501, [](const ipc::Request&) { return Result<void>(core::success()); }}});
  logger->clear();
  ipc::Request request = request_with(15599);
  request.group = 15500;
  const auto result = function.handle_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().to_string(), "Error: CommonError. Message: Unexpected IPC request: 15500|15599.");
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SysFunctionTest, RouteOutsideTheCatalogueOrRoutedTwiceIsRefused) {
  RoutedFunction function(logger, ipc);
  const auto handler = [](const ipc::Request&) { return Result<void>(core::success()); };
  try {
    function.declare_routes({{15501, handler}, {15537, handler}});
    ADD_FAILURE() << "declared";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "RoutedFunction routes 15537, which is not a request of the catalogue");
  }
  try {
    function.declare_routes({{15501, handler}, {15501, handler}});
    ADD_FAILURE() << "declared";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "RoutedFunction routes 15501 twice");
  }
  // Nothing was declared: the defaults stay those of a function without a route table.
  EXPECT_EQ(function.ipc_subscribe().error().error, Error::NotImplemented);
}

TEST_F(SysFunctionTest, RequestsAreSubscribedAndUnsubscribedInOrder) {
  RoutedFunction function(logger, ipc);
  int calls = 0;
  const auto counted = [&](const ipc::Request&) {
    ++calls;
    return Result<void>(core::success());
  };
  function.declare_routes({{15527, counted}, {15528, counted}});
  ASSERT_TRUE(function.ipc_subscribe());
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{{15500, 15527}, {15500, 15528}}));
  ASSERT_TRUE(ipc->inject_request(request_with(15528)));
  EXPECT_EQ(calls, 1);
  ASSERT_TRUE(function.ipc_unsubscribe());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
  EXPECT_EQ(ipc->unsubscribe_calls(), 2U);
}

TEST_F(SysFunctionTest, OnlyTheRoutesServedOnTheGivenFamiliesAreSubscribed) {
  RoutedFunction function(logger, ipc);
  const auto handler = [](const ipc::Request&) { return Result<void>(core::success()); };
  // 15518 is a P-port request (LT, LC), 15519 an F-port one (LT, FC), 15527 LT only.
  function.declare_routes({{15518, handler}, {15519, handler}, {15527, handler}});
  ASSERT_TRUE(function.subscribe_routes(SYSTEM_MGR_SERVED_BY_LC));
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{{15500, 15518}}));
  ASSERT_TRUE(function.unsubscribe_routes(SYSTEM_MGR_SERVED_BY_LC));
  ASSERT_TRUE(function.subscribe_routes(SYSTEM_MGR_SERVED_BY_FC));
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{{15500, 15519}}));
  ASSERT_TRUE(function.unsubscribe_routes(SYSTEM_MGR_SERVED_BY_FC));
  ASSERT_TRUE(function.subscribe_routes(SYSTEM_MGR_SERVED_BY_LT));
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{{15500, 15518}, {15500, 15519}, {15500, 15527}}));
  EXPECT_EQ(ipc->unsubscribe_calls(), 2U);
}

TEST_F(SysFunctionTest, FirstFailedSubscriptionEndsTheWalkWithoutUndoingTheEarlierOnes) {
  RoutedFunction function(logger, ipc);
  const auto handler = [](const ipc::Request&) { return Result<void>(core::success()); };
  function.declare_routes({{15527, handler}, {15528, handler}, {15529, handler}});
  ASSERT_TRUE(ipc->subscribe_request(ipc::Key{15500, 15528}, handler));
  // 15528 is taken already: the second subscription fails, the third is never tried.
  const auto result = function.ipc_subscribe();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Already);
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{{15500, 15527}, {15500, 15528}}));
  EXPECT_TRUE(logger->contains("Error: Already. Message: request key already subscribed.", 4));
}

TEST_F(SysFunctionTest, FirstFailedUnsubscriptionEndsTheWalk) {
  RoutedFunction function(logger, ipc);
  const auto handler = [](const ipc::Request&) { return Result<void>(core::success()); };
  function.declare_routes({{15530, handler}, {15531, handler}, {15532, handler}});
  ASSERT_TRUE(ipc->subscribe_request(ipc::Key{15500, 15530}, handler));
  ASSERT_TRUE(ipc->subscribe_request(ipc::Key{15500, 15532}, handler));
  const auto result = function.ipc_unsubscribe();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{{15500, 15532}}));
}

TEST_F(SysFunctionTest, AnswerCarriesThePayloadTheReplyTagAndResultOne) {
  ScriptedFunction function(logger, ipc, 10s);
  ASSERT_TRUE(function.send_answer(request_with(15501, ipc::ReplyTo{0x0042FFFE, 9}), ipc::Payload{1, 2, 3}));
  const auto responses = ipc->responses();
  ASSERT_EQ(responses.size(), 1U);
  EXPECT_EQ(responses[0].address, 0x0042FFFEU);
  EXPECT_EQ(responses[0].response.address, 0x0000FFFEU);
  EXPECT_EQ(responses[0].response.reply_tag, 9);
  EXPECT_EQ(responses[0].response.result, 1U);
  EXPECT_EQ(responses[0].response.payload, (ipc::Payload{1, 2, 3}));
}

TEST_F(SysFunctionTest, AnswerToARequestWithoutReplyInformationThrows) {
  ScriptedFunction function(logger, ipc, 10s);
  EXPECT_THROW((void)function.send_answer(request_with(15501, std::nullopt), {}), std::bad_optional_access);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SysFunctionTest, FailedAnswerIsReturned) {
  ScriptedFunction function(logger, ipc, 10s);
  ipc->fail_next_send(Error::InvalidState);
  const auto result = function.send_answer(request_with(15501), {});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
}

TEST_F(SysFunctionTest, AnswerRequestSendsTheAnswer) {
  ScriptedFunction function(logger, ipc, 10s);
  ASSERT_TRUE(function.answer_request(request_with(15529, ipc::ReplyTo{0x0042FFFE, 4}), ipc::Payload{7, 8}));
  // The answer send_answer makes, sent to the request's sender.
  const auto responses = ipc->responses();
  ASSERT_EQ(responses.size(), 1U);
  const auto& [to, response] = responses[0];
  EXPECT_EQ(std::tie(to, response.address, response.reply_tag, response.result, response.payload),
            std::make_tuple(0x0042FFFEU, 0x0000FFFEU, std::uint16_t{4}, 1U, ipc::Payload{7, 8}));
}

TEST_F(SysFunctionTest, AnswerRequestLetsTheMissingReplyInformationThrow) {
  ScriptedFunction function(logger, ipc, 10s);
  EXPECT_THROW((void)function.answer_request(request_with(15529, std::nullopt), {1}), std::bad_optional_access);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SysFunctionTest, AnswerRequestLogsAndReturnsAFailedSend) {
  ScriptedFunction function(logger, ipc, 10s);
  logger->clear();
  ipc->fail_next_send(Error::InvalidState);
  const auto result = function.answer_request(request_with(15529), {});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
}

}  // namespace
}  // namespace xpon::system_mgr

namespace xpon::system_mgr {
namespace {

// Records every wait report, from whichever thread makes it; installed for its own life only.
class RecordingWaitListener final : public IFunctionWaitListener {
 public:
  RecordingWaitListener() { set_function_wait_listener(this); }
  ~RecordingWaitListener() override { set_function_wait_listener(nullptr); }
  RecordingWaitListener(const RecordingWaitListener&) = delete;
  RecordingWaitListener& operator=(const RecordingWaitListener&) = delete;
  RecordingWaitListener(RecordingWaitListener&&) = delete;
  RecordingWaitListener& operator=(RecordingWaitListener&&) = delete;

  void function_wait(FunctionWait what, std::string_view function_name) noexcept override {
    const std::lock_guard lock(mutex_);
    reports_.emplace_back(what, std::string(function_name));
  }

  std::vector<std::pair<FunctionWait, std::string>> reports() const {
    const std::lock_guard lock(mutex_);
    return reports_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<FunctionWait, std::string>> reports_;
};

using Reports = std::vector<std::pair<FunctionWait, std::string>>;

TEST_F(SysFunctionTest, RunReportsItsFirstPollAndStopItsWaitForThePollingThread) {
  RecordingWaitListener listener;
  ScriptedFunction function(logger, ipc, 10s);
  ASSERT_TRUE(function.run());
  EXPECT_EQ(listener.reports(),
            (Reports{{FunctionWait::FirstPoll, "ScriptedFunction"}, {FunctionWait::Nothing, "ScriptedFunction"}}));
  ASSERT_TRUE(wait_until([&] { return logger->contains("Start System function: ScriptedFunction", 0); }));
  std::this_thread::sleep_for(100ms);  // the thread is now in its 10-second wait
  ASSERT_TRUE(function.stop());
  EXPECT_EQ(listener.reports(), (Reports{{FunctionWait::FirstPoll, "ScriptedFunction"},
                                         {FunctionWait::Nothing, "ScriptedFunction"},
                                         {FunctionWait::PollingThread, "ScriptedFunction"},
                                         {FunctionWait::Nothing, "ScriptedFunction"}}));
}

TEST_F(SysFunctionTest, FunctionWithoutPollingThreadReportsNoWaitOnStop) {
  RecordingWaitListener listener;
  RequestOnlyFunction function(logger, ipc);
  ASSERT_TRUE(function.run());
  ASSERT_TRUE(function.stop());
  EXPECT_EQ(listener.reports(), (Reports{{FunctionWait::FirstPoll, "RequestOnlyFunction"},
                                         {FunctionWait::Nothing, "RequestOnlyFunction"}}));
}

TEST_F(SysFunctionTest, StopStuckInTheJoinHasReportedThePollingThreadAsWhatItWaitsFor) {
  RecordingWaitListener listener;
  ScriptedFunction function(logger, ipc, 200ms);
  std::future<Result<void>> stopped;
  ASSERT_NO_FATAL_FAILURE(stop_during_the_second_poll(function, stopped));
  // The wake-up was lost in the poll: the stop stays in the join, and the last report says why.
  ASSERT_TRUE(wait_until([&] { return function.polls.load() >= 3; }));
  EXPECT_EQ(stopped.wait_for(0ms), std::future_status::timeout);
  EXPECT_EQ(listener.reports().back(), std::make_pair(FunctionWait::PollingThread, std::string("ScriptedFunction")));
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function.wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  EXPECT_EQ(listener.reports().back(), std::make_pair(FunctionWait::Nothing, std::string("ScriptedFunction")));
}

}  // namespace
}  // namespace xpon::system_mgr
