#include "xpon/test/process.hpp"

#include "xpon/core/file_descriptor.hpp"

#include "xpon/test/temp_dir.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

extern char** environ;

namespace xpon::test {

namespace {

std::string name_of(const std::string& entry) {
  return entry.substr(0, entry.find('='));
}

// The caller's environment with the changes applied: a change replaces every inherited entry
// of the same name; a bare name only removes it.
std::vector<std::string> child_environment(const std::vector<std::string>& changes) {
  std::vector<std::string> result;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const std::string name = name_of(text);
    bool replaced = false;
    for (const auto& change : changes) {
      replaced = replaced || name_of(change) == name;
    }
    if (!replaced) {
      result.push_back(text);
    }
  }
  for (const auto& change : changes) {
    if (change.find('=') != std::string::npos) {
      result.push_back(change);
    }
  }
  return result;
}

std::vector<char*> pointers_to(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (auto& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

ProcessEnd end_from(int status) {
  if (WIFSIGNALED(status)) {
    return ProcessEnd{true, WTERMSIG(status), status};
  }
  return ProcessEnd{false, WEXITSTATUS(status), status};
}

// Everything from here to execve runs in the child of a possibly multi-threaded parent, so it
// only makes system calls.
[[noreturn]] void become_child(const char* program, char* const* argv, char* const* envp, const char* output_path,
                               const char* errors_path, const rlimit* open_files, int report_fd, pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    ::_exit(127);
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction default_action {};
  default_action.sa_handler = SIG_DFL;
  for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGCHLD}) {
    ::sigaction(number, &default_action, nullptr);
  }
  // Opened close-on-exec, so that only their copies on 0, 1 and 2 reach the program: dup2 clears
  // the flag of the copy, and one that already is its stream has it cleared by hand.
  const auto onto_stream = [](int descriptor, int stream) {
    return descriptor == stream ? ::fcntl(descriptor, F_SETFD, 0) : ::dup2(descriptor, stream);
  };
  const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int output = ::open(output_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const int errors = ::open(errors_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (input < 0 || output < 0 || errors < 0 || onto_stream(input, STDIN_FILENO) < 0 ||
      onto_stream(output, STDOUT_FILENO) < 0 || onto_stream(errors, STDERR_FILENO) < 0) {
    const int failure = errno;
    (void)!::write(report_fd, &failure, sizeof failure);
    ::_exit(127);
  }
  if (open_files != nullptr && ::setrlimit(RLIMIT_NOFILE, open_files) != 0) {
    const int failure = errno;
    (void)!::write(report_fd, &failure, sizeof failure);
    ::_exit(127);
  }
  ::execve(program, argv, envp);
  const int failure = errno;
  (void)!::write(report_fd, &failure, sizeof failure);
  ::_exit(127);
}

}  // namespace

std::string ProcessEnd::describe() const {
  return (signaled ? "signal " : "exit status ") + std::to_string(value);
}

Process::Process(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                 const std::string& output_path, const std::string& errors_path, const ChildLimits& limits) {
  if (argv.empty()) {
    throw std::runtime_error("no program to start");
  }
  std::vector<std::string> arguments = argv;
  std::vector<std::string> variables = child_environment(environment);
  const std::vector<char*> argument_pointers = pointers_to(arguments);
  const std::vector<char*> variable_pointers = pointers_to(variables);
  const std::string output = output_path.empty() ? "/dev/null" : output_path;
  const std::string errors = errors_path.empty() ? "/dev/null" : errors_path;
  rlimit open_files{};
  if (limits.open_files) {
    open_files.rlim_cur = *limits.open_files;
    open_files.rlim_max = *limits.open_files;
  }

  // The child reports a failed exec through this pipe; a successful exec closes it empty.
  int report[2] = {-1, -1};
  if (::pipe2(report, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
  }
  core::FileDescriptor report_reader(report[0]);
  core::FileDescriptor report_writer(report[1]);
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) {
    report_reader.reset();
    become_child(arguments[0].c_str(), argument_pointers.data(), variable_pointers.data(), output.c_str(),
                 errors.c_str(), limits.open_files ? &open_files : nullptr, report_writer.get(), parent);
  }
  const int fork_error = errno;
  report_writer.reset();
  if (child < 0) {
    throw std::runtime_error(std::string("fork: ") + std::strerror(fork_error));
  }
  pid_ = child;
  int failure = 0;
  const ssize_t got = core::read_full(report_reader.get(), &failure, sizeof failure);
  report_reader.reset();
  if (got == static_cast<ssize_t>(sizeof failure)) {
    reap_blocking();
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(failure));
  }
}

Process::~Process() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    reap_blocking();
  }
}

Process::Process(Process&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), end_(std::exchange(other.end_, std::nullopt)) {}

Process& Process::operator=(Process&& other) noexcept {
  if (this != &other) {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      reap_blocking();
    }
    pid_ = std::exchange(other.pid_, -1);
    end_ = std::exchange(other.end_, std::nullopt);
  }
  return *this;
}

void Process::reap_blocking() {
  int status = 0;
  pid_t done = 0;
  do {
    done = ::waitpid(pid_, &status, 0);
  } while (done < 0 && errno == EINTR);
  if (done == pid_) {
    end_ = end_from(status);
  }
  pid_ = -1;
}

bool Process::running() {
  if (pid_ <= 0) {
    return false;
  }
  int status = 0;
  const pid_t done = ::waitpid(pid_, &status, WNOHANG);
  if (done == 0) {
    return true;
  }
  if (done == pid_) {
    end_ = end_from(status);
  }
  pid_ = -1;
  return false;
}

bool Process::signal(int signal_number) {
  return running() && ::kill(pid_, signal_number) == 0;
}

std::optional<ProcessEnd> Process::wait(std::chrono::milliseconds timeout) {
  (void)wait_until([this] { return !running(); }, timeout, std::chrono::milliseconds(2));
  return end_;
}

ProcessEnd Process::wait() {
  if (pid_ > 0) {
    reap_blocking();
  }
  return end_.value();
}

ProcessEnd Process::stop(int signal_number, std::chrono::milliseconds timeout) {
  (void)signal(signal_number);
  if (auto ended = wait(timeout)) {
    return *ended;
  }
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    reap_blocking();
  }
  return end_.value_or(ProcessEnd{true, SIGKILL, SIGKILL});
}

ProgramRun run_program(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                       std::chrono::milliseconds timeout) {
  const TempDir folder("xpon-run");
  ProgramRun run;
  {
    Process process(argv, environment, folder.file("stdout"), folder.file("stderr"));
    run.end = process.wait(timeout);
  }  // a program still running here is killed and reaped
  run.output = read_text_file(folder.file("stdout"));
  run.errors = read_text_file(folder.file("stderr"));
  return run;
}

std::string read_text_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace xpon::test
