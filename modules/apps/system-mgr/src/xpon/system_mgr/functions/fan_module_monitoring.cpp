#include "xpon/system_mgr/functions/fan_module_monitoring.hpp"

#include "xpon/core/guard.hpp"

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace xpon::system_mgr {

namespace {

constexpr std::int32_t kRpmPerRps = 60;
// Byte of Wake__fan_module__data holding the number of fans; fan n's speed is byte n + 1.
constexpr std::size_t kCountByte = 30;
constexpr std::size_t kFirstSpeedByte = 2;

}  // namespace

FanModuleMonitoring::FanModuleMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                                         const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                                         const std::shared_ptr<board::IBoard>& board, std::chrono::milliseconds period)
    : FanAlarmFunction(logger, ipc, cfgdb, board, kName, period) {
  declare_routes(
      {{IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, [this](const ipc::Request& req) { return get_state(req); }},
       {IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, [this](const ipc::Request& req) { return get_factory(req); }},
       {IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED, [this](const ipc::Request& req) { return set_speed(req); }}});
}

Result<void> FanModuleMonitoring::fan_module_fault_handler(bool ok) {
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = ok ? kAlarmNormal : kAlarmRaised;
  alarm.alarm_id = SYSTEM_MGR_ALARM_FAN;
  // Unchecked as designed: the text always fits the field.
  static_cast<void>(std::snprintf(alarm.text, sizeof alarm.text, "Fan Module fault%s", ok ? " is back to normal" : ""));
  return send_alarm(alarm);
}

Result<void> FanModuleMonitoring::polling() {
  auto state = core::guarded_call(*logger_, [this] { return board_->get_fan_module_state(); });
  if (!state) {
    // The board's error is dropped without a log line, on purpose: the raised module alarm is
    // the report of an unreadable module (a throw was logged by the guard).
    return fan_module_fault_handler(false);
  }
  auto module_ok = fan_module_fault_handler(true);
  if (!module_ok) {
    return core::propagate(*logger_, std::move(module_ok));
  }
  std::uint8_t bytes[sizeof(Wake__fan_module__data)];
  std::memcpy(bytes, &state.value(), sizeof bytes);
  const std::size_t count = bytes[kCountByte];
  for (std::size_t number = 1; number <= count; ++number) {
    // The count is not checked against the speed bytes, on purpose: fan 29 reads the count
    // byte and later fans the bytes after it. Only the record's end bounds the walk.
    const std::size_t byte = number + kFirstSpeedByte - 1;
    if (byte >= sizeof bytes) {
      break;
    }
    const std::int32_t rpm = static_cast<std::int32_t>(bytes[byte]) * kRpmPerRps;
    // No presence or fault flag per fan: only the limits decide.
    const Alarm alarm = fan_speed_alarm(static_cast<std::uint32_t>(number), rpm, fan_alarm_cfg_.inside(rpm));
    auto sent = send_alarm(alarm);
    if (!sent) {
      return sent;
    }
  }
  return core::success();
}

template <typename Record>
Result<void> FanModuleMonitoring::answer_record(const ipc::Request& request, Result<Record> read) {
  if (!read) {
    // The board's error is dropped without a log line, on purpose.
    return send_error_response(request);
  }
  ipc::Payload payload(sizeof(Record));
  std::memcpy(payload.data(), &read.value(), payload.size());
  // Without reply information this throws, after the board call, on purpose.
  return answer_request(request, std::move(payload));
}

Result<void> FanModuleMonitoring::get_state(const ipc::Request& request) {
  // The request's payload is ignored.
  return answer_record(request, core::guarded_call(*logger_, [this] { return board_->get_fan_module_state(); }));
}

Result<void> FanModuleMonitoring::get_factory(const ipc::Request& request) {
  // The request's payload is ignored.
  return answer_record(request, core::guarded_call(*logger_, [this] { return board_->get_fan_module_factory(); }));
}

Result<void> FanModuleMonitoring::set_speed(const ipc::Request& request) {
  if (request.payload.empty()) {
    return send_error_response(request);
  }
  // Byte 0 as it comes, no range check; later bytes are ignored.
  const std::uint8_t speed = request.payload[0];
  auto set = core::guarded_call(*logger_, [&] { return board_->set_fan_module_speed(speed); });
  if (!set) {
    // The board's error is dropped without a log line, on purpose.
    return send_error_response(request);
  }
  // Without reply information this throws, after the speed was set, on purpose.
  return answer_request(request, {});
}

}  // namespace xpon::system_mgr
