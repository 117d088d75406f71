#include "xpon/cfgdb/cfgdb_wrapper.hpp"

#include "xpon/cfgdb/schema.hpp"
#include "xpon/cfgdb/store.hpp"
#include "xpon/core/host_path.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

struct CfgDb__handle {
  std::unique_ptr<xpon::cfgdb::Store> store;
};

namespace xpon::cfgdb {
namespace {

thread_local std::string last_error;

std::unique_ptr<Store> open_store(const std::string& file, const std::string& shown_name) {
  auto store = Store::open(file, shown_name);
  if (!store) {
    const auto& info = store.error().info;
    throw std::runtime_error(info && info->message ? *info->message : store.error().to_string());
  }
  return std::move(store).value();
}

int fail(int error_number, std::string text) {
  last_error = std::move(text);
  errno = error_number;
  return -1;
}

// Fills one section's record from one read transaction; the record is written only when the
// whole section was read and accepted, so a failed call leaves the caller's previous values.
int fill_record(CfgDb__handle* db, SectionRef ref, void* record, std::size_t size, const CfgDb__key* key) noexcept {
  try {
    if (db == nullptr || db->store == nullptr || record == nullptr || key == nullptr) {
      return fail(EINVAL, fmt::format("{}: null handle, record or key", ref.name));
    }
    if (std::any_of(std::begin(key->index), std::end(key->index), [](std::uint8_t byte) { return byte != 0; })) {
      return fail(ENOENT, fmt::format("{}: no instance for a non-zero key", ref.name));
    }
    const SectionSpec* section = find_section(ref.id);
    if (section == nullptr || section->record_size != size) {
      return fail(EINVAL, fmt::format("{}: section not declared with a {}-byte record", ref.name, size));
    }
    auto values = db->store->read(*section);
    if (!values) {
      const auto& info = values.error().info;
      const bool bad_value = values.error().error == core::Error::InvalidState;
      return fail(bad_value ? EINVAL : EIO, info && info->message ? *info->message : values.error().to_string());
    }
    const auto bytes = encode_record(*section, values.value());
    std::memcpy(record, bytes.data(), bytes.size());
    return 0;
  } catch (const std::exception& exception) {
    return fail(EIO, fmt::format("{}: {}", ref.name, exception.what()));
  } catch (...) {
    return fail(EIO, fmt::format("{}: unexpected failure", ref.name));
  }
}

}  // namespace

CfgDbWrapper::CfgDbWrapper(std::string_view name)
    : name_(name),
      file_(core::host_path(kDatabasePath)),
      handle_(new CfgDb__handle{open_store(file_, std::string(kDatabasePath))}) {}

CfgDbWrapper::CfgDbWrapper(std::string_view name, std::string file)
    : name_(name), file_(std::move(file)), handle_(new CfgDb__handle{open_store(file_, file_)}) {}

CfgDbWrapper::~CfgDbWrapper() {
  delete handle_;
}

CfgDb__handle* CfgDbWrapper::handle() const noexcept {
  return handle_;
}

const std::string& CfgDbWrapper::name() const noexcept {
  return name_;
}

const std::string& CfgDbWrapper::file() const noexcept {
  return file_;
}

}  // namespace xpon::cfgdb

extern "C" {

int getRunDb_CommonGCfg_system_alarm_system_load_average(CfgDb__handle* db, CfgDb__alarm_system_load_average* cfg,
                                                         const CfgDb__key* key) {
  return xpon::cfgdb::fill_record(db, xpon::cfgdb::kAlarmSystemLoadAverage, cfg, sizeof(*cfg), key);
}

int getRunDb_CommonGCfg_system_alarm_system_ram(CfgDb__handle* db, CfgDb__alarm_system_ram* cfg,
                                                const CfgDb__key* key) {
  return xpon::cfgdb::fill_record(db, xpon::cfgdb::kAlarmSystemRam, cfg, sizeof(*cfg), key);
}

int getRunDb_CommonGCfg_system_alarm_system_disk_space(CfgDb__handle* db, CfgDb__alarm_disk_space* cfg,
                                                       const CfgDb__key* key) {
  return xpon::cfgdb::fill_record(db, xpon::cfgdb::kAlarmDiskSpace, cfg, sizeof(*cfg), key);
}

int getRunDb_CommonGCfg_system_alarm_system_temperature(CfgDb__handle* db, CfgDb__alarm_system_temperature* cfg,
                                                        const CfgDb__key* key) {
  return xpon::cfgdb::fill_record(db, xpon::cfgdb::kAlarmSystemTemperature, cfg, sizeof(*cfg), key);
}

int getRunDb_CommonGCfg_system_alarm_system_fan(CfgDb__handle* db, CfgDb__alarm_system_fan* cfg,
                                                const CfgDb__key* key) {
  return xpon::cfgdb::fill_record(db, xpon::cfgdb::kAlarmSystemFan, cfg, sizeof(*cfg), key);
}

int getRunDb_CommonGCfg_system_fan_speed(CfgDb__handle* db, CfgDb__fan* cfg, const CfgDb__key* key) {
  return xpon::cfgdb::fill_record(db, xpon::cfgdb::kFan, cfg, sizeof(*cfg), key);
}

const char* cfgdb__last_error(void) {
  return xpon::cfgdb::last_error.c_str();
}

}  // extern "C"
