#include "factory_c_check.h"
#include "xpon/factory/factory.h"
#include "xpon/factory/factory_data.hpp"
#include "xpon/logger/logger.hpp"
#include "xpon/test/temp_dir.hpp"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace xpon::factory {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

Bytes image_named(std::string_view name) {
  FactoryFields fields;
  fields.product_name = std::string(name);
  fields.serial_number = "SN0001";
  fields.base_mac = MacAddress{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  const EncodeResult encoded = encode_image(to_tlvs(fields));
  EXPECT_TRUE(encoded.valid()) << encoded.reason;
  return encoded.bytes.value_or(Bytes{});
}

bool is_all_zero(const Factory__data& record) {
  Factory__data zero{};
  return std::memcmp(&record, &zero, sizeof record) == 0;
}

// Each test gets its own sandbox root with the nvmem folders in place but no images.
class FactoryGet : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root_ / "sys/bus/nvmem/devices/device-eeprom0");
    fs::create_directories(root_ / "sys/bus/nvmem/devices/crate-eeprom0");
    std::memset(&record_, 0xA5, sizeof record_);  // garbage, so zeroing is seen
  }

  // Permissions a test took away come back, so that the root can be removed.
  void TearDown() override {
    std::error_code ignored;
    fs::permissions(device_image(), fs::perms::owner_all, ignored);
  }

  fs::path device_image() const { return root_ / "sys/bus/nvmem/devices/device-eeprom0/nvmem"; }
  fs::path crate_image() const { return root_ / "sys/bus/nvmem/devices/crate-eeprom0/nvmem"; }

  static void write(const fs::path& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good());
  }

  xpon::test::TempRoot temp_root_{"factory-test"};
  fs::path root_ = temp_root_.path();
  Factory__data record_{};
  bool valid_ = true;
};

TEST_F(FactoryGet, ReadsTheDeviceImageUnderTheRoot) {
  write(device_image(), image_named("QD7R-LC-8"));
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), 0);
  EXPECT_TRUE(valid_);
  EXPECT_STREQ(record_.device_name, "QD7R-LC-8");
  EXPECT_STREQ(record_.serial_number, "SN0001");
  EXPECT_EQ(record_.base_mac[5], 0x55);
  EXPECT_EQ(record_.part_number[0], '\0');
}

TEST_F(FactoryGet, ReadsAFullSizeNvmemFile) {
  Bytes bytes = image_named("QD7R-FC-2");
  bytes.resize(8192, 0xFF);
  write(device_image(), bytes);
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), 0);
  EXPECT_TRUE(valid_);
  EXPECT_STREQ(record_.device_name, "QD7R-FC-2");
}

TEST_F(FactoryGet, MissingImageReturnsItsErrno) {
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), ENOENT);
  EXPECT_FALSE(valid_);
  EXPECT_TRUE(is_all_zero(record_));
}

TEST_F(FactoryGet, ImageThatIsADirectoryCannotBeRead) {
  fs::create_directories(device_image());
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), EISDIR);
  EXPECT_FALSE(valid_);
}

TEST_F(FactoryGet, UnreadableImageReturnsEacces) {
  write(device_image(), image_named("QD7R-LC-8"));
  fs::permissions(device_image(), fs::perms::none);
  if (::geteuid() != 0) {
    EXPECT_EQ(get_factory(nullptr, &record_, &valid_), EACCES);
    EXPECT_FALSE(valid_);
    return;
  }
  // Root reads any file, so the read is made by a child that has given up root; the folders
  // stay searchable so that only the file's own mode stands in the way.
  fs::permissions(root_, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
      ::_exit(100);
    }
    Factory__data record{};
    bool valid = true;
    const int result = get_factory(nullptr, &record, &valid);
    ::_exit(result == EACCES && !valid ? 0 : 101);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "100: cannot drop root, 101: not EACCES with the flag cleared";
}

TEST_F(FactoryGet, EmptyImageIsReadButInvalid) {
  write(device_image(), {});
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), 0);
  EXPECT_FALSE(valid_);
  EXPECT_TRUE(is_all_zero(record_));
}

TEST_F(FactoryGet, ErasedEepromIsReadButInvalid) {
  write(device_image(), Bytes(256, 0xFF));
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), 0);
  EXPECT_FALSE(valid_);
  EXPECT_TRUE(is_all_zero(record_));
}

TEST_F(FactoryGet, BadCrcClearsTheValidityFlag) {
  Bytes bytes = image_named("QD7R-LC-8");
  bytes[12] ^= 0x01;
  write(device_image(), bytes);
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), 0);
  EXPECT_FALSE(valid_);
  EXPECT_TRUE(is_all_zero(record_));
}

TEST_F(FactoryGet, MissingCrcClearsTheValidityFlag) {
  Bytes bytes = image_named("QD7R-LC-8");
  bytes.resize(bytes.size() - 6);  // drop the CRC-32 TLV and fix the length to match
  const std::size_t total = bytes.size() - kHeaderSize;
  bytes[9] = static_cast<std::uint8_t>(total >> 8);
  bytes[10] = static_cast<std::uint8_t>(total & 0xFF);
  ASSERT_EQ(decode_image(bytes).reason, "CRC-32 TLV (0xfe) is missing");
  write(device_image(), bytes);
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), 0);
  EXPECT_FALSE(valid_);
}

TEST_F(FactoryGet, MissingProductNameClearsTheValidityFlag) {
  const std::vector<Tlv> tlvs = {Tlv{tlv::kSerialNumber, {'S', 'N'}, 0}};
  write(device_image(), *encode_image(tlvs).bytes);
  EXPECT_EQ(get_factory(nullptr, &record_, &valid_), 0);
  EXPECT_FALSE(valid_);
  EXPECT_TRUE(is_all_zero(record_));
}

