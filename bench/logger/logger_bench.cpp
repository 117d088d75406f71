// What a log line costs the daemon: the common case is a progress line that the board's
// default level drops, the expensive one a line written and flushed to a file.

#include "xpon/logger/logger.hpp"

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <source_location>
#include <span>
#include <string>
#include <utility>

namespace {

using xpon::logger::Logger;
using xpon::logger::LoggingContext;

// A journal that takes every entry and keeps none, so only our side of the sink is measured.
class DiscardingJournal : public xpon::logger::IJournalWriter {
 public:
  int send(std::span<const std::string> fields) override {
    benchmark::DoNotOptimize(fields.data());
    return 0;
  }
};

// A temporary directory with one configuration file; removed with its log files at the end.
class Scratch {
 public:
  Scratch() {
    std::string pattern = "/tmp/logger-bench-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    dir_ = pattern;
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  LoggingContext context(const std::string& text, std::shared_ptr<xpon::logger::IJournalWriter> journal = nullptr) {
    const std::string conf = (dir_ / "bench.conf").string();
    if (std::FILE* out = std::fopen(conf.c_str(), "we")) {
      std::fputs(text.c_str(), out);
      std::fclose(out);
    }
    auto made = Logger::create_context(conf, "BENCH", 0, std::move(journal));
    if (!made) {
      std::fprintf(stderr, "%s\n", made.error().to_string().c_str());
      std::abort();
    }
    return std::move(made).value();
  }

  std::string file_sink(std::string_view level) const {
    return "level = \"" + std::string(level) + "\"\n[[sink]]\ntype = \"file\"\npath = \"" +
           (dir_ / "bench.log").string() + "\"\nmax_size = \"64MiB\"\nmax_files = 1\n";
  }

 private:
  std::filesystem::path dir_;
};

void BM_ProgressLineDroppedByLevel(benchmark::State& state) {
  Scratch scratch;
  auto context = scratch.context(scratch.file_sink("info"));
  Logger logger("SYSTEM-MGR");
  const auto where = std::source_location::current();
  for (auto _ : state) {
    logger.log(xpon::logger::kProgress, "Handle IPC request [IPC_SYSTEM_MGR__GET_TEMP]", where);
  }
}
BENCHMARK(BM_ProgressLineDroppedByLevel);

void BM_LineWrittenToFile(benchmark::State& state) {
  Scratch scratch;
  auto context = scratch.context(scratch.file_sink("info"));
  Logger logger("SYSTEM-MGR");
  const auto where = std::source_location::current();
  for (auto _ : state) {
    logger.log(xpon::logger::kWarning, "Sensor 1 temperature 71C is above the upper limit", where);
  }
}
BENCHMARK(BM_LineWrittenToFile);
BENCHMARK(BM_LineWrittenToFile)->Threads(2)->UseRealTime();

void BM_LineHandedToJournal(benchmark::State& state) {
  Scratch scratch;
  auto context =
      scratch.context("level = \"info\"\n[[sink]]\ntype = \"journal\"\n", std::make_shared<DiscardingJournal>());
  Logger logger("SYSTEM-MGR");
  const auto where = std::source_location::current();
  for (auto _ : state) {
    logger.log(xpon::logger::kWarning, "Sensor 1 temperature 71C is above the upper limit", where);
  }
}
BENCHMARK(BM_LineHandedToJournal);

}  // namespace

BENCHMARK_MAIN();
