// The CUSE mode as far as a machine without CUSE can take it: the command line, the refusal when
// the CUSE channel is missing, and the state directory. For the latter a FIFO stands in for the
// kernel's CUSE channel: it never sends CUSE_INIT, so no device appears, but the emulator serves
// board-state.json and board-control and ends on a signal as it does with a real channel. The
// character device itself needs a kernel with CUSE and root.

#include "emulator_process.hpp"
#include "xpon/test/ci_skip.hpp"

#include "xpon/test/fuse.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/sandbox.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>

namespace xpon::board_emu::test {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kScenario = R"({
  "inventory": {"cpld_version": 7, "fan_count": 2, "ps_count": 0, "temp_count": 1, "pon_port_count": 0,
                "front_port_count": 0},
  "fans": [{"speed": 100}, {"speed": 90}],
  "sensors": [{"id": 0, "temperature": 45}]
})";

TEST(CuseModeProgram, HelpDescribesTheCuseOptions) {
  const auto run = run_program({XPON_BOARD_EMU_PROGRAM, "--help"});
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_NE(run.output.find("--cuse"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("--device-name"), std::string::npos);
  EXPECT_NE(run.output.find("--state-dir"), std::string::npos);
}

TEST(CuseModeProgram, CuseOptionsNeedTheCuseMode) {
  const std::string scenario = XPON_EXAMPLES_DIR "/board-lt.json";
  for (const char* option : {"--device-name", "--state-dir"}) {
    const auto run = run_program({XPON_BOARD_EMU_PROGRAM, "--scenario", scenario, option, "x"});
    EXPECT_EQ(run.exit_status, 2) << option;
    EXPECT_NE(run.errors.find(std::string(option) + " requires --cuse"), std::string::npos) << run.errors;
  }
  const auto both = run_program({XPON_BOARD_EMU_PROGRAM, "--scenario", scenario, "--cuse", "--mount", "/tmp"});
  EXPECT_EQ(both.exit_status, 2);
  EXPECT_NE(both.errors.find("--mount excludes --cuse"), std::string::npos) << both.errors;
}

TEST(CuseModeProgram, DeviceNameMustBeAPlainName) {
  const std::string scenario = XPON_EXAMPLES_DIR "/board-lt.json";
  for (const char* name : {"a/b", "..", ""}) {
    const auto run = run_program({XPON_BOARD_EMU_PROGRAM, "--scenario", scenario, "--cuse", "--device-name", name});
    EXPECT_EQ(run.exit_status, 2) << name;
    EXPECT_NE(run.errors.find("is not a device name"), std::string::npos) << run.errors;
  }
}

TEST(CuseModeProgram, MissingCuseChannelExitsThreeNamingItAndModprobe) {
  const xpon::test::TempDir dir("xpon-emu-cuse");
  const std::string channel = dir.file("cuse");
  const std::string scenario = XPON_EXAMPLES_DIR "/board-lt.json";
  const auto run = run_program({XPON_BOARD_EMU_PROGRAM, "--scenario", scenario, "--cuse", "--cuse-device", channel,
                                "--state-dir", dir.file("state"), "--foreground"});
  EXPECT_EQ(run.exit_status, 3);
  EXPECT_NE(run.errors.find("cannot open " + channel + ": No such file or directory"), std::string::npos) << run.errors;
  EXPECT_NE(run.errors.find("modprobe cuse"), std::string::npos) << run.errors;
  // Nothing was made before the channel was found missing.
  EXPECT_FALSE(std::filesystem::exists(dir.file("state")));
}

class CuseModeStateDir : public ::testing::Test {
 protected:
  void SetUp() override {
    XPON_SKIP_OR_FAIL_IN_CI(std::string(
        ::geteuid() == 0 ? "" : "the CUSE mode runs as root: it mounts its state directory for every user"));
    XPON_SKIP_OR_FAIL_IN_CI(xpon::test::fuse_unavailable_reason());
    ASSERT_EQ(::mkfifo(channel().c_str(), 0600), 0) << std::strerror(errno);
    const std::string scenario = dir_.write("scenario.json", kScenario);
    process_.emplace(std::vector<std::string>{XPON_BOARD_EMU_PROGRAM, "--scenario", scenario, "--cuse", "--cuse-device",
                                              channel(), "--state-dir", state_dir(), "--foreground"},
                     std::vector<std::string>{}, dir_.file("emu.out"), dir_.file("emu.log"));
    const bool serving = xpon::test::wait_until(
        [&] { return !process_->running() || std::filesystem::exists(state_file("board-state.json")); },
        std::chrono::seconds(10), std::chrono::milliseconds(20));
    ASSERT_TRUE(process_->running()) << process_->end()->describe() << ": " << log();
    ASSERT_TRUE(serving) << "the state directory was not served within 10 s: " << log();
  }

  void TearDown() override {
    if (process_) {
      process_->stop(SIGTERM, std::chrono::seconds(10));
    }
    if (xpon::test::is_mount_point(state_dir())) {
      run_program({"/bin/umount", "-l", state_dir()});
    }
  }

  [[nodiscard]] std::string channel() const { return dir_.file("cuse-channel"); }
  [[nodiscard]] std::string state_dir() const { return dir_.file("state"); }
  [[nodiscard]] std::string state_file(const std::string& name) const { return state_dir() + "/" + name; }
  [[nodiscard]] std::string log() const { return read_file(dir_.file("emu.log")); }

  xpon::test::TempDir dir_{"xpon-emu-cuse"};
  std::optional<xpon::test::Process> process_;
};

TEST_F(CuseModeStateDir, ServesTheStateAndControlFilesOnly) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(state_dir())) {
    names.insert(entry.path().filename().string());
  }
  EXPECT_EQ(names, (std::set<std::string>{"board-control", "board-state.json"}));
  EXPECT_FALSE(std::filesystem::exists(state_file("board")));
  const Json state = Json::parse(read_file(state_file("board-state.json")));
  EXPECT_EQ(state["inventory"]["fan_count"], 2);
  EXPECT_EQ(state["fans"][1]["speed"], 90);
}

