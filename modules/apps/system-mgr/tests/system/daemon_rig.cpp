#include "daemon_rig.hpp"

#include "xpon/test/fuse.hpp"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace xpon::system_mgr::test {

namespace {

using namespace std::chrono_literals;
using xpon::test::read_text_file;
using xpon::test::wait_until;

constexpr const char* kFactoryImage = "/sys/bus/nvmem/devices/device-eeprom0/nvmem";
constexpr const char* kCrateFactoryImage = "/sys/bus/nvmem/devices/crate-eeprom0/nvmem";
constexpr const char* kLogConfig = "/etc/zlog_modules_config/SYSTEM-MGR.conf";

// The emulator's exit status when FUSE is missing or the mount is refused.
constexpr int kEmulatorFuseUnavailable = 3;

// The least time left before a polling thread's next poll when a test signals the daemon. The
// whole stop takes a few milliseconds, also under the sanitizers and the arm64 emulation.
constexpr std::chrono::milliseconds kPollMargin = 250ms;

// /proc gives the numbers of the host's system calls, also for an arm64 daemon run by qemu-user on
// an x86-64 machine, so both architectures' numbers are taken. The other meanings of these numbers
// (x86-64: 29 shmget, 98 getrusage; arm64: 16 fremovexattr, 202 accept) are calls the daemon never
// sleeps in.
bool is_ioctl(unsigned long number) {
  return number == 16 || number == 29;
}
bool is_futex(unsigned long number) {
  return number == 202 || number == 98;
}
constexpr unsigned long kFutexCommandMask = 0x7F;  // without FUTEX_PRIVATE_FLAG and FUTEX_CLOCK_REALTIME
constexpr unsigned long kFutexWaitBitset = 9;
constexpr unsigned long kFutexClockRealtime = 0x100;

// The fields of /proc/PID/task/TID/syscall: the call's number and its arguments, or nothing while
// the thread runs in user space.
std::vector<unsigned long> syscall_of(const std::filesystem::path& task) {
  std::istringstream line(read_text_file((task / "syscall").string()));
  std::vector<unsigned long> fields;
  std::string field;
  while (line >> field) {
    if (field == "running") {
      return {};
    }
    fields.push_back(std::stoul(field, nullptr, 0));
  }
  return fields;
}

// The absolute CLOCK_MONOTONIC deadline at `address` in the process's memory.
std::optional<std::chrono::nanoseconds> deadline_at(pid_t pid, unsigned long address) {
  std::ifstream memory("/proc/" + std::to_string(pid) + "/mem", std::ios::binary);
  timespec deadline{};
  memory.seekg(static_cast<std::streamoff>(address));
  memory.read(reinterpret_cast<char*>(&deadline), sizeof deadline);
  if (!memory) {
    return std::nullopt;
  }
  return std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
}

std::chrono::nanoseconds monotonic_now() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// True when every thread of the process is asleep in the kernel (state S in its stat line), none
// of them in a board call, and every timed wait on CLOCK_MONOTONIC (the polling threads' waits for
// their next poll; no other thread of the daemon waits that way) ends kPollMargin or more from
// now. A stop's wake-up that comes while a polling thread polls is lost by design, so a signal is
// sent only when no poll runs and none is due before the stop has woken every thread.
bool all_threads_sleep(pid_t pid) {
  const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
  std::error_code error;
  bool any = false;
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    const std::string stat = read_text_file((task.path() / "stat").string());
    // The state follows the command name, which is in parentheses and may hold blanks.
    const auto name_end = stat.rfind(')');
    if (name_end == std::string::npos || name_end + 2 >= stat.size() || stat[name_end + 2] != 'S') {
      return false;
    }
    const std::vector<unsigned long> call = syscall_of(task.path());
    if (call.empty() || is_ioctl(call[0])) {
      return false;
    }
    if (is_futex(call[0]) && call.size() > 4 && (call[2] & kFutexCommandMask) == kFutexWaitBitset &&
        (call[2] & kFutexClockRealtime) == 0 && call[4] != 0) {
      const auto deadline = deadline_at(pid, call[4]);
      if (!deadline || *deadline - monotonic_now() < kPollMargin) {
        return false;
      }
    }
    any = true;
  }
  return any && !error;
}

