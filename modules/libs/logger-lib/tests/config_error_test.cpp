#include "test_files.hpp"
#include "xpon/logger/logger.hpp"

#include <gtest/gtest.h>

#include <string>

namespace xpon::logger {
namespace {

class ConfigError : public test::TempDirTest {
 protected:
  // The message of the error that creating a context from `path` gives.
  static std::string error_of_path(const std::string& path) {
    auto context = Logger::create_context(path, "SYSTEM-MGR_IPC", 0);
    if (context.has_value()) {
      ADD_FAILURE() << "a context was made from " << path;
      return {};
    }
    EXPECT_EQ(context.error().error, core::Error::InvalidInputArg);
    if (!context.error().info || !context.error().info->message) {
      ADD_FAILURE() << "the error carries no message";
      return {};
    }
    return *context.error().info->message;
  }

  void SetUp() override {
    TempDirTest::SetUp();
    conf_ = path("SYSTEM-MGR.conf");
  }

  // The message of the error that a configuration file with this text gives.
  std::string error_of(std::string_view text) { return error_of_path(write_file("SYSTEM-MGR.conf", text)); }

  std::string conf_;
};

TEST_F(ConfigError, MissingFileNamesPathAndReason) {
  const std::string missing = path("absent.conf");
  EXPECT_EQ(error_of_path(missing), missing + ": cannot open: No such file or directory");
}

TEST_F(ConfigError, DirectoryCannotBeRead) {
  EXPECT_EQ(error_of_path(dir_.string()), dir_.string() + ": cannot read: Is a directory");
}

TEST_F(ConfigError, UnreadableFileNamesTheReadError) {
  // Reading a process's own memory at address 0 fails even for root.
  EXPECT_EQ(error_of_path("/proc/self/mem"), "/proc/self/mem: cannot read: Input/output error");
}

TEST_F(ConfigError, EmptyPathIsRefused) {
  EXPECT_EQ(error_of_path(""), "logging configuration path is empty");
}

TEST_F(ConfigError, PathWithNulIsRefused) {
  const std::string conf = write_file("SYSTEM-MGR.conf", "[[sink]]\ntype = \"stderr\"\n");
  EXPECT_EQ(error_of_path(conf + std::string(1, '\0') + "x"), "logging configuration path contains a NUL character");
}

TEST_F(ConfigError, OversizedFileIsRefused) {
  const std::string huge(1024 * 1024 + 1, '#');
  EXPECT_EQ(error_of(huge), conf_ + ": larger than 1048576 bytes");
}

TEST_F(ConfigError, SyntaxErrorNamesLineAndColumn) {
  EXPECT_EQ(error_of("[[sink]]\ntype = journal\n"),
            conf_ + ": syntax error at line 2, column 8: Error while parsing value: could not determine value type");
}

TEST_F(ConfigError, InvalidUtf8IsASyntaxError) {
  const std::string message = error_of("level = \"\xff\xfe\"\n");
  EXPECT_EQ(message.rfind(conf_ + ": syntax error at line 1, column ", 0), 0U) << message;
}

TEST_F(ConfigError, UnknownLevel) {
  EXPECT_EQ(error_of("level = \"verbose\"\n[[sink]]\ntype = \"journal\"\n"), conf_ + ": unknown level 'verbose'");
}

TEST_F(ConfigError, LevelMustBeAString) {
  EXPECT_EQ(error_of("level = 3\n[[sink]]\ntype = \"journal\"\n"), conf_ + ": level must be a string");
}

TEST_F(ConfigError, LevelNamesAreCaseSensitive) {
  EXPECT_EQ(error_of("level = \"INFO\"\n[[sink]]\ntype = \"journal\"\n"), conf_ + ": unknown level 'INFO'");
}

TEST_F(ConfigError, UnknownTopLevelKey) {
  EXPECT_EQ(error_of("levle = \"info\"\n[[sink]]\ntype = \"journal\"\n"), conf_ + ": unknown key 'levle'");
}

TEST_F(ConfigError, PatternMustBeAString) {
  EXPECT_EQ(error_of("pattern = 1\n[[sink]]\ntype = \"stderr\"\n"), conf_ + ": pattern must be a string");
}

TEST_F(ConfigError, EmptyPatternIsRefused) {
  EXPECT_EQ(error_of("pattern = \"\"\n[[sink]]\ntype = \"stderr\"\n"), conf_ + ": pattern is empty");
}

TEST_F(ConfigError, NoSinkAtAll) {
  EXPECT_EQ(error_of("level = \"info\"\n"), conf_ + ": no [[sink]] entry");
}

TEST_F(ConfigError, EmptySinkArray) {
  EXPECT_EQ(error_of("level = \"info\"\nsink = []\n"), conf_ + ": no [[sink]] entry");
}

TEST_F(ConfigError, SinkMustBeAnArrayOfTables) {
  EXPECT_EQ(error_of("sink = \"journal\"\n"), conf_ + ": sink must be an array of tables ([[sink]])");
  EXPECT_EQ(error_of("sink = [\"journal\"]\n"), conf_ + ": sink must be an array of tables ([[sink]])");
}

TEST_F(ConfigError, SinkWithoutType) {
  EXPECT_EQ(error_of("[[sink]]\npath = \"/tmp/x.log\"\n"), conf_ + ": sink without type");
}

TEST_F(ConfigError, SinkTypeMustBeAString) {
  EXPECT_EQ(error_of("[[sink]]\ntype = 2\n"), conf_ + ": sink type must be a string");
}

TEST_F(ConfigError, UnknownSinkType) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"x\"\n"), conf_ + ": unknown sink type 'x'");
}

