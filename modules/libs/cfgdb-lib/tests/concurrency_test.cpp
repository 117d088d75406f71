#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/store.hpp"
#include "xpon/test/cfgdb_sandbox.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace xpon::cfgdb {
namespace {

using test::CfgDbSandbox;

class CfgdbConcurrency : public CfgDbSandbox {};

std::vector<std::uint8_t> temperature_bytes(const CfgDb__alarm_system_temperature& record) {
  std::vector<std::uint8_t> bytes(sizeof(record));
  std::memcpy(bytes.data(), &record, sizeof(record));
  return bytes;
}

// A writer rewrites every field of the temperature section between two patterns while a
// reader in another connection (the daemon's side, through the C getter) keeps reading it:
// every record read must be one whole pattern, never a mix.
TEST_F(CfgdbConcurrency, ReaderNeverSeesATornRecordWhileAWriterRewritesIt) {
  const auto& section = *find_section(kAlarmSystemTemperature.id);
  const SectionValues first{10, 20, 11, 21, 12, 22, 13, 23, 14, 24};
  const SectionValues second{30, 40, 31, 41, 32, 42, 33, 43, 34, 44};
  const auto first_bytes = encode_record(section, first);
  const auto second_bytes = encode_record(section, second);
  const auto default_bytes = encode_record(section, default_values(section));

  CfgDbWrapper reader_db("reader");
  auto writer_store = Store::open(database_file());
  ASSERT_TRUE(writer_store);
  auto& writer_db = *writer_store.value();

  std::atomic<bool> writing{true};
  std::atomic<int> write_failures{0};
  std::thread writer([&] {
    for (int round = 0; round < 200; ++round) {
      const std::vector<SectionUpdate> update{{&section, (round % 2 == 0) ? first : second}};
      if (!writer_db.write(update)) {
        write_failures.fetch_add(1);
      }
    }
    writing.store(false);
  });

  int reads = 0;
  int torn = 0;
  int failed = 0;
  int patterns_seen = 0;
  bool saw_first = false;
  bool saw_second = false;
  const CfgDb__key key{};
  while (writing.load() || reads < 50) {
    CfgDb__alarm_system_temperature record{};
    if (getRunDb_CommonGCfg_system_alarm_system_temperature(reader_db.handle(), &record, &key) != 0) {
      ++failed;
      continue;
    }
    ++reads;
    const auto bytes = temperature_bytes(record);
    saw_first = saw_first || bytes == first_bytes;
    saw_second = saw_second || bytes == second_bytes;
    if (bytes == first_bytes || bytes == second_bytes || bytes == default_bytes) {
      ++patterns_seen;
    } else {
      ++torn;
    }
  }
  writer.join();

  EXPECT_EQ(write_failures.load(), 0);
  EXPECT_EQ(failed, 0) << cfgdb__last_error();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(patterns_seen, reads);
  EXPECT_GE(reads, 50);
  EXPECT_TRUE(saw_first || saw_second) << "the reader never saw a written pattern";
}

// Several threads share one wrapper, as the daemon's functions do.
TEST_F(CfgdbConcurrency, ThreadsSharingOneWrapperAllReadWholeRecords) {
  CfgDbWrapper shared("shared");
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  readers.reserve(4);
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&] {
      const CfgDb__key key{};
      for (int i = 0; i < 100; ++i) {
        CfgDb__alarm_system_fan fan{};
        if (getRunDb_CommonGCfg_system_alarm_system_fan(shared.handle(), &fan, &key) != 0 || fan.upper_speed != 20000 ||
            fan.lower_speed != 1000) {
          bad.fetch_add(1);
        }
      }
    });
  }
  for (auto& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(bad.load(), 0);
}

}  // namespace
}  // namespace xpon::cfgdb
