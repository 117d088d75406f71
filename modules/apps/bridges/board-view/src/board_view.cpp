#include "xpon/board_view/board_view.hpp"

#include "xpon/system_mgr/api.h"

#include <fmt/format.h>

#include <array>
#include <utility>

namespace xpon::board_view {

using namespace xpon::system_mgr;

namespace {

constexpr double kLoadAverageScale = 100.0;

// The requests of a round, in this order; each only where the board's family serves it. The
// device factory answer, which gives the family, comes first.
constexpr std::array kRoundRequests{IPC_SYSTEM_MGR__GET_DEVICE_FACTORY,
                                    IPC_SYSTEM_MGR__GET_CRATE_FACTORY,
                                    IPC_SYSTEM_MGR__GET_FPGA_VERSION,
                                    IPC_SYSTEM_MGR__GET_CPLD_VERSION,
                                    IPC_SYSTEM_MGR__GET_RAM_DATA,
                                    IPC_SYSTEM_MGR__GET_HDD_DATA,
                                    IPC_SYSTEM_MGR__GET_TEMP,
                                    IPC_SYSTEM_MGR__GET_FAN_STATES,
                                    IPC_SYSTEM_MGR__GET_PS_STATES,
                                    IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE,
                                    IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY,
                                    IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE,
                                    IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO,
                                    IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO};

// The events the model follows.
constexpr std::array kEvents{ipc::Key{IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID},
                             ipc::Key{IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED},
                             ipc::Key{IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED},
                             ipc::Key{IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED},
                             ipc::Key{IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED}};

bool served(std::uint16_t id, std::optional<std::uint32_t> family) {
  if (id == IPC_SYSTEM_MGR__GET_DEVICE_FACTORY) {
    return true;
  }
  // Every family takes the crate's factory request, but only an FC board has the crate's image:
  // the others answer it with an error, and log one, each time.
  if (id == IPC_SYSTEM_MGR__GET_CRATE_FACTORY) {
    return family == std::optional<std::uint32_t>(SYSTEM_MGR_FAMILY_FC);
  }
  const RequestInfo* info = find_request(id);
  return info != nullptr && family && *family < 3 && (info->families & (1U << *family)) != 0;
}

}  // namespace

BoardView::BoardView(std::shared_ptr<ipc::IIpc> ipc, std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb,
                     std::shared_ptr<logger::ILogger> logger, BoardViewOptions options)
    : ipc_(std::move(ipc)), cfgdb_(std::move(cfgdb)), logger_(std::move(logger)), options_(options) {}

BoardView::~BoardView() {
  stop();
}

void BoardView::on_transition(TransitionHandler handler) {
  on_transition_ = std::move(handler);
}

core::Result<void> BoardView::start() {
  for (const ipc::Key key : kEvents) {
    auto subscribed = ipc_->subscribe_event(key, [this](const ipc::Event& event) { return handle_event(event); });
    if (!subscribed) {
      return subscribed.error();
    }
  }
  subscribed_ = true;
  thread_ = std::thread([this] { run(); });
  return core::success();
}

void BoardView::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) {
    thread_.join();
  }
  if (subscribed_) {
    for (const ipc::Key key : kEvents) {
      (void)ipc_->unsubscribe_event(key);
    }
    subscribed_ = false;
  }
}

BoardModel BoardView::snapshot() const {
  std::lock_guard lock(mutex_);
  return model_;
}

BoardViewStats BoardView::stats() const {
  std::lock_guard lock(mutex_);
  return stats_;
}

core::Result<void> BoardView::handle_event(const ipc::Event& event) {
  EventOutcome outcome;
  {
    std::lock_guard lock(mutex_);
    outcome = apply_event(model_, event, Clock::now());
    ++(outcome.understood ? stats_.events : stats_.malformed_events);
    if (outcome.inserted) {
      plugged_.push_back(*outcome.inserted);
    }
  }
  if (outcome.inserted) {
    wake_.notify_all();
  }
  if (!outcome.understood) {
    return core::ErrorPayload(core::Error::InvalidInputArg,
                              fmt::format("Event {}:{} with a payload of {} bytes is not understood", event.group,
                                          event.id, event.payload.size()));
  }
  if (outcome.alarm && on_transition_) {
    on_transition_(*outcome.alarm);
  }
  return core::success();
}

bool BoardView::ask(std::uint16_t id, std::optional<std::uint32_t> port) {
  ipc::Request request;
  request.group = IPC_SYSTEM_MGR;
  request.id = id;
  if (port) {
    request.payload = {static_cast<std::uint8_t>(*port), static_cast<std::uint8_t>(*port >> 8U),
                       static_cast<std::uint8_t>(*port >> 16U), static_cast<std::uint8_t>(*port >> 24U)};
  }
  const auto answer = ipc_->request(options_.daemon, std::move(request), options_.request_timeout);
  record(id, port, answer);
  return answer.has_value();
}

