#include "tool.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <iterator>

namespace xpon::ipc::tool {

using xpon::tool::parse_number;
using xpon::tool::to_hex;
using xpon::tool::UsageError;

Address parse_address(std::string_view text, std::string_view what) {
  return static_cast<Address>(parse_number(text, 0xFFFFFFFFU, what));
}

Key parse_key(std::string_view text, bool id_optional) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos) {
    if (!id_optional) {
      throw UsageError(fmt::format("--key: expected GROUP:ID, got '{}'", text));
    }
    return Key{static_cast<std::uint16_t>(parse_number(text, 0xFFFF, "--key group")), kAnyId};
  }
  return Key{static_cast<std::uint16_t>(parse_number(text.substr(0, colon), 0xFFFF, "--key group")),
             static_cast<std::uint16_t>(parse_number(text.substr(colon + 1), 0xFFFF, "--key id"))};
}

namespace {

std::string byte_count(std::size_t size) {
  return size == 1 ? std::string("(1 byte)") : fmt::format("({} bytes)", size);
}

}  // namespace

std::string format_response(Address from, const Response& response, bool json) {
  if (json) {
    return nlohmann::json{{"type", "response"},
                          {"from", fmt::format("0x{:08x}", from)},
                          {"result", response.result},
                          {"reply_tag", response.reply_tag},
                          {"address", fmt::format("0x{:08x}", response.address)},
                          {"payload", to_hex(response.payload)}}
        .dump();
  }
  return fmt::format("response from 0x{:08x}: result {} tag {} address 0x{:08x} payload [{}] {}", from, response.result,
                     response.reply_tag, response.address, to_hex(response.payload),
                     byte_count(response.payload.size()));
}

std::string format_event(const Event& event, bool json) {
  if (json) {
    return nlohmann::json{{"type", "event"},
                          {"group", event.group},
                          {"id", event.id},
                          {"source", fmt::format("0x{:08x}", event.source)},
                          {"slot", event.source & 0xFFFFU},
                          {"address", fmt::format("0x{:08x}", event.address)},
                          {"payload", to_hex(event.payload)}}
        .dump();
  }
  return fmt::format("event {}:{} from 0x{:08x} address 0x{:08x} payload [{}] {}", event.group, event.id, event.source,
                     event.address, to_hex(event.payload), byte_count(event.payload.size()));
}

std::string format_request(const Request& request, bool json) {
  if (json) {
    nlohmann::json line{
        {"type", "request"}, {"group", request.group}, {"id", request.id}, {"payload", to_hex(request.payload)}};
    if (request.reply_to) {
      line["from"] = fmt::format("0x{:08x}", request.reply_to->address);
      line["reply_tag"] = request.reply_to->tag;
    }
    return line.dump();
  }
  if (request.reply_to) {
    return fmt::format("request {}:{} from 0x{:08x} tag {} payload [{}] {}", request.group, request.id,
                       request.reply_to->address, request.reply_to->tag, to_hex(request.payload),
                       byte_count(request.payload.size()));
  }
  return fmt::format("request {}:{} without reply information payload [{}] {}", request.group, request.id,
                     to_hex(request.payload), byte_count(request.payload.size()));
}

}  // namespace xpon::ipc::tool
