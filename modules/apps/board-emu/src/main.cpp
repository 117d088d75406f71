// xpon-board-emu: the board driver's /dev/board, emulated from a scenario file, for running the
// unchanged daemon on a development machine (a FUSE file under $XPON_ROOT/dev) or on a test
// machine (a character device made with CUSE).

#include "xpon/board_emu/cuse_server.hpp"
#include "xpon/board_emu/emulator.hpp"
#include "xpon/board_emu/fuse_server.hpp"
#include "xpon/board_emu/scenario.hpp"
#include "xpon/board_emu/stderr_logger.hpp"
#include "xpon/core/host_path.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>

namespace {

constexpr const char* kProgram = "xpon-board-emu";
constexpr const char* kDefaultStateDir = "/run/xpon-board-emu";

}  // namespace

int main(int argc, char** argv) {
  using namespace xpon::board_emu;

  CLI::App app{
      "Board emulator: serves the board driver's device file, board-state.json (the model) and board-control "
      "(JSON patches) from a scenario, through FUSE; with --cuse the device is a real character device, "
      "/dev/board, made through CUSE.\n"
      "Exit status: 0 unmounted after SIGINT/SIGTERM, 1 failure while serving, 2 bad usage or scenario, "
      "3 FUSE or CUSE not available or mount refused.",
      kProgram};
  std::string scenario_path;
  std::string mount_point;
  bool foreground = false;
  bool verbose = false;
  app.add_option("--scenario", scenario_path, "scenario file (JSON)")->required();
  bool cuse = false;
  CuseOptions cuse_options;
  cuse_options.state_dir = kDefaultStateDir;
  auto* mount_option = app.add_option("--mount", mount_point, "directory to mount at (default: $XPON_ROOT/dev)");
  auto* cuse_flag =
      app.add_flag("--cuse", cuse, "serve the driver as the character device /dev/NAME through CUSE (needs root)");
  mount_option->excludes(cuse_flag);
  app.add_option("--device-name", cuse_options.device_name, "with --cuse: the device's name (default: board)")
      ->needs(cuse_flag);
  app.add_option("--state-dir", cuse_options.state_dir,
                 "with --cuse: where board-state.json and board-control are mounted (default: /run/xpon-board-emu)")
      ->needs(cuse_flag);
  // The kernel's CUSE channel; tests name a missing one, or a FIFO that never sends CUSE_INIT.
  app.add_option("--cuse-device", cuse_options.cuse_device)->needs(cuse_flag)->group("");
  app.add_flag("--foreground", foreground, "stay in the foreground instead of detaching");
  app.add_flag("--verbose", verbose, "also log every driver command the model refuses");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    return kExitUsage;
  }

  auto logger = std::make_shared<StderrLogger>(kProgram, verbose ? xpon::logger::kProgress : xpon::logger::kInfo);

  auto scenario = load_scenario_file(scenario_path);
  if (!scenario) {
    std::fprintf(stderr, "%s: scenario %s: %s\n", kProgram, scenario_path.c_str(),
                 error_text(scenario.error()).c_str());
    return kExitUsage;
  }

  if (cuse) {
    if (!is_device_name(cuse_options.device_name)) {
      std::fprintf(stderr, "%s: --device-name: \"%s\" is not a device name (letters, digits, '.', '_', '-')\n",
                   kProgram, cuse_options.device_name.c_str());
      return kExitUsage;
    }
    cuse_options.foreground = foreground;
    // Detaching changes the working directory, so the state directory is made absolute first.
    cuse_options.state_dir = std::filesystem::absolute(cuse_options.state_dir).lexically_normal().string();
    Emulator emulator(std::move(scenario.value()), logger);
    return serve_cuse(emulator, cuse_options, *logger);
  }

  if (mount_point.empty()) {
    mount_point = xpon::core::host_path("/dev");
    // Without a sandbox root the default would cover the system's own /dev.
    if (std::filesystem::path(mount_point).lexically_normal() == "/dev") {
      std::fprintf(stderr, "%s: refusing to mount over /dev: set XPON_ROOT or give --mount DIR\n", kProgram);
      return kExitUsage;
    }
  }
  std::error_code error;
  std::filesystem::create_directories(mount_point, error);
  if (error) {
    std::fprintf(stderr, "%s: cannot create %s: %s\n", kProgram, mount_point.c_str(), error.message().c_str());
    return kExitMountFailed;
  }
  // Detaching changes the working directory, so the mount point is made absolute first.
  mount_point = std::filesystem::absolute(mount_point).lexically_normal().string();

  Emulator emulator(std::move(scenario.value()), logger);
  return serve(emulator, ServeOptions{mount_point, foreground}, *logger);
}
