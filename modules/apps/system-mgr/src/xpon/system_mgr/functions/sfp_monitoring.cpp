#include "xpon/system_mgr/functions/sfp_monitoring.hpp"

#include "xpon/core/guard.hpp"
#include "xpon/units/units.h"

#include <array>
#include <cmath>
#include <cstring>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;
using std::placeholders::_1;

// Bytes 4 to 62 of the identification reading are kept; its last byte is not.
constexpr std::size_t kKeptDataBytes = sizeof(SfpModuleRecord::data);
static_assert(kKeptDataBytes == sizeof(Brd__sfp_data::data) - 1);

// The number of calibration coefficients of the receive power polynomial.
constexpr int kRxPowerTerms = 5;

template <typename T>
ipc::Payload bytes_of(const T& value) {
  ipc::Payload payload(sizeof value);
  std::memcpy(payload.data(), &value, sizeof value);
  return payload;
}

}  // namespace

SfpMonitoring::SfpMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                             const std::shared_ptr<board::IBoard>& board, std::chrono::milliseconds period)
    : SysFunction(logger, ipc, kName, period),
      logger_(logger),
      ipc_(ipc),
      board_(board),
      polling_fn_([this] { return lt_polling(); }),
      ipc_subscribe_fn_([this] { return lt_ipc_subscribe(); }),
      ipc_unsubscribe_fn_([this] { return lt_ipc_unsubscribe(); }),
      // The board operations are held as bound objects, each keeping its own share of the board.
      // NOLINTBEGIN(modernize-avoid-bind)
      cntrl_p_port_sfp_trx_(std::bind(&board::IBoard::cntrl_p_port_sfp_trx, board, _1)),
      cntrl_f_port_sfp_trx_(std::bind(&board::IBoard::cntrl_f_port_sfp_trx, board, _1)),
      get_f_port_sfp_state_(std::bind(&board::IBoard::get_f_port_sfp_state, board, _1)),
      get_p_port_sfp_state_(std::bind(&board::IBoard::get_p_port_sfp_state, board, _1)),
      get_f_port_sfp_data_(std::bind(&board::IBoard::get_f_port_sfp_data, board, _1)),
      get_p_port_sfp_data_(std::bind(&board::IBoard::get_p_port_sfp_data, board, _1)),
      get_f_port_sfp_eddi_data_(std::bind(&board::IBoard::get_f_port_sfp_eddi_data, board, _1)),
      get_p_port_sfp_eddi_data_(std::bind(&board::IBoard::get_p_port_sfp_eddi_data, board, _1)) {
  // NOLINTEND(modernize-avoid-bind)
  // A P-port request is refused on an FC board, an F-port request on an LC board; the
  // refusal texts are kept as they are, "LT or LC" of the P-port TRX requests included.
  const auto p_port = [this](std::string_view refusal, auto body) {
    return [this, refusal, body](const ipc::Request& request) -> Result<void> {
      if (device_family_ == DeviceFamily::FC) {
        return refuse(request, refusal);
      }
      return body(request);
    };
  };
  const auto f_port = [this](std::string_view refusal, auto body) {
    return [this, refusal, body](const ipc::Request& request) -> Result<void> {
      if (device_family_ == DeviceFamily::LC) {
        return refuse(request, refusal);
      }
      return body(request);
    };
  };
  declare_routes({
      {IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT,
       p_port("IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT request can be handled only LC or LT "
              "device family",
              [this](const ipc::Request& r) { return inject(r, true); })},
      {IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT,
       f_port("IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT request can be handled only FC or LT "
              "device family",
              [this](const ipc::Request& r) { return inject(r, false); })},
      {IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA,
       p_port("IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA request can be handled only LC or LT device family",
              [this](const ipc::Request& r) { return get_eddi_and_send_response(r, true); })},
      {IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA,
       f_port("IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA request can be handled only FC or LT device family",
              [this](const ipc::Request& r) { return get_eddi_and_send_response(r, false); })},
      {IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER,
       p_port("IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER request can be handled only LC or LT device family",
              [this](const ipc::Request& r) { return rx_power(r); })},
      {IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO,
       p_port("IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO request can be handled only LC or LT device family",
              [this](const ipc::Request& r) { return total_info(r, true); })},
      {IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO,
       f_port("IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO request can be handled only FC or LT device family",
              [this](const ipc::Request& r) { return total_info(r, false); })},
      {IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX,
       p_port("IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX request can be handled only LT or LC device family",
              [this](const ipc::Request& r) { return cntrl_trx_and_send_response(r, true, true); })},
      {IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX,
       f_port("IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX request can be handled only FC or LT device family",
              [this](const ipc::Request& r) { return cntrl_trx_and_send_response(r, true, false); })},
      {IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX,
       p_port("IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX request can be handled only LT or LC device family",
              [this](const ipc::Request& r) { return cntrl_trx_and_send_response(r, false, true); })},
      {IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX,
       f_port("IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX request can be handled only FC or LT device family",
              [this](const ipc::Request& r) { return cntrl_trx_and_send_response(r, false, false); })},
  });
  logger_->progress("{} create successfully", kName);
}

