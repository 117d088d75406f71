// `sfp`: the SFP modules of the P-ports ("pon") and F-ports ("front"): the present modules with
// their identities, a module's diagnostics, the receive power of a PON module, the transmitter
// switch, and the re-publishing of the insertion events.

#include "client.hpp"
#include "commands.hpp"
#include "decode.hpp"
#include "xpon/system_mgr/api.h"

#include <cstdint>
#include <memory>
#include <string>

namespace xpon::system_mgr::ctl {

namespace {

/// What one sfp subcommand was given on the command line.
struct SfpOptions : AnswerOptions {
  std::string group;      // "pon" or "front"
  std::string switch_to;  // "on" or "off"
  std::uint32_t port = 0;
};

void add_group(CLI::App& command, SfpOptions& options) {
  command.add_option("group", options.group, "pon (the P-ports) or front (the F-ports)")
      ->required()
      ->check(CLI::IsMember({"pon", "front"}));
}

void add_port(CLI::App& command, SfpOptions& options) {
  command.add_option("port", options.port, "Port number in its group, from 0")->required();
}

bool pon(const SfpOptions& options) {
  return options.group == "pon";
}

std::uint16_t trx_request(const SfpOptions& options) {
  if (options.switch_to == "on") {
    return pon(options) ? IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX : IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX;
  }
  return pon(options) ? IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX : IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX;
}

int ask(const SfpOptions& options, std::uint16_t id, const ipc::Payload& payload) {
  return run_request(options.json, id, payload, options.timeout, format_response);
}

}  // namespace

void add_sfp_commands(CLI::App& app, Subcommands& commands) {
  auto* sfp = app.add_subcommand("sfp", "The SFP modules of the PON ports (pon) and front ports (front)");
  sfp->require_subcommand(1, 1);

  auto list = std::make_shared<SfpOptions>();
  auto* list_command = sfp->add_subcommand(
      "list", "List the present modules of a group with vendor, part number, serial and wavelength (TOTAL_INFO)");
  add_group(*list_command, *list);
  add_answer_options(*list_command, *list, "Print the modules as JSON");
  commands.push_back(
      {list_command, [list] {
         return ask(*list, pon(*list) ? IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO : IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO,
                    {});
       }});

  auto eddi = std::make_shared<SfpOptions>();
  auto* eddi_command = sfp->add_subcommand(
      "eddi", "Ask for a module's diagnostics and print them in degC, V, mA, mW and dBm (EDDI_DATA)");
  add_group(*eddi_command, *eddi);
  add_port(*eddi_command, *eddi);
  add_answer_options(*eddi_command, *eddi, "Print the diagnostics as JSON");
  commands.push_back(
      {eddi_command, [eddi] {
         return ask(*eddi, pon(*eddi) ? IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA : IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA,
                    port_payload(eddi->port));
       }});

  auto rx_power = std::make_shared<SfpOptions>();
  auto* rx_power_command =
      sfp->add_subcommand("rx-power", "Ask for the received power of a PON module, in mW and dBm (RX_POWER)");
  add_port(*rx_power_command, *rx_power);
  add_answer_options(*rx_power_command, *rx_power, "Print the power as JSON");
  commands.push_back({rx_power_command, [rx_power] {
                        return ask(*rx_power, IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, port_payload(rx_power->port));
                      }});

  auto tx = std::make_shared<SfpOptions>();
  auto* tx_command = sfp->add_subcommand("tx", "Switch a module's transmitter on or off (SFP_MODULE_TRX)");
  tx_command->add_option("switch", tx->switch_to, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
  add_group(*tx_command, *tx);
  add_port(*tx_command, *tx);
  add_answer_options(*tx_command, *tx, "Print the answer as JSON");
  commands.push_back({tx_command, [tx] { return ask(*tx, trx_request(*tx), port_payload(tx->port)); }});

  auto inject = std::make_shared<SfpOptions>();
  auto* inject_command = sfp->add_subcommand(
      "inject", "Have the daemon publish the insertion event of every present module of a group again");
  add_group(*inject_command, *inject);
  add_answer_options(*inject_command, *inject, "Print the answer as JSON");
  commands.push_back({inject_command, [inject] {
                        return ask(*inject,
                                   pon(*inject) ? IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT
                                                : IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT,
                                   {});
                      }});
}

}  // namespace xpon::system_mgr::ctl
