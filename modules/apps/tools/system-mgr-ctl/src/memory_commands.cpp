// `ram` and `disk`: the memory totals and the flash partitions' space.

#include "client.hpp"
#include "commands.hpp"
#include "decode.hpp"
#include "xpon/system_mgr/api.h"

#include <memory>

namespace xpon::system_mgr::ctl {

void add_answer_options(CLI::App& command, AnswerOptions& options, const std::string& json_help) {
  command.add_flag("--json", options.json, json_help);
  command.add_option("--timeout", options.timeout, "Time to wait for the answer, in ms")->capture_default_str();
}

void add_memory_commands(CLI::App& app, Subcommands& commands) {
  auto ram = std::make_shared<AnswerOptions>();
  auto* ram_command =
      app.add_subcommand("ram", "Ask for the memory totals (GET_RAM_DATA) and print them in kB and MiB");
  add_answer_options(*ram_command, *ram, "Print the totals as a JSON object");
  commands.push_back({ram_command, [ram] {
                        return run_request(ram->json, IPC_SYSTEM_MGR__GET_RAM_DATA, {}, ram->timeout,
                                           [](ipc::Address from, std::uint16_t /*id*/, const ipc::Response& response,
                                              bool json) { return format_ram(from, response, json); });
                      }});

  auto disk = std::make_shared<AnswerOptions>();
  auto* disk_command = app.add_subcommand("disk", "Print the total and free space of the flash partitions, in GiB");
  add_answer_options(*disk_command, *disk, "Print the sizes as a JSON object");
  commands.push_back({disk_command, [disk] {
                        return run_request(disk->json, IPC_SYSTEM_MGR__GET_HDD_DATA, {}, disk->timeout,
                                           [](ipc::Address from, std::uint16_t /*id*/, const ipc::Response& response,
                                              bool json) { return format_disk(from, response, json); });
                      }});
}

}  // namespace xpon::system_mgr::ctl
