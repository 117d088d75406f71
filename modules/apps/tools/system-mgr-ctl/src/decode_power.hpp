#pragma once

// Decoding of the power answers of the system manager: the LT board's power supplies
// (IPC_SYSTEM_MGR__GET_PS_STATES) and the FC crate's power module (IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE).

#include "decode_support.hpp"
#include "xpon/ipc/ipc.hpp"

#include <cstdint>
#include <span>
#include <string>

namespace xpon::system_mgr::ctl {

/// The records of a GET_PS_STATES answer, one line per supply (numbered from 1, as the supply
/// alarms number them): its presence, power-good and alert bits and, when it says it has them,
/// its identification texts, each read only within its field. The daemon fills only the first
/// 8 bytes per supply of the answer, so a last line says how many bytes carry data. A size that
/// is not a multiple of 72 is malformed. Never throws for any payload.
detail::Decoded decode_ps_states(std::span<const std::uint8_t> bytes);

/// The 20-byte power module state, one line per field by name with its unit (volts, amperes,
/// watts, degrees Celsius); reserved bytes are shown only when they are not zero. Any other
/// size is malformed. Never throws for any payload.
detail::Decoded decode_pwr_module(std::span<const std::uint8_t> bytes);

/// The decoders of the answers of `psu` and `power-module`.
std::span<const detail::AnswerDecoder> power_decoders();

/// The `psu` command's view of a GET_PS_STATES answer sent from `from`: the lines of
/// decode_ps_states, or as JSON {"type":"psu","from":...,"supplies":[...],"data_bytes":N}. An
/// error answer or a malformed payload is shown as format_response shows it.
std::string format_psu(ipc::Address from, const ipc::Response& response, bool json);

/// The `power-module` command's view of a GET_PWR_MODULE_STATE answer sent from `from`: the
/// lines of decode_pwr_module, or as JSON {"type":"power_module","from":...,<fields>}. An error
/// answer or a malformed payload is shown as format_response shows it.
std::string format_power_module(ipc::Address from, const ipc::Response& response, bool json);

}  // namespace xpon::system_mgr::ctl
