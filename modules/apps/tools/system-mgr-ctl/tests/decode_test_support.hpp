#pragma once

// What the decoder tests share: the daemon's events and answers as tests make them, and
// little-endian writes into a payload.

#include "xpon/ipc/ipc.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace xpon::system_mgr::ctl::test {

/// The daemon's address: the source of its events and answers.
inline constexpr ipc::Address kDaemon = 0x0019FFFE;

/// An event as the daemon publishes it: address word 0x0000FFFE, its key, its payload.
inline ipc::Event event_of(std::uint16_t group, std::uint16_t id, ipc::Payload payload, ipc::Address source = kDaemon) {
  ipc::Event event;
  event.group = group;
  event.id = id;
  event.payload = std::move(payload);
  event.source = source;
  event.address = 0x0000FFFE;
  return event;
}

/// A response with the payload and the result word 1.
inline ipc::Response answered(ipc::Payload payload) {
  ipc::Response response;
  response.payload = std::move(payload);
  response.result = 1;
  return response;
}

/// Writes `value` at `offset`, growing the payload when it is too short.
template <typename Value>
void put(ipc::Payload& payload, std::size_t offset, Value value) {
  if (payload.size() < offset + sizeof value) {
    payload.resize(offset + sizeof value);
  }
  std::memcpy(payload.data() + offset, &value, sizeof value);
}

}  // namespace xpon::system_mgr::ctl::test
