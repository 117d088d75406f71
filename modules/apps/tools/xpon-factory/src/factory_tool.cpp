#include "factory_tool.hpp"

#include "xpon/factory/factory_data.hpp"
#include "xpon/factory/tlvinfo.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace xpon::factory::tool {

namespace {

constexpr std::string_view kProgram = "xpon-factory";
// Large enough for any EEPROM part these images live on; --pad-to above it is a typo.
constexpr std::size_t kMaxPadding = 65536;

struct MakeOptions {
  std::string product;
  std::optional<std::string> part_number;
  std::optional<std::string> serial;
  std::optional<std::string> mac;
  std::optional<std::string> date;
  std::optional<unsigned> device_version;
  std::optional<std::string> label_revision;
  std::optional<std::string> platform;
  std::optional<std::string> onie_version;
  std::optional<unsigned> mac_count;
  std::optional<std::string> manufacturer;
  std::optional<std::string> country;
  std::optional<std::string> vendor;
  std::optional<std::string> diag_version;
  std::optional<std::string> service_tag;
  std::size_t pad_to = 0;
  std::string output;
};

struct ShowOptions {
  std::string file;
  bool json = false;
};

// A value the command line accepted but the image cannot take.
struct UsageError {
  std::string message;
};

std::string hex_bytes(std::span<const std::uint8_t> value) {
  std::string text = "0x";
  for (const std::uint8_t byte : value) {
    text += fmt::format("{:02X}", byte);
  }
  return text;
}

// The value of a TLV as people read it; a fixed-size value of the wrong size falls back to hex.
std::string display_value(const Tlv& entry) {
  switch (tlv_kind(entry.type)) {
    case TlvKind::Text:
      return printable_text(entry.value);
    case TlvKind::Mac:
      if (entry.value.size() == 6) {
        return format_mac(std::span<const std::uint8_t, 6>(entry.value.data(), 6));
      }
      break;
    case TlvKind::Byte:
      if (entry.value.size() == 1) {
        return std::to_string(entry.value[0]);
      }
      break;
    case TlvKind::Count:
      if (entry.value.size() == 2) {
        return std::to_string((entry.value[0] << 8) | entry.value[1]);
      }
      break;
    case TlvKind::Crc:
    case TlvKind::Binary:
      break;
  }
  return hex_bytes(entry.value);
}

nlohmann::json json_value(const Tlv& entry) {
  const TlvKind kind = tlv_kind(entry.type);
  if ((kind == TlvKind::Byte && entry.value.size() == 1) || (kind == TlvKind::Count && entry.value.size() == 2)) {
    return std::stoul(display_value(entry));
  }
  return display_value(entry);
}

FactoryFields to_fields(const MakeOptions& options) {
  FactoryFields fields;
  if (options.product.empty()) {
    throw UsageError{"--product may not be empty"};
  }
  fields.product_name = options.product;
  fields.part_number = options.part_number;
  fields.serial_number = options.serial;
  if (options.mac) {
    fields.base_mac = parse_mac(*options.mac);
    if (!fields.base_mac) {
      throw UsageError{fmt::format("--mac: expected six hex pairs like 00:11:22:33:44:55, got '{}'", *options.mac)};
    }
  }
  if (options.date) {
    if (!is_manufacture_date(*options.date)) {
      throw UsageError{fmt::format("--date: expected MM/DD/YYYY hh:mm:ss, got '{}'", *options.date)};
    }
    fields.manufacture_date = options.date;
  }
  if (options.device_version) {
    fields.device_version = static_cast<std::uint8_t>(*options.device_version);
  }
  fields.label_revision = options.label_revision;
  fields.platform_name = options.platform;
  fields.onie_version = options.onie_version;
  if (options.mac_count) {
    fields.mac_count = static_cast<std::uint16_t>(*options.mac_count);
  }
  fields.manufacturer = options.manufacturer;
  if (options.country && options.country->size() != 2) {
    throw UsageError{fmt::format("--country: expected a two-letter code, got '{}'", *options.country)};
  }
  fields.country_code = options.country;
  fields.vendor_name = options.vendor;
  fields.diag_version = options.diag_version;
  fields.service_tag = options.service_tag;
  return fields;
}

int run_make(const MakeOptions& options, std::ostream& out, std::ostream& err) {
  FactoryFields fields;
  try {
    fields = to_fields(options);
  } catch (const UsageError& error) {
    err << kProgram << ": " << error.message << '\n';
    return kExitUsage;
  }
  const EncodeResult encoded = encode_image(to_tlvs(fields));
  if (!encoded.valid()) {
    err << kProgram << ": " << encoded.reason << '\n';
    return kExitUsage;
  }
  std::vector<std::uint8_t> bytes = *encoded.bytes;
  if (options.pad_to != 0) {
    if (options.pad_to < bytes.size()) {
      err << kProgram << ": --pad-to " << options.pad_to << " is smaller than the " << bytes.size() << "-byte image\n";
      return kExitUsage;
    }
    bytes.resize(options.pad_to, 0xFF);  // what an erased EEPROM reads as
  }
  std::ofstream file(options.output, std::ios::binary | std::ios::trunc);
  if (file) {
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    file.close();
  }
  if (!file) {
    err << kProgram << ": cannot write " << options.output << ": " << std::strerror(errno) << '\n';
    return kExitInvalid;
  }
  out << "Wrote " << options.output << ": " << encoded.bytes->size() << "-byte image";
  if (bytes.size() != encoded.bytes->size()) {
    out << " padded to " << bytes.size() << " bytes";
  }
  out << '\n';
  return kExitOk;
}

void print_table(const Image& image, std::ostream& out) {
  out << fmt::format("Version: {}\nTotal length: {}\n", image.version, image.total_length);
  out << fmt::format("{:<20} {:<4} {:>6} {}\n", "TLV name", "Code", "Length", "Value");
  out << fmt::format("{:-<20} {:-<4} {:->6} {:-<5}\n", "", "", "", "");
  for (const Tlv& entry : image.tlvs) {
    out << fmt::format("{:<20} 0x{:02X} {:>6} {}\n", tlv_name(entry.type), entry.type, entry.value.size(),
                       display_value(entry));
  }
}

nlohmann::json json_image(const Image& image) {
  nlohmann::json tlvs = nlohmann::json::array();
  for (const Tlv& entry : image.tlvs) {
    tlvs.push_back({{"code", fmt::format("0x{:02X}", entry.type)},
                    {"name", tlv_name(entry.type)},
                    {"length", entry.value.size()},
                    {"value", json_value(entry)}});
  }
  return {{"version", image.version},
          {"total_length", image.total_length},
          {"crc32", fmt::format("0x{:08X}", image.crc)},
          {"tlvs", tlvs}};
}

int run_show(const ShowOptions& options, std::ostream& out, std::ostream& err) {
  std::vector<std::uint8_t> bytes;
  if (const int failure = read_image_file(options.file, bytes); failure != 0) {
    err << kProgram << ": cannot read " << options.file << ": " << std::strerror(failure) << '\n';
    return kExitInvalid;
  }
  const DecodeResult decoded = decode_image(bytes);
  std::optional<FactoryResult> factory;
  if (decoded.valid()) {
    factory = to_factory_data(*decoded.image);
  }
  const bool valid = factory && factory->valid();
  const std::string reason = !decoded.valid() ? "invalid TlvInfo image: " + decoded.reason
                             : !valid         ? "not valid factory data: " + factory->reason
                                              : std::string{};

  if (options.json) {
    nlohmann::json document = {{"file", options.file}, {"valid", valid}};
    if (decoded.valid()) {
      document.update(json_image(*decoded.image));
    }
    if (!valid) {
      document["reason"] = reason;
    }
    if (factory && !factory->notes.empty()) {
      document["notes"] = factory->notes;
    }
    out << document.dump(2) << '\n';
    return valid ? kExitOk : kExitInvalid;
  }

  if (decoded.valid()) {
    out << "TlvInfo image " << options.file << '\n';
    print_table(*decoded.image, out);
  }
  if (factory) {
    for (const std::string& note : factory->notes) {
      err << options.file << ": note: " << note << '\n';
    }
  }
  if (!valid) {
    err << options.file << ": " << reason << '\n';
    return kExitInvalid;
  }
  return kExitOk;
}

}  // namespace

