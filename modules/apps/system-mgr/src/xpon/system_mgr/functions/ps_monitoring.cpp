#include "xpon/system_mgr/functions/ps_monitoring.hpp"

#include "xpon/core/guard.hpp"

#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;

// The answer carries the driver's records as they are; clients read them with the api.h layout.
static_assert(sizeof(System_mgr__ps_state) == sizeof(Brd__ps_info));
static_assert(offsetof(System_mgr__ps_state, model) == offsetof(Brd__ps_info, model));
static_assert(offsetof(System_mgr__ps_state, date) == offsetof(Brd__ps_info, date));

// A text field of the supply's record up to its NUL, never past the field: a supply may fill it.
template <std::size_t N>
std::string_view field_text(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

}  // namespace

PsMonitoring::PsMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                           const std::shared_ptr<board::IBoard>& board, std::chrono::milliseconds period,
                           const std::shared_ptr<host::IHost>& host)
    : SysFunction(logger, ipc, kName, period), logger_(logger), ipc_(ipc), board_(board), host_(host) {
  declare_routes({{IPC_SYSTEM_MGR__GET_PS_STATES, [this](const ipc::Request& req) { return get_ps_states(req); }}});
  logger_->progress("{} create successfully", kName);
}

PsMonitoring::~PsMonitoring() {
  logger_->progress("{} destroy successfully", kName);
}

Result<void> PsMonitoring::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& /*changes*/) {
  return core::success();
}

Result<void> PsMonitoring::master_change(const ServiceCtx& /*ctx*/) {
  return core::success();
}

Result<void> PsMonitoring::polling() {
  auto supplies = core::guarded_call(*logger_, [this] { return board_->get_ps_info(); });
  if (!supplies) {
    return core::propagate(*logger_, Result<void>(std::move(supplies).as_failure()));
  }
  // No per-supply state on purpose: every poll reports every supply's current state.
  for (std::uint32_t index = 0; index < supplies.value().size(); ++index) {
    auto reported = report(supplies.value()[index], index);
    if (!reported) {
      // A failure ends the poll: the later supplies wait for the next one.
      return reported;
    }
  }
  return core::success();
}

Result<void> PsMonitoring::report(const Brd__ps_info& supply, std::uint32_t index) {
  const bool present = supply.is_present != 0;
  const bool power_good = supply.is_power_good != 0;
  // Deliberately asymmetric: an empty slot clears the alarm, power good without presence raises it.
  const bool normal = present == power_good;
  const char* suffix = "";
  if (present) {
    suffix = power_good ? " is back to normal" : " is missing voltage";
  } else if (!power_good) {
    suffix = " is offline";
  }

  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = normal ? kAlarmNormal : kAlarmRaised;
  alarm.alarm_id = kAlarmId;
  // Alarms number the supplies from 1; the log lines below count them from 0.
  alarm.instance = index + 1;
  const int written =
      host_->format(alarm.text, sizeof alarm.text, "Power supply %d%s", static_cast<int>(index + 1), suffix);
  // Strict comparisons on purpose: 1 to 255 characters pass, 0 or a truncated text does not.
  if (written < 1 || written > static_cast<int>(sizeof alarm.text) - 1) {
    // Logged as written, percent sequence and all: the text is not a printf format here.
    logger_->error("snprintf() failed(%d)");
    return ErrorPayload(Error::ErrorCApi);
  }

  auto sent = core::guarded_call(*logger_, [this, &alarm] { return create_alarm_and_send_trap(&alarm); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }

  logger_->progress("PS[{}] is_present: {}", index, present);
  logger_->progress("PS[{}] is_power_good: {}", index, power_good);
  if (supply.has_info != 0) {
    logger_->progress("PS[{}] Model: {}", index, field_text(supply.model));
    logger_->progress("PS[{}] SN: {}", index, field_text(supply.sn));
    logger_->progress("PS[{}] Ver: {}", index, field_text(supply.ver));
    logger_->progress("PS[{}] Rev: {}", index, field_text(supply.rev));
    logger_->progress("PS[{}] Date: {}", index, field_text(supply.date));
  }
  return core::success();
}

Result<void> PsMonitoring::get_ps_states(const ipc::Request& request) {
  // The request's payload is ignored: the request carries no argument.
  auto supplies = core::guarded_call(*logger_, [this] { return board_->get_ps_info(); });
  if (!supplies) {
    // The board's error is dropped without a log line; the requester gets the error response.
    // Its reply information is read unguarded, as for the answer: without it the handler
    // leaves by std::bad_optional_access after the board read on this path too.
    static_cast<void>(request.reply_to.value());
    return send_error_response(request);
  }
  const std::vector<Brd__ps_info>& records = supplies.value();
  ipc::Payload payload(records.size() * sizeof(Brd__ps_info), 0);
  // Deliberately 8 bytes per record copied into 72 per supply: consumers receive exactly these bytes.
  if (!records.empty()) {
    std::memcpy(payload.data(), records.data(), records.size() * SYSTEM_MGR_PS_STATES_COPIED_PER_SUPPLY);
  }
  // Without reply information this throws std::bad_optional_access out of the handler, after
  // the board was read, as designed: the IPC library's dispatcher deals with it.
  return answer_request(request, std::move(payload));
}

}  // namespace xpon::system_mgr
