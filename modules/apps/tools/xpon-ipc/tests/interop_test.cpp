// The wire format is a contract with programs that do not use our library: these tests talk to
// xpon-ipc and xpon-ipc-bus through bare cppzmq sockets and hand-written header bytes only.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Bytes = std::vector<std::uint8_t>;
using std::chrono::milliseconds;

class Interop : public ::testing::Test {
 protected:
  void SetUp() override {
    temp_root_.emplace("xpon-ipc-interop");
    root_ = temp_root_->path();
    bus_ = spawn({XPON_IPC_BUS_PATH}, root_ + "/bus.out");
    ASSERT_TRUE(xpon::test::wait_until([&] { return std::filesystem::exists(ipc_dir() + "/bus.in"); }));
  }

  void TearDown() override {
    for (const pid_t pid : children_) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    temp_root_.reset();
  }

  [[nodiscard]] std::string ipc_dir() const { return root_ + "/run/xpon/ipc"; }
  [[nodiscard]] std::string endpoint(const std::string& name) const { return "ipc://" + ipc_dir() + "/" + name; }

  /// Starts a program with stdout and stderr into a file; the test ends it in TearDown at the latest.
  pid_t spawn(std::vector<std::string> arguments, const std::string& output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (auto& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int failed = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
      throw std::runtime_error("cannot start " + arguments[0]);
    }
    children_.push_back(pid);
    return pid;
  }

