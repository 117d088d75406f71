#include "xpon/cfgdb/store.hpp"

#include <fmt/format.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <set>
#include <system_error>
#include <utility>

namespace xpon::cfgdb {
namespace {

using core::Error;
using core::ErrorPayload;

// Long enough to ride out another writer's transaction (they are a handful of rows), short
// enough that a wedged writer shows up as an error instead of a hung daemon.
constexpr int kBusyTimeoutMs = 5000;

constexpr const char* kCreateTables =
    "CREATE TABLE IF NOT EXISTS section(id INTEGER PRIMARY KEY, name TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS field(section_id INTEGER NOT NULL, name TEXT NOT NULL, "
    "value INTEGER NOT NULL, PRIMARY KEY(section_id, name));";

ErrorPayload sqlite_error(sqlite3* db, const std::string& shown_name, std::string_view doing) {
  return ErrorPayload{Error::ErrorCApi, fmt::format("configuration database {}: {} failed: {}", shown_name, doing,
                                                    db != nullptr ? sqlite3_errmsg(db) : "out of memory")};
}

// One prepared statement, finalised on every path out.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) { rc_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  Statement(Statement&&) = delete;
  Statement& operator=(Statement&&) = delete;

  [[nodiscard]] bool ok() const noexcept { return rc_ == SQLITE_OK && stmt_ != nullptr; }
  [[nodiscard]] sqlite3_stmt* get() const noexcept { return stmt_; }

  bool bind(int index, std::int64_t value) { return sqlite3_bind_int64(stmt_, index, value) == SQLITE_OK; }
  bool bind(int index, std::string_view text) {
    return sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT) == SQLITE_OK;
  }
  int step() { return sqlite3_step(stmt_); }
  void reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int rc_ = SQLITE_ERROR;
};

