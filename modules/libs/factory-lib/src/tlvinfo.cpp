#include "xpon/factory/tlvinfo.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace xpon::factory {

namespace {

constexpr std::size_t kMaxTotalLength = kMaxImageSize - kHeaderSize;
constexpr std::size_t kMaxValueLength = 255;

constexpr std::array<std::uint32_t, 256> make_crc_table() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t index = 0; index < table.size(); ++index) {
    std::uint32_t value = index;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value & 1U) != 0 ? (value >> 1) ^ 0xEDB88320U : value >> 1;
    }
    table[index] = value;
  }
  return table;
}

constexpr std::array<std::uint32_t, 256> kCrcTable = make_crc_table();

// 0x00 and 0xFF never start a TLV: they are what blank or erased EEPROM reads as.
bool is_reserved_type(std::uint8_t type) noexcept {
  return type == 0x00 || type == 0xFF;
}

std::uint32_t read_be32(std::span<const std::uint8_t> bytes) noexcept {
  return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) | (std::uint32_t{bytes[2]} << 8) |
         std::uint32_t{bytes[3]};
}

DecodeResult invalid(std::string reason) {
  return DecodeResult{std::nullopt, std::move(reason)};
}

}  // namespace

std::string_view tlv_name(std::uint8_t type) noexcept {
  switch (type) {
    case tlv::kProductName:
      return "Product Name";
    case tlv::kPartNumber:
      return "Part Number";
    case tlv::kSerialNumber:
      return "Serial Number";
    case tlv::kBaseMac:
      return "Base MAC Address";
    case tlv::kManufactureDate:
      return "Manufacture Date";
    case tlv::kDeviceVersion:
      return "Device Version";
    case tlv::kLabelRevision:
      return "Label Revision";
    case tlv::kPlatformName:
      return "Platform Name";
    case tlv::kOnieVersion:
      return "ONIE Version";
    case tlv::kMacCount:
      return "MAC Addresses";
    case tlv::kManufacturer:
      return "Manufacturer";
    case tlv::kCountryCode:
      return "Country Code";
    case tlv::kVendorName:
      return "Vendor Name";
    case tlv::kDiagVersion:
      return "Diag Version";
    case tlv::kServiceTag:
      return "Service Tag";
    case tlv::kVendorExtension:
      return "Vendor Extension";
    case tlv::kCrc32:
      return "CRC-32";
    default:
      return "Unknown";
  }
}

TlvKind tlv_kind(std::uint8_t type) noexcept {
  switch (type) {
    case tlv::kProductName:
    case tlv::kPartNumber:
    case tlv::kSerialNumber:
    case tlv::kManufactureDate:
    case tlv::kLabelRevision:
    case tlv::kPlatformName:
    case tlv::kOnieVersion:
    case tlv::kManufacturer:
    case tlv::kCountryCode:
    case tlv::kVendorName:
    case tlv::kDiagVersion:
    case tlv::kServiceTag:
      return TlvKind::Text;
    case tlv::kBaseMac:
      return TlvKind::Mac;
    case tlv::kDeviceVersion:
      return TlvKind::Byte;
    case tlv::kMacCount:
      return TlvKind::Count;
    case tlv::kCrc32:
      return TlvKind::Crc;
    default:
      return TlvKind::Binary;
  }
}

std::uint32_t crc32(std::span<const std::uint8_t> bytes) noexcept {
  std::uint32_t crc = 0xFFFFFFFFU;
  for (const std::uint8_t byte : bytes) {
    crc = kCrcTable[(crc ^ byte) & 0xFFU] ^ (crc >> 8);
  }
  return crc ^ 0xFFFFFFFFU;
}

const Tlv* Image::find(std::uint8_t type) const noexcept {
  const auto found = std::find_if(tlvs.begin(), tlvs.end(), [type](const Tlv& entry) { return entry.type == type; });
  return found == tlvs.end() ? nullptr : &*found;
}