std::size_t count_of(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::vector<std::string> daemon_command() {
  // XPON_DAEMON_WRAPPER runs the daemon under another program, for example
  // "/usr/bin/valgrind --leak-check=full --log-file=/var/tmp/vg-%p.log": words separated by
  // spaces, no quoting, the program by its full path.
  std::vector<std::string> command;
  if (const char* wrapper = std::getenv("XPON_DAEMON_WRAPPER"); wrapper != nullptr) {
    std::istringstream words(wrapper);
    for (std::string word; words >> word;) {
      command.push_back(word);
    }
  }
  command.emplace_back(XPON_SYSTEM_MGR_PROGRAM);
  return command;
}

}  // namespace

DaemonRig::DaemonRig() : listener_(std::make_unique<xpon::test::NotifyListener>(sandbox_.path("/notify.sock"))) {}

DaemonRig::~DaemonRig() {
  // The daemon first: it holds /dev/board open, and a busy mount cannot be unmounted.
  if (daemon_) {
    (void)daemon_->stop(SIGKILL, 5s);
  }
  stop_emulator();
  if (bus_) {
    (void)bus_->stop(SIGTERM, 5s);
  }
}

void DaemonRig::stop_emulator() {
  if (!emulator_) {
    return;
  }
  (void)emulator_->stop(SIGTERM, 5s);
  emulator_.reset();
  const std::string mount = path("/dev");
  // A killed emulator leaves its mount behind; fusermount3 clears it, lazily if still busy.
  if (xpon::test::is_mount_point(mount)) {
    (void)xpon::test::run_program({"/bin/fusermount3", "-u", mount}, {}, 5s);
  }
  if (xpon::test::is_mount_point(mount)) {
    (void)xpon::test::run_program({"/bin/fusermount3", "-u", "-z", mount}, {}, 5s);
  }
}

std::string DaemonRig::start_bus(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{XPON_IPC_BUS_PROGRAM};
  command.insert(command.end(), arguments.begin(), arguments.end());
  bus_.emplace(command, std::vector<std::string>{sandbox_.environment_entry()}, path("/bus.out"), path("/bus.log"));
  const bool serving = wait_until(
      [this] {
        return !bus_->running() || (std::filesystem::exists(path("/run/xpon/ipc/bus.in")) &&
                                    std::filesystem::exists(path("/run/xpon/ipc/bus.sub")));
      },
      10s);
  if (!bus_->running()) {
    return "xpon-ipc-bus ended (" + (bus_->end() ? bus_->end()->describe() : std::string("?")) +
           "): " + read_text_file(path("/bus.log"));
  }
  return serving ? std::string() : "xpon-ipc-bus did not bind its sockets within 10 s";
}

std::string DaemonRig::start_emulator(const std::string& example_scenario, std::string& skip) {
  skip = xpon::test::fuse_unavailable_reason();
  if (!skip.empty()) {
    return {};
  }
  const std::string scenario =
      example_scenario.starts_with('/') ? example_scenario : std::string(XPON_EXAMPLES_DIR) + "/" + example_scenario;
  emulator_.emplace(std::vector<std::string>{XPON_BOARD_EMU_PROGRAM, "--scenario", scenario, "--foreground"},
                    std::vector<std::string>{sandbox_.environment_entry()}, path("/emu.out"), path("/emu.log"));
  const bool serving = wait_until(
      [this] {
        return !emulator_->running() ||
               (xpon::test::is_mount_point(path("/dev")) && std::filesystem::exists(path("/dev/board")));
      },
      10s);
  if (!emulator_->running()) {
    const auto end = emulator_->end();
    const std::string log = read_text_file(path("/emu.log"));
    emulator_.reset();
    if (end && end->exited_with(kEmulatorFuseUnavailable)) {
      skip = "the FUSE mount of the board emulator was refused here: " + log;
      return {};
    }
    return "xpon-board-emu ended (" + (end ? end->describe() : std::string("?")) + ") before serving: " + log;
  }
  return serving ? std::string() : "xpon-board-emu did not serve /dev/board within 10 s";
}

std::string DaemonRig::make_factory_image(const std::string& product) {
  return write_factory_image(product, kFactoryImage);
}

std::string DaemonRig::make_crate_factory_image(const std::string& product) {
  std::filesystem::create_directories(std::filesystem::path(path(kCrateFactoryImage)).parent_path());
  return write_factory_image(product, kCrateFactoryImage);
}

