#include "xpon/system_mgr/functions/temp_monitoring.hpp"

#include "xpon/core/guard.hpp"

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;

constexpr const char* kBackToNormal = " is back to normal";

// Indexed by sensor id. The blanks after "PON chip" are the system's text; id 5 has no name, on
// purpose: formatting it fails and ends the poll.
constexpr std::array<const char*, 6> kSensorNames{"PON SFP 1",   "PON SFP 2",  "Front SFP",
                                                  "Switch chip", "PON chip  ", nullptr};
// Spelled so deliberately: the name of every other sensor id.
constexpr const char* kUnknownSensorName = "Unkown";

// Process-wide on purpose: every instance shares it (one process asks the master once).
std::atomic<bool> g_event_max_rate_sent{false};

const char* sensor_name(std::int32_t id) {
  if (id >= 0 && static_cast<std::size_t>(id) < kSensorNames.size()) {
    return kSensorNames[static_cast<std::size_t>(id)];
  }
  return kUnknownSensorName;
}

}  // namespace

TempMonitoring::TempMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                               const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                               const std::shared_ptr<board::IBoard>& board, std::chrono::milliseconds period,
                               const std::shared_ptr<host::IHost>& host)
    : SysFunction(logger, ipc, kName, period), logger_(logger), ipc_(ipc), cfgdb_(cfgdb), board_(board), host_(host) {
  std::memset(&temp_thresholds_, 0, sizeof temp_thresholds_);
  std::memset(&fan_speed_cfg_, 0, sizeof fan_speed_cfg_);
  // The trailing blank of every text below is part of the system's text.
  auto updated = core::guarded_call(*logger_, [this] { return cfg_update(); });
  if (!updated) {
    throw std::runtime_error(fmt::format("Config update for {} failed ({}) ", kName, updated.error().to_string()));
  }
  auto fan_updated = core::guarded_call(*logger_, [this] { return fan_cfg_update(); });
  if (!fan_updated) {
    throw std::runtime_error(
        fmt::format("Fan config update for {} failed ({}) ", kName, fan_updated.error().to_string()));
  }
  auto count = core::guarded_call(*logger_, [this]() -> Result<std::uint8_t> {
    if (!board_) {
      return ErrorPayload(Error::InvalidInputArg, "no board");
    }
    return board_->get_temp_count();
  });
  if (!count) {
    throw std::runtime_error(
        fmt::format("Get temperature sensor count for {} failed ({}) ", kName, count.error().to_string()));
  }
  sensor_count_ = count.value();
  if (fan_speed_cfg_.family == kFamilyFc) {
    // Deliberately asked before own_slot_ is set: the first answer is compared with slot 0.
    auto master = core::guarded_call(*logger_, [this] { return master_change(ServiceCtx{}); });
    if (!master) {
      throw std::runtime_error(
          fmt::format("Triggering master change for {} failed ({}) ", kName, master.error().to_string()));
    }
    for (std::uint16_t slot = 1; slot <= 16; ++slot) {
      slot_max_rate_.emplace(slot, false);
    }
    slot_max_rate_.emplace(21, false);
    slot_max_rate_.emplace(22, false);
    own_slot_ = kFcSlot;
  }
  declare_routes({{IPC_SYSTEM_MGR__GET_TEMP, [this](const ipc::Request& req) { return get_temp_request(req); }}});
  logger_->progress("{} create successfully", kName);
}

TempMonitoring::~TempMonitoring() {
  logger_->progress("{} destroy successfully", kName);
}

bool TempMonitoring::event_max_rate_sent() noexcept {
  return g_event_max_rate_sent.load();
}

void TempMonitoring::set_event_max_rate_sent(bool sent) noexcept {
  g_event_max_rate_sent.store(sent);
}

bool TempMonitoring::max_rate_set() {
  const std::lock_guard lock(mutex());
  return max_rate_set_;
}

