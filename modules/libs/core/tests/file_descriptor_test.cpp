#include "xpon/core/file_descriptor.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace xpon::core {
namespace {

bool is_open(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) >= 0;
}

int open_null() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// ---------------------------------------------------------------------------------------------
// Ownership

static_assert(!std::is_copy_constructible_v<FileDescriptor>);
static_assert(!std::is_copy_assignable_v<FileDescriptor>);
static_assert(std::is_nothrow_move_constructible_v<FileDescriptor>);
static_assert(std::is_nothrow_move_assignable_v<FileDescriptor>);

TEST(FileDescriptor, AnEmptyObjectOwnsNothing) {
  const FileDescriptor empty;
  EXPECT_EQ(empty.get(), -1);
  EXPECT_FALSE(empty.valid());
  EXPECT_FALSE(static_cast<bool>(empty));
}

TEST(FileDescriptor, AFailedOpenMakesAnEmptyObject) {
  const FileDescriptor failed(::open("/nonexistent/file", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(failed.get(), -1);
  EXPECT_FALSE(failed.valid());
}

TEST(FileDescriptor, DestructionClosesTheDescriptor) {
  int number = -1;
  {
    const FileDescriptor owner(open_null());
    number = owner.get();
    ASSERT_GE(number, 0);
    EXPECT_TRUE(owner.valid());
    EXPECT_TRUE(is_open(number));
  }
  EXPECT_FALSE(is_open(number));
}

TEST(FileDescriptor, MovingHandsTheDescriptorOverAndTheSourceClosesNothing) {
  FileDescriptor source(open_null());
  const int number = source.get();
  ASSERT_GE(number, 0);
  {
    const FileDescriptor target(std::move(source));
    EXPECT_EQ(target.get(), number);
    EXPECT_EQ(source.get(), -1);  // NOLINT(bugprone-use-after-move): a moved-from object is empty
    source.reset();               // an empty object closes nothing
    EXPECT_TRUE(is_open(number));
  }
  EXPECT_FALSE(is_open(number));
}

TEST(FileDescriptor, MoveAssignmentClosesTheOldDescriptorOnce) {
  FileDescriptor target(open_null());
  FileDescriptor source(open_null());
  const int old_number = target.get();
  const int new_number = source.get();
  target = std::move(source);
  EXPECT_FALSE(is_open(old_number));
  EXPECT_EQ(target.get(), new_number);
  EXPECT_TRUE(is_open(new_number));
  // The old number is free now; whatever takes it next must not be closed by anyone here.
  const FileDescriptor reuser(open_null());
  EXPECT_EQ(reuser.get(), old_number);
  target.reset();
  source.reset();  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(is_open(reuser.get()));
}

TEST(FileDescriptor, SelfMoveKeepsTheDescriptorOpen) {
  FileDescriptor owner(open_null());
  const int number = owner.get();
  FileDescriptor& alias = owner;
  owner = std::move(alias);
  EXPECT_EQ(owner.get(), number);
  EXPECT_TRUE(is_open(number));
}

TEST(FileDescriptor, ReleaseGivesTheDescriptorUpUnclosed) {
  int number = -1;
  {
    FileDescriptor owner(open_null());
    number = owner.release();
    EXPECT_EQ(owner.get(), -1);
  }
  ASSERT_GE(number, 0);
  EXPECT_TRUE(is_open(number));
  ::close(number);
}

TEST(FileDescriptor, ResetClosesTheOldAndOwnsTheNew) {
  FileDescriptor owner(open_null());
  const int old_number = owner.get();
  const int new_number = open_null();
  owner.reset(new_number);
  EXPECT_FALSE(is_open(old_number));
  EXPECT_EQ(owner.get(), new_number);
  owner.reset();
  EXPECT_FALSE(is_open(new_number));
  EXPECT_EQ(owner.get(), -1);
}

TEST(FileDescriptor, ResetToTheOwnedDescriptorKeepsItOpen) {
  FileDescriptor owner(open_null());
  const int number = owner.get();
  owner.reset(number);
  EXPECT_EQ(owner.get(), number);
  EXPECT_TRUE(is_open(number));
}

TEST(FileDescriptor, ResetAndDestructionKeepErrno) {
  FileDescriptor owner(open_null());
  // Closed behind the owner's back, so that its own close fails with EBADF.
  ASSERT_EQ(::close(owner.get()), 0);
  errno = ENOENT;
  owner.reset();
  EXPECT_EQ(errno, ENOENT);
}

TEST(FileDescriptor, CloseReportsSuccessAndEmptiesTheObject) {
  FileDescriptor owner(open_null());
  const int number = owner.get();
  errno = ENOENT;
  EXPECT_EQ(owner.close(), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(owner.valid());
  EXPECT_FALSE(is_open(number));
}

TEST(FileDescriptor, AFailedCloseIsReportedAndNeverRepeated) {
  FileDescriptor owner(open_null());
  ASSERT_EQ(::close(owner.get()), 0);
  EXPECT_EQ(owner.close(), EBADF);
  EXPECT_FALSE(owner.valid());
  // Nothing is left to close: a descriptor opened since under the same number stays open.
  const FileDescriptor reuser(open_null());
  owner.reset();
  EXPECT_TRUE(is_open(reuser.get()));
}

TEST(FileDescriptor, ClosingAnEmptyObjectGivesEbadf) {
  FileDescriptor empty;
  EXPECT_EQ(empty.close(), EBADF);
}

// ---------------------------------------------------------------------------------------------
// The system-call seam: scripted results for read, write and close.

struct Step {
  ssize_t result;  // what the call returns
  int error;       // errno when result < 0
};

struct Script {
  std::deque<Step> steps;
  std::vector<std::size_t> sizes;  // the size of each call
  std::vector<int> descriptors;    // the descriptor of each call
  std::string written;             // what the write calls took
  char next_byte = 'a';
};

Script script;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables): the seam's functions are plain pointers

/// The next scripted step; a call beyond the script fails the test and the call (EBADF).
Step next_step() {
  if (script.steps.empty()) {
    ADD_FAILURE() << "a call beyond the script";
    return {-1, EBADF};
  }
  const Step step = script.steps.front();
  script.steps.pop_front();
  return step;
}

/// Records one read or write call and gives its step, with errno set when the step fails.
Step scripted_transfer(int descriptor, std::size_t size) {
  script.sizes.push_back(size);
  script.descriptors.push_back(descriptor);
  const Step step = next_step();
  if (step.result < 0) {
    errno = step.error;
  }
  return step;
}

ssize_t scripted_read(int descriptor, void* buffer, std::size_t size) {
  const Step step = scripted_transfer(descriptor, size);
  auto* bytes = static_cast<char*>(buffer);
  for (ssize_t i = 0; i < step.result; ++i) {
    bytes[i] = script.next_byte++;
  }
  return step.result;
}

ssize_t scripted_write(int descriptor, const void* data, std::size_t size) {
  const Step step = scripted_transfer(descriptor, size);
  if (step.result > 0) {
    script.written.append(static_cast<const char*>(data), static_cast<std::size_t>(step.result));
  }
  return step.result;
}

int scripted_close(int descriptor) {
  script.descriptors.push_back(descriptor);
  const Step step = next_step();
  if (step.result < 0) {
    errno = step.error;
    return -1;
  }
  return 0;
}

class FileDescriptorSeam : public ::testing::Test {
 protected:
  void SetUp() override { script = Script{}; }
  void TearDown() override { EXPECT_TRUE(script.steps.empty()) << "calls scripted but not made"; }
};

TEST_F(FileDescriptorSeam, ReadFullRetriesInterruptedReadsAndJoinsShortOnes) {
  script.steps = {{-1, EINTR}, {3, 0}, {-1, EINTR}, {-1, EINTR}, {5, 0}};
  std::array<char, 8> buffer{};
  EXPECT_EQ(detail::read_full(scripted_read, 7, buffer.data(), buffer.size()), 8);
  EXPECT_EQ(std::string(buffer.data(), buffer.size()), "abcdefgh");
  EXPECT_EQ(script.sizes, (std::vector<std::size_t>{8, 8, 5, 5, 5}));
  EXPECT_EQ(script.descriptors, (std::vector<int>(5, 7)));
}

TEST_F(FileDescriptorSeam, ReadFullStopsAtTheEndOfTheFile) {
  script.steps = {{2, 0}, {0, 0}};
  std::array<char, 8> buffer{};
  EXPECT_EQ(detail::read_full(scripted_read, 3, buffer.data(), buffer.size()), 2);
  EXPECT_EQ(script.sizes, (std::vector<std::size_t>{8, 6}));
}

TEST_F(FileDescriptorSeam, ReadFullReportsAFailureWithItsErrno) {
  script.steps = {{4, 0}, {-1, EINTR}, {-1, EIO}};
  std::array<char, 8> buffer{};
  errno = 0;
  EXPECT_EQ(detail::read_full(scripted_read, 3, buffer.data(), buffer.size()), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(FileDescriptorSeam, ReadFullOfNothingCallsNothing) {
  std::array<char, 1> buffer{};
  EXPECT_EQ(detail::read_full(scripted_read, 3, buffer.data(), 0), 0);
  EXPECT_TRUE(script.sizes.empty());
}

TEST_F(FileDescriptorSeam, WriteFullContinuesAfterPartialWrites) {
  script.steps = {{3, 0}, {-1, EINTR}, {1, 0}, {6, 0}};
  const std::string text = "0123456789";
  EXPECT_EQ(detail::write_full(scripted_write, 5, text.data(), text.size()), 10);
  EXPECT_EQ(script.written, text);
  EXPECT_EQ(script.sizes, (std::vector<std::size_t>{10, 7, 7, 6}));
}

TEST_F(FileDescriptorSeam, WriteFullReportsAFailureWithItsErrno) {
  script.steps = {{2, 0}, {-1, EPIPE}};
  const std::string text = "0123";
  errno = 0;
  EXPECT_EQ(detail::write_full(scripted_write, 5, text.data(), text.size()), -1);
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(FileDescriptorSeam, AWriteThatTakesNothingFailsWithEio) {
  script.steps = {{1, 0}, {0, 0}};
  const std::string text = "0123";
  errno = 0;
  EXPECT_EQ(detail::write_full(scripted_write, 5, text.data(), text.size()), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(FileDescriptorSeam, WriteFullRetriesAnInterruptedFirstWrite) {
  script.steps = {{-1, EINTR}, {4, 0}};
  const std::string text = "0123";
  EXPECT_EQ(detail::write_full(scripted_write, 5, text.data(), text.size()), 4);
  EXPECT_EQ(script.written, text);
  EXPECT_EQ(script.sizes, (std::vector<std::size_t>{4, 4}));
}

TEST_F(FileDescriptorSeam, OnceHelpersRetryOnlyInterruptions) {
  script.steps = {{-1, EINTR}, {2, 0}, {-1, EINTR}, {-1, EAGAIN}};
  std::array<char, 8> buffer{};
  EXPECT_EQ(detail::read_once(scripted_read, 4, buffer.data(), buffer.size()), 2);
  EXPECT_EQ(detail::write_once(scripted_write, 4, buffer.data(), buffer.size()), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(script.sizes, (std::vector<std::size_t>{8, 8, 8, 8}));
}

TEST_F(FileDescriptorSeam, AnInterruptedCloseCountsAsClosedAndIsNotRepeated) {
  script.steps = {{-1, EINTR}};
  errno = ENOENT;
  EXPECT_EQ(detail::close_once(scripted_close, 9), 0);
  EXPECT_EQ(script.descriptors, (std::vector<int>{9}));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileDescriptorSeam, AFailedCloseIsReportedOnceAndKeepsErrno) {
  script.steps = {{-1, EIO}};
  errno = ENOENT;
  EXPECT_EQ(detail::close_once(scripted_close, 9), EIO);
  EXPECT_EQ(script.descriptors, (std::vector<int>{9}));
  EXPECT_EQ(errno, ENOENT);
}

// ---------------------------------------------------------------------------------------------
// Real pipes interrupted by a real signal

std::atomic<int> signals_caught{0};

void count_signal(int /*signal*/) {
  signals_caught.fetch_add(1);
}

/// Installs a SIGUSR1 handler without SA_RESTART, so that a blocked read or write is interrupted.
class InterruptingSignal : public ::testing::Test {
 protected:
  void SetUp() override {
    signals_caught.store(0);
    struct sigaction action {};
    action.sa_handler = count_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &old_action_), 0);
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    read_end_.reset(ends[0]);
    write_end_.reset(ends[1]);
  }

  void TearDown() override {
    if (worker_.joinable()) {
      worker_.join();
    }
    ::sigaction(SIGUSR1, &old_action_, nullptr);
  }

  /// Runs `call` (a read or write on the pipe) on a thread of its own, whose result and errno
  /// are kept for finish().
  void start(std::function<ssize_t()> call) {
    worker_ = std::thread([this, call = std::move(call)] {
      worker_id_.store(static_cast<pid_t>(::syscall(SYS_gettid)));
      result_ = call();
      error_ = errno;
      finished_.store(true);
    });
    while (worker_id_.load() == 0) {
      std::this_thread::yield();
    }
  }

  /// Waits until the thread sleeps (blocked in the pipe), then interrupts it once; returns at
  /// once when the thread has finished its call.
  void interrupt_when_blocked() {
    const std::string stat_path = "/proc/self/task/" + std::to_string(worker_id_.load()) + "/stat";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      if (finished_.load()) {
        return;
      }
      std::ifstream stat(stat_path);
      std::string line;
      std::getline(stat, line);
      const auto name_end = line.rfind(')');
      if (name_end != std::string::npos && name_end + 2 < line.size() && line[name_end + 2] == 'S') {
        break;
      }
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the thread never blocked";
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const int before = signals_caught.load();
    ASSERT_EQ(::pthread_kill(worker_.native_handle(), SIGUSR1), 0);
    while (signals_caught.load() == before && !finished_.load()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  /// Waits for the thread's call and checks that it moved `expected` bytes.
  void finish(ssize_t expected) {
    worker_.join();
    EXPECT_EQ(result_, expected) << std::strerror(error_);
  }

  FileDescriptor read_end_;
  FileDescriptor write_end_;

 private:
  struct sigaction old_action_ {};
  std::thread worker_;
  std::atomic<pid_t> worker_id_{0};
  std::atomic<bool> finished_{false};
  ssize_t result_ = 0;
  int error_ = 0;
};

TEST_F(InterruptingSignal, ReadFullWaitsThroughSignalsForTheWholeRecord) {
  std::array<char, 8> record{};
  start([&] { return read_full(read_end_.get(), record.data(), record.size()); });
  interrupt_when_blocked();
  EXPECT_EQ(::write(write_end_.get(), "abcd", 4), 4);
  interrupt_when_blocked();
  EXPECT_EQ(::write(write_end_.get(), "efgh", 4), 4);
  finish(8);
  EXPECT_EQ(std::string(record.data(), record.size()), "abcdefgh");
  EXPECT_EQ(signals_caught.load(), 2);
}

TEST_F(InterruptingSignal, WriteFullDeliversEverythingThroughSignalsAndPartialWrites) {
  // A small pipe: the writer blocks again and again, and a signal then cuts a write short.
  ASSERT_GE(::fcntl(write_end_.get(), F_SETPIPE_SZ, 4096), 0);
  std::vector<std::uint8_t> data(std::size_t{256} * 1024);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  }
  start([&] {
    const ssize_t written = write_full(write_end_.get(), data.data(), data.size());
    // The writer ends the pipe when it returns, so the reading below stops even if it gave up early.
    const int error = errno;
    write_end_.reset();
    errno = error;
    return written;
  });
  std::vector<std::uint8_t> received;
  std::array<std::uint8_t, 1500> chunk{};
  int interruptions = 0;
  while (received.size() < data.size()) {
    if (interruptions < 20) {
      interrupt_when_blocked();
      ++interruptions;
    }
    const ssize_t count = ::read(read_end_.get(), chunk.data(), chunk.size());
    if (count <= 0) {
      break;
    }
    received.insert(received.end(), chunk.begin(), chunk.begin() + count);
  }
  finish(static_cast<ssize_t>(data.size()));
  EXPECT_TRUE(received == data);
  EXPECT_EQ(signals_caught.load(), 20);
}

TEST_F(InterruptingSignal, ReadFullStopsAtTheEndOfAPipe) {
  ASSERT_EQ(::write(write_end_.get(), "xyz", 3), 3);
  write_end_.reset();
  std::array<char, 8> buffer{};
  EXPECT_EQ(read_full(read_end_.get(), buffer.data(), buffer.size()), 3);
  EXPECT_EQ(std::string(buffer.data(), 3), "xyz");
}

TEST_F(InterruptingSignal, WriteFullToAPipeWithoutReaderFailsWithEpipe) {
  read_end_.reset();
  struct sigaction ignore {};
  struct sigaction old {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &old), 0);
  errno = 0;
  const ssize_t result = write_full(write_end_.get(), "abc", 3);
  const int error = errno;
  ::sigaction(SIGPIPE, &old, nullptr);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, EPIPE);
}

}  // namespace
}  // namespace xpon::core