  /// Runs a program to its end; returns its exit status (or -1) and fills its output.
  int run(std::vector<std::string> arguments, std::string& output) {
    const std::string file = root_ + "/run.out";
    const pid_t pid = spawn(std::move(arguments), file);
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::erase(children_, pid);
    output = read_file(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  /// Whether `xpon-ipc serve` says it serves: its handler is subscribed by then, not only its inbox bound.
  bool serving() {
    return xpon::test::wait_until([&] {
      return read_file(root_ + "/serve.out").find("xpon-ipc: serving 14500:14504 at 0x0015fffe\n") != std::string::npos;
    });
  }

  std::optional<xpon::test::TempRoot> temp_root_;
  std::string root_;
  std::vector<pid_t> children_;
  pid_t bus_ = -1;
};

Bytes frame_bytes(const zmq::message_t& message) {
  const auto* data = message.data<std::uint8_t>();
  return {data, data + message.size()};
}

TEST_F(Interop, RawClientQueriesXponIpcServe) {
  spawn({XPON_IPC_TOOL_PATH, "serve", "--address", "0x0015FFFE", "--key", "14500:14504", "--reply", "1500"},
        root_ + "/serve.out");
  ASSERT_TRUE(serving());

  zmq::context_t context;
  zmq::socket_t inbox(context, zmq::socket_type::router);
  inbox.set(zmq::sockopt::linger, 0);
  inbox.bind(endpoint("0019fffe"));
  zmq::socket_t out(context, zmq::socket_type::dealer);
  out.set(zmq::sockopt::linger, 0);
  out.connect(endpoint("0015fffe"));
  // version 1, kind 1 (request), flags 1 (reply wanted), source 0x0019FFFE, address 0x0015FFFE,
  // group 14500, id 14504, reply tag 0x0102, reserved 0, result 0.
  const Bytes request{0x01, 0x01, 0x01, 0x00, 0xFE, 0xFF, 0x19, 0x00, 0xFE, 0xFF, 0x15, 0x00,
                      0xA4, 0x38, 0xA8, 0x38, 0x02, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  out.send(zmq::buffer(request), zmq::send_flags::sndmore);
  out.send(zmq::message_t(), zmq::send_flags::none);

  inbox.set(zmq::sockopt::rcvtimeo, 5000);
  std::vector<zmq::message_t> frames;
  ASSERT_TRUE(zmq::recv_multipart(inbox, std::back_inserter(frames)));
  ASSERT_EQ(frames.size(), 3U);  // identity, header, payload
  // version 1, kind 2 (response), flags 0, source 0x0015FFFE, address word 0x0000FFFE,
  // group 0, id 0, reply tag 0x0102, reserved 0, result 1.
  const Bytes expected{0x01, 0x02, 0x00, 0x00, 0xFE, 0xFF, 0x15, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                       0x00, 0x00, 0x00, 0x00, 0x02, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00};
  EXPECT_EQ(frame_bytes(frames[1]), expected);
  EXPECT_EQ(frame_bytes(frames[2]), (Bytes{0x15, 0x00}));
  EXPECT_TRUE(xpon::test::wait_until([&] {
    return read_file(root_ + "/serve.out").find("request 14500:14504 from 0x0019fffe tag 258 payload [] (0 bytes)\n") !=
           std::string::npos;
  }));
}

TEST_F(Interop, RawSubscriberReceivesEventsPublishedWithXponIpc) {
  zmq::context_t context;
  zmq::socket_t sub(context, zmq::socket_type::sub);
  sub.set(zmq::sockopt::linger, 0);
  const Bytes topic{0x3C, 0x8C, 0x3C, 0xB1};  // 15500:15537, big-endian
  sub.set(zmq::sockopt::subscribe, zmq::buffer(topic));
  sub.connect(endpoint("bus.sub"));
  sub.set(zmq::sockopt::rcvtimeo, 300);

  // The subscription reaches the bus a moment after the connection; publish until it has.
  std::vector<zmq::message_t> frames;
  for (int attempt = 0; attempt < 20 && frames.empty(); ++attempt) {
    std::string output;
    ASSERT_EQ(
        run({XPON_IPC_TOOL_PATH, "--from", "0x00420005", "publish", "--key", "15500:15537", "--payload", "c0ffee"},
            output),
        0)
        << output;
    EXPECT_EQ(output, "published event 15500:15537 from 0x00420005 address 0x0000fffe payload [c0ffee] (3 bytes)\n");
    (void)zmq::recv_multipart(sub, std::back_inserter(frames));
  }
  ASSERT_EQ(frames.size(), 3U);
  EXPECT_EQ(frame_bytes(frames[0]), topic);
  // version 1, kind 3 (event), flags 0, source 0x00420005, address word 0x0000FFFE,
  // group 15500, id 15537, reply tag 0, reserved 0, result 0.
  const Bytes expected{0x01, 0x03, 0x00, 0x00, 0x05, 0x00, 0x42, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                       0x8C, 0x3C, 0xB1, 0x3C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(frame_bytes(frames[1]), expected);
  EXPECT_EQ(frame_bytes(frames[2]), (Bytes{0xC0, 0xFF, 0xEE}));
}

TEST_F(Interop, XponIpcSendQueriesARawServer) {
  zmq::context_t context;
  zmq::socket_t inbox(context, zmq::socket_type::router);
  inbox.set(zmq::sockopt::linger, 0);
  inbox.bind(endpoint("0015fffe"));
  std::thread server([&] {
    inbox.set(zmq::sockopt::rcvtimeo, 5000);
    std::vector<zmq::message_t> frames;
    if (!zmq::recv_multipart(inbox, std::back_inserter(frames)) || frames.size() != 3 || frames[1].size() != 24) {
      return;
    }
    const Bytes header = frame_bytes(frames[1]);
    // Answer to the inbox named by the request's source word (bytes 4-7), with its tag (bytes 16-17).
    char name[9];
    std::snprintf(name, sizeof name, "%02x%02x%02x%02x", header[7], header[6], header[5], header[4]);
    zmq::socket_t reply(context, zmq::socket_type::dealer);
    reply.set(zmq::sockopt::linger, 1000);
    reply.connect(endpoint(name));
    const Bytes response{0x01, 0x02, 0x00, 0x00, 0xFE,       0xFF,       0x15, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                         0x00, 0x00, 0x00, 0x00, header[16], header[17], 0x00, 0x00, 0x01, 0x00, 0x00, 0x00};
    reply.send(zmq::buffer(response), zmq::send_flags::sndmore);
    reply.send(zmq::buffer(Bytes{0x07, 0x00}), zmq::send_flags::none);
  });
  std::string output;
  const int status = run({XPON_IPC_TOOL_PATH, "--from", "0x0019FFFE", "send", "--to", "0x0015FFFE", "--key",
                          "14500:14504", "--timeout", "5000"},
                         output);
  server.join();
  EXPECT_EQ(status, 0) << output;
  EXPECT_EQ(output, "response from 0x0015fffe: result 1 tag 1 address 0x0000fffe payload [0700] (2 bytes)\n");
}

TEST_F(Interop, XponIpcWatchPrintsEventsOfARawPublisher) {
  const pid_t watcher =
      spawn({XPON_IPC_TOOL_PATH, "--json", "watch", "--key", "9000", "--count", "1"}, root_ + "/watch.out");
  zmq::context_t context;
  zmq::socket_t push(context, zmq::socket_type::push);
  push.set(zmq::sockopt::linger, 0);
  push.connect(endpoint("bus.in"));
  const Bytes header{0x01, 0x03, 0x00, 0x00, 0x03, 0x00, 0x19, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                     0x28, 0x23, 0x2D, 0x23, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  int status = 0;
  // Until the watcher's subscription has reached the bus, events to it are dropped there.
  const bool ended = xpon::test::wait_until([&] {
    push.send(zmq::buffer(Bytes{0x23, 0x28, 0x23, 0x2D}), zmq::send_flags::sndmore);
    push.send(zmq::buffer(header), zmq::send_flags::sndmore);
    push.send(zmq::buffer(Bytes{0xAA}), zmq::send_flags::none);
    std::this_thread::sleep_for(milliseconds(50));
    return ::waitpid(watcher, &status, WNOHANG) == watcher;
  });
  ASSERT_TRUE(ended);
  std::erase(children_, watcher);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(read_file(root_ + "/watch.out"),
            R"({"address":"0x0000fffe","group":9000,"id":9005,"payload":"aa","slot":3,"source":"0x00190003",)"
            R"("type":"event"})"
            "\n");
}

TEST_F(Interop, SendToAnAbsentPeerTimesOutWithStatusThree) {
  std::string output;
  EXPECT_EQ(run({XPON_IPC_TOOL_PATH, "send", "--to", "0x0015FFFE", "--key", "14500:14504", "--timeout", "200"}, output),
            3);
  EXPECT_EQ(output, "xpon-ipc: no response from 0x0015fffe within 200 ms\n");
}

TEST_F(Interop, ErrorAnswerGivesStatusOne) {
  spawn(
      {XPON_IPC_TOOL_PATH, "serve", "--address", "0x0015FFFE", "--key", "14500:14504", "--reply", "", "--result", "0"},
      root_ + "/serve.out");
  ASSERT_TRUE(serving());
  std::string output;
  EXPECT_EQ(
      run({XPON_IPC_TOOL_PATH, "send", "--to", "0x0015FFFE", "--key", "14500:14504", "--timeout", "5000"}, output), 1);
  EXPECT_EQ(output, "response from 0x0015fffe: result 0 tag 1 address 0x0000fffe payload [] (0 bytes)\n");
}

TEST_F(Interop, UsageErrorsGiveStatusTwo) {
  std::string output;
  EXPECT_EQ(run({XPON_IPC_TOOL_PATH, "send", "--to", "0x0015FFFE", "--key", "14500"}, output), 2);
  EXPECT_EQ(output, "xpon-ipc: --key: expected GROUP:ID, got '14500'\n");
  EXPECT_EQ(run({XPON_IPC_TOOL_PATH, "publish", "--key", "1:2", "--payload", "abc"}, output), 2);
  EXPECT_EQ(output, "xpon-ipc: payload: 'abc' has an odd number of hex digits\n");
  EXPECT_EQ(run({XPON_IPC_TOOL_PATH, "frobnicate"}, output), 2);
  EXPECT_EQ(run({XPON_IPC_TOOL_PATH}, output), 2);
  EXPECT_EQ(run({XPON_IPC_TOOL_PATH, "--help"}, output), 0);
  EXPECT_NE(output.find("send"), std::string::npos);
}

}  // namespace
