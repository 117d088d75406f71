#pragma once

#include "xpon/factory/factory.h"
#include "xpon/logger/ilogger.hpp"

#include <cstdint>
#include <memory>
#include <string_view>

namespace xpon::system_mgr {

/// The device family of the board, decided once from the device name in the factory data.
enum class DeviceType : std::uint32_t {
  LT = 0,
  LC = 1,
  FC = 2,
};

/// Tells which device family the board belongs to.
class IFactory {
 public:
  virtual ~IFactory() = default;

  /// The family decided at construction.
  [[nodiscard]] virtual DeviceType device_type() const = 0;

 protected:
  IFactory() = default;
  IFactory(const IFactory&) = default;
  IFactory& operator=(const IFactory&) = default;
};

/// Reads the board's factory data once and derives the device family from its device name.
class Factory : public IFactory {
 public:
  /// Reads the factory data through the log category `name`; throws std::runtime_error when
  /// the data cannot be read, is not valid, or names no known family.
  Factory(const std::shared_ptr<logger::ILogger>& logger, const std::string_view& name);
  ~Factory() override;
  Factory(const Factory&) = delete;
  Factory& operator=(const Factory&) = delete;

  [[nodiscard]] DeviceType device_type() const override { return device_type_; }

  /// The family of a device name: "Korvan-" or "Tesmik-" give LT, then "QD7R-FC" FC, then
  /// "QD7R-LC" LC, first match wins; throws std::runtime_error "Unknown device type (<name>)".
  static DeviceType classify(const char* device_name);

 private:
  std::shared_ptr<logger::ILogger> logger_;
  Factory__data record_;
  DeviceType device_type_ = DeviceType::LT;
};

}  // namespace xpon::system_mgr
