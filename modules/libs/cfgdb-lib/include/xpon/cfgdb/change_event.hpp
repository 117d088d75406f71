#pragma once

#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace xpon::cfgdb {

/// Identifier of the event a configuration writer publishes after a committed change.
inline constexpr std::string_view kSectionsChangedName = "IPC_EVENT_CFGDB__SECTIONS_CHANGED";

/// Key of that event: group 11000, id 11001. The one definition of it in the system.
inline constexpr ipc::Key kSectionsChangedKey{11000, 11001};

/// The IPC address of configuration writers, and the source word of their change events.
inline constexpr ipc::Address kWriterAddress = 0x0011FFFE;

/// Bytes per changed section in the event payload: three u32 words, little-endian.
inline constexpr std::size_t kChangeRecordSize = 12;

/// One changed section as carried by the event (the service library calls it Config_change).
struct ChangeRecord {
  std::uint32_t section_id = 0;  ///< identifier of the section that changed (80: load-average alarm, ...)
  std::uint32_t changed = 0;     ///< 1 in every record the writers publish today
  std::uint32_t reserved = 0;    ///< 0 in every record the writers publish today
  friend constexpr bool operator==(const ChangeRecord&, const ChangeRecord&) = default;
};

/// Builds the event payload for the changed sections.
ipc::Payload encode_sections_changed(std::span<const std::uint32_t> section_ids);

/// Reads an event payload back. Error::InvalidInputArg, with a message saying why, for a
/// payload that is empty (an event announces at least one section: writers send nothing
/// when nothing changed) or not a whole number of 12-byte records.
core::Result<std::vector<ChangeRecord>> decode_sections_changed(std::span<const std::uint8_t> payload);

/// Builds the whole event (key, source, address word 0x0000FFFE, payload).
ipc::Event make_sections_changed_event(std::span<const std::uint32_t> section_ids);

/// Publishes the event for the changed sections; nothing is sent for an empty list.
core::Result<void> publish_sections_changed(ipc::IIpc& ipc, std::span<const std::uint32_t> section_ids);

}  // namespace xpon::cfgdb
