#pragma once

#include "xpon/cfgdb/schema.hpp"
#include "xpon/core/result.hpp"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct sqlite3;

namespace xpon::cfgdb {

/// New values for the fields of one section (all fields, in declaration order).
struct SectionUpdate {
  const SectionSpec* section;
  SectionValues values;
};

/// New values for some fields of one section, by field position; fields left empty keep
/// the value stored.
struct SectionChange {
  const SectionSpec* section;
  std::vector<std::optional<std::uint32_t>> values;
};

/// The SQLite file behind the configuration: tables section(id, name) and
/// field(section_id, name, value). Each call is one transaction, so a reader never sees a
/// section half written; a Store may be used from several threads.
class Store {
 public:
  /// Opens (creating directories, file and tables as needed) the database at `file`;
  /// sections and fields missing from it are added with their defaults. Messages name the
  /// database by `shown_name` (the logical path under a sandbox root), or by `file` when empty.
  static Result<std::unique_ptr<Store>> open(const std::string& file, const std::string& shown_name = {});

  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  Store(Store&&) = delete;
  Store& operator=(Store&&) = delete;

  /// Reads one section's values in one read transaction; values that someone stored outside
  /// their range, or that are not integers, are Error::InvalidState with a message naming the field.
  Result<SectionValues> read(const SectionSpec& section);

  /// Reads every section from one snapshot, in the order of sections().
  Result<std::vector<SectionValues>> read_all();

  /// Checks every update, then writes them all in one BEGIN IMMEDIATE transaction (or none at
  /// all); returns the identifiers of the sections whose stored values changed, in update order.
  Result<std::vector<std::uint32_t>> write(std::span<const SectionUpdate> updates);

  /// Merges each change with the values stored, checks the merged sections and writes them, all
  /// in one BEGIN IMMEDIATE transaction, so no other writer can slip in between read and write.
  /// A merged section that fails its checks is Error::InvalidInputArg; a stored value that is
  /// needed but unusable is Error::InvalidState; nothing is written in either case.
  Result<std::vector<std::uint32_t>> change(std::span<const SectionChange> changes);

  /// The name messages give the database.
  [[nodiscard]] const std::string& shown_name() const noexcept { return shown_name_; }

 private:
  Store(sqlite3* db, std::string shown_name);
  struct StoredField {
    std::optional<std::uint32_t> value;  ///< empty when the stored value is unusable
    std::string problem;                 ///< why it is unusable
  };
  Result<std::vector<StoredField>> read_stored(const SectionSpec& section);
  Result<SectionValues> read_locked(const SectionSpec& section);
  Result<std::vector<std::uint32_t>> write_locked(std::span<const SectionUpdate> updates);

  sqlite3* db_;
  std::string shown_name_;
  std::mutex mutex_;  ///< one transaction at a time on this connection
};

}  // namespace xpon::cfgdb
