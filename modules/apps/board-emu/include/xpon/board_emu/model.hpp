#pragma once

#include "xpon/core/result.hpp"

#include <nlohmann/json.hpp>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::board_emu {

using Json = nlohmann::ordered_json;

/// Mode of one LED, as the driver's LED commands carry it (0 off, 1 on, 2 blink).
enum class LedMode : std::uint8_t { Off = 0, On = 1, Blink = 2 };

/// Colour of one LED (0 green, 1 yellow, 2 red).
enum class LedColor : std::uint8_t { Green = 0, Yellow = 1, Red = 2 };

/// The six one-byte values the driver reports with its inventory commands.
struct Inventory {
  std::uint8_t cpld_version = 0;
  std::uint8_t fan_count = 0;
  std::uint8_t ps_count = 0;
  std::uint8_t temp_count = 0;
  std::uint8_t pon_port_count = 0;
  std::uint8_t front_port_count = 0;
};

/// One temperature sensor.
struct TempSensor {
  std::int32_t id = 0;
  std::int8_t temperature = 0;
};

/// One fan of the board; speed in revolutions per second.
struct Fan {
  bool present = true;
  bool fault = false;
  std::uint16_t speed = 0;
};

/// One power supply with its identification texts.
struct PowerSupply {
  bool present = true;
  bool power_good = true;
  bool has_info = false;
  std::uint8_t alert = 0;
  std::string model;
  std::string serial;
  std::string version;
  std::string revision;
  std::string date;
};

/// Factory data of the crate's fan module.
struct FanModuleFactory {
  std::string product_name;
  std::string serial_number;
  std::string hw_revision;
  std::string mfg_date;
};

/// The crate's fan module (FC boards); speeds in revolutions per second.
struct FanModule {
  bool present = true;
  bool fault = false;
  std::vector<std::uint8_t> fan_speeds;
  std::uint8_t speed_setting = 0;
  FanModuleFactory factory;
};

/// The crate's power module (FC boards), in the driver's units.
struct PowerModule {
  bool present = true;
  bool power_good = true;
  bool fault = false;
  bool fan_fault = false;
  std::uint16_t input_voltage = 0;   ///< 0.1 V
  std::uint16_t output_voltage = 0;  ///< 10 mV
  std::uint16_t output_current = 0;  ///< 10 mA
  std::uint16_t output_power = 0;    ///< W
  std::int16_t temperature = 0;      ///< degrees Celsius
};

/// Raw received-power word of a PON module and its calibration polynomial c0 .. c4.
struct RxPower {
  std::uint16_t raw = 0;
  std::array<float, 5> coefficients{};
};

/// The two elements of a P-port's two-colour LED.
struct PortLed {
  LedMode red = LedMode::Off;
  LedMode green = LedMode::Off;
};

/// One SFP cage and the module in it (when present).
struct SfpPort {
  bool present = false;
  bool tx_fault = false;
  bool rx_los = false;
  std::uint8_t state = 0;
  std::array<std::uint8_t, 60> identification{};
  std::array<std::uint16_t, 16> diagnostics{};
  bool trx_enabled = true;
  RxPower rx_power;  ///< P-ports only
  PortLed led;       ///< P-ports only
};

/// One front-panel LED.
struct PanelLed {
  LedMode mode = LedMode::Off;
  LedColor color = LedColor::Green;
};

/// The front button and its two settings.
struct FrontButton {
  bool pressed = false;
  bool polling_enabled = false;
  bool hard_reset_enabled = false;
};

/// An injected failure of one driver command: an errno and/or a delay, for a number of calls.
struct Fault {
  int error = 0;                           ///< errno the command fails with; 0 = it only answers late
  std::optional<std::uint32_t> remaining;  ///< calls still to be hit; none = until the fault is removed
  std::uint32_t delay_ms = 0;              ///< time each hit call takes before it answers
};

/// Names of the front-panel LEDs in the order of their driver numbers.
inline constexpr std::array<std::string_view, 5> kPanelLedNames = {"power", "status", "alarm", "master", "fan"};

