#include "client.hpp"

#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/tool/command_line.hpp"
#include "xpon/tool/console.hpp"

#include <fmt/format.h>

#include <chrono>
#include <memory>
#include <utility>

namespace xpon::system_mgr::ctl {

namespace {

/// The first application id tried for the tool's own endpoint; the next free one is taken.
constexpr std::uint16_t kFirstClientApplication = 0xFE00;
constexpr std::uint16_t kLastClientApplication = 0xFEFF;

std::shared_ptr<ipc::ZmqIpc> open_client_endpoint() {
  return ipc::make_zmq_endpoint_in_range(kFirstClientApplication, kLastClientApplication, "system-mgr-ctl");
}

}  // namespace

void print_error(const std::string& line) {
  tool::print_error("system-mgr-ctl", line);
}

int run_request(bool json, std::uint16_t id, const ipc::Payload& payload, const std::string& timeout_text,
                AnswerFormat format) {
  const auto timeout_ms = tool::parse_number(timeout_text, 3600000, "--timeout");
  if (timeout_ms == 0) {
    throw tool::UsageError("--timeout: at least 1 ms");
  }
  const auto timeout = std::chrono::milliseconds(timeout_ms);
  auto endpoint = open_client_endpoint();
  ipc::Request request;
  request.group = IPC_SYSTEM_MGR;
  request.id = id;
  request.payload = payload;
  const ipc::Address daemon = SYSTEM_MGR_IPC_ADDRESS;
  const auto answer = endpoint->request(daemon, std::move(request), timeout);
  if (!answer) {
    if (answer.error().error == core::Error::InvalidState) {
      print_error(fmt::format("no answer from the system manager (0x{:08x}) within {} ms", daemon, timeout.count()));
      return tool::kExitTimeout;
    }
    print_error(answer.error().to_string());
    return tool::kExitFailed;
  }
  tool::print_line(format(daemon, id, answer.value(), json));
  return answer.value().result == SYSTEM_MGR_RESULT_ANSWERED ? tool::kExitOk : tool::kExitFailed;
}

}  // namespace xpon::system_mgr::ctl
