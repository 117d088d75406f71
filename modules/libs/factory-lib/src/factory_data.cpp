#include "xpon/factory/factory_data.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace xpon::factory {

namespace {

std::string tlv_label(std::uint8_t type) {
  return fmt::format("{} TLV (0x{:02x})", tlv_name(type), type);
}

// Copies a text value into a fixed field, leaving room for the terminating NUL.
template <std::size_t N>
void copy_text(char (&field)[N], const Tlv& entry, std::vector<std::string>& notes) {
  const std::size_t fits = N - 1;
  const std::size_t length = std::min(entry.value.size(), fits);
  std::memcpy(field, entry.value.data(), length);
  if (entry.value.size() > fits) {
    notes.push_back(fmt::format("{} cut from {} to {} bytes", tlv_label(entry.type), entry.value.size(), fits));
  }
}

FactoryResult no_record(std::string reason) {
  return FactoryResult{std::nullopt, std::move(reason), {}};
}

std::string wrong_length(const Tlv& entry, std::size_t expected) {
  return fmt::format("{} has length {} (expected {})", tlv_label(entry.type), entry.value.size(), expected);
}

bool parse_number(std::string_view text, int& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size();
}

bool all_digits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

void add_text(std::vector<Tlv>& tlvs, std::uint8_t type, const std::optional<std::string>& text) {
  if (text) {
    tlvs.push_back(Tlv{type, std::vector<std::uint8_t>(text->begin(), text->end()), 0});
  }
}

}  // namespace

FactoryResult to_factory_data(const Image& image) {
  const Tlv* name = image.find(tlv::kProductName);
  if (name == nullptr) {
    return no_record(fmt::format("{} is missing", tlv_label(tlv::kProductName)));
  }
  if (name->value.empty()) {
    return no_record(fmt::format("{} is empty", tlv_label(tlv::kProductName)));
  }
  // The device name is used as a C string; a NUL inside it would silently shorten it.
  if (std::find(name->value.begin(), name->value.end(), std::uint8_t{0}) != name->value.end()) {
    return no_record(fmt::format("{} contains a NUL byte", tlv_label(tlv::kProductName)));
  }

  FactoryResult result;
  Factory__data data{};
  for (const Tlv& entry : image.tlvs) {
    if (entry.type < tlv::kProductName || entry.type > tlv::kServiceTag) {
      continue;
    }
    const std::uint32_t bit = std::uint32_t{1} << (entry.type - tlv::kProductName);
    if ((data.fields_present & bit) != 0) {
      continue;  // the first entry of a type counts, as every reader of these images does
    }
    data.fields_present |= bit;
    switch (entry.type) {
      case tlv::kProductName:
        copy_text(data.device_name, entry, result.notes);
        break;
      case tlv::kPartNumber:
        copy_text(data.part_number, entry, result.notes);
        break;
      case tlv::kSerialNumber:
        copy_text(data.serial_number, entry, result.notes);
        break;
      case tlv::kBaseMac:
        if (entry.value.size() != sizeof data.base_mac) {
          return no_record(wrong_length(entry, sizeof data.base_mac));
        }
        std::memcpy(data.base_mac, entry.value.data(), sizeof data.base_mac);
        break;
      case tlv::kManufactureDate:
        copy_text(data.manufacture_date, entry, result.notes);
        break;
      case tlv::kDeviceVersion:
        if (entry.value.size() != 1) {
          return no_record(wrong_length(entry, 1));
        }
        data.device_version = entry.value[0];
        break;
      case tlv::kLabelRevision:
        copy_text(data.label_revision, entry, result.notes);
        break;
      case tlv::kPlatformName:
        copy_text(data.platform_name, entry, result.notes);
        break;
      case tlv::kMacCount:
        if (entry.value.size() != 2) {
          return no_record(wrong_length(entry, 2));
        }
        data.mac_count = static_cast<std::uint16_t>((entry.value[0] << 8) | entry.value[1]);
        break;
      case tlv::kManufacturer:
        copy_text(data.manufacturer, entry, result.notes);
        break;
      case tlv::kCountryCode:
        copy_text(data.country_code, entry, result.notes);
        break;
      case tlv::kVendorName:
        copy_text(data.vendor_name, entry, result.notes);
        break;
      default:
        break;  // ONIE version, diag version and service tag have no field in the record
    }
  }
  result.data = data;
  return result;
}

