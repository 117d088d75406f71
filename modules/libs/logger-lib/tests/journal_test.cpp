#include "xpon/logger/journal.hpp"
#include "test_files.hpp"
#include "xpon/logger/logger.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <mutex>
#include <source_location>
#include <span>
#include <string>
#include <vector>

namespace xpon::logger {
namespace {

using Fields = std::vector<std::string>;

// Keeps every entry the journal sink hands over, and answers with a chosen result.
class RecordingJournal : public IJournalWriter {
 public:
  explicit RecordingJournal(int result = 0) : result_(result) {}

  int send(std::span<const std::string> fields) override {
    std::lock_guard lock(mutex_);
    entries_.emplace_back(fields.begin(), fields.end());
    return result_;
  }

  std::vector<Fields> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Fields> entries_;
  int result_;
};

class JournalSinkTest : public test::TempDirTest {
 protected:
  LoggingContext make_context(std::string_view text) {
    const std::string conf = write_file("SYSTEM-MGR.conf", text);
    auto context = Logger::create_context(conf, "SYSTEM-MGR_IPC", 0, journal_);
    if (!context.has_value()) {
      ADD_FAILURE() << context.error().to_string();
      std::abort();
    }
    return std::move(context).value();
  }

  static Fields expected(std::string_view message, int priority, const std::source_location& where,
                         std::string_view identifier = "SYSTEM-MGR") {
    return {"MESSAGE=" + std::string(message),
            "PRIORITY=" + std::to_string(priority),
            "SYSLOG_IDENTIFIER=" + std::string(identifier),
            std::string("CODE_FILE=") + where.file_name(),
            "CODE_LINE=" + std::to_string(where.line()),
            std::string("CODE_FUNC=") + where.function_name()};
  }

  std::shared_ptr<RecordingJournal> journal_ = std::make_shared<RecordingJournal>();
};

TEST_F(JournalSinkTest, LineCarriesMessagePriorityIdentifierAndSourcePosition) {
  auto context = make_context("level = \"info\"\n[[sink]]\ntype = \"journal\"\n");
  Logger logger("SYSTEM-MGR");
  const auto where = std::source_location::current();
  logger.log(kWarning, "Fan 1 is stopped", where);
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], expected("Fan 1 is stopped", 4, where));
}

TEST_F(JournalSinkTest, FormattingHelpersPassTheCallersPosition) {
  auto context = make_context("level = \"info\"\n[[sink]]\ntype = \"journal\"\n");
  Logger logger("SYSTEM-MGR");
  // The helper's default argument records the position of the statement on the next line.
  const auto next = std::source_location::current();
  logger.error("C API function returned {:d}", -1);
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 1U);
  ASSERT_EQ(entries[0].size(), 6U);
  EXPECT_EQ(entries[0][0], "MESSAGE=C API function returned -1");
  EXPECT_EQ(entries[0][1], "PRIORITY=3");
  EXPECT_EQ(entries[0][3], std::string("CODE_FILE=") + next.file_name());
  EXPECT_EQ(entries[0][4], "CODE_LINE=" + std::to_string(next.line() + 1));
  EXPECT_EQ(entries[0][5], std::string("CODE_FUNC=") + next.function_name());
}

TEST_F(JournalSinkTest, PrioritiesFollowTheNumericLevels) {
  auto context = make_context("level = \"debug\"\n[[sink]]\ntype = \"journal\"\n");
  Logger logger("SYSTEM-MGR");
  const auto where = std::source_location::current();
  for (int level = 0; level <= 5; ++level) {
    logger.log(level, "line", where);
  }
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 6U);
  const int priorities[] = {7, 6, 6, 4, 3, 2};
  for (std::size_t index = 0; index < entries.size(); ++index) {
    EXPECT_EQ(entries[index][1], "PRIORITY=" + std::to_string(priorities[index])) << "level " << index;
  }
}

TEST_F(JournalSinkTest, LevelOfTheContextFiltersJournalLines) {
  auto context = make_context("level = \"error\"\n[[sink]]\ntype = \"journal\"\n");
  Logger logger("SYSTEM-MGR");
  const auto where = std::source_location::current();
  logger.log(kWarning, "dropped", where);
  logger.log(kError, "kept", where);
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], expected("kept", 3, where));
}

