#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/cfgdb/cfgdb.h"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/host/host.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"
#include "xpon/system_mgr/functions/temp_verdict.hpp"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace xpon::system_mgr {

/// Reads the board's temperature sensors, publishes one alarm record per sensor on every poll,
/// drives the automatic fan speed from the readings and answers the request for the readings.
/// In a crate, boards that do not drive the crate's fans ask the master FC board for the
/// maximum rate by event; the master FC board collects those requests per slot.
class TempMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "TempMonitoring";
  /// Alarm identifier of a temperature sensor.
  static constexpr std::uint32_t kAlarmId = SYSTEM_MGR_ALARM_TEMPERATURE;
  /// The sensor limits' section and the fan control section, whose names are also their change events'.
  static constexpr cfgdb::SectionRef kTemperatureSection = cfgdb::kAlarmSystemTemperature;
  static constexpr cfgdb::SectionRef kFanSection = cfgdb::kFan;
  /// Fan settings of the automatic control (the board driver's unit).
  static constexpr std::uint8_t kFanAutoMaxRate = 159;
  static constexpr std::uint8_t kFanAutoMinRate = 102;
  /// Above it the fans go to the maximum rate, below it to the minimum; at it nothing changes.
  static constexpr int kSwitchTemperature = kFanSwitchTemperature;
  /// Family codes of the fan section's family field.
  static constexpr std::uint32_t kFamilyLt = kFanFamilyLt;
  static constexpr std::uint32_t kFamilyLc = kFanFamilyLc;
  static constexpr std::uint32_t kFamilyFc = kFanFamilyFc;
  /// The master FC board's own slot, and the crate's slots whose requests it keeps.
  static constexpr std::uint16_t kFcSlot = 21;
  /// The Election Manager's address and its mastership query (answer: the master's slot, uint16).
  static constexpr ipc::Address kElectionManager = 0x0015FFFE;
  static constexpr std::uint16_t kElectionGroup = 14500;
  static constexpr std::uint16_t kMasterQueryId = 14504;
  static constexpr std::chrono::milliseconds kMasterQueryTimeout{1000};

  /// Reads both configuration sections and the sensor count; on an FC board also asks who is
  /// master. Throws std::runtime_error when any of these fails. The host formats the alarm texts.
  TempMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                 const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board,
                 std::chrono::milliseconds period, const std::shared_ptr<host::IHost>& host = host::system_host());
  ~TempMonitoring() override;
  TempMonitoring(const TempMonitoring&) = delete;
  TempMonitoring& operator=(const TempMonitoring&) = delete;
  TempMonitoring(TempMonitoring&&) = delete;
  TempMonitoring& operator=(TempMonitoring&&) = delete;

  /// Re-reads the temperature limits (81) and the fan control section (42) among the changed ones.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Asks the Election Manager which slot is master (not on LC boards).
  Result<void> master_change(const ServiceCtx& ctx) override;

  /// Reports every sensor and runs the automatic fan step once per sensor.
  Result<void> polling() override;

  /// Subscribes IPC_SYSTEM_MGR__GET_TEMP and the two fan rate events.
  Result<void> ipc_subscribe() override;

  /// Unsubscribes what ipc_subscribe subscribed, in the same order.
  Result<void> ipc_unsubscribe() override;

  /// Handles the maximum and minimum rate events of the crate's boards (FC only).
  Result<void> handle_event(const ipc::Event& event);

  /// The process-wide "this process asked the master for the maximum rate" flag, shared by all
  /// instances; set_event_max_rate_sent puts it back (a test starts from a known state).
  [[nodiscard]] static bool event_max_rate_sent() noexcept;
  static void set_event_max_rate_sent(bool sent) noexcept;

  /// Observers of the state the fan control keeps (each read under the function's mutex).
  [[nodiscard]] bool max_rate_set();
  [[nodiscard]] bool is_master();
  [[nodiscard]] std::uint16_t own_slot() const noexcept { return own_slot_; }
  [[nodiscard]] std::unordered_map<std::uint16_t, bool> slot_max_rate();
  [[nodiscard]] std::uint8_t sensor_count() const noexcept { return sensor_count_; }

 protected:
  /// The sensor limits a poll compares with, guarded by mutex(); a subclass may zero them to
  /// the record of a section never filled (lower = upper = 0: every sensor an alarm).
  CfgDb__alarm_system_temperature& thresholds() noexcept { return temp_thresholds_; }

 private:
  Result<void> cfg_update();
  Result<void> fan_cfg_update();
  Result<std::vector<Brd__temp_info>> get_temp();
  Result<void> get_temp_request(const ipc::Request& request);
  Result<void> report_sensor(const Brd__temp_info& record);
  // The fan control's state as decide_sensor takes it; called under the mutex.
  [[nodiscard]] FanControlState fan_state() const;
  // Carry out a step that decide_fan decided: each sets its path's flag once the setting went out.
  Result<void> handle_auto_fan(const FanDecision& decision);
  Result<void> lt_handle_auto_fan(bool maximum);
  Result<void> fc_handle_auto_fan(bool maximum);
  // Sets the board's fans or the fan module (by `set_speed`) to the maximum or minimum rate.
  Result<void> set_auto_rate(Result<void> (board::IBoard::*set_speed)(std::uint8_t), bool maximum);
  Result<void> handle_auto_fan_with_event(bool maximum);
  Result<void> send_rate_event(std::uint16_t id);
  Result<bool> ask_master();

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  std::shared_ptr<board::IBoard> board_;
  // The members below that more than one thread touches (the configuration records, auto_fan_,
  // max_rate_set_, is_master_, slot_max_rate_) are guarded by the base mutex: the poll holds it,
  // and the event and configuration paths take it. sensor_count_ and own_slot_ are written
  // only during construction.
  CfgDb__alarm_system_temperature temp_thresholds_;
  CfgDb__fan fan_speed_cfg_;
  std::uint8_t sensor_count_ = 0;
  bool auto_fan_ = false;
  bool max_rate_set_ = false;
  bool is_master_ = false;
  std::uint16_t own_slot_ = 0;
  std::unordered_map<std::uint16_t, bool> slot_max_rate_;
  std::shared_ptr<host::IHost> host_;
};

}  // namespace xpon::system_mgr
