#include "test_files.hpp"
#include "xpon/logger/logger.hpp"
#include "xpon/test/inheritable_descriptors.hpp"

#include <gtest/gtest.h>

#include <fmt/format.h>

#include <filesystem>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <source_location>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace xpon::logger {
namespace {

using test::read_file;
using test::split_lines;

// A pattern without time stamps, so that whole lines can be compared.
constexpr std::string_view kPlainPattern = "%n %l %s:%# %v";

class LoggingContextTest : public test::TempDirTest {
 protected:
  // Makes a context from a configuration text; the test fails if that is refused.
  LoggingContext make_context(std::string_view text, std::shared_ptr<IJournalWriter> journal = nullptr) {
    const std::string conf = write_file("SYSTEM-MGR.conf", text);
    auto context = Logger::create_context(conf, "SYSTEM-MGR_IPC", 0, std::move(journal));
    if (!context.has_value()) {
      ADD_FAILURE() << context.error().to_string();
      std::abort();
    }
    return std::move(context).value();
  }

  // A configuration with one file sink at `log`, the plain pattern and the given level.
  static std::string file_config(const std::string& log, std::string_view level = "debug") {
    return "level = \"" + std::string(level) + "\"\npattern = \"" + std::string(kPlainPattern) +
           "\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n";
  }
};

TEST_F(LoggingContextTest, FileSinkWritesLinesWithThePattern) {
  const std::string log = path("system-mgr.log");
  auto context = make_context(file_config(log));
  Logger logger("SYSTEM-MGR");
  const auto line = std::source_location::current().line() + 1;
  logger.progress("Factory create successfully");
  logger.logf(kInfo, "value {}", 42);
  logger.warning("Fan {} is stopped", 2);
  logger.error("Unable to open {}", "/dev/board");
  logger.logf(kCritical, "critical");
  const std::string where = "context_test.cpp:";
  EXPECT_EQ(read_file(log), "SYSTEM-MGR debug " + where + std::to_string(line) + " Factory create successfully\n" +
                                "SYSTEM-MGR info " + where + std::to_string(line + 1) + " value 42\n" +
                                "SYSTEM-MGR warning " + where + std::to_string(line + 2) + " Fan 2 is stopped\n" +
                                "SYSTEM-MGR error " + where + std::to_string(line + 3) +
                                " Unable to open /dev/board\n" + "SYSTEM-MGR critical " + where +
                                std::to_string(line + 4) + " critical\n");
}

TEST_F(LoggingContextTest, PatternCanNameTheFunctionAndFullPath) {
  const std::string log = path("system-mgr.log");
  auto context = make_context("level = \"info\"\npattern = \"[%!] %g:%# %v\"\n[[sink]]\ntype = \"file\"\npath = \"" +
                              log + "\"\n");
  Logger logger("SYSTEM-MGR");
  const auto here = std::source_location::current();
  logger.log(kInfo, "text", here);
  EXPECT_EQ(read_file(log), std::string("[") + here.function_name() + "] " + here.file_name() + ":" +
                                std::to_string(here.line()) + " text\n");
}

TEST_F(LoggingContextTest, DefaultPatternStartsWithATimeStamp) {
  const std::string log = path("system-mgr.log");
  auto context = make_context("[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
  Logger logger("SYSTEM-MGR");
  const auto line = std::source_location::current().line() + 1;
  logger.logf(kInfo, "started");
  const auto lines = split_lines(read_file(log));
  ASSERT_EQ(lines.size(), 1U);
  const std::regex expected(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} SYSTEM-MGR info context_test\.cpp:)" +
                            std::to_string(line) + " started");
  EXPECT_TRUE(std::regex_match(lines[0], expected)) << lines[0];
}

TEST_F(LoggingContextTest, MissingLevelMeansInfo) {
  const std::string log = path("system-mgr.log");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
  Logger logger("SYSTEM-MGR");
  logger.progress("progress");
  logger.logf(kInfo, "info");
  EXPECT_EQ(read_file(log), "info\n");
}

TEST_F(LoggingContextTest, LevelDropsLowerLines) {
  const std::string log = path("system-mgr.log");
  auto context = make_context(file_config(log, "warn"));
  Logger logger("SYSTEM-MGR");
  logger.progress("progress");
  logger.logf(kInfo, "info");
  logger.logf(kNotice, "notice");
  const auto line = std::source_location::current().line() + 1;
  logger.warning("warning");
  EXPECT_EQ(read_file(log), "SYSTEM-MGR warning context_test.cpp:" + std::to_string(line) + " warning\n");
}

