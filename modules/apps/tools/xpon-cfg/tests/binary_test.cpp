#include "xpon/ipc/paths.hpp"
#include "xpon/test/cfgdb_sandbox.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>
#include <zmq.hpp>

namespace xpon::cfg_tool {
namespace {

using ::testing::ElementsAreArray;

// Runs the installed-form program, as an operator would, under the test's sandbox root.
class CfgToolProgram : public xpon::test::CfgDbSandbox {
 protected:
  int run_program(const std::string& arguments, const std::string& input = "/dev/null") {
    const std::string command =
        std::string(XPON_CFG_PROGRAM) + " " + arguments + " >" + root_ + "/out 2>" + root_ + "/err <" + input;
    const int status = std::system(command.c_str());
    out_ = slurp(root_ + "/out");
    err_ = slurp(root_ + "/err");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string out_;
  std::string err_;
};

TEST_F(CfgToolProgram, HelpExitsZero) {
  EXPECT_EQ(run_program("--help"), 0);
  EXPECT_THAT(out_, ::testing::HasSubstr("Usage: xpon-cfg [OPTIONS] SUBCOMMAND"));
}

TEST_F(CfgToolProgram, ShowExitsZero) {
  EXPECT_EQ(run_program("show ALARM_SYSTEM_RAM"), 0);
  EXPECT_EQ(out_, "ALARM_SYSTEM_RAM (77)\n  threshold = 10\n");
}

TEST_F(CfgToolProgram, RefusalsExitTwo) {
  EXPECT_EQ(run_program("set ALARM_SYSTEM_RAM threshold=500"), 2);
  EXPECT_EQ(err_, "xpon-cfg: ALARM_SYSTEM_RAM: threshold=500 is out of range 0..100\n");
  EXPECT_EQ(run_program("set NOPE threshold=5"), 2);
  EXPECT_EQ(err_, "xpon-cfg: unknown section 'NOPE'\n");
  EXPECT_EQ(run_program("set ALARM_SYSTEM_RAM level=5"), 2);
  EXPECT_EQ(err_, "xpon-cfg: ALARM_SYSTEM_RAM: unknown field 'level'\n");
  EXPECT_EQ(run_program("set ALARM_SYSTEM_RAM threshold=5x"), 2);
  EXPECT_EQ(err_, "xpon-cfg: ALARM_SYSTEM_RAM: threshold='5x' is not a number\n");
  EXPECT_EQ(run_program(""), 2);
  EXPECT_EQ(run_program("show ALARM_SYSTEM_RAM"), 0);
  EXPECT_EQ(out_, "ALARM_SYSTEM_RAM (77)\n  threshold = 10\n") << "nothing was written";
}

TEST_F(CfgToolProgram, ImportReadsStandardInputAllOrNothing) {
  const std::string bad = root_ + "/bad.json";
  std::ofstream(bad) << R"({"ALARM_DISK_SPACE": {"threshold": 20}, "ALARM_SYSTEM_RAM": {"threshold": 200}})";
  EXPECT_EQ(run_program("import -", bad), 2);
  EXPECT_EQ(err_, "xpon-cfg: ALARM_SYSTEM_RAM: threshold=200 is out of range 0..100\n");
  EXPECT_EQ(run_program("show 78"), 0);
  EXPECT_EQ(out_, "ALARM_DISK_SPACE (78)\n  threshold = 10\n") << "nothing was written";

  const std::string good = root_ + "/good.json";
  std::ofstream(good) << R"({"ALARM_DISK_SPACE": {"threshold": 20}})";
  EXPECT_EQ(run_program("import -", good), 0) << err_;
  EXPECT_EQ(out_, "ALARM_DISK_SPACE (78): changed\n");
  EXPECT_EQ(run_program("show 78"), 0);
  EXPECT_EQ(out_, "ALARM_DISK_SPACE (78)\n  threshold = 20\n");
}

TEST_F(CfgToolProgram, DatabaseThatCannotBeOpenedExitsOne) {
  std::ofstream(root_ + "/var") << "not a directory";
  EXPECT_EQ(run_program("show"), 1);
  EXPECT_EQ(err_,
            "xpon-cfg: configuration database /var/lib/xpon/cfgdb.sqlite3: cannot create its directory: Not a "
            "directory\n");
}

// The bus end is played by a PULL socket at the bus inlet, so the frames the program pushes
// are checked byte for byte as they leave it.
TEST_F(CfgToolProgram, SetPublishesTheChangeEventOnTheBus) {
  ipc::ensure_ipc_directory();
  zmq::context_t context;
  zmq::socket_t bus(context, zmq::socket_type::pull);
  bus.set(zmq::sockopt::rcvtimeo, 5000);
  bus.set(zmq::sockopt::linger, 0);
  bus.bind(ipc::bus_in_endpoint());

  ASSERT_EQ(run_program("set ALARM_SYSTEM_LOAD_AVERAGE threshold=250"), 0) << err_;
  EXPECT_EQ(out_, "ALARM_SYSTEM_LOAD_AVERAGE (80): changed\n");

  std::vector<std::vector<std::uint8_t>> frames;
  do {
    zmq::message_t frame;
    ASSERT_TRUE(bus.recv(frame)) << "no event reached the bus";
    frames.emplace_back(frame.data<std::uint8_t>(), frame.data<std::uint8_t>() + frame.size());
    if (!frame.more()) {
      break;
    }
  } while (true);
  ASSERT_EQ(frames.size(), 3U);
  EXPECT_THAT(frames[0], ElementsAreArray<std::uint8_t>({0x2A, 0xF8, 0x2A, 0xF9}));
  EXPECT_THAT(frames[1],
              ElementsAreArray<std::uint8_t>({1,    3,    0,    0,    0xFE, 0xFF, 0x11, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                                              0xF8, 0x2A, 0xF9, 0x2A, 0,    0,    0,    0,    0,    0,    0,    0}));
  EXPECT_THAT(frames[2], ElementsAreArray<std::uint8_t>({80, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

}  // namespace
}  // namespace xpon::cfg_tool
