#include "xpon/system_mgr/services/factory_records.hpp"

#include "xpon/factory/factory.h"
#include "xpon/logger/logger.hpp"

#include <fmt/format.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace xpon::system_mgr {

namespace {

// The daemon's log category: the factory library writes why an image was refused there.
constexpr std::string_view kLogCategory = "SYSTEM-MGR";

using Reader = int (*)(zlog_category_t*, Factory__data*, bool*);

// Reads one image into `record`; the returned text is empty when it was read and valid,
// otherwise it says why not.
std::string read_image(Reader reader, Factory__data& record) {
  std::memset(&record, 0, sizeof record);
  bool valid = false;
  const int returned = reader(logger::Logger::get_raw_zlog_category(kLogCategory), &record, &valid);
  if (returned != 0) {
    std::memset(&record, 0, sizeof record);
    return fmt::format("the image cannot be read, error {}", returned);
  }
  if (!valid) {
    std::memset(&record, 0, sizeof record);
    return "the image is not valid factory data";
  }
  return {};
}

}  // namespace

System_mgr__factory read_device_factory(logger::ILogger& logger, DeviceType family) {
  System_mgr__factory answer;
  std::memset(&answer, 0, sizeof answer);
  answer.family = static_cast<std::uint32_t>(family);
  Factory__data data;
  const std::string failure = read_image(&get_factory, data);
  if (!failure.empty()) {
    logger.error("Device factory data unavailable ({}): the device factory answer carries the family id only", failure);
  }
  answer.data = data;
  return answer;
}

System_mgr__factory read_crate_factory(logger::ILogger& logger) {
  System_mgr__factory answer;
  std::memset(&answer, 0, sizeof answer);
  Factory__data data;
  const std::string failure = read_image(&get_crate_factory, data);
  if (!failure.empty()) {
    // Not fatal: the board runs without its crate's data, and clients see the all-zero record.
    logger.warning("Crate factory data unavailable ({}): the crate factory answer is all zero", failure);
    return answer;
  }
  answer.family = static_cast<std::uint32_t>(DeviceType::FC);
  answer.data = data;
  return answer;
}

std::shared_ptr<MiscParameters> make_misc_parameters(const std::shared_ptr<logger::ILogger>& logger,
                                                     const std::shared_ptr<ipc::IIpc>& ipc,
                                                     const std::shared_ptr<board::IBoard>& board, DeviceType family) {
  auto misc = std::make_shared<MiscParameters>(logger, ipc, board);
  misc->set_device_factory(read_device_factory(*logger, family));
  if (family == DeviceType::FC) {
    misc->set_crate_factory(read_crate_factory(*logger));
  }
  return misc;
}

}  // namespace xpon::system_mgr