bool TempMonitoring::is_master() {
  const std::lock_guard lock(mutex());
  return is_master_;
}

std::unordered_map<std::uint16_t, bool> TempMonitoring::slot_max_rate() {
  const std::lock_guard lock(mutex());
  return slot_max_rate_;
}

Result<void> TempMonitoring::cfg_update() {
  if (!cfgdb_) {
    return core::propagate(*logger_, Result<void>(ErrorPayload(Error::InvalidInputArg, "no configuration database")));
  }
  // The section has one instance per board, addressed by the all-zero key.
  const CfgDb__key key{};
  return core::check_c_api(
      *logger_, getRunDb_CommonGCfg_system_alarm_system_temperature(cfgdb_->handle(), &temp_thresholds_, &key));
}

Result<void> TempMonitoring::fan_cfg_update() {
  if (!cfgdb_) {
    return core::propagate(*logger_, Result<void>(ErrorPayload(Error::InvalidInputArg, "no configuration database")));
  }
  const CfgDb__key key{};
  auto read =
      core::check_c_api(*logger_, getRunDb_CommonGCfg_system_fan_speed(cfgdb_->handle(), &fan_speed_cfg_, &key));
  if (!read) {
    return read;
  }
  auto_fan_ = fan_speed_cfg_.mode == 0;
  return core::success();
}

Result<void> TempMonitoring::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& changes) {
  // The records and auto_fan_ are read by the poll and the event path.
  const std::lock_guard lock(mutex());
  return apply_config_changes(changes, {{kTemperatureSection, [this] { return cfg_update(); }},
                                        {kFanSection, [this] { return fan_cfg_update(); }}});
}

Result<bool> TempMonitoring::ask_master() {
  ipc::Request query;
  query.group = kElectionGroup;
  query.id = kMasterQueryId;
  query.address = kReplyAddressWord;
  auto answer = core::guarded_call(
      *logger_, [&] { return ipc_->request(kElectionManager, std::move(query), kMasterQueryTimeout); });
  if (!answer) {
    core::log_error(*logger_, answer.error());
    return ErrorPayload(Error::CommonError, "no answer to the mastership query");
  }
  const ipc::Response& response = answer.value();
  if (response.result != 1 || response.payload.size() < 2) {
    return ErrorPayload(Error::CommonError, fmt::format("mastership answer with result {} and {} payload bytes",
                                                        response.result, response.payload.size()));
  }
  const auto master_slot = static_cast<std::uint16_t>(response.payload[0] | (response.payload[1] << 8U));
  return master_slot == own_slot_;
}

Result<void> TempMonitoring::master_change(const ServiceCtx& /*ctx*/) {
  {
    const std::lock_guard lock(mutex());
    if (fan_speed_cfg_.family == kFamilyLc) {
      return core::success();
    }
  }
  // The query waits up to a second for its answer: the poll is not held up meanwhile, only the
  // answer's outcome is stored under the mutex.
  auto master = ask_master();
  if (!master) {
    return master.as_failure();
  }
  const std::lock_guard lock(mutex());
  is_master_ = master.value();
  return core::success();
}

Result<std::vector<Brd__temp_info>> TempMonitoring::get_temp() {
  // Value-initialised: every record starts zeroed, also when there is no sensor at all.
  std::vector<Brd__temp_info> temps(sensor_count_);
  auto read = core::guarded_call(*logger_, [&] { return board_->get_temp_info(temps); });
  if (!read) {
    return core::propagate(*logger_, std::move(read)).as_failure();
  }
  return temps;
}

Result<void> TempMonitoring::polling() {
  auto temps = get_temp();
  if (!temps) {
    return core::propagate(*logger_, Result<void>(std::move(temps).as_failure()));
  }
  for (const Brd__temp_info& record : temps.value()) {
    auto reported = report_sensor(record);
    if (!reported) {
      return reported;
    }
  }
  return core::success();
}

