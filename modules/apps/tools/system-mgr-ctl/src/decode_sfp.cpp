#include "decode_sfp.hpp"

#include "xpon/board/driver_abi.h"
#include "xpon/system_mgr/api.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <string>
#include <string_view>

namespace xpon::system_mgr::ctl::detail {

namespace {

constexpr std::size_t kEddiAnswerSize = sizeof(System_mgr__sfp_eddi_data);
// Receive power travels in the diagnostics standard's 0.1 uW units.
constexpr double kPowerUnitsPerMilliwatt = 10000.0;
constexpr double kMicrovoltsPerVolt = 1000000.0;

// The text field of `length` bytes at `offset`, without its padding blanks (and NULs).
std::string text_field(std::span<const std::uint8_t> data, std::size_t offset, std::size_t length) {
  if (offset >= data.size()) {
    return {};
  }
  const auto field = data.subspan(offset, std::min(length, data.size() - offset));
  std::string_view text(reinterpret_cast<const char*>(field.data()), field.size());
  const auto end = text.find_last_not_of(std::string_view(" \0", 2));
  text = end == std::string_view::npos ? std::string_view() : text.substr(0, end + 1);
  return escaped(text, false);
}

std::uint8_t byte_at(std::span<const std::uint8_t> data, std::size_t offset) {
  return offset < data.size() ? data[offset] : 0;
}

double to_dbm(double milliwatts) {
  return 10.0 * std::log10(milliwatts);
}

}  // namespace

SfpIdentity decode_sfp_identity(std::span<const std::uint8_t> data) {
  SfpIdentity identity;
  identity.identifier = byte_at(data, BRD_SFP_ID_IDENTIFIER);
  identity.connector = byte_at(data, BRD_SFP_ID_CONNECTOR);
  identity.vendor = text_field(data, BRD_SFP_ID_VENDOR_NAME, BRD_SFP_ID_TEXT_LENGTH);
  identity.oui = fmt::format("{:02x}:{:02x}:{:02x}", byte_at(data, BRD_SFP_ID_VENDOR_OUI),
                             byte_at(data, BRD_SFP_ID_VENDOR_OUI + 1), byte_at(data, BRD_SFP_ID_VENDOR_OUI + 2));
  identity.part_number = text_field(data, BRD_SFP_ID_PART_NUMBER, BRD_SFP_ID_TEXT_LENGTH);
  identity.revision = text_field(data, BRD_SFP_ID_REVISION, BRD_SFP_ID_REVISION_LENGTH);
  // Big-endian, as in the module's memory.
  identity.wavelength_nm = static_cast<std::uint16_t>((byte_at(data, BRD_SFP_ID_WAVELENGTH) << 8U) |
                                                      byte_at(data, BRD_SFP_ID_WAVELENGTH + 1));
  identity.serial = text_field(data, BRD_SFP_ID_SERIAL, BRD_SFP_ID_TEXT_LENGTH);
  return identity;
}

std::string sfp_identity_text(const SfpIdentity& identity) {
  return fmt::format("{} {} rev {}, serial {}, {} nm", identity.vendor.empty() ? "(no vendor)" : identity.vendor,
                     identity.part_number.empty() ? "(no part number)" : identity.part_number,
                     identity.revision.empty() ? "-" : identity.revision,
                     identity.serial.empty() ? "-" : identity.serial, identity.wavelength_nm);
}

Json sfp_identity_json(const SfpIdentity& identity) {
  return Json{{"vendor", identity.vendor},           {"oui", identity.oui},
              {"part_number", identity.part_number}, {"revision", identity.revision},
              {"serial", identity.serial},           {"wavelength_nm", identity.wavelength_nm},
              {"identifier", identity.identifier},   {"connector", identity.connector}};
}

std::string dbm_text(double milliwatts) {
  if (!(milliwatts > 0.0) || !std::isfinite(milliwatts)) {
    return "no light";
  }
  return fmt::format("{:.2f} dBm", to_dbm(milliwatts));
}

namespace {

// dBm as a JSON value: null where there is no light to measure.
Json dbm_json(double milliwatts) {
  if (!(milliwatts > 0.0) || !std::isfinite(milliwatts)) {
    return nullptr;
  }
  return to_dbm(milliwatts);
}

}  // namespace

Decoded decode_sfp_modules(std::span<const std::uint8_t> bytes) {
  if (bytes.size() % sizeof(SfpModuleRecord) != 0) {
    return wrong_size(bytes.size(), "a multiple of 64 (one record per module)");
  }
  Decoded decoded;
  Json modules = Json::array();
  for (std::size_t offset = 0; offset < bytes.size(); offset += sizeof(SfpModuleRecord)) {
    const auto record = bytes.subspan(offset, sizeof(SfpModuleRecord));
    const std::uint32_t port = read_u32(record, offsetof(SfpModuleRecord, port));
    const std::uint8_t state = record[offsetof(SfpModuleRecord, state)];
    const auto data = record.subspan(offsetof(SfpModuleRecord, data));
    const SfpIdentity identity = decode_sfp_identity(data);
    decoded.lines.push_back(fmt::format("port {}: {}, state 0x{:02x}", port, sfp_identity_text(identity), state));
    Json module{{"port", port}, {"state", state}};
    module.update(sfp_identity_json(identity));
    module["data"] = hex(data);
    modules.push_back(module);
  }
  if (bytes.empty()) {
    decoded.lines.emplace_back("no modules");
  }
  decoded.json["modules"] = modules;
  return decoded;
}

Decoded decode_eddi(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != kEddiAnswerSize) {
    return wrong_size(bytes.size(), "133");
  }
  const std::uint32_t port = read_u32(bytes, offsetof(System_mgr__sfp_eddi_data, port));
  const bool valid = bytes[offsetof(System_mgr__sfp_eddi_data, valid)] != 0;
  const double temperature = read_f64(bytes, offsetof(System_mgr__sfp_eddi_data, temperature));
  const double microvolts = read_f64(bytes, offsetof(System_mgr__sfp_eddi_data, voltage));
  const double bias = read_f64(bytes, offsetof(System_mgr__sfp_eddi_data, bias_current));
  const double power = read_f64(bytes, offsetof(System_mgr__sfp_eddi_data, optical_power));
  const double volts = microvolts / kMicrovoltsPerVolt;
  Decoded decoded;
  decoded.lines.push_back(fmt::format(
      "port {}: diagnostics {}, temperature {} °C, supply {} V, bias {} mA, TX power {} mW ({})", port,
      valid ? "valid" : "not valid", number(temperature), number(volts), number(bias), number(power), dbm_text(power)));
  decoded.json = Json{{"port", port},
                      {"valid", valid},
                      {"temperature_c", temperature},
                      {"supply_v", volts},
                      {"supply_uv", microvolts},
                      {"bias_ma", bias},
                      {"tx_power_mw", power},
                      {"tx_power_dbm", dbm_json(power)}};
  return decoded;
}

Decoded decode_rx_power(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != sizeof(System_mgr__rx_power)) {
    return wrong_size(bytes.size(), std::to_string(sizeof(System_mgr__rx_power)));
  }
  const double units = read_f64(bytes, offsetof(System_mgr__rx_power, value));
  const double milliwatts = units / kPowerUnitsPerMilliwatt;
  Decoded decoded;
  decoded.lines.push_back(fmt::format("received power {} mW ({}), {} in 0.1 uW units", number(milliwatts),
                                      dbm_text(milliwatts), number(units)));
  decoded.json = Json{{"rx_power", units}, {"rx_power_mw", milliwatts}, {"rx_power_dbm", dbm_json(milliwatts)}};
  return decoded;
}

std::span<const AnswerDecoder> sfp_decoders() {
  static const std::array<AnswerDecoder, 5> decoders{{
      {IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, decode_eddi},
      {IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA, decode_eddi},
      {IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, decode_rx_power},
      {IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, decode_sfp_modules},
      {IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO, decode_sfp_modules},
  }};
  return decoders;
}

}  // namespace xpon::system_mgr::ctl::detail
