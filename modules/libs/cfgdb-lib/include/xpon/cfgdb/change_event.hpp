#pragma once

#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace xpon::cfgdb {

/// Identifier of the event a configuration writer publishes after a committed change.
inline constexpr std::string_view kSectionsChangedName = "IPC_EVENT_CFGDB__SECTIONS_CHANGED";

/// Key of that event: group 11000, id 11001.
inline constexpr ipc::Key kSectionsChangedKey{11000, 11001};

/// The IPC address of configuration writers, and the source word of their change events.
inline constexpr ipc::Address kWriterAddress = 0x0011FFFE;

/// Bytes per changed section in the event payload: section id, 1, 0 as u32 little-endian.
inline constexpr std::size_t kChangeRecordSize = 12;

/// One changed section as carried by the event.
struct ChangeRecord {
  std::uint32_t section_id = 0;
  std::uint32_t word1 = 1;
  std::uint32_t word2 = 0;
  friend bool operator==(const ChangeRecord&, const ChangeRecord&) = default;
};

/// Builds the event payload for the changed sections.
ipc::Payload encode_sections_changed(std::span<const std::uint32_t> section_ids);

/// Reads an event payload back; refuses a length that is not a multiple of 12 bytes.
core::Result<std::vector<ChangeRecord>> decode_sections_changed(std::span<const std::uint8_t> payload);

/// Builds the whole event (key, source, address word 0x0000FFFE, payload).
ipc::Event make_sections_changed_event(std::span<const std::uint32_t> section_ids);

/// Publishes the event for the changed sections; nothing is sent for an empty list.
core::Result<void> publish_sections_changed(ipc::IIpc& ipc, std::span<const std::uint32_t> section_ids);

}  // namespace xpon::cfgdb