SfpMonitoring::~SfpMonitoring() {
  logger_->progress("{} destroy successfully", kName);
}

SfpMonitoring::Group SfpMonitoring::group(bool p_ports) {
  if (p_ports) {
    return Group{p_ports_,
                 p_ports_count_,
                 get_p_port_sfp_state_,
                 get_p_port_sfp_data_,
                 get_p_port_sfp_eddi_data_,
                 cntrl_p_port_sfp_trx_,
                 IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED,
                 IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED};
  }
  return Group{f_ports_,
               f_ports_count_,
               get_f_port_sfp_state_,
               get_f_port_sfp_data_,
               get_f_port_sfp_eddi_data_,
               cntrl_f_port_sfp_trx_,
               IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED,
               IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED};
}

SfpMonitoring::ModuleMap SfpMonitoring::modules(bool p_ports) {
  const std::lock_guard lock(mutex_);
  return p_ports ? p_ports_ : f_ports_;
}

// --- The bound variants -----------------------------------------------------------------

Result<void> SfpMonitoring::polling() {
  // An empty std::function throws std::bad_function_call; the callers guard it.
  return polling_fn_();
}

Result<void> SfpMonitoring::ipc_subscribe() {
  return ipc_subscribe_fn_();
}

Result<void> SfpMonitoring::ipc_unsubscribe() {
  return ipc_unsubscribe_fn_();
}

Result<void> SfpMonitoring::lt_polling() {
  auto p_ports = cmn_polling(true);
  if (!p_ports) {
    // The F-ports wait for the next poll.
    return core::propagate(*logger_, std::move(p_ports));
  }
  auto f_ports = cmn_polling(false);
  if (!f_ports) {
    return core::propagate(*logger_, std::move(f_ports));
  }
  return core::success();
}

Result<void> SfpMonitoring::lc_polling() {
  auto polled = cmn_polling(true);
  if (!polled) {
    return core::propagate(*logger_, std::move(polled));
  }
  return core::success();
}

Result<void> SfpMonitoring::fc_polling() {
  auto polled = cmn_polling(false);
  if (!polled) {
    return core::propagate(*logger_, std::move(polled));
  }
  return core::success();
}

Result<void> SfpMonitoring::lt_ipc_subscribe() {
  return subscribe_routes(SYSTEM_MGR_SERVED_BY_LT);
}

Result<void> SfpMonitoring::lt_ipc_unsubscribe() {
  return unsubscribe_routes(SYSTEM_MGR_SERVED_BY_LT);
}

Result<void> SfpMonitoring::lc_ipc_subscribe() {
  return subscribe_routes(SYSTEM_MGR_SERVED_BY_LC);
}

Result<void> SfpMonitoring::lc_ipc_unsubscribe() {
  return unsubscribe_routes(SYSTEM_MGR_SERVED_BY_LC);
}

Result<void> SfpMonitoring::fc_ipc_subscribe() {
  return subscribe_routes(SYSTEM_MGR_SERVED_BY_FC);
}

Result<void> SfpMonitoring::fc_ipc_unsubscribe() {
  return unsubscribe_routes(SYSTEM_MGR_SERVED_BY_FC);
}

// --- Polling ------------------------------------------------------------------------------