// Ends a transaction that was not committed, so an early error return never leaves one open.
class Transaction {
 public:
  explicit Transaction(sqlite3* db) : db_(db) {}
  ~Transaction() {
    if (!done_) {
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  Transaction(Transaction&&) = delete;
  Transaction& operator=(Transaction&&) = delete;

  bool commit() {
    done_ = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    return done_;
  }

 private:
  sqlite3* db_;
  bool done_ = false;
};

std::string stored_text(sqlite3_stmt* stmt, int column) {
  if (sqlite3_column_type(stmt, column) == SQLITE_NULL) {
    return "NULL";
  }
  const auto* text = sqlite3_column_text(stmt, column);
  return text != nullptr ? std::string(reinterpret_cast<const char*>(text)) : std::string();
}

Result<void> add_missing_rows(sqlite3* db, const std::string& shown_name) {
  Statement add_section(db, "INSERT OR IGNORE INTO section(id, name) VALUES(?1, ?2)");
  Statement add_field(db, "INSERT OR IGNORE INTO field(section_id, name, value) VALUES(?1, ?2, ?3)");
  if (!add_section.ok() || !add_field.ok()) {
    return sqlite_error(db, shown_name, "preparing the tables");
  }
  for (const auto& section : sections()) {
    add_section.bind(1, static_cast<std::int64_t>(section.id));
    add_section.bind(2, section.name);
    if (add_section.step() != SQLITE_DONE) {
      return sqlite_error(db, shown_name, "adding a section");
    }
    add_section.reset();
    for (const auto& field : section.fields) {
      add_field.bind(1, static_cast<std::int64_t>(section.id));
      add_field.bind(2, field.name);
      add_field.bind(3, static_cast<std::int64_t>(field.default_value));
      if (add_field.step() != SQLITE_DONE) {
        return sqlite_error(db, shown_name, "adding a field");
      }
      add_field.reset();
    }
  }
  return core::success();
}

}  // namespace

Store::Store(sqlite3* db, std::string shown_name) : db_(db), shown_name_(std::move(shown_name)) {}

Store::~Store() {
  sqlite3_close_v2(db_);
}

Result<std::unique_ptr<Store>> Store::open(const std::string& file, const std::string& shown_name) {
  const std::string shown = shown_name.empty() ? file : shown_name;
  const auto directory = std::filesystem::path(file).parent_path();
  if (!directory.empty()) {
    std::error_code failure;
    std::filesystem::create_directories(directory, failure);
    if (failure) {
      return ErrorPayload{Error::ErrorCApi, fmt::format("configuration database {}: cannot create its directory: {}",
                                                        shown, failure.message())};
    }
  }
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
  if (sqlite3_open_v2(file.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    auto error = sqlite_error(db, shown, "opening");
    sqlite3_close_v2(db);
    return error;
  }
  // From here on the Store owns the connection and closes it on every path.
  std::unique_ptr<Store> store(new Store(db, shown));
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  if (sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite_error(db, shown, "switching to WAL");
  }
  if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite_error(db, shown, "starting a write");
  }
  Transaction transaction(db);
  if (sqlite3_exec(db, kCreateTables, nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite_error(db, shown, "creating the tables");
  }
  if (auto added = add_missing_rows(db, shown); !added) {
    return added.error();
  }
  if (!transaction.commit()) {
    return sqlite_error(db, shown, "committing the defaults");
  }
  return store;
}

Result<std::vector<Store::StoredField>> Store::read_stored(const SectionSpec& section) {
  Statement select(db_, "SELECT name, value FROM field WHERE section_id = ?1");
  if (!select.ok()) {
    return sqlite_error(db_, shown_name_, "reading");
  }
  select.bind(1, static_cast<std::int64_t>(section.id));
  struct Row {
    bool integer;
    std::int64_t value;
    std::string text;
  };
  std::map<std::string, Row, std::less<>> rows;
  int rc = SQLITE_ROW;
  while ((rc = select.step()) == SQLITE_ROW) {
    rows[stored_text(select.get(), 0)] = Row{sqlite3_column_type(select.get(), 1) == SQLITE_INTEGER,
                                             sqlite3_column_int64(select.get(), 1), stored_text(select.get(), 1)};
  }
  if (rc != SQLITE_DONE) {
    return sqlite_error(db_, shown_name_, "reading");
  }
  std::vector<StoredField> fields;
  fields.reserve(section.fields.size());
  for (const auto& field : section.fields) {
    auto found = rows.find(field.name);
    if (found == rows.end()) {
      fields.push_back({std::nullopt, fmt::format("configuration database {}: {}: field {} is missing", shown_name_,
                                                  section.name, field.name)});
    } else if (!found->second.integer) {
      fields.push_back({std::nullopt, fmt::format("configuration database {}: {}: stored {}='{}' is not a whole number",
                                                  shown_name_, section.name, field.name, found->second.text)});
    } else if (found->second.value < field.min || found->second.value > field.max) {
      fields.push_back(
          {std::nullopt, fmt::format("configuration database {}: {}: stored {}={} is out of range {}..{}", shown_name_,
                                     section.name, field.name, found->second.value, field.min, field.max)});
    } else {
      fields.push_back({static_cast<std::uint32_t>(found->second.value), {}});
    }
  }
  return fields;
}

Result<SectionValues> Store::read_locked(const SectionSpec& section) {
  auto stored = read_stored(section);
  if (!stored) {
    return stored.error();
  }
  SectionValues values;
  values.reserve(section.fields.size());
  for (const auto& field : stored.value()) {
    if (!field.value) {
      return ErrorPayload{Error::InvalidState, field.problem};
    }
    values.push_back(*field.value);
  }
  if (auto checked = check_values(section, values); !checked) {
    const auto& info = checked.error().info;
    return ErrorPayload{Error::InvalidState,
                        fmt::format("configuration database {}: stored values refused: {}", shown_name_,
                                    info && info->message ? *info->message : checked.error().to_string())};
  }
  return values;
}

Result<SectionValues> Store::read(const SectionSpec& section) {
  std::lock_guard lock(mutex_);
  if (sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite_error(db_, shown_name_, "starting a read");
  }
  Transaction transaction(db_);
  auto values = read_locked(section);
  if (values && !transaction.commit()) {
    return sqlite_error(db_, shown_name_, "ending a read");
  }
  return values;
}

Result<std::vector<SectionValues>> Store::read_all() {
  std::lock_guard lock(mutex_);
  if (sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite_error(db_, shown_name_, "starting a read");
  }
  Transaction transaction(db_);
  std::vector<SectionValues> all;
  for (const auto& section : sections()) {
    auto values = read_locked(section);
    if (!values) {
      return values.error();
    }
    all.push_back(std::move(values).value());
  }
  if (!transaction.commit()) {
    return sqlite_error(db_, shown_name_, "ending a read");
  }
  return all;
}

Result<std::vector<std::uint32_t>> Store::write(std::span<const SectionUpdate> updates) {
  for (const auto& update : updates) {
    if (update.section == nullptr) {
      return ErrorPayload{Error::InvalidInputArg, "configuration update without a section"};
    }
    if (auto checked = check_values(*update.section, update.values); !checked) {
      return checked.error();
    }
  }
  std::lock_guard lock(mutex_);
  if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite_error(db_, shown_name_, "starting a write");
  }
  Transaction transaction(db_);
  auto changed = write_locked(updates);
  if (changed && !transaction.commit()) {
    return sqlite_error(db_, shown_name_, "committing");
  }
  return changed;
}

Result<std::vector<std::uint32_t>> Store::change(std::span<const SectionChange> changes) {
  for (const auto& change : changes) {
    if (change.section == nullptr || change.values.size() != change.section->fields.size()) {
      return ErrorPayload{Error::InvalidInputArg, "configuration change without a section or with a wrong field count"};
    }
  }
  std::lock_guard lock(mutex_);
  if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite_error(db_, shown_name_, "starting a write");
  }
  Transaction transaction(db_);
  std::vector<SectionUpdate> updates;
  for (const auto& change : changes) {
    auto stored = read_stored(*change.section);
    if (!stored) {
      return stored.error();
    }
    SectionValues merged;
    for (std::size_t i = 0; i < change.values.size(); ++i) {
      if (change.values[i]) {
        merged.push_back(*change.values[i]);
      } else if (stored.value()[i].value) {
        merged.push_back(*stored.value()[i].value);
      } else {
        return ErrorPayload{Error::InvalidState, stored.value()[i].problem};
      }
    }
    if (auto checked = check_values(*change.section, merged); !checked) {
      return checked.error();
    }
    updates.push_back(SectionUpdate{change.section, std::move(merged)});
  }
  auto changed = write_locked(updates);
  if (changed && !transaction.commit()) {
    return sqlite_error(db_, shown_name_, "committing");
  }
  return changed;
}

