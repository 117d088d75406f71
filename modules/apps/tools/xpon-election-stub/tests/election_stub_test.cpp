// xpon-election-stub as the daemon meets it: the built program and a real xpon-ipc-bus under a
// temporary XPON_ROOT, asked and watched through the IPC library from this test process.

#include "xpon/ipc/ipc.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <signal.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
namespace ipc = xpon::ipc;
using xpon::test::Process;
using xpon::test::read_text_file;
using xpon::test::wait_until;

constexpr const char* kStub = XPON_ELECTION_STUB_PATH;
constexpr const char* kBus = XPON_IPC_BUS_PATH;
constexpr ipc::Address kElectionManager = 0x0015FFFE;
constexpr ipc::Key kMasterQuery{14500, 14504};
constexpr ipc::Key kMasterChanged{14500, 14505};

class ElectionStub : public ::testing::Test {
 protected:
  void SetUp() override {
    bus_.emplace(std::vector<std::string>{kBus}, std::vector<std::string>{}, root_.file("bus.out"),
                 root_.file("bus.err"));
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(root_.file("run/xpon/ipc/bus.sub")); }, 10s));
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(root_.file("run/xpon/ipc/bus.in")); }, 10s));
  }

  /// Starts the stub and waits until it says it serves.
  void start_stub(const std::vector<std::string>& options) {
    std::vector<std::string> arguments;
    arguments.reserve(options.size() + 1);
    arguments.emplace_back(kStub);
    for (const auto& option : options) {
      arguments.push_back(option);
    }
    stub_.emplace(arguments, std::vector<std::string>{}, root_.file("stub.out"), root_.file("stub.err"));
    ASSERT_TRUE(wait_until([&] { return stub_log().find("serving 14500:14504") != std::string::npos; }, 10s))
        << stub_log();
  }

  [[nodiscard]] std::string stub_log() const { return read_text_file(root_.file("stub.err")); }

  /// What the daemon does: the query with an empty payload, answered within a second.
  xpon::core::Result<ipc::Response> ask() {
    ipc::Request request;
    request.group = kMasterQuery.group;
    request.id = kMasterQuery.id;
    return daemon_->request(kElectionManager, request, 1000ms);
  }

  /// Subscribes to the change event and records every one; true once the subscription is known
  /// to have reached the bus (the bus forwards nothing to a subscriber before that moment).
  bool watch_changes() {
    auto subscribed = watcher_->subscribe_event(kMasterChanged, [this](const ipc::Event& event) {
      const std::lock_guard lock(mutex_);
      changes_.push_back(event.payload);
      return xpon::core::success();
    });
    if (!subscribed) {
      return false;
    }
    // A probe on a key of the watcher's own shows when its subscriptions have reached the bus.
    std::atomic<bool> seen{false};
    constexpr ipc::Key kProbe{14500, 14599};
    if (!watcher_->subscribe_event(kProbe, [&](const ipc::Event&) {
          seen = true;
          return xpon::core::success();
        })) {
      return false;
    }
    ipc::Event probe;
    probe.group = kProbe.group;
    probe.id = kProbe.id;
    const bool ready = wait_until(
        [&] {
          (void)daemon_->send_event(probe);
          return wait_until([&] { return seen.load(); }, 100ms);
        },
        10s);
    (void)watcher_->unsubscribe_event(kProbe);
    return ready;
  }

  std::vector<ipc::Payload> changes() {
    const std::lock_guard lock(mutex_);
    return changes_;
  }

  /// Writes the master file in one step, as an editor or a script with mv would.
  void write_master_file(const std::string& text) const {
    const std::string staged = root_.file("master.new");
    {
      std::ofstream out(staged);
      out << text;
    }
    std::filesystem::rename(staged, master_file());
  }

  [[nodiscard]] std::string master_file() const { return root_.file("master"); }

  xpon::test::TempRoot root_{"xpon-election-stub"};
  xpon::test::ScopedEnv no_slot_{"XPON_SLOT", std::nullopt};
  std::optional<Process> bus_;
  std::optional<Process> stub_;
  // Before the endpoints, so that the watcher's delivery thread has stopped when they go.
  std::mutex mutex_;
  std::vector<ipc::Payload> changes_;
  std::shared_ptr<ipc::IIpc> daemon_ = ipc::make_zmq_ipc(0x0019FFFE, "test-daemon");
  std::shared_ptr<ipc::IIpc> watcher_ = ipc::make_zmq_ipc(0x0042FFFE, "test-watcher");
};

