#include "xpon/system_mgr/functions/ram_monitoring.hpp"

#include "xpon/core/guard.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;

constexpr const char* kBackToNormal = " is back to normal";

}  // namespace

RamMonitoring::RamMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                             const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, std::chrono::milliseconds period,
                             const std::shared_ptr<host::IHost>& host)
    : SysFunction(logger, ipc, kName, period), logger_(logger), ipc_(ipc), cfgdb_(cfgdb), host_(host) {
  std::memset(&ram_alarm_cfg_, 0, sizeof ram_alarm_cfg_);
  auto updated = core::guarded_call(*logger_, [this] { return cfg_update(); });
  if (!updated) {
    // The trailing blank is part of the system's text.
    throw std::runtime_error(fmt::format("Config update for {} failed ({}) ", kName, updated.error().to_string()));
  }
  declare_routes({{IPC_SYSTEM_MGR__GET_RAM_DATA, [this](const ipc::Request& req) { return get_ram_data(req); }}});
  logger_->progress("{} create successfully", kName);
}

RamMonitoring::~RamMonitoring() {
  logger_->progress("{} destroy successfully", kName);
}

Result<void> RamMonitoring::cfg_update() {
  if (!cfgdb_) {
    return core::propagate(*logger_, Result<void>(ErrorPayload(Error::InvalidInputArg, "no configuration database")));
  }
  // The section has one instance per board, addressed by the all-zero key.
  const CfgDb__key key{};
  CfgDb__alarm_system_ram fresh = ram_alarm_cfg_;
  auto read = core::check_c_api(*logger_, getRunDb_CommonGCfg_system_alarm_system_ram(cfgdb_->handle(), &fresh, &key));
  if (!read) {
    // The previous configuration stays in force.
    return read;
  }
  ram_alarm_cfg_ = fresh;
  threshold_.store(ram_alarm_cfg_.threshold);
  return core::success();
}

Result<void> RamMonitoring::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& changes) {
  return apply_config_changes(changes, {{kConfigSection, [this] { return cfg_update(); }}});
}

Result<void> RamMonitoring::polling() {
  const long physical = host_->get_phys_pages();
  if (physical == -1) {
    logger_->error("get_phys_pages() call failed ({})", std::strerror(errno));
    return ErrorPayload(Error::ErrorCApi);
  }
  const long available = host_->get_avphys_pages();
  if (available == -1) {
    // The call is named differently here and the text says "fail": both as the system logs them.
    logger_->error("get_pages_available() call fail ({})", std::strerror(errno));
    return ErrorPayload(Error::ErrorCApi);
  }

  // Single-precision quotient, then scaled by the double 100.0 and truncated: 12.9 % is 12.
  const std::uint32_t free_share =
      truncate_to_u32(static_cast<double>(static_cast<float>(available) / static_cast<float>(physical)) * 100.0);

  // Strict on purpose: a share equal to the threshold is an alarm; a threshold of 0 clears it
  // for any share above 0.
  const bool normal = threshold_.load() < free_share;

  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = normal ? kAlarmNormal : kAlarmRaised;
  alarm.alarm_id = kAlarmId;
  alarm.value[0] = free_share;
  // Unchecked as designed: the text always fits and a formatting failure still sends the record.
  static_cast<void>(
      host_->format(alarm.text, sizeof alarm.text, "Free RAM is %u%%%s", free_share, normal ? kBackToNormal : ""));

  // Level-triggered on purpose: every poll reports the current state, and the receiver keeps
  // the alarm's state.
  return create_alarm_and_send_trap(&alarm);
}

Result<System_mgr__ram_data> RamMonitoring::read_meminfo() {
  const std::optional<std::string> text = host_->read_file(kMeminfoPath);
  if (!text) {
    return ErrorPayload(Error::CommonError, fmt::format("{} file is not open", kMeminfoPath));
  }
  static const std::regex kMemFree(R"(MemFree:\s+(\d+)\s+kB)", std::regex::ECMAScript);
  static const std::regex kMemTotal(R"(MemTotal:\s+(\d+)\s+kB)", std::regex::ECMAScript);

  System_mgr__ram_data data{};
  bool free_found = false;
  bool total_found = false;
  std::istringstream stream(*text);
  std::string line;
  while (!(free_found && total_found) && std::getline(stream, line)) {
    std::smatch match;
    if (!free_found && std::regex_search(line, match, kMemFree)) {
      // std::stof throws for a number beyond a float; the caller's guard makes that Error::Exception.
      data.free = std::stof(match[1].str());
      free_found = true;
    }
    if (!total_found && std::regex_search(line, match, kMemTotal)) {
      data.total = std::stof(match[1].str());
      total_found = true;
    }
  }
  if (!total_found) {
    return ErrorPayload(Error::CommonError, fmt::format("Can't find MemTotal info in {}", kMeminfoPath));
  }
  if (!free_found) {
    return ErrorPayload(Error::CommonError, fmt::format("Can't find MemFree info in {}", kMeminfoPath));
  }
  return data;
}

Result<void> RamMonitoring::get_ram_data(const ipc::Request& request) {
  // The request's payload is ignored: the request carries no argument.
  auto data = core::guarded_call(*logger_, [this] { return read_meminfo(); });
  if (!data) {
    auto failed = core::propagate(*logger_, Result<void>(std::move(data).as_failure()));
    // The error response's own result (an error even after a successful send) is not the
    // request's outcome: the read error is.
    static_cast<void>(send_error_response(request));
    return failed;
  }
  if (!request.reply_to) {
    // Nobody waits for an answer.
    return core::success();
  }
  const System_mgr__ram_data& ram = data.value();
  ipc::Payload payload(sizeof ram);
  std::memcpy(payload.data(), &ram, sizeof ram);
  auto sent = core::guarded_call(*logger_, [&] { return send_answer(request, std::move(payload)); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return core::success();
}

}  // namespace xpon::system_mgr
