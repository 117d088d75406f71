#include "test_files.hpp"
#include "xpon/logger/logger.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace xpon::logger {
namespace {

using test::read_file;
using test::split_lines;

class LoggerThreads : public test::TempDirTest {
 protected:
  // One file sink large enough that nothing is rotated away during a test.
  LoggingContext make_context(const std::string& log, std::string_view name = "SYSTEM-MGR.conf") {
    const std::string conf =
        write_file(name, "level = \"debug\"\npattern = \"%n %v\"\n[[sink]]\ntype = \"file\"\npath = \"" + log +
                             "\"\nmax_size = \"1GiB\"\n");
    auto context = Logger::create_context(conf, "SYSTEM-MGR_IPC", 0);
    if (!context.has_value()) {
      ADD_FAILURE() << context.error().to_string();
      std::abort();
    }
    return std::move(context).value();
  }
};

TEST_F(LoggerThreads, LinesFromManyThreadsArriveWholeAndOnce) {
  constexpr int kThreads = 6;
  constexpr int kLines = 300;
  const std::string log = path("system-mgr.log");
  auto context = make_context(log);
  Logger shared("SYSTEM-MGR");
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&shared, thread] {
      Logger own("WORKER");
      for (int line = 0; line < kLines; ++line) {
        // Half through one logger shared by every thread, half through each thread's own.
        (line % 2 == 0 ? static_cast<ILogger&>(shared) : own).logf(kInfo, "thread {} line {}", thread, line);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const auto lines = split_lines(read_file(log));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  std::set<std::string> seen;
  const std::regex shape(R"((SYSTEM-MGR|WORKER) thread \d line \d+)");
  for (const auto& line : lines) {
    EXPECT_TRUE(std::regex_match(line, shape)) << line;
    EXPECT_TRUE(seen.insert(line).second) << "twice: " << line;
  }
  EXPECT_EQ(seen.count("SYSTEM-MGR thread 5 line 298"), 1U);
  EXPECT_EQ(seen.count("WORKER thread 0 line 299"), 1U);
}

TEST_F(LoggerThreads, ContextsComeAndGoWhileThreadsLog) {
  constexpr int kThreads = 3;
  constexpr int kCycles = 20;
  // A base context stays for the whole test, so every line lands in some file.
  const std::string base_log = path("base.log");
  auto base = make_context(base_log, "base.conf");
  std::atomic<bool> running{true};
  std::atomic<int> written{0};
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      Logger logger("SYSTEM-MGR");
      for (int line = 0; running.load(); ++line) {
        logger.logf(kInfo, "thread {} line {}", thread, line);
        written.fetch_add(1);
      }
    });
  }
  std::vector<std::string> cycle_logs;
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    cycle_logs.push_back(path("cycle" + std::to_string(cycle) + ".log"));
    auto context = make_context(cycle_logs.back(), "cycle.conf");
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  running = false;
  for (auto& thread : threads) {
    thread.join();
  }
  std::size_t total = split_lines(read_file(base_log)).size();
  for (const auto& log : cycle_logs) {
    for (const auto& line : split_lines(read_file(log))) {
      EXPECT_TRUE(line.starts_with("SYSTEM-MGR thread ")) << line;
      ++total;
    }
  }
  EXPECT_EQ(total, static_cast<std::size_t>(written.load()));
}

TEST_F(LoggerThreads, CategoriesMadeConcurrentlyAreOnePerName) {
  constexpr int kThreads = 4;
  std::vector<std::vector<zlog_category_t*>> handles(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&handles, thread] {
      for (int name = 0; name < 50; ++name) {
        handles[static_cast<std::size_t>(thread)].push_back(
            Logger::get_raw_zlog_category("CONCURRENT-" + std::to_string(name)));
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  for (int thread = 1; thread < kThreads; ++thread) {
    EXPECT_EQ(handles[static_cast<std::size_t>(thread)], handles[0]);
  }
  EXPECT_EQ(std::set<zlog_category_t*>(handles[0].begin(), handles[0].end()).size(), 50U);
}

}  // namespace
}  // namespace xpon::logger