TEST_F(ConfigError, UnknownSinkTypeAfterAGoodOne) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"journal\"\n[[sink]]\ntype = \"syslog\"\n"),
            conf_ + ": unknown sink type 'syslog'");
}

TEST_F(ConfigError, PathIsNotAKeyOfAStderrSink) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"stderr\"\npath = \"/tmp/x.log\"\n"),
            conf_ + ": unknown key 'path' in a stderr sink");
}

TEST_F(ConfigError, MaxSizeIsNotAKeyOfAJournalSink) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"journal\"\nmax_size = 10\n"),
            conf_ + ": unknown key 'max_size' in a journal sink");
}

TEST_F(ConfigError, UnknownKeyInAFileSink) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"file\"\npath = \"/tmp/x.log\"\nrotate = true\n"),
            conf_ + ": unknown key 'rotate' in a file sink");
}

TEST_F(ConfigError, FileSinkWithoutPath) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"file\"\nmax_size = \"1MiB\"\n"), conf_ + ": file sink without path");
}

TEST_F(ConfigError, FileSinkPathMustBeAString) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"file\"\npath = 7\n"), conf_ + ": file sink path must be a string");
}

TEST_F(ConfigError, FileSinkPathMustNotBeEmpty) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"file\"\npath = \"\"\n"), conf_ + ": file sink path is empty");
}

TEST_F(ConfigError, FileSinkPathWithNulIsRefused) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"file\"\npath = \"" + path("a.log") + "\\u0000b\"\n"),
            conf_ + ": file sink path contains a NUL character");
}

class BadMaxSize : public ConfigError {
 protected:
  std::string error_of_size(std::string_view value) {
    return error_of("[[sink]]\ntype = \"file\"\npath = \"" + path("x.log") + "\"\nmax_size = " + std::string(value) +
                    "\n");
  }
};

TEST_F(BadMaxSize, UnknownUnit) {
  EXPECT_EQ(error_of_size("\"1XB\""),
            conf_ + ": bad max_size '1XB' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
}

TEST_F(BadMaxSize, DecimalUnitsAreNotAccepted) {
  EXPECT_EQ(error_of_size("\"1MB\""),
            conf_ + ": bad max_size '1MB' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
}

TEST_F(BadMaxSize, NoNumber) {
  EXPECT_EQ(error_of_size("\"MiB\""),
            conf_ + ": bad max_size 'MiB' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
}

TEST_F(BadMaxSize, SpaceBeforeUnit) {
  EXPECT_EQ(error_of_size("\"1 MiB\""),
            conf_ + ": bad max_size '1 MiB' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
}

TEST_F(BadMaxSize, ZeroText) {
  EXPECT_EQ(error_of_size("\"0KiB\""),
            conf_ + ": bad max_size '0KiB' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
}

TEST_F(BadMaxSize, ZeroNumber) {
  EXPECT_EQ(error_of_size("0"), conf_ + ": bad max_size '0' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
}

TEST_F(BadMaxSize, NegativeNumber) {
  EXPECT_EQ(error_of_size("-5"), conf_ + ": bad max_size '-5' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
}

TEST_F(BadMaxSize, TooLargeToRepresent) {
  EXPECT_EQ(error_of_size("\"18446744073709551615GiB\""),
            conf_ + ": bad max_size '18446744073709551615GiB' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
  EXPECT_EQ(error_of_size("\"99999999999999999999999\""),
            conf_ + ": bad max_size '99999999999999999999999' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")");
}

TEST_F(BadMaxSize, FloatIsRefused) {
  EXPECT_EQ(error_of_size("1.5"), conf_ + ": max_size must be a string or a whole number");
}

class BadMaxFiles : public ConfigError {
 protected:
  std::string error_of_count(std::string_view value) {
    return error_of("[[sink]]\ntype = \"file\"\npath = \"" + path("x.log") + "\"\nmax_files = " + std::string(value) +
                    "\n");
  }
};

TEST_F(BadMaxFiles, Negative) {
  EXPECT_EQ(error_of_count("-1"), conf_ + ": bad max_files -1 (0 to 1000)");
}

TEST_F(BadMaxFiles, TooMany) {
  EXPECT_EQ(error_of_count("1001"), conf_ + ": bad max_files 1001 (0 to 1000)");
}

TEST_F(BadMaxFiles, NotANumber) {
  EXPECT_EQ(error_of_count("\"3\""), conf_ + ": max_files must be a whole number");
}

TEST_F(ConfigError, LogFileUnderARegularFile) {
  write_file("plain", "not a directory");
  const std::string log = path("plain/sub/x.log");
  EXPECT_EQ(error_of("[[sink]]\ntype = \"file\"\npath = \"" + log + "\"\n"),
            conf_ + ": cannot create the directory of log file '" + log + "': Not a directory");
}

TEST_F(ConfigError, LogFileThatIsADirectory) {
  EXPECT_EQ(error_of("[[sink]]\ntype = \"file\"\npath = \"" + dir_.string() + "\"\n"),
            conf_ + ": cannot open log file '" + dir_.string() + "': Is a directory");
}

}  // namespace
}  // namespace xpon::logger