Result<void> SfpMonitoring::send_module_event(std::uint16_t id, ipc::Payload payload) {
  ipc::Event event;
  event.payload = std::move(payload);
  event.address = kReplyAddressWord;
  event.group = IPC_SYSTEM_MGR;
  event.id = id;
  auto sent = core::guarded_call(*logger_, [this, &event] { return ipc_->send_event(event); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return core::success();
}

Result<void> SfpMonitoring::cmn_polling(bool p_ports) {
  const Group cages = group(p_ports);
  if (cages.count == 0) {
    return core::success();
  }
  for (std::uint32_t port = 0; port < cages.count; ++port) {
    Brd__sfp_state state;
    std::memset(&state, 0, sizeof state);
    state.port = port;
    // A cage that cannot be read is skipped silently: it is read again at the next poll.
    if (!core::guarded_call(*logger_, [&] { return cages.get_state(state); })) {
      continue;
    }

    if (state.present != 0) {
      {
        const std::lock_guard lock(mutex_);
        const auto known = cages.modules.find(port);
        if (known != cages.modules.end()) {
          // A known module's state changes silently: no event.
          known->second.state = state.state;
          continue;
        }
      }
      Brd__sfp_data data;
      std::memset(&data, 0, sizeof data);
      data.port = port;
      // Deliberately silent as well: the module is reported once its data can be read.
      if (!core::guarded_call(*logger_, [&] { return cages.get_data(data); })) {
        continue;
      }
      const std::lock_guard lock(mutex_);
      SfpModuleRecord record;
      std::memset(&record, 0, sizeof record);
      record.port = port;
      record.state = state.state;
      std::memcpy(record.data, data.data, kKeptDataBytes);
      cages.modules.emplace(port, record);
      // Sent under the lock, so a request never sees a module whose event is not out yet. A failed
      // send ends the poll and the record stays: the insertion is deliberately not reported again.
      auto sent = send_module_event(cages.inserted_id, bytes_of(record));
      if (!sent) {
        return sent;
      }
    } else {
      const std::lock_guard lock(mutex_);
      if (cages.modules.erase(port) == 0) {
        continue;
      }
      // The entry is gone even if the event cannot be sent: the removal is not reported again.
      auto sent = send_module_event(cages.removed_id, bytes_of(port));
      if (!sent) {
        return sent;
      }
    }
  }
  return core::success();
}

// --- Requests -----------------------------------------------------------------------------

Result<void> SfpMonitoring::refuse(const ipc::Request& req, std::string_view text) {
  logger_->error("{}", text);
  return send_error_response(req);
}

Result<void> SfpMonitoring::answer_error(const ipc::Request& req, Error code) {
  auto answered = send_error_response(req);
  if (!answered && answered.error().error != Error::CommonError) {
    // No reply information (Error::Exception) or a failed send, logged where it happened.
    return answered;
  }
  return ErrorPayload(code);
}

Result<void> SfpMonitoring::answer(const ipc::Request& req, ipc::Payload payload) {
  // Without reply information send_answer throws std::bad_optional_access: Error::Exception.
  auto sent = core::guarded_call(*logger_, [&] { return send_answer(req, std::move(payload)); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return core::success();
}

bool SfpMonitoring::is_known(bool p_ports, std::uint32_t port) {
  const std::lock_guard lock(mutex_);
  return group(p_ports).modules.contains(port);
}

Result<void> SfpMonitoring::inject(const ipc::Request& req, bool p_ports) {
  {
    const std::lock_guard lock(mutex_);
    const Group cages = group(p_ports);
    for (const auto& [port, record] : cages.modules) {
      auto sent = send_module_event(cages.inserted_id, bytes_of(record));
      if (!sent) {
        return sent;
      }
    }
  }
  // The events are out even when the request has no reply information.
  return answer(req, {});
}

Result<void> SfpMonitoring::total_info(const ipc::Request& req, bool p_ports) {
  std::vector<SfpModuleRecord> records;
  {
    const std::lock_guard lock(mutex_);
    const ModuleMap& present = group(p_ports).modules;
    records.reserve(present.size());
    for (const auto& entry : present) {
      records.push_back(entry.second);
    }
  }
  ipc::Payload payload(records.size() * sizeof(SfpModuleRecord));
  if (!records.empty()) {
    std::memcpy(payload.data(), records.data(), payload.size());
  }
  return answer(req, std::move(payload));
}

Result<void> SfpMonitoring::rx_power(const ipc::Request& req) {
  const std::lock_guard lock(mutex_);
  std::uint32_t port = 0;
  if (req.payload.size() < sizeof port) {
    return answer_error(req, Error::InvalidInputArg);
  }
  std::memcpy(&port, req.payload.data(), sizeof port);
  if (!p_ports_.contains(port)) {
    return answer_error(req, Error::CommonError);
  }
  // Deliberately left zero: the port only decides whether the request is accepted, the
  // reading itself names no port.
  Brd__sfp_rx_power reading;
  std::memset(&reading, 0, sizeof reading);
  // Called on the board itself, not through a bound operation.
  auto read = board_call<Brd__sfp_rx_power>(
      req, [this](Brd__sfp_rx_power& record) { return board_->get_p_port_sfp_rx_power(record); }, reading);
  if (!read) {
    return read;
  }
  double power = 0.0;
  const auto x = static_cast<double>(reading.rx_power);
  for (int k = 0; k < kRxPowerTerms; ++k) {
    power += static_cast<double>(reading.coefficient[k]) * std::pow(x, static_cast<double>(k));
  }
  return answer(req, bytes_of(power));
}

Result<std::uint32_t> SfpMonitoring::requested_module(const ipc::Request& req, bool p_port) {
  std::uint32_t port = 0;
  if (req.payload.size() < sizeof port) {
    return answer_error(req, Error::CommonError).as_failure();
  }
  std::memcpy(&port, req.payload.data(), sizeof port);
  if (!is_known(p_port, port)) {
    return answer_error(req, Error::CommonError).as_failure();
  }
  return port;
}

template <typename Record>
Result<void> SfpMonitoring::board_call(const ipc::Request& req, const std::function<Result<void>(Record&)>& operation,
                                       Record& record) {
  auto called = core::guarded_call(*logger_, [&] { return operation(record); });
  if (!called) {
    core::log_error(*logger_, called.error());
    return answer_error(req, Error::CommonError);
  }
  return core::success();
}

Result<void> SfpMonitoring::get_eddi_and_send_response(const ipc::Request& req, bool p_port) {
  auto port = requested_module(req, p_port);
  if (!port) {
    return std::move(port).as_failure();
  }
  Brd__sfp_eddi_data eddi;
  std::memset(&eddi, 0, sizeof eddi);
  eddi.port = port.value();
  auto read = board_call(req, group(p_port).get_eddi, eddi);
  if (!read) {
    return read;
  }
  // A copy of the words: the driver's record is packed.
  std::array<std::uint16_t, sizeof eddi.data / sizeof(std::uint16_t)> w{};
  std::memcpy(w.data(), eddi.data, sizeof eddi.data);
  System_mgr__sfp_eddi_data answer_record;
  std::memset(&answer_record, 0, sizeof answer_record);
  answer_record.port = port.value();
  answer_record.valid = 1;
  answer_record.temperature = calibrate_sfp_temperature(w[2], w[3], w[4]);
  answer_record.voltage = centivolts_to_microvolts(calculate_fixed_decimal(w[5], w[6], w[7]));
  answer_record.bias_current = ampers_to_milliampers(calculate_fixed_decimal(w[8], w[9], w[10]));
  answer_record.optical_power = sfp_power_units_to_mw(calculate_fixed_decimal(w[11], w[12], w[13]));
  return answer(req, bytes_of(answer_record));
}

Result<void> SfpMonitoring::cntrl_trx_and_send_response(const ipc::Request& req, bool enable, bool p_port) {
  auto port = requested_module(req, p_port);
  if (!port) {
    return std::move(port).as_failure();
  }
  Brd__cntrl_sfp_trx trx;
  std::memset(&trx, 0, sizeof trx);
  trx.port = port.value();
  trx.enable = enable ? 1 : 0;
  auto switched = board_call(req, group(p_port).cntrl_trx, trx);
  if (!switched) {
    return switched;
  }
  return answer(req, {});
}

}  // namespace xpon::system_mgr
