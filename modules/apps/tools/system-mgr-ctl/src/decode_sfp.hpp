#pragma once

// Decoding of the SFP answers and events of system-mgr: the module identity from the
// identification bytes of a module record, diagnostics in engineering units, receive power in
// mW and dBm.

#include "decode_support.hpp"

#include <cstdint>
#include <span>
#include <string>

namespace xpon::system_mgr::ctl::detail {

/// The identity of a module, from the 59 identification bytes of its SfpModuleRecord (the board
/// driver's selection of SFF-8472 A0h base ID fields).
struct SfpIdentity {
  std::uint8_t identifier = 0;  ///< 0x03: SFP/SFP+
  std::uint8_t connector = 0;   ///< 0x07: LC
  std::string vendor;           ///< trailing blanks removed, bytes outside printable ASCII escaped
  std::string oui;              ///< "00:1f:22"
  std::string part_number;
  std::string revision;
  std::uint16_t wavelength_nm = 0;
  std::string serial;
};

/// The identity in the 59 bytes; shorter data leaves the missing fields empty or zero.
SfpIdentity decode_sfp_identity(std::span<const std::uint8_t> data);

/// "XPON-OPTICS GP-SFP-C++ rev A, serial XO2311000100, 1490 nm".
std::string sfp_identity_text(const SfpIdentity& identity);

/// The identity as JSON members (vendor, oui, part_number, revision, serial, wavelength_nm,
/// identifier, connector).
Json sfp_identity_json(const SfpIdentity& identity);

/// An optical power in mW as dBm: 10 log10(mW); nothing for no light (0 mW or less).
std::string dbm_text(double milliwatts);

/// The records of a total-info answer: one line per module with its identity and state.
Decoded decode_sfp_modules(std::span<const std::uint8_t> bytes);

/// The 133-byte diagnostics answer in °C, V, mA, mW and dBm.
Decoded decode_eddi(std::span<const std::uint8_t> bytes);

/// The receive power answer: one double in 0.1 uW units, shown in mW and dBm.
Decoded decode_rx_power(std::span<const std::uint8_t> bytes);

/// The decoders of the answers of `sfp list`, `sfp eddi` and `sfp rx-power`.
std::span<const AnswerDecoder> sfp_decoders();

}  // namespace xpon::system_mgr::ctl::detail
