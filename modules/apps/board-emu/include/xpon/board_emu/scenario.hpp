#pragma once

#include "xpon/board_emu/model.hpp"

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::board_emu {

/// A patch the emulator applies by itself once the given time has passed since mounting.
struct TimelineStep {
  std::chrono::milliseconds at{0};
  Json patch;
};

/// A board to emulate: its starting model and its timeline (in time order).
struct Scenario {
  std::string description;
  BoardModel model;
  std::vector<TimelineStep> timeline;
};

/// Reads a scenario document: the model's fields, an optional "description" and an optional
/// "timeline" of {"at_ms", "patch"} steps. Every step must apply to the model as it stands
/// after the earlier steps; a refusal names the field ("timeline[1].patch.fans[0].speed: ...").
core::Result<Scenario> parse_scenario(std::string_view text);

/// Reads and parses a scenario file; an unreadable file is refused naming the path.
core::Result<Scenario> load_scenario_file(const std::string& path);

}  // namespace xpon::board_emu
