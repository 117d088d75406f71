#include "xpon/cfgdb/store.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/test/cfgdb_sandbox.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

namespace xpon::cfgdb {
namespace {

using test::CfgDbSandbox;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

std::string message_of(const core::ErrorPayload& error) {
  return error.info && error.info->message ? *error.info->message : std::string("<no message>");
}

template <typename Record>
std::vector<std::uint8_t> bytes_of(const Record& record) {
  std::vector<std::uint8_t> bytes(sizeof(Record));
  std::memcpy(bytes.data(), &record, sizeof(Record));
  return bytes;
}

std::unique_ptr<Store> open_store(const std::string& file) {
  auto store = Store::open(file);
  EXPECT_TRUE(store) << (store ? "" : store.error().to_string());
  return store ? std::move(store).value() : nullptr;
}

class CfgdbStore : public CfgDbSandbox {};

TEST_F(CfgdbStore, WrapperCreatesAMissingDatabaseUnderTheRoot) {
  ASSERT_FALSE(std::filesystem::exists(database_file()));
  CfgDbWrapper wrapper("system-mgr");
  EXPECT_EQ(wrapper.file(), database_file());
  EXPECT_EQ(wrapper.name(), "system-mgr");
  EXPECT_NE(wrapper.handle(), nullptr);
  EXPECT_TRUE(std::filesystem::exists(database_file()));
}

TEST_F(CfgdbStore, FreshDatabaseHoldsEveryDefault) {
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  auto all = store->read_all();
  ASSERT_TRUE(all);
  ASSERT_EQ(all.value().size(), sections().size());
  for (std::size_t i = 0; i < sections().size(); ++i) {
    EXPECT_EQ(all.value()[i], default_values(sections()[i])) << sections()[i].name;
  }
}

TEST_F(CfgdbStore, FreshDatabaseIsInWalMode) {
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(database_file().c_str(), &db), SQLITE_OK);
  sqlite3_stmt* stmt = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA journal_mode", -1, &stmt, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)), "wal");
  sqlite3_finalize(stmt);
  sqlite3_close(db);
}

TEST_F(CfgdbStore, SectionTableNamesEverySection) {
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(database_file().c_str(), &db), SQLITE_OK);
  sqlite3_stmt* stmt = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT id, name FROM section ORDER BY id", -1, &stmt, nullptr), SQLITE_OK);
  std::vector<std::string> rows;
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    rows.push_back(std::to_string(sqlite3_column_int(stmt, 0)) + " " +
                   reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1)));
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  EXPECT_THAT(
      rows, ElementsAre("42 FAN", "77 ALARM_SYSTEM_RAM", "78 ALARM_DISK_SPACE", "79 ALARM_SYSTEM_FAN",
                        "80 ALARM_SYSTEM_LOAD_AVERAGE", "81 ALARM_SYSTEM_TEMPERATURE", "123 ALARM_SYSTEM_PWR_MODULE"));
}

