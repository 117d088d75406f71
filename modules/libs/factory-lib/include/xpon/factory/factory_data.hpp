#pragma once

#include "xpon/factory/factory.h"
#include "xpon/factory/tlvinfo.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::factory {

/// A 6-byte MAC address in wire order.
using MacAddress = std::array<std::uint8_t, 6>;

/// The outcome of turning an image into a factory record: the record, or why there is none.
struct FactoryResult {
  std::optional<Factory__data> data;
  /// Why the image gives no record (empty when data is set).
  std::string reason;
  /// Things worth a warning that did not stop the decoding, such as a text cut to fit its field.
  std::vector<std::string> notes;

  [[nodiscard]] bool valid() const noexcept { return data.has_value(); }
};

/// Fills a record from a valid image; the Product Name is required, fixed-size fields must have their size.
FactoryResult to_factory_data(const Image& image);

/// Decodes the bytes of an image and fills a record from it.
FactoryResult factory_data_from_bytes(std::span<const std::uint8_t> bytes);

/// Reads the first kMaxImageSize bytes of a file (an nvmem file covers the whole EEPROM, the image
/// never more than that); returns 0, or the errno value of the failure with bytes left empty.
int read_image_file(const std::string& path, std::vector<std::uint8_t>& bytes);

/// The fields an image is made from; unset optional fields give no TLV.
struct FactoryFields {
  std::string product_name;
  std::optional<std::string> part_number;
  std::optional<std::string> serial_number;
  std::optional<MacAddress> base_mac;
  std::optional<std::string> manufacture_date;
  std::optional<std::uint8_t> device_version;
  std::optional<std::string> label_revision;
  std::optional<std::string> platform_name;
  std::optional<std::string> onie_version;
  std::optional<std::uint16_t> mac_count;
  std::optional<std::string> manufacturer;
  std::optional<std::string> country_code;
  std::optional<std::string> vendor_name;
  std::optional<std::string> diag_version;
  std::optional<std::string> service_tag;
};

/// The TLVs of the fields in ascending type order (Product Name first); no CRC-32 TLV.
std::vector<Tlv> to_tlvs(const FactoryFields& fields);

/// Parses "00:11:22:aa:bb:cc" (colons or dashes, either case); nullopt for anything else.
std::optional<MacAddress> parse_mac(std::string_view text);

/// Formats a MAC address as "00:11:22:AA:BB:CC".
std::string format_mac(std::span<const std::uint8_t, 6> mac);

/// True for a manufacture date of the form "MM/DD/YYYY hh:mm:ss" with every part in range.
bool is_manufacture_date(std::string_view text);

/// The text of a value with bytes outside printable ASCII shown as "\xNN".
std::string printable_text(std::span<const std::uint8_t> value);

}  // namespace xpon::factory