TEST_F(CuseModeStateDir, PatchIsAppliedAndABadOneRefused) {
  EXPECT_EQ(write_file(state_file("board-control"), R"({"fans": {"1": {"speed": 0}}})"), 0);
  EXPECT_EQ(read_file(state_file("board-control")), "ok\n");
  EXPECT_EQ(Json::parse(read_file(state_file("board-state.json")))["fans"][1]["speed"], 0);

  EXPECT_EQ(write_file(state_file("board-control"), R"({"fans": {"0": {"speed": "fast"}}})"), EINVAL);
  EXPECT_EQ(read_file(state_file("board-control")),
            "error: fans[0].speed: must be an integer from 0 to 65535, not \"fast\"\n");
  EXPECT_NE(log().find("board-control: patch refused: fans[0].speed"), std::string::npos) << log();
  EXPECT_EQ(Json::parse(read_file(state_file("board-state.json")))["fans"][0]["speed"], 100);
}

TEST_F(CuseModeStateDir, StateFileCannotBeWritten) {
  EXPECT_EQ(write_file(state_file("board-state.json"), "{}"), EACCES);
}

TEST_F(CuseModeStateDir, SigtermUnmountsTheStateDirAndExitsZero) {
  const auto end = process_->stop(SIGTERM, std::chrono::seconds(10));
  EXPECT_TRUE(end.exited_with(0)) << end.describe() << ": " << log();
  EXPECT_FALSE(xpon::test::is_mount_point(state_dir()));
  EXPECT_NE(log().find("unmounted " + state_dir()), std::string::npos) << log();
}

TEST_F(CuseModeStateDir, SigintUnmountsTheStateDirAndExitsZero) {
  const auto end = process_->stop(SIGINT, std::chrono::seconds(10));
  EXPECT_TRUE(end.exited_with(0)) << end.describe() << ": " << log();
  EXPECT_FALSE(xpon::test::is_mount_point(state_dir()));
}

}  // namespace
}  // namespace xpon::board_emu::test
