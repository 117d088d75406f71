#pragma once

// Runs the real xpon-board-emu program for component tests: a fresh sandbox root per test,
// the emulator mounted at <root>/dev, and an unmount in every teardown.

#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace xpon::board_emu::test {

/// How a program that was run to its end finished.
struct ProgramRun {
  int exit_status = -1;  ///< -1 when it did not end in time or was killed by a signal
  std::string output;    ///< what it wrote to standard output
  std::string errors;    ///< what it wrote to standard error
};

/// Runs a program to its end with extra environment entries ("NAME=value"); kills it after the timeout.
ProgramRun run_program(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {},
                       std::chrono::milliseconds timeout = std::chrono::seconds(20));

/// One running emulator in its own temporary sandbox root.
class EmulatorProcess {
 public:
  /// Writes the scenario and starts the emulator in the foreground, waiting until its files are served.
  /// On return exactly one holds: the process (nonnull), `skip` (FUSE unusable here), or `failure`.
  static std::unique_ptr<EmulatorProcess> start(const std::string& scenario, std::string& skip, std::string& failure);

  /// Stops the emulator if it still runs, makes sure nothing stays mounted, removes the root.
  ~EmulatorProcess();

  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  [[nodiscard]] const std::string& root() const { return dir_.path(); }
  [[nodiscard]] std::string dev_dir() const { return root() + "/dev"; }
  [[nodiscard]] std::string dev_file(const std::string& name) const { return dev_dir() + "/" + name; }

  /// Sends the signal and waits for the end; returns the exit status, or -1 when it did not end cleanly.
  int stop(int signal = SIGTERM);

  /// What the emulator wrote to standard error so far.
  [[nodiscard]] std::string log() const;

 private:
  EmulatorProcess() = default;

  xpon::test::TempDir dir_{"xpon-emu"};
  std::optional<xpon::test::Process> process_;
};

/// Reads a whole file (the state file, board-control) with one open.
std::string read_file(const std::string& path);

/// Writes a text to a file with one open and one write; returns 0 or the errno of the write.
int write_file(const std::string& path, const std::string& text);

}  // namespace xpon::board_emu::test
