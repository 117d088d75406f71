#pragma once

#include "xpon/ipc/ipc.hpp"

#include <string>

namespace xpon::ipc {

/// The directory of every inbox socket, lock file and bus socket (under $XPON_ROOT when set).
std::string ipc_directory();

/// The address as 8 lowercase hex digits, the name of its inbox socket.
std::string address_hex(Address address);

/// The ZeroMQ endpoint of the inbox of an address ("ipc://.../xpon/ipc/0019fffe").
std::string inbox_endpoint(Address address);

/// The ZeroMQ endpoint where publishers push their events to the bus.
std::string bus_in_endpoint();

/// The ZeroMQ endpoint where subscribers receive the events from the bus.
std::string bus_sub_endpoint();

/// Creates the IPC directory and its parents; throws std::runtime_error naming it on failure.
void ensure_ipc_directory();

}  // namespace xpon::ipc