TEST_F(ElectionStub, AnswersTheQueryWithTheConfiguredSlot) {
  ASSERT_NO_FATAL_FAILURE(start_stub({"--master", "5", "--verbose"}));
  const auto answer = ask();
  ASSERT_TRUE(answer.has_value()) << stub_log();
  EXPECT_EQ(answer.value().result, 1U);
  EXPECT_EQ(answer.value().payload, (ipc::Payload{0x05, 0x00}));
  // The line is written just after the answer is sent.
  const std::string expected =
      "xpon-election-stub: master slot 5 announced, published 14500:14505\n"
      "xpon-election-stub: serving 14500:14504 at 0x0015fffe, master slot 5\n"
      "xpon-election-stub: answered the query of 0x0019fffe: master slot 5\n";
  EXPECT_TRUE(wait_until([&] { return stub_log() == expected; }, 5s)) << stub_log();
}

TEST_F(ElectionStub, DefaultMasterIsSlotTwentyOneAndAnswersAreNotLoggedWithoutVerbose) {
  ASSERT_NO_FATAL_FAILURE(start_stub({}));
  const auto answer = ask();
  ASSERT_TRUE(answer.has_value()) << stub_log();
  EXPECT_EQ(answer.value().result, 1U);
  EXPECT_EQ(answer.value().payload, (ipc::Payload{0x15, 0x00}));
  EXPECT_EQ(stub_log(),
            "xpon-election-stub: master slot 21 announced, published 14500:14505\n"
            "xpon-election-stub: serving 14500:14504 at 0x0015fffe, master slot 21\n");
}

TEST_F(ElectionStub, WritingTheMasterFileChangesTheAnswerAndPublishesOneEvent) {
  write_master_file("21\n");
  ASSERT_NO_FATAL_FAILURE(start_stub({"--master-file", master_file()}));
  ASSERT_TRUE(watch_changes());

  write_master_file("300\n");
  ASSERT_TRUE(wait_until(
      [&] {
        return !changes().empty() && changes().back() == ipc::Payload{0x2C, 0x01};
      },
      5s))
      << stub_log();
  const auto answer = ask();
  ASSERT_TRUE(answer.has_value()) << stub_log();
  EXPECT_EQ(answer.value().payload, (ipc::Payload{0x2C, 0x01}));
  // Several polls later there is still only the one event.
  std::this_thread::sleep_for(600ms);
  auto seen = changes();
  // The announcement at start may reach the watcher or not: it was published about when the
  // watcher subscribed.
  if (!seen.empty() && seen.front() == ipc::Payload{0x15, 0x00}) {
    seen.erase(seen.begin());
  }
  EXPECT_EQ(seen, (std::vector<ipc::Payload>{{0x2C, 0x01}}));
  const std::string expected =
      "xpon-election-stub: master slot 21 announced, published 14500:14505\n"
      "xpon-election-stub: serving 14500:14504 at 0x0015fffe, master slot 21\n"
      "xpon-election-stub: master slot 21 -> 300, published 14500:14505\n";
  EXPECT_TRUE(wait_until([&] { return stub_log() == expected; }, 5s)) << stub_log();
}