TEST_F(LoggingContextTest, LevelOffWritesNothing) {
  const std::string log = path("system-mgr.log");
  auto context = make_context(file_config(log, "off"));
  Logger logger("SYSTEM-MGR");
  logger.logf(kCritical, "critical");
  EXPECT_EQ(read_file(log), "");
}

TEST_F(LoggingContextTest, EveryLevelNameIsAccepted) {
  for (const std::string_view level : {"trace", "debug", "info", "warn", "error", "critical", "off"}) {
    const std::string conf =
        write_file("level.conf", "level = \"" + std::string(level) + "\"\n[[sink]]\ntype = \"stderr\"\n");
    auto context = Logger::create_context(conf, "SYSTEM-MGR_IPC", 0);
    EXPECT_TRUE(context.has_value()) << level;
  }
}

TEST_F(LoggingContextTest, OddPatternsStillGiveOneLinePerStatement) {
  const std::string log = path("system-mgr.log");
  Logger logger("SYSTEM-MGR");
  for (const std::string_view pattern : {"%", "%%", "%-", "%10", "%-10v", "%^%$", "%E%", "%=200v", "\\u0001%v"}) {
    std::filesystem::remove(log);
    const std::string conf = write_file(
        "odd.conf", "pattern = \"" + std::string(pattern) + "\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
    auto context = Logger::create_context(conf, "SYSTEM-MGR_IPC", 0);
    ASSERT_TRUE(context.has_value()) << pattern;
    logger.logf(kInfo, "text");
    EXPECT_EQ(split_lines(read_file(log)).size(), 1U) << pattern;
  }
}

TEST_F(LoggingContextTest, RotatesBySize) {
  const std::string log = path("system-mgr.log");
  auto context = make_context("level = \"info\"\npattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log +
                              "\"\nmax_size = \"1KiB\"\nmax_files = 2\n");
  Logger logger("SYSTEM-MGR");
  // 100 lines of 32 bytes: 3200 bytes, more than three files of 1024 bytes hold.
  for (int index = 0; index < 100; ++index) {
    logger.logf(kInfo, "line {:03d} {}", index, std::string(22, '.'));
  }
  const std::string current = read_file(log);
  const std::string first = read_file(path("system-mgr.1.log"));
  const std::string second = read_file(path("system-mgr.2.log"));
  EXPECT_FALSE(std::filesystem::exists(path("system-mgr.3.log")));
  EXPECT_LE(current.size(), 1024U);
  EXPECT_EQ(first.size(), 1024U);  // 32 lines of 32 bytes
  EXPECT_EQ(second.size(), 1024U);
  // The kept files hold the newest lines, oldest file first, with nothing lost between them.
  const auto kept = split_lines(second + first + current);
  ASSERT_FALSE(kept.empty());
  const int oldest = 100 - static_cast<int>(kept.size());
  for (std::size_t index = 0; index < kept.size(); ++index) {
    EXPECT_EQ(kept[index], fmt::format("line {:03d} {}", oldest + static_cast<int>(index), std::string(22, '.')));
  }
  // 100 lines are three full files and 4 lines; the oldest full file (lines 0 to 31) is gone.
  EXPECT_EQ(kept.size(), 68U);
  EXPECT_EQ(kept.back(), "line 099 " + std::string(22, '.'));
}

TEST_F(LoggingContextTest, MaxSizeInPlainBytes) {
  const std::string log = path("system-mgr.log");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log +
                              "\"\nmax_size = 64\nmax_files = 1\n");
  Logger logger("SYSTEM-MGR");
  for (int index = 0; index < 3; ++index) {
    logger.logf(kInfo, "line {} {}", index, std::string(24, '.'));  // 32 bytes with the line end
  }
  const std::string dots(24, '.');
  EXPECT_EQ(read_file(path("system-mgr.1.log")), "line 0 " + dots + "\nline 1 " + dots + "\n");
  EXPECT_EQ(read_file(log), "line 2 " + dots + "\n");
  EXPECT_FALSE(std::filesystem::exists(path("system-mgr.2.log")));
}

