#include "config.hpp"
#include "test_files.hpp"
#include "xpon/logger/logger.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <regex>
#include <span>
#include <string>
#include <vector>

// The configuration files that ship with the project must stay valid.
namespace xpon::logger {
namespace {

const std::string kSourceDir = XPON_SOURCE_DIR;

class CountingJournal : public IJournalWriter {
 public:
  int send(std::span<const std::string> fields) override {
    std::lock_guard lock(mutex_);
    messages_.push_back(fields.front());
    return 0;
  }
  std::vector<std::string> messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

TEST(ShippedConfiguration, BoardDefaultSendsInfoAndAboveToTheJournal) {
  auto journal = std::make_shared<CountingJournal>();
  auto context = Logger::create_context(kSourceDir + "/packaging/etc/zlog_modules_config/SYSTEM-MGR.conf",
                                        "SYSTEM-MGR_IPC", 0, journal);
  ASSERT_TRUE(context.has_value()) << context.error().to_string();
  Logger logger("SYSTEM-MGR");
  logger.progress("Board create successfully");
  logger.logf(kInfo, "started");
  EXPECT_EQ(journal->messages(), std::vector<std::string>{"MESSAGE=started"});
}

TEST(ShippedConfiguration, DevelopmentExampleShowsProgressOnStderr) {
  auto context = Logger::create_context(kSourceDir + "/examples/logging/stderr.conf", "SYSTEM-MGR_IPC", 0);
  ASSERT_TRUE(context.has_value()) << context.error().to_string();
  Logger logger("SYSTEM-MGR");
  testing::internal::CaptureStderr();
  logger.progress("Board create successfully");
  const std::string output = testing::internal::GetCapturedStderr();
  const std::regex line(
      R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} SYSTEM-MGR debug shipped_config_test\.cpp:\d+ Board create successfully\n)");
  EXPECT_TRUE(std::regex_match(output, line)) << output;
}

TEST(ShippedConfiguration, FileExampleIsValid) {
  const std::string path = kSourceDir + "/examples/logging/file.conf";
  const detail::ContextConfig config = detail::read_config(path);
  EXPECT_EQ(config.level, spdlog::level::info);
  ASSERT_EQ(config.sinks.size(), 2U);
  EXPECT_EQ(config.sinks[0].type, detail::SinkType::Journal);
  EXPECT_EQ(config.sinks[1].type, detail::SinkType::File);
  EXPECT_EQ(config.sinks[1].path, "/var/log/system-mgr.log");
  EXPECT_EQ(config.sinks[1].max_size, 1048576U);
  EXPECT_EQ(config.sinks[1].max_files, 2U);
}

}  // namespace
}  // namespace xpon::logger
