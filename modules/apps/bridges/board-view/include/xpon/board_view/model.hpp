#pragma once

// The last-value model of one board that the operator bridges (SNMP, Prometheus) publish: every
// reading the system manager gives, decoded into units, with when it was last read and whether
// the last read failed, the limits the configuration database holds, and the alarms it reports
// as raised. Texts read from the board (factory data, identities, alarm texts) are kept with every
// byte outside printable ASCII as \xNN, as system-mgr-ctl shows them. The apply_* functions are pure: what the daemon
// sent in, the model (and the alarm transitions) out.

#include "xpon/ipc/ipc.hpp"

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace xpon::board_view {

/// Wall-clock time: operators and their tools read timestamps as calendar time.
using Clock = std::chrono::system_clock;

/// How one source of readings (one request of the daemon) fared.
struct ReadState {
  std::optional<Clock::time_point> updated;  ///< the last successful read; none yet: never read
  bool failed = false;                       ///< the last read failed (error answer, bad payload, no answer)
  std::string error;                         ///< why the last read failed; empty after a success
  friend bool operator==(const ReadState&, const ReadState&) = default;
};

/// One temperature sensor, in the driver's order.
struct Temperature {
  std::int32_t id = 0;  ///< the driver's sensor id (0 PON SFP 1, 1 PON SFP 2, 2 front SFP, 3 switch, 4 PON chip)
  int celsius = 0;
  std::optional<int> lower_limit;  ///< from the configuration database, when it has the sensor
  std::optional<int> upper_limit;
  friend bool operator==(const Temperature&, const Temperature&) = default;
};

/// One fan of the board (LT), numbered from 1.
struct Fan {
  unsigned number = 0;
  bool present = false;
  bool fault = false;
  unsigned rpm = 0;
  friend bool operator==(const Fan&, const Fan&) = default;
};

/// One power supply of the board (LT), numbered from 1. The daemon copies only part of each
/// supply's record (see the client header), so the identification may be empty.
struct Supply {
  unsigned number = 0;
  bool present = false;
  bool power_good = false;
  std::uint8_t alert = 0;
  friend bool operator==(const Supply&, const Supply&) = default;
};

/// The crate's fan module as an FC board sees it.
struct FanModule {
  bool present = false;
  bool fault = false;
  std::vector<unsigned> rpm;  ///< fan 1 first, as many as the module's count (at most 28)
  unsigned speed_setting = 0;
  std::string product;  ///< identification; empty until the factory answer came
  std::string serial;
  std::string revision;
  friend bool operator==(const FanModule&, const FanModule&) = default;
};

/// The crate's power module as an FC board sees it, in base units.
struct PowerModule {
  bool present = false;
  bool power_good = false;
  bool fault = false;
  bool fan_fault = false;
  double input_volts = 0;
  double output_volts = 0;
  double output_amperes = 0;
  double output_watts = 0;
  int celsius = 0;
  friend bool operator==(const PowerModule&, const PowerModule&) = default;
};

/// The two groups of SFP cages: PON ports (P) and front ports (F).
enum class PortGroup : std::uint8_t { Pon, Front };

/// "pon" or "front".
std::string_view group_name(PortGroup group) noexcept;

/// The digital diagnostics of a module, in base units.
struct Diagnostics {
  double celsius = 0;
  double volts = 0;
  double bias_amperes = 0;
  double tx_watts = 0;
  friend bool operator==(const Diagnostics&, const Diagnostics&) = default;
};

/// One plugged SFP module.
struct SfpModule {
  PortGroup group = PortGroup::Pon;
  std::uint32_t port = 0;
  std::uint8_t state = 0;  ///< the module state byte the board reported last
  std::string vendor;
  std::string part_number;
  std::string revision;
  std::string serial;
  std::uint16_t wavelength_nm = 0;
  std::optional<Diagnostics> diagnostics;  ///< none while the module gives none (valid flag 0)
  ReadState diagnostics_read;
  std::optional<double> rx_watts;  ///< PON ports only
  ReadState rx_read;
  friend bool operator==(const SfpModule&, const SfpModule&) = default;
};

/// One alarm the daemon reports as raised, keyed by (alarm id, instance).
struct ActiveAlarm {
  std::uint32_t alarm_id = 0;
  std::uint32_t instance = 0;
  std::array<std::uint32_t, 3> values{};
  std::string text;
  Clock::time_point raised;     ///< when this bridge first saw it raised
  Clock::time_point last_seen;  ///< the daemon's latest report of it
  friend bool operator==(const ActiveAlarm&, const ActiveAlarm&) = default;
};

/// A change of an alarm's state as the bridges see it: the daemon reports every alarm again each
/// period (level-triggered); only a change is a transition.
struct AlarmTransition {
  bool raised = false;  ///< true: raised now; false: back to normal
  ActiveAlarm alarm;    ///< for a clear, the alarm as it was while raised, with the clearing report's values
  friend bool operator==(const AlarmTransition&, const AlarmTransition&) = default;
};

/// The configuration database's limits that the readings are judged by.
struct Limits {
  std::optional<unsigned> fan_lower_rpm;
  std::optional<unsigned> fan_upper_rpm;
  std::optional<unsigned> ram_free_percent;   ///< lowest acceptable free share of RAM
  std::optional<unsigned> disk_free_percent;  ///< lowest acceptable free share of each partition
  std::optional<double> load_average;         ///< load average at or above which the alarm is raised
  friend bool operator==(const Limits&, const Limits&) = default;
};

using SfpKey = std::pair<PortGroup, std::uint32_t>;
using AlarmKey = std::pair<std::uint32_t, std::uint32_t>;

/// Everything known of one board. Two models compare equal when every reading, read state, module,
/// alarm and limit is the same: a reader that rebuilds something from the model can skip an
/// unchanged one.
struct BoardModel {
  std::optional<std::uint32_t> family;  ///< System_mgr__device_family, from the device factory answer
  std::string product;                  ///< the device factory data's product name
  std::string serial;
  std::string crate_product;  ///< FC boards: the crate's factory data
  std::string crate_serial;
  ReadState factory_read;
  ReadState crate_factory_read;
  std::optional<unsigned> fpga_version;
  ReadState fpga_read;
  std::optional<unsigned> cpld_version;
  ReadState cpld_read;

  std::optional<double> ram_total_bytes;
  std::optional<double> ram_free_bytes;
  ReadState ram_read;
  std::optional<double> disk_total_bytes;
  std::optional<double> disk_free_bytes;
  ReadState disk_read;

  std::vector<Temperature> temperatures;
  ReadState temperatures_read;
  std::vector<Fan> fans;
  ReadState fans_read;
  std::vector<Supply> supplies;
  ReadState supplies_read;
  std::optional<FanModule> fan_module;
  ReadState fan_module_read;
  ReadState fan_module_factory_read;
  std::optional<PowerModule> power_module;
  ReadState power_module_read;

  std::map<SfpKey, SfpModule> sfp;
  std::array<ReadState, 2> sfp_read;  ///< indexed by PortGroup

  std::map<AlarmKey, ActiveAlarm> alarms;
  std::optional<Clock::time_point> alarms_updated;  ///< the latest alarm record received

  Limits limits;
  /// Per sensor id: (lower, upper) in degrees Celsius.
  std::map<std::int32_t, std::pair<int, int>> temperature_limits;
  ReadState limits_read;
  friend bool operator==(const BoardModel&, const BoardModel&) = default;
};

/// Takes one answer (or the failure to get one) to request `id` into the model. Answers to
/// requests the model does not hold are ignored. A failure keeps the last values and marks their
/// source failed; a payload of the wrong size is a failure too. For the per-port requests, `port`
/// names the port asked about.
void apply_answer(BoardModel& model, std::uint16_t id, std::optional<std::uint32_t> port,
                  const core::Result<ipc::Response>& answer, Clock::time_point now);

/// Takes one event of the daemon into the model: alarm records (returns the transition, if the
/// record changes the alarm's state), SFP insertions and removals. Malformed payloads are ignored
/// and counted by the caller from the returned flag.
struct EventOutcome {
  bool understood = false;               ///< false: not an event of the model, or a malformed one
  std::optional<AlarmTransition> alarm;  ///< an alarm raised or cleared
  std::optional<SfpKey> inserted;        ///< a module to read the diagnostics of now
};
EventOutcome apply_event(BoardModel& model, const ipc::Event& event, Clock::time_point now);

/// Copies the configuration database's temperature limits into the sensors of the model.
void attach_temperature_limits(BoardModel& model);

}  // namespace xpon::board_view
