#include "xpon/core/host_path.hpp"
#include "xpon/factory/factory.h"
#include "xpon/factory/factory_data.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <source_location>
#include <string>
#include <vector>

namespace xpon::factory {

namespace {

constexpr int kLevelProgress = 0;
constexpr int kLevelWarning = 3;
constexpr int kLevelError = 4;

void raw_log(zlog_category_t* category, int level, const std::string& text,
             const std::source_location& where = std::source_location::current()) {
  if (category == nullptr) {
    return;
  }
  xpon_raw_log(category, level, where.file_name(), static_cast<int>(where.line()), where.function_name(), text.c_str());
}

int read_factory(zlog_category_t* category, std::string_view shown_path, const std::string& open_path,
                 Factory__data* record, bool* valid) noexcept {
  if (record == nullptr || valid == nullptr) {
    return EINVAL;
  }
  *record = Factory__data{};
  *valid = false;
  try {
    std::vector<std::uint8_t> bytes;
    const int failure = read_image_file(open_path, bytes);
    if (failure != 0) {
      raw_log(
          category, kLevelError,
          fmt::format("Unable to read factory image {}: {} (errno {})", shown_path, std::strerror(failure), failure));
      errno = 0;
      return failure;
    }
    const FactoryResult result = factory_data_from_bytes(bytes);
    for (const std::string& note : result.notes) {
      raw_log(category, kLevelWarning, fmt::format("Factory image {}: {}", shown_path, note));
    }
    if (!result.valid()) {
      raw_log(category, kLevelError, fmt::format("Invalid factory image {}: {}", shown_path, result.reason));
      return 0;
    }
    *record = *result.data;
    *valid = true;
    raw_log(category, kLevelProgress, fmt::format("Factory image {} read: device {}", shown_path, record->device_name));
    return 0;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (...) {
    return EIO;
  }
}

int read_factory_at(zlog_category_t* category, std::string_view logical_path, Factory__data* record,
                    bool* valid) noexcept {
  std::string open_path;
  try {
    open_path = xpon::core::host_path(logical_path);
  } catch (...) {
    return ENOMEM;
  }
  return read_factory(category, logical_path, open_path, record, valid);
}

}  // namespace

}  // namespace xpon::factory

extern "C" int get_factory(zlog_category_t* category, Factory__data* record, bool* valid) {
  return xpon::factory::read_factory_at(category, FACTORY__DEVICE_IMAGE_PATH, record, valid);
}

extern "C" int get_crate_factory(zlog_category_t* category, Factory__data* record, bool* valid) {
  return xpon::factory::read_factory_at(category, FACTORY__CRATE_IMAGE_PATH, record, valid);
}

extern "C" int get_factory_from_file(zlog_category_t* category, const char* path, Factory__data* record, bool* valid) {
  if (path == nullptr) {
    return EINVAL;
  }
  try {
    const std::string open_path(path);
    return xpon::factory::read_factory(category, open_path, open_path, record, valid);
  } catch (...) {
    return ENOMEM;
  }
}