/// A simple thermal model, off unless enabled: every step each sensor's temperature moves
/// `rate_percent` of the way (at least 1 °C) toward ambient + load - cooling × setting / 255,
/// where the setting is the fan module's on a board that has one, else the board's fan setting.
/// So the faster the fans are set, the cooler the board gets, and a closed loop can be watched.
struct Thermal {
  bool enabled = false;
  std::int8_t ambient = 25;        ///< °C
  std::uint8_t load = 45;          ///< °C above ambient with the fans stopped
  std::uint8_t cooling = 60;       ///< °C the fans take off at the full setting (255)
  std::uint16_t step_ms = 1000;    ///< time between steps, 10 to 60000 ms
  std::uint8_t rate_percent = 20;  ///< share of the distance to the target covered per step, 1 to 100
};

/// Whole state of the emulated board: what the scenario gave and what the daemon set.
struct BoardModel {
  Inventory inventory;
  std::uint8_t fpga_version = 0;
  std::vector<TempSensor> sensors;
  std::vector<Fan> fans;
  std::uint8_t fan_speed_setting = 0;
  std::vector<PowerSupply> power_supplies;
  std::optional<FanModule> fan_module;      ///< none: the board has no crate fan module
  std::optional<PowerModule> power_module;  ///< none: the board has no crate power module
  std::vector<SfpPort> pon_ports;
  std::vector<SfpPort> front_ports;
  std::array<PanelLed, 5> led_panel{};
  FrontButton front_button;
  std::map<std::string, Fault, std::less<>> faults;  ///< by command name, e.g. "BOARD_GET_FAN_INFO"
  Thermal thermal;
};

/// Limits of the driver's records, which bound the lists a model may hold.
inline constexpr std::size_t kMaxSensors = 16;
inline constexpr std::size_t kMaxFans = 16;
inline constexpr std::size_t kMaxPowerSupplies = 8;
inline constexpr std::size_t kMaxFanModuleFans = 28;
inline constexpr std::size_t kMaxPorts = 255;

/// Deepest nesting accepted in a scenario or a patch; the model itself needs five levels.
inline constexpr int kMaxJsonDepth = 32;

/// Largest scenario file or patch accepted, in bytes.
inline constexpr std::size_t kMaxJsonText = std::size_t{4} * 1024 * 1024;

/// Parses a scenario or patch text; refuses text that is not JSON, too large or nested too deep
/// ("not valid JSON: ...", "the JSON text is larger than 4194304 bytes", "the JSON text is nested
/// deeper than 32 levels").
core::Result<Json> parse_json_text(std::string_view text);

/// Reads a model from its JSON form; unknown fields and bad values are refused with a message
/// "<field>: <reason>" whose field path starts with `base_path` (empty: the document itself).
core::Result<BoardModel> model_from_json(const Json& document, const std::string& base_path = {});

/// The JSON form of a model; model_from_json(model_to_json(m)) gives m back.
Json model_to_json(const BoardModel& model);

/// Merges a patch into a JSON document of the model's shape: objects merge key by key, null
/// removes a key, an array replaces a list, and an object of element indexes ({"1": {...}})
/// patches single list elements. Errors name the field as model_from_json does.
core::Result<Json> merge_patch(const Json& document, const Json& patch, const std::string& base_path = {});

/// Applies a patch to a model as one step: the result is the patched model, or an error and
/// nothing changed.
core::Result<BoardModel> apply_patch(const BoardModel& model, const Json& patch, const std::string& base_path = {});

/// One step of the thermal model when it is enabled (nothing otherwise); true when a sensor changed.
bool thermal_step(BoardModel& model);

/// The errno for a name such as "EIO", or none for an unknown name.
std::optional<int> errno_from_name(std::string_view name);

/// The name of an errno value ("EIO"), or its decimal text when it has no name here.
std::string errno_name(int error);

/// The text of an error result's message (or its code's name when it has none).
std::string error_text(const core::ErrorPayload& error);

}  // namespace xpon::board_emu
