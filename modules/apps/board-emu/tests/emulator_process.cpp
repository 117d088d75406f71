#include "emulator_process.hpp"

#include "xpon/test/fuse.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

namespace xpon::board_emu::test {

namespace {

// The exit status of the emulator when the FUSE mount is refused.
constexpr int kMountRefused = 3;

// The exit status, or -1 when the program was ended by a signal or did not end at all.
int exit_status_of(const std::optional<xpon::test::ProcessEnd>& end) {
  return end && !end->signaled ? end->value : -1;
}

}  // namespace

std::string read_file(const std::string& path) {
  return xpon::test::read_text_file(path);
}

int write_file(const std::string& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  const ssize_t written = ::write(fd, text.data(), text.size());
  const int write_error = written < 0 ? errno : 0;
  const int close_result = ::close(fd);
  const int close_error = close_result < 0 ? errno : 0;
  return write_error != 0 ? write_error : close_error;
}

ProgramRun run_program(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                       std::chrono::milliseconds timeout) {
  const auto run = xpon::test::run_program(argv, environment, timeout);
  return ProgramRun{exit_status_of(run.end), run.output, run.errors};
}

std::unique_ptr<EmulatorProcess> EmulatorProcess::start(const std::string& scenario, std::string& skip,
                                                        std::string& failure) {
  skip = xpon::test::fuse_unavailable_reason();
  if (!skip.empty()) {
    return nullptr;
  }
  std::unique_ptr<EmulatorProcess> process(new EmulatorProcess());
  const std::string scenario_path = process->dir_.write("scenario.json", scenario);
  process->process_.emplace(
      std::vector<std::string>{XPON_BOARD_EMU_PROGRAM, "--scenario", scenario_path, "--foreground"},
      std::vector<std::string>{"XPON_ROOT=" + process->root()}, process->dir_.file("emu.out"),
      process->dir_.file("emu.log"));

  const bool serving = xpon::test::wait_until(
      [&] {
        return !process->process_->running() ||
               (xpon::test::is_mount_point(process->dev_dir()) && std::filesystem::exists(process->dev_file("board")));
      },
      std::chrono::seconds(10), std::chrono::milliseconds(20));
  if (!process->process_->running()) {
    const int status = exit_status_of(process->process_->end());
    if (status == kMountRefused) {
      skip = "FUSE mount refused here: " + process->log();
    } else {
      failure = "the emulator ended with status " + std::to_string(status) + " before serving: " + process->log();
    }
    return nullptr;
  }
  if (!serving) {
    failure = "the emulator did not serve its files within 10 s: " + process->log();
    return nullptr;
  }
  return process;
}

int EmulatorProcess::stop(int signal) {
  if (!process_) {
    return -1;
  }
  const xpon::test::ProcessEnd end = process_->stop(signal, std::chrono::seconds(10));
  process_.reset();
  return end.signaled ? -1 : end.value;
}

std::string EmulatorProcess::log() const {
  return read_file(dir_.file("emu.log"));
}

EmulatorProcess::~EmulatorProcess() {
  stop(SIGTERM);
  // A killed emulator leaves its mount behind; a lazy unmount clears it even while busy.
  if (xpon::test::is_mount_point(dev_dir())) {
    run_program({"/bin/fusermount3", "-u", "-z", dev_dir()});
  }
  if (xpon::test::is_mount_point(dev_dir())) {
    run_program({"/bin/umount", "-l", dev_dir()});
  }
  // The temporary root goes with dir_, unless something is still mounted in it.
}

}  // namespace xpon::board_emu::test
