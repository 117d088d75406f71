#pragma once

#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

namespace xpon::test {

/// A test whose process has a temporary XPON_ROOT of its own, holding the configuration database
/// the test makes (the previous root comes back afterwards).
class CfgDbSandbox : public ::testing::Test {
 protected:
  /// The database file under the sandbox root.
  [[nodiscard]] std::string database_file() const { return root_ + "/var/lib/xpon/cfgdb.sqlite3"; }

  /// Runs SQL on the database file directly, as someone editing it by hand would.
  void edit_by_hand(const std::string& sql) const {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(database_file().c_str(), &db), SQLITE_OK);
    char* message = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
    const std::string text = message != nullptr ? message : "";
    sqlite3_free(message);
    sqlite3_close(db);
    ASSERT_EQ(rc, SQLITE_OK) << text;
  }

 private:
  TempRoot temp_root_{"cfgdb-test"};

 protected:
  std::string root_ = temp_root_.path();
};

}  // namespace xpon::test
