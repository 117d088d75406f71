#include "xpon/cfgdb/change_event.hpp"

#include <fmt/format.h>

namespace xpon::cfgdb {
namespace {

void put_u32(ipc::Payload& payload, std::uint32_t value) {
  for (unsigned byte = 0; byte < 4; ++byte) {
    payload.push_back(static_cast<std::uint8_t>((value >> (8U * byte)) & 0xFFU));
  }
}

std::uint32_t get_u32(std::span<const std::uint8_t> bytes) {
  std::uint32_t value = 0;
  for (unsigned byte = 0; byte < 4; ++byte) {
    value |= static_cast<std::uint32_t>(bytes[byte]) << (8U * byte);
  }
  return value;
}

}  // namespace

ipc::Payload encode_sections_changed(std::span<const std::uint32_t> section_ids) {
  ipc::Payload payload;
  payload.reserve(section_ids.size() * kChangeRecordSize);
  for (auto id : section_ids) {
    const ChangeRecord record{id, 1, 0};
    put_u32(payload, record.section_id);
    put_u32(payload, record.changed);
    put_u32(payload, record.reserved);
  }
  return payload;
}

core::Result<std::vector<ChangeRecord>> decode_sections_changed(std::span<const std::uint8_t> payload) {
  if (payload.empty()) {
    return core::ErrorPayload{core::Error::InvalidInputArg, "empty payload"};
  }
  if (payload.size() % kChangeRecordSize != 0) {
    return core::ErrorPayload{
        core::Error::InvalidInputArg,
        fmt::format("payload of {} bytes is not a whole number of {}-byte records", payload.size(), kChangeRecordSize)};
  }
  std::vector<ChangeRecord> records;
  records.reserve(payload.size() / kChangeRecordSize);
  for (std::size_t at = 0; at < payload.size(); at += kChangeRecordSize) {
    records.push_back(
        ChangeRecord{get_u32(payload.subspan(at)), get_u32(payload.subspan(at + 4)), get_u32(payload.subspan(at + 8))});
  }
  return records;
}

ipc::Event make_sections_changed_event(std::span<const std::uint32_t> section_ids) {
  ipc::Event event;
  event.payload = encode_sections_changed(section_ids);
  event.address = ipc::make_address(0);
  event.group = kSectionsChangedKey.group;
  event.id = kSectionsChangedKey.id;
  event.source = kWriterAddress;
  return event;
}

core::Result<void> publish_sections_changed(ipc::IIpc& ipc, std::span<const std::uint32_t> section_ids) {
  if (section_ids.empty()) {
    return core::success();
  }
  return ipc.send_event(make_sections_changed_event(section_ids));
}

}  // namespace xpon::cfgdb