TEST_F(FactoryGet, CrateImageIsReadFromItsOwnPath) {
  write(crate_image(), image_named("QD7R-CRATE-14"));
  EXPECT_EQ(get_crate_factory(nullptr, &record_, &valid_), 0);
  EXPECT_TRUE(valid_);
  EXPECT_STREQ(record_.device_name, "QD7R-CRATE-14");
  bool device_valid = true;
  Factory__data device{};
  EXPECT_EQ(get_factory(nullptr, &device, &device_valid), ENOENT);
  EXPECT_FALSE(device_valid);
}

TEST_F(FactoryGet, MissingCrateImageReturnsItsErrno) {
  write(device_image(), image_named("QD7R-FC-2"));
  EXPECT_EQ(get_crate_factory(nullptr, &record_, &valid_), ENOENT);
  EXPECT_FALSE(valid_);
}

TEST_F(FactoryGet, NullArgumentsAreRefused) {
  write(device_image(), image_named("QD7R-LC-8"));
  EXPECT_EQ(get_factory(nullptr, nullptr, &valid_), EINVAL);
  EXPECT_EQ(get_factory(nullptr, &record_, nullptr), EINVAL);
  EXPECT_EQ(get_crate_factory(nullptr, nullptr, nullptr), EINVAL);
  EXPECT_EQ(get_factory_from_file(nullptr, nullptr, &record_, &valid_), EINVAL);
}

TEST_F(FactoryGet, FromFileUsesThePathAsGiven) {
  const fs::path image = root_ / "image.bin";
  write(image, image_named("Korvan-16"));
  EXPECT_EQ(get_factory_from_file(nullptr, image.c_str(), &record_, &valid_), 0);
  EXPECT_TRUE(valid_);
  EXPECT_STREQ(record_.device_name, "Korvan-16");
  // The root is not put in front of an explicit path.
  EXPECT_EQ(get_factory_from_file(nullptr, "/image.bin", &record_, &valid_), ENOENT);
}

TEST_F(FactoryGet, CCallersSeeTheSameRecord) {
  EXPECT_EQ(factory_c_record_size(), sizeof(Factory__data));
  EXPECT_EQ(factory_c_fields_present_offset(), offsetof(Factory__data, fields_present));
  const fs::path image = root_ / "image.bin";
  write(image, image_named("QD7R-FC-2"));
  char name[FACTORY__DEVICE_NAME_SIZE] = {};
  EXPECT_EQ(factory_c_read_device_name(image.c_str(), name, sizeof name, &valid_), 0);
  EXPECT_TRUE(valid_);
  EXPECT_STREQ(name, "QD7R-FC-2");
  EXPECT_EQ(factory_c_read_device_name((root_ / "none.bin").c_str(), name, sizeof name, &valid_), ENOENT);
  EXPECT_FALSE(valid_);
  EXPECT_STREQ(name, "");
}

// The lines get_factory logs, read back from a file sink with a "level text" pattern.
class FactoryGetLogging : public FactoryGet {
 protected:
  std::string log_of(int (*call)(zlog_category_t*, Factory__data*, bool*)) {
    const fs::path config = root_ / "log.toml";
    const fs::path log = root_ / "factory.log";
    {
      std::ofstream out(config);
      out << "level = \"trace\"\npattern = \"%l %v\"\n[[sink]]\ntype = \"file\"\npath = \"" << log.string() << "\"\n";
    }
    {
      auto context = xpon::logger::Logger::create_context(config.string(), "factory-test", 0);
      EXPECT_TRUE(context.has_value());
      result_ = call(xpon::logger::Logger::get_raw_zlog_category("FACTORY-TEST"), &record_, &valid_);
    }
    std::ifstream in(log);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  int result_ = -1;
};

TEST_F(FactoryGetLogging, ValidImageLogsTheDeviceNameAtProgressLevel) {
  write(device_image(), image_named("QD7R-LC-8"));
  EXPECT_EQ(log_of(&get_factory),
            "debug Factory image /sys/bus/nvmem/devices/device-eeprom0/nvmem read: device QD7R-LC-8\n");
  EXPECT_EQ(result_, 0);
  EXPECT_TRUE(valid_);
}

TEST_F(FactoryGetLogging, MissingImageLogsTheLogicalPathAndErrno) {
  EXPECT_EQ(log_of(&get_crate_factory),
            "error Unable to read factory image /sys/bus/nvmem/devices/crate-eeprom0/nvmem: No such file or "
            "directory (errno 2)\n");
  EXPECT_EQ(result_, ENOENT);
}

TEST_F(FactoryGetLogging, InvalidImageLogsTheReason) {
  write(device_image(), Bytes(256, 0xFF));
  EXPECT_EQ(log_of(&get_factory),
            "error Invalid factory image /sys/bus/nvmem/devices/device-eeprom0/nvmem: bad magic: the image does not "
            "start with \"TlvInfo\\0\"\n");
  EXPECT_EQ(result_, 0);
  EXPECT_FALSE(valid_);
}

TEST_F(FactoryGetLogging, CutFieldIsAWarning) {
  const std::vector<Tlv> tlvs = {Tlv{tlv::kProductName, {'Q'}, 0}, Tlv{tlv::kPartNumber, Bytes(33, 'P'), 0}};
  write(device_image(), *encode_image(tlvs).bytes);
  EXPECT_EQ(log_of(&get_factory),
            "warning Factory image /sys/bus/nvmem/devices/device-eeprom0/nvmem: Part Number TLV (0x22) cut from 33 "
            "to 31 bytes\n"
            "debug Factory image /sys/bus/nvmem/devices/device-eeprom0/nvmem read: device Q\n");
  EXPECT_TRUE(valid_);
}

}  // namespace
}  // namespace xpon::factory
