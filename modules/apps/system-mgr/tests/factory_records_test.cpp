#include "xpon/system_mgr/services/factory_records.hpp"

#include "factory_image.hpp"

#include "xpon/system_mgr/services/fc_service.hpp"
#include "xpon/system_mgr/services/lc_service.hpp"

#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/factory/factory_data.hpp"
#include "xpon/test/fake_board.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/sandbox.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

constexpr const char* kDeviceImage = "/sys/bus/nvmem/devices/device-eeprom0/nvmem";
constexpr const char* kCrateImage = "/sys/bus/nvmem/devices/crate-eeprom0/nvmem";

std::vector<std::uint8_t> bytes_of(const System_mgr__factory& record) {
  std::vector<std::uint8_t> bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

std::string text_at(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  return {reinterpret_cast<const char*>(bytes.data() + offset)};
}

// A board's file system with its factory images, as the factory library reads them.
class FactoryRecords : public ::testing::Test {
 protected:
  void write_image(const char* logical_path, const std::string& product, bool corrupt_crc = false) {
    factory::FactoryFields fields;
    fields.product_name = product;
    fields.serial_number = "SN0042";
    fields.base_mac = factory::parse_mac("a8:f9:4b:01:02:03");
    write_factory_image(sandbox_.path(logical_path), fields, corrupt_crc);
  }

  // The MiscParameters among a service's functions.
  template <typename Service>
  static const MiscParameters* misc_of(const Service& service) {
    for (const auto& function : service.functions()) {
      if (const auto* misc = dynamic_cast<const MiscParameters*>(function.get())) {
        return misc;
      }
    }
    return nullptr;
  }

  std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
  test::Sandbox sandbox_;
  test::ScopedEnv root_{"XPON_ROOT", sandbox_.root()};
};

TEST_F(FactoryRecords, DeviceAnswerIsTheFamilyIdThenTheImagesRecord) {
  write_image(kDeviceImage, "QD7R-LC-8");
  const auto bytes = bytes_of(read_device_factory(*logger_, DeviceType::LC));
  ASSERT_EQ(bytes.size(), 280U);
  EXPECT_EQ(bytes[0], 1);
  EXPECT_EQ(bytes[1], 0);
  EXPECT_EQ(text_at(bytes, 4), "QD7R-LC-8");
  EXPECT_EQ(text_at(bytes, 4 + 96), "SN0042");
  EXPECT_EQ(std::vector<std::uint8_t>(bytes.begin() + 132, bytes.begin() + 138),
            (std::vector<std::uint8_t>{0xA8, 0xF9, 0x4B, 0x01, 0x02, 0x03}));
  EXPECT_TRUE(logger_->texts().empty());
}

TEST_F(FactoryRecords, MissingDeviceImageKeepsTheFamilyIdAndLogsAnError) {
  const auto record = read_device_factory(*logger_, DeviceType::LT);
  auto expected = std::vector<std::uint8_t>(280, 0);
  EXPECT_EQ(bytes_of(record), expected);
  EXPECT_TRUE(
      logger_->contains("Device factory data unavailable (the image cannot be read, error 2): the device "
                        "factory answer carries the family id only",
                        4));
  const auto fc = bytes_of(read_device_factory(*logger_, DeviceType::FC));
  expected[0] = 2;
  EXPECT_EQ(fc, expected);
}

TEST_F(FactoryRecords, InvalidDeviceImageKeepsTheFamilyIdWithZeroData) {
  write_image(kDeviceImage, "QD7R-LC-8", /*corrupt_crc=*/true);
  auto expected = std::vector<std::uint8_t>(280, 0);
  expected[0] = 1;
  EXPECT_EQ(bytes_of(read_device_factory(*logger_, DeviceType::LC)), expected);
  EXPECT_TRUE(
      logger_->contains("Device factory data unavailable (the image is not valid factory data): the device "
                        "factory answer carries the family id only",
                        4));
}

TEST_F(FactoryRecords, CrateAnswerIsTheFcIdThenTheCrateImagesRecord) {
  write_image(kCrateImage, "QD7R-CRATE-14");
  const auto bytes = bytes_of(read_crate_factory(*logger_));
  EXPECT_EQ(bytes[0], 2);
  EXPECT_EQ(text_at(bytes, 4), "QD7R-CRATE-14");
  EXPECT_TRUE(logger_->texts().empty());
}

TEST_F(FactoryRecords, MissingCrateImageGivesTheZeroRecordAndAWarning) {
  EXPECT_EQ(bytes_of(read_crate_factory(*logger_)), std::vector<std::uint8_t>(280, 0));
  EXPECT_TRUE(logger_->contains(
      "Crate factory data unavailable (the image cannot be read, error 2): the crate factory answer is all zero", 3));
}

TEST_F(FactoryRecords, InvalidCrateImageGivesTheZeroRecordAndAWarning) {
  write_image(kCrateImage, "QD7R-CRATE-14", /*corrupt_crc=*/true);
  EXPECT_EQ(bytes_of(read_crate_factory(*logger_)), std::vector<std::uint8_t>(280, 0));
  EXPECT_TRUE(logger_->contains(
      "Crate factory data unavailable (the image is not valid factory data): the crate factory answer is all zero", 3));
}

TEST_F(FactoryRecords, FcServiceFillsBothAnswersBeforeRun) {
  write_image(kDeviceImage, "QD7R-FC");
  write_image(kCrateImage, "QD7R-CRATE-14");
  auto cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("SYSTEM-MGR_CFGDB");
  const FcService service(logger_, std::make_shared<test::RecordingIpc>(), cfgdb, std::make_shared<test::FakeBoard>());
  const auto* misc = misc_of(service);
  ASSERT_NE(misc, nullptr);
  const auto device = bytes_of(misc->device_factory());
  EXPECT_EQ(device[0], 2);
  EXPECT_EQ(text_at(device, 4), "QD7R-FC");
  const auto crate = bytes_of(misc->crate_factory());
  EXPECT_EQ(crate[0], 2);
  EXPECT_EQ(text_at(crate, 4), "QD7R-CRATE-14");
}

TEST_F(FactoryRecords, FcServiceWithoutCrateImageStillStartsAndSaysSo) {
  write_image(kDeviceImage, "QD7R-FC");
  auto cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("SYSTEM-MGR_CFGDB");
  const FcService service(logger_, std::make_shared<test::RecordingIpc>(), cfgdb, std::make_shared<test::FakeBoard>());
  EXPECT_TRUE(logger_->contains("FcService create successfully", 0));
  EXPECT_TRUE(logger_->contains(
      "Crate factory data unavailable (the image cannot be read, error 2): the crate factory answer is all zero", 3));
  const auto* misc = misc_of(service);
  ASSERT_NE(misc, nullptr);
  EXPECT_EQ(bytes_of(misc->crate_factory()), std::vector<std::uint8_t>(280, 0));
}

TEST_F(FactoryRecords, LcServiceReadsNoCrateImage) {
  write_image(kDeviceImage, "QD7R-LC-8");
  write_image(kCrateImage, "QD7R-CRATE-14");
  auto cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("SYSTEM-MGR_CFGDB");
  const LcService service(logger_, std::make_shared<test::RecordingIpc>(), cfgdb, std::make_shared<test::FakeBoard>());
  const auto* misc = misc_of(service);
  ASSERT_NE(misc, nullptr);
  const auto device = bytes_of(misc->device_factory());
  EXPECT_EQ(device[0], 1);
  EXPECT_EQ(text_at(device, 4), "QD7R-LC-8");
  EXPECT_EQ(bytes_of(misc->crate_factory()), std::vector<std::uint8_t>(280, 0));
}

}  // namespace
}  // namespace xpon::system_mgr