DecodeResult decode_image(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kHeaderSize) {
    return invalid(fmt::format("image is truncated: {} bytes, the header needs {}", bytes.size(), kHeaderSize));
  }
  if (!std::equal(kMagic.begin(), kMagic.end(), bytes.begin())) {
    return invalid(R"(bad magic: the image does not start with "TlvInfo\0")");
  }
  Image image;
  image.version = bytes[8];
  if (image.version != kVersion) {
    return invalid(fmt::format("unsupported version {} (expected {})", image.version, kVersion));
  }
  image.total_length = static_cast<std::uint16_t>((bytes[9] << 8) | bytes[10]);
  if (image.total_length > kMaxTotalLength) {
    return invalid(fmt::format("total length {} exceeds the maximum of {} bytes", image.total_length, kMaxTotalLength));
  }
  const std::size_t after_header = bytes.size() - kHeaderSize;
  if (image.total_length > after_header) {
    return invalid(fmt::format("total length {} runs past the end of the image ({} bytes follow the header)",
                               image.total_length, after_header));
  }

  const std::size_t area_end = kHeaderSize + image.total_length;
  std::size_t offset = kHeaderSize;
  while (offset < area_end) {
    if (area_end - offset < kTlvHeaderSize) {
      return invalid(fmt::format("TLV header at offset {} runs past the end of the TLV area", offset));
    }
    const std::uint8_t type = bytes[offset];
    const std::uint8_t length = bytes[offset + 1];
    if (is_reserved_type(type)) {
      return invalid(fmt::format("TLV at offset {} has the reserved type 0x{:02x}", offset, type));
    }
    const std::size_t value_offset = offset + kTlvHeaderSize;
    if (length > area_end - value_offset) {
      return invalid(
          fmt::format("TLV 0x{:02x} at offset {} (length {}) runs past the end of the TLV area", type, offset, length));
    }
    const auto value = bytes.subspan(value_offset, length);
    if (type == kCrcType) {
      if (length != kCrcLength) {
        return invalid(fmt::format("CRC-32 TLV at offset {} has length {} (expected {})", offset, length, kCrcLength));
      }
      const std::size_t crc_end = value_offset + length;
      if (crc_end != area_end) {
        return invalid(fmt::format("{} bytes follow the CRC-32 TLV at offset {}", area_end - crc_end, offset));
      }
      const std::uint32_t stored = read_be32(value);
      const std::uint32_t computed = crc32(bytes.first(value_offset));
      if (stored != computed) {
        return invalid(fmt::format("CRC-32 mismatch: stored 0x{:08x}, computed 0x{:08x}", stored, computed));
      }
      image.crc = stored;
    }
    image.tlvs.push_back(Tlv{type, std::vector<std::uint8_t>(value.begin(), value.end()), offset});
    offset = value_offset + length;
  }
  if (image.tlvs.empty() || image.tlvs.back().type != kCrcType) {
    return invalid(fmt::format("CRC-32 TLV (0x{:02x}) is missing", kCrcType));
  }
  return DecodeResult{std::move(image), {}};
}

EncodeResult encode_image(std::span<const Tlv> tlvs) {
  std::size_t total = kTlvHeaderSize + kCrcLength;
  for (const Tlv& entry : tlvs) {
    if (entry.type == kCrcType) {
      return {std::nullopt, "the CRC-32 TLV is added when the image is written and may not be given"};
    }
    if (is_reserved_type(entry.type)) {
      return {std::nullopt, fmt::format("TLV type 0x{:02x} is reserved", entry.type)};
    }
    if (entry.value.size() > kMaxValueLength) {
      return {std::nullopt, fmt::format("{} (0x{:02x}) value is {} bytes, at most {} fit", tlv_name(entry.type),
                                        entry.type, entry.value.size(), kMaxValueLength)};
    }
    total += kTlvHeaderSize + entry.value.size();
  }
  if (total > kMaxTotalLength) {
    return {std::nullopt, fmt::format("the TLVs need {} bytes, at most {} fit", total, kMaxTotalLength)};
  }

  std::vector<std::uint8_t> bytes(kMagic.begin(), kMagic.end());
  bytes.reserve(kHeaderSize + total);
  bytes.push_back(kVersion);
  bytes.push_back(static_cast<std::uint8_t>(total >> 8));
  bytes.push_back(static_cast<std::uint8_t>(total & 0xFFU));
  for (const Tlv& entry : tlvs) {
    bytes.push_back(entry.type);
    bytes.push_back(static_cast<std::uint8_t>(entry.value.size()));
    bytes.insert(bytes.end(), entry.value.begin(), entry.value.end());
  }
  bytes.push_back(kCrcType);
  bytes.push_back(kCrcLength);
  const std::uint32_t crc = crc32(bytes);
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<std::uint8_t>((crc >> shift) & 0xFFU));
  }
  return {std::move(bytes), {}};
}

}  // namespace xpon::factory
