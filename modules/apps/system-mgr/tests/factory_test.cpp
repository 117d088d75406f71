#include "xpon/system_mgr/factory.hpp"

#include "factory_image.hpp"

#include "xpon/factory/factory_data.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

namespace fs = std::filesystem;

std::string thrown_by(const char* device_name) {
  try {
    (void)Factory::classify(device_name);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing thrown";
}

TEST(FactoryClassify, LcName) {
  EXPECT_EQ(Factory::classify("QD7R-LC-8"), DeviceType::LC);
}

TEST(FactoryClassify, FcName) {
  EXPECT_EQ(Factory::classify("QD7R-FC"), DeviceType::FC);
}

TEST(FactoryClassify, KorvanAndTesmikNamesAreLt) {
  EXPECT_EQ(Factory::classify("Korvan-16"), DeviceType::LT);
  EXPECT_EQ(Factory::classify("Tesmik-8"), DeviceType::LT);
  EXPECT_EQ(Factory::classify("x Tesmik- y"), DeviceType::LT);
}

TEST(FactoryClassify, LtSearchComesFirst) {
  EXPECT_EQ(Factory::classify("QD7R-FC Korvan-2"), DeviceType::LT);
  EXPECT_EQ(Factory::classify("QD7R-LC/Tesmik-"), DeviceType::LT);
}

TEST(FactoryClassify, FcSearchComesBeforeLc) {
  EXPECT_EQ(Factory::classify("QD7R-LC QD7R-FC"), DeviceType::FC);
}

TEST(FactoryClassify, NearMissesThrowUnknownDeviceType) {
  EXPECT_EQ(thrown_by("QD7R-F"), "Unknown device type (QD7R-F)");
  EXPECT_EQ(thrown_by("Korvan"), "Unknown device type (Korvan)");
  EXPECT_EQ(thrown_by("qd7r-lc"), "Unknown device type (qd7r-lc)");
}

TEST(FactoryClassify, ShortAndEmptyNamesThrow) {
  EXPECT_EQ(thrown_by("QD7"), "Unknown device type (QD7)");
  EXPECT_EQ(thrown_by(""), "Unknown device type ()");
}

// A sandbox root holding the device's factory image, as the factory-data library reads it.
class FactoryImage : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(image_path_.parent_path()); }

  void write_image(const std::string& product_name, bool corrupt_crc = false) {
    factory::FactoryFields fields;
    fields.product_name = product_name;
    fields.serial_number = "SN0001";
    write_factory_image(image_path_, fields, corrupt_crc);
  }

  std::string construction_failure() {
    try {
      Factory factory(logger_, "SYSTEM-MGR");
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  }

  std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
  test::TempRoot root_{"factory"};
  fs::path image_path_ = root_.file("sys/bus/nvmem/devices/device-eeprom0/nvmem");
};

TEST_F(FactoryImage, LcImageGivesLcAndLogsCreationAndDestruction) {
  write_image("QD7R-LC-8");
  {
    const Factory factory(logger_, "SYSTEM-MGR");
    EXPECT_EQ(factory.device_type(), DeviceType::LC);
    EXPECT_TRUE(logger_->contains("Factory create successfully", 0));
  }
  EXPECT_TRUE(logger_->contains("Factory destroy successfully", 0));
}

TEST_F(FactoryImage, KorvanImageGivesLt) {
  write_image("Korvan-LT16");
  EXPECT_EQ(Factory(logger_, "SYSTEM-MGR").device_type(), DeviceType::LT);
}

TEST_F(FactoryImage, FcImageGivesFc) {
  write_image("QD7R-FC");
  EXPECT_EQ(Factory(logger_, "SYSTEM-MGR").device_type(), DeviceType::FC);
}

TEST_F(FactoryImage, MissingImageIsAFailedCall) {
  EXPECT_EQ(construction_failure(), "get_factory call failed (error: 2)");
  EXPECT_FALSE(logger_->contains("Factory create successfully"));
}

TEST_F(FactoryImage, BadCrcMeansNoValidFactory) {
  write_image("QD7R-LC-8", true);
  EXPECT_EQ(construction_failure(), "Valid Factory does not exist");
}

TEST_F(FactoryImage, UnknownNameThrowsWithTheName) {
  write_image("QD7R-F");
  EXPECT_EQ(construction_failure(), "Unknown device type (QD7R-F)");
}

}  // namespace
}  // namespace xpon::system_mgr
