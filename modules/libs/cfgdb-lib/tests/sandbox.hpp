#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace xpon::cfgdb::test {

/// A temporary XPON_ROOT for one test, removed (with the previous root restored) afterwards.
class Sandbox : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* old = std::getenv("XPON_ROOT");
    had_root_ = old != nullptr;
    if (had_root_) {
      old_root_ = old;
    }
    std::string pattern = (std::filesystem::temp_directory_path() / "cfgdb-test-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    ::setenv("XPON_ROOT", root_.c_str(), 1);
  }

  void TearDown() override {
    if (had_root_) {
      ::setenv("XPON_ROOT", old_root_.c_str(), 1);
    } else {
      ::unsetenv("XPON_ROOT");
    }
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

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

  std::string root_;

 private:
  bool had_root_ = false;
  std::string old_root_;
};

}  // namespace xpon::cfgdb::test