TEST_F(LoggingContextTest, TheLogFileIsClosedOnExecAlsoAfterARotation) {
  const auto before = xpon::test::inheritable_descriptors();
  const std::string log = path("system-mgr.log");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log +
                              "\"\nmax_size = 64\nmax_files = 1\n");
  Logger logger("SYSTEM-MGR");
  logger.logf(kInfo, "line 0 {}", std::string(24, '.'));
  ASSERT_EQ(xpon::test::descriptors_open_on(std::filesystem::canonical(log).string()), 1U);
  EXPECT_EQ(xpon::test::added_descriptors(before, xpon::test::inheritable_descriptors()), std::set<std::string>{});
  // The third line of 32 bytes rotates the file, and the sink opens it anew.
  logger.logf(kInfo, "line 1 {}", std::string(24, '.'));
  logger.logf(kInfo, "line 2 {}", std::string(24, '.'));
  ASSERT_TRUE(std::filesystem::exists(path("system-mgr.1.log")));
  ASSERT_EQ(xpon::test::descriptors_open_on(std::filesystem::canonical(log).string()), 1U);
  EXPECT_EQ(xpon::test::added_descriptors(before, xpon::test::inheritable_descriptors()), std::set<std::string>{});
}

TEST_F(LoggingContextTest, FileSinkMakesMissingDirectories) {
  const std::string log = path("var/log/system-mgr.log");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
  Logger("SYSTEM-MGR").logf(kInfo, "here");
  EXPECT_EQ(read_file(log), "here\n");
}

TEST_F(LoggingContextTest, FileSinkAppendsToAnExistingFile) {
  const std::string log = write_file("system-mgr.log", "older\n");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
  Logger("SYSTEM-MGR").logf(kInfo, "newer");
  EXPECT_EQ(read_file(log), "older\nnewer\n");
}

TEST_F(LoggingContextTest, StderrSinkWritesWithThePattern) {
  auto context = make_context("level = \"debug\"\npattern = \"%n %l %s:%# %v\"\n[[sink]]\ntype = \"stderr\"\n");
  Logger logger("SYSTEM-MGR");
  testing::internal::CaptureStderr();
  const auto line = std::source_location::current().line() + 1;
  logger.progress("Handle IPC request [{}]", "IPC_SYSTEM_MGR__GET_TEMP");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "SYSTEM-MGR debug context_test.cpp:" + std::to_string(line) +
                                                        " Handle IPC request [IPC_SYSTEM_MGR__GET_TEMP]\n");
}

TEST_F(LoggingContextTest, EverySinkGetsEachLine) {
  const std::string first = path("first.log");
  const std::string second = path("second.log");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + first +
                              "\"\n[[sink]]\ntype = \"file\"\npath = \"" + second + "\"\n");
  Logger("SYSTEM-MGR").logf(kInfo, "twice");
  EXPECT_EQ(read_file(first), "twice\n");
  EXPECT_EQ(read_file(second), "twice\n");
}

TEST_F(LoggingContextTest, CategoryNamesTheLine) {
  const std::string log = path("system-mgr.log");
  auto context = make_context("pattern = \"%n: %v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
  Logger("SYSTEM-MGR").logf(kInfo, "one");
  Logger("FACTORY").logf(kInfo, "two");
  xpon_raw_log(Logger::get_raw_zlog_category("CFGDB"), 1, "cfgdb.c", 3, "open_db", "three");
  EXPECT_EQ(read_file(log), "SYSTEM-MGR: one\nFACTORY: two\nCFGDB: three\n");
}

TEST_F(LoggingContextTest, LoggerMadeBeforeTheContextWritesThroughIt) {
  Logger logger("SYSTEM-MGR");
  const std::string log = path("system-mgr.log");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
  logger.logf(kInfo, "routed");
  EXPECT_EQ(read_file(log), "routed\n");
}

TEST_F(LoggingContextTest, NameAndFlagsAreKeptAsGiven) {
  const std::string conf = write_file("SYSTEM-MGR.conf", "[[sink]]\ntype = \"stderr\"\n");
  auto context = Logger::create_context(conf, "SYSTEM-MGR_IPC", 0);
  ASSERT_TRUE(context.has_value());
  EXPECT_EQ(context.value().name(), "SYSTEM-MGR_IPC");
  EXPECT_EQ(context.value().flags(), 0);
  auto other = Logger::create_context(conf, "OTHER", 7);
  ASSERT_TRUE(other.has_value());
  EXPECT_EQ(other.value().name(), "OTHER");
  EXPECT_EQ(other.value().flags(), 7);
}

TEST_F(LoggingContextTest, DestroyRestoresTheDefaultStderrRouting) {
  const std::string log = path("system-mgr.log");
  Logger logger("SYSTEM-MGR");
  {
    auto context = make_context(file_config(log));
    logger.logf(kInfo, "inside");
  }
  testing::internal::CaptureStderr();
  logger.logf(kInfo, "outside");
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(split_lines(read_file(log)).size(), 1U);
  EXPECT_NE(output.find(" SYSTEM-MGR info context_test.cpp:"), std::string::npos) << output;
  EXPECT_TRUE(output.ends_with(" outside\n")) << output;
}

TEST_F(LoggingContextTest, CreateDestroyCreateRoutesToTheNewContext) {
  Logger logger("SYSTEM-MGR");
  for (int cycle = 0; cycle < 3; ++cycle) {
    const std::string log = path(fmt::format("cycle{}.log", cycle));
    auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
    logger.logf(kInfo, "cycle {}", cycle);
  }
  EXPECT_EQ(read_file(path("cycle0.log")), "cycle 0\n");
  EXPECT_EQ(read_file(path("cycle1.log")), "cycle 1\n");
  EXPECT_EQ(read_file(path("cycle2.log")), "cycle 2\n");
}

TEST_F(LoggingContextTest, SameFileAcrossRestartsKeepsEveryLine) {
  const std::string log = path("system-mgr.log");
  Logger logger("SYSTEM-MGR");
  for (int cycle = 0; cycle < 3; ++cycle) {
    auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
    logger.logf(kInfo, "cycle {}", cycle);
  }
  EXPECT_EQ(read_file(log), "cycle 0\ncycle 1\ncycle 2\n");
}

TEST_F(LoggingContextTest, NewestContextAliveRoutes) {
  const std::string older = path("older.log");
  const std::string newer = path("newer.log");
  Logger logger("SYSTEM-MGR");
  auto first = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + older + "\"\n");
  {
    auto second = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + newer + "\"\n");
    logger.logf(kInfo, "to the newer");
  }
  logger.logf(kInfo, "back to the older");
  EXPECT_EQ(read_file(newer), "to the newer\n");
  EXPECT_EQ(read_file(older), "back to the older\n");
}

