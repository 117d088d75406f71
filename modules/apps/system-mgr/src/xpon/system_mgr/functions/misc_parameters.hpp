#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <cstdint>
#include <memory>
#include <string_view>

namespace xpon::system_mgr {

/// Answers the board's identity and small controls for the other daemons: the factory data of
/// the device and of the crate, the FPGA and CPLD versions, the front button and the two-colour
/// LEDs of the PON ports. Never polls and reads no configuration.
class MiscParameters : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "MiscParameters";

  /// Reads the FPGA, then the CPLD configuration version; throws std::runtime_error when one
  /// cannot be read (a failed FPGA read leaves the CPLD version unread).
  MiscParameters(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                 const std::shared_ptr<board::IBoard>& board);
  ~MiscParameters() override;
  MiscParameters(const MiscParameters&) = delete;
  MiscParameters& operator=(const MiscParameters&) = delete;
  MiscParameters(MiscParameters&&) = delete;
  MiscParameters& operator=(MiscParameters&&) = delete;

  /// Sets the device's factory answer (family id first). Called by the family service before
  /// run: requests read it without a lock.
  void set_device_factory(const System_mgr__factory& record) noexcept { device_factory_ = record; }

  /// Sets the crate's factory answer, meaningful on FC boards; same rule as set_device_factory.
  void set_crate_factory(const System_mgr__factory& record) noexcept { crate_factory_ = record; }

  /// The device's factory answer as it stands (all zero until the service fills it).
  [[nodiscard]] const System_mgr__factory& device_factory() const noexcept { return device_factory_; }

  /// The crate's factory answer as it stands (all zero until the service fills it).
  [[nodiscard]] const System_mgr__factory& crate_factory() const noexcept { return crate_factory_; }

  /// The FPGA configuration version read at construction.
  [[nodiscard]] std::uint8_t fpga_version() const noexcept { return fpga_version_; }

  /// The CPLD configuration version read at construction.
  [[nodiscard]] std::uint8_t cpld_version() const noexcept { return cpld_version_; }

 private:
  Result<void> get_factory(const ipc::Request& request, const System_mgr__factory& record);
  Result<void> get_crate_factory(const ipc::Request& request);
  Result<void> answer(const ipc::Request& request, ipc::Payload payload);
  template <typename Value>
  Result<void> f_btn_call(const ipc::Request& request, Result<Value> (board::IBoard::*call)(),
                          std::string_view operation);
  Result<void> p_port_led_handlers(const ipc::Request& request, Brd_api__led_mode red, Brd_api__led_mode green);
  Result<std::uint8_t> read_version(Result<std::uint8_t> (board::IBoard::*read)());

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<board::IBoard> board_;
  // Written at construction and by the service before run; only read afterwards.
  System_mgr__factory device_factory_;
  System_mgr__factory crate_factory_;
  std::uint8_t fpga_version_ = 0;
  std::uint8_t cpld_version_ = 0;
};

}  // namespace xpon::system_mgr
