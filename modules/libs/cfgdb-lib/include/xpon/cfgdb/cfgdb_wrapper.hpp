#pragma once

#include "xpon/cfgdb/cfgdb.h"

#include <memory>
#include <string>
#include <string_view>

namespace xpon::cfgdb {

/// The file of the configuration database, before the sandbox root is applied.
inline constexpr std::string_view kDatabasePath = "/var/lib/xpon/cfgdb.sqlite3";

/// Owns one connection to the configuration database, handed to the C getters as their handle.
/// The handle serialises its own use, so one wrapper may be shared by several threads.
class CfgDbWrapper {
 public:
  /// Opens the database at the host path of kDatabasePath (created with the defaults when
  /// missing) on behalf of the named client; throws std::runtime_error saying why it cannot.
  explicit CfgDbWrapper(std::string_view name);

  /// Opens the database at an explicit file path (tests, tools given --db).
  CfgDbWrapper(std::string_view name, std::string file);

  ~CfgDbWrapper();
  CfgDbWrapper(const CfgDbWrapper&) = delete;
  CfgDbWrapper& operator=(const CfgDbWrapper&) = delete;
  CfgDbWrapper(CfgDbWrapper&&) = delete;
  CfgDbWrapper& operator=(CfgDbWrapper&&) = delete;

  /// The handle to pass to the getRunDb_* functions; valid for the wrapper's lifetime.
  [[nodiscard]] CfgDb__handle* handle() const noexcept;

  /// The client name given at construction.
  [[nodiscard]] const std::string& name() const noexcept;

  /// The database file this wrapper opened.
  [[nodiscard]] const std::string& file() const noexcept;

 private:
  std::string name_;
  std::string file_;
  CfgDb__handle* handle_;
};

}  // namespace xpon::cfgdb