TEST_F(LoggingContextTest, DestroyingTheOlderContextKeepsTheNewer) {
  const std::string older = path("older.log");
  const std::string newer = path("newer.log");
  Logger logger("SYSTEM-MGR");
  std::optional<LoggingContext> first(
      make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + older + "\"\n"));
  auto second = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + newer + "\"\n");
  first.reset();
  logger.logf(kInfo, "still newer");
  EXPECT_EQ(read_file(newer), "still newer\n");
  EXPECT_EQ(read_file(older), "");
}

TEST_F(LoggingContextTest, FailedCreateLeavesTheRoutingAlone) {
  const std::string log = path("system-mgr.log");
  Logger logger("SYSTEM-MGR");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
  const std::string bad = write_file("bad.conf", "[[sink]]\ntype = \"x\"\n");
  EXPECT_FALSE(Logger::create_context(bad, "SYSTEM-MGR_IPC", 0).has_value());
  logger.logf(kInfo, "unchanged");
  EXPECT_EQ(read_file(log), "unchanged\n");
}

TEST_F(LoggingContextTest, MovedContextKeepsRouting) {
  const std::string log = path("system-mgr.log");
  Logger logger("SYSTEM-MGR");
  auto context = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n");
  {
    LoggingContext moved(std::move(context));
    EXPECT_TRUE(moved.active());
    EXPECT_FALSE(context.active());  // NOLINT(bugprone-use-after-move): the moved-from state is what is checked
    EXPECT_EQ(moved.name(), "SYSTEM-MGR_IPC");
    logger.logf(kInfo, "after the move");
  }
  testing::internal::CaptureStderr();
  logger.logf(kInfo, "after the owner ended");
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(read_file(log), "after the move\n");
  EXPECT_TRUE(output.ends_with(" after the owner ended\n")) << output;
}

TEST_F(LoggingContextTest, MoveAssignmentEndsTheContextItReplaces) {
  const std::string older = path("older.log");
  const std::string newer = path("newer.log");
  Logger logger("SYSTEM-MGR");
  auto held = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + older + "\"\n");
  auto replacement = make_context("pattern = \"%v\"\n[[sink]]\ntype = \"file\"\npath = \"" + newer + "\"\n");
  held = std::move(replacement);
  logger.logf(kInfo, "one");
  EXPECT_EQ(read_file(newer), "one\n");
  EXPECT_EQ(read_file(older), "");
  { LoggingContext sink_of_held(std::move(held)); }
  testing::internal::CaptureStderr();
  logger.logf(kInfo, "two");
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(read_file(newer), "one\n");
  EXPECT_TRUE(output.ends_with(" two\n")) << output;
}

}  // namespace
}  // namespace xpon::logger