void BoardView::record(std::uint16_t id, std::optional<std::uint32_t> port, const core::Result<ipc::Response>& answer) {
  std::lock_guard lock(mutex_);
  apply_answer(model_, id, port, answer, Clock::now());
  ++stats_.requests;
  if (!answer || answer.value().result != SYSTEM_MGR_RESULT_ANSWERED) {
    ++stats_.failed_requests;
  }
}

bool BoardView::stopping() const {
  std::lock_guard lock(mutex_);
  return stopping_;
}

void BoardView::read_limits() {
  if (!cfgdb_) {
    return;
  }
  const CfgDb__key key{};
  CfgDb__alarm_system_temperature temperature{};
  CfgDb__alarm_system_fan fan{};
  CfgDb__alarm_system_ram ram{};
  CfgDb__alarm_disk_space disk{};
  CfgDb__alarm_system_load_average load{};
  const bool read = getRunDb_CommonGCfg_system_alarm_system_temperature(cfgdb_->handle(), &temperature, &key) == 0 &&
                    getRunDb_CommonGCfg_system_alarm_system_fan(cfgdb_->handle(), &fan, &key) == 0 &&
                    getRunDb_CommonGCfg_system_alarm_system_ram(cfgdb_->handle(), &ram, &key) == 0 &&
                    getRunDb_CommonGCfg_system_alarm_system_disk_space(cfgdb_->handle(), &disk, &key) == 0 &&
                    getRunDb_CommonGCfg_system_alarm_system_load_average(cfgdb_->handle(), &load, &key) == 0;
  const std::string why = read ? std::string() : cfgdb__last_error();
  std::lock_guard lock(mutex_);
  if (!read) {
    model_.limits_read.failed = true;
    model_.limits_read.error = why;
    return;
  }
  model_.temperature_limits.clear();
  for (std::int32_t id = 0; id < CFGDB__TEMPERATURE_SENSOR_COUNT; ++id) {
    model_.temperature_limits[id] = {temperature.sensor[id].lower, temperature.sensor[id].upper};
  }
  attach_temperature_limits(model_);
  model_.limits.fan_lower_rpm = unsigned{fan.lower_speed};
  model_.limits.fan_upper_rpm = unsigned{fan.upper_speed};
  model_.limits.ram_free_percent = unsigned{ram.threshold};
  model_.limits.disk_free_percent = unsigned{disk.threshold};
  if (load.threshold != 0) {
    model_.limits.load_average = load.threshold / kLoadAverageScale;
  } else {
    model_.limits.load_average.reset();
  }
  model_.limits_read.updated = Clock::now();
  model_.limits_read.failed = false;
  model_.limits_read.error.clear();
}

void BoardView::read_modules(const std::vector<SfpKey>& modules) {
  for (const auto& [group, port] : modules) {
    if (stopping()) {
      return;
    }
    if (group == PortGroup::Pon) {
      ask(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, port);
      ask(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, port);
    } else {
      ask(IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA, port);
    }
  }
}

void BoardView::poll_once() {
  read_limits();
  // A daemon that does not answer the first request is not asked the others in this round: their
  // readings are marked failed at once rather than one time-out each.
  bool silent = false;
  for (const std::uint16_t id : kRoundRequests) {
    if (stopping()) {
      return;
    }
    std::optional<std::uint32_t> family;
    {
      std::lock_guard lock(mutex_);
      family = model_.family;
    }
    if (!served(id, family)) {
      continue;
    }
    if (silent) {
      record(id, std::nullopt, core::ErrorPayload(core::Error::InvalidState, "no answer to the round's first request"));
    } else if (!ask(id) && id == kRoundRequests.front()) {
      silent = true;
    }
  }
  std::vector<SfpKey> modules;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : model_.sfp) {
      if (silent) {
        const auto [group, port] = entry.first;
        const core::Result<ipc::Response> none = core::ErrorPayload(core::Error::InvalidState);
        if (group == PortGroup::Pon) {
          apply_answer(model_, IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, port, none, Clock::now());
          apply_answer(model_, IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, port, none, Clock::now());
        } else {
          apply_answer(model_, IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA, port, none, Clock::now());
        }
      } else {
        modules.push_back(entry.first);
      }
    }
  }
  read_modules(modules);
  std::lock_guard lock(mutex_);
  ++stats_.rounds;
}

void BoardView::run() {
  while (true) {
    poll_once();
    const auto next = std::chrono::steady_clock::now() + options_.period;
    while (true) {
      std::vector<SfpKey> plugged;
      {
        std::unique_lock lock(mutex_);
        wake_.wait_until(lock, next, [this] { return stopping_ || !plugged_.empty(); });
        if (stopping_) {
          return;
        }
        plugged.assign(plugged_.begin(), plugged_.end());
        plugged_.clear();
      }
      if (plugged.empty()) {
        break;  // the period is over
      }
      read_modules(plugged);
    }
  }
}

}  // namespace xpon::board_view