int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app{"Makes and decodes TlvInfo factory EEPROM images.", std::string(kProgram)};
  app.require_subcommand(1);
  app.footer("Exit status: 0 done (show: the image is valid), 1 invalid image or file error, 2 usage error.");

  MakeOptions make;
  CLI::App* make_command = app.add_subcommand("make", "Write a valid image from the given fields.");
  make_command->add_option("--product", make.product, "Product Name (0x21): the device name")->required();
  make_command->add_option("--part-number", make.part_number, "Part Number (0x22)");
  make_command->add_option("--serial", make.serial, "Serial Number (0x23)");
  make_command->add_option("--mac", make.mac, "Base MAC Address (0x24), 00:11:22:33:44:55");
  make_command->add_option("--date", make.date, "Manufacture Date (0x25), \"MM/DD/YYYY hh:mm:ss\"");
  make_command->add_option("--device-version", make.device_version, "Device Version (0x26), 0 to 255")
      ->check(CLI::Range(0U, 255U));
  make_command->add_option("--label-revision", make.label_revision, "Label Revision (0x27)");
  make_command->add_option("--platform", make.platform, "Platform Name (0x28)");
  make_command->add_option("--onie-version", make.onie_version, "ONIE Version (0x29)");
  make_command->add_option("--mac-count", make.mac_count, "MAC Addresses (0x2A), 0 to 65535")
      ->check(CLI::Range(0U, 65535U));
  make_command->add_option("--manufacturer", make.manufacturer, "Manufacturer (0x2B)");
  make_command->add_option("--country", make.country, "Country Code (0x2C), two letters");
  make_command->add_option("--vendor", make.vendor, "Vendor Name (0x2D)");
  make_command->add_option("--diag-version", make.diag_version, "Diag Version (0x2E)");
  make_command->add_option("--service-tag", make.service_tag, "Service Tag (0x2F)");
  make_command->add_option("--pad-to", make.pad_to, "Pad the file with 0xFF to this many bytes (an EEPROM's size)")
      ->check(CLI::Range(std::size_t{0}, kMaxPadding));
  make_command->add_option("-o,--output", make.output, "File to write")->required();

  ShowOptions show;
  CLI::App* show_command = app.add_subcommand("show", "Decode an image; exit 1 when it is not valid.");
  show_command->add_option("FILE", show.file, "Image file (an nvmem file too)")->required();
  show_command->add_flag("--json", show.json, "Print JSON instead of a table");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error, out, err);
    return status == 0 ? kExitOk : kExitUsage;
  }

  if (make_command->parsed()) {
    return run_make(make, out, err);
  }
  return run_show(show, out, err);
}

}  // namespace xpon::factory::tool
