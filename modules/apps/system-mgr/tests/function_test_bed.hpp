#pragma once

// What a system function's unit tests run over: a sandbox with the configuration database, a
// recording logger and IPC endpoint and a fake host; and the configuration section set in that
// database as a configuration writer would, or damaged so that the section's getter refuses it.

#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/cfgdb/store.hpp"
#include "xpon/test/fake_host.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/sandbox.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace xpon::system_mgr::cfg_test {

/// Stores the first field of a section (the threshold of the alarm sections), as xpon-cfg would.
inline void store_first_field(const std::string& database_file, cfgdb::SectionRef section_ref, std::uint32_t value) {
  auto store = cfgdb::Store::open(database_file);
  ASSERT_TRUE(store);
  const auto* section = cfgdb::find_section(section_ref.id);
  ASSERT_NE(section, nullptr);
  const std::vector<cfgdb::SectionChange> changes{cfgdb::SectionChange{section, {value}}};
  ASSERT_TRUE(store.value()->change(changes));
}

/// Puts a threshold the section's getter refuses (EINVAL) straight into the database file, as a
/// damaged database would hold it.
inline void store_unreadable_threshold(const std::string& database_file, cfgdb::SectionRef section_ref) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(database_file.c_str(), &db), SQLITE_OK);
  char* message = nullptr;
  const std::string statement =
      "UPDATE field SET value = '70000' WHERE section_id = " + std::to_string(section_ref.id) +
      " AND name = 'threshold'";
  const int done = sqlite3_exec(db, statement.c_str(), nullptr, nullptr, &message);
  EXPECT_EQ(done, SQLITE_OK) << (message != nullptr ? message : "");
  sqlite3_free(message);
  EXPECT_EQ(sqlite3_changes(db), 1);
  sqlite3_close(db);
}

/// The objects a function under test is made from; a fixture derives from it.
struct FunctionTestBed {
  xpon::test::Sandbox sandbox;
  std::string database_file = sandbox.path("/var/lib/xpon/cfgdb.sqlite3");
  std::shared_ptr<xpon::test::RecordingLogger> logger = std::make_shared<xpon::test::RecordingLogger>();
  std::shared_ptr<xpon::test::RecordingIpc> ipc = std::make_shared<xpon::test::RecordingIpc>();
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("TEST_CFGDB", database_file);
  std::shared_ptr<xpon::test::FakeHost> host = std::make_shared<xpon::test::FakeHost>();
};

}  // namespace xpon::system_mgr::cfg_test