TEST_F(CfgdbStore, GettersFillTheDefaultRecordsByteForByte) {
  CfgDbWrapper wrapper("test");
  const CfgDb__key key{};

  CfgDb__alarm_system_load_average load;
  std::memset(&load, 0xAA, sizeof(load));
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_load_average(wrapper.handle(), &load, &key), 0);
  EXPECT_THAT(bytes_of(load), ElementsAreArray<std::uint8_t>({0x90, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

  CfgDb__alarm_system_ram ram;
  std::memset(&ram, 0xAA, sizeof(ram));
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_ram(wrapper.handle(), &ram, &key), 0);
  EXPECT_THAT(bytes_of(ram), ElementsAreArray<std::uint8_t>({10, 0, 0, 0}));

  CfgDb__alarm_disk_space disk;
  std::memset(&disk, 0xAA, sizeof(disk));
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_disk_space(wrapper.handle(), &disk, &key), 0);
  EXPECT_THAT(bytes_of(disk), ElementsAreArray<std::uint8_t>({10, 0, 0, 0}));

  CfgDb__alarm_system_temperature temperature;
  std::memset(&temperature, 0xAA, sizeof(temperature));
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_temperature(wrapper.handle(), &temperature, &key), 0);
  EXPECT_THAT(bytes_of(temperature), ElementsAreArray<std::uint8_t>({0, 80, 0, 80, 0, 80, 0, 80, 0, 80}));

  CfgDb__fan fan;
  std::memset(&fan, 0xAA, sizeof(fan));
  ASSERT_EQ(getRunDb_CommonGCfg_system_fan_speed(wrapper.handle(), &fan, &key), 0);
  EXPECT_THAT(bytes_of(fan), ElementsAreArray<std::uint8_t>({0, 0, 0, 0, 1, 0, 0, 0}));

  CfgDb__alarm_system_fan fan_alarm;
  std::memset(&fan_alarm, 0xAA, sizeof(fan_alarm));
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_fan(wrapper.handle(), &fan_alarm, &key), 0);
  EXPECT_THAT(bytes_of(fan_alarm), ElementsAreArray<std::uint8_t>({0x20, 0x4E, 0xE8, 0x03, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(CfgdbStore, GettersFillWrittenValuesByteForByte) {
  {
    auto store = open_store(database_file());
    ASSERT_TRUE(store);
    const std::vector<SectionUpdate> updates{
        {find_section(80), {0x0102}}, {find_section(77), {55}},
        {find_section(78), {7}},      {find_section(81), {1, 2, 3, 4, 5, 6, 7, 8, 9, 127}},
        {find_section(42), {1, 2}},   {find_section(79), {0x3039, 0x0201}},
    };
    ASSERT_TRUE(store->write(updates));
  }
  CfgDbWrapper wrapper("test");
  const CfgDb__key key{};
  CfgDb__alarm_system_load_average load{};
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_load_average(wrapper.handle(), &load, &key), 0);
  EXPECT_EQ(load.threshold, 0x0102);
  EXPECT_THAT(bytes_of(load), ElementsAreArray<std::uint8_t>({0x02, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  CfgDb__alarm_system_ram ram{};
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_ram(wrapper.handle(), &ram, &key), 0);
  EXPECT_THAT(bytes_of(ram), ElementsAreArray<std::uint8_t>({55, 0, 0, 0}));
  CfgDb__alarm_disk_space disk{};
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_disk_space(wrapper.handle(), &disk, &key), 0);
  EXPECT_THAT(bytes_of(disk), ElementsAreArray<std::uint8_t>({7, 0, 0, 0}));
  CfgDb__alarm_system_temperature temperature{};
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_temperature(wrapper.handle(), &temperature, &key), 0);
  EXPECT_THAT(bytes_of(temperature), ElementsAreArray<std::uint8_t>({1, 2, 3, 4, 5, 6, 7, 8, 9, 127}));
  EXPECT_EQ(temperature.sensor[4].upper, 127);
  CfgDb__fan fan{};
  ASSERT_EQ(getRunDb_CommonGCfg_system_fan_speed(wrapper.handle(), &fan, &key), 0);
  EXPECT_THAT(bytes_of(fan), ElementsAreArray<std::uint8_t>({1, 0, 0, 0, 2, 0, 0, 0}));
  CfgDb__alarm_system_fan fan_alarm{};
  ASSERT_EQ(getRunDb_CommonGCfg_system_alarm_system_fan(wrapper.handle(), &fan_alarm, &key), 0);
  EXPECT_THAT(bytes_of(fan_alarm), ElementsAreArray<std::uint8_t>({0x39, 0x30, 0x01, 0x02, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(CfgdbStore, NonZeroKeyNamesNoInstance) {
  CfgDbWrapper wrapper("test");
  CfgDb__key key{};
  key.index[5] = 1;
  CfgDb__alarm_system_ram ram{};
  ram.threshold = 33;
  errno = 0;
  EXPECT_EQ(getRunDb_CommonGCfg_system_alarm_system_ram(wrapper.handle(), &ram, &key), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_STREQ(cfgdb__last_error(), "ALARM_SYSTEM_RAM: no instance for a non-zero key");
  EXPECT_EQ(ram.threshold, 33);
}

TEST_F(CfgdbStore, NullArgumentsAreRefused) {
  CfgDbWrapper wrapper("test");
  const CfgDb__key key{};
  CfgDb__fan fan{};
  errno = 0;
  EXPECT_EQ(getRunDb_CommonGCfg_system_fan_speed(nullptr, &fan, &key), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_STREQ(cfgdb__last_error(), "FAN: null handle, record or key");
  EXPECT_EQ(getRunDb_CommonGCfg_system_fan_speed(wrapper.handle(), nullptr, &key), -1);
  EXPECT_EQ(getRunDb_CommonGCfg_system_fan_speed(wrapper.handle(), &fan, nullptr), -1);
}

TEST_F(CfgdbStore, HandEditedOutOfRangeValueIsAClearError) {
  { CfgDbWrapper create("test"); }
  edit_by_hand("UPDATE field SET value = 300 WHERE section_id = 77 AND name = 'threshold'");
  CfgDbWrapper wrapper("test");
  const CfgDb__key key{};
  CfgDb__alarm_system_ram ram{};
  ram.threshold = 42;
  errno = 0;
  EXPECT_EQ(getRunDb_CommonGCfg_system_alarm_system_ram(wrapper.handle(), &ram, &key), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_STREQ(cfgdb__last_error(),
               "configuration database /var/lib/xpon/cfgdb.sqlite3: ALARM_SYSTEM_RAM: stored threshold=300 is out "
               "of range 0..100");
  EXPECT_EQ(ram.threshold, 42) << "a refused read leaves the caller's record as it was";
}

TEST_F(CfgdbStore, HandEditedTextValueIsAClearError) {
  { CfgDbWrapper create("test"); }
  edit_by_hand("UPDATE field SET value = 'lots' WHERE section_id = 80");
  CfgDbWrapper wrapper("test");
  const CfgDb__key key{};
  CfgDb__alarm_system_load_average load{};
  EXPECT_EQ(getRunDb_CommonGCfg_system_alarm_system_load_average(wrapper.handle(), &load, &key), -1);
  EXPECT_STREQ(cfgdb__last_error(),
               "configuration database /var/lib/xpon/cfgdb.sqlite3: ALARM_SYSTEM_LOAD_AVERAGE: stored "
               "threshold='lots' is not a whole number");
}

TEST_F(CfgdbStore, HandEditedNegativeAndFractionalValuesAreClearErrors) {
  { CfgDbWrapper create("test"); }
  edit_by_hand("UPDATE field SET value = -1 WHERE section_id = 78");
  edit_by_hand("UPDATE field SET value = 2.5 WHERE section_id = 42 AND name = 'mode'");
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  auto disk = store->read(*find_section(78));
  ASSERT_FALSE(disk);
  EXPECT_EQ(message_of(disk.error()), "configuration database " + database_file() +
                                          ": ALARM_DISK_SPACE: stored threshold=-1 is out of range 0..100");
  auto fan = store->read(*find_section(42));
  ASSERT_FALSE(fan);
  EXPECT_EQ(message_of(fan.error()),
            "configuration database " + database_file() + ": FAN: stored mode='2.5' is not a whole number");
}

TEST_F(CfgdbStore, HandEditedLimitsInTheWrongOrderAreAClearError) {
  { CfgDbWrapper create("test"); }
  edit_by_hand("UPDATE field SET value = 30000 WHERE section_id = 79 AND name = 'lower_speed'");
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  auto fan = store->read(*find_section(79));
  ASSERT_FALSE(fan);
  EXPECT_EQ(message_of(fan.error()), "configuration database " + database_file() +
                                         ": stored values refused: ALARM_SYSTEM_FAN: lower_speed=30000 must be "
                                         "below upper_speed=20000");
}

TEST_F(CfgdbStore, DeletedFieldComesBackWithItsDefaultOnTheNextOpen) {
  { CfgDbWrapper create("test"); }
  edit_by_hand("DELETE FROM field WHERE section_id = 81 AND name = 'sensor2_upper'");
  edit_by_hand("UPDATE field SET value = 70 WHERE section_id = 81 AND name = 'sensor0_upper'");
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  auto values = store->read(*find_section(81));
  ASSERT_TRUE(values);
  EXPECT_THAT(values.value(), ElementsAre(0U, 70U, 0U, 80U, 0U, 80U, 0U, 80U, 0U, 80U));
}

TEST_F(CfgdbStore, FieldMissingAtReadTimeIsAClearError) {
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  edit_by_hand("DELETE FROM field WHERE section_id = 42 AND name = 'family'");
  auto fan = store->read(*find_section(42));
  ASSERT_FALSE(fan);
  EXPECT_EQ(message_of(fan.error()), "configuration database " + database_file() + ": FAN: field family is missing");
}

TEST_F(CfgdbStore, GarbageFileIsRefusedWithTheReason) {
  std::filesystem::create_directories(std::filesystem::path(database_file()).parent_path());
  std::ofstream(database_file()) << std::string(4096, 'x');
  try {
    CfgDbWrapper wrapper("test");
    FAIL() << "a file that is not a database was opened";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              "configuration database /var/lib/xpon/cfgdb.sqlite3: switching to WAL failed: file is not a database");
  }
}

TEST_F(CfgdbStore, UncreatableDirectoryIsRefusedWithTheReason) {
  std::ofstream(root_ + "/var") << "a file where a directory should be";
  auto store = Store::open(database_file(), "/var/lib/xpon/cfgdb.sqlite3");
  ASSERT_FALSE(store);
  EXPECT_EQ(message_of(store.error()),
            "configuration database /var/lib/xpon/cfgdb.sqlite3: cannot create its directory: Not a directory");
}

TEST_F(CfgdbStore, WriteReportsOnlySectionsThatChanged) {
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  const std::vector<SectionUpdate> updates{{find_section(77), {10}}, {find_section(78), {25}}};
  auto changed = store->write(updates);
  ASSERT_TRUE(changed);
  EXPECT_THAT(changed.value(), ElementsAre(78U));
  auto again = store->write(updates);
  ASSERT_TRUE(again);
  EXPECT_TRUE(again.value().empty());
}

TEST_F(CfgdbStore, WriteIsAllOrNothing) {
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  const std::vector<SectionUpdate> updates{{find_section(77), {50}}, {find_section(79), {100, 200}}};
  auto written = store->write(updates);
  ASSERT_FALSE(written);
  EXPECT_EQ(message_of(written.error()), "ALARM_SYSTEM_FAN: lower_speed=200 must be below upper_speed=100");
  EXPECT_THAT(store->read(*find_section(77)).value(), ElementsAre(10U));
  EXPECT_THAT(store->read(*find_section(79)).value(), ElementsAre(20000U, 1000U));
}

TEST_F(CfgdbStore, WriteSeenByAnotherConnection) {
  auto writer = open_store(database_file());
  auto reader = open_store(database_file());
  ASSERT_TRUE(writer && reader);
  const std::vector<SectionUpdate> updates{{find_section(80), {275}}};
  ASSERT_TRUE(writer->write(updates));
  EXPECT_THAT(reader->read(*find_section(80)).value(), ElementsAre(275U));
}

TEST_F(CfgdbStore, ChangeKeepsTheFieldsNotGiven) {
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  const std::vector<SectionChange> changes{{find_section(81),
                                            {std::nullopt, 90, std::nullopt, std::nullopt, 5, std::nullopt,
                                             std::nullopt, std::nullopt, std::nullopt, std::nullopt}}};
  auto changed = store->change(changes);
  ASSERT_TRUE(changed);
  EXPECT_THAT(changed.value(), ElementsAre(81U));
  EXPECT_THAT(store->read(*find_section(81)).value(), ElementsAre(0U, 90U, 0U, 80U, 5U, 80U, 0U, 80U, 0U, 80U));
}

TEST_F(CfgdbStore, ChangeChecksTheMergedSectionAndWritesNothingWhenRefused) {
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  const std::vector<SectionChange> changes{{find_section(77), {20}}, {find_section(79), {std::nullopt, 20000}}};
  auto changed = store->change(changes);
  ASSERT_FALSE(changed);
  EXPECT_EQ(changed.error().error, core::Error::InvalidInputArg);
  EXPECT_EQ(message_of(changed.error()), "ALARM_SYSTEM_FAN: lower_speed=20000 must be below upper_speed=20000");
  EXPECT_THAT(store->read(*find_section(77)).value(), ElementsAre(10U));
}

TEST_F(CfgdbStore, ChangeRepairsAHandEditedValueItOverwrites) {
  { CfgDbWrapper create("test"); }
  edit_by_hand("UPDATE field SET value = 'oops' WHERE section_id = 77");
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  const std::vector<SectionChange> changes{{find_section(77), {15}}};
  auto changed = store->change(changes);
  ASSERT_TRUE(changed) << changed.error().to_string();
  EXPECT_THAT(changed.value(), ElementsAre(77U));
  EXPECT_THAT(store->read(*find_section(77)).value(), ElementsAre(15U));
}

TEST_F(CfgdbStore, ChangeNeedingAnUnusableStoredValueFails) {
  { CfgDbWrapper create("test"); }
  edit_by_hand("UPDATE field SET value = 99999 WHERE section_id = 79 AND name = 'upper_speed'");
  auto store = open_store(database_file());
  ASSERT_TRUE(store);
  const std::vector<SectionChange> changes{{find_section(79), {std::nullopt, 500}}};
  auto changed = store->change(changes);
  ASSERT_FALSE(changed);
  EXPECT_EQ(changed.error().error, core::Error::InvalidState);
  EXPECT_EQ(message_of(changed.error()), "configuration database " + database_file() +
                                             ": ALARM_SYSTEM_FAN: stored upper_speed=99999 is out of range 0..65535");
}

}  // namespace
}  // namespace xpon::cfgdb
