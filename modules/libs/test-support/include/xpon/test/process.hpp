#pragma once

#include <sys/types.h>

#include "xpon/test/wait.hpp"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace xpon::test {

/// How a child process ended.
struct ProcessEnd {
  bool signaled = false;  ///< ended by a signal rather than by exit
  int value = 0;          ///< the exit status, or the number of the signal that ended it
  int wait_status = 0;    ///< the status as waitpid reported it, for WIFEXITED and the like

  /// True when the process exited by itself with this status.
  [[nodiscard]] bool exited_with(int status) const { return !signaled && value == status; }

  /// "exit status N" or "signal N", for test messages.
  [[nodiscard]] std::string describe() const;
};

/// What a program that was run to its end left behind.
struct ProgramRun {
  std::optional<ProcessEnd> end;  ///< empty when it did not end in time and was killed
  std::string output;             ///< its standard output
  std::string errors;             ///< its standard error
};

/// Resource limits set in the child just before it runs its program.
struct ChildLimits {
  /// RLIMIT_NOFILE, soft and hard alike; empty: the caller's limit is inherited.
  std::optional<unsigned long> open_files;
};

/// One child process started from a program file, with standard input from /dev/null and
/// standard output and error written to files. The child gets SIGKILL should the thread that
/// started it die first, so a crashed test leaves no daemon behind; the destructor kills
/// and reaps a child that still runs.
class Process {
 public:
  /// Starts argv[0] (a path, not searched in PATH) with the caller's environment changed by
  /// `environment`: "NAME=value" sets a variable, a bare "NAME" removes it. Empty output
  /// paths mean /dev/null. Throws std::runtime_error when the program cannot be started (or a
  /// limit cannot be set).
  Process(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {},
          const std::string& output_path = {}, const std::string& errors_path = {}, const ChildLimits& limits = {});
  ~Process();

  Process(Process&& other) noexcept;
  Process& operator=(Process&& other) noexcept;
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// The child's process id (-1 once reaped).
  [[nodiscard]] pid_t pid() const { return pid_; }

  /// True while the child has not ended; reaps it when it has.
  bool running();

  /// The end of the child once it has been reaped.
  [[nodiscard]] const std::optional<ProcessEnd>& end() const { return end_; }

  /// Sends a signal to the child; false when it has already ended.
  bool signal(int signal_number);

  /// Waits for the end of the child, at most `timeout`; empty when it still runs.
  std::optional<ProcessEnd> wait(std::chrono::milliseconds timeout);

  /// Waits for the end of the child, however long it takes.
  ProcessEnd wait();

  /// Sends the signal, waits up to `timeout`, then kills; returns how the child ended.
  ProcessEnd stop(int signal_number, std::chrono::milliseconds timeout);

 private:
  void reap_blocking();

  pid_t pid_ = -1;
  std::optional<ProcessEnd> end_;
};

/// Runs a program to its end (see Process for the arguments); kills it after the time-out.
ProgramRun run_program(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {},
                       std::chrono::milliseconds timeout = std::chrono::seconds(20));

/// Reads a whole file; empty when it cannot be read.
std::string read_text_file(const std::string& path);

}  // namespace xpon::test