std::string DaemonRig::write_factory_image(const std::string& product, const std::string& logical_path) {
  const auto run =
      xpon::test::run_program({XPON_FACTORY_PROGRAM, "make", "--product", product, "-o", path(logical_path)},
                              {sandbox_.environment_entry()}, 10s);
  if (!run.end || !run.end->exited_with(0)) {
    return "xpon-factory make failed (" + (run.end ? run.end->describe() : std::string("time-out")) +
           "): " + run.errors;
  }
  return {};
}

void DaemonRig::write_log_config(const std::string& text) const {
  std::ofstream(path(kLogConfig), std::ios::binary | std::ios::trunc) << text;
}

void DaemonRig::install_example_log_config() const {
  write_log_config(read_text_file(std::string(XPON_EXAMPLES_DIR) + "/logging/stderr.conf"));
}

void DaemonRig::start_daemon(const std::vector<std::string>& environment) {
  start_daemon(environment, {});
}

void DaemonRig::start_daemon(const xpon::test::ChildLimits& limits) {
  start_daemon({}, limits);
}

void DaemonRig::start_daemon(const std::vector<std::string>& environment, const xpon::test::ChildLimits& limits) {
  std::vector<std::string> changes{sandbox_.environment_entry(), "NOTIFY_SOCKET=" + listener_->path()};
  changes.insert(changes.end(), environment.begin(), environment.end());
  daemon_.emplace(daemon_command(), changes, path("/daemon.out"), path("/daemon.log"), limits);
}

xpon::test::SupervisedProgram DaemonRig::daemon_program() const {
  return xpon::test::SupervisedProgram{
      daemon_command(), {sandbox_.environment_entry()}, path("/daemon.out"), path("/daemon.log")};
}

bool DaemonRig::wait_for_notification(const std::string& text, std::size_t occurrence,
                                      std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    const auto messages = listener_->messages();
    if (static_cast<std::size_t>(std::count(messages.begin(), messages.end(), text)) >= occurrence) {
      return true;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return false;
    }
    // Returns as soon as one more message arrives.
    (void)listener_->wait_for(messages.size() + 1, left);
  }
}

bool DaemonRig::wait_until_settled(pid_t pid, const std::string& log_path, std::size_t functions_started,
                                   std::chrono::milliseconds timeout) {
  if (pid <= 0) {
    return false;
  }
  int quiet_samples = 0;
  return wait_until(
      [&] {
        if (count_of(read_text_file(log_path), "Start System function: ") < functions_started) {
          return false;
        }
        // Two samples in a row: a thread between two system calls is caught by one of them.
        quiet_samples = all_threads_sleep(pid) ? quiet_samples + 1 : 0;
        return quiet_samples >= 2;
      },
      timeout, 5ms);
}

bool DaemonRig::wait_until_settled(std::size_t cycle, std::chrono::milliseconds timeout) {
  return wait_until_settled(daemon().pid(), path("/daemon.log"), cycle, timeout);
}

std::string DaemonRig::daemon_log() const {
  return read_text_file(path("/daemon.log"));
}

bool DaemonRig::wait_for_log(const std::string& text, std::chrono::milliseconds timeout) const {
  return wait_until([&] { return daemon_log().find(text) != std::string::npos; }, timeout, 10ms);
}

xpon::test::ProgramRun DaemonRig::run_cfg(const std::vector<std::string>& arguments) const {
  std::vector<std::string> argv{XPON_CFG_PROGRAM};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return xpon::test::run_program(argv, {sandbox_.environment_entry()}, 10s);
}

std::string DaemonRig::helper_logs() const {
  return "\n--- xpon-board-emu:\n" + read_text_file(path("/emu.log")) + "\n--- xpon-ipc-bus:\n" +
         read_text_file(path("/bus.log"));
}

std::string DaemonRig::notifications_text() {
  std::string text;
  for (const auto& message : listener_->messages()) {
    text += "  " + quoted(message) + "\n";
  }
  return text;
}

std::string DaemonRig::start_settled_board(const std::string& scenario, const std::string& product, std::string& skip) {
  std::string error = start_bus();
  if (error.empty()) {
    error = start_emulator(scenario, skip);
  }
  if (!error.empty() || !skip.empty()) {
    return error;
  }
  error = make_factory_image(product);
  if (!error.empty()) {
    return error;
  }
  write_log_config(kDebugToStderr);
  start_daemon();
  if (!wait_until_settled(1, std::chrono::seconds(10))) {
    return "the daemon did not settle: " + daemon_log();
  }
  return {};
}

}  // namespace xpon::system_mgr::test
