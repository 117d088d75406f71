// `psu` and `power-module`: the LT board's power supplies and the FC crate's power module.

#include "client.hpp"
#include "commands.hpp"
#include "decode_power.hpp"
#include "xpon/system_mgr/api.h"

#include <memory>

namespace xpon::system_mgr::ctl {

void add_power_commands(CLI::App& app, Subcommands& commands) {
  auto psu = std::make_shared<AnswerOptions>();
  auto* psu_command = app.add_subcommand(
      "psu",
      "Ask for the power supplies' records (GET_PS_STATES, LT boards) and print each supply's flags and "
      "identification");
  add_answer_options(*psu_command, *psu, "Print the supplies as a JSON object");
  commands.push_back({psu_command, [psu] {
                        return run_request(psu->json, IPC_SYSTEM_MGR__GET_PS_STATES, {}, psu->timeout,
                                           [](ipc::Address from, std::uint16_t /*id*/, const ipc::Response& response,
                                              bool json) { return format_psu(from, response, json); });
                      }});

  auto module = std::make_shared<AnswerOptions>();
  auto* module_command = app.add_subcommand(
      "power-module",
      "Ask for the crate power module's state (GET_PWR_MODULE_STATE, FC boards) and print its fields with their units");
  add_answer_options(*module_command, *module, "Print the fields as a JSON object");
  commands.push_back({module_command, [module] {
                        return run_request(module->json, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, {}, module->timeout,
                                           [](ipc::Address from, std::uint16_t /*id*/, const ipc::Response& response,
                                              bool json) { return format_power_module(from, response, json); });
                      }});
}

}  // namespace xpon::system_mgr::ctl