FactoryResult factory_data_from_bytes(std::span<const std::uint8_t> bytes) {
  DecodeResult decoded = decode_image(bytes);
  if (!decoded.valid()) {
    return no_record(std::move(decoded.reason));
  }
  return to_factory_data(*decoded.image);
}

std::vector<Tlv> to_tlvs(const FactoryFields& fields) {
  std::vector<Tlv> tlvs;
  tlvs.push_back(
      Tlv{tlv::kProductName, std::vector<std::uint8_t>(fields.product_name.begin(), fields.product_name.end()), 0});
  add_text(tlvs, tlv::kPartNumber, fields.part_number);
  add_text(tlvs, tlv::kSerialNumber, fields.serial_number);
  if (fields.base_mac) {
    tlvs.push_back(Tlv{tlv::kBaseMac, std::vector<std::uint8_t>(fields.base_mac->begin(), fields.base_mac->end()), 0});
  }
  add_text(tlvs, tlv::kManufactureDate, fields.manufacture_date);
  if (fields.device_version) {
    tlvs.push_back(Tlv{tlv::kDeviceVersion, {*fields.device_version}, 0});
  }
  add_text(tlvs, tlv::kLabelRevision, fields.label_revision);
  add_text(tlvs, tlv::kPlatformName, fields.platform_name);
  add_text(tlvs, tlv::kOnieVersion, fields.onie_version);
  if (fields.mac_count) {
    tlvs.push_back(
        Tlv{tlv::kMacCount,
            {static_cast<std::uint8_t>(*fields.mac_count >> 8), static_cast<std::uint8_t>(*fields.mac_count & 0xFFU)},
            0});
  }
  add_text(tlvs, tlv::kManufacturer, fields.manufacturer);
  add_text(tlvs, tlv::kCountryCode, fields.country_code);
  add_text(tlvs, tlv::kVendorName, fields.vendor_name);
  add_text(tlvs, tlv::kDiagVersion, fields.diag_version);
  add_text(tlvs, tlv::kServiceTag, fields.service_tag);
  return tlvs;
}

std::optional<MacAddress> parse_mac(std::string_view text) {
  // Six two-digit groups and five separators of one kind.
  if (text.size() != 17) {
    return std::nullopt;
  }
  const char separator = text[2];
  if (separator != ':' && separator != '-') {
    return std::nullopt;
  }
  MacAddress mac{};
  for (std::size_t index = 0; index < mac.size(); ++index) {
    const std::size_t at = index * 3;
    if (index > 0 && text[at - 1] != separator) {
      return std::nullopt;
    }
    const std::string_view group = text.substr(at, 2);
    const bool hex = std::all_of(group.begin(), group.end(), [](char c) {
      return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
    unsigned value = 0;
    if (!hex || std::from_chars(group.data(), group.data() + group.size(), value, 16).ec != std::errc{}) {
      return std::nullopt;
    }
    mac[index] = static_cast<std::uint8_t>(value);
  }
  return mac;
}

std::string format_mac(std::span<const std::uint8_t, 6> mac) {
  return fmt::format("{:02X}:{:02X}:{:02X}:{:02X}:{:02X}:{:02X}", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

bool is_manufacture_date(std::string_view text) {
  if (text.size() != 19 || text[2] != '/' || text[5] != '/' || text[10] != ' ' || text[13] != ':' || text[16] != ':') {
    return false;
  }
  const std::string_view parts[] = {text.substr(0, 2),  text.substr(3, 2),  text.substr(6, 4),
                                    text.substr(11, 2), text.substr(14, 2), text.substr(17, 2)};
  int values[6] = {};
  for (std::size_t index = 0; index < 6; ++index) {
    if (!all_digits(parts[index]) || !parse_number(parts[index], values[index])) {
      return false;
    }
  }
  const auto [month, day, year, hour, minute, second] = values;
  static_cast<void>(year);
  return month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour <= 23 && minute <= 59 && second <= 59;
}

std::string printable_text(std::span<const std::uint8_t> value) {
  std::string text;
  text.reserve(value.size());
  for (const std::uint8_t byte : value) {
    if (byte >= 0x20 && byte < 0x7F && byte != '\\') {
      text.push_back(static_cast<char>(byte));
    } else {
      text += fmt::format("\\x{:02x}", byte);
    }
  }
  return text;
}

}  // namespace xpon::factory