Result<std::vector<std::uint32_t>> Store::write_locked(std::span<const SectionUpdate> updates) {
  Statement upsert(db_,
                   "INSERT INTO field(section_id, name, value) VALUES(?1, ?2, ?3) "
                   "ON CONFLICT(section_id, name) DO UPDATE SET value = excluded.value "
                   "WHERE value IS NOT excluded.value");
  if (!upsert.ok()) {
    return sqlite_error(db_, shown_name_, "preparing a write");
  }
  std::vector<std::uint32_t> changed;
  std::set<std::uint32_t> seen;
  for (const auto& update : updates) {
    bool section_changed = false;
    for (std::size_t i = 0; i < update.values.size(); ++i) {
      upsert.bind(1, static_cast<std::int64_t>(update.section->id));
      upsert.bind(2, update.section->fields[i].name);
      upsert.bind(3, static_cast<std::int64_t>(update.values[i]));
      if (upsert.step() != SQLITE_DONE) {
        return sqlite_error(db_, shown_name_, "writing");
      }
      section_changed = section_changed || sqlite3_changes(db_) > 0;
      upsert.reset();
    }
    if (section_changed && seen.insert(update.section->id).second) {
      changed.push_back(update.section->id);
    }
  }
  return changed;
}

}  // namespace xpon::cfgdb