Result<void> TempMonitoring::report_sensor(const Brd__temp_info& record) {
  const std::int32_t id = record.id;
  const char* name = sensor_name(id);
  // NOLINTNEXTLINE(bugprone-signed-char-misuse): the reading is a signed byte by design
  const int temperature = record.temperature;
  const SensorVerdict verdict = decide_sensor(id, temperature, temp_thresholds_, fan_state());
  if (!verdict.monitored) {
    // Sensor id 5's name is null on purpose: fmt throws on it and the exception ends the poll
    // through the guarded call of the caller.
    logger_->warning("Temperature sensor {} ({}) not yet supported in data-model", name, id);
    return core::success();
  }

  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = verdict.normal ? kAlarmNormal : kAlarmRaised;
  alarm.alarm_id = kAlarmId;
  alarm.instance = static_cast<std::uint32_t>(id) + 1U;
  alarm.value[0] = static_cast<std::uint8_t>(record.temperature);
  const int written = host_->format(alarm.text, sizeof alarm.text, "Sensor %s temperature %dC%s", name, temperature,
                                    verdict.normal ? kBackToNormal : "");
  if (written < 1 || written > 255) {
    logger_->error("snprintf() call failed({})", written);
    return ErrorPayload(Error::ErrorCApi);
  }
  // Level-triggered on purpose: every poll reports the current state of every sensor.
  auto sent = create_alarm_and_send_trap(&alarm);
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  // Deliberately once per sensor with its own reading: the last sensor decides the fan state.
  // The alarm's sending touches none of the verdict's inputs (the poll holds the mutex).
  auto fan = handle_auto_fan(verdict.fan);
  if (!fan) {
    return core::propagate(*logger_, std::move(fan));
  }
  logger_->progress("Sensor id {} temperature {} C. Sensor name: {}", id, temperature, name);
  return core::success();
}

FanControlState TempMonitoring::fan_state() const {
  bool slot_asks = false;
  for (const auto& [slot, asks] : slot_max_rate_) {
    slot_asks = slot_asks || asks;
  }
  return FanControlState{.auto_fan = auto_fan_,
                         .family = fan_speed_cfg_.family,
                         .is_master = is_master_,
                         .max_rate_set = max_rate_set_,
                         .slot_asks = slot_asks,
                         .event_max_rate_sent = g_event_max_rate_sent.load()};
}

Result<void> TempMonitoring::handle_auto_fan(const FanDecision& decision) {
  switch (decision.target) {
    case FanTarget::BoardFans:
      return lt_handle_auto_fan(decision.maximum);
    case FanTarget::FanModule:
      return fc_handle_auto_fan(decision.maximum);
    case FanTarget::MasterByEvent:
      return handle_auto_fan_with_event(decision.maximum);
    case FanTarget::None:
      break;
  }
  return core::success();
}

Result<void> TempMonitoring::lt_handle_auto_fan(bool maximum) {
  return set_auto_rate(&board::IBoard::set_fan_speed, maximum);
}

Result<void> TempMonitoring::fc_handle_auto_fan(bool maximum) {
  return set_auto_rate(&board::IBoard::set_fan_module_speed, maximum);
}

Result<void> TempMonitoring::set_auto_rate(Result<void> (board::IBoard::*set_speed)(std::uint8_t), bool maximum) {
  const std::uint8_t rate = maximum ? kFanAutoMaxRate : kFanAutoMinRate;
  auto set = core::guarded_call(*logger_, [&] { return ((*board_).*set_speed)(rate); });
  if (!set) {
    // The flag stays as it was: the next reading tries again.
    return core::propagate(*logger_, std::move(set));
  }
  max_rate_set_ = maximum;
  return core::success();
}

