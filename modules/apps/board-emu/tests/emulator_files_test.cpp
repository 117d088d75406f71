// The emulator as a program: its three files, patches through board-control, signals and
// exit statuses. Every test runs the real xpon-board-emu in its own sandbox root.

#include "emulator_process.hpp"
#include "xpon/test/ci_skip.hpp"

#include "xpon/board/driver_abi.h"
#include "xpon/test/sandbox.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

namespace xpon::board_emu::test {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kScenario = R"({
  "inventory": {"cpld_version": 7, "fan_count": 2, "ps_count": 0, "temp_count": 1, "pon_port_count": 1,
                "front_port_count": 0},
  "fans": [{"speed": 100}, {"speed": 90}],
  "sensors": [{"id": 0, "temperature": 45}],
  "pon_ports": [{"present": true}],
  "timeline": [{"at_ms": 300, "patch": {"sensors": {"0": {"temperature": 71}}}}]
})";

class EmulatorFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string skip;
    std::string failure;
    emulator_ = EmulatorProcess::start(kScenario, skip, failure);
    XPON_SKIP_OR_FAIL_IN_CI(skip);
    ASSERT_TRUE(emulator_) << failure;
  }

  std::uint8_t fan_count() {
    const int fd = ::open(emulator_->dev_file("board").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    std::uint8_t value = 0;
    EXPECT_EQ(::ioctl(fd, BOARD_GET_FAN_COUNT, &value), 0);
    ::close(fd);
    return value;
  }

  Json state() { return Json::parse(read_file(emulator_->dev_file("board-state.json"))); }

  std::unique_ptr<EmulatorProcess> emulator_;
};

TEST_F(EmulatorFiles, ServesTheThreeFiles) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(emulator_->dev_dir())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"board", "board-control", "board-state.json"}));
}

TEST_F(EmulatorFiles, StateFileHoldsTheScenarioModel) {
  const Json document = state();
  EXPECT_EQ(document["inventory"], Json::parse(R"({"cpld_version": 7, "fan_count": 2, "ps_count": 0,
      "temp_count": 1, "pon_port_count": 1, "front_port_count": 0})"));
  EXPECT_EQ(document["fans"][1]["speed"], 90);
  EXPECT_EQ(document["pon_ports"][0]["present"], true);
  EXPECT_TRUE(document["faults"].empty());
}

TEST_F(EmulatorFiles, StateFileCannotBeWritten) {
  EXPECT_EQ(write_file(emulator_->dev_file("board-state.json"), "{}"), EACCES);
}

TEST_F(EmulatorFiles, PatchChangesWhatTheNextIoctlReturns) {
  EXPECT_EQ(fan_count(), 2);
  EXPECT_EQ(write_file(emulator_->dev_file("board-control"), R"({"inventory": {"fan_count": 5}})"), 0);
  EXPECT_EQ(fan_count(), 5);
  EXPECT_EQ(read_file(emulator_->dev_file("board-control")), "ok\n");
  EXPECT_EQ(state()["inventory"]["fan_count"], 5);
}

TEST_F(EmulatorFiles, BadPatchIsRefusedWithEinvalAndTheModelStays) {
  const Json before = state();
  EXPECT_EQ(write_file(emulator_->dev_file("board-control"),
                       R"({"inventory": {"fan_count": 3}, "fans": {"0": {"speed": "fast"}}})"),
            EINVAL);
  EXPECT_EQ(read_file(emulator_->dev_file("board-control")),
            "error: fans[0].speed: must be an integer from 0 to 65535, not \"fast\"\n");
  EXPECT_EQ(state(), before);
  EXPECT_EQ(fan_count(), 2);
  EXPECT_NE(emulator_->log().find(
                "board-control: patch refused: fans[0].speed: must be an integer from 0 to 65535, not \"fast\""),
            std::string::npos);
}

