#pragma once

#include "xpon/board_emu/model.hpp"

#include <span>
#include <string_view>

namespace xpon::board_emu {

/// One command of the board driver as the emulator answers it.
struct Operation {
  unsigned int request;     ///< the ioctl request code, direction and size included
  std::string_view name;    ///< the command's name in the driver header, e.g. "BOARD_GET_FAN_INFO"
  std::size_t record_size;  ///< size of the argument the kernel copies in and/or out
  /// Answers the command from the model: 0, or a positive errno. `argument` holds
  /// `record_size` bytes (the caller's input for write commands, to be filled for read commands).
  int (*answer)(BoardModel& model, void* argument);
};

/// Every command of the driver interface, in the order of the driver header.
std::span<const Operation> operations();

/// The command with this request code, or nullptr when the driver has none.
const Operation* find_operation(unsigned int request);

/// Whether a command of this name exists (fault injection names commands so).
bool is_operation_name(std::string_view name);

}  // namespace xpon::board_emu
