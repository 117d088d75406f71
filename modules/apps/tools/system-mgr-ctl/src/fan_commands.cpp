// `temp`, `fans`, `fan-speed SET` and `fan-module state|factory|speed SET`: the temperatures, the
// board's fans and the crate's fan module.

#include "client.hpp"
#include "commands.hpp"
#include "decode_fans.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/tool/console.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace xpon::system_mgr::ctl {

namespace {

// Options of a command that sets a speed: the setting as typed, checked when the command runs.
struct SpeedOptions : AnswerOptions {
  std::string speed;
};

ipc::Payload speed_payload(const std::string& text) {
  return {static_cast<std::uint8_t>(tool::parse_number(text, 255, "SET"))};
}

void add_speed_command(CLI::App& parent, Subcommands& commands, const std::string& name, const std::string& help,
                       std::uint16_t id) {
  auto options = std::make_shared<SpeedOptions>();
  auto* command = parent.add_subcommand(name, help);
  command
      ->add_option("SET", options->speed,
                   "Speed setting, 0 to 255 (the driver's unit; 159 and 102 are the "
                   "automatic control's maximum and minimum)")
      ->required();
  add_answer_options(*command, *options, "Print the outcome as a JSON object");
  commands.push_back({command, [options, id] {
                        return run_request(options->json, id, speed_payload(options->speed), options->timeout,
                                           format_speed_set);
                      }});
}

void add_module_read(CLI::App& parent, Subcommands& commands, const std::string& name, const std::string& help,
                     std::uint16_t id) {
  auto options = std::make_shared<AnswerOptions>();
  auto* command = parent.add_subcommand(name, help);
  add_answer_options(*command, *options, "Print the record as a JSON object");
  commands.push_back(
      {command, [options, id] { return run_request(options->json, id, {}, options->timeout, format_fan_module); }});
}

}  // namespace

void add_fan_commands(CLI::App& app, Subcommands& commands) {
  auto temp = std::make_shared<AnswerOptions>();
  auto* temp_command = app.add_subcommand("temp", "Print every temperature sensor with its name, in °C (GET_TEMP)");
  add_answer_options(*temp_command, *temp, "Print the sensors as a JSON object");
  commands.push_back({temp_command, [temp] {
                        return run_request(temp->json, IPC_SYSTEM_MGR__GET_TEMP, {}, temp->timeout,
                                           [](ipc::Address from, std::uint16_t /*id*/, const ipc::Response& response,
                                              bool json) { return format_temperatures(from, response, json); });
                      }});

  auto fans = std::make_shared<AnswerOptions>();
  auto* fans_command =
      app.add_subcommand("fans", "Print every fan of the board: present, fault, speed in rpm (GET_FAN_STATES)");
  add_answer_options(*fans_command, *fans, "Print the fans as a JSON object");
  commands.push_back({fans_command, [fans] {
                        return run_request(fans->json, IPC_SYSTEM_MGR__GET_FAN_STATES, {}, fans->timeout,
                                           [](ipc::Address from, std::uint16_t /*id*/, const ipc::Response& response,
                                              bool json) { return format_fan_states(from, response, json); });
                      }});

  add_speed_command(app, commands, "fan-speed", "Set the speed of the board's fans (SET_FAN_SPEED)",
                    IPC_SYSTEM_MGR__SET_FAN_SPEED);

  auto* module = app.add_subcommand("fan-module", "The crate's fan module (FC boards)");
  module->require_subcommand(1);
  add_module_read(*module, commands, "state", "Print the module's state and its fans' speeds (GET_FAN_MODULE_STATE)",
                  IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE);
  add_module_read(*module, commands, "factory", "Print the module's factory data (GET_FAN_MODULE_FACTORY)",
                  IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY);
  add_speed_command(*module, commands, "speed", "Set the speed of the module's fans (SET_FAN_MODULE_SPEED)",
                    IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED);
}

}  // namespace xpon::system_mgr::ctl