TEST_F(ElectionStub, SigusrOneRereadsTheFileAndDoesNotEndIt) {
  write_master_file("22");
  ASSERT_NO_FATAL_FAILURE(start_stub({"--master", "21", "--master-file", master_file()}));
  // The file's valid content wins over --master at start; that is a change like any other.
  // ... and it is the only event published at start.
  EXPECT_EQ(stub_log(),
            "xpon-election-stub: master slot 21 -> 22, published 14500:14505\n"
            "xpon-election-stub: serving 14500:14504 at 0x0015fffe, master slot 22\n");
  ASSERT_TRUE(watch_changes());
  write_master_file("7");
  ASSERT_TRUE(stub_->signal(SIGUSR1));
  // The event of the change at start may reach the watcher too, or not: it was published about
  // when the watcher subscribed.
  ASSERT_TRUE(wait_until(
      [&] {
        return !changes().empty() && changes().back() == ipc::Payload{0x07, 0x00};
      },
      5s))
      << stub_log();
  const auto answer = ask();
  ASSERT_TRUE(answer.has_value()) << stub_log();
  EXPECT_EQ(answer.value().payload, (ipc::Payload{0x07, 0x00}));
  EXPECT_TRUE(stub_->running());
}

TEST_F(ElectionStub, ABadFileContentKeepsTheOldMaster) {
  ASSERT_NO_FATAL_FAILURE(start_stub({"--master", "3", "--master-file", master_file()}));
  ASSERT_TRUE(watch_changes());
  write_master_file("slot 9\n");
  const std::string refusal = "xpon-election-stub: master file " + master_file() +
                              ": 'slot 9' is not a slot (a decimal number from 0 to 65533); master stays 3\n";
  ASSERT_TRUE(wait_until([&] { return stub_log().find(refusal) != std::string::npos; }, 5s)) << stub_log();
  write_master_file("65534");
  ASSERT_TRUE(wait_until([&] { return stub_log().find("'65534' is not a slot") != std::string::npos; }, 5s))
      << stub_log();
  const auto answer = ask();
  ASSERT_TRUE(answer.has_value()) << stub_log();
  EXPECT_EQ(answer.value().payload, (ipc::Payload{0x03, 0x00}));
  // No change was published. The announcement at start may reach the watcher or not: it was
  // published about when the watcher subscribed.
  const auto seen = changes();
  EXPECT_LE(seen.size(), 1U);
  for (const auto& payload : seen) {
    EXPECT_EQ(payload, (ipc::Payload{0x03, 0x00}));
  }
  // One line per bad content, not one per poll.
  std::this_thread::sleep_for(600ms);
  EXPECT_EQ(stub_log(),
            "xpon-election-stub: master slot 3 announced, published 14500:14505\n"
            "xpon-election-stub: serving 14500:14504 at 0x0015fffe, master slot 3\n" +
                refusal + "xpon-election-stub: master file " + master_file() +
                ": '65534' is not a slot (a decimal number from 0 to 65533); master stays 3\n");
}

TEST_F(ElectionStub, SigtermAndSigintEndItWithStatusZero) {
  ASSERT_NO_FATAL_FAILURE(start_stub({}));
  EXPECT_TRUE(stub_->stop(SIGTERM, 10s).exited_with(0)) << stub_log();
  ASSERT_NO_FATAL_FAILURE(start_stub({}));
  EXPECT_TRUE(stub_->stop(SIGINT, 10s).exited_with(0)) << stub_log();
}

TEST_F(ElectionStub, HelpAndBadOptions) {
  const auto help = xpon::test::run_program({kStub, "--help"});
  ASSERT_TRUE(help.end.has_value());
  EXPECT_TRUE(help.end->exited_with(0));
  EXPECT_NE(help.output.find("A stand-in for the platform's Election Manager"), std::string::npos) << help.output;

  const auto bad_master = xpon::test::run_program({kStub, "--master", "0x15"});
  ASSERT_TRUE(bad_master.end.has_value());
  EXPECT_TRUE(bad_master.end->exited_with(2));
  EXPECT_EQ(bad_master.errors,
            "xpon-election-stub: --master: '0x15' is not a slot (a decimal number from 0 to 65533)\n");

  const auto unknown = xpon::test::run_program({kStub, "--frobnicate"});
  ASSERT_TRUE(unknown.end.has_value());
  EXPECT_TRUE(unknown.end->exited_with(2));
  EXPECT_NE(unknown.errors.find("--frobnicate"), std::string::npos) << unknown.errors;
}

}  // namespace
