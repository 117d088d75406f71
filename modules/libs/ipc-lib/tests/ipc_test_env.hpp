#pragma once

// Helpers of the IPC component tests: a temporary XPON_ROOT, a real xpon-ipc-bus process and
// polling with a deadline.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "xpon/ipc/ipc.hpp"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace xpon::ipc::test {

/// The answer of an echoing handler: the request's own payload, result 1, the request's tag.
inline Response echo_response(const Request& request) {
  Response response;
  response.payload = request.payload;
  response.reply_tag = request.reply_to.value().tag;
  response.result = 1;
  return response;
}

/// A fresh directory used as $XPON_ROOT for as long as the object lives.
class TempRoot {
 public:
  TempRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "xpon-ipc-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
    ::setenv("XPON_ROOT", path_.c_str(), 1);
  }
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;
  ~TempRoot() {
    ::unsetenv("XPON_ROOT");
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// Runs a program with the current environment; kills it (SIGKILL) if it still runs at destruction.
class Process {
 public:
  explicit Process(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (auto& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    if (::posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
      throw std::runtime_error("cannot start " + arguments[0]);
    }
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (pid_ > 0) {
      kill(SIGKILL);
    }
  }

  /// Sends the signal and waits for the end; returns the wait status.
  int kill(int signal) {
    ::kill(pid_, signal);
    return wait();
  }

  /// Waits for the end; returns the wait status.
  int wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }

  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

/// Polls the condition until it holds or the time is up; returns its last value.
inline bool wait_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

}  // namespace xpon::ipc::test
