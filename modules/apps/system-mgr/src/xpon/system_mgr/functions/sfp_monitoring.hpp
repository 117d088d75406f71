#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace xpon::system_mgr {

/// The device family a request handler of SfpMonitoring checks (the factory's DeviceType codes).
enum class DeviceFamily : std::uint32_t { LT = 0, LC = 1, FC = 2 };

/// Watches the SFP cages of the P-ports and F-ports once a second, publishes an event when a
/// module is inserted (its record) or removed (its port), and answers the requests for the
/// modules' identities, diagnostics, receive power and transmitter switch.
class SfpMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "SfpMonitoring";
  /// The number of cages each poll walks in each group (ports 0 to count - 1).
  static constexpr std::uint8_t kPPortsCount = 16;
  static constexpr std::uint8_t kFPortsCount = 8;

  /// The present modules of a group, by port number.
  using ModuleMap = std::unordered_map<std::uint32_t, SfpModuleRecord>;

  SfpMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                const std::shared_ptr<board::IBoard>& board, std::chrono::milliseconds period);
  ~SfpMonitoring() override;
  SfpMonitoring(const SfpMonitoring&) = delete;
  SfpMonitoring& operator=(const SfpMonitoring&) = delete;
  SfpMonitoring(SfpMonitoring&&) = delete;
  SfpMonitoring& operator=(SfpMonitoring&&) = delete;

  /// Calls the bound polling variant (always lt_polling).
  Result<void> polling() override;
  /// Calls the bound subscription variant (always lt_ipc_subscribe).
  Result<void> ipc_subscribe() override;
  /// Calls the bound unsubscription variant (always lt_ipc_unsubscribe).
  Result<void> ipc_unsubscribe() override;

  /// Both groups: the P-ports, then, only if they succeeded, the F-ports.
  Result<void> lt_polling();
  /// The P-ports only.
  Result<void> lc_polling();
  /// The F-ports only.
  Result<void> fc_polling();
  /// One walk of a group's cages (true: the P-ports), reporting insertions and removals.
  Result<void> cmn_polling(bool p_ports);

  /// Subscribes (or unsubscribes) the eleven requests, in id order.
  Result<void> lt_ipc_subscribe();
  Result<void> lt_ipc_unsubscribe();
  /// Subscribes (or unsubscribes) the six P-port requests.
  Result<void> lc_ipc_subscribe();
  Result<void> lc_ipc_unsubscribe();
  /// Subscribes (or unsubscribes) the five F-port requests.
  Result<void> fc_ipc_subscribe();
  Result<void> fc_ipc_unsubscribe();

  /// Answers with the module's diagnostics in engineering units (133 bytes).
  Result<void> get_eddi_and_send_response(const ipc::Request& req, bool p_port);
  /// Switches the module's transmitter and answers with an empty payload.
  Result<void> cntrl_trx_and_send_response(const ipc::Request& req, bool enable, bool p_port);

  /// A copy of a group's map, taken under the lock (true: the P-ports).
  [[nodiscard]] ModuleMap modules(bool p_ports);

  /// The family the request handlers check.
  [[nodiscard]] DeviceFamily device_family() const noexcept { return device_family_; }

 protected:
  // Set to LT by the constructor and changed by no operation of this class: the FC and LC
  // behaviours exist but are deliberately never selected. Protected so that a test can set it.
  DeviceFamily device_family_ = DeviceFamily::LT;

 private:
  // What one poll and the requests need of a group.
  struct Group {
    ModuleMap& modules;
    std::uint8_t count;
    const std::function<Result<void>(Brd__sfp_state&)>& get_state;
    const std::function<Result<void>(Brd__sfp_data&)>& get_data;
    const std::function<Result<void>(Brd__sfp_eddi_data&)>& get_eddi;
    const std::function<Result<void>(Brd__cntrl_sfp_trx&)>& cntrl_trx;
    std::uint16_t inserted_id;
    std::uint16_t removed_id;
  };
  Group group(bool p_ports);

  Result<void> inject(const ipc::Request& req, bool p_ports);
  Result<void> total_info(const ipc::Request& req, bool p_ports);
  Result<void> rx_power(const ipc::Request& req);
  // Logs the refusal text at level 4 and answers with an error response.
  Result<void> refuse(const ipc::Request& req, std::string_view text);
  // Answers with an error response; the result is `code` once that was sent, otherwise the
  // send's own failure (Error::Exception for a request without reply information).
  Result<void> answer_error(const ipc::Request& req, core::Error code);
  // Answers with result word 1, guarded: a request without reply information ends in Error::Exception.
  Result<void> answer(const ipc::Request& req, ipc::Payload payload);
  // The port of a port request (its first 4 bytes) when a module is recorded there; otherwise
  // the requester has had the error response and this is its result.
  Result<std::uint32_t> requested_module(const ipc::Request& req, bool p_port);
  // A board operation for a request, guarded; a failure is logged and answered with the error
  // response, whose result is returned.
  template <typename Record>
  Result<void> board_call(const ipc::Request& req, const std::function<Result<void>(Record&)>& operation,
                          Record& record);
  Result<void> send_module_event(std::uint16_t id, ipc::Payload payload);
  bool is_known(bool p_ports, std::uint32_t port);

  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<board::IBoard> board_;
  std::function<Result<void>()> polling_fn_;
  std::function<Result<void>()> ipc_subscribe_fn_;
  std::function<Result<void>()> ipc_unsubscribe_fn_;
  std::uint8_t p_ports_count_ = kPPortsCount;
  std::uint8_t f_ports_count_ = kFPortsCount;
  ModuleMap p_ports_;
  ModuleMap f_ports_;
  // Guards both maps; polling holds it only around a map change and its event.
  std::mutex mutex_;

  std::function<Result<void>(Brd__cntrl_sfp_trx&)> cntrl_p_port_sfp_trx_;
  std::function<Result<void>(Brd__cntrl_sfp_trx&)> cntrl_f_port_sfp_trx_;
  std::function<Result<void>(Brd__sfp_state&)> get_f_port_sfp_state_;
  std::function<Result<void>(Brd__sfp_state&)> get_p_port_sfp_state_;
  std::function<Result<void>(Brd__sfp_data&)> get_f_port_sfp_data_;
  std::function<Result<void>(Brd__sfp_data&)> get_p_port_sfp_data_;
  std::function<Result<void>(Brd__sfp_eddi_data&)> get_f_port_sfp_eddi_data_;
  std::function<Result<void>(Brd__sfp_eddi_data&)> get_p_port_sfp_eddi_data_;
};

}  // namespace xpon::system_mgr