Result<void> TempMonitoring::send_rate_event(std::uint16_t id) {
  ipc::Event event;
  event.address = kReplyAddressWord;
  event.group = IPC_SYSTEM_MGR;
  event.id = id;
  auto sent = core::guarded_call(*logger_, [&] { return ipc_->send_event(event); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return core::success();
}

Result<void> TempMonitoring::handle_auto_fan_with_event(bool maximum) {
  auto sent = send_rate_event(maximum ? IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE
                                      : IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE);
  if (!sent) {
    return sent;
  }
  g_event_max_rate_sent.store(maximum);
  return core::success();
}

Result<void> TempMonitoring::handle_event(const ipc::Event& event) {
  // The sender's slot is the low half of its address in the event's header.
  const auto slot = static_cast<std::uint16_t>(event.source & 0xFFFFU);
  // The poll reads what this path writes: both run under the mutex, so their order is kept.
  const std::lock_guard lock(mutex());
  switch (event.id) {
    case IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE:
      if (event.group != IPC_SYSTEM_MGR) {
        break;
      }
      if (fan_speed_cfg_.family != kFamilyFc) {
        logger_->error("IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE event handled only FC device family");
        return core::success();
      }
      logger_->progress("Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE] | Slot ID {}", slot);
      slot_max_rate_[slot] = true;
      if (auto_fan_ && is_master_ && !max_rate_set_) {
        auto set = fc_handle_auto_fan(true);
        if (!set) {
          // The board's failure leaves the flag unset: the next poll tries again.
          core::log_error(*logger_, set.error());
        }
      }
      return core::success();
    case IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE:
      if (event.group != IPC_SYSTEM_MGR) {
        break;
      }
      if (fan_speed_cfg_.family != kFamilyFc) {
        logger_->error("IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE event handled only FC device family");
        return core::success();
      }
      logger_->progress("Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE] | Slot ID {}", slot);
      // The fans are lowered only by a later poll, on purpose.
      slot_max_rate_[slot] = false;
      return core::success();
    default:
      break;
  }
  return ErrorPayload(Error::CommonError, fmt::format("Unknown IPC event: {}|{}", event.group, event.id));
}

Result<void> TempMonitoring::ipc_subscribe() {
  auto subscribed = subscribe_routes();
  if (!subscribed) {
    return subscribed;
  }
  for (const std::uint16_t id :
       {IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE}) {
    auto event = core::guarded_call(*logger_, [&] {
      return ipc_->subscribe_event(ipc::Key{IPC_SYSTEM_MGR, id},
                                   [this](const ipc::Event& received) { return handle_event(received); });
    });
    if (!event) {
      return core::propagate(*logger_, std::move(event));
    }
  }
  return core::success();
}

Result<void> TempMonitoring::ipc_unsubscribe() {
  auto unsubscribed = unsubscribe_routes();
  if (!unsubscribed) {
    return unsubscribed;
  }
  for (const std::uint16_t id :
       {IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE}) {
    auto event = core::guarded_call(*logger_, [&] { return ipc_->unsubscribe_event(ipc::Key{IPC_SYSTEM_MGR, id}); });
    if (!event) {
      return core::propagate(*logger_, std::move(event));
    }
  }
  return core::success();
}

Result<void> TempMonitoring::get_temp_request(const ipc::Request& request) {
  // The request's payload is ignored. sensor_count_ never changes after construction and the
  // board serialises its own calls, so this path takes no lock and a slow poll does not hold
  // the answer up.
  auto temps = get_temp();
  if (!temps) {
    if (request.reply_to) {
      static_cast<void>(send_error_response(request));
    }
    return ErrorPayload(Error::CommonError);
  }
  if (!request.reply_to) {
    // Nobody waits for an answer.
    return core::success();
  }
  const auto& records = temps.value();
  ipc::Payload payload(records.size() * sizeof(Brd__temp_info));
  // A board without sensors answers an empty payload; memcpy must not see its null pointers.
  if (!payload.empty()) {
    std::memcpy(payload.data(), records.data(), payload.size());
  }
  auto sent = core::guarded_call(*logger_, [&] { return send_answer(request, std::move(payload)); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return core::success();
}

}  // namespace xpon::system_mgr