TEST_F(JournalSinkTest, MessageIsThePlainTextWhateverThePattern) {
  auto context = make_context("pattern = \"%Y %n %l: %v\"\n[[sink]]\ntype = \"journal\"\n");
  Logger logger("SYSTEM-MGR");
  const auto where = std::source_location::current();
  logger.log(kInfo, "plain", where);
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0][0], "MESSAGE=plain");
}

TEST_F(JournalSinkTest, MultiLineMessageStaysOneEntry) {
  auto context = make_context("[[sink]]\ntype = \"journal\"\n");
  Logger logger("SYSTEM-MGR");
  const auto where = std::source_location::current();
  logger.log(kInfo, "first\nsecond", where);
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], expected("first\nsecond", 6, where));
}

TEST_F(JournalSinkTest, IdentifierIsTheCategory) {
  auto context = make_context("[[sink]]\ntype = \"journal\"\n");
  const auto where = std::source_location::current();
  Logger("FACTORY").log(kInfo, "device EEPROM read", where);
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], expected("device EEPROM read", 6, where, "FACTORY"));
}

TEST_F(JournalSinkTest, RawLogCarriesTheCallersPosition) {
  auto context = make_context("[[sink]]\ntype = \"journal\"\n");
  xpon_raw_log(Logger::get_raw_zlog_category("FACTORY"), 4, "factory.c", 120, "get_factory", "CRC mismatch");
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], (Fields{"MESSAGE=CRC mismatch", "PRIORITY=3", "SYSLOG_IDENTIFIER=FACTORY",
                                "CODE_FILE=factory.c", "CODE_LINE=120", "CODE_FUNC=get_factory"}));
}

TEST_F(JournalSinkTest, RawLogWithoutPositionSendsNoCodeFields) {
  auto context = make_context("[[sink]]\ntype = \"journal\"\n");
  xpon_raw_log(Logger::get_raw_zlog_category("FACTORY"), 1, nullptr, 0, nullptr, "no position");
  const auto entries = journal_->entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], (Fields{"MESSAGE=no position", "PRIORITY=6", "SYSLOG_IDENTIFIER=FACTORY"}));
}

TEST_F(JournalSinkTest, WriteFailureIsReportedOnceAndOtherSinksStillWrite) {
  journal_ = std::make_shared<RecordingJournal>(-ENOENT);
  const std::string log = path("system-mgr.log");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"journal\"\n[[sink]]\ntype = \"file\"\npath = \"" +
                              log + "\"\n");
  Logger logger("SYSTEM-MGR");
  testing::internal::CaptureStderr();
  logger.logf(kInfo, "first");
  logger.logf(kInfo, "second");
  // Reports are limited to one a minute so a missing journal cannot flood stderr.
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "logging failed: journal write failed: No such file or directory\n");
  EXPECT_EQ(test::read_file(log), "first\nsecond\n");
  EXPECT_EQ(journal_->entries().size(), 2U);
}

TEST_F(JournalSinkTest, AbsurdWriterResultDoesNotBreakLogging) {
  journal_ = std::make_shared<RecordingJournal>(INT_MIN);
  const std::string log = path("system-mgr.log");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"journal\"\n[[sink]]\ntype = \"file\"\npath = \"" +
                              log + "\"\n");
  testing::internal::CaptureStderr();
  Logger("SYSTEM-MGR").logf(kInfo, "still written");
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(test::read_file(log), "still written\n");
}

TEST(SystemdJournalWriter, SendsOrSilentlyDropsWithoutAJournal) {
  // libsystemd drops an entry without error when no journald listens (a container, a build
  // machine), so the daemon's default configuration is harmless there; with journald it is sent.
  const std::string fields[] = {"MESSAGE=logger test entry", "PRIORITY=7", "SYSLOG_IDENTIFIER=logger_tests"};
  EXPECT_EQ(make_systemd_journal_writer()->send(fields), 0);
}

}  // namespace
}  // namespace xpon::logger
