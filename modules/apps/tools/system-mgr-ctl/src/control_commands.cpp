// `factory`, `version`, `button` and `led`: the board's identity, the front button and its LEDs.

#include "client.hpp"
#include "commands.hpp"
#include "decode.hpp"
#include "decode_control.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/tool/console.hpp"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>

namespace xpon::system_mgr::ctl {

namespace {

// A command that sends one request without payload and prints its answer.
struct PlainRequest {
  const char* name;
  const char* help;
  std::uint16_t id;
};

// Adds `name` under `parent` with one command per request, each printing its answer with `format`.
CLI::App* add_request_group(CLI::App& parent, Subcommands& commands, const std::string& name, const std::string& help,
                            std::initializer_list<PlainRequest> requests, AnswerFormat format,
                            const std::string& json_help) {
  auto* group = parent.add_subcommand(name, help);
  group->require_subcommand(1);
  for (const PlainRequest& request : requests) {
    auto options = std::make_shared<AnswerOptions>();
    auto* command = group->add_subcommand(request.name, request.help);
    add_answer_options(*command, *options, json_help);
    commands.push_back({command, [options, id = request.id, format] {
                          return run_request(options->json, id, {}, options->timeout, format);
                        }});
  }
  return group;
}

void add_factory_commands(CLI::App& app, Subcommands& commands) {
  add_request_group(
      app, commands, "factory", "Print the factory data of the board or of its crate, every field by name",
      {{"device", "The board's own factory data (GET_DEVICE_FACTORY)", IPC_SYSTEM_MGR__GET_DEVICE_FACTORY},
       {"crate", "The crate's factory data, FC boards only (GET_CRATE_FACTORY)", IPC_SYSTEM_MGR__GET_CRATE_FACTORY}},
      format_factory, "Print the fields as a JSON object");
}

void add_version_commands(CLI::App& app, Subcommands& commands) {
  add_request_group(app, commands, "version", "Print the FPGA or CPLD configuration version",
                    {{"fpga", "The FPGA configuration version (GET_FPGA_VERSION)", IPC_SYSTEM_MGR__GET_FPGA_VERSION},
                     {"cpld", "The CPLD configuration version (GET_CPLD_VERSION)", IPC_SYSTEM_MGR__GET_CPLD_VERSION}},
                    format_version, "Print the version as a JSON object");
}

void add_button_commands(CLI::App& app, Subcommands& commands) {
  auto* button = add_request_group(
      app, commands, "button", "Control the front button or print its state",
      {{"enable", "Let the board watch the front button (ENABLE_F_BUTTON)", IPC_SYSTEM_MGR__ENABLE_F_BUTTON},
       {"disable", "Stop the board watching the front button (DISABLE_F_BUTTON)", IPC_SYSTEM_MGR__DISABLE_F_BUTTON}},
      format_setting, "Print the outcome as a JSON object");

  auto status = std::make_shared<AnswerOptions>();
  auto* status_command =
      button->add_subcommand("status", "Print whether the button is watched, may reset the board and is pressed");
  add_answer_options(*status_command, *status, "Print one JSON object per query");
  commands.push_back({status_command, [status] {
                        int worst = tool::kExitOk;
                        for (const std::uint16_t id :
                             {IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED, IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED,
                              IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED}) {
                          worst =
                              std::max(worst, run_request(status->json, id, {}, status->timeout, format_button_query));
                        }
                        return worst;
                      }});

  add_request_group(*button, commands, "hard-reset", "Let a long press of the button reset the board, or not",
                    {{"enable", "A long press resets the board (ENABLE_F_BUTTON_HARD_RESET)",
                      IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET},
                     {"disable", "A long press does nothing (DISABLE_F_BUTTON_HARD_RESET)",
                      IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET}},
                    format_setting, "Print the outcome as a JSON object");
}

struct PanelOptions : AnswerOptions {
  std::string led;
  std::string mode;
  std::string colour;
};

struct PonOptions : AnswerOptions {
  std::string port;
  std::string state;
};

void add_led_commands(CLI::App& app, Subcommands& commands) {
  auto* led = app.add_subcommand("led", "Set a front-panel LED or the LED of a PON port");
  led->require_subcommand(1);

  auto panel = std::make_shared<PanelOptions>();
  auto* panel_command = led->add_subcommand("panel", "Set one front-panel LED (CNTRL_LED_PANEL)");
  panel_command->add_option("LED", panel->led, "power, status, alarm, master or fan (or the driver's number)")
      ->required();
  panel_command->add_option("MODE", panel->mode, "off, on or blink (or the driver's number)")->required();
  panel_command->add_option("COLOUR", panel->colour, "green, yellow or red (or the driver's number)")->required();
  add_answer_options(*panel_command, *panel, "Print the outcome as a JSON object");
  commands.push_back({panel_command, [panel] {
                        return run_request(panel->json, IPC_SYSTEM_MGR__CNTRL_LED_PANEL,
                                           led_panel_payload(panel->led, panel->mode, panel->colour), panel->timeout,
                                           format_setting);
                      }});

  auto pon = std::make_shared<PonOptions>();
  auto* pon_command = led->add_subcommand("pon", "Light the red or the green element of a PON port's LED, or neither");
  pon_command->add_option("PORT", pon->port, "PON port number, from 0")->required();
  pon_command->add_option("STATE", pon->state, "red, green or off")->required();
  add_answer_options(*pon_command, *pon, "Print the outcome as a JSON object");
  commands.push_back(
      {pon_command, [pon] {
         const auto port = static_cast<std::uint32_t>(tool::parse_number(pon->port, 0xFFFFFFFFU, "PORT"));
         return run_request(pon->json, pon_led_request(pon->state), port_payload(port), pon->timeout, format_setting);
       }});
}

}  // namespace

void add_control_commands(CLI::App& app, Subcommands& commands) {
  add_factory_commands(app, commands);
  add_version_commands(app, commands);
  add_button_commands(app, commands);
  add_led_commands(app, commands);
}

}  // namespace xpon::system_mgr::ctl