TEST_F(EmulatorFiles, PatchWrittenInPiecesIsAppliedWhenComplete) {
  const int fd = ::open(emulator_->dev_file("board-control").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const std::string first = R"({"inventory": )";
  const std::string second = R"({"fan_count": 9}})";
  EXPECT_EQ(::write(fd, first.data(), first.size()), static_cast<ssize_t>(first.size()));
  EXPECT_EQ(state()["inventory"]["fan_count"], 2);
  EXPECT_EQ(::write(fd, second.data(), second.size()), static_cast<ssize_t>(second.size()));
  EXPECT_EQ(::close(fd), 0);
  EXPECT_EQ(fan_count(), 9);
}

TEST_F(EmulatorFiles, IncompletePatchIsRefusedAtClose) {
  const int fd = ::open(emulator_->dev_file("board-control").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const std::string text = R"({"inventory": {"fan_count": 4})";
  EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  EXPECT_EQ(::close(fd), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(read_file(emulator_->dev_file("board-control")),
            "error: the patch ended before its JSON text was complete\n");
  EXPECT_EQ(fan_count(), 2);
}

TEST_F(EmulatorFiles, HostilePatchIsRefusedAndTheEmulatorServesOn) {
  EXPECT_EQ(write_file(emulator_->dev_file("board-control"), std::string(1000, '[') + std::string(1000, ']')), EINVAL);
  EXPECT_EQ(read_file(emulator_->dev_file("board-control")), "error: the JSON text is nested deeper than 32 levels\n");
  EXPECT_EQ(write_file(emulator_->dev_file("board-control"), "[1, 2]"), EINVAL);
  EXPECT_EQ(read_file(emulator_->dev_file("board-control")), "error: a patch must be a JSON object, not [1,2]\n");
  EXPECT_EQ(fan_count(), 2);
}

TEST_F(EmulatorFiles, UnknownIoctlIsRefused) {
  const int fd = ::open(emulator_->dev_file("board").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  std::uint8_t value = 0;
  EXPECT_EQ(::ioctl(fd, _IOR('L', 0x7F, std::uint8_t), &value), -1);
  EXPECT_EQ(errno, ENOTTY);
  ::close(fd);
}

TEST_F(EmulatorFiles, TimelinePatchArrivesAfterItsTime) {
  EXPECT_EQ(state()["sensors"][0]["temperature"], 45);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (state()["sensors"][0]["temperature"] != 71 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(state()["sensors"][0]["temperature"], 71);
}

TEST_F(EmulatorFiles, SigtermUnmountsCleanly) {
  EXPECT_EQ(emulator_->stop(SIGTERM), 0);
  EXPECT_FALSE(xpon::test::is_mount_point(emulator_->dev_dir()));
  EXPECT_NE(emulator_->log().find("unmounted " + emulator_->dev_dir()), std::string::npos) << emulator_->log();
}

TEST_F(EmulatorFiles, SigintUnmountsCleanly) {
  EXPECT_EQ(emulator_->stop(SIGINT), 0);
  EXPECT_FALSE(xpon::test::is_mount_point(emulator_->dev_dir()));
}

TEST(EmulatorProgram, HelpDescribesTheOptions) {
  const auto run = run_program({XPON_BOARD_EMU_PROGRAM, "--help"});
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_NE(run.output.find("--scenario"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("--mount"), std::string::npos);
  EXPECT_NE(run.output.find("--foreground"), std::string::npos);
  EXPECT_NE(run.output.find("--verbose"), std::string::npos);
}

TEST(EmulatorProgram, MissingScenarioOptionIsAUsageError) {
  const auto run = run_program({XPON_BOARD_EMU_PROGRAM});
  EXPECT_EQ(run.exit_status, 2);
  EXPECT_NE(run.errors.find("--scenario is required"), std::string::npos) << run.errors;
}

TEST(EmulatorProgram, BadScenarioNamesTheFieldAndExitsTwo) {
  const auto directory = std::filesystem::temp_directory_path() / ("xpon-emu-bad-" + std::to_string(::getpid()));
  std::filesystem::create_directories(directory);
  const auto path = (directory / "bad.json").string();
  std::ofstream(path) << R"({"fans": [{"speed": 1}, {"speed": 1, "colour": "red"}]})";
  const auto run =
      run_program({XPON_BOARD_EMU_PROGRAM, "--scenario", path, "--foreground"}, {"XPON_ROOT=" + directory.string()});
  EXPECT_EQ(run.exit_status, 2);
  EXPECT_EQ(run.errors, "xpon-board-emu: scenario " + path + ": fans[1].colour: unknown field\n");
  EXPECT_FALSE(std::filesystem::exists(directory / "dev"));
  std::filesystem::remove_all(directory);
}

TEST(EmulatorProgram, RefusesToCoverTheSystemDevWithoutASandboxRoot) {
  const std::string scenario = XPON_EXAMPLES_DIR "/board-lt.json";
  const auto run =
      run_program({"/usr/bin/env", "-u", "XPON_ROOT", XPON_BOARD_EMU_PROGRAM, "--scenario", scenario, "--foreground"});
  EXPECT_EQ(run.exit_status, 2);
  EXPECT_EQ(run.errors, "xpon-board-emu: refusing to mount over /dev: set XPON_ROOT or give --mount DIR\n");
}

}  // namespace
}  // namespace xpon::board_emu::test
