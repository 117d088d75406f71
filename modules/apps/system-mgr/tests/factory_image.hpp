#pragma once

// A factory EEPROM image written where the factory library looks for it, for the tests of the
// factory and of the family services.

#include "xpon/factory/factory_data.hpp"
#include "xpon/factory/tlvinfo.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <ios>

namespace xpon::system_mgr {

/// Writes the image of `fields` at `path` (making its folder), its CRC-32 spoilt when asked.
inline void write_factory_image(const std::filesystem::path& path, const factory::FactoryFields& fields,
                                bool corrupt_crc = false) {
  auto encoded = factory::encode_image(factory::to_tlvs(fields));
  ASSERT_TRUE(encoded.valid()) << encoded.reason;
  auto bytes = *encoded.bytes;
  if (corrupt_crc) {
    bytes.back() ^= 0xFFU;
  }
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace xpon::system_mgr
