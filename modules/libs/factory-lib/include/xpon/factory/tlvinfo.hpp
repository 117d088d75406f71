#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::factory {

/// The eight bytes every TlvInfo image starts with ("TlvInfo" and a NUL).
inline constexpr std::array<std::uint8_t, 8> kMagic = {'T', 'l', 'v', 'I', 'n', 'f', 'o', '\0'};
/// The only header version this code reads and writes.
inline constexpr std::uint8_t kVersion = 1;
/// Magic, version and the 2-byte big-endian length of the TLV area.
inline constexpr std::size_t kHeaderSize = 11;
/// The largest image, header included; the TLV area may hold at most kMaxImageSize - kHeaderSize bytes.
inline constexpr std::size_t kMaxImageSize = 2048;
/// Type and length bytes in front of every value.
inline constexpr std::size_t kTlvHeaderSize = 2;
/// The CRC-32 TLV: last in the image, its 4-byte value covers every byte before it.
inline constexpr std::uint8_t kCrcType = 0xFE;
inline constexpr std::uint8_t kCrcLength = 4;

/// Standard TLV type codes of the image.
namespace tlv {
inline constexpr std::uint8_t kProductName = 0x21;
inline constexpr std::uint8_t kPartNumber = 0x22;
inline constexpr std::uint8_t kSerialNumber = 0x23;
inline constexpr std::uint8_t kBaseMac = 0x24;
inline constexpr std::uint8_t kManufactureDate = 0x25;
inline constexpr std::uint8_t kDeviceVersion = 0x26;
inline constexpr std::uint8_t kLabelRevision = 0x27;
inline constexpr std::uint8_t kPlatformName = 0x28;
inline constexpr std::uint8_t kOnieVersion = 0x29;
inline constexpr std::uint8_t kMacCount = 0x2A;
inline constexpr std::uint8_t kManufacturer = 0x2B;
inline constexpr std::uint8_t kCountryCode = 0x2C;
inline constexpr std::uint8_t kVendorName = 0x2D;
inline constexpr std::uint8_t kDiagVersion = 0x2E;
inline constexpr std::uint8_t kServiceTag = 0x2F;
inline constexpr std::uint8_t kVendorExtension = 0xFD;
inline constexpr std::uint8_t kCrc32 = kCrcType;
}  // namespace tlv

/// How a value of a TLV type is shown and checked.
enum class TlvKind { Text, Mac, Byte, Count, Crc, Binary };

/// The display name of a TLV type ("Product Name"); unknown types give "Unknown".
std::string_view tlv_name(std::uint8_t type) noexcept;

/// The kind of value a TLV type holds; unknown types and the vendor extension are Binary.
TlvKind tlv_kind(std::uint8_t type) noexcept;

/// The CRC-32 of zlib and Ethernet (reflected polynomial 0xEDB88320, initial and final XOR all ones).
std::uint32_t crc32(std::span<const std::uint8_t> bytes) noexcept;

/// One type-length-value entry of an image.
struct Tlv {
  std::uint8_t type = 0;
  std::vector<std::uint8_t> value;
  /// Offset of the type byte from the start of the image (0 for entries not read from an image).
  std::size_t offset = 0;

  bool operator==(const Tlv&) const = default;
};

/// A decoded image whose structure and CRC-32 were found correct.
struct Image {
  std::uint8_t version = kVersion;
  /// Length of the TLV area as the header states it (CRC-32 TLV included).
  std::uint16_t total_length = 0;
  /// Every TLV in image order, the CRC-32 TLV last.
  std::vector<Tlv> tlvs;
  /// The CRC-32 stored in the image, equal to the one computed.
  std::uint32_t crc = 0;

  /// The first TLV of the given type, or nullptr when the image has none.
  [[nodiscard]] const Tlv* find(std::uint8_t type) const noexcept;
};

/// The outcome of decoding: an image, or the reason the bytes are not a valid image.
struct DecodeResult {
  std::optional<Image> image;
  std::string reason;

  [[nodiscard]] bool valid() const noexcept { return image.has_value(); }
};

/// Decodes an image; bytes after the TLV area (EEPROM padding) are ignored. Never throws for bad input.
DecodeResult decode_image(std::span<const std::uint8_t> bytes);

/// The outcome of encoding: the image bytes, or the reason the entries cannot form an image.
struct EncodeResult {
  std::optional<std::vector<std::uint8_t>> bytes;
  std::string reason;

  [[nodiscard]] bool valid() const noexcept { return bytes.has_value(); }
};

/// Encodes the entries in order (none may be a CRC-32 TLV) and appends the CRC-32 TLV.
EncodeResult encode_image(std::span<const Tlv> tlvs);

}  // namespace xpon::factory
