#include "xpon/system_mgr/functions/fan_monitoring.hpp"

#include "xpon/core/guard.hpp"

#include <fmt/format.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;

constexpr std::int32_t kRpmPerRps = 60;

}  // namespace

FanMonitoring::FanMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                             const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                             const std::shared_ptr<board::IBoard>& board, std::chrono::milliseconds period)
    : FanAlarmFunction(logger, ipc, cfgdb, board, kName, period) {
  declare_routes({{IPC_SYSTEM_MGR__GET_FAN_STATES, [this](const ipc::Request& req) { return get_fan_states(req); }},
                  {IPC_SYSTEM_MGR__SET_FAN_SPEED, [this](const ipc::Request& req) { return set_fan_speed(req); }}});
}

Result<void> FanMonitoring::polling() {
  auto fans = core::guarded_call(*logger_, [this] { return board_->get_fan_info(); });
  if (!fans) {
    return core::propagate(*logger_, Result<void>(std::move(fans).as_failure()));
  }
  std::uint32_t number = 0;
  for (const Brd__fan_info& fan : fans.value()) {
    ++number;
    const std::int32_t rpm = static_cast<std::int32_t>(fan.speed) * kRpmPerRps;
    const bool normal = fan.present != 0 && fan.fault == 0 && fan_alarm_cfg_.inside(rpm);
    const Alarm alarm = fan_speed_alarm(number, rpm, normal);
    // Level-triggered on purpose: every poll reports every fan; a failed send ends the poll.
    auto sent = send_alarm(alarm);
    if (!sent) {
      return sent;
    }
  }
  return core::success();
}

Result<void> FanMonitoring::answer_error(const ipc::Request& request) {
  // Reads the reply information itself, on purpose: without it std::bad_optional_access leaves
  // the handler instead of becoming Error::Exception as in send_error_response.
  const ipc::ReplyTo reply = request.reply_to.value();
  ipc::Response response;
  response.address = kReplyAddressWord;
  response.reply_tag = reply.tag;
  response.result = 0;
  auto sent = core::guarded_call(*logger_, [&] { return ipc_->send_response(reply.address, response); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return ErrorPayload(Error::CommonError);
}

Result<void> FanMonitoring::get_fan_states(const ipc::Request& request) {
  // The request's payload is ignored.
  auto fans = core::guarded_call(*logger_, [this] { return board_->get_fan_info(); });
  if (!fans) {
    // The board's error is replaced by the error response without a log line, on purpose.
    return answer_error(request);
  }
  const auto& records = fans.value();
  ipc::Payload payload(records.size() * sizeof(Brd__fan_info));
  if (!payload.empty()) {
    std::memcpy(payload.data(), records.data(), payload.size());
  }
  // Without reply information this throws, after the board was read, on purpose.
  return answer_request(request, std::move(payload));
}

Result<void> FanMonitoring::set_fan_speed(const ipc::Request& request) {
  if (request.payload.empty()) {
    return answer_error(request);
  }
  // Byte 0 as it comes, no range check; later bytes are ignored.
  const std::uint8_t speed = request.payload[0];
  auto set = core::guarded_call(*logger_, [&] { return board_->set_fan_speed(speed); });
  if (!set) {
    // The board's error is dropped without a log line, on purpose.
    return answer_error(request);
  }
  // Without reply information this throws, after the speed was set, on purpose.
  return answer_request(request, {});
}

}  // namespace xpon::system_mgr
