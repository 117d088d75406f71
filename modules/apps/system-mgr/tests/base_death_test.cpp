#include "xpon/system_mgr/functions/base.hpp"

#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;

class PollingFunction : public SysFunction {
 public:
  PollingFunction(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc)
      : SysFunction(logger, ipc, "PollingFunction", 10s) {}
  Result<void> polling() override { return core::success(); }
  Result<void> ipc_subscribe() override { return core::success(); }
  Result<void> ipc_unsubscribe() override { return core::success(); }
};

class SysFunctionDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SysFunctionDeathTest, SecondRunWithoutStopEndsTheProcess) {
  EXPECT_DEATH(
      {
        auto function = std::make_unique<PollingFunction>(std::make_shared<test::RecordingLogger>(),
                                                          std::make_shared<test::RecordingIpc>());
        (void)function->run();
        (void)function->run();
      },
      "SysFunction run called again without stop");
}

TEST_F(SysFunctionDeathTest, DestructionWithoutStopEndsTheProcess) {
  EXPECT_DEATH(
      {
        auto function = std::make_unique<PollingFunction>(std::make_shared<test::RecordingLogger>(),
                                                          std::make_shared<test::RecordingIpc>());
        (void)function->run();
        function.reset();
      },
      "SysFunction destroyed while its polling thread runs: stop was not called");
}

TEST_F(SysFunctionDeathTest, LoggingWithoutLoggerEndsTheProcess) {
  EXPECT_DEATH({ PollingFunction function(nullptr, std::make_shared<test::RecordingIpc>()); },
               "SysFunction has no logger to log to");
}

}  // namespace
}  // namespace xpon::system_mgr
