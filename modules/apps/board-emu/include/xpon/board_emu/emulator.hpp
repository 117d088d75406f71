#pragma once

#include "xpon/board_emu/model.hpp"
#include "xpon/board_emu/scenario.hpp"
#include "xpon/logger/ilogger.hpp"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace xpon::board_emu {

/// The emulated board: answers driver commands from the model, applies patches and injected
/// faults, and runs the scenario's timeline. Every operation is safe to call from any thread.
class Emulator {
 public:
  Emulator(Scenario scenario, std::shared_ptr<logger::ILogger> logger);
  ~Emulator();

  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  /// Answers one driver command on `argument` (the command's record): 0, or a negative errno
  /// (-ENOTTY for a request the driver does not have, the injected errno of a fault).
  int ioctl(unsigned int request, void* argument);

  /// The whole model as indented JSON followed by a newline.
  [[nodiscard]] std::string state_document() const;

  /// Parses and applies a patch (JSON text) as one step; a refused patch changes nothing and its
  /// reason is logged and kept for control_status().
  core::Result<void> apply_patch_text(std::string_view text);

  /// Applies an already parsed patch as one step; `source` names where it came from in the log.
  core::Result<void> apply_patch_json(const Json& patch, std::string_view source);

  /// Records a patch that could not even be read (incomplete text) as the last control result.
  void refuse_control(const std::string& reason);

  /// The result of the last patch written to board-control: "ok\n", "error: <reason>\n", or
  /// "none\n" before the first one.
  [[nodiscard]] std::string control_status() const;

  /// A copy of the model as it stands.
  [[nodiscard]] BoardModel snapshot() const;

  /// Starts the timeline clock and its thread (the steps' times count from here), and the thread
  /// that steps the thermal model while it is enabled.
  void start_timeline();

  /// Stops the timeline and thermal threads; steps not yet due are dropped.
  void stop_timeline();

 private:
  void run_timeline();
  void run_thermal();

  std::shared_ptr<logger::ILogger> logger_;
  mutable std::mutex mutex_;
  BoardModel model_;
  std::string control_status_ = "none\n";
  std::vector<TimelineStep> timeline_;
  std::condition_variable timeline_wakeup_;
  bool timeline_stopping_ = false;
  std::thread timeline_thread_;
  std::thread thermal_thread_;
};

}  // namespace xpon::board_emu
