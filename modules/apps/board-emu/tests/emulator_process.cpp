#include "emulator_process.hpp"

#include "xpon/test/sandbox.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace xpon::board_emu::test {

namespace {

// Starts a program with stdout and stderr sent to files; everything the child needs is made
// before fork, so the child only calls async-signal-safe functions.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
            const std::string& output_path, const std::string& errors_path) {
  std::vector<std::string> environment_words;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    environment_words.emplace_back(*entry);
  }
  environment_words.insert(environment_words.end(), environment.begin(), environment.end());
  std::vector<char*> argv_pointers;
  argv_pointers.reserve(argv.size() + 1);
  for (const auto& word : argv) {
    argv_pointers.push_back(const_cast<char*>(word.c_str()));
  }
  argv_pointers.push_back(nullptr);
  std::vector<char*> environment_pointers;
  environment_pointers.reserve(environment_words.size() + 1);
  for (const auto& word : environment_words) {
    environment_pointers.push_back(const_cast<char*>(word.c_str()));
  }
  environment_pointers.push_back(nullptr);

  const int output = ::open(output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const int errors = ::open(errors_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(output, STDOUT_FILENO);
    ::dup2(errors, STDERR_FILENO);
    ::execve(argv_pointers[0], argv_pointers.data(), environment_pointers.data());
    ::_exit(127);
  }
  ::close(output);
  ::close(errors);
  return pid;
}

// Waits up to the timeout; returns the exit status, -1 when still running or ended by a signal,
// -2 when the process is already gone.
int wait_for(pid_t pid, std::chrono::milliseconds timeout, bool& ended) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  ended = false;
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) {
      ended = true;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (done < 0) {
      ended = true;
      return -2;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string make_temporary_root() {
  std::string pattern = (std::filesystem::temp_directory_path() / "xpon-emu-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    return {};
  }
  return pattern;
}

}  // namespace

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
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
  ProgramRun run;
  const std::string root = make_temporary_root();
  const std::string output_path = root + "/stdout";
  const std::string errors_path = root + "/stderr";
  const pid_t pid = spawn(argv, environment, output_path, errors_path);
  bool ended = false;
  run.exit_status = wait_for(pid, timeout, ended);
  if (!ended) {
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
  }
  run.output = read_file(output_path);
  run.errors = read_file(errors_path);
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  return run;
}

std::string fuse_unavailable_reason() {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {
    return std::string("FUSE is not available here: /dev/fuse: ") + std::strerror(errno);
  }
  return {};
}

std::unique_ptr<EmulatorProcess> EmulatorProcess::start(const std::string& scenario, std::string& skip,
                                                        std::string& failure) {
  skip = fuse_unavailable_reason();
  if (!skip.empty()) {
    return nullptr;
  }
  const std::string root = make_temporary_root();
  if (root.empty()) {
    failure = std::string("cannot make a temporary root: ") + std::strerror(errno);
    return nullptr;
  }
  const std::string scenario_path = root + "/scenario.json";
  std::ofstream(scenario_path) << scenario;
  const pid_t pid = spawn({XPON_BOARD_EMU_PROGRAM, "--scenario", scenario_path, "--foreground"}, {"XPON_ROOT=" + root},
                          root + "/emu.out", root + "/emu.log");
  std::unique_ptr<EmulatorProcess> process(new EmulatorProcess(root, pid));

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    bool ended = false;
    const int status = wait_for(pid, std::chrono::milliseconds(0), ended);
    if (ended) {
      process->pid_ = -1;
      if (status == 3) {
        skip = "FUSE mount refused here: " + process->log();
      } else {
        failure = "the emulator ended with status " + std::to_string(status) + " before serving: " + process->log();
      }
      return nullptr;
    }
    if (xpon::test::is_mount_point(process->dev_dir()) && std::filesystem::exists(process->dev_file("board"))) {
      return process;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  failure = "the emulator did not serve its files within 10 s: " + process->log();
  return nullptr;
}

int EmulatorProcess::stop(int signal) {
  if (pid_ <= 0) {
    return -1;
  }
  ::kill(pid_, signal);
  bool ended = false;
  const int status = wait_for(pid_, std::chrono::seconds(10), ended);
  if (!ended) {
    ::kill(pid_, SIGKILL);
    int ignored = 0;
    ::waitpid(pid_, &ignored, 0);
  }
  pid_ = -1;
  return ended ? status : -1;
}

std::string EmulatorProcess::log() const {
  return read_file(root_ + "/emu.log");
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
  std::error_code ignored;
  if (!xpon::test::is_mount_point(dev_dir())) {
    std::filesystem::remove_all(root_, ignored);
  }
}

}  // namespace xpon::board_emu::test
